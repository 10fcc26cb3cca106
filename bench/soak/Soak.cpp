// Long-run resource check (make soak): a premium viewer through a ring of 300
// one-second videos, then a free viewer through 100 videos whose mid-roll and
// between-videos ads the host acknowledges 0.2 s after the screen has closed.
// Real libmpv on generated sources, headless. Every 50 videos it prints resident
// memory (after malloc_trim), threads and open descriptors; after the first 50
// they must stay flat.
#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>

#include "Kavelin/Kavelin.h"
#include "Kavelin/Platform/Platform.h"
#include "Kavelin/log/VPLogger.h"

namespace {

using namespace std::chrono_literals;

std::mutex gMutex;
std::condition_variable gChanged;
std::deque<std::string> gEvents;

void onEvent(const char* message) {
    {
        std::lock_guard lock(gMutex);
        gEvents.emplace_back(message);
    }
    gChanged.notify_all();
}

// The next event, or empty after `timeout` without one.
std::string nextEvent(std::chrono::seconds timeout) {
    std::unique_lock lock(gMutex);
    if (!gChanged.wait_for(lock, timeout, [] { return !gEvents.empty(); })) return {};
    std::string e = std::move(gEvents.front());
    gEvents.pop_front();
    return e;
}

size_t entries(const char* dir) {
    size_t n = 0;
    std::error_code ec;
    for (auto it = std::filesystem::directory_iterator(dir, ec);
         !ec && it != std::filesystem::directory_iterator(); it.increment(ec))
        ++n;
    return n;
}

long rssKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
    return -1;
}

void report(const char* run, int videos) {
    malloc_trim(0);
    std::printf("%s_videos_%d: rss_kib=%ld threads=%zu fds=%zu\n", run, videos, rssKiB(),
                entries("/proc/self/task"), entries("/proc/self/fd"));
    std::fflush(stdout);
}

// `playlists` playlists of `perPlaylist` generated one-second clips, each address
// distinct as a content server's would be.
void sendCatalogue(const std::string& prefix, int playlists, int perPlaylist) {
    std::string lists = "[", episodes = "[";
    for (int p = 0; p < playlists; ++p) {
        const std::string id = prefix + std::to_string(p);
        if (p) {
            lists += ',';
            episodes += ',';
        }
        lists += std::string(R"({"id":")") + id + R"(","name":")" + id + R"(","thumbnail":""})";
        episodes += std::string(R"({"id":")") + id + R"(","episodes":[)";
        for (int v = 0; v < perPlaylist; ++v) {
            const int n = p * perPlaylist + v;
            if (v) episodes += ',';
            episodes += std::string(R"({"index":")") + prefix + "v" + std::to_string(n) +
                        R"(","url":"edl://file=av://lavfi:testsrc2=size=320x180:rate=)" +
                        std::to_string(2400 + n) + "/100" +
                        R"(,length=1","thumbnail":"","title":"T",)"
                        R"("isActive":1,"length":1})";
        }
        episodes += "]}";
    }
    SetPlaylists((lists + "]").c_str());
    SetEpisodes((episodes + "]").c_str());
}

// Plays until `videos` have finished, acknowledging ads; false when stuck.
bool run(const char* name, int videos) {
    int finished = 0, midRolls = 0, betweenAds = 0;
    bool adPending = false;
    while (finished < videos) {
        std::string e = nextEvent(60s);
        if (e.empty()) {
            std::printf("%s: stuck after %d videos\n", name, finished);
            return false;
        }
        if (e.rfind("OnVideoFinished:", 0) == 0) {
            if (++finished % 50 == 0) report(name, finished);
        } else if (e.rfind("OnMidRollAdRequired:", 0) == 0) {
            ++midRolls;
            adPending = true;
        } else if (e.rfind("OnNextVideoAdRequired:", 0) == 0) {
            ++betweenAds;
            adPending = true;
        } else if (e == "OnViewDismissed:ad_required" && adPending) {
            adPending = false;
            std::this_thread::sleep_for(200ms);  // the host's ad
            AdCompletedResumePlayback();
        }
    }
    std::printf("%s_ads: mid_roll=%d between_videos=%d\n", name, midRolls, betweenAds);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    // Shorter runs for a quick look: kavelin-soak [premium videos] [free videos].
    const int premiumVideos = argc > 1 ? std::atoi(argv[1]) : 300;
    const int freeVideos = argc > 2 ? std::atoi(argv[2]) : 100;
    char configDir[] = "/tmp/kavelin-soak-XXXXXX";
    if (!mkdtemp(configDir)) return 1;
    setenv("XDG_CONFIG_HOME", configDir, 1);
    setenv("KAVELIN_HEADLESS", "1", 1);
    // 400 videos of log lines hide the figures; KAVELIN_SOAK_LOGS=1 keeps them.
    const bool logs = std::getenv("KAVELIN_SOAK_LOGS") != nullptr;
    if (!logs) kavelin::VPLogger::setSink([](const std::string&) {});

    registerUnityCallback(onEvent);
    const char* noUrls[] = {nullptr};
    setURLS(noUrls, 0);
    report("start", 0);

    SetPremium(true);
    sendCatalogue("p", 3, 10);
    PlayPlaylist("p0");
    bool ok = run("premium", premiumVideos);

    // A cue 0.8 s into two videos of three; the cooldown keeps the restart after
    // a mid-roll (and the end right after it) from asking again, so the third
    // video's end asks for the between-videos ad.
    cleanup();
    setURLS(noUrls, 0);
    SetPremium(false);
    sendCatalogue("f", 4, 25);
    std::string overrides;
    for (int n = 0; n < 100; ++n)
        if (n % 3 != 2)
            overrides += std::string(overrides.empty() ? "" : ",") + "\"fv" + std::to_string(n) +
                         R"(":{"cuePointSeconds":[0.8]})";
    const std::string policy =
        R"({"version":1,"adTimeoutSeconds":30,"globalConstraints":{"minGapSeconds":0,)"
        R"("noAdZoneStartSeconds":0.1,"noAdZoneEndSeconds":0.1,"minSecondsBetweenAnyAds":1.6},)"
        R"("durationBuckets":[],"videoOverrides":{)" +
        overrides + "}}";
    SetMidRollAdConfig(policy.c_str());
    {
        std::lock_guard lock(gMutex);
        gEvents.clear();
    }
    PlayPlaylist("f0");
    ok = run("free", freeVideos) && ok;

    cleanup();
    if (!logs) kavelin::VPLogger::setSink(nullptr);
    std::filesystem::remove_all(configDir);
    return ok ? 0 : 1;
}
