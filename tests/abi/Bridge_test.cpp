// A test host that loads libKavelin.so with dlopen, as a game does. The library keeps
// its service and callback for the life of the process, so every scenario runs in a
// child forked before anything called into it.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <set>
#include <sstream>
#include <thread>

#include "support/HostLibrary.h"
#include "support/ScratchDir.h"

using Message = std::array<std::string, 3>;
// Written on the library thread before the call that caused it returns.
static std::vector<Message> gUnityMessages;

// The engine's entry point, found by the library with dlsym in the running image.
extern "C" __attribute__((visibility("default"))) void UnitySendMessage(const char* o,
                                                                        const char* m,
                                                                        const char* s) {
    gUnityMessages.push_back({o, m, s});
}

namespace {

using Lines = std::vector<std::string>;

const char* kPlaylists = R"([{"id":"pl-1","name":"Animals","thumbnail":"img/pl-1.png"},)"
                         R"({"id":"pl-2","name":"Songs","thumbnail":"img/pl-2.png"}])";
const char* kEpisodes =
    R"([{"id":"pl-1","episodes":[{"index":"e1","url":" media/e1.m3u8\n","thumbnail":"img/e1.png",)"
    R"("title":"Episode one","isActive":1,"length":120},{"index":"e2","url":"media/e2.m3u8",)"
    R"("thumbnail":"img/e2.png","title":"Episode two","isActive":0,"length":95}]}])";

class BridgeTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { setenv("KAVELIN_HEADLESS", "1", 1); }
    void SetUp() override {
        config.asConfigHome();
        ASSERT_TRUE(lib.ok()) << lib.missing;
    }

    template <typename Body>
    void inFreshProcess(Body body) {
        std::fflush(stdout);
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            body();
            std::fflush(stdout);
            _exit(HasFailure() ? 1 : 0);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child failed, see above";
    }

    // Runs `body` with the library's standard output captured and returns the lines.
    template <typename Body>
    static Lines logOf(Body body) {
        testing::internal::CaptureStdout();
        body();
        std::istringstream out(testing::internal::GetCapturedStdout());
        Lines lines;
        for (std::string line; std::getline(out, line);) lines.push_back(line);
        return lines;
    }
    // Lines holding `text` and `also`.
    static long count(const Lines& lines, const std::string& text, const std::string& also = "") {
        return std::count_if(lines.begin(), lines.end(), [&](const std::string& l) {
            return l.find(text) != std::string::npos && l.find(also) != std::string::npos;
        });
    }

    ScratchDir config{"kavelin-abi"};
    HostLibrary lib{KAVELIN_LIB_PATH};
};

TEST_F(BridgeTest, ExportsExactlyTheHeadersFunctionsAndVersion) {
    FILE* nm = popen((std::string("nm -D --defined-only ") + KAVELIN_LIB_PATH).c_str(), "r");
    ASSERT_NE(nm, nullptr);
    std::set<std::string> exported;
    char buf[512];
    while (fgets(buf, sizeof buf, nm)) {
        std::string name(buf);
        name = name.substr(name.find_last_of(' ') + 1);
        name.erase(name.find_last_not_of("\n") + 1);
        if (!name.empty() && name.rfind("KAVELIN", 0) != 0) exported.insert(name);  // version node
    }
    pclose(nm);
#define KAVELIN_NAME(name) #name,
    const std::set<std::string> expected = {KAVELIN_HOST_ENTRIES(KAVELIN_NAME) "pause",
                                            "KavelinVersionNumber", "KavelinVersionString"};
#undef KAVELIN_NAME
    EXPECT_EQ(exported, expected);
    EXPECT_DOUBLE_EQ(*static_cast<const double*>(lib.find("KavelinVersionNumber")), 1.1);
    EXPECT_STREQ(static_cast<const char*>(lib.find("KavelinVersionString")),
                 "@(#)PROGRAM:Kavelin  PROJECT:Kavelin-1.1.0\n");
}

TEST_F(BridgeTest, EventsGoToTheCallbackWhenRegisteredOtherwiseSplitToUnity) {
    inFreshProcess([&] {
        const auto log = logOf([&] { lib.stop(); });
        const Message stopped{"ZelkinVideoPlayer", "OnVideoStop", "Stopped"};
        EXPECT_EQ(gUnityMessages, std::vector<Message>{stopped});
        EXPECT_EQ(count(log, "📤 sendUnityMessage: OnVideoStop:Stopped"), 1);
        EXPECT_EQ(count(log, "No Unity callback available"), 0);

        lib.registerUnityCallback(HostEvents::record);
        lib.stop();
        EXPECT_EQ(HostEvents::texts(),
                  (Lines{"CallBack_registered:registered", "OnVideoStop:Stopped"}));
        EXPECT_EQ(gUnityMessages.size(), 1u) << "nothing more for Unity";

        // Clearing it answers on the Unity path, which takes every later event.
        lib.registerUnityCallback(nullptr);
        lib.play();
        EXPECT_EQ(HostEvents::texts().size(), 2u);
        EXPECT_EQ(gUnityMessages,
                  (std::vector<Message>{stopped,
                                        {"ZelkinVideoPlayer", "CallBack_registered", "registered"},
                                        {"ZelkinVideoPlayer", "OnVideoPlay", "Started"}}));
    });
}

TEST_F(BridgeTest, TransportEchoesAlwaysArriveAndTheRestWaitsForAService) {
    inFreshProcess([&] {
        lib.registerUnityCallback(HostEvents::record);
        auto log = logOf([&] {
            lib.pause();
            lib.seekForward(7.25);
            lib.seekBackward(10.0);
            lib.seekTo(0.0);
            lib.play();
            lib.PlayPlaylist("no-such-playlist");  // no service: not even looked up
            lib.SetAdRequired(true);
            lib.AdCompletedResumePlayback();
        });
        EXPECT_EQ(HostEvents::texts(),
                  (Lines{"CallBack_registered:registered", "OnVideoPause:Paused",
                         "OnVideoSeekForward:7.25", "OnVideoSeekBackward:10.0", "OnVideoSeekTo:0.0",
                         "OnVideoPlay:Started"}));
        EXPECT_EQ(count(log, "Playlist not found"), 0);
        EXPECT_EQ(count(log, "Ad completed"), 0);

        log = logOf([&] {
            lib.SetPremium(false);  // creates the service
            lib.PlayPlaylist("no-such-playlist");
        });
        EXPECT_EQ(count(log, "[LOG] [", "✅ Subscription updated:free"), 1);
        EXPECT_EQ(count(log, ": [ERROR] [", "❌ Playlist not found"), 1);
    });
}

TEST_F(BridgeTest, CatalogueMergesInEitherOrderWithItsLogLines) {
    // Episodes first, with every line in order past "[LEVEL] [file:line] ".
    inFreshProcess([&] {
        auto log = logOf([&] {
            lib.SetEpisodes(kEpisodes);
            lib.SetPlaylists(kPlaylists);
        });
        Lines messages;
        for (auto& l : log) messages.push_back(l.substr(l.find("] ", l.find("] [") + 2) + 2));
        EXPECT_EQ(messages,
                  (Lines{"📥 Received Episodes JSON from Unity", "✅ Episodes received from Unity",
                         "⏳ Waiting for playlists...", "📥 Received Playlist JSON from Unity",
                         "✅ Playlist metadata received from Unity", "🔄 Merging data...",
                         "Mapped playlist: Animals with 2 videos",
                         "No episodes found for playlistId: pl-2", "✅ Final playlists ready: 1"}));
        EXPECT_EQ(count(log, "[WARNING] [VideoPlayerService.cpp:", "⏳ Waiting for playlists"), 1);
        // Resending one document merges again with the other's last version.
        EXPECT_EQ(count(logOf([&] { lib.SetPlaylists(kPlaylists); }), "✅ Final playlists ready: 1"),
                  1);
    });
    inFreshProcess([&] {
        const auto log = logOf([&] {
            lib.SetPlaylists(kPlaylists);
            lib.SetEpisodes(kEpisodes);
        });
        EXPECT_EQ(count(log, "⏳ Waiting for episodes..."), 1);
        EXPECT_EQ(count(log, "✅ Final playlists ready: 1"), 1);
    });
}

TEST_F(BridgeTest, BadAndNullDocumentsAreLoggedAndTheLastGoodOnesKept) {
    inFreshProcess([&] {
        lib.SetEpisodes(kEpisodes);
        std::string huge = "[";
        while (huge.size() < 10 * 1024 * 1024) huge += R"({"id":"x","name":"n","thumbnail":"t"},)";
        huge += R"({"id":"x","name":"n"}])";  // the last element lacks a key
        const char* badUtf8 = "[{\"id\":\"\xff\xfe\"}]";
        auto log = logOf([&] {
            for (const char* doc : {"not json", "", R"({"id":"pl-1"})", badUtf8, huge.c_str(),
                                    static_cast<const char*>(nullptr)})
                lib.SetPlaylists(doc);
            lib.SetMidRollAdConfig("{]");
        });
        EXPECT_EQ(count(log, "[ERROR]", "❌ Failed to decode playlists: "), 5);
        EXPECT_EQ(count(log, "⚠️ Failed to decode mid-roll config: "), 1);
        EXPECT_EQ(count(log, "Final playlists ready"), 0);
        // The good episodes document is still there for the next good playlist document.
        EXPECT_EQ(count(logOf([&] { lib.SetPlaylists(kPlaylists); }), "✅ Final playlists ready: 1"),
                  1);

        log = logOf([&] {
            lib.loadVideo(nullptr);
            lib.SetEpisodes(nullptr);
            lib.PlayPlaylist(nullptr);
            lib.SetMidRollAdConfig(nullptr);
            lib.setURLS(nullptr, 3);
        });
        EXPECT_GE(count(log, "null"), 5);
    });
}

TEST_F(BridgeTest, CallbackMayCallInAndEntryPointsRunFromAnyThread) {
    inFreshProcess([&] {
        static HostLibrary* self = &lib;
        lib.registerUnityCallback([](const char* text) {
            HostEvents::record(text);
            if (std::string(text) == "CallBack_registered:registered") self->stop();
        });
        EXPECT_EQ(HostEvents::texts(),
                  (Lines{"CallBack_registered:registered", "OnVideoStop:Stopped"}));

        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([&] {
                for (int k = 0; k < 25; ++k) lib.pause();
            });
        for (auto& t : threads) t.join();
        const auto events = HostEvents::texts();
        EXPECT_EQ(std::count(events.begin(), events.end(), "OnVideoPause:Paused"), 100);
    });
}

}  // namespace
