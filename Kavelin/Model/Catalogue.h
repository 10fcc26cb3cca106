#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace kavelin {

// A decode failure; what() names the key and what was wrong with it.
class DecodingError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

enum class SubscriptionStatus { free, premium };

std::string_view rawValue(SubscriptionStatus status);
std::optional<SubscriptionStatus> subscriptionStatusFromRaw(std::string_view raw);

// The viewer's tier for the whole process; starts free, changed by the service.
SubscriptionStatus& subscriptionStatus();

struct Video {
    std::string id;
    std::string url;
    std::string title;
    std::string description;
    std::string thumbnail;
    bool isWatched = false;

    Video() = default;
    Video(std::string id, std::string url, std::string title, std::string description,
          std::string thumbnail)
        : id(std::move(id)),
          url(std::move(url)),
          title(std::move(title)),
          description(std::move(description)),
          thumbnail(std::move(thumbnail)) {}
};

struct Playlist {
    std::string id;
    std::optional<std::string> name;
    std::optional<std::string> thumbnail;
    std::optional<std::string> description;
    std::vector<Video> videos;

    Playlist() = default;
    Playlist(std::string id, std::optional<std::string> name, std::optional<std::string> thumbnail,
             std::optional<std::string> description, std::vector<Video> videos)
        : id(std::move(id)),
          name(std::move(name)),
          thumbnail(std::move(thumbnail)),
          description(std::move(description)),
          videos(std::move(videos)) {}

    // The built-in sample catalogue: a copy of its first playlist, and all three.
    static Playlist& mockPlaylist();
    static std::vector<Playlist>& allPlaylists();
};

struct PlaylistResponse {
    std::string id;
    std::string name;
    std::string thumbnail;
};

struct Episode {
    std::string index;
    std::string url;
    std::string thumbnail;
    std::string title;
    int64_t isActive = 0;
    int64_t length = 0;

    // The playlist's id goes into the video's description on purpose: code that
    // needs a video's playlist reads it there.
    Video toVideo(const std::string& categoryId) const;
};

struct EpisodeResponse {
    std::string id;
    std::vector<Episode> episodes;
};

// The built-in sample catalogue (10, 3 and 4 videos) that stands in until the
// host sends real data. Its addresses play without any network.
struct SampleVideos {
    static const Playlist& Playlist1();
    static const Playlist& Playlist2();
    static const Playlist& Playlist3();
};

// The process-wide catalogue the player works on: the sample catalogue until the
// service's merge of host data replaces it whole. Main queue only.
std::vector<Playlist>& playlists();

// Strict decoding: required keys present with the right JSON type, optional keys
// absent or null, unknown keys ignored, quoted numbers rejected. Throws
// DecodingError (also for malformed JSON and ill-formed UTF-8).
Video decodeVideo(const nlohmann::json& json);
Playlist decodePlaylist(const nlohmann::json& json);
PlaylistResponse decodePlaylistResponse(const nlohmann::json& json);
Episode decodeEpisode(const nlohmann::json& json);
EpisodeResponse decodeEpisodeResponse(const nlohmann::json& json);
std::vector<PlaylistResponse> decodePlaylistResponses(std::string_view utf8);
std::vector<EpisodeResponse> decodeEpisodeResponses(std::string_view utf8);

// Encoding writes every required key and an optional one only when present.
nlohmann::json encode(const Video& video);
nlohmann::json encode(const Playlist& playlist);
nlohmann::json encode(const Episode& episode);
nlohmann::json encode(const EpisodeResponse& response);

}  // namespace kavelin
