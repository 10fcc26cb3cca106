// The simulated player that the controller tests stand on behaves like a player:
// time advances only while playing, seeks land later, callbacks come from the queue.
#include "support/SimulatedMediaPlayer.h"

#include <gtest/gtest.h>

#include <cmath>

namespace kavelin::testing {
namespace {

class SimulatedPlayer : public ::testing::Test {
  protected:
    void SetUp() override {
        media->add("m://ten", 10.0);
        media->add("m://late", 5.0, 2.0);
        player = std::dynamic_pointer_cast<SimulatedMediaPlayer>(factory.makePlayer());
    }
    std::shared_ptr<VirtualMainQueue> queue = std::make_shared<VirtualMainQueue>();
    std::shared_ptr<SimulatedMediaLibrary> media = std::make_shared<SimulatedMediaLibrary>();
    SimulatedMediaPlayerFactory factory{queue, media};
    std::shared_ptr<SimulatedMediaPlayer> player;
    using State = std::pair<double, TimeControlStatus>;
    State state() const { return {player->currentTime(), player->timeControlStatus()}; }
    static constexpr auto playing = TimeControlStatus::playing;
    static constexpr auto paused = TimeControlStatus::paused;
    static constexpr auto waiting = TimeControlStatus::waitingToPlayAtSpecifiedRate;
};

TEST_F(SimulatedPlayer, PlaysTicksStallsAndEndsOnVirtualTime) {
    std::vector<double> ticks;
    std::vector<std::pair<TimeControlStatus, TimeControlStatus>> statuses;
    int ends = 0;
    player->replaceCurrentItem("m://ten");
    player->addPeriodicTimeObserver(1.0, [&](double t) { ticks.push_back(t); });
    player->addStatusObserver([&](auto o, auto n) { statuses.emplace_back(o, n); });
    player->addEndOfItemObserver([&] { ++ends; });
    player->play();
    EXPECT_TRUE(statuses.empty());  // delivered later, through the queue
    queue->advance(3.0);
    EXPECT_EQ(ticks, (std::vector<double>{1, 2, 3}));
    ASSERT_FALSE(statuses.empty());
    EXPECT_EQ(statuses.back().second, playing);
    player->pause();
    queue->advance(5.0);
    EXPECT_EQ(state(), State(3.0, paused));
    EXPECT_EQ(ticks.size(), 3u);
    player->play();
    queue->advance(2.0);
    // A stall freezes the clock, then playback carries on.
    player->stall(3.0);
    EXPECT_EQ(state(), State(5.0, waiting));
    queue->advance(3.0);
    EXPECT_EQ(state(), State(5.0, playing));
    queue->advance(1.0);
    EXPECT_EQ(player->currentTime(), 6.0);
    queue->advance(20.0);
    EXPECT_EQ(state(), State(10.0, paused));
    EXPECT_EQ(ends, 1);
}

TEST_F(SimulatedPlayer, DurationKnownLateAndUnknownMediaNeverReady) {
    std::vector<double> durations;
    player->replaceCurrentItem("m://late");
    player->observeDuration([&](double d) { durations.push_back(d); });
    ASSERT_EQ(durations.size(), 1u);  // the initial value, at once
    EXPECT_TRUE(std::isnan(durations[0]));
    player->play();
    queue->advance(1.0);
    EXPECT_EQ(state(), State(0, waiting));
    queue->advance(1.0);
    EXPECT_EQ(durations.back(), 5.0);
    EXPECT_EQ(state().second, playing);
    player->replaceCurrentItem("m://unknown");
    player->play();
    queue->advance(30);
    EXPECT_EQ(state(), State(0, waiting));
    EXPECT_EQ(durations.size(), 2u);  // bound to the earlier item: silent now
}

TEST_F(SimulatedPlayer, SeeksLandLaterAndASupersededSeekReportsUnfinished) {
    std::vector<double> ticks;
    std::vector<bool> results;
    player->replaceCurrentItem("m://ten");
    queue->runUntilIdle();
    player->addPeriodicTimeObserver(0.5, [&](double t) { ticks.push_back(t); });
    player->seek(4.0, 0, 0, [&](bool done) { results.push_back(done); });
    player->seek(6.0, 0.1, 0.1, [&](bool done) { results.push_back(done); });
    EXPECT_TRUE(results.empty());
    queue->advance(SimulatedMediaPlayer::seekLatency);
    EXPECT_EQ(results, (std::vector<bool>{false, true}));
    EXPECT_EQ(ticks, (std::vector<double>{6.0}));  // one tick when a seek lands, paused
    EXPECT_EQ(state(), State(6.0, paused));
    ASSERT_EQ(player->seeks.size(), 2u);
    EXPECT_EQ(player->seeks[1].toleranceBefore, 0.1);
    // Replacing the item abandons a pending seek.
    player->seek(2.0, 0, 0, [&](bool done) { results.push_back(done); });
    player->replaceCurrentItem(std::nullopt);
    queue->runUntilIdle();
    EXPECT_EQ(results.back(), false);
    EXPECT_FALSE(player->hasCurrentItem());
}

TEST_F(SimulatedPlayer, CountsLiveObserversPerKind) {
    player->replaceCurrentItem("m://ten");
    auto a = player->addPeriodicTimeObserver(0.1, [](double) {});
    auto b = player->addStatusObserver([](auto, auto) {});
    auto c = player->observeDuration([](double) {});
    auto d = player->addEndOfItemObserver([] {});
    using Counts = SimulatedMediaPlayer::ObserverCounts;
    EXPECT_EQ(factory.liveObservers(), Counts(1, 1, 1, 1));
    player->removeTimeObserver(a);
    player->removeStatusObserver(b);
    player->invalidateDurationObservation(c);
    player->removeEndOfItemObserver(d);
    EXPECT_EQ(player->observerCounts(), Counts());
    player.reset();
    EXPECT_EQ(factory.lastPlayer(), nullptr);
    EXPECT_EQ(factory.playersMade(), 1);
}

}  // namespace
}  // namespace kavelin::testing
