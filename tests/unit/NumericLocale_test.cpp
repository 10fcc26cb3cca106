// Payloads and log numbers are the same bytes whatever numeric locale the host
// has adopted (here German, where printf writes "7,5").
#include <Kavelin/Kavelin.h>

#include <clocale>
#include <cstdio>

#include "support/PlayerControllerFixture.h"

namespace kavelin::testing {
namespace {

class GermanHost : public PlayerControllerTest {
  protected:
    void SetUp() override {
        PlayerControllerTest::SetUp();
        ASSERT_NE(std::setlocale(LC_ALL, "de_DE.UTF-8"), nullptr)
            << "the de_DE.UTF-8 locale is missing: run scripts/setup.sh";
        char probe[16];
        std::snprintf(probe, sizeof probe, "%.1f", 7.5);
        ASSERT_STREQ(probe, "7,5");  // the locale really is in force
    }
    void TearDown() override {
        std::setlocale(LC_ALL, "C");
        PlayerControllerTest::TearDown();
    }
};

TEST_F(GermanHost, MidRollPayloadAndLogLinesUseADecimalPoint) {
    pc->midRollConfig = policy({0.25});  // 7.5 s into a 30 s clip
    startPlaylist("pl-1");
    vp.advance(8);
    EXPECT_EQ(events.count("OnMidRollAdRequired"), 1u);
    EXPECT_NE(std::find(events.events().begin(), events.events().end(),
                        HostEvent{"OnMidRollAdRequired", "7.5"}),
              events.events().end());
    EXPECT_TRUE(logs.contains("⏱️ Mid-roll ad triggered at 7.5s"));
    EXPECT_TRUE(logs.contains(R"(🎯 Mid-roll: 1 cue points for 30s video: ["7.5"])"));

    seekForward(2.5);
    EXPECT_EQ(events.events().back(), (HostEvent{"OnVideoSeekForward", "2.5"}));
}

}  // namespace
}  // namespace kavelin::testing
