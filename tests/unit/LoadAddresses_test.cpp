// Which host addresses load, what the media player is handed for them, and that a
// refused one never moves the playlist position.
#include "Kavelin/Extentions/URLString.h"
#include "support/PlayerControllerFixture.h"

namespace kavelin::testing {
namespace {

struct AddressCase {
    const char* given;
    std::optional<std::string> handed;
};

TEST(PlayerAddress, AnyURIReferenceLoadsOnlyEmptyOrControlCharactersAreRefused) {
    const AddressCase cases[] = {
        {"media/e1.m3u8", "media/e1.m3u8"},                // relative: the player resolves it
        {"/srv/my videos/é.mp4", "/srv/my videos/é.mp4"},  // a path, as written
        {"not a url", "not a url"},
        {"http://cdn.example.com/a b/é.mp4?q=1 2#t=1#2",
         "http://cdn.example.com/a%20b/%C3%A9.mp4?q=1%202#t=1%232"},
        {"https://h/%20kept%zz%4", "https://h/%20kept%25zz%254"},
        {"http://[::1]:8080/a[1].mp4", "http://[::1]:8080/a%5B1%5D.mp4"},
        {"http://h/\"q\"<x>\\{|}^`", "http://h/%22q%22%3Cx%3E%5C%7B%7C%7D%5E%60"},
        {"edl://file=av://lavfi:testsrc2=size=640x360:rate=25,length=30",
         "edl://file=av://lavfi:testsrc2=size=640x360:rate=25,length=30"},
        {"", std::nullopt},
        {"http://h/a\tb", std::nullopt},
        {"clip\n.mp4", std::nullopt},
        {"clip\x7f.mp4", std::nullopt},
        {"clip\xC2\x85.mp4", std::nullopt},  // NEL, a C1 control
    };
    for (const auto& c : cases) EXPECT_EQ(playerAddress(c.given), c.handed) << c.given;
    for (const auto& playlist : Playlist::allPlaylists())
        for (const auto& v : playlist.videos) EXPECT_EQ(playerAddress(v.url), v.url);
}

// pl-1 is a0, a broken address, a2.
class RefusedLoad : public PlayerControllerTest {
  protected:
    std::vector<Playlist> catalogue() const override {
        auto list = PlayerControllerTest::catalogue();
        list[0].videos[1].url = "http://h/\x01";
        return list;
    }
};

TEST_F(RefusedLoad, PositionStaysWhereItWas) {
    const std::vector<std::pair<const char*, std::function<void()>>> moves = {
        {"end of a0", [this] { vp.advance(kClip + 1); }},
        {"next button", [this] { pc->nextVideo(); }},
        {"rail tap", [this] { pc->onVideoSelected(video("pl-1", 1)); }},
    };
    subscriptionStatus() = SubscriptionStatus::premium;
    startPlaylist("pl-1");
    for (const auto& [name, move] : moves) {
        logs.clear();
        move();
        EXPECT_EQ(pc->currentIndex.get(), 0) << name;
        EXPECT_EQ(playlist->currentVideoID.get(), "a0") << name;
        EXPECT_TRUE(logs.contains("⚠️ Not a valid URL, nothing loaded: http://h/\x01")) << name;
    }

    // A free viewer's tile ad: the ad is over, the chosen video cannot load.
    subscriptionStatus() = SubscriptionStatus::free;
    pc->onVideoSelected(video("pl-1", 1));
    vp.advance(1);
    service->AdCompletedResumePlayback();
    EXPECT_EQ(pc->currentIndex.get(), 0);
    EXPECT_FALSE(pc->pendingVideo.has_value());
}

TEST_F(RefusedLoad, TheMediaPlayerGetsTheEncodedAddressOrThePathAsWritten) {
    startPlaylist("pl-1");
    pc->loadVideo("clips/first clip.mp4");
    EXPECT_EQ(playingURL(), "clips/first clip.mp4");
    pc->loadVideo("http://cdn/a b.mp4");
    EXPECT_EQ(playingURL(), "http://cdn/a%20b.mp4");
}

}  // namespace
}  // namespace kavelin::testing
