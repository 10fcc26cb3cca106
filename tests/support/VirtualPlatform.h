#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "Kavelin/Platform/Linux/HeadlessPresenter.h"
#include "Kavelin/Platform/Platform.h"
#include "Kavelin/Platform/UserDefaults.h"
#include "support/VirtualMainQueue.h"
#include "ScratchDir.h"
#include "SimulatedMediaPlayer.h"

namespace kavelin::testing {

// Installs a deterministic platform for the lifetime of the object: virtual-time
// main queue, simulated players, headless presenter, user defaults in a fresh
// temporary directory and a wall clock that follows virtual time (plus an offset
// the test may move). It stays installed until the next one replaces it.
class VirtualPlatform {
  public:
    VirtualPlatform();
    ~VirtualPlatform();
    VirtualPlatform(const VirtualPlatform&) = delete;
    VirtualPlatform& operator=(const VirtualPlatform&) = delete;

  private:
    ScratchDir directory_;  // first: goes last, after the store's final write

  public:
    std::shared_ptr<VirtualMainQueue> queue;
    std::shared_ptr<SimulatedMediaLibrary> media;
    std::shared_ptr<SimulatedMediaPlayerFactory> players;
    std::shared_ptr<HeadlessPresenter> presenter;
    std::shared_ptr<UserDefaults> defaults;

    // The platform as installed (hand it to objects that take one explicitly).
    const Platform& platform() const { return platform_; }

    // Moves virtual time (and with it the wall clock).
    void advance(double seconds) { queue->advance(seconds); }
    void runUntilIdle() { queue->runUntilIdle(); }
    // Moves only the wall clock, as when the user changes the device time.
    void shiftWallClock(double seconds);
    std::chrono::system_clock::time_point wallNow() const;

  private:
    Platform platform_;
    std::chrono::system_clock::time_point wallStart_;
    std::shared_ptr<double> wallOffset_ = std::make_shared<double>(0);
};

std::string readFile(const std::filesystem::path& path);

// One event as the host receives it.
struct HostEvent {
    std::string method;
    std::string payload;
    bool operator==(const HostEvent&) const = default;
};
std::ostream& operator<<(std::ostream& os, const HostEvent& event);

// Records every event sent to the host while alive.
class EventRecorder {
  public:
    EventRecorder();
    ~EventRecorder();
    EventRecorder(const EventRecorder&) = delete;
    EventRecorder& operator=(const EventRecorder&) = delete;

    const std::vector<HostEvent>& events() const { return *events_; }
    // Returns what was recorded so far and starts afresh.
    std::vector<HostEvent> take();
    void clear() { events_->clear(); }
    size_t count(std::string_view method) const;

  private:
    std::shared_ptr<std::vector<HostEvent>> events_ = std::make_shared<std::vector<HostEvent>>();
};

// Collects log lines while alive; `messages()` are the texts after the prefix.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    const std::vector<std::string>& lines() const { return *lines_; }
    std::vector<std::string> messages() const;
    // Number of lines whose message is exactly `message`.
    size_t count(std::string_view message) const;
    bool contains(std::string_view message) const { return count(message) > 0; }
    // Number of lines whose message starts with `prefix`.
    size_t countPrefix(std::string_view prefix) const;
    // The level ("LOG", "WARNING", "ERROR") of the first line with this message.
    std::string levelOf(std::string_view message) const;
    void clear() { lines_->clear(); }

    // The message part of one formatted line.
    static std::string messageOf(const std::string& line);

  private:
    std::shared_ptr<std::vector<std::string>> lines_ = std::make_shared<std::vector<std::string>>();
};

}  // namespace kavelin::testing
