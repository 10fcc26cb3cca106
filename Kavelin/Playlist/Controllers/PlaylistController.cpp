#include "Kavelin/Playlist/Controllers/PlaylistController.h"

#include <algorithm>
#include <iterator>

#include "Kavelin/Platform/Immortal.h"
#include "Kavelin/Platform/MainQueueCheck.h"
#include "Kavelin/Platform/Platform.h"
#include "Kavelin/log/VPLogger.h"

namespace kavelin {
namespace {

// An empty catalogue is a mistake of the embedding code, but closing the game
// over it would be worse: say so and go on with no playlist.
Playlist firstPlaylistOrEmpty() {
    const auto& list = playlists();
    if (!list.empty()) return list.front();
    VPLogger::error("❌ The playlist catalogue is empty; the playlist controller starts with none");
    return Playlist();
}

const std::set<std::string>& emptySet() {
    static Immortal<const std::set<std::string>> empty;
    return empty.get();
}

}  // namespace

PlaylistController::PlaylistController(std::shared_ptr<UserDefaults> defaults)
    : currentPlaylist(this, firstPlaylistOrEmpty()),
      videos(currentPlaylist->videos),
      defaults_(defaults ? std::move(defaults) : Platform::current().defaults) {
    // Writing the loaded map straight back also replaces an unusable stored entry.
    setCompletedVideosByPlaylist(loadCompletedVideos());
}

PlaylistController::~PlaylistController() {
    VPLogger::log(
        "🧼 PlaylistController instance cleaned up – resources released successfully!");
}

const std::set<std::string>& PlaylistController::completedVideoIDs() const {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    const auto& map = completedVideosByPlaylist.get();
    auto it = map.find(currentPlaylist->id);
    return it == map.end() ? emptySet() : it->second;
}

VideoState PlaylistController::state(const Video& video) const {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    // A watched video playing again shows as playing, one up next as up next.
    if (currentVideoID.get() == video.id) return VideoState::watching;
    if (countdownVideoID.get() == video.id) return VideoState::nextVideo;
    if (completedVideoIDs().contains(video.id)) return VideoState::completed;
    return VideoState::none;
}

int PlaylistController::remainingTimeFor(const Video& video) const {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    return countdownVideoID.get() == video.id ? remainingTime.get() : 0;
}

void PlaylistController::videoStarted(const std::string& id) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    cancelCountdown();
    currentVideoID = id;
    countdownTriggeredForVideoID_.reset();
}

void PlaylistController::userSelectedVideo(const std::string& id) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    videoStarted(id);
}

void PlaylistController::videoCompleted(const std::string& id, double time) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    // Watched once the playhead reaches 10 s, not at the end of the video.
    if (time < 10.0) return;

    const auto& map = completedVideosByPlaylist.get();
    auto entry = map.find(currentPlaylist->id);
    if (entry != map.end() && entry->second.contains(id)) {
        // Re-assigning an equal map, as happens on every tick past 10 s: announce
        // and persist it like an assignment, without copying the map.
        notifyChange();
        persistCompletedVideos();
    } else {
        auto updated = map;
        updated[currentPlaylist->id].insert(id);
        setCompletedVideosByPlaylist(std::move(updated));
    }

    auto video =
        std::find_if(videos.begin(), videos.end(), [&](const Video& v) { return v.id == id; });
    if (video != videos.end()) video->isWatched = true;
}

void PlaylistController::triggerCountdownIfNeeded(const std::string& currentID,
                                                  int remainingSeconds) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (remainingSeconds < 0 || remainingSeconds > kCountdownSeconds) return;
    auto current = std::find_if(videos.begin(), videos.end(),
                                [&](const Video& v) { return v.id == currentID; });
    // No countdown into the next playlist.
    if (current == videos.end() || std::next(current) == videos.end()) return;
    countdownVideoID = std::next(current)->id;
    remainingTime = remainingSeconds;
    countdownTriggeredForVideoID_ = currentID;
}

void PlaylistController::cancelCountdown() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (timer_) timer_->cancel();
    timer_.reset();
    countdownVideoID = std::nullopt;
    remainingTime = 0;
}

std::optional<size_t> PlaylistController::firstUnwatchedVideoID() const {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    const auto& watched = completedVideoIDs();
    for (size_t i = 0; i < videos.size(); ++i)
        if (!watched.contains(videos[i].id)) return i;
    return std::nullopt;
}

std::optional<std::string> PlaylistController::nextVideoToPlayOnReturn() const {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (videos.empty()) return std::nullopt;
    if (auto index = firstUnwatchedVideoID()) return videos[*index].id;
    // Everything watched: the playlist starts over.
    return videos.front().id;
}

bool PlaylistController::allVideosWatched() const {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    // Counts only: ids of videos no longer in the playlist still count.
    return completedVideoIDs().size() == videos.size();
}

void PlaylistController::userSelectedPlaylist(const std::optional<Playlist>& playlist) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    cancelCountdown();
    if (!playlist) return;
    currentPlaylist = *playlist;
    videos = playlist->videos;
    currentVideoID = nextVideoToPlayOnReturn();
    setNextPlaylist();
}

void PlaylistController::setNextPlaylist() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    const auto& list = playlists();
    auto current = std::find_if(list.begin(), list.end(),
                                [&](const Playlist& p) { return p.id == currentPlaylist->id; });
    // The catalogue is a ring: after the last (or an unknown) playlist comes the first.
    if (current != list.end() && std::next(current) != list.end())
        nextPlaylist = *std::next(current);
    else if (!list.empty())
        nextPlaylist = list.front();
    else {
        VPLogger::error("❌ The playlist catalogue is empty; there is no next playlist");
        nextPlaylist = std::nullopt;
    }
}

std::vector<Playlist> PlaylistController::loadAllplaylist() const {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    return playlists();
}

void PlaylistController::setCompletedVideosByPlaylist(
    std::map<std::string, std::set<std::string>> map) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    completedVideosByPlaylist = std::move(map);
    encodedCompletedVideos_.reset();
    persistCompletedVideos();
}

void PlaylistController::persistCompletedVideos() {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    if (!defaults_) return;
    if (!encodedCompletedVideos_) {
        nlohmann::json encoded = nlohmann::json::object();
        for (const auto& [playlistID, videoIDs] : completedVideosByPlaylist.get()) {
            auto& array = encoded[playlistID] = nlohmann::json::array();
            for (const auto& videoID : videoIDs) array.push_back(videoID);
        }
        encodedCompletedVideos_ = std::move(encoded);
    }
    // The store compares and ignores an unchanged value, so re-storing every tick
    // costs one comparison and no write.
    defaults_->setObject(kCompletedVideosKey, *encodedCompletedVideos_);
}

std::map<std::string, std::set<std::string>> PlaylistController::loadCompletedVideos() const {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    std::map<std::string, std::set<std::string>> result;
    if (!defaults_) return result;
    auto stored = defaults_->object(kCompletedVideosKey);
    if (!stored || !stored->is_object()) return result;
    // Any foreign value anywhere makes the whole entry unusable.
    for (const auto& [playlistID, videoIDs] : stored->items()) {
        if (!videoIDs.is_array()) return {};
        auto& set = result[playlistID];
        for (const auto& videoID : videoIDs) {
            if (!videoID.is_string()) return {};
            set.insert(videoID.get<std::string>());
        }
    }
    return result;
}

}  // namespace kavelin
