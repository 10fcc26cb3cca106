#include "Kavelin/Extentions/URLString.h"

namespace kavelin {
namespace {

bool isAlpha(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool isDigit(unsigned char c) {
    return c >= '0' && c <= '9';
}
bool isHex(unsigned char c) {
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// Unreserved characters and every delimiter except brackets, "#" and "%", which
// are legal only in one place each and are handled by the caller.
bool isPlainURLChar(unsigned char c) {
    if (isAlpha(c) || isDigit(c)) return true;
    switch (c) {
        case '-':
        case '.':
        case '_':
        case '~':
        case ':':
        case '/':
        case '?':
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

bool hasControlCharacter(std::string_view text) {
    for (size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c == 0x7F) return true;
        // C1 controls, U+0080 to U+009F, are 0xC2 0x80..0x9F in UTF-8.
        if (c == 0xC2 && i + 1 < text.size()) {
            const auto next = static_cast<unsigned char>(text[i + 1]);
            if (next >= 0x80 && next <= 0x9F) return true;
        }
    }
    return false;
}

// Length of "scheme:" at the start, or 0 when the reference has no scheme.
size_t schemeLength(std::string_view text) {
    if (text.empty() || !isAlpha(static_cast<unsigned char>(text[0]))) return 0;
    for (size_t i = 1; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c == ':') return i + 1;
        if (!(isAlpha(c) || isDigit(c) || c == '+' || c == '-' || c == '.')) return 0;
    }
    return 0;
}

void appendEscaped(std::string& out, unsigned char c) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    out += '%';
    out += kDigits[c >> 4];
    out += kDigits[c & 0xF];
}

}  // namespace

std::optional<std::string> playerAddress(std::string_view text) {
    if (text.empty() || hasControlCharacter(text)) return std::nullopt;
    const size_t scheme = schemeLength(text);
    if (scheme == 0) return std::string(text);

    // Brackets may only enclose the host of an authority ("//[::1]:8080").
    size_t hostBegin = std::string_view::npos, hostEnd = std::string_view::npos;
    if (text.substr(scheme).starts_with("//")) {
        const size_t authorityBegin = scheme + 2;
        const size_t authorityEnd = text.find_first_of("/?#", authorityBegin);
        const auto authority = text.substr(authorityBegin, authorityEnd - authorityBegin);
        const auto at = authority.rfind('@');
        const size_t host = authorityBegin + (at == std::string_view::npos ? 0 : at + 1);
        const size_t close = text.find(']', host);
        if (host < text.size() && text[host] == '[' && close != std::string_view::npos &&
            (authorityEnd == std::string_view::npos || close < authorityEnd)) {
            hostBegin = host;
            hostEnd = close;
        }
    }

    std::string out(text.substr(0, scheme));
    out.reserve(text.size() + 16);
    bool inFragment = false;
    for (size_t i = scheme; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (i == hostBegin || i == hostEnd || isPlainURLChar(c)) {
            out += static_cast<char>(c);
        } else if (c == '%' && i + 2 < text.size() &&
                   isHex(static_cast<unsigned char>(text[i + 1])) &&
                   isHex(static_cast<unsigned char>(text[i + 2]))) {
            out += '%';  // already an escape
        } else if (c == '#' && !inFragment) {
            inFragment = true;
            out += '#';
        } else {
            appendEscaped(out, c);
        }
    }
    return out;
}

}  // namespace kavelin
