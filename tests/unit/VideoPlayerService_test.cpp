#include <gtest/gtest.h>

#include "Kavelin/VideoPlayerBridgging.h"
#include "support/PlayerControllerFixture.h"

using namespace kavelin;
using namespace kavelin::testing;

namespace {

using ServiceTest = PlayerControllerTest;

const char* kPolicyV3 = R"({"version":3,"adTimeoutSeconds":8,
  "globalConstraints":{"minGapSeconds":45,"noAdZoneStartSeconds":15,"noAdZoneEndSeconds":20},
  "durationBuckets":[{"minSeconds":0,"maxSeconds":120,"maxBreaks":0,"placements":[]},
                     {"minSeconds":120,"maxSeconds":300,"maxBreaks":1,"placements":[0.5]}]})";

TEST_F(ServiceTest, PresentationFlagsLandAfterTheCurrentWorkOnWhicheverControllerExistsThen) {
    service->setShowLogo(false);
    service->setShowForwardButton(true);
    service->setShowTimeDuration(false);
    EXPECT_TRUE(pc->showLogo.get()) << "flags are deferred, not applied inside the call";
    vp.runUntilIdle();
    EXPECT_EQ(
        std::make_tuple(pc->showLogo.get(), pc->showForwardButton.get(), pc->showTimeDration.get()),
        std::make_tuple(false, true, false));
    // Set, then the controller is replaced before the block runs: the new one gets it.
    service->cleanup();
    service->setShowBackButton(false);
    service->setURLS({"http://127.0.0.1:8080/x.m3u8"});
    auto fresh = service->playerController;
    ASSERT_TRUE(fresh && fresh != pc);
    EXPECT_TRUE(fresh->showBackButton.get());
    vp.runUntilIdle();
    EXPECT_FALSE(fresh->showBackButton.get());
    // With no controller when the block runs, the flag is simply dropped.
    service->setShowSeekbar(false);
    service->cleanup();
    vp.runUntilIdle();
    EXPECT_FALSE(service->playerController);
}

TEST_F(ServiceTest, CleanupDropsTheControllerUntilSetURLSMakesOneThatKnowsTheTracker) {
    service->cleanup();
    EXPECT_TRUE(!service->playerController && service->currentIndex() == 0);
    // Every forward is now a no-op, including the ones that need a controller.
    service->play();
    service->seekTo(3);
    service->playPlaylist("pl-1");
    service->setMidRollAdConfig(kPolicyV3);
    service->AdCompletedResumePlayback();
    EXPECT_FALSE(logs.contains("✅ Mid-roll ad config loaded (v3): 2 buckets") ||
                 logs.contains("🎯 Ad completed, resuming playback"));
    EXPECT_TRUE(events.events().empty());
    EXPECT_EQ(service->adSessionTracker->totalAdsShown(), 0);
    EXPECT_TRUE(service->playlistController) << "the playlist controller survives cleanup";

    service->setURLS({"a", "b"});
    ASSERT_TRUE(service->playerController);
    EXPECT_EQ(service->playerController->getURLs(), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(service->playerController->adSessionTracker(), service->adSessionTracker);
}

TEST_F(ServiceTest, PolicyIsLoggedWithVersionAndBucketsAndBadOnesKeepTheLastGood) {
    service->setMidRollAdConfig(kPolicyV3);
    EXPECT_TRUE(logs.contains("✅ Mid-roll ad config loaded (v3): 2 buckets"));
    EXPECT_EQ(pc->midRollConfig().version, 3);

    service->setMidRollAdConfig(R"({"version":4})");
    EXPECT_EQ(logs.countPrefix("⚠️ Failed to decode mid-roll config: "), 1u);
    EXPECT_EQ(logs.levelOf(LogCapture::messageOf(logs.lines().back())), "WARNING");
    EXPECT_EQ(pc->midRollConfig().version, 3) << "a failed decode keeps the policy in force";
}

TEST_F(ServiceTest, PremiumResetsTheSessionAndCuePointsButTurningItOffResetsNothing) {
    service->adSessionTracker->recordAdShown();
    pc->setMidRollConfig(policy({0.5}));
    startPlaylist("pl-1");
    vp.advance(kClip / 2);  // the break at half-way is showing
    ASSERT_TRUE(pc->midRollCuePointState().isShowingAd);

    service->setPremium(false);
    EXPECT_TRUE(logs.contains("✅ Subscription updated:free"));
    EXPECT_EQ(service->adSessionTracker->totalAdsShown(), 1);
    EXPECT_TRUE(pc->midRollCuePointState().hasCuePoints());

    service->setPremium(true);
    EXPECT_TRUE(logs.contains("✅ Subscription updated:premium"));
    EXPECT_EQ(subscriptionStatus(), SubscriptionStatus::premium);
    EXPECT_EQ(service->adSessionTracker->totalAdsShown(), 0);
    EXPECT_FALSE(pc->midRollCuePointState().hasCuePoints() ||
                 pc->midRollCuePointState().isShowingAd);
}

TEST_F(ServiceTest, UnknownAndEmptyPlaylistsStartNothingTheSampleOnePlaysBeforeTheHostSendsAny) {
    playlists().push_back(Playlist("empty", "Empty", std::nullopt, std::nullopt, {}));
    service->playPlaylist("nope");
    service->playPlaylist("empty");
    vp.runUntilIdle();
    EXPECT_EQ(logs.levelOf("❌ Playlist not found"), "ERROR");
    EXPECT_EQ(logs.levelOf("❌ Playlist has no videos"), "ERROR");
    EXPECT_TRUE(events.events().empty() && !pc->hostingController());

    playlists() = Playlist::allPlaylists();
    const Playlist& sample = playlists().at(1);
    for (const auto& v : sample.videos) vp.media->add(v.url, 30);
    service->playPlaylist(sample.id);
    vp.runUntilIdle();
    EXPECT_EQ(playingURL(), sample.videos.front().url);
    EXPECT_EQ(events.count("OnVideoPlay"), 1u);
}

TEST_F(ServiceTest, MergeKeepsHostOrderAndEverythingTheHostSentAnEmptyDocumentStillWaits) {
    std::vector<PlaylistResponse> lists = {{"p2", "Two", "t2"}, {"p1", "One", "t1"}};
    std::vector<EpisodeResponse> groups = {
        {"p1",
         {{"9", " u9 ", "th", "Nine", 0, 5},
          {"1", "u1", "th", "One", 1, 5},
          {"1", "u1", "th", "One again", 1, 5}}},
        {"p2", {}},
        {"p1", {{"x", "ux", "th", "Ignored duplicate group", 1, 1}}},
        {"orphan", {{"o", "uo", "th", "Orphan", 1, 1}}}};
    auto result = service->mapToPlaylists(groups, lists);
    ASSERT_EQ(result.size(), 2u);
    EXPECT_TRUE(result[0].id == "p2" && result[0].videos.empty());
    EXPECT_EQ(std::tie(result[1].id, result[1].name, result[1].thumbnail, result[1].description),
              std::make_tuple("p1", "One", "t1", std::nullopt));
    ASSERT_EQ(result[1].videos.size(), 3u) << "no sorting, filtering or de-duplication";
    const Video& first = result[1].videos[0];
    EXPECT_EQ(std::tie(first.id, first.url, first.description), std::make_tuple("9", "u9", "p1"));
    EXPECT_TRUE(logs.contains("Mapped playlist: Two with 0 videos") &&
                logs.contains("Mapped playlist: One with 3 videos"));
    service->setEpisodesFromUnity(R"([{"id":"p","episodes":[]}])");
    service->setPlaylistsFromUnity("[]");
    EXPECT_EQ(logs.count("⏳ Waiting for playlists..."), 2u);
    EXPECT_EQ(playlists().size(), 2u) << "the catalogue keeps its previous content";
}

}  // namespace
