#include "Kavelin/Extentions/NumberFormatting.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <limits>

#include "support/ScopedEnv.h"

namespace kavelin {
namespace {

TEST(DoubleDescription, FixedWithAFractionInsideTheReadableRangeExponentOutside) {
    const double inf = std::numeric_limits<double>::infinity();
    // clang-format off
    const std::pair<double, const char*> cases[] = {
        {7.25, "7.25"}, {95.0, "95.0"}, {210.5, "210.5"}, {100000.0, "100000.0"}, {-12.5, "-12.5"},
        {0.1, "0.1"}, {1.0 / 3.0, "0.3333333333333333"}, {0.0, "0.0"}, {-0.0, "-0.0"},
        {0.0001, "0.0001"}, {0.00001, "1e-05"}, {-0.00001, "-1e-05"},
        {9007199254740991.0 /* 2^53 - 1 */, "9007199254740991.0"},
        {9007199254740992.0, "9.007199254740992e+15"}, {1e16, "1e+16"}, {1.5e300, "1.5e+300"},
        {5e-324, "5e-324"}, {inf, "inf"}, {-inf, "-inf"}, {std::nan(""), "nan"}};
    // clang-format on
    for (const auto& [value, text] : cases) EXPECT_EQ(doubleDescription(value), text);
    // The shortest text that reads back to the same value.
    for (double v : {0.1 + 0.2, 123.456, 1e-4 * 3, 2.0 / 7.0, 6.02214076e23, 1e-300,
                     4503599627370497.5, -987654.321})
        EXPECT_EQ(std::strtod(doubleDescription(v).c_str(), nullptr), v) << doubleDescription(v);
}

TEST(FormatDouble, PrintfRoundingAndLongOutput) {
    EXPECT_EQ(formatDouble("%.0f", 59.9), "60");
    EXPECT_EQ(formatDouble("%.0f", 2.5), "2");  // round half to even, as printf does
    EXPECT_EQ(formatDouble("%.1f", 60.0), "60.0");
    EXPECT_EQ(formatDouble("%.1f", 150.5), "150.5");
    EXPECT_EQ(formatDouble("%.0f", std::nan("")), "nan");
    std::string big = formatDouble("%.0f", 1e300);
    EXPECT_EQ(big.size(), 301u);
    EXPECT_EQ(big.substr(0, 3), "100");
}

TEST(UtcDescription, FormatsInUtcWhateverTheLocalZone) {
    using namespace std::chrono;
    ScopedEnv tz("TZ", "Asia/Tokyo");
    tzset();
    system_clock::time_point t{seconds{1738346645}};  // 2025-01-31 18:04:05 UTC
    EXPECT_EQ(utcDescription(t), "2025-01-31 18:04:05 +0000");
    EXPECT_EQ(utcDescription(t + milliseconds{999}), "2025-01-31 18:04:05 +0000");
    EXPECT_EQ(utcDescription(system_clock::time_point{} - milliseconds{500}),
              "1969-12-31 23:59:59 +0000");
}

}  // namespace
}  // namespace kavelin
