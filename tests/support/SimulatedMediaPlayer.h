#pragma once

#include <cmath>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "Kavelin/Platform/MediaPlayer.h"
#include "support/VirtualMainQueue.h"

namespace kavelin::testing {

// What the simulated players know about media, shared by every player a factory
// makes. A URL registered here becomes ready `readyAfter` virtual seconds after it
// is attached; an unknown URL never becomes ready unless a default duration is set.
class SimulatedMediaLibrary {
  public:
    struct Media {
        double duration = 0;
        double readyAfter = 0;  // infinite: never ready
    };

    void add(const std::string& url, double duration, double readyAfter = 0) {
        media_[url] = Media{duration, readyAfter};
    }
    void addNeverReady(const std::string& url) {
        media_[url] = Media{0, std::numeric_limits<double>::infinity()};
    }
    // Unknown URLs play with this duration instead of never becoming ready.
    void setDefaultDuration(std::optional<double> duration) { defaultDuration_ = duration; }

    std::optional<Media> find(const std::string& url) const {
        if (auto it = media_.find(url); it != media_.end()) return it->second;
        if (defaultDuration_) return Media{*defaultDuration_, 0};
        return std::nullopt;
    }

  private:
    std::map<std::string, Media> media_;
    std::optional<double> defaultDuration_;
};

// A media player on the virtual-time queue: playback advances with virtual time,
// items become ready after a delay, seeks land after `seekLatency`, stalls can be
// injected. Callbacks arrive through the queue, never from inside the call that
// caused them (except the duration observation's initial value, as documented).
class SimulatedMediaPlayer final : public MediaPlayer,
                                   public std::enable_shared_from_this<SimulatedMediaPlayer> {
  public:
    struct SeekCall {
        double target;
        double toleranceBefore;
        double toleranceAfter;
        bool hasCompletion;
    };

    static constexpr double seekLatency = 0.05;

    SimulatedMediaPlayer(std::shared_ptr<VirtualMainQueue> queue,
                         std::shared_ptr<SimulatedMediaLibrary> library);
    ~SimulatedMediaPlayer() override;

    void replaceCurrentItem(std::optional<std::string> url) override;
    bool hasCurrentItem() const override { return item_ != nullptr; }
    void prepareNextItem(std::optional<std::string> url) override { preparedNext = std::move(url); }
    void play() override;
    void pause() override;
    double currentTime() const override;
    TimeControlStatus timeControlStatus() const override { return status_; }
    ObserverId addStatusObserver(
        std::function<void(TimeControlStatus, TimeControlStatus)> observer) override {
        statusObservers_[nextId_] = std::move(observer);
        return nextId_++;
    }
    void removeStatusObserver(ObserverId id) override { statusObservers_.erase(id); }
    ObserverId addPeriodicTimeObserver(double interval,
                                       std::function<void(double)> observer) override;
    void removeTimeObserver(ObserverId id) override;
    ObserverId observeDuration(std::function<void(double)> observer) override;
    void invalidateDurationObservation(ObserverId id) override { durationObservers_.erase(id); }
    void seek(double seconds, double toleranceBefore, double toleranceAfter,
              std::function<void(bool)> completion = {}) override;
    ObserverId addEndOfItemObserver(std::function<void()> observer) override {
        endObservers_[nextId_] = {generation_, std::move(observer)};
        return nextId_++;
    }
    void removeEndOfItemObserver(ObserverId id) override { endObservers_.erase(id); }
    ObserverId addFailureObserver(std::function<void(const std::string&)> observer) override;
    void removeFailureObserver(ObserverId id) override { failureObservers_.erase(id); }

    // Test controls.
    // The current item breaks off for good: it freezes waiting, and failure
    // observers hear `reason` on the queue.
    void fail(const std::string& reason);
    // Playback freezes in "waiting to play" for `seconds`, then carries on.
    void stall(double seconds);

    // What the tests read.
    // Time, status, duration and end-of-item observers still registered.
    using ObserverCounts = std::tuple<size_t, size_t, size_t, size_t>;
    ObserverCounts observerCounts() const {
        return {timeObservers_.size(), statusObservers_.size(), durationObservers_.size(),
                endObservers_.size()};
    }
    std::optional<std::string> currentURL() const;
    double itemDuration() const;  // not-a-number until ready
    bool wantsToPlay() const { return wantsToPlay_; }

    int playCalls = 0;
    int pauseCalls = 0;
    std::vector<SeekCall> seeks;
    std::vector<std::optional<std::string>> replacedItems;
    std::optional<std::string> preparedNext;  // the hint given for the current item

  private:
    struct Item {
        uint64_t generation;
        std::string url;
        double duration = std::numeric_limits<double>::quiet_NaN();
        bool ready = false;
        double position = 0;     // at `anchor` while advancing, or frozen
        double anchor = 0;       // queue time the position was taken at
        bool advancing = false;  // position moves with the queue clock
        bool stalled = false;
        bool ended = false;
        std::optional<std::string> failure;
    };
    struct TimeObserver {
        double interval;
        std::function<void(double)> fn;
        WorkItemPtr tick;
    };
    // Bound to the item that was current when it was added.
    template <typename F>
    struct ItemObserver {
        uint64_t generation;
        F fn;
    };

    void freezePosition();
    void updatePlayback();  // recomputes status, clock and end-of-item scheduling
    void setStatus(TimeControlStatus status);
    void scheduleTick(ObserverId id);
    void cancelTicks();
    void becomeReady(uint64_t generation);
    void reachEnd(uint64_t generation);
    void cancelPendingSeek();
    template <typename F>
    void post(F&& f);
    // Calls `call` for each observer in `observers` picked by `pick` and still there
    // when its turn comes: an observer may remove others.
    template <typename Map, typename Pick, typename Call>
    static void notify(Map& observers, Pick pick, Call call);

    std::shared_ptr<VirtualMainQueue> queue_;
    std::shared_ptr<SimulatedMediaLibrary> library_;
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
    std::unique_ptr<Item> item_;
    uint64_t generation_ = 0;
    ObserverId nextId_ = 1;
    bool wantsToPlay_ = false;
    TimeControlStatus status_ = TimeControlStatus::paused;
    std::map<ObserverId, std::function<void(TimeControlStatus, TimeControlStatus)>>
        statusObservers_;
    std::map<ObserverId, TimeObserver> timeObservers_;
    std::map<ObserverId, ItemObserver<std::function<void(double)>>> durationObservers_;
    std::map<ObserverId, ItemObserver<std::function<void()>>> endObservers_;
    std::map<ObserverId, ItemObserver<std::function<void(const std::string&)>>> failureObservers_;
    WorkItemPtr endTask_;
    WorkItemPtr stallTask_;
    WorkItemPtr seekTask_;
    std::function<void(bool)> seekCompletion_;
};

// Makes simulated players and keeps track of them for the tests.
class SimulatedMediaPlayerFactory final : public MediaPlayerFactory {
  public:
    SimulatedMediaPlayerFactory(std::shared_ptr<VirtualMainQueue> queue,
                                std::shared_ptr<SimulatedMediaLibrary> library)
        : queue_(std::move(queue)), library_(std::move(library)) {}

    std::shared_ptr<MediaPlayer> makePlayer() override;

    int playersMade() const { return static_cast<int>(players_.size()); }
    // The most recent player still alive, if any.
    std::shared_ptr<SimulatedMediaPlayer> lastPlayer() const;
    // Summed over every player still alive.
    SimulatedMediaPlayer::ObserverCounts liveObservers() const;

  private:
    std::shared_ptr<VirtualMainQueue> queue_;
    std::shared_ptr<SimulatedMediaLibrary> library_;
    std::vector<std::weak_ptr<SimulatedMediaPlayer>> players_;
};

}  // namespace kavelin::testing
