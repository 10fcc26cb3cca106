// A host with no ad to show acknowledges at once: inside the request's callback,
// while the screen is still closing, or later. Playback must resume exactly once,
// after "OnViewDismissed:ad_required", whatever the moment.
#include <Kavelin/Kavelin.h>

#include "support/PlayerControllerFixture.h"

namespace kavelin::testing {
namespace {

// A kind of request: the event that asks for the ad and the video that plays after it.
struct Kind {
    const char* name;
    std::string request;
    const char* thenPlays;
};
constexpr double kInsideCallback = -1;

// The kind of request, and the acknowledgement's delay after it (or kInsideCallback).
class EarlyAck : public PlayerControllerTest,
                 public ::testing::WithParamInterface<std::tuple<Kind, double>> {
  protected:
    static inline std::string ackOn;  // request method acknowledged inside the callback
    static void hostCallback(const char* text) {
        if (!ackOn.empty() && std::string_view(text).starts_with(ackOn + ":")) {
            AdCompletedResumePlayback();
            AdCompletedResumePlayback();  // a second answer must not resume twice
        }
    }
    void TearDown() override {
        registerUnityCallback(nullptr);
        ackOn.clear();
        PlayerControllerTest::TearDown();
    }
};

TEST_P(EarlyAck, ResumesOnceAfterTheDismissalWhateverTheMoment) {
    const auto [kind, delay] = GetParam();
    const std::string& request = kind.request;
    if (request == "OnMidRollAdRequired") pc->setMidRollConfig(policy({0.5}));  // cue at 15 s
    registerUnityCallback(hostCallback);
    if (delay == kInsideCallback) ackOn = request;
    startPlaylist("pl-1");
    vp.advance(2);
    events.clear();
    if (request == "OnVideoTileClicked") pc->onVideoSelected(video("pl-1", 2));
    for (int i = 0; i < 700 && events.count(request) == 0; ++i) vp.advance(0.05);
    ASSERT_EQ(events.count(request), 1u);
    if (delay != kInsideCallback) {
        vp.advance(delay);
        AdCompletedResumePlayback();
    }
    vp.advance(2);
    const auto& all = events.events();
    auto at = std::find_if(all.begin(), all.end(), [&](auto& e) { return e.method == request; });
    ASSERT_GE(all.end() - at, 3) << ::testing::PrintToString(all);
    EXPECT_EQ(Events(at + 1, at + 3), (Events{{"OnViewDismissed", "ad_required"}, kPlay}));
    EXPECT_EQ(events.count("OnViewDismissed"), 1u);
    EXPECT_EQ(vp.presenter->presentCount(), 2);  // reopened once
    EXPECT_EQ(playingURL(), urlOf(kind.thenPlays));
    EXPECT_TRUE(pc->isPlaying && !pc->shouldWaitForAd && pc->hostingController());
    EXPECT_GT(pc->currentTime.get(), 1.0);
}

INSTANTIATE_TEST_SUITE_P(
    KindsAndMoments, EarlyAck,
    ::testing::Combine(::testing::Values(Kind{"NextVideo", "OnNextVideoAdRequired", "a1"},
                                         Kind{"Tile", "OnVideoTileClicked", "a2"},
                                         Kind{"MidRoll", "OnMidRollAdRequired", "a0"}),
                       ::testing::Values(kInsideCallback, 0.05, 0.2, 1.0)),
    [](const auto& info) {
        const double d = std::get<1>(info.param);
        return std::get<0>(info.param).name +
               (d < 0 ? "InsideCallback"
                      : "After" + std::to_string(static_cast<int>(d * 1000)) + "ms");
    });

}  // namespace
}  // namespace kavelin::testing
