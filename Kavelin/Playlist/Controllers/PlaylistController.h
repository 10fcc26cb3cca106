#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Kavelin/Model/Catalogue.h"
#include "Kavelin/Platform/Published.h"
#include "Kavelin/Platform/UserDefaults.h"
#include "Kavelin/Platform/WorkItem.h"

namespace kavelin {

enum class VideoState { watching, nextVideo, completed, none };

// What is being watched around the player: the playlist on screen, the video
// playing, the end-of-video countdown, the next playlist, and the watched videos
// of every playlist (kept across launches).
class PlaylistController : public ObservableObject {
  public:
    // The next video's countdown covers the last this-many seconds of the current one.
    static constexpr double kCountdownSeconds = 5;
    static constexpr const char* kCompletedVideosKey =
        "zelkin.playlistSDK.completedVideosByPlaylist";

    // Reads the process-wide catalogue (an empty one is logged as an error and leaves
    // the controller without a playlist) and the watched map from `defaults` (the
    // platform's store when null).
    explicit PlaylistController(std::shared_ptr<UserDefaults> defaults = nullptr);
    ~PlaylistController() override;

    Published<std::optional<std::string>> currentVideoID{this, std::nullopt};
    Published<std::optional<std::string>> countdownVideoID{this, std::nullopt};
    Published<int> remainingTime{this, 0};
    Published<std::map<std::string, std::set<std::string>>> completedVideosByPlaylist{this, {}};
    Published<Playlist> currentPlaylist;
    Published<std::optional<Playlist>> nextPlaylist{this, std::nullopt};

    // The working copy of the current playlist's videos; isWatched is set here.
    std::vector<Video> videos;

    VideoState state(const Video& video) const;
    int remainingTimeFor(const Video& video) const;

    void videoStarted(const std::string& id);
    void userSelectedVideo(const std::string& id);
    void videoCompleted(const std::string& id, double time);
    void triggerCountdownIfNeeded(const std::string& currentID, int remainingSeconds);
    void cancelCountdown();
    std::optional<size_t> firstUnwatchedVideoID() const;
    std::optional<std::string> nextVideoToPlayOnReturn() const;
    bool allVideosWatched() const;
    void userSelectedPlaylist(const std::optional<Playlist>& playlist);
    void setNextPlaylist();
    std::vector<Playlist> loadAllplaylist() const;

  private:
    // The watched set of the current playlist, without copying.
    const std::set<std::string>& completedVideoIDs() const;
    void setCompletedVideosByPlaylist(std::map<std::string, std::set<std::string>> map);
    void persistCompletedVideos();
    std::map<std::string, std::set<std::string>> loadCompletedVideos() const;

    std::shared_ptr<UserDefaults> defaults_;
    WorkItemPtr timer_;  // nothing starts one; cancelCountdown clears it
    std::optional<std::string> countdownTriggeredForVideoID_;
    // The watched map as last stored, kept so an unchanged map is not re-encoded.
    std::optional<nlohmann::json> encodedCompletedVideos_;
};

}  // namespace kavelin
