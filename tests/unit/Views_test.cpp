// The player screen driven headlessly: ImGui frames without a backend, synthetic
// pointer input, the real controllers on virtual time.
#include <imgui.h>

#include <cmath>
#include <limits>

#include "Kavelin/views/PlaylistBottomView.h"
#include "Kavelin/views/VideoPlayerView.h"
#include "support/PlayerControllerFixture.h"

namespace kavelin::testing {
namespace {

using Button = VideoPlayerView::CentreButton;

class ScreenTest : public PlayerControllerTest {
  protected:
    void SetUp() override {
        PlayerControllerTest::SetUp();
        subscriptionStatus() = SubscriptionStatus::premium;
        context = ImGui::CreateContext();
        ImGuiIO& io = ImGui::GetIO();
        io.IniFilename = nullptr;
        Font::install(io);
        io.Fonts->Build();
        resize(390, 844);
        startPlaylist("pl-1");
        vp.advance(0.5);  // presentation finished, the rail peeked in
        view = std::make_unique<VideoPlayerView>(pc, orientation, playlist);
    }

    void TearDown() override {
        view.reset();
        ImGui::DestroyContext(context);
        PlayerControllerTest::TearDown();
    }

    void resize(float w, float h) {
        screen = {0, 0, w, h};
        ImGui::GetIO().DisplaySize = {w, h};
        orientation->updateOrientation(std::make_pair(static_cast<int>(w), static_cast<int>(h)));
    }

    // One frame of the screen at the present virtual time.
    void frame() {
        ImGuiIO& io = ImGui::GetIO();
        io.DeltaTime = 1.0f / 60;
        ImGui::NewFrame();
        trace.items.clear();
        Frame f(ImGui::GetBackgroundDrawList(), vp.queue->now(), &trace);
        view->draw(f, screen);
        ImGui::Render();
        vp.runUntilIdle();
    }

    void pointer(ImVec2 p, bool down) {
        ImGuiIO& io = ImGui::GetIO();
        io.MousePos = p;
        io.MouseDown[0] = down;
        frame();
    }

    void click(ImVec2 p) {
        pointer(p, true);
        pointer(p, false);
    }

    // Lets the screen see a change and finish animating it.
    void settle() {
        frame();
        vp.advance(0.4);
        frame();
    }

    static ImVec2 centre(const Rect& r) { return {r.midX(), r.midY()}; }
    Rect button(Button b) {
        frame();
        return view->lastLayout().centre[static_cast<size_t>(b)];
    }
    // A point on the video that no control covers.
    ImVec2 emptyVideoSpot() {
        frame();
        const auto& l = view->lastLayout();
        return {l.videoArea.midX(), (l.back.bottom() + l.centre[2].y) / 2};
    }

    ImGuiContext* context = nullptr;
    std::shared_ptr<OrientationObserver> orientation = std::make_shared<OrientationObserver>();
    std::unique_ptr<VideoPlayerView> view;
    Rect screen;
    DrawTrace trace;
};

TEST_F(ScreenTest, EachCentreButtonCallsItsOperation) {
    pc->showBackwordButton = true;
    pc->showForwardButton = true;
    ASSERT_TRUE(pc->isPlaying);

    click(centre(button(Button::playPause)));
    EXPECT_FALSE(pc->isPlaying);
    click(centre(button(Button::playPause)));
    EXPECT_TRUE(pc->isPlaying);

    vp.advance(5);
    EXPECT_FALSE(pc->showControls);  // faded after 5 s of playback
    pc->showControls = true;
    double before = simPlayer()->currentTime();
    click(centre(button(Button::for10)));
    vp.advance(0.2);
    EXPECT_NEAR(simPlayer()->currentTime(), before + 10.2, 0.15);
    click(centre(button(Button::back10)));
    vp.advance(0.2);
    EXPECT_NEAR(simPlayer()->currentTime(), before + 0.4, 0.15);

    click(centre(button(Button::next)));
    EXPECT_EQ(pc->currentIndex.get(), 1);
    EXPECT_EQ(playingURL(), urlOf("a1"));
    click(centre(button(Button::prev)));
    EXPECT_EQ(pc->currentIndex.get(), 0);
    EXPECT_EQ(playingURL(), urlOf("a0"));
}

TEST_F(ScreenTest, DisabledPreviousIsDimmedAndInert) {
    pc->showBackwordButton = true;
    ASSERT_TRUE(pc->disableBackButton);  // first video
    click(centre(button(Button::prev)));
    EXPECT_EQ(pc->currentIndex.get(), 0);
    EXPECT_EQ(playingURL(), urlOf("a0"));
    frame();
    const auto* prev = trace.find(DrawTrace::Kind::image, "prev");
    ASSERT_NE(prev, nullptr);
    EXPECT_FLOAT_EQ(prev->opacity, 0.5f);
    // A dimmed button still takes the tap: the video under it is not toggled.
    EXPECT_TRUE(pc->showPlaylist);
}

TEST_F(ScreenTest, HiddenButtonsLeaveNoGap) {
    pc->showBack10Button = false;
    frame();
    const auto& l = view->lastLayout();
    EXPECT_TRUE(l.centreHidden[1]);
    EXPECT_TRUE(l.centreHidden[0]);  // previous is hidden by default
    // play/pause and forward 10 close up, and the pair is centred.
    Rect play = l.centre[2], forward = l.centre[3];
    EXPECT_FLOAT_EQ(forward.x - play.right(), VideoPlayerView::UI::controlSpacing);
    EXPECT_FLOAT_EQ((play.x + forward.right()) / 2, l.videoArea.midX());

    // Where play/pause is drawn is where it reacts.
    click(centre(play));
    EXPECT_FALSE(pc->isPlaying);
    EXPECT_EQ(trace.count(DrawTrace::Kind::image, "backword_10"), 0u);

    pc->showPlayPauseButton = false;
    pc->showFor10Button = false;
    frame();
    for (bool hidden : view->lastLayout().centreHidden) EXPECT_TRUE(hidden);
    // The bars stay at their edges with an empty row.
    EXPECT_EQ(view->lastLayout().back, l.back);
    EXPECT_EQ(view->lastLayout().slider, l.slider);
}

TEST_F(ScreenTest, HostFlagsHideTheBackButtonAndLogoWhichThenStopReacting) {
    frame();
    const Rect back = view->lastLayout().back;
    pc->showBackButton = false;
    pc->showLogo = false;
    frame();
    EXPECT_EQ(trace.count(DrawTrace::Kind::image, "backbutton"), 0u);
    EXPECT_EQ(trace.count(DrawTrace::Kind::image, "zelkinLogo"), 0u);
    events.clear();
    click(centre(back));
    view->handleKey(VideoPlayerView::Key::escape);
    vp.advance(1);
    EXPECT_EQ(events.count("OnVideoClosed"), 0u);
    EXPECT_TRUE(pc->hostingController);

    pc->showBackButton = true;
    frame();
    EXPECT_EQ(trace.count(DrawTrace::Kind::image, "backbutton"), 1u);
    click(centre(back));
    EXPECT_EQ(events.count("OnVideoClosed"), 1u);
}

TEST_F(ScreenTest, NoControlReactsWhileLoading) {
    pc->showLoading = true;
    frame();
    const auto l = view->lastLayout();
    const size_t seeks = simPlayer()->seeks.size();
    events.clear();
    click(centre(l.back));
    click(centre(l.centre[2]));
    view->handleKey(VideoPlayerView::Key::escape);
    view->handleKey(VideoPlayerView::Key::space);
    vp.advance(1);
    EXPECT_EQ(events.count("OnVideoClosed"), 0u);
    EXPECT_TRUE(pc->isPlaying);

    // The thumb sits near the start: pressing and dragging it does not scrub.
    pointer({l.slider.x + 15, l.slider.midY()}, true);
    pointer({l.slider.x + 80, l.slider.midY()}, true);
    EXPECT_FALSE(pc->isScrubbing);
    pointer({l.slider.x + 80, l.slider.midY()}, false);
    EXPECT_EQ(simPlayer()->seeks.size(), seeks);

    // Once loaded, the same back tap closes the player.
    pc->showLoading = false;
    click(centre(l.back));
    EXPECT_EQ(events.count("OnVideoClosed"), 1u);
}

TEST_F(ScreenTest, TapOnVideoTogglesRailAndDismissesCountdownOnlyAtTheEnd) {
    pc->showPlaylist = false;
    pc->showControls = false;
    click(emptyVideoSpot());
    EXPECT_TRUE(pc->showControls);
    EXPECT_TRUE(pc->showPlaylist);
    EXPECT_FALSE(pc->dismissedCountdownRail);

    settle();  // the rail has slid in and the video area shrunk
    click(emptyVideoSpot());
    EXPECT_FALSE(pc->showPlaylist);
    EXPECT_FALSE(pc->dismissedCountdownRail);

    // Three seconds before the end the rail is the countdown rail.
    vp.advance(kClip - 3 - vp.queue->now() + 0.0);
    pc->showPlaylist = true;
    settle();
    click(emptyVideoSpot());
    EXPECT_FALSE(pc->showPlaylist);
    EXPECT_TRUE(pc->dismissedCountdownRail);

    // Showing it again clears the mark.
    settle();
    click(emptyVideoSpot());
    EXPECT_TRUE(pc->showPlaylist);
    EXPECT_FALSE(pc->dismissedCountdownRail);
}

TEST(ScreenDecisions, CountdownPhaseNeedsAKnownDurationAndIncludesFiveSeconds) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_FALSE(VideoPlayerView::isCountdownPhase(3, nan));
    EXPECT_TRUE(VideoPlayerView::isCountdownPhase(25, 30));
    EXPECT_FALSE(VideoPlayerView::isCountdownPhase(24.9, 30));
    EXPECT_EQ(VideoPlayerView::timeLabel(65, 750), "01:05/12:30");
}

TEST_F(ScreenTest, SliderDragPausesThenSeeksAndResumesOnlyIfItWasPlaying) {
    vp.advance(3);
    frame();
    Rect slider = view->lastLayout().slider;
    float thumb = SwiftUISlider::UI::thumbPortrait;
    auto thumbCentre = [&] {
        double t = pc->currentTime.get() / pc->duration.get();
        return ImVec2{slider.x + thumb / 2 + static_cast<float>(t) * (slider.w - thumb),
                      slider.midY()};
    };
    ImVec2 start = thumbCentre();
    const double before = pc->currentTime.get();
    pointer(start, true);
    EXPECT_TRUE(pc->isScrubbing);
    EXPECT_TRUE(pc->wasPlayingBeforeScrub);
    EXPECT_EQ(simPlayer()->timeControlStatus(), TimeControlStatus::paused);
    EXPECT_EQ(pc->hideControlsWorkItem.get(), nullptr);

    // A third of the track later is a third of the clip later.
    float dx = (slider.w - thumb) / 3;
    pointer({start.x + dx, start.y}, true);
    double expected = before + kClip / 3;  // within one clock tick
    EXPECT_NEAR(pc->currentTime.get(), expected, 0.15);
    vp.advance(1);  // the clock does not move the value while scrubbing
    EXPECT_NEAR(pc->currentTime.get(), expected, 0.15);

    pointer({start.x + dx, start.y}, false);
    EXPECT_FALSE(pc->isScrubbing);
    ASSERT_FALSE(simPlayer()->seeks.empty());
    EXPECT_NEAR(simPlayer()->seeks.back().target, expected, 0.15);
    EXPECT_TRUE(simPlayer()->wantsToPlay());

    // Paused before the drag: paused after it.
    click(centre(button(Button::playPause)));
    ASSERT_FALSE(pc->isPlaying);
    start = thumbCentre();
    pointer(start, true);
    pointer({start.x - dx, start.y}, true);
    pointer({start.x - dx, start.y}, false);
    vp.advance(0.5);
    EXPECT_FALSE(pc->isPlaying);
    EXPECT_FALSE(simPlayer()->wantsToPlay());
}

TEST_F(ScreenTest, CardsDrawTheirStateAndTapsSelectVideos) {
    resize(844, 390);  // all three cards fit side by side
    playlist->videoCompleted("a2", 12);
    playlist->triggerCountdownIfNeeded("a0", 5);
    pc->showPlaylist = true;
    settle();
    ASSERT_NE(view->rail(), nullptr);
    EXPECT_TRUE(trace.hasText("Playing in 5s"));
    EXPECT_TRUE(trace.hasText("Watched"));
    EXPECT_EQ(trace.count(DrawTrace::Kind::image, "checkmark.circle.fill"), 1u);
    EXPECT_EQ(trace.count(DrawTrace::Kind::image, "ad"), 0u);  // premium

    // The countdown text follows the controller.
    playlist->triggerCountdownIfNeeded("a0", 3);
    frame();
    EXPECT_TRUE(trace.hasText("Playing in 3s"));
    EXPECT_FALSE(trace.hasText("Playing in 5s"));

    // A tap on the second card plays that video.
    const auto& l = view->lastLayout();
    float x = l.rail.x + view->rail()->cardOffset(1) - view->rail()->scrollOffset(vp.queue->now());
    click({x + 40, l.rail.y + 60});
    EXPECT_EQ(playingURL(), urlOf("a1"));
}

TEST_F(ScreenTest, AdBadgeOnlyForFreeViewers) {
    subscriptionStatus() = SubscriptionStatus::free;
    pc->showPlaylist = true;
    settle();
    size_t videoCards = 0;
    for (const auto& item : trace.items)
        if (item.kind == DrawTrace::Kind::text && item.name.starts_with("Title ")) ++videoCards;
    ASSERT_GT(videoCards, 0u);
    EXPECT_EQ(trace.count(DrawTrace::Kind::image, "ad"), videoCards);
    const auto* badge = trace.find(DrawTrace::Kind::image, "ad");
    EXPECT_FLOAT_EQ(badge->rect.w, 52);

    subscriptionStatus() = SubscriptionStatus::premium;
    frame();
    EXPECT_EQ(trace.count(DrawTrace::Kind::image, "ad"), 0u);
}

TEST_F(ScreenTest, PhoneRotationResizesCardsRailAndCentreButtons) {
    pc->showPlaylist = true;
    settle();
    EXPECT_FLOAT_EQ(view->lastLayout().rail.h, 208);
    EXPECT_FLOAT_EQ(view->lastLayout().buttonSize, 50);

    resize(844, 390);
    frame();
    // The rotation morphs from what was on screen over 0.35 s.
    EXPECT_FLOAT_EQ(view->lastLayout().rail.h, 208);
    vp.advance(0.175);
    frame();
    EXPECT_GT(view->lastLayout().rail.h, 176);
    EXPECT_LT(view->lastLayout().rail.h, 208);
    EXPECT_TRUE(view->isAnimating(vp.queue->now()));
    settle();
    EXPECT_FALSE(view->isAnimating(vp.queue->now()));
    EXPECT_FLOAT_EQ(view->lastLayout().rail.h, 176);
    EXPECT_FLOAT_EQ(view->lastLayout().buttonSize, 50);  // rail shown
    EXPECT_FLOAT_EQ(view->lastLayout().timeBackground.h, 30);

    pc->showPlaylist = false;
    settle();
    EXPECT_FLOAT_EQ(view->lastLayout().buttonSize, 100);
    EXPECT_FLOAT_EQ(view->lastLayout().timeBackground.h, 50);
    EXPECT_FLOAT_EQ(view->lastLayout().timeFontSize, 16);
    EXPECT_EQ(view->rail(), nullptr);  // dropped once it slid away
}

TEST(ScreenDecisions, SizesPerDeviceAndOrientation) {
    using UI = PlaylistBottomView::UI;
    EXPECT_EQ(UI::cardWidth(false, false), 180);
    EXPECT_EQ(UI::cardHeight(false, false), 130);
    EXPECT_EQ(UI::cardWidth(false, true), 160);
    EXPECT_EQ(UI::cardHeight(false, true), 110);
    EXPECT_EQ(UI::spacing(true, false), 30);
    EXPECT_EQ(UI::cardWidth(true, true), 260);
    EXPECT_FLOAT_EQ(UI::maxHeight(false, false), 208);
    EXPECT_FLOAT_EQ(UI::maxHeight(false, true), 176);

    EXPECT_EQ(VideoPlayerView::centreButtonSize(false, false, false), 50);
    EXPECT_EQ(VideoPlayerView::centreButtonSize(false, true, false), 100);
    EXPECT_EQ(VideoPlayerView::centreButtonSize(false, true, true), 50);
    EXPECT_EQ(VideoPlayerView::centreButtonSize(true, false, true), 100);
    EXPECT_EQ(VideoPlayerView::controlsVerticalPadding(true), 120);
    EXPECT_EQ(VideoPlayerView::controlsExtraVerticalPadding(true, true, true), -80);
    EXPECT_EQ(VideoPlayerView::controlsExtraVerticalPadding(false, true, true), 0);
    EXPECT_EQ(VideoPlayerView::timeBackgroundHeight(true, true, true), 50);
}

TEST_F(ScreenTest, KeysCallTheSameOperations) {
    view->handleKey(VideoPlayerView::Key::space);
    EXPECT_FALSE(pc->isPlaying);
    view->handleKey(VideoPlayerView::Key::space);
    EXPECT_TRUE(pc->isPlaying);
    vp.advance(12);
    double before = simPlayer()->currentTime();
    view->handleKey(VideoPlayerView::Key::left);
    vp.advance(0.2);
    EXPECT_NEAR(simPlayer()->currentTime(), before - 9.8, 0.15);
    events.clear();
    view->handleKey(VideoPlayerView::Key::escape);
    EXPECT_EQ(events.take(), (Events{{"OnVideoClosed", "back"}}));
}

TEST_F(ScreenTest, ReturningToTheForegroundResumesOnlyWhenPlaybackWasWanted) {
    pc->pause();
    pc->shouldBePlayingAfterResume = false;
    view->applicationDidBecomeActive();
    EXPECT_FALSE(pc->isPlaying);
    pc->shouldBePlayingAfterResume = true;
    view->applicationDidBecomeActive();
    vp.runUntilIdle();
    EXPECT_TRUE(pc->isPlaying);
}

}  // namespace
}  // namespace kavelin::testing
