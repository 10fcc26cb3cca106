#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <limits>
#include <memory>

#include "Kavelin/Platform/ThreadMainQueue.h"
#include "Kavelin/Platform/VirtualMainQueue.h"

// Delays come from remote documents (ad time-outs, cue points). Whatever number
// arrives, a delay too large for the clock means "not for a very long time",
// never an overflowed tick count that fires at once; negative or NaN means now.
namespace kavelin {
namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

struct Delay {
    const char* name;
    double seconds;
    bool runsNow;
};

class HostileDelayTest : public ::testing::TestWithParam<Delay> {};

TEST_P(HostileDelayTest, VirtualQueueSaturates) {
    VirtualMainQueue q;
    bool ran = false;
    q.asyncAfter(GetParam().seconds, [&] { ran = true; });
    q.advance(1e6);  // eleven days later
    EXPECT_EQ(ran, GetParam().runsNow);
    // Advancing by the same hostile amount must not wrap the clock backwards.
    const double before = q.now();
    q.advance(GetParam().seconds);
    EXPECT_GE(q.now(), before);
}

TEST_P(HostileDelayTest, ThreadQueueSaturates) {
    ThreadMainQueue q;
    bool ran = false;  // written and read on the queue only
    q.asyncAfter(GetParam().seconds, [&] { ran = true; });
    // A wrapped deadline would lie in the past and fire before this marker.
    std::promise<bool> seen;
    q.asyncAfter(0.05, [&] { seen.set_value(ran); });
    auto future = seen.get_future();
    ASSERT_EQ(future.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(future.get(), GetParam().runsNow);
}

INSTANTIATE_TEST_SUITE_P(
    Values, HostileDelayTest,
    ::testing::Values(Delay{"huge", 1e300, false}, Delay{"pastInt64Nanos", 1e10, false},
                      Delay{"infinity", kInf, false},
                      Delay{"nan", std::numeric_limits<double>::quiet_NaN(), true},
                      Delay{"minusInfinity", -kInf, true}, Delay{"negative", -1e300, true}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace kavelin
