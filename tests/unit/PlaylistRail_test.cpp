// The rail on its own: which cards it lists, how it scrolls to the video being
// played, what drags report, and the layout rules of the cards and the screen.
#include "Kavelin/views/PlaylistBottomView.h"
#include "Kavelin/views/VideoPlayerView.h"
#include "support/HeadlessImGui.h"
#include "support/PlayerControllerFixture.h"

namespace kavelin::testing {
namespace {

class RailTest : public PlayerControllerTest {
  protected:
    // Six videos: more than a phone rail shows at once.
    std::vector<Playlist> catalogue() const override {
        return {makePlaylist("pl-1", {"a0", "a1", "a2", "a3", "a4", "a5"}),
                makePlaylist("pl-2", {"b0", "b1"})};
    }
    void SetUp() override {
        PlayerControllerTest::SetUp();
        imgui.emplace(ImVec2{390, 844});
        orientation->updateOrientation(std::make_pair(390, 844));
        startPlaylist("pl-1");
        rail.emplace(
            playlist, [this](const Video& v) { selected.push_back(v.id); },
            [this](const Playlist& p) { selectedPlaylists.push_back(p.id); },
            [this] { ++interactions; }, false, orientation, vp.queue);
    }
    void TearDown() override {
        rail.reset();
        imgui.reset();
        PlayerControllerTest::TearDown();
    }

    void frame(ImVec2 mouse = {-1, -1}, bool down = false) {
        imgui->frame(
            vp.queue->now(), [&](Frame& f) { rail->draw(f, area); }, mouse, down);
    }
    void tap(float x) {
        frame({x, 700}, true);
        frame({x, 700}, false);
    }
    void tapCard(size_t index) { tap(area.x + rail->cardOffset(index) - offset() + 30); }
    float offset() const { return rail->scrollOffset(vp.queue->now()); }
    const DrawTrace& trace() const { return imgui->trace; }

    std::optional<HeadlessImGui> imgui;
    std::shared_ptr<OrientationObserver> orientation = std::make_shared<OrientationObserver>();
    std::optional<PlaylistBottomView> rail;
    Rect area{0, 636, 390, 208};
    std::vector<std::string> selected, selectedPlaylists;
    int interactions = 0;
};

TEST_F(RailTest, ListsVideosThenNextPlaylistAndScrollsTheCurrentCardToTheLeadingEdge) {
    frame();
    EXPECT_TRUE(rail->cardCount() == 6 && rail->hasNextPlaylistCard());
    // 180-wide cards 15 apart after a 16 padding: two fit in 390 points.
    EXPECT_TRUE(trace().hasText("Title a0") && trace().hasText("Title a1"));
    EXPECT_FALSE(trace().hasText("Title a3"));
    EXPECT_FLOAT_EQ(rail->cardOffset(2), 16 + 2 * (180 + 15));
    EXPECT_FLOAT_EQ(offset(), 16);  // a0 itself at the edge, past the padding
    playlist->videoStarted("a3");
    frame();
    EXPECT_FLOAT_EQ(offset(), 16);  // the 0.4 s animation starts here
    vp.advance(0.2);
    EXPECT_TRUE(offset() > 16 && offset() < 3 * 195) << offset();
    vp.advance(0.25);
    EXPECT_FLOAT_EQ(offset(), rail->cardOffset(3));  // the card itself at the edge
    frame();
    EXPECT_TRUE(trace().hasText("Title a3") && !trace().hasText("Title a0"));
    // Without a playlist card the last video cannot go further than the content's end.
    playlist->nextPlaylist = std::nullopt;
    playlist->videoStarted("a5");
    frame();
    vp.advance(0.5);
    const float content = rail->cardOffset(6) - 15 + 16;  // six videos and both paddings
    EXPECT_FLOAT_EQ(offset(), content - area.w);
}

TEST_F(RailTest, DragsScrollAndReportEveryChangeThePlaylistCardSelects) {
    frame();
    frame({100, 700}, true);
    EXPECT_EQ(interactions, 1);
    frame({60, 700}, true);
    frame({20, 702}, true);
    EXPECT_EQ(interactions, 3);
    EXPECT_FLOAT_EQ(offset(), 16 + 80);
    frame({20, 702}, false);
    EXPECT_TRUE(selected.empty());  // a drag is not a tap
    // Scrolled to the end, a tap on the playlist card selects the next playlist.
    playlist->videoStarted("a5");
    frame();
    vp.advance(0.5);
    tapCard(6);
    EXPECT_EQ(selectedPlaylists, std::vector<std::string>{"pl-2"});
}

TEST_F(RailTest, EmptyPlaylistShowsOnlyTheNextPlaylistCard) {
    Playlist empty("pl-0", "Nothing", std::nullopt, std::nullopt, {});
    playlist->currentPlaylist = empty;
    playlist->currentVideoID = std::nullopt;
    frame();
    EXPECT_TRUE(rail->cardCount() == 0 && trace().hasText("Name pl-2"));
    EXPECT_FLOAT_EQ(offset(), 0);
    playlist->nextPlaylist = std::nullopt;
    frame();
    EXPECT_TRUE(!rail->hasNextPlaylistCard() && trace().items.empty());
}

TEST(PlaylistCard, ThreeStackedCardsABottomBandAndTapsOnePaddingBelowItsOrigin) {
    auto g = PlaylistCardView::geometry({0, 0, 200, 100}, 30);
    // The back cards rise by twice and once the 10-point offset; the band sits at the bottom.
    EXPECT_EQ(std::make_tuple(g.cornerRadius, g.back1.w, g.back1.h, g.back1.midY(), g.back2.w,
                              g.back2.midY(), g.front.w, g.front.h, g.titleBand.h),
              std::make_tuple(10.f, 176.f, 95.f, 30.f, 188.f, 45.f, 200.f, 80.f, 30.f));
    EXPECT_FLOAT_EQ(g.titleBand.bottom(), g.front.bottom());
    // The stack carries the default padding above it, so the card sits 16 points lower
    // in the rail than the video cards beside it.
    HeadlessImGui h({400, 400});
    PlaylistCardView card("Name pl-2", "", std::make_shared<VirtualMainQueue>(), {180, 130}, false);
    auto tap = [&](float y, bool down) {
        bool tapped = false;
        auto draw = [&](Frame& f) { tapped = card.draw(f, {0, 0}); };
        h.frame(0, draw, {90, y}, down);
        return tapped;
    };
    // The card covers y 16 to 146.
    for (auto [y, hits] :
         {std::pair{5.0f, false}, {20.0f, true}, {140.0f, true}, {150.0f, false}}) {
        tap(y, true);
        EXPECT_EQ(tap(y, false), hits) << "tap at y " << y;
    }
}

TEST(VideoCardDecisions, DimmingAndBadgePlacement) {
    EXPECT_EQ(std::pair(PlaylistVideoView::dimOpacity(VideoState::none),
                        PlaylistVideoView::dimOpacity(VideoState::watching)),
              std::pair(0.f, 0.5f));
    EXPECT_EQ(PlaylistVideoView::adBadgeRect({100, 50}, true), (Rect{75, 25, 82, 82}));
    EXPECT_EQ(PlaylistVideoView::adBadgeRect({100, 50}, false), (Rect{80, 30, 52, 52}));
}

TEST(ScreenLayout, PaddingsByIdiomOrientationAndRail) {
    VideoPlayerView::State s;
    s.isPad = true;
    auto pad = VideoPlayerView::layout(s, {0, 0, 820, 1180}, 0);
    EXPECT_EQ(std::make_tuple(pad.controls.y, pad.back.x, pad.buttonSize),
              std::make_tuple(120.f, 24.f + 16, 100.f));

    s.isLandscape = true;
    s.showPlaylist = true;
    auto padRail = VideoPlayerView::layout(s, {0, 0, 1180, 820}, 1);
    // 120 - 80: moved out for the rail.
    EXPECT_EQ(std::pair(padRail.controls.y, padRail.rail.h), std::pair(40.f, 320.f));
    // The bar is pulled in by 180 on each side while the rail is up.
    EXPECT_FLOAT_EQ(padRail.timeBackground.x, padRail.controls.x + 180 + 16);

    VideoPlayerView::State phone;
    phone.showTimeDration = false;
    auto noTime = VideoPlayerView::layout(phone, {0, 0, 390, 844}, 0);
    EXPECT_TRUE(noTime.timeHidden);
    EXPECT_FLOAT_EQ(noTime.slider.x, noTime.controls.x);
    EXPECT_FLOAT_EQ(noTime.slider.right(), noTime.controls.right() - 16);
    // Portrait bottom inset 24 on a phone.
    EXPECT_FLOAT_EQ(noTime.slider.bottom(), noTime.controls.bottom() - 24);
}

}  // namespace
}  // namespace kavelin::testing
