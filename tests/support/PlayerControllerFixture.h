#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Kavelin/Model/Catalogue.h"
#include "Kavelin/PlayerController.h"
#include "Kavelin/VideoPlayerBridgging.h"
#include "Kavelin/VideoPlayerService.h"
#include "VirtualPlatform.h"

namespace kavelin::testing {

// A service with its controllers on the virtual platform, over a two-playlist
// catalogue ("pl-1": a0 a1 a2, "pl-2": b0 b1) of 30-second clips.
class PlayerControllerTest : public ::testing::Test {
  protected:
    static constexpr double kClip = 30.0;

    void SetUp() override {
        subscriptionStatus() = SubscriptionStatus::free;
        playlists() = catalogue();
        for (const auto& p : playlists())
            for (const auto& v : p.videos) vp.media->add(v.url, kClip);
        service = std::make_shared<VideoPlayerService>(vp.platform());
        currentVideoPlayerService() = service;
        pc = service->playerController;
        playlist = service->playlistController;
    }

    void TearDown() override {
        currentVideoPlayerService().reset();
        pc.reset();
        playlist.reset();
        service.reset();
        subscriptionStatus() = SubscriptionStatus::free;
        playlists() = Playlist::allPlaylists();
    }

    // The catalogue the service starts with; fixtures may want a longer one.
    virtual std::vector<Playlist> catalogue() const {
        return {makePlaylist("pl-1", {"a0", "a1", "a2"}), makePlaylist("pl-2", {"b0", "b1"})};
    }

    static std::string urlOf(const std::string& id) {
        return "http://127.0.0.1:8080/" + id + ".m3u8";
    }

    static Playlist makePlaylist(const std::string& id, const std::vector<std::string>& ids) {
        std::vector<Video> videos;
        for (const auto& v : ids) videos.emplace_back(v, urlOf(v), "Title " + v, id, "");
        return Playlist(id, "Name " + id, std::nullopt, std::nullopt, videos);
    }

    static const Video& video(const std::string& playlistId, size_t index) {
        for (const auto& p : playlists())
            if (p.id == playlistId) return p.videos.at(index);
        throw std::runtime_error("no playlist " + playlistId);
    }

    // Starts a playlist through the service, as the host's PlayPlaylist does, and
    // lets the item become ready.
    void startPlaylist(const std::string& id) {
        service->playPlaylist(id);
        vp.runUntilIdle();
    }

    std::shared_ptr<SimulatedMediaPlayer> simPlayer() const {
        return std::dynamic_pointer_cast<SimulatedMediaPlayer>(pc->player.get());
    }

    std::optional<std::string> playingURL() const {
        auto p = simPlayer();
        return p ? p->currentURL() : std::nullopt;
    }
    // Where playback stands: the controller's index and the item the player holds.
    using Position = std::pair<int, std::optional<std::string>>;
    Position position() const { return {pc->currentIndex.get(), playingURL()}; }
    static Position at(int index, const std::string& id) { return {index, urlOf(id)}; }

    // A policy with one bucket covering every duration.
    static MidRollAdConfig policy(std::vector<double> placements, double adTimeout = 30) {
        MidRollAdConfig config;
        config.version = 1;
        config.adTimeoutSeconds = adTimeout;
        MidRollAdConfig::DurationBucket bucket;
        bucket.minSeconds = 0;
        bucket.maxSeconds = 100000;
        bucket.maxBreaks = static_cast<int64_t>(placements.size());
        bucket.placements = std::move(placements);
        config.durationBuckets.push_back(bucket);
        return config;
    }

    // Whether `shown` holds just before `seconds` from now and just after; time moves past it.
    template <class Flag>
    std::pair<bool, bool> around(const Flag& shown, double seconds, double margin = 0.1) {
        vp.advance(seconds - margin);
        const bool before = static_cast<bool>(shown);
        vp.advance(2 * margin);
        return {before, static_cast<bool>(shown)};
    }

    VirtualPlatform vp;  // first: outlives everything below
    LogCapture logs;
    EventRecorder events;
    std::shared_ptr<VideoPlayerService> service;
    std::shared_ptr<PlayerController> pc;
    std::shared_ptr<PlaylistController> playlist;
};

using Events = std::vector<HostEvent>;
inline const HostEvent kPlay{"OnVideoPlay", "true"};
inline HostEvent finished(int index) {
    return {"OnVideoFinished", std::to_string(index)};
}

}  // namespace kavelin::testing
