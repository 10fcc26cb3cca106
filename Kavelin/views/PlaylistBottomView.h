#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "Kavelin/views/Frame.h"
#include "Kavelin/views/OrientationObserver.h"
#include "Kavelin/views/PlaylistVideoView.h"

namespace kavelin {

// The rail under the video: the current playlist's videos as cards, then a card
// for the next playlist, scrolled horizontally. It reports taps and drags and
// never changes playback itself.
class PlaylistBottomView {
  public:
    struct UI {
        static constexpr float phonePortraitWidth = 180;
        static constexpr float phonePortraitHeight = 130;
        static constexpr float phonePortraitSpacing = 15;
        static constexpr float phoneLandscapeWidth = 160;
        static constexpr float phoneLandscapeHeight = 110;
        static constexpr float phoneLandscapeSpacing = 12;
        static constexpr float padPortraitWidth = 300;
        static constexpr float padPortraitHeight = 200;
        static constexpr float padPortraitSpacing = 30;
        static constexpr float padLandscapeWidth = 260;
        static constexpr float padLandscapeHeight = 200;
        static constexpr float padLandscapeSpacing = 24;
        static constexpr float verticalPaddingMultiplier = 2;
        static constexpr float containerHeightMultiplier = 1.6f;
        static constexpr float horizontalPadding = 16;
        static constexpr double scrollAnimationDuration = 0.4;

        static float cardWidth(bool isPad, bool isLandscape);
        static float cardHeight(bool isPad, bool isLandscape);
        static float spacing(bool isPad, bool isLandscape);
        // The most room the rail takes under the video.
        static float maxHeight(bool isPad, bool isLandscape) {
            return cardHeight(isPad, isLandscape) * containerHeightMultiplier;
        }
    };

    PlaylistBottomView(std::shared_ptr<PlaylistController> controller,
                       std::function<void(const Video&)> onVideoSelected,
                       std::function<void(const Playlist&)> onPlaylistSelected,
                       std::function<void()> onUserInteraction, bool isPad,
                       std::shared_ptr<OrientationObserver> orientationObserver,
                       std::shared_ptr<MainQueue> queue);

    // Handles the pointer, then draws the rail inside `r`.
    void draw(Frame& frame, const Rect& r);

    float scrollOffset(double now) const { return scroll_.value(now); }
    // The x of a card relative to the start of the content (before scrolling).
    float cardOffset(size_t index) const;
    size_t cardCount() const { return videos_.size(); }
    bool hasNextPlaylistCard() const { return nextCard_.has_value(); }

  private:
    void syncWithController();
    float contentWidth() const;
    void scrollTo(float offset, double now, double duration, float viewWidth);

    std::shared_ptr<PlaylistController> controller_;
    std::shared_ptr<MainQueue> queue_;  // where thumbnails arrive
    std::function<void(const Video&)> onVideoSelected_;
    std::function<void(const Playlist&)> onPlaylistSelected_;
    std::function<void()> onUserInteraction_;
    bool isPad_;
    std::shared_ptr<OrientationObserver> orientationObserver_;

    std::vector<PlaylistVideoView> videos_;
    std::optional<PlaylistCardView> nextCard_;
    std::optional<Playlist> nextPlaylist_;
    std::string playlistId_;
    std::optional<std::string> shownVideoID_;
    bool appeared_ = false;
    AnimatedValue scroll_;
    float viewWidth_ = 0;
    bool dragging_ = false;
    ImVec2 lastPointer_{};
};

}  // namespace kavelin
