// The player screen on headless ImGui frames with synthetic pointer input.
#include <limits>

#include "Kavelin/views/PlayerScreen.h"
#include "Kavelin/views/PlaylistBottomView.h"
#include "Kavelin/views/VideoPlayerView.h"
#include "support/HeadlessImGui.h"
#include "support/PlayerControllerFixture.h"

namespace kavelin::testing {
namespace {

using Button = VideoPlayerView::CentreButton;
using Key = VideoPlayerView::Key;
using Kind = DrawTrace::Kind;
using Control = PlayerController::Control;

class ScreenTest : public PlayerControllerTest {
  protected:
    void SetUp() override {
        PlayerControllerTest::SetUp();
        subscriptionStatus() = SubscriptionStatus::premium;
        imgui.emplace();
        resize(390, 844);
        startPlaylist("pl-1");
        vp.advance(0.5);  // presentation finished, the rail peeked in
        view = std::make_unique<VideoPlayerView>(pc, orientation, playlist, vp.queue);
    }
    void TearDown() override {
        view.reset();
        imgui.reset();
        PlayerControllerTest::TearDown();
    }

    void resize(int w, int h) {
        screen = {0, 0, float(w), float(h)};
        ImGui::GetIO().DisplaySize = {float(w), float(h)};
        orientation->updateOrientation(std::make_pair(w, h));
    }
    // The pointer stays put between frames.
    void frame() {
        imgui->frame(
            vp.queue->now(), [&](Frame& f) { view->draw(f, screen); }, mouse, down);
        vp.runUntilIdle();
    }
    void pointer(ImVec2 p, bool press) {
        mouse = p, down = press;
        frame();
    }
    void click(ImVec2 p) {
        pointer(p, true);
        pointer(p, false);
    }
    void tap(Button b) { click(centre(layout().centre[static_cast<size_t>(b)])); }
    void settle() {  // sees a change and finishes animating it
        frame();
        vp.advance(0.4);
        frame();
    }
    const VideoPlayerView::Layout& layout() {
        frame();
        return view->lastLayout();
    }
    void showRail(bool shown) {
        if (pc->showPlaylist != shown) pc->tapOnVideo();
        ASSERT_EQ(pc->showPlaylist.get(), shown);
    }
    static ImVec2 centre(const Rect& r) { return {r.midX(), r.midY()}; }
    DrawTrace& trace() { return imgui->trace; }
    // Closes sent by a tap on back (and Escape, given a second to arrive).
    size_t closesFromBack(const Rect& back, bool andEscape = false) {
        events.clear();
        click(centre(back));
        if (andEscape) {
            view->handleKey(Key::escape);
            vp.advance(1);
        }
        return events.count("OnVideoClosed");
    }

    std::optional<HeadlessImGui> imgui;
    std::shared_ptr<OrientationObserver> orientation = std::make_shared<OrientationObserver>();
    std::unique_ptr<VideoPlayerView> view;
    Rect screen;
    ImVec2 mouse{-1, -1};
    bool down = false;
};

TEST_F(ScreenTest, EachCentreButtonAndKeyCallsItsOperationButADisabledOneIsDimmedAndInert) {
    for (auto c : {Control::backwordButton, Control::forwardButton}) pc->setControlShown(c, true);
    ASSERT_TRUE(pc->disableBackButton);  // first video
    tap(Button::prev);
    EXPECT_EQ(position(), at(0, "a0"));
    const auto* prev = trace().find(Kind::image, "prev");
    ASSERT_NE(prev, nullptr);
    EXPECT_FLOAT_EQ(prev->opacity, 0.5f);
    // A dimmed button still takes the tap: the video under it is not toggled.
    EXPECT_TRUE(pc->showPlaylist);

    ASSERT_TRUE(pc->isPlaying);
    for (int i = 0; i < 4; ++i) {  // tap, space, space, tap: each pauses and plays
        i == 1 || i == 2 ? view->handleKey(Key::space) : tap(Button::playPause);
        EXPECT_EQ(pc->isPlaying.get(), i % 2 == 1) << i;
    }

    vp.advance(5);
    ASSERT_FALSE(pc->showControls);  // faded after 5 s of playback
    pc->toggleControls();
    auto seeksBy = [&](double delta, const std::function<void()>& act) {
        const double before = simPlayer()->currentTime();
        act();
        vp.advance(0.2);
        EXPECT_NEAR(simPlayer()->currentTime(), before + delta + 0.2, 0.15);
    };
    seeksBy(10, [&] { tap(Button::for10); });
    seeksBy(-10, [&] { tap(Button::back10); });
    tap(Button::next);
    EXPECT_EQ(position(), at(1, "a1"));
    tap(Button::prev);
    EXPECT_EQ(position(), at(0, "a0"));
    vp.advance(12);
    seeksBy(-10, [&] { view->handleKey(Key::left); });
    events.clear();
    view->handleKey(Key::escape);
    EXPECT_EQ(events.take(), (Events{{"OnVideoClosed", "back"}}));
}

TEST_F(ScreenTest, HostFlagsHideButtonsWithoutLeavingGapsAndHiddenOnesStopReacting) {
    pc->setControlShown(Control::back10Button, false);
    const auto l = layout();
    EXPECT_TRUE(l.centreHidden[1] && l.centreHidden[0]);  // previous is hidden by default
    // play/pause and forward 10 close up, and the pair is centred.
    Rect play = l.centre[2], forward = l.centre[3];
    EXPECT_FLOAT_EQ(forward.x - play.right(), VideoPlayerView::UI::controlSpacing);
    EXPECT_FLOAT_EQ((play.x + forward.right()) / 2, l.videoArea.midX());
    // Where play/pause is drawn is where it reacts.
    click(centre(play));
    EXPECT_FALSE(pc->isPlaying);
    EXPECT_EQ(trace().count(Kind::image, "backword_10"), 0u);

    for (auto c : {Control::playPauseButton, Control::for10Button}) pc->setControlShown(c, false);
    for (bool hidden : layout().centreHidden) EXPECT_TRUE(hidden);
    // The bars stay at their edges with an empty row.
    EXPECT_EQ(std::tie(view->lastLayout().back, view->lastLayout().slider),
              std::tie(l.back, l.slider));
    // A hidden back button stops reacting, to Escape too, and reacts again once shown.
    for (auto c : {Control::backButton, Control::logo}) pc->setControlShown(c, false);
    frame();
    EXPECT_EQ(trace().count(Kind::image, "backbutton") + trace().count(Kind::image, "zelkinLogo"),
              0u);
    EXPECT_EQ(closesFromBack(l.back, true), 0u);
    EXPECT_TRUE(pc->hostingController());

    pc->setControlShown(Control::backButton, true);
    frame();
    EXPECT_EQ(trace().count(Kind::image, "backbutton"), 1u);
    EXPECT_EQ(closesFromBack(l.back), 1u);
}

TEST_F(ScreenTest, NoControlReactsWhileLoading) {
    pc->showLoadingUI(true);
    const auto l = layout();
    const size_t seeks = simPlayer()->seeks.size();
    click(centre(l.centre[2]));
    view->handleKey(Key::space);
    EXPECT_EQ(closesFromBack(l.back, true), 0u);
    EXPECT_TRUE(pc->isPlaying);
    // The thumb sits near the start: pressing and dragging it does not scrub.
    pointer({l.slider.x + 15, l.slider.midY()}, true);
    for (bool press : {true, false}) {
        pointer({l.slider.x + 80, l.slider.midY()}, press);
        EXPECT_FALSE(pc->isScrubbing);
    }
    EXPECT_EQ(simPlayer()->seeks.size(), seeks);

    pc->showLoadingUI(false);
    EXPECT_EQ(closesFromBack(l.back), 1u);
}

TEST_F(ScreenTest, TapOnVideoTogglesRailAndDismissesCountdownOnlyAtTheEnd) {
    showRail(false);
    if (pc->showControls) pc->toggleControls();
    auto tapVideo = [&](bool railAfter, bool dismissedAfter) {
        settle();  // the rail has slid and the video area follows it
        const auto& l = layout();
        click({l.videoArea.midX(), (l.back.bottom() + l.centre[2].y) / 2});  // no control there
        EXPECT_EQ(pc->showPlaylist.get(), railAfter);
        EXPECT_EQ(pc->isCountdownRailDismissed(), dismissedAfter);
    };
    tapVideo(true, false);
    EXPECT_TRUE(pc->showControls);
    tapVideo(false, false);
    // Three seconds before the end the rail is the countdown rail.
    vp.advance(kClip - 3 - vp.queue->now());
    showRail(true);
    tapVideo(false, true);
    tapVideo(true, false);  // showing it again clears the mark
}

TEST_F(ScreenTest, SliderDragPausesThenSeeksAndResumesOnlyIfItWasPlaying) {
    vp.advance(3);
    Rect slider = layout().slider;
    float thumb = SwiftUISlider::UI::thumbPortrait;
    auto thumbCentre = [&] {
        double t = pc->currentTime.get() / pc->duration.get();
        return ImVec2{slider.x + thumb / 2 + static_cast<float>(t) * (slider.w - thumb),
                      slider.midY()};
    };
    ImVec2 start = thumbCentre();
    const double before = pc->currentTime.get();
    pointer(start, true);
    EXPECT_TRUE(pc->isScrubbing && !pc->hideControlsWorkItem.get());
    EXPECT_EQ(simPlayer()->timeControlStatus(), TimeControlStatus::paused);
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
    tap(Button::playPause);
    ASSERT_FALSE(pc->isPlaying);
    start = thumbCentre();
    pointer(start, true);
    pointer({start.x - dx, start.y}, true);
    pointer({start.x - dx, start.y}, false);
    vp.advance(0.5);
    EXPECT_FALSE(pc->isPlaying || simPlayer()->wantsToPlay());
}

TEST_F(ScreenTest, CardsDrawTheirStateAndBadgeAndTapsSelectVideos) {
    resize(844, 390);  // all three cards fit side by side
    playlist->videoCompleted("a2", 12);
    playlist->triggerCountdownIfNeeded("a0", 5);
    showRail(true);
    settle();
    ASSERT_NE(view->rail(), nullptr);
    EXPECT_TRUE(trace().hasText("Playing in 5s") && trace().hasText("Watched"));
    EXPECT_EQ(trace().count(Kind::image, "checkmark.circle.fill"), 1u);
    EXPECT_EQ(trace().count(Kind::image, "ad"), 0u);  // premium
    // The countdown text follows the controller.
    playlist->triggerCountdownIfNeeded("a0", 3);
    frame();
    EXPECT_TRUE(trace().hasText("Playing in 3s") && !trace().hasText("Playing in 5s"));
    // Free viewers see a badge on every video card.
    subscriptionStatus() = SubscriptionStatus::free;
    frame();
    EXPECT_EQ(trace().count(Kind::image, "ad"), 3u);
    EXPECT_FLOAT_EQ(trace().find(Kind::image, "ad")->rect.w, 52);
    subscriptionStatus() = SubscriptionStatus::premium;
    // A tap on the second card plays that video.
    const auto& l = layout();
    float x = l.rail.x + view->rail()->cardOffset(1) - view->rail()->scrollOffset(vp.queue->now());
    click({x + 40, l.rail.y + 60});
    EXPECT_EQ(playingURL(), urlOf("a1"));
}

TEST_F(ScreenTest, PhoneRotationResizesCardsRailAndCentreButtons) {
    showRail(true);
    settle();
    auto sizes = [&] {
        const auto& l = view->lastLayout();
        return std::make_tuple(l.rail.h, l.buttonSize, l.timeBackground.h);
    };
    EXPECT_EQ(sizes(), std::make_tuple(208.f, 50.f, 50.f));

    resize(844, 390);
    frame();
    // The rotation morphs from what was on screen over 0.35 s.
    EXPECT_FLOAT_EQ(view->lastLayout().rail.h, 208);
    vp.advance(0.175);
    frame();
    EXPECT_TRUE(view->lastLayout().rail.h > 176 && view->lastLayout().rail.h < 208);
    EXPECT_TRUE(view->isAnimating(vp.queue->now()));
    settle();
    EXPECT_FALSE(view->isAnimating(vp.queue->now()));
    EXPECT_EQ(sizes(), std::make_tuple(176.f, 50.f, 30.f));  // small buttons beside the rail

    showRail(false);
    settle();
    EXPECT_EQ(std::make_tuple(std::get<1>(sizes()), std::get<2>(sizes()),
                              view->lastLayout().timeFontSize),
              std::make_tuple(100.f, 50.f, 16.f));
    EXPECT_EQ(view->rail(), nullptr);  // dropped once it slid away
}

TEST_F(ScreenTest, ReturningToTheForegroundResumesOnlyWhenPlaybackWasWanted) {
    // Paused by the system behind the controller's back: resumed. The viewer's own pause is kept.
    for (bool viewerPaused : {false, true}) {
        viewerPaused ? pc->pause() : (pc->play(), simPlayer()->pause());
        view->applicationDidBecomeActive();
        vp.runUntilIdle();
        EXPECT_EQ(pc->isPlaying.get(), !viewerPaused);
        EXPECT_EQ(simPlayer()->timeControlStatus(),
                  viewerPaused ? TimeControlStatus::paused : TimeControlStatus::playing);
    }
}

TEST_F(ScreenTest, FailedPlaybackShowsTheMessageInsteadOfTheSpinnerAndBackReacts) {
    frame();
    EXPECT_FALSE(trace().hasText(VideoPlayerView::UI::failedTitle));
    simPlayer()->fail("404");
    vp.runUntilIdle();
    frame();
    EXPECT_TRUE(trace().hasText(VideoPlayerView::UI::failedTitle) &&
                trace().hasText(VideoPlayerView::UI::failedHint));
    EXPECT_EQ(closesFromBack(layout().back), 1u);
}

TEST(ScreenDecisions, CountdownPhaseTimeLabelAndSizesPerDeviceAndOrientation) {
    EXPECT_FALSE(PlayerController::isCountdownPhase(3, std::numeric_limits<double>::quiet_NaN()));
    EXPECT_TRUE(PlayerController::isCountdownPhase(25, 30));
    EXPECT_FALSE(PlayerController::isCountdownPhase(24.9, 30));
    EXPECT_EQ(VideoPlayerView::timeLabel(65, 750), "01:05/12:30");
    // Sizes the layout tests do not reach already.
    using UI = PlaylistBottomView::UI;
    using V = VideoPlayerView;
    EXPECT_EQ(std::make_tuple(UI::cardHeight(false, false), UI::cardWidth(false, true),
                              UI::cardHeight(false, true), UI::spacing(true, false),
                              UI::cardWidth(true, true)),
              std::make_tuple(130.f, 160.f, 110.f, 30.f, 260.f));
    EXPECT_EQ(std::make_tuple(V::centreButtonSize(false, false, false),
                              V::centreButtonSize(true, false, true),
                              V::controlsExtraVerticalPadding(false, true, true),
                              V::timeBackgroundHeight(true, true, true)),
              std::make_tuple(50.f, 100.f, 0.f, 50.f));
}

// The screen as the window sees it: what the window calls reaches the views and
// controllers, and what the window lends lasts exactly while it is open.

class PlayerScreenTest : public PlayerControllerTest {
  protected:
    void SetUp() override {
        PlayerControllerTest::SetUp();
        subscriptionStatus() = SubscriptionStatus::premium;
        startPlaylist("pl-1");
        vp.advance(0.5);
        screen = views->makeScreen(pc, playlist, [this] { ++invalidations; });
    }
    void TearDown() override {
        screen.reset();
        PlayerControllerTest::TearDown();
    }

    HeadlessImGui imgui{{390, 844}};
    std::shared_ptr<ScreenViews> views = makePlayerScreenViews(vp.queue);
    std::shared_ptr<HostingController> screen;
    int invalidations = 0;
};

TEST_F(PlayerScreenTest, WindowCallsReachTheViewsAndControllers) {
    screen->sizeChanged(844, 390);
    EXPECT_GT(invalidations, 0) << "a new orientation asks the window for a frame";

    int vertices = 0;
    imgui.frame(vp.queue->now(), [&](Frame&) {
        screen->drawFrame(vp.queue->now(), 844, 390);
        vertices = ImGui::GetBackgroundDrawList()->VtxBuffer.Size;
    });
    EXPECT_GT(vertices, 0) << "the screen draws into the frame the window set up";

    ASSERT_TRUE(pc->isPlaying);
    screen->handleKey(HostingController::Key::space);
    EXPECT_FALSE(pc->isPlaying);
    events.clear();
    screen->closeRequested();
    EXPECT_EQ(events.take(), (Events{{"OnVideoClosed", "back"}}));
}

TEST_F(PlayerScreenTest, TexturesAndRedrawsGoThroughTheOpenWindowOnly) {
    std::vector<std::pair<int, int>> uploaded;
    std::vector<TextureHandle> released;
    int redraws = 0;
    views->windowOpened(WindowResources{[&](int w, int h, const uint8_t*) {
                                            uploaded.emplace_back(w, h);
                                            return TextureHandle{42};
                                        },
                                        [&](TextureHandle t) { released.push_back(t); },
                                        [&] { ++redraws; }});
    auto image = std::make_shared<const Image>(Image{2, 3, std::vector<uint8_t>(24, 255)});
    EXPECT_EQ(reinterpret_cast<TextureHandle>(Textures::get(image)), TextureHandle{42});
    EXPECT_EQ(reinterpret_cast<TextureHandle>(Textures::get(image)), TextureHandle{42});
    Display::setNeedsDisplay();
    EXPECT_EQ(uploaded, (std::vector<std::pair<int, int>>{{2, 3}})) << "uploaded once";
    EXPECT_EQ(redraws, 1);
    views->windowClosing();
    EXPECT_EQ(released, std::vector<TextureHandle>{42});
    Display::setNeedsDisplay();
    EXPECT_EQ(redraws, 1);
    EXPECT_EQ(Textures::get(image), nullptr) << "nothing uploads without a window";
}

}  // namespace
}  // namespace kavelin::testing
