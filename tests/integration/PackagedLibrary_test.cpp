// The installed library as a game carries it, in a process of its own: copied alone
// into a game's folder it still shows its artwork, and it shares SDL with a host
// that runs its own window and event loop.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "support/ChildProcess.h"
#include "support/TestMedia.h"
#include "support/XvfbDisplay.h"

namespace fs = std::filesystem;
using namespace kavelin::test;

namespace {

struct PackagedLibrary : ::testing::Test {
    XvfbDisplay display;
    fs::path dir = fs::temp_directory_path() / ("kavelin-packaged-" + std::to_string(getpid()));
    std::string clip = (dir / "black.mp4").string();

    void SetUp() override {
        ASSERT_TRUE(display.ok());
        fs::create_directories(dir);
        TestMedia::makeVideoClip(clip, "color=c=black:size=640x360:rate=25:duration=30");
    }
    void TearDown() override { fs::remove_all(dir); }

    ChildResult host(const std::string& library, const std::vector<std::string>& args,
                     std::map<std::string, std::string> env, const fs::path& cwd = ".") {
        std::string command = "cd '" + cwd.string() + "' && exec '" KAVELIN_WINDOWED_HOST "' '" +
                              library + "' '" + clip + "'";
        for (const auto& a : args) command += " '" + a + "'";
        env["XDG_CONFIG_HOME"] = dir.string();
        return runChild({"/bin/sh", "-c", command}, env, 120);
    }

    std::vector<uint8_t> grab(const std::string& library, std::map<std::string, std::string> env,
                              const fs::path& cwd) {
        const std::string out = (dir / "grab.rgb").string();
        auto result = host(library, {"grab", out}, std::move(env), cwd);
        EXPECT_TRUE(result.exited && result.exitCode == 0) << result.describe();
        std::ifstream in(out, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
};

TEST_F(PackagedLibrary, CopiedAloneShowsTheSameArtworkAsInTheTree) {
    const fs::path prefix = dir / "prefix", game = dir / "game";
    const std::string install =
        "cmake --install '" KAVELIN_BUILD_DIR "' --prefix '" + prefix.string() + "' >/dev/null";
    ASSERT_EQ(std::system(install.c_str()), 0);
    fs::create_directories(game);
    fs::copy_file(prefix / "lib/libKavelin.so.1.1.0", game / "libKavelin.so");
    fs::remove_all(prefix);

    const auto inTree =
        grab(KAVELIN_LIB_PATH, {{"KAVELIN_RESOURCES_DIR", KAVELIN_SOURCE_DIR "/Resources"}},
             KAVELIN_SOURCE_DIR);
    const auto copied = grab((game / "libKavelin.so").string(),
                             {{"KAVELIN_RESOURCES_DIR", (dir / "none").string()},
                              {"KAVELIN_FONTS_DIR", (dir / "none").string()}},
                             game);
    ASSERT_EQ(inTree.size(), 1280u * 200 * 3);
    ASSERT_EQ(copied.size(), inTree.size());
    // Where artwork is drawn, not how bright: the controls' fade may be at another step.
    size_t drawn = 0, differing = 0;
    auto lit = [](const auto& p, size_t i) { return p[i] + p[i + 1] + p[i + 2] > 96; };
    for (size_t i = 0; i < inTree.size(); i += 3) {
        drawn += lit(inTree, i);
        differing += lit(inTree, i) != lit(copied, i);
    }
    EXPECT_GT(drawn, 500u) << "no back button or logo on the black picture";
    EXPECT_LT(differing, inTree.size() / 3 / 100) << "the copied library draws other artwork";
}

TEST_F(PackagedLibrary, HostWithItsOwnSdlLoopKeepsItsKeysAndQuit) {
    auto result = host(KAVELIN_LIB_PATH, {"sdl"}, {});
    EXPECT_TRUE(result.exited && result.exitCode == 0) << result.describe() << result.output;
}

}  // namespace
