#include "Kavelin/Extentions/NumberFormatting.h"

#include <algorithm>
#include <charconv>
#include <cmath>
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
    // Only "%.<digits>f" is supported; anything else falls back to one decimal.
    int precision = 1;
    if (format && format[0] == '%' && format[1] == '.') {
        int parsed = 0;
        const char* p = format + 2;
        bool digits = false;
        while (*p >= '0' && *p <= '9' && parsed < 60) {
            parsed = parsed * 10 + (*p++ - '0');
            digits = true;
        }
        if (digits && p[0] == 'f' && p[1] == '\0') precision = std::min(parsed, 60);
    }
    if (std::isnan(value)) return std::signbit(value) ? "-nan" : "nan";
    if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
    // to_chars never consults the C locale, so a host's LC_NUMERIC cannot turn
    // "95.0" into "95,0". 1e308 with 60 decimals fits.
    char buf[512];
    auto [end, ec] =
        std::to_chars(buf, buf + sizeof buf, value, std::chars_format::fixed, precision);
    return ec == std::errc() ? std::string(buf, end) : std::string();
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
