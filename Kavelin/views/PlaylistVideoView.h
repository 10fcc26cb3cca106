#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Kavelin/Model/Catalogue.h"
#include "Kavelin/Playlist/Controllers/PlaylistController.h"
#include "Kavelin/views/CachedAsyncImage.h"
#include "Kavelin/views/Frame.h"

namespace kavelin {

// One video card of the rail: the thumbnail, dimmed unless untouched, with what
// the video's state calls for over it, an "ad" badge for free viewers, and the title.
class PlaylistVideoView {
  public:
    struct UI {
        static constexpr float cornerRadius = 24;
        static constexpr float overlayOpacity = 0.5f;
        static constexpr float checkmarkSize = 40;
        static constexpr float borderWidth = 4;
        static constexpr float titleSpacing = 12;
        static constexpr float watchedSpacing = 8;
        static constexpr float cardSizeWidth = 280;  // not used by the rail
        static constexpr float cardSizeHeight = 200;
        static float titleFontSize(bool isPad) { return isPad ? 28 : 20; }
        static float watchedFontSize(bool isPad) { return isPad ? 24 : 12; }
        static float countdownFontSize(bool isPad) { return isPad ? 26 : 13; }
        static float adIconSize(bool isPad) { return isPad ? 82 : 52; }
        static float adIconOffset(bool isPad) { return isPad ? -25 : -20; }
    };

    PlaylistVideoView(Video video, std::shared_ptr<PlaylistController> controller,
                      std::shared_ptr<MainQueue> queue, ImVec2 size,
                      std::function<void(const Video&)> onSelected,
                      bool isPad = deviceIsPadIdiom());

    // Handles a tap, then draws with the card's top-left at `origin`. Returns the
    // card's full rectangle (picture and title).
    Rect draw(Frame& frame, ImVec2 origin);

    const Video& video() const { return video_; }
    void setSize(ImVec2 size) { size_ = size; }
    // Height of the picture and the title under it.
    float height() const;

    // --- what a card shows, by state ---
    // "Playing in 5s" for the next video, "Watched" for a completed one, else nothing.
    static std::optional<std::string> overlayText(VideoState state, int remainingTime);
    static float dimOpacity(VideoState state);
    static bool showsAdBadge(SubscriptionStatus status);
    static Rect adBadgeRect(ImVec2 pictureOrigin, bool isPad);

    static bool deviceIsPadIdiom();

  private:
    void thumbnail(Frame& frame, const Rect& picture, VideoState state);
    void overlay(Frame& frame, const Rect& picture, VideoState state, int remainingTime);

    Video video_;
    std::shared_ptr<PlaylistController> controller_;
    ImVec2 size_;
    std::function<void(const Video&)> onSelected_;
    bool isPad_;
    CachedAsyncImage image_;
};

// The next-playlist card: a small stack of three cards with the playlist's
// picture on the front one and its title on a white band at the bottom.
class PlaylistCardView {
  public:
    struct UI {
        static constexpr float cornerRadiusRatio = 0.05f;
        static constexpr float stackOffsetRatio = 0.05f;
        static constexpr float backCardWidthRatio1 = 0.88f;
        static constexpr float backCardHeightRatio1 = 0.95f;
        static constexpr float backCardWidthRatio2 = 0.94f;
        static constexpr float backCardHeightRatio2 = 0.98f;
        static constexpr float shadowOpacity = 0.25f;
        static constexpr float shadowRadius = 8;
        static constexpr float blurRadius = 40;
        static constexpr float overlayOpacity = 0.6f;
        static constexpr float borderWidth = 3;
        static float titleFontSize(bool /*isPad*/) { return 20; }
        static float titlePadding(bool isPad) { return isPad ? 20 : 12; }
        // The outer stack's default padding above and below the cards.
        static constexpr float verticalPadding = 16;
    };

    // The three card rectangles, back to front, for a card framed at `frame`.
    struct Geometry {
        Rect back1, back2, front, titleBand;
        float cornerRadius;
    };
    static Geometry geometry(const Rect& frame, float titleBandHeight);

    PlaylistCardView(std::string title, std::string imageURL, std::shared_ptr<MainQueue> queue,
                     ImVec2 size, bool isPad);

    // Draws the card padded below `origin` (top-left of its stack); true when tapped.
    bool draw(Frame& frame, ImVec2 origin);
    void setSize(ImVec2 size) { size_ = size; }
    const std::string& title() const { return title_; }

  private:
    std::string title_;
    ImVec2 size_;
    bool isPad_;
    CachedAsyncImage image_;
};

}  // namespace kavelin
