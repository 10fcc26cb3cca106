#include "Kavelin/Extentions/URLString.h"

namespace kavelin {
namespace {

bool isAlpha(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool isDigit(char c) {
    return c >= '0' && c <= '9';
}
bool isHex(char c) {
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// Unreserved, sub-delimiters and the delimiters that may appear inside a URL,
// brackets excepted (they are only legal around an IPv6 host).
bool isURLChar(char c) {
    if (isAlpha(c) || isDigit(c)) return true;
    switch (c) {
        case '-':
        case '.':
        case '_':
        case '~':
        case ':':
        case '/':
        case '?':
        case '#':
        case '@':
        case '!':
        case '$':
        case '&':
        case '\'':
        case '(':
        case ')':
        case '*':
        case '+':
        case ',':
        case ';':
        case '=':
            return true;
        default:
            return false;
    }
}

// "[" hex-digits, ":" and "." (or an IPvFuture "v..." form) "]".
bool isBracketHost(std::string_view host) {
    if (host.size() < 3 || host.front() != '[' || host.back() != ']') return false;
    auto inner = host.substr(1, host.size() - 2);
    for (char c : inner)
        if (!(isHex(c) || c == ':' || c == '.' || c == 'v' || c == 'V')) return false;
    return inner.find(':') != std::string_view::npos;
}

}  // namespace

bool isValidURLString(std::string_view text) {
    // scheme = ALPHA *( ALPHA / DIGIT / "+" / "-" / "." )
    const auto colon = text.find(':');
    if (colon == std::string_view::npos || colon == 0 || !isAlpha(text[0])) return false;
    for (size_t i = 1; i < colon; ++i) {
        const char c = text[i];
        if (!(isAlpha(c) || isDigit(c) || c == '+' || c == '-' || c == '.')) return false;
    }
    std::string_view rest = text.substr(colon + 1);

    // An IPv6 host is the one place brackets may appear.
    size_t bracketBegin = std::string_view::npos, bracketEnd = std::string_view::npos;
    if (rest.starts_with("//")) {
        const auto authority = rest.substr(2, rest.find_first_of("/?#", 2) - 2);
        const auto at = authority.rfind('@');
        const auto hostStart = (at == std::string_view::npos) ? 0 : at + 1;
        if (hostStart < authority.size() && authority[hostStart] == '[') {
            const auto close = authority.find(']', hostStart);
            if (close == std::string_view::npos ||
                !isBracketHost(authority.substr(hostStart, close - hostStart + 1)))
                return false;
            bracketBegin = 2 + hostStart;
            bracketEnd = 2 + close;
        }
    }

    bool inFragment = false;
    for (size_t i = 0; i < rest.size(); ++i) {
        const char c = rest[i];
        if (i >= bracketBegin && i <= bracketEnd && bracketBegin != std::string_view::npos)
            continue;
        if (c == '%') {
            if (i + 2 >= rest.size() || !isHex(rest[i + 1]) || !isHex(rest[i + 2])) return false;
            i += 2;
            continue;
        }
        if (c == '#') {
            if (inFragment) return false;
            inFragment = true;
            continue;
        }
        if (!isURLChar(c)) return false;
    }
    return true;
}

}  // namespace kavelin
