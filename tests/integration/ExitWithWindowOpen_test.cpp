// A game may quit while the player window is up and drawing, without calling
// cleanup: fifty hosts leave three ways at random moments of the fade-in, playback
// and the rail's animation; none may crash or hang.
#include <gtest/gtest.h>

#include <algorithm>
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

TEST(ExitWithWindowOpen, FiftyExitsAtRandomMomentsOfDrawingNeverCrashOrHang) {
    XvfbDisplay display;
    ASSERT_TRUE(display.ok()) << "no X server for the window";
    LocalHttpServer server(TestMedia::shared().directory());
    std::ifstream svg(std::string(KAVELIN_SOURCE_DIR) + "/Resources/Thumbnails/sample-1-01.svg");
    const std::string thumbnail{std::istreambuf_iterator<char>(svg), {}};
    ASSERT_FALSE(thumbnail.empty());
    std::string episodes = R"([{"id":"pl-exit","episodes":[)";
    for (int i = 1; i <= 4; ++i) {
        const std::string n = std::to_string(i), thumb = "/thumb" + n + ".svg";
        server.setResponse(thumb, {200, thumbnail, "image/svg+xml", 0.05 * i});
        episodes += R"({"index":"e)" + n + R"(","url":")" + server.url(TestMedia::kClip3s) +
                    R"(","thumbnail":")" + server.url(thumb) + R"(","title":"Clip )" + n +
                    R"(","isActive":1,"length":3})" + (i < 4 ? "," : "]}]");
    }
    const std::string playlists =
        R"([{"id":"pl-exit","name":"Exit","thumbnail":")" + server.url("/thumb1.svg") + R"("}])";
    const char* modes[] = {"return", "exit", "callback"};
    std::mt19937 random(std::random_device{}());
    ScratchDir config("kavelin-exit");
    for (int run = 0; run < 50; ++run) {
        // The first 1.5 s after the screen opens: fade-in, first frames, rail sliding in.
        const int delayMs = std::uniform_int_distribution<int>(0, 1500)(random);
        const char* mode = modes[run % 3];
        auto result = runChild({KAVELIN_EXIT_HOST, KAVELIN_LIB_PATH, playlists, episodes,
                                std::to_string(delayMs), mode},
                               {{"XDG_CONFIG_HOME", config.path.string()}}, 30);
        const bool left = result.output.find("[exit-host] ") != std::string::npos;
        const bool windowed = result.output.find("No window for the player") == std::string::npos;
        EXPECT_TRUE(result.exited && result.exitCode == 0 && left && windowed)
            << "run " << run << " (" << mode << " after " << delayMs
            << " ms): " << result.describe() << (windowed ? "" : ", no window") << "\n"
            << result.output.substr(std::max<size_t>(result.output.size(), 3000) - 3000);
    }
}

}  // namespace
}  // namespace kavelin::test
