#include "Kavelin/Extentions/NumberFormatting.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace kavelin {

std::string doubleDescription(double value) {
    if (std::isnan(value)) return "nan";
    if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
    if (value == 0) return std::signbit(value) ? "-0.0" : "0.0";

    // Plain digits in the range where they stay readable and exact, exponent
    // notation outside it, as the usual debug description of a double does.
    const double magnitude = std::fabs(value);
    const bool fixed = magnitude >= 1e-4 && magnitude < 9007199254740992.0;  // 2^53
    char buf[64];
    auto [end, ec] =
        std::to_chars(buf, buf + sizeof buf, value,
                      fixed ? std::chars_format::fixed : std::chars_format::scientific);
    std::string out(buf, ec == std::errc() ? end : buf);
    if (fixed && out.find('.') == std::string::npos) out += ".0";
    return out;
}

std::string formatDouble(const char* format, double value) {
    char small[64];
    int n = std::snprintf(small, sizeof small, format, value);
    if (n < 0) return {};
    if (static_cast<size_t>(n) < sizeof small) return std::string(small, static_cast<size_t>(n));
    std::string out(static_cast<size_t>(n) + 1, '\0');
    std::snprintf(out.data(), out.size(), format, value);
    out.resize(static_cast<size_t>(n));
    return out;
}

std::string utcDescription(std::chrono::system_clock::time_point time) {
    auto seconds = std::chrono::floor<std::chrono::seconds>(time.time_since_epoch()).count();
    std::time_t t = static_cast<std::time_t>(seconds);
    std::tm utc{};
    gmtime_r(&t, &utc);
    char buf[48];
    size_t n = std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S +0000", &utc);
    return std::string(buf, n);
}

}  // namespace kavelin
