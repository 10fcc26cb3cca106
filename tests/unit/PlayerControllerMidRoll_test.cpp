// Mid-roll breaks: by the clock, by a forward seek, the time-out, and the teardown's order.
#include <Kavelin/Kavelin.h>

#include "support/PlayerControllerFixture.h"

namespace kavelin::testing {
namespace {

using Cues = std::vector<std::pair<double, bool>>;

class MidRoll : public PlayerControllerTest {
  protected:
    void SetUp() override {
        PlayerControllerTest::SetUp();
        vp.media->add(urlOf("a0"), 190);  // a break at half-way falls on 95.0 s
    }
    // Waiting for the host, a break showing.
    std::pair<bool, bool> adState() const {
        return {pc->shouldWaitForAd, pc->midRollCuePointState().isShowingAd};
    }
    // Each planned break: when, and whether it is used up.
    Cues cues() const {
        Cues out;
        for (const auto& c : pc->midRollCuePointState().cuePoints)
            out.emplace_back(c.timestamp, c.consumed);
        return out;
    }
};

TEST_F(MidRoll, ClockReachingACuePointAsksForOneAdOnce) {
    pc->setMidRollConfig(policy({0.5}, 2.0));
    startPlaylist("pl-1");
    EXPECT_EQ(pc->duration.get(), 190);
    EXPECT_EQ(cues(), (Cues{{95.0, false}}));
    events.clear();
    vp.advance(94.9);
    EXPECT_TRUE(events.events().empty());
    vp.advance(0.1);
    EXPECT_EQ(events.take(), (Events{{"OnMidRollAdRequired", "95.0"}}));
    EXPECT_EQ(adState(), std::pair(true, true));
    EXPECT_FALSE(pc->isPlaying);
    EXPECT_NEAR(pc->midRollResumePosition().value_or(-1), 95.0, 1e-9);
    EXPECT_EQ(simPlayer()->timeControlStatus(), TimeControlStatus::paused);
    // The teardown 0.1 s later empties the ad state; the dismissal then tells the host.
    vp.advance(0.1);
    EXPECT_EQ(adState(), std::pair(true, false));
    EXPECT_FALSE(pc->midRollCuePointState().hasCuePoints() || pc->midRollResumePosition());
    vp.advance(0.25);
    EXPECT_EQ(events.take(), (Events{{"OnViewDismissed", "ad_required"}}));
    vp.advance(10);  // the teardown cancelled the time-out: still waiting for the host
    EXPECT_FALSE(logs.contains("⏱️ Mid-roll ad timeout — auto-resuming"));
    EXPECT_TRUE(pc->shouldWaitForAd);
    // The host's answer reloads the same item from its start, its breaks planned afresh.
    service->AdCompletedResumePlayback();
    EXPECT_EQ(events.take(), (Events{kPlay, kPlay}));
    EXPECT_EQ(playingURL(), urlOf("a0"));
    vp.runUntilIdle();
    EXPECT_LT(pc->currentTime.get(), 1.0);
    EXPECT_EQ(cues(), (Cues{{95.0, false}}));
    EXPECT_EQ(logs.count("⏱️ Mid-roll ad triggered at 95.0s"), 1u);
}

// Which limit refuses is the tracker's business; the break only has to ask it, each time.
TEST_F(MidRoll, SessionCapKeepsTheReplannedBreakFromAskingUntilLifted) {
    auto config = policy({0.5});
    config.globalConstraints.maxAdsPerSession = 1;
    pc->setMidRollConfig(config);
    startPlaylist("pl-1");
    vp.advance(95.5);
    service->AdCompletedResumePlayback();
    events.clear();
    vp.advance(100);  // past 95 s of the reloaded item
    EXPECT_EQ(events.count("OnMidRollAdRequired"), 0u);
    EXPECT_TRUE(logs.contains("🚫 Ad blocked: session cap reached (1/1)"));
    EXPECT_TRUE(pc->isPlaying);
    // Lift the cap: the replanned, unconsumed break is due at once.
    config.globalConstraints.maxAdsPerSession.reset();
    pc->setMidRollConfig(config);
    vp.advance(0.1);
    EXPECT_EQ(events.take(), (Events{{"OnMidRollAdRequired", "95.0"}}));
}

TEST_F(MidRoll, SeekOverNoBreakIsTolerantOverTwoAsksForOneAdAndRemembersTheTarget) {
    vp.media->add(urlOf("a0"), 200);
    pc->setMidRollConfig(policy({0.25, 0.5}));  // 50 s and 100 s
    startPlaylist("pl-1");
    events.clear();
    pc->seekTo(40);
    ASSERT_FALSE(simPlayer()->seeks.empty());
    const auto last = simPlayer()->seeks.back();
    EXPECT_EQ(
        std::make_tuple(last.target, last.toleranceBefore, last.toleranceAfter, last.hasCompletion),
        std::make_tuple(40.0, 0.1, 0.1, false));
    vp.advance(SimulatedMediaPlayer::seekLatency);  // landed at 40 s
    EXPECT_TRUE(events.events().empty());
    const size_t seeksBefore = simPlayer()->seeks.size();
    pc->seekTo(150);
    EXPECT_EQ(events.take(), (Events{{"OnMidRollAdRequired", "100.0"}}));
    EXPECT_TRUE(logs.contains("⏱️ Mid-roll ad triggered at 100.0s"));
    EXPECT_EQ(simPlayer()->seeks.size(), seeksBefore);  // the seek itself never ran
    EXPECT_EQ(pc->midRollCuePointState().seekTargetAfterAd, 150.0);
    EXPECT_EQ(cues(), (Cues{{50.0, true}, {100.0, true}}));
    EXPECT_NEAR(pc->midRollResumePosition().value_or(-1), 40.0, 1e-9);
    // Resuming before the teardown moves the target into the resume position.
    pc->resumeAfterMidRollAd();
    EXPECT_EQ(pc->midRollResumePosition(), 150.0);
    EXPECT_FALSE(pc->midRollCuePointState().seekTargetAfterAd.has_value());
    EXPECT_EQ(adState(), std::pair(false, false));
    // A load starts from the beginning: the resume position goes and nothing seeks to it.
    pc->loadVideo(urlOf("a0"));
    EXPECT_FALSE(pc->midRollResumePosition().has_value());
    vp.advance(0.5);
    for (const auto& seek : simPlayer()->seeks) EXPECT_NE(seek.target, 150.0);
}

TEST_F(MidRoll, TimeOutShorterThanTheTeardownResumes) {
    pc->setMidRollConfig(policy({0.5}, 0.05));
    startPlaylist("pl-1");
    vp.advance(95.0);
    ASSERT_TRUE(pc->shouldWaitForAd);
    vp.advance(0.05);
    EXPECT_TRUE(logs.contains("⏱️ Mid-roll ad timeout — auto-resuming"));
    EXPECT_FALSE(pc->shouldWaitForAd || pc->midRollCuePointState().isShowingAd);
    // The screen still goes away, so the host hears the dismissal.
    vp.advance(0.3);
    EXPECT_EQ(events.count("OnViewDismissed"), 1u);
    EXPECT_EQ(pc->hostingController(), nullptr);
}

TEST_F(MidRoll, NoBreakWhileScrubbing) {
    pc->setMidRollConfig(policy({0.5}));
    startPlaylist("pl-1");
    vp.advance(90);
    const double shown = pc->currentTime;
    pc->beginScrub();
    pc->play();  // the host's play arrives mid-drag: the clock runs past the break
    vp.advance(10);
    EXPECT_EQ(events.count("OnMidRollAdRequired"), 0u);
    EXPECT_EQ(pc->currentTime.get(), shown);  // not published while dragging
    pc->endScrub();                           // back to where the thumb stayed
    vp.advance(5.5);
    EXPECT_EQ(events.count("OnMidRollAdRequired"), 1u);
}

TEST_F(MidRoll, PlanUsesTheVideoIdForOverridesAndAPremiumViewerGetsNoPlanAndNoBreaks) {
    auto config = policy({0.25, 0.5});
    config.videoOverrides = std::map<std::string, MidRollAdConfig::VideoOverride>{
        {"a0", MidRollAdConfig::VideoOverride{{20.0}, std::nullopt}}};
    pc->setMidRollConfig(config);
    startPlaylist("pl-1");
    EXPECT_EQ(cues(), (Cues{{20.0, false}}));
    // A plan left from the free tier neither fires on a seek nor on the clock.
    subscriptionStatus() = SubscriptionStatus::premium;
    events.clear();
    pc->seekTo(150);
    vp.advance(60);
    EXPECT_EQ(events.count("OnMidRollAdRequired"), 0u);
    EXPECT_TRUE(pc->isPlaying);
    startPlaylist("pl-1");  // no override for what plays now: still no plan
    EXPECT_FALSE(pc->midRollCuePointState().hasCuePoints());
}

}  // namespace
}  // namespace kavelin::testing
