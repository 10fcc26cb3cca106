#pragma once

#include <Kavelin/Kavelin.h>
#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

// Every exported function, each looked up with the type the public header gives it.
// "pause" is left out: the header declares it under another name.
// clang-format off
#define KAVELIN_HOST_ENTRIES(X)                                                              \
    X(registerUnityCallback) X(loadVideo) X(play) X(stop) X(seekForward) X(seekBackward)     \
    X(seekTo) X(cleanup) X(setURLS) X(setShowForwardButton) X(setShowBackwordButton)         \
    X(setShowBack10Button) X(setShowFor10Button) X(setShowPlayPauseButton)                   \
    X(setShowBackButton) X(setShowLogo) X(setShowSeekbar) X(setShowTimeDuration)             \
    X(SetPlaylists) X(SetEpisodes) X(PlayPlaylist) X(SetPremium) X(SetAdRequired)            \
    X(SetMidRollAdConfig) X(AdCompletedResumePlayback)
// clang-format on

// libKavelin.so as a host sees it: opened with dlopen, entry points found by name.
struct HostLibrary {
#define KAVELIN_HOST_MEMBER(name) decltype(&::name) name = nullptr;
    KAVELIN_HOST_ENTRIES(KAVELIN_HOST_MEMBER)
#undef KAVELIN_HOST_MEMBER
    decltype(&::kavelin_pause) pause = nullptr;
    void* handle = nullptr;
    std::string missing;  // what could not be opened or found

    explicit HostLibrary(const char* path) : handle(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
        if (!handle) {
            missing = dlerror();
            return;
        }
#define KAVELIN_HOST_LOOKUP(name) name = reinterpret_cast<decltype(name)>(find(#name));
        KAVELIN_HOST_ENTRIES(KAVELIN_HOST_LOOKUP)
#undef KAVELIN_HOST_LOOKUP
        pause = reinterpret_cast<decltype(pause)>(find("pause"));
    }
    bool ok() const {
        return missing.empty();
    }
    void* find(const char* name) {
        void* symbol = dlsym(handle, name);
        if (!symbol) missing += std::string(" ") + name;
        return symbol;
    }
};

// The events a host's callback received, in order, with the thread each came on.
class HostEvents {
  public:
    struct Event {
        std::string text;
        pid_t thread;
    };

    static void record(const char* text) {
        {
            std::lock_guard lock(mutex_);
            events_.push_back({text, static_cast<pid_t>(::syscall(SYS_gettid))});
        }
        changed_.notify_all();
    }
    // Index of the first event equal to `text` at or after `from`, once it has come.
    static std::optional<size_t> waitFor(const std::string& text, size_t from = 0,
                                         double seconds = 40) {
        std::unique_lock lock(mutex_);
        std::optional<size_t> found;
        changed_.wait_for(lock, std::chrono::duration<double>(seconds), [&] {
            for (size_t i = from; i < events_.size() && !found; ++i)
                if (events_[i].text == text) found = i;
            return found.has_value();
        });
        return found;
    }
    static Event at(size_t i) {
        std::lock_guard lock(mutex_);
        return events_.at(i);
    }
    static std::vector<std::string> texts(size_t from = 0, size_t to = SIZE_MAX) {
        std::lock_guard lock(mutex_);
        std::vector<std::string> out;
        for (size_t i = from; i < events_.size() && i < to; ++i) out.push_back(events_[i].text);
        return out;
    }
    static void clear() {
        std::lock_guard lock(mutex_);
        events_.clear();
    }
    static std::string dump() {
        std::string out;
        for (const auto& e : texts()) out += "  " + e + "\n";
        return out;
    }

  private:
    static inline std::mutex mutex_;
    static inline std::condition_variable changed_;
    static inline std::vector<Event> events_;
};
