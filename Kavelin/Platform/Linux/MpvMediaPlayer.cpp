#include "Kavelin/Platform/Linux/MpvMediaPlayer.h"

#include <mpv/client.h>

#include <atomic>
#include <clocale>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <limits>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "Kavelin/Extentions/NumberFormatting.h"
#include "Kavelin/Extentions/ThreadName.h"
#include "Kavelin/Platform/Immortal.h"
#include "Kavelin/Platform/Linux/Environment.h"
#include "Kavelin/Platform/Linux/MpvPlayerCore.h"
#include "Kavelin/log/VPLogger.h"

namespace kavelin {
namespace {

// The audio outputs worth trying here. Sound libraries print straight to
// standard error when their server or card is missing, so only outputs that
// have one are listed; silence is the last resort.
std::string availableAudioOutputs() {
    namespace fs = std::filesystem;
    std::error_code ec;
    std::string list;
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    fs::path runtimeDir = runtime && *runtime ? fs::path(runtime) : fs::path();
    if (!runtimeDir.empty() && fs::exists(runtimeDir / "pipewire-0", ec)) list += "pipewire,";
    if (environmentSet("PULSE_SERVER") ||
        (!runtimeDir.empty() && fs::exists(runtimeDir / "pulse" / "native", ec)))
        list += "pulse,";
    if (fs::is_directory("/dev/snd", ec)) {
        for (const auto& entry : fs::directory_iterator("/dev/snd", ec)) {
            auto name = entry.path().filename().string();
            if (name.rfind("pcmC", 0) == 0 && name.back() == 'p') {
                list += "alsa,";
                break;
            }
        }
    }
    return list + "null";
}

// Creating mpv loads its libraries and starts its threads; tearing it down joins
// them: tens of milliseconds each, which a host call waiting on the main queue
// would feel. One thread does both, in order, for every player.
class BackgroundWork {
  public:
    void post(std::function<void()> task) {
        std::lock_guard lock(mutex_);
        if (!thread_.joinable()) thread_ = namedThread("kavelin-mpv-bg", [this] { run(); });
        tasks_.push_back(std::move(task));
        changed_.notify_all();
    }
    void drain() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return tasks_.empty() && !busy_; });
    }

  private:
    // Never returns: the thread idles until the process ends (the object is never
    // destroyed), and exit waits for its work through drain().
    void run() {
        std::unique_lock lock(mutex_);
        for (;;) {
            changed_.wait(lock, [this] { return !tasks_.empty(); });
            auto task = std::move(tasks_.front());
            tasks_.pop_front();
            busy_ = true;
            lock.unlock();
            task();
            lock.lock();
            busy_ = false;
            changed_.notify_all();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::function<void()>> tasks_;
    bool busy_ = false;
    std::thread thread_;
};

BackgroundWork& backgroundWork() {
    static Immortal<BackgroundWork> work;
    return work.get();
}

}  // namespace

void mpv_detail::runInBackground(std::function<void()> task) {
    backgroundWork().post(std::move(task));
}

mpv_handle* mpv_detail::createCore(const MpvMediaPlayer::Options& options, std::string& error) {
    using namespace mpv_detail;
    mpv_handle* mpv = mpv_create();
    if (!mpv) {
        error = "❌ mpv could not be created";
        return nullptr;
    }
    MpvMediaPlayer::configure(mpv, options);
    if (mpv_initialize(mpv) < 0) {
        error = "❌ mpv could not be initialised";
        mpv_terminate_destroy(mpv);
        return nullptr;
    }
    // Warnings and errors: the first one of a failed load names the cause.
    mpv_request_log_messages(mpv, "warn");
    mpv_observe_property(mpv, kTimePos, "time-pos", MPV_FORMAT_DOUBLE);
    mpv_observe_property(mpv, kDuration, "duration", MPV_FORMAT_DOUBLE);
    mpv_observe_property(mpv, kPause, "pause", MPV_FORMAT_FLAG);
    mpv_observe_property(mpv, kCoreIdle, "core-idle", MPV_FORMAT_FLAG);
    mpv_observe_property(mpv, kPausedForCache, "paused-for-cache", MPV_FORMAT_FLAG);
    mpv_observe_property(mpv, kSeeking, "seeking", MPV_FORMAT_FLAG);
    mpv_observe_property(mpv, kIdleActive, "idle-active", MPV_FORMAT_FLAG);
    mpv_observe_property(mpv, kEofReached, "eof-reached", MPV_FORMAT_FLAG);
    return mpv;
}

void MpvMediaPlayer::finishBackgroundWork() {
    backgroundWork().drain();
}

// libmpv refuses to start under any numeric locale but "C" (it parses and prints
// numbers with the C library), and the setting is process-wide, so a host that
// adopted its user's locale would get no video at all.
void mpv_detail::useCNumericLocale() {
    const char* current = std::setlocale(LC_NUMERIC, nullptr);
    if (current && std::strcmp(current, "C") == 0) return;
    const std::string previous = current ? current : "(unknown)";
    if (!std::setlocale(LC_NUMERIC, "C")) return;
    VPLogger::warning("⚠️ LC_NUMERIC was \"" + previous +
                      "\"; set to \"C\" for the whole process, as libmpv requires");
}

MpvMediaPlayer::Options MpvMediaPlayer::Options::fromEnvironment() {
    Options o;
    o.audioOutput = availableAudioOutputs();
    o.videoOutput = displayAvailable() ? "libmpv" : "null";
    return o;
}

void MpvMediaPlayer::configure(mpv_handle* handle, const Options& options) {
    const std::string timeout = std::to_string(options.networkTimeoutSeconds);
    const std::pair<const char*, std::string> settings[] = {
        {"config", "no"},
        {"load-scripts", "no"},
        {"ytdl", "no"},
        {"osc", "no"},
        {"load-stats-overlay", "no"},
        {"load-osd-console", "no"},
        {"load-auto-profiles", "no"},
        {"input-default-bindings", "no"},
        {"input-vo-keyboard", "no"},
        {"input-terminal", "no"},
        {"terminal", "no"},
        {"msg-level", "all=error"},
        {"idle", "yes"},
        // The prepared next item sits in mpv's playlist: mpv opens it ahead
        // (prefetch-playlist) but must never move on to it by itself.
        {"keep-open", "always"},
        {"prefetch-playlist", "yes"},
        {"resume-playback", "no"},
        {"save-position-on-quit", "no"},
        {"sub-auto", "no"},
        {"audio-file-auto", "no"},
        {"audio-display", "no"},
        {"network-timeout", timeout},
        {"vo", options.videoOutput.empty() ? "null" : options.videoOutput},
        {"ao", options.audioOutput.empty() ? "null" : options.audioOutput},
        {"audio-fallback-to-null", "yes"},
        // With mpv's default (frames handed to the output up to 50 ms early), a new
        // item's first frame came 15-40 ms late in about half of all starts: the
        // core waited for a video output sitting out a timed wait. Frames now reach
        // the render thread at their display time, shown a render later (a few
        // milliseconds); none were dropped or late in 20 s of 720p playback.
        {"video-timing-offset", "0"},
    };
    // Options missing from this mpv build are skipped; none of them is essential
    // on its own.
    for (const auto& [name, value] : settings) mpv_set_option_string(handle, name, value.c_str());
}

MpvMediaPlayer::MpvMediaPlayer(std::shared_ptr<MainQueue> queue, Options options)
    : core_(std::make_shared<Core>(std::move(queue), options)) {
    core_->start();
}

MpvMediaPlayer::~MpvMediaPlayer() {
    if (auto hook = std::exchange(beforeDestroy_, nullptr)) hook();
    core_->close();
}

void MpvMediaPlayer::setBeforeDestroy(std::function<void()> hook) {
    beforeDestroy_ = std::move(hook);
}

mpv_handle* MpvMediaPlayer::handle() const {
    return core_->handle();
}
void MpvMediaPlayer::whenStarted(std::function<void()> then) {
    core_->whenStarted(std::move(then));
}
void MpvMediaPlayer::holdRequests() {
    core_->holdRequests();
}
void MpvMediaPlayer::releaseRequests() {
    core_->releaseRequests();
}
void MpvMediaPlayer::setVideoOutput(const std::string& vo) {
    core_->setVideoOutput(vo);
}

void MpvMediaPlayer::closeVideoOutput() {
    core_->closeVideoOutput();
}

void MpvMediaPlayer::replaceCurrentItem(std::optional<std::string> url) {
    core_->replaceCurrentItem(std::move(url));
}
bool MpvMediaPlayer::hasCurrentItem() const {
    return core_->hasCurrentItem();
}
void MpvMediaPlayer::prepareNextItem(std::optional<std::string> url) {
    core_->prepareNextItem(std::move(url));
}
void MpvMediaPlayer::play() {
    core_->setPaused(false);
}
void MpvMediaPlayer::pause() {
    core_->setPaused(true);
}
double MpvMediaPlayer::currentTime() const {
    return core_->currentTime();
}
TimeControlStatus MpvMediaPlayer::timeControlStatus() const {
    return core_->status();
}

MediaPlayer::ObserverId MpvMediaPlayer::addStatusObserver(
    std::function<void(TimeControlStatus, TimeControlStatus)> observer) {
    return core_->addStatusObserver(std::move(observer));
}
void MpvMediaPlayer::removeStatusObserver(ObserverId id) {
    core_->removeStatusObserver(id);
}

MediaPlayer::ObserverId MpvMediaPlayer::addPeriodicTimeObserver(
    double interval, std::function<void(double)> observer) {
    return core_->addTimeObserver(interval, std::move(observer));
}
void MpvMediaPlayer::removeTimeObserver(ObserverId id) {
    core_->removeTimeObserver(id);
}

MediaPlayer::ObserverId MpvMediaPlayer::observeDuration(std::function<void(double)> observer) {
    return core_->observeDuration(std::move(observer));
}
void MpvMediaPlayer::invalidateDurationObservation(ObserverId id) {
    core_->invalidateDurationObservation(id);
}

void MpvMediaPlayer::seek(double seconds, double toleranceBefore, double toleranceAfter,
                          std::function<void(bool)> completion) {
    core_->seek(seconds, toleranceBefore, toleranceAfter, std::move(completion));
}

MediaPlayer::ObserverId MpvMediaPlayer::addEndOfItemObserver(std::function<void()> observer) {
    return core_->addEndObserver(std::move(observer));
}
void MpvMediaPlayer::removeEndOfItemObserver(ObserverId id) {
    core_->removeEndObserver(id);
}
MediaPlayer::ObserverId MpvMediaPlayer::addFailureObserver(
    std::function<void(const std::string&)> observer) {
    return core_->addFailureObserver(std::move(observer));
}
void MpvMediaPlayer::removeFailureObserver(ObserverId id) {
    core_->removeFailureObserver(id);
}

}  // namespace kavelin
