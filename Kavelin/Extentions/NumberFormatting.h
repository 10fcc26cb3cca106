#pragma once

#include <chrono>
#include <string>

namespace kavelin {

// Shortest round-trip text of a double that always carries a fractional part:
// 7.25, 0.0, 10.0, 100000.0, 1e+16, 1e-05, inf, nan.
std::string doubleDescription(double value);

// "%.Nf" rendering of one double ("%.1f" -> "95.0"), rounded as printf does but
// independent of the C locale.
std::string formatDouble(const char* format, double value);

// A wall-clock time in UTC as "2025-01-31 18:04:05 +0000".
std::string utcDescription(std::chrono::system_clock::time_point time);

}  // namespace kavelin
