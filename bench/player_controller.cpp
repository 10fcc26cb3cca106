// The player controller on the virtual platform: what one second of playback
// (ten clock ticks with a playlist attached) and one item change cost.

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "Kavelin/Model/Catalogue.h"
#include "Kavelin/PlayerController.h"
#include "Kavelin/log/VPLogger.h"
#include "support/VirtualPlatform.h"

namespace {

using namespace kavelin;
using kavelin::testing::VirtualPlatform;

Playlist makePlaylist(int count) {
    std::vector<Video> videos;
    for (int i = 0; i < count; ++i) {
        const std::string id = "episode-" + std::to_string(i);
        videos.emplace_back(id, "https://cdn.example.invalid/" + id + ".m3u8", "Episode", "pl", "");
    }
    return Playlist("pl", "Playlist", std::nullopt, std::nullopt, std::move(videos));
}

// Silences the logger for as long as everything declared after it lives.
struct QuietLog {
    QuietLog() { VPLogger::setEnabled(false); }
    ~QuietLog() { VPLogger::setEnabled(true); }
};

struct Setup {
    QuietLog quiet;
    VirtualPlatform vp;
    std::shared_ptr<PlaylistController> playlist;
    std::shared_ptr<PlayerController> controller;

    explicit Setup(double clipSeconds) {
        subscriptionStatus() = SubscriptionStatus::free;
        playlists() = {makePlaylist(30)};
        vp.media->setDefaultDuration(clipSeconds);
        playlist = std::make_shared<PlaylistController>(vp.defaults);
        controller = PlayerController::make(vp.platform());
        controller->playPlaylist(playlist, playlists()[0]);
        vp.runUntilIdle();
    }
};

void BM_OneSecondOfPlayback(benchmark::State& state) {
    Setup s(1e9);  // never ends during the run
    for (auto _ : state) {
        s.vp.advance(1.0);
        benchmark::DoNotOptimize(s.controller->currentTime.get());
    }
    state.SetItemsProcessed(state.iterations() * 10);  // ticks
}
BENCHMARK(BM_OneSecondOfPlayback);

void BM_LoadVideo(benchmark::State& state) {
    Setup s(30);
    int i = 0;
    for (auto _ : state) {
        s.controller->moveAndLoad(i % 30, s.controller->getURLs()[static_cast<size_t>(i % 30)]);
        s.vp.runUntilIdle();
        ++i;
    }
}
BENCHMARK(BM_LoadVideo);

}  // namespace

BENCHMARK_MAIN();
