// Runs the C# binding the way a game does: a console host on Mono, compiled with mcs
// by the test fixture, loads the built library by name. Each scenario is a process
// of its own with a fresh config directory, media on loopback and no display.
#include <gtest/gtest.h>

#include <chrono>
#include <sstream>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/LocalHttpServer.h"
#include "support/ScratchDir.h"
#include "support/TestMedia.h"

namespace kavelin::test {
namespace {

// "SCENARIO [ARGS...]", as the host's command line takes it.
class ManagedHostTest : public ::testing::TestWithParam<std::string> {
  protected:
    LocalHttpServer server_{TestMedia::shared().directory()};
};

TEST_P(ManagedHostTest, ScenarioHolds) {
    const std::string& scenario = GetParam();
    ScratchDir config("kavelin-mono");
    std::vector<std::string> argv = {KAVELIN_MONO, KAVELIN_MANAGED_HOST};
    std::istringstream words(scenario);
    for (std::string word; words >> word;) argv.push_back(word);
    argv.insert(argv.begin() + 3, server_.url(""));
    const auto result = runChild(argv,
                                 {{"LD_LIBRARY_PATH", KAVELIN_LIB_DIR},
                                  {"XDG_CONFIG_HOME", config.path.string()},
                                  {"KAVELIN_HEADLESS", "1"},
                                  {"DISPLAY", ""}},
                                 60);
    EXPECT_TRUE(result.exited && result.exitCode == 0) << result.describe() << "\n"
                                                       << result.output;
    EXPECT_NE(result.output.find("\nok\n"), std::string::npos) << result.output;
    // Once the host leaves, the process must end soon.
    const auto at = result.output.find("leaving-at-ms=");
    ASSERT_NE(at, std::string::npos) << result.output;
    const long long leaving = std::stoll(result.output.substr(at + 14));
    const long long ended =
        std::chrono::duration_cast<std::chrono::milliseconds>(result.ended.time_since_epoch())
            .count();
    EXPECT_LT(ended - leaving, 5000) << "the runtime waited for a library thread";
}

INSTANTIATE_TEST_SUITE_P(Mono, ManagedHostTest,
                         ::testing::Values("registration", "non-ascii", "free-ad", "gc-storm",
                                           "reentrant", "exit shutdown return",
                                           "exit shutdown environment-exit", "exit cleanup return",
                                           "exit cleanup environment-exit", "exit none return",
                                           "second-session"),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                             std::string name = info.param;
                             for (auto& c : name)
                                 if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                             return name;
                         });

}  // namespace
}  // namespace kavelin::test
