#include <algorithm>

#include "Kavelin/Extentions/NumberFormatting.h"
#include "Kavelin/Extentions/URLString.h"
#include "Kavelin/Platform/MainQueueCheck.h"
#include "Kavelin/PlayerController.h"
#include "Kavelin/VideoPlayerBridgging.h"
#include "Kavelin/log/VPLogger.h"

namespace kavelin {
namespace {

bool isFree() {
    return subscriptionStatus() == SubscriptionStatus::free;
}

// Position of the first video with this id, if any.
std::optional<int> indexOfVideo(const std::vector<Video>& videos, const std::string& id) {
    auto it =
        std::find_if(videos.begin(), videos.end(), [&](const Video& v) { return v.id == id; });
    if (it == videos.end()) return std::nullopt;
    return static_cast<int>(it - videos.begin());
}

}  // namespace

void PlayerController::playerDidFinishPlaying() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    const auto keepAlive = shared_from_this();  // events reach host code
    auto playlist = playlistController_.lock();
    if (!playlist || !playlist->currentVideoID.get()) return;
    auto found = indexOfVideo(playlist->videos, *playlist->currentVideoID.get());
    if (!found) return;
    const int index = *found;
    const std::string text = std::to_string(index);
    sendUnityMessage("OnVideoFinished", text);

    if (isFree() && adAllowedByTracker()) {
        switchScreenBack_and_forth();
        shouldWaitForAd = true;
        pendingNextIndex_ = index;
        sendUnityMessage("OnNextVideoAdRequired", text);
        return;
    }
    playNextVideo(index);
}

void PlayerController::playNextVideo(int index) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    auto playlist = playlistController_.lock();
    if (!playlist) return;
    showLoadingUI(true);
    const int next = index + 1;
    if (next >= static_cast<int>(urls_.size())) {
        playNextPlaylist();
        return;
    }
    if (next < 0 || next >= static_cast<int>(playlist->videos.size())) {
        VPLogger::warning("⚠️ playNextVideo: index " + std::to_string(next) +
                          " has no video in the playlist (" +
                          std::to_string(playlist->videos.size()) + " videos); ignored");
        return;
    }
    const Video video = playlist->videos[static_cast<size_t>(next)];
    VPLogger::log("▶️ Playing next video at index: " + std::to_string(next));
    if (moveAndLoad(next, video.url)) playlist->videoStarted(video.id);
}

void PlayerController::playNextPlaylist() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    auto playlist = playlistController_.lock();
    if (!playlist) return;
    // The catalogue is a ring: after the last playlist comes the first.
    const Playlist chosen = playlist->nextPlaylist.get() ? *playlist->nextPlaylist.get()
                                                         : playlist->currentPlaylist.get();
    if (!chosen.videos.empty() && !playerAddress(chosen.videos[0].url)) {
        loadVideo(chosen.videos[0].url);  // refused: stay on the playlist we are in
        return;
    }
    playlist->currentPlaylist = chosen;
    playlist->setNextPlaylist();
    playlist->videos = chosen.videos;

    std::vector<std::string> addresses;
    addresses.reserve(chosen.videos.size());
    for (const auto& video : chosen.videos) addresses.push_back(video.url);
    setURLS(std::move(addresses));
    currentIndex = 0;
    if (chosen.videos.empty()) {
        VPLogger::warning("⚠️ playNextPlaylist: playlist " + chosen.id +
                          " has no videos; nothing to play");
        return;
    }
    loadVideo(urls_[0]);
    playlist->videoStarted(chosen.videos[0].id);
}

std::optional<std::string> PlayerController::upcomingAddress() const {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    auto playlist = playlistController_.lock();
    if (!playlist) return std::nullopt;
    const int next = currentIndex + 1;
    if (next < static_cast<int>(urls_.size())) {
        if (next >= static_cast<int>(playlist->videos.size())) return std::nullopt;
        return playerAddress(playlist->videos[static_cast<size_t>(next)].url);
    }
    const Playlist& chosen = playlist->nextPlaylist.get() ? *playlist->nextPlaylist.get()
                                                          : playlist->currentPlaylist.get();
    if (chosen.videos.empty()) return std::nullopt;
    return playerAddress(chosen.videos[0].url);
}

void PlayerController::nextVideo() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (currentIndex < static_cast<int>(urls_.size()) - 1) {
        autoHideControls();
        loadURLAt(currentIndex + 1, "nextVideo");
    } else {
        disbleForwardButton = true;
    }
}

void PlayerController::prevVideo() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (currentIndex < 1) {
        disableBackButton = true;
        return;
    }
    autoHideControls();
    loadURLAt(currentIndex - 1, "prevVideo");
}

void PlayerController::playApprovedVideo() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (currentIndex < static_cast<int>(urls_.size())) loadURLAt(currentIndex, "playApprovedVideo");
}

void PlayerController::onVideoSelected(const Video& video) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    const auto keepAlive = shared_from_this();  // events reach host code
    showPlaylist = false;
    if (isFree()) {
        // Every tile choice by a free viewer asks for an ad, whatever the tracker says.
        switchScreenBack_and_forth();
        shouldWaitForAd = true;
        pendingVideo_ = video;
        sendUnityMessage("OnVideoTileClicked", video.id);
        return;
    }
    showLoadingUI(true);
    std::optional<int> index;
    if (auto playlist = playlistController_.lock())
        index = indexOfVideo(playlist->videos, video.id);
    moveAndLoad(index.value_or(0), video.url);
}

void PlayerController::onPlaylistSelected(const Playlist& selected) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    showLoadingUI(true);
    dismissedCountdownRail_ = false;
    auto playlist = playlistController_.lock();
    if (!playlist) {
        showLoadingUI(false);
        VPLogger::error("PlaylistController not initialized");
        return;
    }
    // The video the selection would start at; a refused address keeps the
    // playlist that is on screen.
    const auto& watched = playlist->completedVideosByPlaylist.get();
    const auto watchedHere = watched.find(selected.id);
    const auto start = std::find_if(selected.videos.begin(), selected.videos.end(), [&](auto& v) {
        return watchedHere == watched.end() || !watchedHere->second.contains(v.id);
    });
    if (!selected.videos.empty()) {
        const auto& first = start != selected.videos.end() ? *start : selected.videos.front();
        if (!playerAddress(first.url)) {
            loadVideo(first.url);
            return;
        }
    }
    playlist->userSelectedPlaylist(selected);
    VPLogger::log("playlist: " + selected.id);

    urls_.clear();
    std::vector<std::string> addresses;
    addresses.reserve(playlist->videos.size());
    for (const auto& video : playlist->videos) addresses.push_back(video.url);
    setURLS(std::move(addresses));

    const auto first = playlist->firstUnwatchedVideoID();
    currentIndex = first ? static_cast<int>(*first) : 0;
    loadURLAt(currentIndex, "onPlaylistSelected");
}

void PlayerController::playPlaylist(const std::shared_ptr<PlaylistController>& playlists,
                                    const Playlist& selected) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    playlistController_ = playlists;
    onPlaylistSelected(selected);
}

void PlayerController::setAdSessionTracker(std::weak_ptr<AdSessionTracker> tracker) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    adSessionTracker_ = std::move(tracker);
}

void PlayerController::setMidRollConfig(MidRollAdConfig config) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    midRollConfig_ = std::move(config);
}

void PlayerController::clearMidRollPlan() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    midRollCuePointState_.reset();
}

void PlayerController::triggerMidRollAd(double cue) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    const auto keepAlive = shared_from_this();  // events reach host code
    midRollCuePointState_.markConsumed(cue);
    midRollCuePointState_.isShowingAd = true;
    if (auto p = player.get())
        midRollResumePosition_ = p->currentTime();
    else
        midRollResumePosition_.reset();
    shouldWaitForAd = true;
    const std::string cueText = formatDouble("%.1f", cue);
    VPLogger::log("⏱️ Mid-roll ad triggered at " + cueText + "s");
    if (auto p = player.get()) p->pause();
    isPlaying = false;
    switchScreenBack_and_forth();
    sendUnityMessage("OnMidRollAdRequired", cueText);

    if (midRollFallbackWorkItem_) midRollFallbackWorkItem_->cancel();
    midRollFallbackWorkItem_ = makeWorkItem([weak = weak_from_this()] {
        auto self = weak.lock();
        if (!self || !self->midRollCuePointState_.isShowingAd) return;
        VPLogger::log("⏱️ Mid-roll ad timeout — auto-resuming");
        self->resumeAfterMidRollAd();
    });
    platform_.queue->asyncAfter(midRollConfig_.adTimeoutSeconds, midRollFallbackWorkItem_);
}

void PlayerController::setAdRequired(bool required) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    shouldWaitForAd = required;
}

void PlayerController::adCompleted() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (isClosingForAd()) {
        if (!resumeWhenClosed_)
            VPLogger::log("⏳ Ad completed before the player screen closed; resuming once it has");
        resumeWhenClosed_ = true;
        return;
    }
    resumeAfterAdCompleted();
}

void PlayerController::adClosingStepDone() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (adClosingSteps_ > 0) --adClosingSteps_;
    if (isClosingForAd() || !resumeWhenClosed_) return;
    resumeWhenClosed_ = false;
    resumeAfterAdCompleted();
}

void PlayerController::resumeAfterAdCompleted() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    const auto keepAlive = shared_from_this();  // loading reaches host code
    if (midRollCuePointState_.isShowingAd) {
        resumeAfterMidRollAd();
        loadURLAt(currentIndex, "AdCompletedResumePlayback");
        return;
    }
    shouldWaitForAd = false;
    if (pendingVideo_) {
        const Video video = *std::exchange(pendingVideo_, std::nullopt);
        std::optional<int> index;
        if (auto playlist = playlistController_.lock())
            index = indexOfVideo(playlist->videos, video.id);
        moveAndLoad(index.value_or(0), video.url);
    } else if (pendingNextIndex_) {
        const int index = *std::exchange(pendingNextIndex_, std::nullopt);
        playNextVideo(index);
    } else {
        play();
    }
}

void PlayerController::resumeAfterMidRollAd() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (midRollFallbackWorkItem_) std::exchange(midRollFallbackWorkItem_, nullptr)->cancel();
    midRollCuePointState_.isShowingAd = false;
    shouldWaitForAd = false;
    if (midRollCuePointState_.seekTargetAfterAd) {
        midRollResumePosition_ = midRollCuePointState_.seekTargetAfterAd;
        midRollCuePointState_.seekTargetAfterAd.reset();
    }
}

}  // namespace kavelin
