#include "Kavelin/views/VideoPlayerView.h"

#include <algorithm>
#include <cmath>
#include <tuple>

#include "Kavelin/Extentions/Color+Ext.h"

namespace kavelin {

VideoPlayerView::State VideoPlayerView::State::read(const PlayerController& p, bool isPad,
                                                    bool isLandscape) {
    State s;
    s.isPad = isPad;
    s.isLandscape = isLandscape;
    s.showPlaylist = p.showPlaylist;
    s.showControls = p.showControls;
    s.showLoading = p.showLoading;
    s.isPlaying = p.isPlaying;
    s.currentTime = p.currentTime;
    s.duration = p.duration;
    s.showBackwordButton = p.showBackwordButton;
    s.showBack10Button = p.showBack10Button;
    s.showPlayPauseButton = p.showPlayPauseButton;
    s.showFor10Button = p.showFor10Button;
    s.showForwardButton = p.showForwardButton;
    s.disableBackButton = p.disableBackButton;
    s.disbleForwardButton = p.disbleForwardButton;
    s.showTimeDration = p.showTimeDration;
    s.showSeekbar = p.showSeekbar;
    s.showBackButton = p.showBackButton;
    s.showLogo = p.showLogo;
    s.playbackFailed = p.playbackFailed;
    return s;
}

float VideoPlayerView::centreButtonSize(bool isPad, bool isLandscape, bool showPlaylist) {
    if (isPad) return UI::largeButtonSize;
    if (!isLandscape) return UI::phoneButtonSize;
    return showPlaylist ? UI::phoneButtonSize : UI::largeButtonSize;
}

float VideoPlayerView::timeFontSize(bool isLandscape, bool showPlaylist) {
    return isLandscape && !showPlaylist ? UI::landscapeFontSize : UI::portraitFontSize;
}

float VideoPlayerView::timeBackgroundHeight(bool isPad, bool isLandscape, bool showPlaylist) {
    return isLandscape && showPlaylist && !isPad ? UI::compactTimeBackgroundHeight
                                                 : UI::progressBackgroundHeight;
}

float VideoPlayerView::controlsVerticalPadding(bool isPad) {
    return isPad ? UI::padVerticalPadding : UI::phoneVerticalPadding;
}

float VideoPlayerView::controlsExtraVerticalPadding(bool isPad, bool isLandscape,
                                                    bool showPlaylist) {
    return isLandscape && showPlaylist && isPad ? UI::padLandscapeRailControlsShift : 0;
}

bool VideoPlayerView::isHidden(CentreButton b, const State& s) {
    switch (b) {
        case CentreButton::prev:
            return !s.showBackwordButton;
        case CentreButton::back10:
            return !s.showBack10Button;
        case CentreButton::playPause:
            return !s.showPlayPauseButton;
        case CentreButton::for10:
            return !s.showFor10Button;
        case CentreButton::next:
            return !s.showForwardButton;
    }
    return true;
}

bool VideoPlayerView::isEnabled(CentreButton b, const State& s) {
    if (b == CentreButton::prev) return !s.disableBackButton;
    if (b == CentreButton::next) return !s.disbleForwardButton;
    return true;
}

float VideoPlayerView::opacity(CentreButton b, const State& s) {
    return isEnabled(b, s) ? 1.0f : 0.5f;
}

std::string VideoPlayerView::assetName(CentreButton b, const State& s) {
    switch (b) {
        case CentreButton::prev:
            return "prev";
        case CentreButton::back10:
            return "backword_10";
        case CentreButton::playPause:
            return s.isPlaying ? "Pause" : "Play";
        case CentreButton::for10:
            return "forward_10";
        case CentreButton::next:
            return "prev";  // the same artwork, turned around
    }
    return {};
}

std::string VideoPlayerView::timeLabel(double currentTime, double duration) {
    return PlayerController::formatTime(currentTime) + "/" + PlayerController::formatTime(duration);
}

VideoPlayerView::Layout VideoPlayerView::layout(const State& s, const Rect& screen,
                                                float railShown) {
    Layout l;
    l.screen = screen;
    float railHeight =
        std::min(PlaylistBottomView::UI::maxHeight(s.isPad, s.isLandscape), screen.h / 2) *
        railShown;
    l.videoArea = {screen.x, screen.y, screen.w, screen.h - railHeight};
    l.rail = {screen.x, l.videoArea.bottom(), screen.w, railHeight};

    float vertical = controlsVerticalPadding(s.isPad) +
                     controlsExtraVerticalPadding(s.isPad, s.isLandscape, s.showPlaylist);
    l.controls =
        l.videoArea.inset(vertical, UI::horizontalPadding, vertical, UI::horizontalPadding);

    // Top bar: back button at the leading edge, logo at the trailing edge.
    const float pad = UI::defaultPadding;
    l.back = {l.controls.x + pad, l.controls.y + pad, UI::backButtonSize, UI::backButtonSize};
    l.logo = {l.controls.right() - pad - UI::logoWidth, l.controls.y + pad, UI::logoWidth,
              UI::logoHeight};
    float topBarBottom = l.controls.y + std::max(UI::backButtonSize, UI::logoHeight) + 2 * pad;

    // Bottom bar: time label and slider, pulled in and up by its own paddings.
    // Hidden top-bar items keep their place: the bar's other item stays at its edge.
    l.backHidden = !s.showBackButton;
    l.logoHidden = !s.showLogo;
    l.timeHidden = !s.showTimeDration;
    l.sliderHidden = !s.showSeekbar;
    l.timeFontSize = timeFontSize(s.isLandscape, s.showPlaylist);
    float backgroundHeight = timeBackgroundHeight(s.isPad, s.isLandscape, s.showPlaylist);
    float thumb = SwiftUISlider::UI::thumbSize(s.isLandscape);
    float barHeight =
        std::max(l.timeHidden ? 0 : backgroundHeight + 2 * pad, l.sliderHidden ? 0 : thumb);
    float bottomInset = (s.isPad ? UI::padBottomPadding : 0) +
                        (s.isLandscape ? UI::landscapeBottomAdjustment : UI::portraitBottomPadding);
    float sideInset = s.isLandscape && s.showPlaylist ? UI::landscapeRailBarInset : 0;
    Rect bar{l.controls.x + sideInset, l.controls.bottom() - bottomInset - barHeight,
             l.controls.w - 2 * sideInset, barHeight};
    float x = bar.x;
    if (!l.timeHidden) {
        l.timeBackground = {x + pad, bar.midY() - backgroundHeight / 2, UI::progressBackgroundWidth,
                            backgroundHeight};
        x += UI::progressBackgroundWidth + 2 * pad + UI::controlSpacing;
    }
    if (!l.sliderHidden) {
        float width = std::max(0.0f, bar.right() - UI::sliderTrailingPadding - x);
        l.slider = {x, bar.midY() - thumb / 2, width, thumb};
    }
    float barTop = l.timeHidden && l.sliderHidden ? l.controls.bottom() - bottomInset : bar.y;

    // Centre row between the bars; hidden buttons take no room.
    l.buttonSize = centreButtonSize(s.isPad, s.isLandscape, s.showPlaylist);
    std::vector<float> widths(centreButtonCount, l.buttonSize);
    std::vector<bool> hidden(centreButtonCount);
    for (size_t i = 0; i < centreButtonCount; ++i) {
        hidden[i] = isHidden(static_cast<CentreButton>(i), s);
        l.centreHidden[i] = hidden[i];
    }
    Rect middle{l.controls.x, topBarBottom, l.controls.w, barTop - topBarBottom};
    auto row = hstackCentred(middle, widths, hidden, l.buttonSize, UI::controlSpacing);
    for (size_t i = 0; i < centreButtonCount; ++i) l.centre[i] = row[i];
    return l;
}

VideoPlayerView::VideoPlayerView(std::shared_ptr<PlayerController> playerController,
                                 std::shared_ptr<OrientationObserver> orientationObserver,
                                 std::shared_ptr<PlaylistController> controller,
                                 std::shared_ptr<MainQueue> queue)
    : playerController_(std::move(playerController)),
      orientationObserver_(std::move(orientationObserver)),
      controller_(std::move(controller)),
      queue_(std::move(queue)),
      isPad_(deviceIsPad()) {}

VideoPlayerView::State VideoPlayerView::state() const {
    bool landscape = orientationObserver_ && orientationObserver_->isLandscape();
    return State::read(*playerController_, isPad_, landscape);
}

VideoPlayerView::Layout VideoPlayerView::blend(const Layout& from, const Layout& to, float t) {
    auto mix = [t](float a, float b) { return a + (b - a) * t; };
    auto mixRect = [&](const Rect& a, const Rect& b) {
        return Rect{mix(a.x, b.x), mix(a.y, b.y), mix(a.w, b.w), mix(a.h, b.h)};
    };
    Layout l = to;
    for (auto [out, a, b] :
         {std::tuple{&l.screen, from.screen, to.screen},
          std::tuple{&l.videoArea, from.videoArea, to.videoArea},
          std::tuple{&l.rail, from.rail, to.rail},
          std::tuple{&l.controls, from.controls, to.controls},
          std::tuple{&l.back, from.back, to.back}, std::tuple{&l.logo, from.logo, to.logo},
          std::tuple{&l.timeBackground, from.timeBackground, to.timeBackground},
          std::tuple{&l.slider, from.slider, to.slider}})
        *out = mixRect(a, b);
    for (size_t i = 0; i < centreButtonCount; ++i)
        l.centre[i] = mixRect(from.centre[i], to.centre[i]);
    l.buttonSize = mix(from.buttonSize, to.buttonSize);
    l.timeFontSize = mix(from.timeFontSize, to.timeFontSize);
    return l;
}

bool VideoPlayerView::isAnimating(double now) const {
    if (controlsOpacity_.isAnimating(now) || railShown_.isAnimating(now) ||
        playScale_.isAnimating(now) || orientationBlend_.isAnimating(now))
        return true;
    for (const auto& fade : centreFade_)
        if (fade.isAnimating(now)) return true;
    return false;
}

void VideoPlayerView::tapOnVideo() {
    playerController_->tapOnVideo();
}

void VideoPlayerView::onEditingChanged(bool editing) {
    if (editing)
        playerController_->beginScrub();
    else
        playerController_->endScrub();
}

void VideoPlayerView::applicationDidBecomeActive() {
    if (playerController_->shouldBePlayingAfterResume()) playerController_->play();
}

void VideoPlayerView::perform(CentreButton button) {
    auto& p = *playerController_;
    switch (button) {
        case CentreButton::prev:
            p.prevVideo();
            break;
        case CentreButton::back10:
            p.seekBackward(10);
            break;
        case CentreButton::playPause:
            if (p.isPlaying)
                p.pause();
            else
                p.play();
            break;
        case CentreButton::for10:
            p.seekForward(10);
            break;
        case CentreButton::next:
            p.nextVideo();
            break;
    }
}

void VideoPlayerView::handleKey(Key key) {
    State s = state();
    // Keys stand in for the buttons, so they obey the same rules.
    if (s.showLoading) return;
    auto& p = *playerController_;
    switch (key) {
        case Key::space:
            if (!isHidden(CentreButton::playPause, s)) perform(CentreButton::playPause);
            break;
        case Key::left:
            if (!isHidden(CentreButton::back10, s)) perform(CentreButton::back10);
            break;
        case Key::right:
            if (!isHidden(CentreButton::for10, s)) perform(CentreButton::for10);
            break;
        case Key::escape:
            if (s.showBackButton) p.backToHome();
            break;
    }
}

void VideoPlayerView::drawControls(Frame& frame, const State& s, const Layout& l) {
    const bool visible = s.showControls;
    const bool reacts = visible && !s.showLoading;
    Frame::Opacity layer(frame, controlsOpacity_.value(frame.now()));

    // A disabled control still sits in front of the video and takes the tap.
    auto tapped = [&](const Rect& r, bool enabled) {
        if (!visible) return false;
        return frame.tapIn(r) && reacts && enabled;
    };

    if (!l.backHidden) {
        if (tapped(l.back, true)) later([this] { playerController_->backToHome(); });
        frame.asset("backbutton", l.back);
    }
    if (!l.logoHidden) frame.asset("zelkinLogo", l.logo);

    for (size_t i = 0; i < centreButtonCount; ++i) {
        auto button = static_cast<CentreButton>(i);
        float fade = HiddenViewModifier{l.centreHidden[i]}.opacity(centreFade_[i], frame.now());
        if (l.centreHidden[i]) continue;
        if (tapped(l.centre[i], isEnabled(button, s))) later([this, button] { perform(button); });
        Rect r = l.centre[i];
        const ImVec2 raster{r.w, r.h};
        if (button == CentreButton::playPause) {
            float scale = playScale_.value(frame.now());
            float w = r.w * scale, h = r.h * scale;
            r = {r.midX() - w / 2, r.midY() - h / 2, w, h};
        }
        frame.asset(assetName(button, s), r, opacity(button, s) * fade,
                    button == CentreButton::next, raster);
    }

    if (!l.timeHidden) {
        frame.asset("gray_back", l.timeBackground);
        Font font = Font::monospacedBold(l.timeFontSize);
        std::string text = timeLabel(s.currentTime, s.duration);
        ImVec2 size = font.font->CalcTextSizeA(font.size, FLT_MAX, 0, text.c_str());
        frame.text(font,
                   {l.timeBackground.midX() - size.x / 2, l.timeBackground.midY() - size.y / 2},
                   Color::black(), text);
    }
    if (!l.sliderHidden) {
        auto* p = playerController_.get();
        SwiftUISlider::Binding binding{[p] { return p->currentTime.get(); },
                                       [p](double v) { p->scrubTo(v); }};
        auto editing = [this](bool e) { later([this, e] { onEditingChanged(e); }); };
        if (!slider_)
            slider_.emplace(binding, s.isLandscape, s.duration, editing);
        else
            slider_->updateUIView(binding, s.isLandscape, s.duration, editing);
        slider_->draw(frame, l.slider, reacts);
    }
}

void VideoPlayerView::drawFailure(Frame& frame, const Rect& area) {
    const Font title = Font::poppinsSemiBold(UI::failedTitleSize);
    const Font hint = Font::poppinsMedium(UI::failedHintSize);
    const ImVec2 t = title.font->CalcTextSizeA(title.size, FLT_MAX, 0, UI::failedTitle);
    const ImVec2 h = hint.font->CalcTextSizeA(hint.size, FLT_MAX, 0, UI::failedHint);
    const float pad = UI::failedPadding;
    const float w = std::max(t.x, h.x) + 2 * pad;
    const float height = t.y + h.y + 3 * pad;
    // Between the top bar and the centre row on small screens: above the middle.
    const Rect box{area.midX() - w / 2, area.midY() - height - pad, w, height};
    frame.fill(box, Color::black(0.7f), RoundedCorner{UI::failedCornerRadius});
    frame.text(title, {box.midX() - t.x / 2, box.y + pad}, Color::white(), UI::failedTitle);
    frame.text(hint, {box.midX() - h.x / 2, box.y + 2 * pad + t.y}, Color::white(0.8f),
               UI::failedHint);
}

void VideoPlayerView::draw(Frame& frame, const Rect& screen) {
    if (!appeared_) {
        appeared_ = true;
        playerController_->attachPlaylist(controller_);
        railShown_.jumpTo(playerController_->showPlaylist ? 1 : 0);
        controlsOpacity_.jumpTo(playerController_->showControls ? 1 : 0);
        playScale_.jumpTo(playPauseScale(playerController_->isPlaying));
        wasLandscape_ = state().isLandscape;
    }
    State s = state();
    const double now = frame.now();
    controlsOpacity_.animateTo(s.showControls ? 1 : 0, now, UI::controlsAnimationDuration);
    railShown_.animateTo(s.showPlaylist ? 1 : 0, now, UI::railAnimationDuration);
    playScale_.animateTo(playPauseScale(s.isPlaying), now, UI::playPauseAnimationDuration);

    // The rail is built when it is asked for and dropped once it has slid away.
    if (s.showPlaylist && !rail_) {
        auto* self = this;
        rail_.emplace(
            controller_,
            [self](const Video& v) {
                self->later([self, v] { self->playerController_->onVideoSelected(v); });
            },
            [self](const Playlist& pl) {
                self->later([self, pl] { self->playerController_->onPlaylistSelected(pl); });
            },
            [self] {
                self->later([self] { self->playerController_->scheduleHalfScreenAutoReturn(); });
            },
            isPad_, orientationObserver_, queue_);
    }
    float shown = railShown_.value(now);
    if (!s.showPlaylist && shown <= 0) rail_.reset();

    if (s.isLandscape != wasLandscape_) {
        wasLandscape_ = s.isLandscape;
        orientationFrom_ = layout_;
        orientationBlend_.jumpTo(0);
        orientationBlend_.animateTo(1, now, UI::orientationAnimationDuration);
    }
    layout_ = layout(s, screen, shown);
    if (orientationFrom_) {
        if (orientationBlend_.isAnimating(now))
            layout_ = blend(*orientationFrom_, layout_, orientationBlend_.value(now));
        else
            orientationFrom_.reset();
    }
    ImDrawList* list = frame.list();
    // Input runs front to back while drawing goes back to front: the video goes
    // into the bottom channel after the controls have taken their taps.
    list->ChannelsSplit(3);

    list->ChannelsSetCurrent(1);
    drawControls(frame, s, layout_);
    // The rail sits below the video area, on the black the frame starts from.
    if (rail_ && !layout_.rail.empty()) rail_->draw(frame, layout_.rail);

    list->ChannelsSetCurrent(2);
    if (s.playbackFailed)
        drawFailure(frame, layout_.videoArea);
    else
        ActivityIndicator{s.showLoading, ActivityIndicator::Style::large}.draw(
            frame, {layout_.videoArea.midX(), layout_.videoArea.midY()});

    // Drawn over black: the video alone lets mpv present the window itself.
    list->ChannelsSetCurrent(0);
    AspectFitVideoPlayer{playerController_->player.get()}.draw(frame, layout_.videoArea);
    if (frame.tapIn(layout_.videoArea)) later([this] { tapOnVideo(); });

    list->ChannelsMerge();
    if (isAnimating(now)) frame.requestAnimationFrame();

    // Actions run after drawing: they may publish changes that rebuild the screen.
    auto actions = std::move(pending_);
    pending_.clear();
    for (auto& action : actions) action();
}

}  // namespace kavelin
