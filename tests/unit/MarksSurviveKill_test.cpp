#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <thread>

#include "Kavelin/Platform/ThreadMainQueue.h"
#include "Kavelin/Platform/UserDefaults.h"
#include "Kavelin/log/VPLogger.h"
#include "support/VirtualPlatform.h"

// A game can be killed at any moment. A process recording watched marks as fast as
// a player would is killed with SIGKILL at random times: the file must always
// parse and hold every mark older than the save window.
namespace kavelin {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
constexpr const char* kKey = "zelkin.playlistSDK.completedVideosByPlaylist";

// The child: the real thread queue and store, one new mark every 20 ms, each
// reported on `out` once the store holds it.
[[noreturn]] void recordMarks(const fs::path& file, int out) {
    VPLogger::setEnabled(false);
    auto queue = std::make_shared<ThreadMainQueue>();
    auto store = std::make_shared<UserDefaults>(file, queue);
    nlohmann::json marks = nlohmann::json::array();
    for (int mark = 0;; ++mark) {
        queue->sync([&] {
            marks.push_back(std::to_string(mark));
            store->setObject(kKey, nlohmann::json{{"pl", marks}});
        });
        if (::write(out, &mark, sizeof mark) != sizeof mark) ::_exit(1);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

TEST(MarksSurviveKill, FileAlwaysParsesAndLosesAtMostTheLastSecond) {
    testing::TempDir dir;
    const fs::path file = dir.path / "UserDefaults.json";
    std::mt19937 random(std::random_device{}());
    // The save window is one second; fsync and scheduling get a little slack.
    const auto lossWindow = std::chrono::milliseconds(1250);

    for (int run = 0; run < 20; ++run) {
        SCOPED_TRACE("run " + std::to_string(run));
        int fds[2];
        ASSERT_EQ(::pipe(fds), 0);
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::close(fds[0]);
            recordMarks(file, fds[1]);
        }
        ::close(fds[1]);
        std::map<int, Clock::time_point> seen;
        const auto killAt = Clock::now() + std::chrono::milliseconds(
                                               std::uniform_int_distribution(300, 2500)(random));
        while (Clock::now() < killAt) {
            pollfd p{fds[0], POLLIN, 0};
            if (::poll(&p, 1, 10) <= 0) continue;
            int mark = 0;
            if (::read(fds[0], &mark, sizeof mark) == sizeof mark) seen[mark] = Clock::now();
        }
        ::kill(child, SIGKILL);
        const auto killed = Clock::now();
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ::close(fds[0]);

        size_t saved = 0;
        if (fs::exists(file)) {  // whenever there is a file, it is whole
            std::ifstream in(file, std::ios::binary);
            const auto parsed = nlohmann::json::parse(in, nullptr, false);
            ASSERT_TRUE(parsed.is_object());
            saved = parsed.value(kKey, nlohmann::json::object())
                        .value("pl", nlohmann::json::array())
                        .size();
        }
        // Marks are appended in order: every one reported before the window is saved.
        for (const auto& [mark, when] : seen)
            if (killed - when >= lossWindow) {
                EXPECT_GT(saved, static_cast<size_t>(mark));
            }
        fs::remove(file);
    }
}

}  // namespace
}  // namespace kavelin
