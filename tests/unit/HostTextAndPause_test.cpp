// What a host sends that is slightly off: catalogue text with a stray byte, and a
// pause after the back button has dropped the player.
#include <Kavelin/Kavelin.h>

#include <tuple>

#include "Kavelin/Extentions/UTF8Repair.h"
#include "support/PlayerControllerFixture.h"

namespace kavelin::testing {
namespace {

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
    for (auto [text, expected, count] : cases) {
        EXPECT_EQ(repairUTF8(text), count) << expected;
        EXPECT_EQ(text, expected);
    }
}

using HostText = PlayerControllerTest;

TEST_F(HostText, OneStrayByteCostsOneTitleNotTheCatalogue) {
    const std::pair<std::string, std::string> titles[] = {
        {"Café 🎈 恐竜", "Café 🎈 恐竜"},
        {"Caf\xE9 Dinos", std::string("Caf") + kFFFD + " Dinos"},  // Latin-1 é
    };
    for (const auto& [sent, decoded] : titles) {
        logs.clear();
        service->setPlaylistsFromUnity(R"([{"id":"p","name":"Dinos","thumbnail":"t"}])");
        service->setEpisodesFromUnity(
            R"([{"id":"p","episodes":[{"index":"v","url":"u","thumbnail":"t","title":")" + sent +
            R"(","isActive":1,"length":30}]}])");
        ASSERT_EQ(playlists().size(), 1u);
        EXPECT_EQ(playlists()[0].videos.at(0).title, decoded);
        const bool repaired = sent != decoded;
        EXPECT_EQ(logs.count("⚠️ Ill-formed UTF-8 in the episodes JSON: 1 sequence(s) "
                             "replaced with U+FFFD"),
                  repaired ? 1u : 0u);
        EXPECT_EQ(logs.countPrefix("⚠️ Ill-formed UTF-8"), repaired ? 1u : 0u);
    }
}

TEST_F(HostText, PauseWithNoPlayerStillShowsTheControls) {
    startPlaylist("pl-1");
    pc->backToHome();
    vp.advance(1);  // the dismissal dropped the player
    ASSERT_EQ(pc->player.get(), nullptr);
    pc->showControls = false;
    pc->shouldBePlayingAfterResume = true;
    kavelin_pause();
    EXPECT_TRUE(pc->showControls);
    EXPECT_FALSE(pc->shouldBePlayingAfterResume);
    EXPECT_EQ(events.events().back(), (HostEvent{"OnVideoPause", "Paused"}));
}

}  // namespace
}  // namespace kavelin::testing
