// Runs the C# binding the way a game does: a console host on Mono, compiled with mcs
// by the test fixture, loads the built library by name. Each scenario is a process
// of its own with a fresh config directory, media on loopback and no display.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/LocalHttpServer.h"
#include "support/TestMedia.h"

namespace kavelin::test {
namespace {

struct Scenario {
    const char* name;
    std::vector<std::string> args;
    // Leaving after cleanup must end the process this soon.
    bool timedExit = false;
};

void PrintTo(const Scenario& s, std::ostream* os) {
    *os << s.name;
    for (const auto& a : s.args) *os << " " << a;
}

class ManagedHostTest : public ::testing::TestWithParam<Scenario> {
  protected:
    static void SetUpTestSuite() {
        server_ = std::make_unique<LocalHttpServer>(TestMedia::shared().directory());
    }
    static void TearDownTestSuite() { server_.reset(); }

    static std::unique_ptr<LocalHttpServer> server_;
};
std::unique_ptr<LocalHttpServer> ManagedHostTest::server_;

TEST_P(ManagedHostTest, ScenarioHolds) {
    const Scenario& scenario = GetParam();
    const auto config = std::filesystem::temp_directory_path() /
                        ("kavelin-mono-" + std::to_string(::getpid()) + "-" + scenario.name);
    std::filesystem::create_directories(config);
    std::vector<std::string> argv = {KAVELIN_MONO, KAVELIN_MANAGED_HOST, scenario.name,
                                     server_->url("")};
    argv.insert(argv.end(), scenario.args.begin(), scenario.args.end());
    const auto result = runChild(argv,
                                 {{"LD_LIBRARY_PATH", KAVELIN_LIB_DIR},
                                  {"XDG_CONFIG_HOME", config.string()},
                                  {"KAVELIN_HEADLESS", "1"},
                                  {"DISPLAY", ""}},
                                 60);
    std::filesystem::remove_all(config);
    EXPECT_TRUE(result.exited && result.exitCode == 0) << result.describe() << "\n"
                                                       << result.output;
    EXPECT_NE(result.output.find("\nok\n"), std::string::npos) << result.output;
    if (scenario.timedExit) {
        const auto at = result.output.find("leaving-at-ms=");
        ASSERT_NE(at, std::string::npos) << result.output;
        const long long leaving = std::stoll(result.output.substr(at + 14));
        const long long ended =
            std::chrono::duration_cast<std::chrono::milliseconds>(result.ended.time_since_epoch())
                .count();
        EXPECT_LT(ended - leaving, 5000) << "the runtime waited for a library thread";
    }
}

INSTANTIATE_TEST_SUITE_P(Mono, ManagedHostTest,
                         ::testing::Values(Scenario{"registration", {}}, Scenario{"non-ascii", {}},
                                           Scenario{"free-ad", {}}, Scenario{"gc-storm", {}},
                                           Scenario{"reentrant", {}},
                                           Scenario{"exit", {"shutdown", "return"}, true},
                                           Scenario{"exit", {"shutdown", "environment-exit"}, true},
                                           Scenario{"exit", {"cleanup", "return"}, true},
                                           Scenario{"exit", {"cleanup", "environment-exit"}, true},
                                           Scenario{"exit", {"none", "return"}, true},
                                           Scenario{"second-session", {}, true}),
                         [](const ::testing::TestParamInfo<Scenario>& info) {
                             std::string name = info.param.name;
                             for (const auto& a : info.param.args) name += "_" + a;
                             for (auto& c : name)
                                 if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                             return name;
                         });

}  // namespace
}  // namespace kavelin::test
