// Catalogue ingest: SetPlaylists + SetEpisodes of 10,000 episodes in 200 playlists
// through the service (decode, merge and the per-playlist log lines), side by side
// with a plain nlohmann parse of the same two documents.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Kavelin/VideoPlayerService.h"
#include "Kavelin/log/VPLogger.h"
#include "support/VirtualPlatform.h"

namespace {

using namespace kavelin;

// CPU time of this thread: everything measured runs on it, and a busy machine
// then slows both sides alike instead of adding other processes' time.
struct Clock {
    using time_point = std::chrono::nanoseconds;
    static time_point now() {
        timespec ts{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
        return std::chrono::seconds(ts.tv_sec) + std::chrono::nanoseconds(ts.tv_nsec);
    }
};

constexpr int kPlaylists = 200;
constexpr int kEpisodesPerPlaylist = 50;
constexpr int kSamples = 31;

struct Documents {
    std::string playlists;
    std::string episodes;
};

Documents makeDocuments() {
    nlohmann::json playlists = nlohmann::json::array();
    nlohmann::json groups = nlohmann::json::array();
    for (int p = 0; p < kPlaylists; ++p) {
        const std::string id = "playlist-" + std::to_string(p);
        playlists.push_back({{"id", id},
                             {"name", "Playlist number " + std::to_string(p)},
                             {"thumbnail", "https://cdn.example.invalid/" + id + ".jpg"}});
        nlohmann::json episodes = nlohmann::json::array();
        for (int e = 0; e < kEpisodesPerPlaylist; ++e) {
            const std::string ep = id + "-episode-" + std::to_string(e);
            episodes.push_back({{"index", ep},
                                {"url", "https://cdn.example.invalid/" + ep + "/index.m3u8"},
                                {"thumbnail", "https://cdn.example.invalid/" + ep + ".jpg"},
                                {"title", "Episode " + std::to_string(e) + " of " + id},
                                {"isActive", 1},
                                {"length", 300 + e}});
        }
        groups.push_back({{"id", id}, {"episodes", std::move(episodes)}});
    }
    // The episode groups arrive in reverse order so the merge has to look them up.
    std::reverse(groups.begin(), groups.end());
    return {playlists.dump(), groups.dump()};
}

double millisSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

}  // namespace

int main() {
    const Documents docs = makeDocuments();
    testing::VirtualPlatform platform;
    // The lines are formatted in full; only the terminal write is left out.
    size_t lines = 0;
    VPLogger::setSink([&](const std::string&) { ++lines; });

    std::vector<double> plain, ingest;
    for (int i = 0; i < kSamples; ++i) {
        auto start = Clock::now();
        auto a = nlohmann::json::parse(docs.playlists);
        auto b = nlohmann::json::parse(docs.episodes);
        plain.push_back(millisSince(start));
        if (a.size() + b.size() != 2 * kPlaylists) return 1;

        VideoPlayerService service(platform.platform());
        start = Clock::now();
        service.setPlaylistsFromUnity(docs.playlists);
        service.setEpisodesFromUnity(docs.episodes);
        ingest.push_back(millisSince(start));
        if (playlists().size() != kPlaylists) {
            std::fprintf(stderr, "ingest produced %zu playlists\n", playlists().size());
            return 1;
        }
    }
    VPLogger::setSink(nullptr);

    const double p = median(plain), g = median(ingest);
    std::printf("ingest_documents_bytes: %zu\n", docs.playlists.size() + docs.episodes.size());
    std::printf("ingest_log_lines_per_run: %zu\n", lines / kSamples);
    std::printf("ingest_plain_parse_ms: %.2f\n", p);
    std::printf("ingest_service_ms: %.2f\n", g);
    std::printf("ingest_ratio: %.2f\n", g / p);
    return 0;
}
