#include "Kavelin/Playlist/Controllers/PlaylistController.h"

#include <gtest/gtest.h>

#include "Kavelin/Platform/Linux/FileUserDefaults.h"
#include "Kavelin/Platform/Platform.h"
#include "support/VirtualPlatform.h"

namespace kavelin {
namespace {

using nlohmann::json;
using testing::readFile;
using WatchedMap = std::map<std::string, std::set<std::string>>;
using Countdown = std::pair<std::optional<std::string>, int>;
using Id = std::optional<std::string>;
constexpr const char* kKey = "zelkin.playlistSDK.completedVideosByPlaylist";

Playlist makePlaylist(const std::string& id, int count) {
    std::vector<Video> videos;
    for (int i = 0; i < count; ++i) {
        const std::string vid = id + "-v" + std::to_string(i);
        videos.emplace_back(vid, "media/" + vid + ".mp4", "Title " + vid, id, "img/" + vid);
    }
    return Playlist(id, "Name " + id, std::nullopt, std::nullopt, std::move(videos));
}

class PlaylistControllerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        savedCatalogue = playlists();
        playlists() = {A, B, C};
    }
    void TearDown() override { playlists() = savedCatalogue; }

    auto make() { return std::make_unique<PlaylistController>(store); }
    json onDisk() {
        store->flush();
        return json::parse(readFile(file))[kKey];
    }
    static Countdown countdown(const PlaylistController& pc) {
        return {pc.countdownVideoID.get(), pc.remainingTime.get()};
    }

    Playlist A = makePlaylist("A", 4), B = makePlaylist("B", 3), C = makePlaylist("C", 2);
    ScratchDir dir;
    std::filesystem::path file = dir.path / "Kavelin" / "UserDefaults.json";
    std::vector<Playlist> savedCatalogue;
    std::shared_ptr<VirtualMainQueue> queue = std::make_shared<VirtualMainQueue>();
    std::shared_ptr<FileUserDefaults> store = std::make_shared<FileUserDefaults>(file, queue);
    testing::LogCapture logs;
};

TEST_F(PlaylistControllerTest, StartsOnTheFirstPlaylistWritesTheLoadedMapAndSaysGoodbye) {
    auto pc = make();
    EXPECT_EQ(pc->currentPlaylist->id, "A");
    ASSERT_EQ(pc->videos.size(), 4u);
    EXPECT_EQ(pc->videos[0].id, "A-v0");
    EXPECT_EQ(pc->currentVideoID.get(), std::nullopt);
    EXPECT_EQ(countdown(*pc), Countdown(std::nullopt, 0));
    EXPECT_FALSE(pc->nextPlaylist->has_value());
    EXPECT_EQ(store->object(kKey), json::object());  // the loaded (empty) map written back
    pc.reset();
    ASSERT_EQ(logs.lines().size(), 1u);
    EXPECT_NE(logs.lines()[0].find("[LOG] [PlaylistController.cpp:"), std::string::npos);
    EXPECT_EQ(logs.messages()[0],
              "🧼 PlaylistController instance cleaned up – resources released successfully!");
}

TEST_F(PlaylistControllerTest, AVideoCountsAsWatchedFromTenSecondsAndCardsShowWhereItStands) {
    auto pc = make();
    pc->videoCompleted("A-v1", 9.99);
    EXPECT_TRUE(pc->completedVideosByPlaylist->empty());
    EXPECT_FALSE(pc->videos[1].isWatched);
    pc->videoCompleted("A-v1", 10.0);
    pc->videoCompleted("B-v0", 12.0);  // recorded under A although it belongs to B
    EXPECT_EQ(pc->completedVideosByPlaylist.get(), (WatchedMap{{"A", {"A-v1", "B-v0"}}}));
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ(pc->videos[i].isWatched, i == 1) << i;
    EXPECT_EQ(store->object(kKey), (json{{"A", {"A-v1", "B-v0"}}}));
    // Counts only: a stranger stands in for the fourth video.
    pc->videoCompleted("A-v0", 10);
    EXPECT_FALSE(pc->allVideosWatched());
    pc->videoCompleted("A-v2", 10);
    EXPECT_TRUE(pc->allVideosWatched());
    EXPECT_EQ(pc->firstUnwatchedVideoID(), 3u);
    pc->videoStarted("A-v0");
    pc->triggerCountdownIfNeeded("A-v0", 3);
    // Watched but playing, watched but up next, watched, untouched.
    const VideoState expected[] = {VideoState::watching, VideoState::nextVideo,
                                   VideoState::completed, VideoState::none};
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ(pc->state(pc->videos[i]), expected[i]) << i;
    // Watched marks belong to the current playlist only.
    pc->userSelectedPlaylist(B);
    EXPECT_EQ(pc->state(Video("A-v2", "", "", "", "")), VideoState::none);
}

TEST_F(PlaylistControllerTest, EveryTickAnnouncesTheMapButTheFileIsWrittenOnce) {
    auto pc = make();
    store->flush();
    const size_t writesBefore = store->fileWriteCount();
    int changes = 0;
    auto sub = pc->onChange([&] { ++changes; });
    for (int tick = 0; tick < 600; ++tick) {
        pc->videoCompleted("A-v0", 10.0 + tick * 0.1);
        queue->advance(0.1);
    }
    EXPECT_EQ(changes, 600);
    EXPECT_EQ(store->fileWriteCount(), writesBefore + 1);
    EXPECT_EQ(onDisk(), (json{{"A", {"A-v0"}}}));
    // Reassigning the unchanged map restores what another writer replaced.
    store->setObject(kKey, json{{"Z", {"z"}}});
    pc->videoCompleted("A-v0", 70.1);
    EXPECT_EQ(store->object(kKey), (json{{"A", {"A-v0"}}}));
}

TEST_F(PlaylistControllerTest, CountdownArmsInTheLastFiveSecondsAndStaysUntilCancelled) {
    auto pc = make();
    pc->videoStarted("A-v1");
    for (auto [id, seconds] : std::vector<std::pair<const char*, int>>{
             {"A-v1", 6}, {"A-v1", -1}, {"A-v3", 5} /* last video */, {"unknown", 5}})
        pc->triggerCountdownIfNeeded(id, seconds);
    EXPECT_EQ(countdown(*pc), Countdown(std::nullopt, 0));
    for (int s = 5; s >= 0; --s) {
        pc->triggerCountdownIfNeeded("A-v1", s);
        EXPECT_EQ(countdown(*pc), Countdown("A-v2", s));
    }
    EXPECT_EQ(pc->remainingTimeFor(pc->videos[2]), 0);
    pc->triggerCountdownIfNeeded("A-v1", 3);
    EXPECT_EQ(pc->remainingTimeFor(pc->videos[2]), 3);
    EXPECT_EQ(pc->remainingTimeFor(pc->videos[1]), 0);
    // A stall or a position outside the window does not clear it.
    pc->triggerCountdownIfNeeded("A-v1", 9);
    pc->triggerCountdownIfNeeded("A-v3", 1);
    EXPECT_EQ(countdown(*pc), Countdown("A-v2", 3));
    pc->userSelectedVideo("A-v3");
    EXPECT_EQ(countdown(*pc), Countdown(std::nullopt, 0));
    EXPECT_EQ(pc->currentVideoID.get(), Id("A-v3"));
    pc->triggerCountdownIfNeeded("A-v0", 4);
    pc->userSelectedPlaylist(std::nullopt);  // absent playlist: only the countdown goes
    EXPECT_EQ(pc->countdownVideoID.get(), std::nullopt);
    EXPECT_EQ(pc->currentPlaylist->id, "A");
    EXPECT_EQ(pc->currentVideoID.get(), Id("A-v3"));
}

TEST_F(PlaylistControllerTest, SelectingAPlaylistResumesAtItsFirstUnwatchedVideoAndNextWraps) {
    auto pc = make();
    auto select = [&](const Playlist& p, std::vector<const char*> watched) {
        pc->userSelectedPlaylist(p);
        for (const char* id : watched) pc->videoCompleted(id, 10);
        pc->userSelectedPlaylist(A);
        pc->userSelectedPlaylist(p);
        return std::make_tuple(pc->currentVideoID.get(), pc->firstUnwatchedVideoID(),
                               pc->nextVideoToPlayOnReturn(), pc->allVideosWatched());
    };
    using Resume = std::tuple<Id, std::optional<size_t>, Id, bool>;
    EXPECT_EQ(select(B, {"B-v0", "B-v2"}), Resume("B-v1", 1u, "B-v1", false));
    ASSERT_EQ(pc->videos.size(), 3u);
    EXPECT_FALSE(pc->videos[0].isWatched);  // a fresh working copy of the playlist
    // Fully watched: starts over at its first video.
    EXPECT_EQ(select(C, {"C-v0", "C-v1"}), Resume("C-v0", std::nullopt, "C-v0", true));
    EXPECT_EQ(select(Playlist("E", std::nullopt, std::nullopt, std::nullopt, {}), {}),
              Resume(std::nullopt, std::nullopt, std::nullopt, true));
    // The next playlist follows the current one round the catalogue.
    const std::pair<Playlist, const char*> cases[] = {
        {A, "B"}, {B, "C"}, {C, "A"}, {makePlaylist("not-in-catalogue", 1), "A"}};
    for (const auto& [current, next] : cases) {
        pc->userSelectedPlaylist(current);
        EXPECT_EQ(pc->nextPlaylist->value().id, next);
    }
    playlists() = {C};
    pc->setNextPlaylist();
    EXPECT_EQ(pc->nextPlaylist->value().id, "C");
    EXPECT_EQ(pc->loadAllplaylist().size(), 1u);
}

TEST_F(PlaylistControllerTest, WatchedSetsSurviveControllersAndStoresAndLiveInThePlatformStore) {
    {
        auto first = make();
        first->videoCompleted("A-v0", 10);
        first->userSelectedPlaylist(B);
        first->videoCompleted("B-v2", 10);
    }
    auto second = make();
    EXPECT_EQ(second->completedVideosByPlaylist.get(),
              (WatchedMap{{"A", {"A-v0"}}, {"B", {"B-v2"}}}));
    second->videoCompleted("A-v3", 10);
    second.reset();
    store.reset();  // teardown writes what the coalescing timer still held
    store = std::make_shared<FileUserDefaults>(file, queue);
    EXPECT_EQ(make()->state(A.videos[3]), VideoState::completed);
    // Each change is handed over at once; the store's own tests cover its write on exit.
    EXPECT_EQ(store->object(kKey), (json{{"A", {"A-v0", "A-v3"}}, {"B", {"B-v2"}}}));
    // Without a store of its own, the controller reads and writes the platform's.
    Platform platform;
    platform.queue = queue;
    platform.defaults = store;
    Platform::install(platform);
    PlaylistController(nullptr).videoCompleted("A-v2", 10.0);
    EXPECT_EQ(store->object(kKey), (json{{"A", {"A-v0", "A-v2", "A-v3"}}, {"B", {"B-v2"}}}));
    Platform::install(Platform{});
}

TEST_F(PlaylistControllerTest, BadEntriesLoadAsEmptyAndAreOverwritten) {
    const std::pair<const char*, json> entries[] = {
        {"idMappedToNumber", json{{"A", 3}}},
        {"arrayHoldingNumbers", json{{"A", {"A-v0", 1}}}},
        {"oneBadAmongGood", json{{"A", {"A-v0"}}, {"B", "B-v0"}}},
        {"nestedArray", json{{"A", {json::array({"A-v0"})}}}},
        {"topLevelArray", json::array({"A", "A-v0"})},
        {"topLevelString", json("A-v0")},
        {"topLevelNull", json(nullptr)}};
    for (const auto& [name, value] : entries) {
        SCOPED_TRACE(name);
        store->setObject(kKey, value);
        auto pc = make();
        EXPECT_TRUE(pc->completedVideosByPlaylist->empty());
        EXPECT_EQ(pc->firstUnwatchedVideoID(), 0u);
        EXPECT_EQ(store->object(kKey), json::object());
        pc->videoCompleted("A-v0", 10);
        EXPECT_EQ(onDisk(), (json{{"A", {"A-v0"}}}));
    }
}

}  // namespace
}  // namespace kavelin
