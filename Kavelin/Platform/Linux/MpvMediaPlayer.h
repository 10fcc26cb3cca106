#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Kavelin/Platform/MainQueue.h"
#include "Kavelin/Platform/MediaPlayer.h"

struct mpv_handle;

namespace kavelin {

// The media player on libmpv. One mpv instance per player, embedded and locked
// down: no config files, scripts, ytdl, on-screen controller or key bindings.
// mpv's events wake the main queue, which drains them; every callback runs there.
// All methods are to be called on the main queue, and the player is destroyed
// there too.
class MpvMediaPlayer final : public MediaPlayer {
  public:
    struct Options {
        // mpv's `vo`: "null" decodes and keeps time without showing anything;
        // "libmpv" draws through a render context that the window creates on
        // `handle()`. mpv cannot open "libmpv" without that context, so an item
        // fails if the window has not attached one by then.
        std::string videoOutput;
        // mpv's `ao`: a list tried in order; "null" is silent.
        std::string audioOutput = "null";
        double networkTimeoutSeconds = 10;

        // Headless (KAVELIN_HEADLESS=1, or neither DISPLAY nor WAYLAND_DISPLAY)
        // uses vo=null; otherwise vo=libmpv. Audio goes to the sound servers and
        // cards present (PipeWire, PulseAudio, ALSA), else nowhere.
        static Options fromEnvironment();
    };

    explicit MpvMediaPlayer(std::shared_ptr<MainQueue> queue,
                            Options options = Options::fromEnvironment());
    ~MpvMediaPlayer() override;

    MpvMediaPlayer(const MpvMediaPlayer&) = delete;
    MpvMediaPlayer& operator=(const MpvMediaPlayer&) = delete;

    // For the window's render context (mpv_render_context_create) and for
    // measurements. Null until mpv has started (it is made in the background, so
    // that no host call waits for it) and when it could not be started.
    mpv_handle* handle() const;
    // Runs `then` on the main queue once handle() is set, before the item given so
    // far opens; at once when it is set already, never when mpv failed to start.
    void whenStarted(std::function<void()> then);
    // Requests to mpv wait from holdRequests() until the matching releaseRequests():
    // an item must not open before the window's render context exists.
    void holdRequests();
    void releaseRequests();
    // Waits until every mpv made or released so far is fully up or gone (exit,
    // and tests that count threads).
    static void finishBackgroundWork();
    // Sets the embedding options (no config files, scripts, ytdl, bindings; idle,
    // keep-open, network time-out, outputs) on a handle before mpv_initialize.
    // Benchmarks use it to compare with bare libmpv on equal terms.
    static void configure(mpv_handle* handle, const Options& options);

    // Switches the video output at run time, e.g. to "libmpv" once the window has
    // a render context, and back to "null" before that context is freed.
    void setVideoOutput(const std::string& videoOutput);
    // Switches to "null" and waits until mpv's output is closed.
    void closeVideoOutput();
    // Runs first when the player is destroyed, while mpv is still whole: the window
    // frees the render context it made on `handle()` there. One at a time; empty
    // clears it.
    void setBeforeDestroy(std::function<void()> hook);

    void replaceCurrentItem(std::optional<std::string> url) override;
    bool hasCurrentItem() const override;
    void prepareNextItem(std::optional<std::string> url) override;

    void play() override;
    void pause() override;

    double currentTime() const override;
    TimeControlStatus timeControlStatus() const override;

    ObserverId addStatusObserver(
        std::function<void(TimeControlStatus oldStatus, TimeControlStatus newStatus)> observer)
        override;
    void removeStatusObserver(ObserverId id) override;

    ObserverId addPeriodicTimeObserver(double interval,
                                       std::function<void(double seconds)> observer) override;
    void removeTimeObserver(ObserverId id) override;

    ObserverId observeDuration(std::function<void(double seconds)> observer) override;
    void invalidateDurationObservation(ObserverId id) override;

    void seek(double seconds, double toleranceBefore, double toleranceAfter,
              std::function<void(bool finished)> completion = {}) override;

    ObserverId addEndOfItemObserver(std::function<void()> observer) override;
    void removeEndOfItemObserver(ObserverId id) override;

    ObserverId addFailureObserver(std::function<void(const std::string&)> observer) override;
    void removeFailureObserver(ObserverId id) override;

  private:
    class Core;
    std::shared_ptr<Core> core_;
    std::function<void()> beforeDestroy_;
};

}  // namespace kavelin
