#include "SimulatedMediaPlayer.h"

#include <algorithm>

namespace kavelin::testing {

SimulatedMediaPlayer::SimulatedMediaPlayer(std::shared_ptr<VirtualMainQueue> queue,
                                           std::shared_ptr<SimulatedMediaLibrary> library)
    : queue_(std::move(queue)), library_(std::move(library)) {}

SimulatedMediaPlayer::~SimulatedMediaPlayer() {
    cancelTicks();
    for (auto* task : {&endTask_, &stallTask_, &seekTask_})
        if (*task) (*task)->cancel();
}

template <typename F>
void SimulatedMediaPlayer::post(F&& f) {
    queue_->async([weak = weak_from_this(), f = std::forward<F>(f)]() mutable {
        if (auto self = weak.lock()) f(*self);
    });
}

template <typename Map, typename Pick, typename Call>
void SimulatedMediaPlayer::notify(Map& observers, Pick pick, Call call) {
    std::vector<ObserverId> ids;
    for (const auto& [id, observer] : observers)
        if (pick(observer)) ids.push_back(id);
    for (auto id : ids)
        if (auto it = observers.find(id); it != observers.end()) {
            auto observer = it->second;  // it may remove itself
            call(observer);
        }
}

std::optional<std::string> SimulatedMediaPlayer::currentURL() const {
    if (!item_) return std::nullopt;
    return item_->url;
}

double SimulatedMediaPlayer::itemDuration() const {
    return item_ ? item_->duration : std::numeric_limits<double>::quiet_NaN();
}

double SimulatedMediaPlayer::currentTime() const {
    if (!item_) return 0;
    if (!item_->advancing) return item_->position;
    double t = item_->position + (queue_->now() - item_->anchor);
    if (std::isfinite(item_->duration)) t = std::min(t, item_->duration);
    return t;
}

void SimulatedMediaPlayer::freezePosition() {
    if (!item_) return;
    if (item_->advancing) {
        item_->position = currentTime();
        item_->advancing = false;
    }
    cancelTicks();
    if (endTask_) std::exchange(endTask_, nullptr)->cancel();
}

void SimulatedMediaPlayer::setStatus(TimeControlStatus status) {
    if (status == status_) return;
    const auto old = status_;
    status_ = status;
    // Observers registered when the change happened, and still registered when it
    // is delivered, hear about it.
    std::vector<ObserverId> ids;
    for (const auto& [id, fn] : statusObservers_) ids.push_back(id);
    post([ids, old, status](SimulatedMediaPlayer& self) {
        for (auto id : ids)
            if (auto it = self.statusObservers_.find(id); it != self.statusObservers_.end()) {
                auto fn = it->second;
                fn(old, status);
            }
    });
}

void SimulatedMediaPlayer::updatePlayback() {
    const bool advance = item_ && wantsToPlay_ && item_->ready && !item_->stalled &&
                         !item_->ended && !item_->failure;
    if (!item_) {
        setStatus(TimeControlStatus::paused);
        return;
    }
    if (advance && !item_->advancing) {
        item_->anchor = queue_->now();
        item_->advancing = true;
        for (auto& [id, obs] : timeObservers_) scheduleTick(id);
        const double left = std::max(0.0, item_->duration - item_->position);
        endTask_ = makeWorkItem([weak = weak_from_this(), gen = item_->generation] {
            if (auto self = weak.lock()) self->reachEnd(gen);
        });
        queue_->asyncAfter(left, endTask_);
    } else if (!advance && item_->advancing) {
        freezePosition();
    }
    if (advance)
        setStatus(TimeControlStatus::playing);
    else if (wantsToPlay_ && !item_->ended)
        setStatus(TimeControlStatus::waitingToPlayAtSpecifiedRate);
    else
        setStatus(TimeControlStatus::paused);
}

void SimulatedMediaPlayer::scheduleTick(ObserverId id) {
    auto it = timeObservers_.find(id);
    if (it == timeObservers_.end()) return;
    if (it->second.tick) it->second.tick->cancel();
    it->second.tick = makeWorkItem([weak = weak_from_this(), id] {
        auto self = weak.lock();
        if (!self) return;
        auto found = self->timeObservers_.find(id);
        if (found == self->timeObservers_.end()) return;
        self->scheduleTick(id);  // first, so the observer may remove itself
        auto fn = found->second.fn;
        fn(self->currentTime());
    });
    queue_->asyncAfter(it->second.interval, it->second.tick);
}

void SimulatedMediaPlayer::cancelTicks() {
    for (auto& [id, obs] : timeObservers_)
        if (obs.tick) std::exchange(obs.tick, nullptr)->cancel();
}

void SimulatedMediaPlayer::becomeReady(uint64_t generation) {
    if (!item_ || item_->generation != generation) return;
    auto media = library_->find(item_->url);
    if (!media) return;
    item_->ready = true;
    item_->duration = media->duration;
    notify(
        durationObservers_, [&](auto& o) { return o.generation == generation; },
        [&](auto& o) { o.fn(media->duration); });
    updatePlayback();
}

void SimulatedMediaPlayer::reachEnd(uint64_t generation) {
    if (!item_ || item_->generation != generation) return;
    endTask_ = nullptr;
    freezePosition();
    item_->position = item_->duration;
    item_->ended = true;
    wantsToPlay_ = false;  // the player pauses at the end of an item
    updatePlayback();
    notify(
        endObservers_, [&](auto& o) { return o.generation == generation; },
        [&](auto& o) {
            if (item_ && item_->generation == generation) o.fn();  // unless replaced meanwhile
        });
}

void SimulatedMediaPlayer::cancelPendingSeek() {
    if (seekTask_) std::exchange(seekTask_, nullptr)->cancel();
    if (auto completion = std::exchange(seekCompletion_, nullptr))
        post([completion](SimulatedMediaPlayer&) { completion(false); });
}

void SimulatedMediaPlayer::replaceCurrentItem(std::optional<std::string> url) {
    replacedItems.push_back(url);
    preparedNext.reset();
    cancelPendingSeek();
    freezePosition();
    if (stallTask_) std::exchange(stallTask_, nullptr)->cancel();
    item_.reset();
    ++generation_;
    if (url) {
        item_ = std::make_unique<Item>();
        item_->generation = generation_;
        item_->url = *url;
        auto media = library_->find(*url);
        if (media && std::isfinite(media->readyAfter)) {
            queue_->asyncAfter(media->readyAfter, [weak = weak_from_this(), gen = generation_] {
                if (auto self = weak.lock()) self->becomeReady(gen);
            });
        }
    }
    updatePlayback();
}

void SimulatedMediaPlayer::play() {
    ++playCalls;
    wantsToPlay_ = true;
    updatePlayback();
}

void SimulatedMediaPlayer::pause() {
    ++pauseCalls;
    wantsToPlay_ = false;
    updatePlayback();
}

void SimulatedMediaPlayer::stall(double seconds) {
    if (!item_) return;
    item_->stalled = true;
    updatePlayback();
    if (stallTask_) stallTask_->cancel();
    stallTask_ = makeWorkItem([weak = weak_from_this(), gen = item_->generation] {
        auto self = weak.lock();
        if (!self || !self->item_ || self->item_->generation != gen) return;
        self->item_->stalled = false;
        self->updatePlayback();
    });
    queue_->asyncAfter(seconds, stallTask_);
}

MediaPlayer::ObserverId SimulatedMediaPlayer::addPeriodicTimeObserver(
    double interval, std::function<void(double)> observer) {
    const auto id = nextId_++;
    timeObservers_[id] = TimeObserver{interval, std::move(observer), nullptr};
    if (item_ && item_->advancing) scheduleTick(id);
    return id;
}

void SimulatedMediaPlayer::removeTimeObserver(ObserverId id) {
    auto it = timeObservers_.find(id);
    if (it == timeObservers_.end()) return;
    if (it->second.tick) it->second.tick->cancel();
    timeObservers_.erase(it);
}

MediaPlayer::ObserverId SimulatedMediaPlayer::observeDuration(
    std::function<void(double)> observer) {
    const auto id = nextId_++;
    durationObservers_[id] = {generation_, observer};
    observer(itemDuration());
    return id;
}

void SimulatedMediaPlayer::seek(double seconds, double toleranceBefore, double toleranceAfter,
                                std::function<void(bool)> completion) {
    seeks.push_back({seconds, toleranceBefore, toleranceAfter, static_cast<bool>(completion)});
    if (!item_) {
        if (completion) post([completion](SimulatedMediaPlayer&) { completion(false); });
        return;
    }
    cancelPendingSeek();
    seekCompletion_ = std::move(completion);
    seekTask_ = makeWorkItem([weak = weak_from_this(), gen = item_->generation, seconds] {
        auto self = weak.lock();
        if (!self || !self->item_ || self->item_->generation != gen) return;
        self->seekTask_ = nullptr;
        double target = std::max(0.0, seconds);
        if (std::isfinite(self->item_->duration)) target = std::min(target, self->item_->duration);
        self->freezePosition();
        self->item_->position = target;
        self->item_->ended = false;
        self->updatePlayback();
        notify(
            self->timeObservers_, [](auto&) { return true; },
            [&](auto& observer) { observer.fn(self->currentTime()); });
        if (auto done = std::exchange(self->seekCompletion_, nullptr)) done(true);
    });
    queue_->asyncAfter(seekLatency, seekTask_);
}

MediaPlayer::ObserverId SimulatedMediaPlayer::addFailureObserver(
    std::function<void(const std::string&)> observer) {
    const auto id = nextId_++;
    failureObservers_[id] = {generation_, std::move(observer)};
    if (item_ && item_->failure) {
        post([id, gen = generation_, reason = *item_->failure](SimulatedMediaPlayer& self) {
            auto it = self.failureObservers_.find(id);
            if (it != self.failureObservers_.end() && it->second.generation == gen)
                it->second.fn(reason);
        });
    }
    return id;
}

void SimulatedMediaPlayer::fail(const std::string& reason) {
    if (!item_ || item_->failure) return;
    item_->failure = reason;
    updatePlayback();
    post([gen = item_->generation, reason](SimulatedMediaPlayer& self) {
        notify(
            self.failureObservers_, [&](auto& o) { return o.generation == gen; },
            [&](auto& o) { o.fn(reason); });
    });
}

// --- factory ---

std::shared_ptr<MediaPlayer> SimulatedMediaPlayerFactory::makePlayer() {
    auto player = std::make_shared<SimulatedMediaPlayer>(queue_, library_);
    players_.push_back(player);
    return player;
}

std::shared_ptr<SimulatedMediaPlayer> SimulatedMediaPlayerFactory::lastPlayer() const {
    for (auto it = players_.rbegin(); it != players_.rend(); ++it)
        if (auto p = it->lock()) return p;
    return nullptr;
}

SimulatedMediaPlayer::ObserverCounts SimulatedMediaPlayerFactory::liveObservers() const {
    size_t time = 0, status = 0, duration = 0, end = 0;
    for (const auto& weak : players_)
        if (auto p = weak.lock()) {
            const auto [t, s, d, e] = p->observerCounts();
            time += t, status += s, duration += d, end += e;
        }
    return {time, status, duration, end};
}

}  // namespace kavelin::testing
