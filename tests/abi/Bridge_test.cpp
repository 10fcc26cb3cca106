// A test host that loads libKavelin.so with dlopen, as a game does. ctest runs every
// test in a process of its own, so each starts with no service and no callback.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/HostLibrary.h"

namespace {

std::mutex gMutex;
std::vector<std::string> gCallbacks;
std::vector<std::array<std::string, 3>> gUnityMessages;

void recordCallback(const char* text) {
    std::lock_guard lock(gMutex);
    gCallbacks.emplace_back(text);
}

std::vector<std::string> callbacks() {
    std::lock_guard lock(gMutex);
    return gCallbacks;
}

std::vector<std::array<std::string, 3>> unityMessages() {
    std::lock_guard lock(gMutex);
    return gUnityMessages;
}

}  // namespace

// The engine's entry point, found by the library with dlsym in the running image.
extern "C" __attribute__((visibility("default"))) void UnitySendMessage(const char* object,
                                                                        const char* method,
                                                                        const char* message) {
    std::lock_guard lock(gMutex);
    gUnityMessages.push_back({object, method, message});
}

namespace {

using Kavelin = HostLibrary;

class BridgeTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        // Watched videos go to a throw-away store, never the developer's own.
        char dir[] = "/tmp/kavelin-abi-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        setenv("XDG_CONFIG_HOME", dir, 1);
        setenv("KAVELIN_HEADLESS", "1", 1);
    }
    void SetUp() override {
        lib.handle = dlopen(KAVELIN_LIB_PATH, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(lib.handle, nullptr) << dlerror();
    }

    // Runs `body` with the library's standard output captured and returns the lines.
    template <typename Body>
    std::vector<std::string> logOf(Body body) {
        testing::internal::CaptureStdout();
        body();
        std::string out = testing::internal::GetCapturedStdout();
        std::vector<std::string> lines;
        size_t start = 0;
        for (size_t nl; (nl = out.find('\n', start)) != std::string::npos; start = nl + 1)
            lines.push_back(out.substr(start, nl - start));
        return lines;
    }

    static bool contains(const std::vector<std::string>& lines, const std::string& text) {
        return std::any_of(lines.begin(), lines.end(),
                           [&](const std::string& l) { return l.find(text) != std::string::npos; });
    }

    static std::string messageOf(const std::string& line) {
        // Past "[LEVEL] [file:line] ".
        auto at = line.find("] ", line.find("] [", line.find(" : [")) + 2);
        return at == std::string::npos ? line : line.substr(at + 2);
    }

    Kavelin lib;
};

const char* kPlaylists = R"([{"id":"pl-1","name":"Animals","thumbnail":"img/pl-1.png"},)"
                         R"({"id":"pl-2","name":"Songs","thumbnail":"img/pl-2.png"}])";
const char* kEpisodes =
    R"([{"id":"pl-1","episodes":[{"index":"e1","url":" media/e1.m3u8\n","thumbnail":"img/e1.png",)"
    R"("title":"Episode one","isActive":1,"length":120},{"index":"e2","url":"media/e2.m3u8",)"
    R"("thumbnail":"img/e2.png","title":"Episode two","isActive":0,"length":95}]}])";

TEST_F(BridgeTest, ExportsExactlyTheHostTable) {
    const std::string command = std::string("nm -D --defined-only ") + KAVELIN_LIB_PATH;
    FILE* nm = popen(command.c_str(), "r");
    ASSERT_NE(nm, nullptr);
    std::set<std::string> exported;
    char buf[512];
    while (fgets(buf, sizeof buf, nm)) {
        std::string line(buf);
        auto last = line.find_last_of(' ');
        std::string name = line.substr(last + 1);
        name.erase(name.find_last_not_of("\n") + 1);
        if (name.rfind("KAVELIN", 0) == 0 || name.empty()) continue;  // version node
        exported.insert(name);
    }
    pclose(nm);
    const std::set<std::string> expected = {"KavelinVersionNumber",
                                            "KavelinVersionString",
                                            "registerUnityCallback",
                                            "loadVideo",
                                            "play",
                                            "pause",
                                            "stop",
                                            "seekForward",
                                            "seekBackward",
                                            "seekTo",
                                            "cleanup",
                                            "setURLS",
                                            "setShowForwardButton",
                                            "setShowBackwordButton",
                                            "setShowBack10Button",
                                            "setShowFor10Button",
                                            "setShowPlayPauseButton",
                                            "setShowBackButton",
                                            "setShowLogo",
                                            "setShowSeekbar",
                                            "setShowTimeDuration",
                                            "SetPlaylists",
                                            "SetEpisodes",
                                            "PlayPlaylist",
                                            "SetPremium",
                                            "SetAdRequired",
                                            "SetMidRollAdConfig",
                                            "AdCompletedResumePlayback"};
    EXPECT_EQ(exported, expected);

    EXPECT_DOUBLE_EQ(*static_cast<const double*>(dlsym(lib.handle, "KavelinVersionNumber")), 1.1);
    EXPECT_STREQ(static_cast<const char*>(dlsym(lib.handle, "KavelinVersionString")),
                 "@(#)PROGRAM:Kavelin  PROJECT:Kavelin-1.1.0\n");
}

TEST_F(BridgeTest, RegisteredCallbackGetsOneCombinedTextPerEventAndUnityNothing) {
    lib.registerCallback(recordCallback);
    lib.call("stop");
    EXPECT_EQ(callbacks(),
              (std::vector<std::string>{"CallBack_registered:registered", "OnVideoStop:Stopped"}));
    EXPECT_TRUE(unityMessages().empty());
}

TEST_F(BridgeTest, WithoutCallbackEventsGoToUnitySendMessageSplit) {
    auto log = logOf([&] { lib.call("stop"); });
    ASSERT_EQ(unityMessages().size(), 1u);
    EXPECT_EQ(unityMessages()[0],
              (std::array<std::string, 3>{"ZelkinVideoPlayer", "OnVideoStop", "Stopped"}));
    EXPECT_TRUE(contains(log, "📤 sendUnityMessage: OnVideoStop:Stopped"));
    EXPECT_FALSE(contains(log, "No Unity callback available"));
}

TEST_F(BridgeTest, RegisteringNullSendsTheRegistrationEventDownTheUnityPath) {
    lib.registerCallback(recordCallback);
    lib.registerCallback(nullptr);
    lib.call("play");
    EXPECT_EQ(callbacks(), (std::vector<std::string>{"CallBack_registered:registered"}));
    ASSERT_EQ(unityMessages().size(), 2u);
    EXPECT_EQ(unityMessages()[0][1], "CallBack_registered");
    EXPECT_EQ(unityMessages()[1][1], "OnVideoPlay");
    EXPECT_EQ(unityMessages()[1][2], "Started");
}

TEST_F(BridgeTest, TransportEchoesAlwaysArriveEvenWithoutAService) {
    lib.registerCallback(recordCallback);
    auto log = logOf([&] {
        lib.call("pause");
        lib.call("seekForward", 7.25);
        lib.call("seekBackward", 10.0);
        lib.call("seekTo", 0.0);
        lib.call("play");
        // Still no service: the id is not even looked up.
        lib.call("PlayPlaylist", "no-such-playlist");
        lib.call("SetAdRequired", true);
        lib.call("AdCompletedResumePlayback");
    });
    EXPECT_EQ(callbacks(),
              (std::vector<std::string>{"CallBack_registered:registered", "OnVideoPause:Paused",
                                        "OnVideoSeekForward:7.25", "OnVideoSeekBackward:10.0",
                                        "OnVideoSeekTo:0.0", "OnVideoPlay:Started"}));
    EXPECT_FALSE(contains(log, "Playlist not found"));
    EXPECT_FALSE(contains(log, "Ad completed"));

    // SetPremium creates the service; now the unknown id is reported.
    log = logOf([&] {
        lib.call("SetPremium", false);
        lib.call("PlayPlaylist", "no-such-playlist");
    });
    EXPECT_TRUE(contains(log, "[LOG] [") && contains(log, "✅ Subscription updated:free"));
    EXPECT_TRUE(contains(log, ": [ERROR] [") && contains(log, "❌ Playlist not found"));
}

TEST_F(BridgeTest, CatalogueMergesInEitherOrderWithItsLogLines) {
    auto log = logOf([&] {
        lib.call("SetEpisodes", kEpisodes);
        lib.call("SetPlaylists", kPlaylists);
    });
    std::vector<std::string> messages;
    for (auto& l : log) messages.push_back(messageOf(l));
    const std::vector<std::string> expected = {"📥 Received Episodes JSON from Unity",
                                               "✅ Episodes received from Unity",
                                               "⏳ Waiting for playlists...",
                                               "📥 Received Playlist JSON from Unity",
                                               "✅ Playlist metadata received from Unity",
                                               "🔄 Merging data...",
                                               "Mapped playlist: Animals with 2 videos",
                                               "No episodes found for playlistId: pl-2",
                                               "✅ Final playlists ready: 1"};
    EXPECT_EQ(messages, expected);
    EXPECT_TRUE(contains(log, "[WARNING] [VideoPlayerService.cpp:") &&
                contains(log, "⏳ Waiting for playlists..."));

    // Resending one document merges again with the other's last version.
    log = logOf([&] { lib.call("SetPlaylists", kPlaylists); });
    EXPECT_TRUE(contains(log, "✅ Final playlists ready: 1"));
}

TEST_F(BridgeTest, PlaylistsFirstWaitsForEpisodes) {
    auto log = logOf([&] {
        lib.call("SetPlaylists", kPlaylists);
        lib.call("SetEpisodes", kEpisodes);
    });
    EXPECT_TRUE(contains(log, "⏳ Waiting for episodes..."));
    EXPECT_TRUE(contains(log, "✅ Final playlists ready: 1"));
}

TEST_F(BridgeTest, BadDocumentsAreLoggedAndTheLastGoodOnesKept) {
    lib.call("SetEpisodes", kEpisodes);
    std::string huge = "[";
    while (huge.size() < 10 * 1024 * 1024) huge += R"({"id":"x","name":"n","thumbnail":"t"},)";
    huge += R"({"id":"x","name":"n"}])";  // the last element lacks a key
    const char badUtf8[] = {'[', '{',    '"',    'i', 'd', '"', ':',
                            '"', '\xff', '\xfe', '"', '}', ']', 0};

    auto log = logOf([&] {
        lib.call("SetPlaylists", "not json");
        lib.call("SetPlaylists", "");
        lib.call("SetPlaylists", R"({"id":"pl-1"})");
        lib.call("SetPlaylists", badUtf8);
        lib.call("SetPlaylists", huge.c_str());
        lib.call("SetPlaylists", static_cast<const char*>(nullptr));
        lib.call("SetMidRollAdConfig", "{]");
    });
    EXPECT_EQ(std::count_if(log.begin(), log.end(),
                            [](const std::string& l) {
                                return l.find("[ERROR]") != std::string::npos &&
                                       l.find("❌ Failed to decode playlists: ") !=
                                           std::string::npos;
                            }),
              5);
    EXPECT_TRUE(contains(log, "⚠️ Failed to decode mid-roll config: "));
    EXPECT_FALSE(contains(log, "Final playlists ready"));

    // The good episodes document is still there for the next good playlist document.
    log = logOf([&] { lib.call("SetPlaylists", kPlaylists); });
    EXPECT_TRUE(contains(log, "✅ Final playlists ready: 1"));
}

TEST_F(BridgeTest, NullStringsAreLoggedNotDereferenced) {
    auto log = logOf([&] {
        lib.call("loadVideo", static_cast<const char*>(nullptr));
        lib.call("SetEpisodes", static_cast<const char*>(nullptr));
        lib.call("PlayPlaylist", static_cast<const char*>(nullptr));
        lib.call("SetMidRollAdConfig", static_cast<const char*>(nullptr));
        lib.fn<void (*)(const char**, int32_t)>("setURLS")(nullptr, 3);
    });
    EXPECT_GE(
        std::count_if(log.begin(), log.end(),
                      [](const std::string& l) { return l.find("null") != std::string::npos; }),
        5);
}

TEST_F(BridgeTest, CallbackMayCallBackIntoTheLibrary) {
    static Kavelin* self = &lib;
    lib.registerCallback([](const char* text) {
        recordCallback(text);
        if (std::string(text) == "CallBack_registered:registered") self->call("stop");
    });
    EXPECT_EQ(callbacks(),
              (std::vector<std::string>{"CallBack_registered:registered", "OnVideoStop:Stopped"}));
}

TEST_F(BridgeTest, EntryPointsMayBeCalledFromAnyThread) {
    lib.registerCallback(recordCallback);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int k = 0; k < 25; ++k) lib.call("pause");
        });
    for (auto& t : threads) t.join();
    auto events = callbacks();
    EXPECT_EQ(std::count(events.begin(), events.end(), "OnVideoPause:Paused"), 100);
}

}  // namespace
