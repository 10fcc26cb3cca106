// A bad input from the host or its remote configuration costs one error line,
// never the game: nothing reachable from the C functions ends the process.
#include <Kavelin/Kavelin.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "support/PlayerControllerFixture.h"

namespace kavelin::testing {
namespace {

namespace fs = std::filesystem;

TEST(HostNeverTerminated, NoSourceCallsAbortExitOrTerminate) {
    const fs::path root = KAVELIN_SOURCE_DIR;
    const std::regex fatal(R"(\b(abort|exit|_Exit|quick_exit|terminate|assert)\s*\()");
    size_t scanned = 0;
    for (const char* dir : {"Kavelin", "include"}) {
        for (const auto& entry : fs::recursive_directory_iterator(root / dir)) {
            const auto ext = entry.path().extension();
            if (ext != ".cpp" && ext != ".h") continue;
            std::ifstream in(entry.path());
            std::string line;
            for (int n = 1; std::getline(in, line); ++n)
                EXPECT_FALSE(std::regex_search(line.substr(0, line.find("//")), fatal))
                    << entry.path() << ":" << n << ": " << line;
            ++scanned;
        }
    }
    EXPECT_GT(scanned, 50u);  // the tree was found
}

class BadInput : public PlayerControllerTest {
  protected:
    std::string errorsLogged() const {
        std::string out;
        for (const auto& m : logs.messages())
            if (logs.levelOf(m) == "ERROR") out += m + "\n";
        return out;
    }
};

TEST_F(BadInput, NegativeURLCountIsLoggedAndTheListKept) {
    pc->setURLS({"a", "b"});
    const char* list[] = {"x"};
    for (int32_t count : {-1, -2147483647 - 1}) {
        logs.clear();
        setURLS(count == -1 ? nullptr : list, count);
        EXPECT_EQ(errorsLogged(), "❌ setURLS called with a negative count (" +
                                      std::to_string(count) +
                                      "); ignored, the play order is unchanged\n");
        EXPECT_EQ(pc->getURLs(), (std::vector<std::string>{"a", "b"}));
    }
}

TEST_F(BadInput, NegativeOverrideBreakCountSkipsOnlyTheOverride) {
    MidRollAdConfig c = policy({0.5});
    c.videoOverrides = std::map<std::string, MidRollAdConfig::VideoOverride>{
        {"a0", {{5.0, 9.0}, -1}}, {"a1", {{5.0, 9.0}, 1}}};
    MidRollCuePointState s;
    s.computeCuePoints(30, "a0", c);  // planned from the bucket instead
    ASSERT_EQ(s.cuePoints.size(), 1u);
    EXPECT_EQ(s.cuePoints[0].timestamp, 15.0);
    EXPECT_EQ(errorsLogged(),
              "❌ Mid-roll override for a0 has a negative maxBreaks (-1); override skipped\n");
    s.computeCuePoints(30, "a1", c);  // a sound override still applies
    ASSERT_EQ(s.cuePoints.size(), 1u);
    EXPECT_EQ(s.cuePoints[0].timestamp, 5.0);
}

TEST_F(BadInput, EmptyCatalogueLeavesTheControllerWithoutPlaylists) {
    startPlaylist("pl-2");
    playlists().clear();  // a merge that matched nothing
    PlaylistController empty(vp.defaults);
    EXPECT_TRUE(empty.currentPlaylist->id.empty());
    EXPECT_TRUE(empty.videos.empty());
    EXPECT_NE(errorsLogged().find("❌ The playlist catalogue is empty"), std::string::npos);

    // The running playlist ends into the one chosen earlier; after it none follows.
    subscriptionStatus() = SubscriptionStatus::premium;
    logs.clear();
    vp.advance(2 * kClip + 1);
    EXPECT_EQ(errorsLogged(), "❌ The playlist catalogue is empty; there is no next playlist\n");
    EXPECT_EQ(playlist->currentPlaylist->id, "pl-1");
    EXPECT_EQ(playlist->nextPlaylist.get(), std::nullopt);
    EXPECT_EQ(playingURL(), urlOf("a0"));
}

}  // namespace
}  // namespace kavelin::testing
