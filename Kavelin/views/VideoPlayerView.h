#pragma once

#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Kavelin/PlayerController.h"
#include "Kavelin/Playlist/Controllers/PlaylistController.h"
#include "Kavelin/views/Frame.h"
#include "Kavelin/views/OrientationObserver.h"
#include "Kavelin/views/PlaylistBottomView.h"
#include "Kavelin/views/SwiftUISlider.h"
#include "Kavelin/views/VideoSurfaces.h"

namespace kavelin {

// The player screen: the video with its controls overlay and spinner, and the
// playlist rail under it while shown. It owns no playback state: it reads the
// controllers and forwards every user action to the PlayerController.
class VideoPlayerView {
  public:
    struct UI {
        static constexpr float backButtonSize = 50;
        static constexpr float logoWidth = 150;
        static constexpr float logoHeight = 50;
        static constexpr float controlSpacing = 20;
        static constexpr float phoneButtonSize = 50;
        static constexpr float largeButtonSize = 100;
        static constexpr float landscapeFontSize = 16;
        static constexpr float portraitFontSize = 12;
        static constexpr float progressBackgroundWidth = 120;
        static constexpr float progressBackgroundHeight = 50;
        static constexpr float sliderTrailingPadding = 16;
        static constexpr float horizontalPadding = 24;
        static constexpr float phoneVerticalPadding = 24;
        static constexpr float padVerticalPadding = 120;
        static constexpr float padBottomPadding = 28;
        static constexpr float landscapeBottomAdjustment = -20;
        static constexpr float portraitBottomPadding = 24;
        static constexpr double controlsAnimationDuration = 0.3;
        static constexpr double railAnimationDuration = 0.35;
        static constexpr double orientationAnimationDuration = 0.35;
        static constexpr double playPauseAnimationDuration = 0.15;
        // The toolkit's default padding around a view.
        static constexpr float defaultPadding = 16;
        static constexpr float compactTimeBackgroundHeight = 30;
        static constexpr float padLandscapeRailControlsShift = -80;
        static constexpr float landscapeRailBarInset = 180;
        // Shown instead of the spinner when the video cannot play.
        static constexpr const char* failedTitle = "This video can't play right now";
        static constexpr const char* failedHint = "Go back, or press play to try again";
        static constexpr float failedTitleSize = 18;
        static constexpr float failedHintSize = 14;
        static constexpr float failedPadding = 16;
        static constexpr float failedCornerRadius = 12;
    };

    // Everything the layout depends on, read from the controllers.
    struct State {
        bool isPad = false;
        bool isLandscape = false;
        bool showPlaylist = false;
        bool showControls = true;
        bool showLoading = false;
        bool isPlaying = false;
        double currentTime = 0;
        double duration = 0;
        bool showBackwordButton = false;
        bool showBack10Button = true;
        bool showPlayPauseButton = true;
        bool showFor10Button = true;
        bool showForwardButton = false;
        bool disableBackButton = false;
        bool disbleForwardButton = false;
        bool showTimeDration = true;
        bool showSeekbar = true;
        bool showBackButton = true;
        bool showLogo = true;
        bool playbackFailed = false;

        static State read(const PlayerController& player, bool isPad, bool isLandscape);
    };

    // The five buttons of the centre row, in order.
    enum class CentreButton { prev, back10, playPause, for10, next };
    static constexpr size_t centreButtonCount = 5;

    struct Layout {
        Rect screen, videoArea, rail, controls;
        Rect back, logo;
        bool backHidden = false;
        bool logoHidden = false;
        float buttonSize = 0;
        std::array<Rect, centreButtonCount> centre{};
        std::array<bool, centreButtonCount> centreHidden{};
        Rect timeBackground;
        bool timeHidden = false;
        float timeFontSize = 0;
        Rect slider;
        bool sliderHidden = false;
    };

    // --- decisions ---
    static float centreButtonSize(bool isPad, bool isLandscape, bool showPlaylist);
    static float timeFontSize(bool isLandscape, bool showPlaylist);
    static float timeBackgroundHeight(bool isPad, bool isLandscape, bool showPlaylist);
    static float controlsVerticalPadding(bool isPad);
    static float controlsExtraVerticalPadding(bool isPad, bool isLandscape, bool showPlaylist);
    static bool isHidden(CentreButton button, const State& s);
    static bool isEnabled(CentreButton button, const State& s);
    static float opacity(CentreButton button, const State& s);
    static std::string assetName(CentreButton button, const State& s);
    static float playPauseScale(bool isPlaying) { return isPlaying ? 1.0f : 0.9f; }
    static std::string timeLabel(double currentTime, double duration);
    // `railShown` runs from 0 (hidden) to 1 (shown) while the rail slides.
    static Layout layout(const State& s, const Rect& screen, float railShown);
    // The layout part of the way (`t` from 0 to 1) from one orientation's to the
    // other's: frames and sizes move, which items exist follows `to`.
    static Layout blend(const Layout& from, const Layout& to, float t);

    VideoPlayerView(std::shared_ptr<PlayerController> playerController,
                    std::shared_ptr<OrientationObserver> orientationObserver,
                    std::shared_ptr<PlaylistController> controller,
                    std::shared_ptr<MainQueue> queue);

    // One frame: input front to back, then drawing back to front, then the user
    // actions the frame collected.
    void draw(Frame& frame, const Rect& screen);

    // --- user actions, as the pointer and the keyboard reach them ---
    void tapOnVideo();
    void onEditingChanged(bool editing);
    void applicationDidBecomeActive();
    using Key = HostingController::Key;
    void handleKey(Key key);

    const Layout& lastLayout() const { return layout_; }
    bool isAnimating(double now) const;
    const PlaylistBottomView* rail() const { return rail_ ? &*rail_ : nullptr; }

  private:
    State state() const;
    void perform(CentreButton button);
    void drawControls(Frame& frame, const State& s, const Layout& l);
    static void drawFailure(Frame& frame, const Rect& videoArea);
    void later(std::function<void()> action) { pending_.push_back(std::move(action)); }

    std::shared_ptr<PlayerController> playerController_;
    std::shared_ptr<OrientationObserver> orientationObserver_;
    std::shared_ptr<PlaylistController> controller_;
    std::shared_ptr<MainQueue> queue_;  // the views' own, where thumbnails arrive
    bool isPad_;
    bool appeared_ = false;

    AnimatedValue controlsOpacity_{1};
    AnimatedValue railShown_{0};
    // A rotation morphs from the layout last drawn to the new orientation's.
    AnimatedValue orientationBlend_{1};
    std::optional<Layout> orientationFrom_;
    bool wasLandscape_ = false;
    AnimatedValue playScale_{0.9f};
    std::array<AnimatedValue, centreButtonCount> centreFade_{
        AnimatedValue(1), AnimatedValue(1), AnimatedValue(1), AnimatedValue(1), AnimatedValue(1)};
    std::optional<SwiftUISlider> slider_;
    std::optional<PlaylistBottomView> rail_;
    Layout layout_;
    std::vector<std::function<void()>> pending_;
};

}  // namespace kavelin
