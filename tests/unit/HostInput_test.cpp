// Off input from a host costs an error line or a title, never the game, and
// numbers keep their bytes whatever numeric locale the host adopted.
#include <Kavelin/Kavelin.h>

#include <clocale>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>

#include "Kavelin/Extentions/UTF8Repair.h"
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
            // The debug-only thread assertion is compiled out of what a game ships.
            if ((ext != ".cpp" && ext != ".h") || entry.path().stem() == "MainQueueCheck") continue;
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

TEST_F(BadInput, URLListSkipsNullEntriesANegativeCountIsLoggedAndTheListKept) {
    const char* urls[] = {"a", nullptr, "b"};
    EXPECT_EQ(urlsFromHost(urls, 3), (std::vector<std::string>{"a", "b"}));
    EXPECT_TRUE(urlsFromHost(urls, 0).empty() && urlsFromHost(nullptr, 2).empty());

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

const char* kFFFD = "\xEF\xBF\xBD";

TEST(RepairUTF8, EachMaximalIllFormedSubpartBecomesOneReplacement) {
    const std::string r = kFFFD;
    const std::tuple<std::string, std::string, size_t> cases[] = {
        {"Café 🎈 恐竜 ÆØÅ", "Café 🎈 恐竜 ÆØÅ", 0},  // well formed: untouched
        {"a\377b", "a" + r + "b", 1},
        {"\xC3", r, 1},                          // cut short at the end
        {"\346\201x", r + "x", 1},               // two of three bytes
        {"\xC0\xAF", r + r, 2},                  // overlong
        {"\xED\xA0\x80", r + r + r, 3},          // a surrogate
        {"\xF4\x90\x80\x80", r + r + r + r, 4},  // above U+10FFFF
    };
    for (const auto& [original, expected, count] : cases) {
        // Long ASCII runs around it take the eight-bytes-at-a-time path.
        for (const std::string pad : {"", "0123456789abcdef"}) {
            const std::string input = pad + original + pad;
            std::string storage;
            std::string_view text = input;
            EXPECT_EQ(repairUTF8(text, storage), count) << expected;
            EXPECT_EQ(text, pad + expected + pad);
            EXPECT_EQ(text.data() == input.data(), count == 0) << "copied only to repair";
        }
    }
}

using HostText = PlayerControllerTest;

TEST_F(HostText, OneStrayByteCostsOneCharacterNotTheCatalogue) {
    service->setPlaylistsFromUnity(R"([{"id":"p","name":"Dinos","thumbnail":"t"}])");
    // A Latin-1 é among well-formed characters; the clean playlists JSON warns nothing.
    service->setEpisodesFromUnity(
        R"([{"id":"p","episodes":[{"index":"v","url":"u","thumbnail":"t","title":"恐竜 Caf)"
        "\xE9"
        R"( 🎈","isActive":1,"length":30}]}])");
    ASSERT_EQ(playlists().size(), 1u);
    EXPECT_EQ(playlists()[0].videos.at(0).title, std::string("恐竜 Caf") + kFFFD + " 🎈");
    EXPECT_EQ(logs.count("⚠️ Ill-formed UTF-8 in the episodes JSON: 1 sequence(s) "
                         "replaced with U+FFFD"),
              1u);
    EXPECT_EQ(logs.countPrefix("⚠️ Ill-formed UTF-8"), 1u);
}

TEST_F(HostText, PauseWithNoPlayerStillShowsTheControls) {
    startPlaylist("pl-1");
    pc->backToHome();
    vp.advance(1);  // the dismissal dropped the player
    ASSERT_EQ(pc->player.get(), nullptr);
    if (pc->showControls) pc->toggleControls();
    ASSERT_FALSE(pc->showControls);
    ASSERT_TRUE(pc->shouldBePlayingAfterResume());  // still from the playback before
    kavelin_pause();
    EXPECT_TRUE(pc->showControls);
    EXPECT_FALSE(pc->shouldBePlayingAfterResume());
    EXPECT_EQ(events.events().back(), (HostEvent{"OnVideoPause", "Paused"}));
}

// German numeric locale, where printf writes "7,5".
class GermanHost : public PlayerControllerTest {
  protected:
    void SetUp() override {
        PlayerControllerTest::SetUp();
        ASSERT_NE(std::setlocale(LC_ALL, "de_DE.UTF-8"), nullptr)
            << "the de_DE.UTF-8 locale is missing: run scripts/setup.sh";
        char probe[16];
        std::snprintf(probe, sizeof probe, "%.1f", 7.5);
        ASSERT_STREQ(probe, "7,5");  // the locale really is in force
    }
    void TearDown() override {
        std::setlocale(LC_ALL, "C");
        PlayerControllerTest::TearDown();
    }
};

TEST_F(GermanHost, MidRollPayloadAndLogLinesUseADecimalPoint) {
    pc->setMidRollConfig(policy({0.25}));  // 7.5 s into a 30 s clip
    startPlaylist("pl-1");
    vp.advance(8);
    EXPECT_EQ(events.count("OnMidRollAdRequired"), 1u);
    EXPECT_NE(std::find(events.events().begin(), events.events().end(),
                        HostEvent{"OnMidRollAdRequired", "7.5"}),
              events.events().end());
    EXPECT_TRUE(logs.contains("⏱️ Mid-roll ad triggered at 7.5s"));
    EXPECT_TRUE(logs.contains(R"(🎯 Mid-roll: 1 cue points for 30s video: ["7.5"])"));

    seekForward(2.5);
    EXPECT_EQ(events.events().back(), (HostEvent{"OnVideoSeekForward", "2.5"}));
}

}  // namespace
}  // namespace kavelin::testing
