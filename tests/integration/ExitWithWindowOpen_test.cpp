// A game may quit at any moment while the player window is up and drawing, without
// calling cleanup first. Fifty hosts leave at random moments of the fade-in, of
// video playback and of the rail's animation, three different ways; none may crash
// or hang.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "support/ChildProcess.h"
#include "support/LocalHttpServer.h"
#include "support/ScratchDir.h"
#include "support/TestMedia.h"
#include "support/XvfbDisplay.h"

namespace kavelin::test {
namespace {

std::string catalogueEpisodes(const LocalHttpServer& server) {
    std::string episodes;
    for (int i = 1; i <= 4; ++i) {
        if (!episodes.empty()) episodes += ",";
        episodes += R"({"index":"e)" + std::to_string(i) + R"(","url":")" +
                    server.url(TestMedia::kClip3s) + R"(","thumbnail":")" +
                    server.url("/thumb" + std::to_string(i) + ".svg") + R"(","title":"Clip )" +
                    std::to_string(i) + R"(","isActive":1,"length":3})";
    }
    return R"([{"id":"pl-exit","episodes":[)" + episodes + "]}]";
}

TEST(ExitWithWindowOpen, FiftyExitsAtRandomMomentsOfDrawingNeverCrashOrHang) {
    XvfbDisplay display;
    ASSERT_TRUE(display.ok()) << "no X server for the window";
    const auto& media = TestMedia::shared();
    LocalHttpServer server(media.directory());
    std::ifstream svg(std::string(KAVELIN_SOURCE_DIR) + "/Resources/Thumbnails/sample-1-01.svg");
    const std::string thumbnail{std::istreambuf_iterator<char>(svg), {}};
    ASSERT_FALSE(thumbnail.empty());
    for (int i = 1; i <= 4; ++i)
        server.setResponse("/thumb" + std::to_string(i) + ".svg",
                           {200, thumbnail, "image/svg+xml", 0.05 * i});

    const std::string playlists =
        R"([{"id":"pl-exit","name":"Exit","thumbnail":")" + server.url("/thumb1.svg") + R"("}])";
    const std::string episodes = catalogueEpisodes(server);
    const char* modes[] = {"return", "exit", "callback"};
    std::mt19937 random(std::random_device{}());
    ScratchDir config("kavelin-exit");

    int failures = 0;
    for (int run = 0; run < 50; ++run) {
        // The first 1.5 s after the screen opens: fade-in, first frames, rail sliding in.
        const int delayMs = std::uniform_int_distribution<int>(0, 1500)(random);
        const char* mode = modes[run % 3];
        auto result = runChild({KAVELIN_EXIT_HOST, KAVELIN_LIB_PATH, playlists, episodes,
                                std::to_string(delayMs), mode},
                               {{"XDG_CONFIG_HOME", config.path.string()}}, 30);
        const bool left = result.output.find("[exit-host] ") != std::string::npos;
        const bool windowed = result.output.find("No window for the player") == std::string::npos;
        if (!result.exited || result.exitCode != 0 || !left || !windowed) {
            ++failures;
            ADD_FAILURE() << "run " << run << " (" << mode << " after " << delayMs
                          << " ms): " << result.describe() << (windowed ? "" : ", no window")
                          << "\n"
                          << result.output.substr(
                                 result.output.size() > 3000 ? result.output.size() - 3000 : 0);
        }
    }
    EXPECT_EQ(failures, 0);
}

}  // namespace
}  // namespace kavelin::test
