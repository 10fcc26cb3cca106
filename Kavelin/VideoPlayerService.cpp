#include "Kavelin/VideoPlayerService.h"

#include <algorithm>
#include <unordered_map>

#include "Kavelin/Extentions/UTF8Repair.h"
#include "Kavelin/Platform/MainQueueCheck.h"
#include "Kavelin/log/VPLogger.h"

namespace kavelin {
namespace {

// One stray byte in one title must not cost the whole catalogue: the JSON parser
// refuses ill-formed UTF-8, so it is repaired first, with one warning line.
// The host's text itself, or a repaired copy kept in `storage`.
std::string_view repairedDocument(std::string_view json, const char* what, std::string& storage) {
    if (size_t n = repairUTF8(json, storage))
        VPLogger::warning("⚠️ Ill-formed UTF-8 in the " + std::string(what) + ": " +
                          std::to_string(n) + " sequence(s) replaced with U+FFFD");
    return json;
}

}  // namespace

VideoPlayerService::VideoPlayerService(const Platform& platform)
    : adSessionTracker(std::make_shared<AdSessionTracker>(platform.wallClock)),
      platform_(platform) {
    playerController = makePlayerController();
    playlistController = std::make_shared<PlaylistController>(platform.defaults);
}

std::shared_ptr<PlayerController> VideoPlayerService::makePlayerController() const {
    auto controller = PlayerController::make(platform_);
    controller->setAdSessionTracker(adSessionTracker);
    return controller;
}

int VideoPlayerService::currentIndex() const {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    return playerController ? playerController->currentIndex.get() : 0;
}

void VideoPlayerService::loadVideo(const std::string& urlString) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (playerController) playerController->loadVideo(urlString);
}

void VideoPlayerService::play() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (playerController) playerController->play();
}

void VideoPlayerService::pause() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (playerController) playerController->pause();
}

void VideoPlayerService::stop() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (playerController) playerController->stop();
}

void VideoPlayerService::seekForward(double seconds) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (playerController) playerController->seekForward(seconds);
}

void VideoPlayerService::seekBackward(double seconds) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (playerController) playerController->seekBackward(seconds);
}

void VideoPlayerService::cleanup() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (!playerController) return;
    playerController->cleanup();
    playerController.reset();
}

void VideoPlayerService::seekTo(double value) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (playerController) playerController->seekTo(value);
}

void VideoPlayerService::setURLS(std::vector<std::string> urls) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (!playerController) playerController = makePlayerController();
    playerController->setURLS(std::move(urls));
}

void VideoPlayerService::setShownLater(PlayerController::Control control, bool shown) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    // Deferred on purpose: a flag set right after setURLS lands after the current work.
    // The service lives as long as the process, so `this` outlives the task.
    platform_.queue->async([this, control, shown] {
        if (playerController) playerController->setControlShown(control, shown);
    });
}

void VideoPlayerService::setShowForwardButton(bool show) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    setShownLater(PlayerController::Control::forwardButton, show);
}
void VideoPlayerService::setShowBackwordButton(bool show) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    setShownLater(PlayerController::Control::backwordButton, show);
}
void VideoPlayerService::setShowBack10Button(bool show) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    setShownLater(PlayerController::Control::back10Button, show);
}
void VideoPlayerService::setShowFor10Button(bool show) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    setShownLater(PlayerController::Control::for10Button, show);
}
void VideoPlayerService::setShowPlayPauseButton(bool show) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    setShownLater(PlayerController::Control::playPauseButton, show);
}
void VideoPlayerService::setShowBackButton(bool show) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    setShownLater(PlayerController::Control::backButton, show);
}
void VideoPlayerService::setShowLogo(bool show) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    setShownLater(PlayerController::Control::logo, show);
}
void VideoPlayerService::setShowSeekbar(bool show) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    setShownLater(PlayerController::Control::seekbar, show);
}
void VideoPlayerService::setShowTimeDuration(bool show) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    setShownLater(PlayerController::Control::timeDuration, show);
}

void VideoPlayerService::setPlaylistsFromUnity(std::string_view jsonString) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    try {
        std::string repaired;
        playlistsResponse_ =
            decodePlaylistResponses(repairedDocument(jsonString, "playlists JSON", repaired));
    } catch (const DecodingError& e) {
        VPLogger::error(std::string("❌ Failed to decode playlists: ") + e.what());
        return;
    }
    VPLogger::log("✅ Playlist metadata received from Unity");
    mergeIfReady();
}

void VideoPlayerService::setEpisodesFromUnity(std::string_view jsonString) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    try {
        std::string repaired;
        episodesResponse_ =
            decodeEpisodeResponses(repairedDocument(jsonString, "episodes JSON", repaired));
    } catch (const DecodingError& e) {
        VPLogger::error(std::string("❌ Failed to decode episodes: ") + e.what());
        return;
    }
    VPLogger::log("✅ Episodes received from Unity");
    mergeIfReady();
}

void VideoPlayerService::mergeIfReady() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (episodesResponse_.empty()) {
        VPLogger::warning("⏳ Waiting for episodes...");
        return;
    }
    if (playlistsResponse_.empty()) {
        VPLogger::warning("⏳ Waiting for playlists...");
        return;
    }
    VPLogger::log("🔄 Merging data...");
    playlists() = mapToPlaylists(episodesResponse_, playlistsResponse_);
    VPLogger::log("✅ Final playlists ready: " + std::to_string(playlists().size()));
}

std::vector<Playlist> VideoPlayerService::mapToPlaylists(
    const std::vector<EpisodeResponse>& episodesResponse,
    const std::vector<PlaylistResponse>& playlistsResponse) {
    // Indexed once so a large catalogue merges in linear time; the first group with
    // an id wins, as a front-to-back search would find it.
    std::unordered_map<std::string_view, const EpisodeResponse*> groups;
    groups.reserve(episodesResponse.size());
    for (const auto& e : episodesResponse) groups.try_emplace(e.id, &e);

    std::vector<Playlist> result;
    result.reserve(playlistsResponse.size());
    for (const auto& response : playlistsResponse) {
        auto found = groups.find(response.id);
        const EpisodeResponse* group = found == groups.end() ? nullptr : found->second;
        if (!group) {
            VPLogger::warning("No episodes found for playlistId: " + response.id);
            continue;
        }
        std::vector<Video> videos;
        videos.reserve(group->episodes.size());
        for (const auto& episode : group->episodes) videos.push_back(episode.toVideo(response.id));
        result.emplace_back(response.id, response.name, response.thumbnail, std::nullopt,
                            std::move(videos));
        VPLogger::log("Mapped playlist: " + response.name + " with " +
                      std::to_string(result.back().videos.size()) + " videos");
    }
    return result;
}

std::vector<Playlist> VideoPlayerService::getAllPlaylists() const {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    return playlists();
}

void VideoPlayerService::playPlaylist(const std::string& playlistId) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    const auto& all = playlists();
    auto found =
        std::find_if(all.begin(), all.end(), [&](const Playlist& p) { return p.id == playlistId; });
    if (found == all.end()) {
        VPLogger::error("❌ Playlist not found");
        return;
    }
    if (found->videos.empty()) {
        VPLogger::error("❌ Playlist has no videos");
        return;
    }
    // Copy before handing over: selecting a playlist may run code that replaces the list.
    const Playlist playlist = *found;
    if (!playlistController)
        playlistController = std::make_shared<PlaylistController>(platform_.defaults);
    if (!playerController) return;
    playerController->playPlaylist(playlistController, playlist);
}

void VideoPlayerService::setPremium(bool isPremium) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    subscriptionStatus() = isPremium ? SubscriptionStatus::premium : SubscriptionStatus::free;
    VPLogger::log("✅ Subscription updated:" + std::string(rawValue(subscriptionStatus())));
    if (!isPremium) return;
    if (playerController) playerController->clearMidRollPlan();
    adSessionTracker->reset();
}

void VideoPlayerService::setMidRollAdConfig(std::string_view jsonString) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    MidRollAdConfig config;
    try {
        std::string repaired;
        config = MidRollAdConfig::decode(repairedDocument(jsonString, "mid-roll config", repaired));
    } catch (const DecodingError& e) {
        VPLogger::warning(std::string("⚠️ Failed to decode mid-roll config: ") + e.what());
        return;
    }
    if (!playerController) return;
    playerController->setMidRollConfig(config);
    VPLogger::log("✅ Mid-roll ad config loaded (v" + std::to_string(config.version) +
                  "): " + std::to_string(config.durationBuckets.size()) + " buckets");
}

void VideoPlayerService::AdCompletedResumePlayback() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (!playerController) return;
    auto controller = playerController;  // the calls below may run host callbacks
    adSessionTracker->recordAdShown();
    VPLogger::log("🎯 Ad completed, resuming playback");

    controller->adCompleted();
}

}  // namespace kavelin
