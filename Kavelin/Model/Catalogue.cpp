#include "Kavelin/Model/Catalogue.h"

#include <array>

#include "Kavelin/Extentions/EmbeddedResources.h"
#include "Kavelin/Model/JsonDecoding.h"
#include "Kavelin/Platform/Immortal.h"

namespace kavelin {

using namespace json_decoding;

// MARK: - Subscription tier

std::string_view rawValue(SubscriptionStatus status) {
    return status == SubscriptionStatus::premium ? "premium" : "free";
}

std::optional<SubscriptionStatus> subscriptionStatusFromRaw(std::string_view raw) {
    if (raw == "free") return SubscriptionStatus::free;
    if (raw == "premium") return SubscriptionStatus::premium;
    return std::nullopt;
}

SubscriptionStatus& subscriptionStatus() {
    static SubscriptionStatus status = SubscriptionStatus::free;
    return status;
}

// MARK: - Episode to video

namespace {

// Unicode white space and line breaks, UTF-8 encoded. Host addresses arrive
// with pasted-in padding, sometimes a no-break space or U+2028.
constexpr std::array<std::string_view, 25> kBlanks = {
    " ",
    "\t",
    "\n",
    "\v",
    "\f",
    "\r",
    "\xC2\x85",
    "\xC2\xA0",
    "\xE1\x9A\x80",
    "\xE2\x80\x80",
    "\xE2\x80\x81",
    "\xE2\x80\x82",
    "\xE2\x80\x83",
    "\xE2\x80\x84",
    "\xE2\x80\x85",
    "\xE2\x80\x86",
    "\xE2\x80\x87",
    "\xE2\x80\x88",
    "\xE2\x80\x89",
    "\xE2\x80\x8A",
    "\xE2\x80\xA8",
    "\xE2\x80\xA9",
    "\xE2\x80\xAF",
    "\xE2\x81\x9F",
    "\xE3\x80\x80",
};

std::string trimBlanks(std::string_view text) {
    bool changed = true;
    while (changed && !text.empty()) {
        changed = false;
        for (auto blank : kBlanks) {
            if (text.starts_with(blank)) {
                text.remove_prefix(blank.size());
                changed = true;
                break;
            }
        }
    }
    changed = true;
    while (changed && !text.empty()) {
        changed = false;
        for (auto blank : kBlanks) {
            if (text.ends_with(blank)) {
                text.remove_suffix(blank.size());
                changed = true;
                break;
            }
        }
    }
    return std::string(text);
}

}  // namespace

Video Episode::toVideo(const std::string& categoryId) const {
    return Video(index, trimBlanks(url), title, categoryId, thumbnail);
}

// MARK: - Sample catalogue

namespace {

// Sample videos are libavfilter sources played through mpv's lavfi protocol, so
// the player works with no network and no media files. The source reports no
// duration of its own; wrapping it in an edit list of a fixed length gives the
// player a real duration and a real end. Graphs carry no ',' or ';' (edit-list
// separators).
std::string sampleAddress(std::string_view graph, int seconds) {
    return "edl://file=av://lavfi:" + std::string(graph) + ",length=" + std::to_string(seconds);
}

std::string thumbnail(std::string_view name) {
    return std::string(resourceScheme) + "Thumbnails/" + std::string(name) + ".svg";
}

Playlist makePlaylist1() {
    const std::string id = "sample-playlist-1";
    return Playlist(
        id, "Test Patterns", thumbnail("playlist-1"),
        "Ten classic broadcast and test patterns, from colour bars to fractals.",
        {
            Video("sample-1-01", sampleAddress("testsrc2=size=480x270:rate=25", 30),
                  "Moving Test Card", id, thumbnail("sample-1-01")),
            Video("sample-1-02", sampleAddress("testsrc=size=480x270:rate=25", 25),
                  "Counting Gradient", id, thumbnail("sample-1-02")),
            Video("sample-1-03", sampleAddress("smptebars=size=480x270:rate=25", 40), "Colour Bars",
                  id, thumbnail("sample-1-03")),
            Video("sample-1-04", sampleAddress("smptehdbars=size=480x270:rate=25", 35),
                  "HD Colour Bars", id, thumbnail("sample-1-04")),
            Video("sample-1-05", sampleAddress("rgbtestsrc=size=480x270:rate=25", 20),
                  "Red, Green and Blue", id, thumbnail("sample-1-05")),
            Video("sample-1-06", sampleAddress("yuvtestsrc=size=480x270:rate=25", 45),
                  "Light and Colour", id, thumbnail("sample-1-06")),
            Video("sample-1-07", sampleAddress("mandelbrot=size=480x270:rate=25", 50),
                  "Mandelbrot Dive", id, thumbnail("sample-1-07")),
            Video("sample-1-08", sampleAddress("life=size=480x270:rate=25:mold=10:seed=7", 40),
                  "Game of Life", id, thumbnail("sample-1-08")),
            Video("sample-1-09", sampleAddress("cellauto=size=480x270:rate=25:rule=30", 30),
                  "Rule Thirty", id, thumbnail("sample-1-09")),
            Video("sample-1-10", sampleAddress("pal100bars=size=480x270:rate=25", 25), "PAL Bars",
                  id, thumbnail("sample-1-10")),
        });
}

Playlist makePlaylist2() {
    const std::string id = "sample-playlist-2";
    return Playlist(
        id, "Colours", thumbnail("playlist-2"), "Slow washes of colour to rest the eyes.",
        {
            Video("sample-2-01", sampleAddress("gradients=size=480x270:rate=25:speed=0.02", 40),
                  "Drifting Gradients", id, thumbnail("sample-2-01")),
            Video("sample-2-02", sampleAddress("colorspectrum=size=480x270:rate=25:type=all", 20),
                  "The Whole Spectrum", id, thumbnail("sample-2-02")),
            Video(
                "sample-2-03",
                sampleAddress(
                    "gradients=size=480x270:rate=25:type=radial:c0=orange:c1=teal:speed=0.01", 25),
                "Orange and Teal", id, thumbnail("sample-2-03")),
        });
}

Playlist makePlaylist3() {
    const std::string id = "sample-playlist-3";
    return Playlist(
        id, "Patterns in Motion", thumbnail("playlist-3"),
        "Shapes that grow, repeat and change all by themselves.",
        {
            Video("sample-3-01", sampleAddress("sierpinski=size=480x270:rate=25:type=carpet", 30),
                  "Sierpinski Carpet", id, thumbnail("sample-3-01")),
            Video("sample-3-02",
                  sampleAddress("cellauto=size=480x270:rate=25:rule=110:random_fill_ratio=0.5", 35),
                  "Rule One Hundred Ten", id, thumbnail("sample-3-02")),
            Video("sample-3-03", sampleAddress("mptestsrc=rate=25", 30), "Motion Test", id,
                  thumbnail("sample-3-03")),
            Video("sample-3-04", sampleAddress("testsrc2=size=480x270:rate=30", 60),
                  "One Minute Test Card", id, thumbnail("sample-3-04")),
        });
}

}  // namespace

const Playlist& SampleVideos::Playlist1() {
    static Immortal<const Playlist> playlist(makePlaylist1());
    return playlist.get();
}

const Playlist& SampleVideos::Playlist2() {
    static Immortal<const Playlist> playlist(makePlaylist2());
    return playlist.get();
}

const Playlist& SampleVideos::Playlist3() {
    static Immortal<const Playlist> playlist(makePlaylist3());
    return playlist.get();
}

Playlist& Playlist::mockPlaylist() {
    static Immortal<Playlist> playlist(SampleVideos::Playlist1());
    return playlist.get();
}

std::vector<Playlist>& Playlist::allPlaylists() {
    static Immortal<std::vector<Playlist>> all(std::vector<Playlist>{
        SampleVideos::Playlist1(), SampleVideos::Playlist2(), SampleVideos::Playlist3()});
    return all.get();
}

std::vector<Playlist>& playlists() {
    static Immortal<std::vector<Playlist>> list(Playlist::allPlaylists());
    return list.get();
}

// MARK: - Decoding

namespace {

// The decoders read a document that is thrown away afterwards, so its strings are
// moved out rather than copied.
std::string stringMember(json& object, const Where& where, std::string_view key) {
    return takeString(requiredMember(object, where, key), member(where, key));
}

std::optional<std::string> optionalStringMember(json& object, const Where& where,
                                                std::string_view key) {
    json* value = optionalMember(object, key);
    if (!value) return std::nullopt;
    return takeString(*value, member(where, key));
}

Video videoAt(json& value, const Where& where) {
    requireObject(value, where);
    // One key at a time: which missing key is reported must not depend on evaluation order.
    Video video;
    video.id = stringMember(value, where, "id");
    video.url = stringMember(value, where, "url");
    video.title = stringMember(value, where, "title");
    video.description = stringMember(value, where, "description");
    video.thumbnail = stringMember(value, where, "thumbnail");
    video.isWatched =
        readBool(requiredMember(value, where, "isWatched"), member(where, "isWatched"));
    return video;
}

Playlist playlistAt(json& value, const Where& where) {
    requireObject(value, where);
    Playlist playlist;
    playlist.id = stringMember(value, where, "id");
    playlist.name = optionalStringMember(value, where, "name");
    playlist.thumbnail = optionalStringMember(value, where, "thumbnail");
    playlist.description = optionalStringMember(value, where, "description");
    playlist.videos =
        readArray<Video>(requiredMember(value, where, "videos"), member(where, "videos"), videoAt);
    return playlist;
}

PlaylistResponse playlistResponseAt(json& value, const Where& where) {
    requireObject(value, where);
    PlaylistResponse response;
    response.id = stringMember(value, where, "id");
    response.name = stringMember(value, where, "name");
    response.thumbnail = stringMember(value, where, "thumbnail");
    return response;
}

Episode episodeAt(json& value, const Where& where) {
    requireObject(value, where);
    Episode episode;
    episode.index = stringMember(value, where, "index");
    episode.url = stringMember(value, where, "url");
    episode.thumbnail = stringMember(value, where, "thumbnail");
    episode.title = stringMember(value, where, "title");
    episode.isActive =
        readInt64(requiredMember(value, where, "isActive"), member(where, "isActive"));
    episode.length = readInt64(requiredMember(value, where, "length"), member(where, "length"));
    return episode;
}

EpisodeResponse episodeResponseAt(json& value, const Where& where) {
    requireObject(value, where);
    EpisodeResponse response;
    response.id = stringMember(value, where, "id");
    response.episodes = readArray<Episode>(requiredMember(value, where, "episodes"),
                                           member(where, "episodes"), episodeAt);
    return response;
}

// The single-record decoders leave the caller's document intact.
template <typename T>
T fromCopy(const json& value, T (*read)(json&, const Where&)) {
    json copy = value;
    return read(copy, topLevel());
}

}  // namespace

Video decodeVideo(const json& value) {
    return fromCopy(value, videoAt);
}
Playlist decodePlaylist(const json& value) {
    return fromCopy(value, playlistAt);
}
PlaylistResponse decodePlaylistResponse(const json& value) {
    return fromCopy(value, playlistResponseAt);
}
Episode decodeEpisode(const json& value) {
    return fromCopy(value, episodeAt);
}
EpisodeResponse decodeEpisodeResponse(const json& value) {
    return fromCopy(value, episodeResponseAt);
}

std::vector<PlaylistResponse> decodePlaylistResponses(std::string_view utf8) {
    json document = parse(utf8);
    return readArray<PlaylistResponse>(document, topLevel(), playlistResponseAt);
}

std::vector<EpisodeResponse> decodeEpisodeResponses(std::string_view utf8) {
    json document = parse(utf8);
    return readArray<EpisodeResponse>(document, topLevel(), episodeResponseAt);
}

// MARK: - Encoding

nlohmann::json encode(const Video& video) {
    return {{"id", video.id},
            {"url", video.url},
            {"title", video.title},
            {"description", video.description},
            {"thumbnail", video.thumbnail},
            {"isWatched", video.isWatched}};
}

nlohmann::json encode(const Playlist& playlist) {
    nlohmann::json out = nlohmann::json::object();
    out["id"] = playlist.id;
    if (playlist.name) out["name"] = *playlist.name;
    if (playlist.thumbnail) out["thumbnail"] = *playlist.thumbnail;
    if (playlist.description) out["description"] = *playlist.description;
    out["videos"] = nlohmann::json::array();
    for (const auto& video : playlist.videos) out["videos"].push_back(encode(video));
    return out;
}

nlohmann::json encode(const Episode& episode) {
    return {{"index", episode.index},         {"url", episode.url},
            {"thumbnail", episode.thumbnail}, {"title", episode.title},
            {"isActive", episode.isActive},   {"length", episode.length}};
}

nlohmann::json encode(const EpisodeResponse& response) {
    nlohmann::json out = {{"id", response.id}, {"episodes", nlohmann::json::array()}};
    for (const auto& episode : response.episodes) out["episodes"].push_back(encode(episode));
    return out;
}

}  // namespace kavelin
