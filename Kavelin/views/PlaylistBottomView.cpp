#include "Kavelin/views/PlaylistBottomView.h"

#include <algorithm>

namespace kavelin {

float PlaylistBottomView::UI::cardWidth(bool isPad, bool isLandscape) {
    if (isPad) return isLandscape ? padLandscapeWidth : padPortraitWidth;
    return isLandscape ? phoneLandscapeWidth : phonePortraitWidth;
}
float PlaylistBottomView::UI::cardHeight(bool isPad, bool isLandscape) {
    if (isPad) return isLandscape ? padLandscapeHeight : padPortraitHeight;
    return isLandscape ? phoneLandscapeHeight : phonePortraitHeight;
}
float PlaylistBottomView::UI::spacing(bool isPad, bool isLandscape) {
    if (isPad) return isLandscape ? padLandscapeSpacing : padPortraitSpacing;
    return isLandscape ? phoneLandscapeSpacing : phonePortraitSpacing;
}

PlaylistBottomView::PlaylistBottomView(std::shared_ptr<PlaylistController> controller,
                                       std::function<void(const Video&)> onVideoSelected,
                                       std::function<void(const Playlist&)> onPlaylistSelected,
                                       std::function<void()> onUserInteraction, bool isPad,
                                       std::shared_ptr<OrientationObserver> orientationObserver,
                                       std::shared_ptr<MainQueue> queue)
    : controller_(std::move(controller)),
      queue_(std::move(queue)),
      onVideoSelected_(std::move(onVideoSelected)),
      onPlaylistSelected_(std::move(onPlaylistSelected)),
      onUserInteraction_(std::move(onUserInteraction)),
      isPad_(isPad),
      orientationObserver_(std::move(orientationObserver)) {}

void PlaylistBottomView::syncWithController() {
    bool landscape = orientationObserver_ && orientationObserver_->isLandscape();
    ImVec2 size{UI::cardWidth(isPad_, landscape), UI::cardHeight(isPad_, landscape)};
    const Playlist& current = controller_->currentPlaylist.get();
    // Cards keep their loaded thumbnails while the playlist stays the same.
    bool same = current.id == playlistId_ && current.videos.size() == videos_.size();
    for (size_t i = 0; same && i < videos_.size(); ++i)
        same = videos_[i].video().id == current.videos[i].id;
    if (!same) {
        videos_.clear();
        playlistId_ = current.id;
        for (const auto& video : current.videos)
            videos_.emplace_back(video, controller_, queue_, size, onVideoSelected_, isPad_);
    }
    for (auto& card : videos_) card.setSize(size);

    const auto& next = controller_->nextPlaylist.get();
    if (!next) {
        nextCard_.reset();
        nextPlaylist_.reset();
    } else if (!nextPlaylist_ || nextPlaylist_->id != next->id) {
        nextPlaylist_ = next;
        nextCard_.emplace(next->name.value_or(""), next->thumbnail.value_or(""), queue_, size,
                          isPad_);
    }
    if (nextCard_) nextCard_->setSize(size);
}

float PlaylistBottomView::cardOffset(size_t index) const {
    bool landscape = orientationObserver_ && orientationObserver_->isLandscape();
    return UI::horizontalPadding + static_cast<float>(index) * (UI::cardWidth(isPad_, landscape) +
                                                                UI::spacing(isPad_, landscape));
}

float PlaylistBottomView::contentWidth() const {
    bool landscape = orientationObserver_ && orientationObserver_->isLandscape();
    size_t cards = videos_.size() + (nextCard_ ? 1 : 0);
    if (cards == 0) return 0;
    return cardOffset(cards) - UI::spacing(isPad_, landscape) + UI::horizontalPadding;
}

void PlaylistBottomView::scrollTo(float offset, double now, double duration, float viewWidth) {
    float limit = std::max(0.0f, contentWidth() - viewWidth);
    offset = std::clamp(offset, 0.0f, limit);
    if (duration > 0)
        scroll_.animateTo(offset, now, duration);
    else
        scroll_.jumpTo(offset);
}

void PlaylistBottomView::draw(Frame& frame, const Rect& r) {
    if (!controller_) return;
    syncWithController();
    bool landscape = orientationObserver_ && orientationObserver_->isLandscape();
    const float spacing = UI::spacing(isPad_, landscape);
    viewWidth_ = r.w;

    // Keep the card being played at the leading edge: at once when the rail
    // appears, animated when the current video changes while it is shown.
    const auto& currentID = controller_->currentVideoID.get();
    auto indexOf = [&](const std::string& id) -> std::optional<size_t> {
        for (size_t i = 0; i < videos_.size(); ++i)
            if (videos_[i].video().id == id) return i;
        return std::nullopt;
    };
    if (!appeared_ || currentID != shownVideoID_) {
        if (currentID) {
            if (auto index = indexOf(*currentID))
                scrollTo(cardOffset(*index), frame.now(),
                         appeared_ ? UI::scrollAnimationDuration : 0, r.w);
        }
        appeared_ = true;
        shownVideoID_ = currentID;
    }

    // Any touch on the rail restarts the player's auto-return; a drag scrolls.
    ImVec2 p = frame.pointer();
    if (frame.pressedIn(r)) {
        dragging_ = true;
        lastPointer_ = p;
        if (onUserInteraction_) onUserInteraction_();
    } else if (dragging_ && frame.isDown()) {
        if (p.x != lastPointer_.x || p.y != lastPointer_.y) {
            if (frame.isDragging())
                scrollTo(scroll_.target() - (p.x - lastPointer_.x), frame.now(), 0, r.w);
            lastPointer_ = p;
            if (onUserInteraction_) onUserInteraction_();
        }
    } else {
        dragging_ = false;
    }
    if (r.contains(p) && frame.wheel() != 0) {
        scrollTo(scroll_.target() - frame.wheel() * 60, frame.now(), 0, r.w);
        if (onUserInteraction_) onUserInteraction_();
    }
    if (scroll_.isAnimating(frame.now())) frame.requestAnimationFrame();

    float offset = scroll_.value(frame.now());
    float top = r.y + spacing * UI::verticalPaddingMultiplier;
    frame.pushClip(r);
    for (size_t i = 0; i < videos_.size(); ++i) {
        float x = r.x + cardOffset(i) - offset;
        // Lazily built: cards outside the rail are not drawn and do not load.
        if (x > r.right() || x + UI::cardWidth(isPad_, landscape) < r.x) continue;
        videos_[i].draw(frame, {x, top});
    }
    if (nextCard_) {
        float x = r.x + cardOffset(videos_.size()) - offset;
        if (x <= r.right() && x + UI::cardWidth(isPad_, landscape) >= r.x &&
            nextCard_->draw(frame, {x, top}) && onPlaylistSelected_ && nextPlaylist_)
            onPlaylistSelected_(*nextPlaylist_);
    }
    frame.popClip();
    // The rail swallows taps that hit no card, so they do not reach the video.
    frame.tapIn(r);
}

}  // namespace kavelin
