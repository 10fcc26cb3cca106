// One player clock tick as the playlist side sees it: record the watched video,
// drive the countdown, look for a due mid-roll cue point. The player calls this
// ten times a second for the whole of playback.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Kavelin/Model/Catalogue.h"
#include "Kavelin/Model/MidRollAdConfig.h"
#include "Kavelin/Model/MidRollCuePointState.h"
#include "Kavelin/Platform/Linux/FileUserDefaults.h"
#include "Kavelin/Playlist/Controllers/PlaylistController.h"
#include "Kavelin/log/VPLogger.h"
#include "support/VirtualMainQueue.h"

namespace {

using namespace kavelin;
namespace fs = std::filesystem;

constexpr double kDuration = 600.0;  // a ten-minute video
constexpr double kTick = 0.1;

Playlist makePlaylist(const std::string& id, int count) {
    std::vector<Video> videos;
    for (int i = 0; i < count; ++i) {
        const std::string vid = id + "-episode-" + std::to_string(i);
        videos.emplace_back(vid, "https://cdn.example.invalid/" + vid + ".m3u8", "Episode", id,
                            "https://cdn.example.invalid/" + vid + ".jpg");
    }
    return Playlist(id, "Playlist " + id, std::nullopt, std::nullopt, std::move(videos));
}

MidRollCuePointState threeCuePoints() {
    MidRollAdConfig config;
    config.globalConstraints.minGapSeconds = 60;
    config.globalConstraints.noAdZoneStartSeconds = 30;
    config.globalConstraints.noAdZoneEndSeconds = 30;
    config.durationBuckets.push_back({0, 100000, 3, {0.25, 0.5, 0.75}});
    MidRollCuePointState cues;
    cues.computeCuePoints(kDuration, std::nullopt, config);
    return cues;
}

// A temp directory, a store on virtual time and a controller on a catalogue of
// three 50-video playlists.
struct Fixture {
    fs::path dir;
    std::shared_ptr<VirtualMainQueue> queue = std::make_shared<VirtualMainQueue>();
    std::shared_ptr<FileUserDefaults> store;
    std::unique_ptr<PlaylistController> controller;

    Fixture() {
        std::string tmpl = (fs::temp_directory_path() / "kavelin-bench-XXXXXX").string();
        if (!::mkdtemp(tmpl.data())) std::abort();
        dir = tmpl;
        playlists() = {makePlaylist("P1", 50), makePlaylist("P2", 50), makePlaylist("P3", 50)};
        store = std::make_shared<FileUserDefaults>(dir / "UserDefaults.json", queue);
        controller = std::make_unique<PlaylistController>(store);
    }
    ~Fixture() {
        controller.reset();
        store.reset();
        fs::remove_all(dir);
    }
    // Every video of every playlist watched: the largest map the store compares.
    void watchEverything() {
        for (const auto& p : playlists()) {
            controller->userSelectedPlaylist(p);
            for (const auto& v : p.videos) controller->videoCompleted(v.id, 10.0);
        }
        controller->userSelectedPlaylist(playlists().front());
        store->flush();
    }
};

// state.range(0): seconds into the video at the start of the measured ticks
// (30 = mid-video, 596 = inside the countdown window). state.range(1): 1 when
// every video is already watched (large map), 0 when only the current one is.
void BM_PlaylistClockTick(benchmark::State& state) {
    Fixture f;
    if (state.range(1)) f.watchEverything();
    auto cues = threeCuePoints();
    if (cues.cuePoints.size() != 3) state.SkipWithError("expected three cue points");
    auto& pc = *f.controller;
    const std::string id = pc.videos[7].id;
    pc.videoStarted(id);
    pc.videoCompleted(id, 10.0);  // steady state: the playing video is already recorded
    f.store->flush();
    const size_t writesBefore = f.store->fileWriteCount();

    const double start = static_cast<double>(state.range(0));
    double position = start;
    for (auto _ : state) {
        pc.videoCompleted(id, position);
        pc.triggerCountdownIfNeeded(id, static_cast<int>(kDuration - position));
        benchmark::DoNotOptimize(cues.cuePointToTrigger(position));
        position += kTick;
        if (position >= kDuration) position = start;
    }
    f.queue->advance(2.0);
    state.counters["fileWrites"] = static_cast<double>(f.store->fileWriteCount() - writesBefore);
}
BENCHMARK(BM_PlaylistClockTick)
    ->ArgNames({"position", "allWatched"})
    ->Args({30, 0})
    ->Args({30, 1})
    ->Args({596, 0})
    ->Args({596, 1});

// 600 simulated ticks (one minute of playback) past 10 s, the virtual queue
// advanced 0.1 s per tick, counting the store's file writes.
//   scenario 0: the video was watched before: nothing changes, no write.
//   scenario 1: the video crosses 10 s at the first tick: one change, one write.
//   scenario 2: a new id every tick (worst case): at most one write a second.
void BM_StoreWritesOver600Ticks(benchmark::State& state) {
    const int scenario = static_cast<int>(state.range(0));
    size_t writes = 0;
    for (auto _ : state) {
        Fixture f;
        auto& pc = *f.controller;
        const std::string id = pc.videos[3].id;
        pc.videoStarted(id);
        if (scenario == 0) pc.videoCompleted(id, 10.0);
        f.store->flush();
        const size_t before = f.store->fileWriteCount();
        double position = 10.0;
        for (int tick = 0; tick < 600; ++tick) {
            const std::string current = scenario == 2 ? "id-" + std::to_string(tick) : id;
            pc.videoCompleted(current, position);
            pc.triggerCountdownIfNeeded(current, static_cast<int>(kDuration - position));
            f.queue->advance(kTick);
            position += kTick;
        }
        writes = f.store->fileWriteCount() - before;
    }
    state.counters["fileWrites"] = static_cast<double>(writes);
    state.counters["simulatedSeconds"] = 600 * kTick;
    state.counters["writesPerSimulatedSecond"] = static_cast<double>(writes) / (600 * kTick);
}
BENCHMARK(BM_StoreWritesOver600Ticks)
    ->ArgName("scenario")
    ->Arg(0)
    ->Arg(1)
    ->Arg(2)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    // Teardown and cue-point planning log; keep the report readable.
    kavelin::VPLogger::setEnabled(false);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
