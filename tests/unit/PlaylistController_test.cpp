#include "Kavelin/Playlist/Controllers/PlaylistController.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "Kavelin/Platform/Platform.h"
#include "Kavelin/Platform/VirtualMainQueue.h"
#include "Kavelin/log/VPLogger.h"

namespace kavelin {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using WatchedMap = std::map<std::string, std::set<std::string>>;
constexpr const char* kKey = "zelkin.playlistSDK.completedVideosByPlaylist";

Playlist makePlaylist(const std::string& id, int count) {
    std::vector<Video> videos;
    for (int i = 0; i < count; ++i) {
        const std::string vid = id + "-v" + std::to_string(i);
        videos.emplace_back(vid, "media/" + vid + ".mp4", "Title " + vid, id, "img/" + vid);
    }
    return Playlist(id, "Name " + id, std::nullopt, std::nullopt, std::move(videos));
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class PlaylistControllerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string tmpl = (fs::temp_directory_path() / "kavelin-playlist-XXXXXX").string();
        ASSERT_NE(::mkdtemp(tmpl.data()), nullptr);
        dir = tmpl;
        file = dir / "Kavelin" / "UserDefaults.json";
        savedCatalogue = playlists();
        playlists() = {A, B, C};
        store = std::make_shared<UserDefaults>(file, queue);
        VPLogger::setSink([this](const std::string& line) { logLines.push_back(line); });
    }
    void TearDown() override {
        VPLogger::setSink(nullptr);
        playlists() = savedCatalogue;
        store.reset();
        fs::remove_all(dir);
    }

    std::unique_ptr<PlaylistController> make() {
        return std::make_unique<PlaylistController>(store);
    }

    Playlist A = makePlaylist("A", 4);
    Playlist B = makePlaylist("B", 3);
    Playlist C = makePlaylist("C", 2);
    fs::path dir;
    fs::path file;
    std::vector<Playlist> savedCatalogue;
    std::shared_ptr<VirtualMainQueue> queue = std::make_shared<VirtualMainQueue>();
    std::shared_ptr<UserDefaults> store;
    std::vector<std::string> logLines;
};

// ---- Construction and teardown --------------------------------------------

TEST_F(PlaylistControllerTest, StartsOnTheFirstCataloguePlaylistAndStoresTheLoadedMap) {
    auto pc = make();
    EXPECT_EQ(pc->currentPlaylist->id, "A");
    ASSERT_EQ(pc->videos.size(), 4u);
    EXPECT_EQ(pc->videos[0].id, "A-v0");
    EXPECT_FALSE(pc->currentVideoID->has_value());
    EXPECT_FALSE(pc->countdownVideoID->has_value());
    EXPECT_EQ(pc->remainingTime.get(), 0);
    EXPECT_FALSE(pc->nextPlaylist->has_value());
    EXPECT_TRUE(pc->completedVideosByPlaylist->empty());
    // The loaded (empty) map is written straight back.
    EXPECT_EQ(store->object(kKey), json::object());
}

TEST_F(PlaylistControllerTest, UsesThePlatformStoreWhenNoneIsGiven) {
    Platform platform;
    platform.queue = queue;
    platform.defaults = store;
    Platform::install(platform);
    store->setObject(kKey, json{{"B", {"B-v1"}}});
    {
        PlaylistController pc;
        pc.videoCompleted("A-v2", 10.0);
    }
    EXPECT_EQ(store->object(kKey), (json{{"A", {"A-v2"}}, {"B", {"B-v1"}}}));
    Platform::install(Platform{});
}

TEST_F(PlaylistControllerTest, TeardownLogsOneCleanupLine) {
    make().reset();
    ASSERT_EQ(logLines.size(), 1u);
    const std::string expected = "[LOG] [PlaylistController.cpp:";
    EXPECT_NE(logLines[0].find(expected), std::string::npos) << logLines[0];
    const std::string message =
        "] 🧼 PlaylistController instance cleaned up – resources released successfully!";
    ASSERT_GE(logLines[0].size(), message.size());
    EXPECT_EQ(logLines[0].substr(logLines[0].size() - message.size()), message);
}

// ---- Watched videos --------------------------------------------------------

TEST_F(PlaylistControllerTest, AVideoCountsAsWatchedFromTenSeconds) {
    auto pc = make();
    pc->videoCompleted("A-v1", 9.99);
    EXPECT_TRUE(pc->completedVideosByPlaylist->empty());
    EXPECT_FALSE(pc->videos[1].isWatched);
    EXPECT_EQ(store->object(kKey), json::object());

    pc->videoCompleted("A-v1", 10.0);
    EXPECT_EQ(pc->completedVideosByPlaylist.get(), (WatchedMap{{"A", {"A-v1"}}}));
    EXPECT_TRUE(pc->videos[1].isWatched);
    EXPECT_FALSE(pc->videos[0].isWatched);
    EXPECT_EQ(store->object(kKey), (json{{"A", {"A-v1"}}}));
}

TEST_F(PlaylistControllerTest, AnIdIsRecordedUnderTheCurrentPlaylistEvenIfItBelongsElsewhere) {
    auto pc = make();
    pc->videoCompleted("B-v0", 12.0);
    EXPECT_EQ(pc->completedVideosByPlaylist.get(), (WatchedMap{{"A", {"B-v0"}}}));
    for (const auto& v : pc->videos) EXPECT_FALSE(v.isWatched);
}

TEST_F(PlaylistControllerTest, EveryTickPastTenSecondsAnnouncesTheMapButWritesTheFileOnce) {
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
    EXPECT_EQ(json::parse(readFile(file))[kKey], (json{{"A", {"A-v0"}}}));
}

TEST_F(PlaylistControllerTest, ReassigningAnUnchangedMapRestoresWhatAnotherWriterReplaced) {
    auto pc = make();
    pc->videoCompleted("A-v0", 10.0);
    store->setObject(kKey, json{{"Z", {"z"}}});
    pc->videoCompleted("A-v0", 10.1);
    EXPECT_EQ(store->object(kKey), (json{{"A", {"A-v0"}}}));
}

TEST_F(PlaylistControllerTest, AllVideosWatchedComparesCountsOnly) {
    auto pc = make();
    for (const char* id : {"A-v0", "A-v1", "A-v2"}) pc->videoCompleted(id, 10);
    EXPECT_FALSE(pc->allVideosWatched());
    pc->videoCompleted("gone-from-playlist", 10);
    EXPECT_TRUE(pc->allVideosWatched());
    EXPECT_EQ(pc->firstUnwatchedVideoID(), 3u);
}

// ---- Countdown -------------------------------------------------------------

TEST_F(PlaylistControllerTest, CountdownArmsOnlyInTheLastFiveSecondsBeforeASuccessor) {
    auto pc = make();
    pc->videoStarted("A-v1");
    pc->triggerCountdownIfNeeded("A-v1", 6);
    pc->triggerCountdownIfNeeded("A-v1", -1);
    EXPECT_FALSE(pc->countdownVideoID->has_value());

    pc->triggerCountdownIfNeeded("A-v3", 5);  // last video: no countdown into B
    pc->triggerCountdownIfNeeded("unknown", 5);
    EXPECT_FALSE(pc->countdownVideoID->has_value());
    EXPECT_EQ(pc->remainingTime.get(), 0);

    std::vector<int> seen;
    for (int s = 5; s >= 0; --s) {
        pc->triggerCountdownIfNeeded("A-v1", s);
        EXPECT_EQ(pc->countdownVideoID.get(), std::optional<std::string>("A-v2"));
        seen.push_back(pc->remainingTime.get());
    }
    EXPECT_EQ(seen, (std::vector<int>{5, 4, 3, 2, 1, 0}));
    EXPECT_EQ(pc->remainingTimeFor(pc->videos[2]), 0);
    pc->triggerCountdownIfNeeded("A-v1", 3);
    EXPECT_EQ(pc->remainingTimeFor(pc->videos[2]), 3);
    EXPECT_EQ(pc->remainingTimeFor(pc->videos[1]), 0);
}

TEST_F(PlaylistControllerTest, AnArmedCountdownStaysUntilCancelled) {
    auto pc = make();
    pc->videoStarted("A-v0");
    pc->triggerCountdownIfNeeded("A-v0", 2);
    // A stall or a position outside the window does not clear it.
    pc->triggerCountdownIfNeeded("A-v0", 9);
    pc->triggerCountdownIfNeeded("A-v3", 1);
    EXPECT_EQ(pc->countdownVideoID.get(), std::optional<std::string>("A-v1"));
    EXPECT_EQ(pc->remainingTime.get(), 2);

    pc->userSelectedVideo("A-v3");
    EXPECT_FALSE(pc->countdownVideoID->has_value());
    EXPECT_EQ(pc->remainingTime.get(), 0);
    EXPECT_EQ(pc->currentVideoID.get(), std::optional<std::string>("A-v3"));

    pc->triggerCountdownIfNeeded("A-v0", 4);
    pc->userSelectedPlaylist(std::nullopt);  // absent playlist: only the countdown goes
    EXPECT_FALSE(pc->countdownVideoID->has_value());
    EXPECT_EQ(pc->currentPlaylist->id, "A");
    EXPECT_EQ(pc->currentVideoID.get(), std::optional<std::string>("A-v3"));
}

// ---- Card states -----------------------------------------------------------

TEST_F(PlaylistControllerTest, CardStateIsCurrentThenCountdownThenWatched) {
    auto pc = make();
    for (const char* id : {"A-v0", "A-v1", "A-v2"}) pc->videoCompleted(id, 10);
    pc->videoStarted("A-v0");
    pc->triggerCountdownIfNeeded("A-v0", 3);

    EXPECT_EQ(pc->state(pc->videos[0]), VideoState::watching);   // watched, but playing
    EXPECT_EQ(pc->state(pc->videos[1]), VideoState::nextVideo);  // watched, but up next
    EXPECT_EQ(pc->state(pc->videos[2]), VideoState::completed);
    EXPECT_EQ(pc->state(pc->videos[3]), VideoState::none);

    // Watched marks belong to the current playlist only.
    pc->userSelectedPlaylist(B);
    EXPECT_EQ(pc->state(Video("A-v2", "", "", "", "")), VideoState::none);
}

// ---- Switching playlists ---------------------------------------------------

TEST_F(PlaylistControllerTest, SelectingAPlaylistResumesAtItsFirstUnwatchedVideo) {
    auto pc = make();
    pc->userSelectedPlaylist(B);
    pc->videoCompleted("B-v0", 10);
    pc->videoCompleted("B-v2", 10);

    pc->userSelectedPlaylist(A);
    pc->userSelectedPlaylist(B);
    EXPECT_EQ(pc->currentPlaylist->id, "B");
    ASSERT_EQ(pc->videos.size(), 3u);
    EXPECT_FALSE(pc->videos[0].isWatched);  // a fresh working copy of the playlist
    EXPECT_EQ(pc->currentVideoID.get(), std::optional<std::string>("B-v1"));
    EXPECT_EQ(pc->firstUnwatchedVideoID(), 1u);
    EXPECT_EQ(pc->nextVideoToPlayOnReturn(), std::optional<std::string>("B-v1"));
    EXPECT_EQ(pc->nextPlaylist->value().id, "C");
}

TEST_F(PlaylistControllerTest, AFullyWatchedPlaylistStartsOverAtItsFirstVideo) {
    auto pc = make();
    pc->userSelectedPlaylist(C);
    pc->videoCompleted("C-v0", 10);
    pc->videoCompleted("C-v1", 10);
    pc->userSelectedPlaylist(C);
    EXPECT_EQ(pc->currentVideoID.get(), std::optional<std::string>("C-v0"));
    EXPECT_FALSE(pc->firstUnwatchedVideoID().has_value());
    EXPECT_EQ(pc->nextVideoToPlayOnReturn(), std::optional<std::string>("C-v0"));
    EXPECT_TRUE(pc->allVideosWatched());
}

TEST_F(PlaylistControllerTest, AnEmptyPlaylistHasNoVideoToPlay) {
    auto pc = make();
    pc->userSelectedPlaylist(Playlist("E", std::nullopt, std::nullopt, std::nullopt, {}));
    EXPECT_FALSE(pc->currentVideoID->has_value());
    EXPECT_FALSE(pc->firstUnwatchedVideoID().has_value());
    EXPECT_FALSE(pc->nextVideoToPlayOnReturn().has_value());
    EXPECT_TRUE(pc->allVideosWatched());
}

TEST_F(PlaylistControllerTest, NextPlaylistWrapsAroundTheCatalogue) {
    auto pc = make();
    auto nextAfter = [&](const Playlist& p) {
        pc->userSelectedPlaylist(p);
        return pc->nextPlaylist->value().id;
    };
    EXPECT_EQ(nextAfter(A), "B");
    EXPECT_EQ(nextAfter(B), "C");
    EXPECT_EQ(nextAfter(C), "A");
    EXPECT_EQ(nextAfter(makePlaylist("not-in-catalogue", 1)), "A");

    playlists() = {C};
    pc->setNextPlaylist();
    EXPECT_EQ(pc->nextPlaylist->value().id, "C");
    EXPECT_EQ(pc->loadAllplaylist().size(), 1u);
}

// ---- Persistence -----------------------------------------------------------

TEST_F(PlaylistControllerTest, ControllersMadeOneAfterAnotherShareTheWatchedSets) {
    {
        auto first = make();
        first->videoCompleted("A-v0", 10);
        first->userSelectedPlaylist(B);
        first->videoCompleted("B-v2", 10);
    }
    auto second = make();
    EXPECT_EQ(second->completedVideosByPlaylist.get(),
              (WatchedMap{{"A", {"A-v0"}}, {"B", {"B-v2"}}}));
    EXPECT_EQ(second->firstUnwatchedVideoID(), 1u);
}

TEST_F(PlaylistControllerTest, WatchedSetsSurviveANewStoreOnTheSameFile) {
    {
        auto pc = make();
        pc->videoCompleted("A-v3", 10);
        pc->videoCompleted("A-v1", 10);
    }
    store.reset();  // teardown writes what the coalescing timer still held
    store = std::make_shared<UserDefaults>(file, queue);
    auto pc = make();
    EXPECT_EQ(pc->completedVideosByPlaylist.get(), (WatchedMap{{"A", {"A-v1", "A-v3"}}}));
    EXPECT_EQ(pc->state(pc->videos[3]), VideoState::completed);
}

TEST_F(PlaylistControllerTest, WatchedSetsSurviveTheProcess) {
    store.reset();
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // Another run of the program: records, then exits with the write still pending.
        auto childStore =
            std::make_shared<UserDefaults>(file, std::make_shared<VirtualMainQueue>());
        static auto pc = std::make_unique<PlaylistController>(childStore);
        pc->userSelectedPlaylist(C);
        pc->videoCompleted("C-v1", 42.0);
        std::exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    store = std::make_shared<UserDefaults>(file, queue);
    auto pc = make();
    pc->userSelectedPlaylist(C);
    EXPECT_EQ(pc->currentVideoID.get(), std::optional<std::string>("C-v0"));
    EXPECT_EQ(pc->state(C.videos[1]), VideoState::completed);
}

struct BadEntry {
    const char* name;
    json value;
};

class PlaylistControllerBadEntryTest : public PlaylistControllerTest,
                                       public ::testing::WithParamInterface<BadEntry> {};

TEST_P(PlaylistControllerBadEntryTest, LoadsAsEmptyAndIsOverwrittenByTheNextAssignment) {
    store->setObject(kKey, GetParam().value);
    auto pc = make();
    EXPECT_TRUE(pc->completedVideosByPlaylist->empty());
    EXPECT_EQ(pc->firstUnwatchedVideoID(), 0u);
    EXPECT_EQ(store->object(kKey), json::object());

    pc->videoCompleted("A-v0", 10);
    store->flush();
    EXPECT_EQ(json::parse(readFile(file))[kKey], (json{{"A", {"A-v0"}}}));
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, PlaylistControllerBadEntryTest,
    ::testing::Values(BadEntry{"idMappedToNumber", json{{"A", 3}}},
                      BadEntry{"arrayHoldingNumbers", json{{"A", {"A-v0", 1}}}},
                      BadEntry{"oneBadAmongGood", json{{"A", {"A-v0"}}, {"B", "B-v0"}}},
                      BadEntry{"nestedArray", json{{"A", {json::array({"A-v0"})}}}},
                      BadEntry{"topLevelArray", json::array({"A", "A-v0"})},
                      BadEntry{"topLevelString", json("A-v0")},
                      BadEntry{"topLevelNull", json(nullptr)}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(PlaylistControllerTest, AnUnreadableFileLoadsAsEmptyAndIsReplacedWithAValidOne) {
    for (const std::string& bytes :
         {std::string(R"({"zelkin.playlistSDK.completedVideosByPlaylist":{"A":["A-v)"),
          std::string("\x7f"
                      "ELF\x02\x01\x01\x00\xff\xff",
                      10)}) {
        store.reset();
        fs::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
        store = std::make_shared<UserDefaults>(file, queue);
        auto pc = make();
        EXPECT_TRUE(pc->completedVideosByPlaylist->empty());
        pc->videoCompleted("A-v2", 11);
        store->flush();
        EXPECT_EQ(json::parse(readFile(file))[kKey], (json{{"A", {"A-v2"}}}));
    }
}

TEST_F(PlaylistControllerTest, KeepsWorkingFromMemoryWhenTheStoreCannotBeWritten) {
    std::ofstream(dir / "blocker") << "a file where the directory should be";
    store = std::make_shared<UserDefaults>(dir / "blocker" / "UserDefaults.json", queue);
    auto pc = make();
    for (int tick = 0; tick < 50; ++tick) {
        pc->videoCompleted(tick < 25 ? "A-v0" : "A-v1", 10 + tick * 0.1);
        queue->advance(0.1);
    }
    store->flush();
    EXPECT_EQ(pc->completedVideosByPlaylist.get(), (WatchedMap{{"A", {"A-v0", "A-v1"}}}));
    EXPECT_EQ(pc->firstUnwatchedVideoID(), 2u);
    int warnings = 0;
    for (const auto& line : logLines) warnings += line.find("[WARNING]") != std::string::npos;
    EXPECT_EQ(warnings, 1);
}

}  // namespace
}  // namespace kavelin
