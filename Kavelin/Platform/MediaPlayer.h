#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kavelin {

// Mirrors the platform player's numbering: paused 0, waiting to play 1, playing 2.
enum class TimeControlStatus { paused = 0, waitingToPlayAtSpecifiedRate = 1, playing = 2 };

// What the player controller needs of a media player. One player holds at most
// one item at a time. Every callback is delivered on the main queue; none is
// called from inside the call that registered it except the duration
// observation's initial value.
class MediaPlayer {
  public:
    using ObserverId = uint64_t;  // 0 is never a valid id

    virtual ~MediaPlayer() = default;

    // Replaces the current item with the media at `url`, or clears it when empty.
    // The new item starts paused at 0; its duration is not-a-number until known.
    virtual void replaceCurrentItem(std::optional<std::string> url) = 0;
    virtual bool hasCurrentItem() const = 0;
    // The item likely to become current next (none clears the hint). A player may
    // start opening it so that it follows without a gap, but never shows or sounds
    // it before it is made current.
    virtual void prepareNextItem(std::optional<std::string> url) { (void)url; }

    virtual void play() = 0;
    virtual void pause() = 0;

    virtual double currentTime() const = 0;  // seconds
    virtual TimeControlStatus timeControlStatus() const = 0;

    // Status changes, reported old -> new (only when they differ).
    virtual ObserverId addStatusObserver(
        std::function<void(TimeControlStatus oldStatus, TimeControlStatus newStatus)> observer) = 0;
    virtual void removeStatusObserver(ObserverId id) = 0;

    // Calls back with the current time every `interval` seconds of playback while
    // playing, and once after each seek lands.
    virtual ObserverId addPeriodicTimeObserver(double interval,
                                               std::function<void(double seconds)> observer) = 0;
    virtual void removeTimeObserver(ObserverId id) = 0;

    // Observes the current item's duration: called at once with the present value
    // (not-a-number until known) and again on every change. Bound to the item that
    // was current at registration.
    virtual ObserverId observeDuration(std::function<void(double seconds)> observer) = 0;
    virtual void invalidateDurationObservation(ObserverId id) = 0;

    // Seeks within [target - before, target + after]; zero tolerance is exact. The
    // completion reports whether the seek landed (false when it was superseded or
    // the item went away).
    virtual void seek(double seconds, double toleranceBefore, double toleranceAfter,
                      std::function<void(bool finished)> completion = {}) = 0;

    // The current item played to its end (not when it was replaced or cleared).
    // Bound to the item that was current at registration.
    virtual ObserverId addEndOfItemObserver(std::function<void()> observer) = 0;
    virtual void removeEndOfItemObserver(ObserverId id) = 0;

    // The current item cannot play: it failed to open or broke off while playing.
    // Heard once per item, with a short cause; an observer added after the failure
    // hears it too. Bound to the item that was current at registration.
    virtual ObserverId addFailureObserver(
        std::function<void(const std::string& reason)> observer) = 0;
    virtual void removeFailureObserver(ObserverId id) = 0;
};

// The controller drops its player when the viewer leaves and makes a new one on
// the next load.
class MediaPlayerFactory {
  public:
    virtual ~MediaPlayerFactory() = default;
    virtual std::shared_ptr<MediaPlayer> makePlayer() = 0;
    // Returns once work the players left to other threads (starting or releasing
    // their engines) is done; called at exit after the main queue has stopped.
    virtual void finishBackgroundWork() {}
};

}  // namespace kavelin
