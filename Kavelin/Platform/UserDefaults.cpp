#include "Kavelin/Platform/UserDefaults.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <system_error>
#include <vector>

#include "Kavelin/log/VPLogger.h"

namespace kavelin {

namespace {
// Coalescing window: a burst of changes reaches the file once, about this late.
constexpr double kFlushDelaySeconds = 1.0;

struct ExitFlushable {
    virtual ~ExitFlushable() = default;
    virtual void flushAtExit() = 0;
};
}  // namespace

struct UserDefaults::State final : ExitFlushable {
    std::filesystem::path file;
    std::shared_ptr<MainQueue> queue;

    mutable std::mutex mutex;
    nlohmann::json values = nlohmann::json::object();
    bool dirty = false;
    WorkItemPtr pendingFlush;
    size_t writes = 0;
    bool warned = false;

    void load();
    void markDirty(const std::shared_ptr<State>& self);
    void flushLocked();
    bool writeAtomically(const std::string& text, std::string& error) const;
    void cancelPendingLocked();
    void flushAtExit() override {
        std::lock_guard lock(mutex);
        flushLocked();
    }
};

namespace {

// Stores still alive at process exit get their pending changes written; the
// platform's store is never destroyed, and a test's may not be either.
struct ExitRegistry {
    std::mutex mutex;
    std::vector<std::weak_ptr<ExitFlushable>> stores;
};

ExitRegistry& exitRegistry() {
    static auto* registry = new ExitRegistry;  // leaked: must outlive static destructors
    return *registry;
}

void flushStoresAtExit() {
    std::vector<std::shared_ptr<ExitFlushable>> alive;
    {
        auto& registry = exitRegistry();
        std::lock_guard lock(registry.mutex);
        for (auto& weak : registry.stores)
            if (auto store = weak.lock()) alive.push_back(std::move(store));
    }
    for (auto& store : alive) store->flushAtExit();
}

void registerForExit(const std::shared_ptr<ExitFlushable>& store) {
    static std::once_flag once;
    std::call_once(once, [] { std::atexit(flushStoresAtExit); });
    auto& registry = exitRegistry();
    std::lock_guard lock(registry.mutex);
    std::erase_if(registry.stores, [](const auto& weak) { return weak.expired(); });
    registry.stores.push_back(store);
}

std::string errnoText(int err) {
    return std::strerror(err);
}

}  // namespace

void UserDefaults::State::load() {
    std::ifstream in(file, std::ios::binary);
    if (!in) return;
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // Anything but a complete top-level object (empty, torn, garbage, foreign) is no data.
    auto parsed = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (parsed.is_object()) values = std::move(parsed);
}

void UserDefaults::State::markDirty(const std::shared_ptr<State>& self) {
    dirty = true;
    if (pendingFlush || !queue) return;
    std::weak_ptr<State> weak = self;
    pendingFlush = makeWorkItem([weak] {
        auto state = weak.lock();
        if (!state) return;
        std::lock_guard lock(state->mutex);
        state->pendingFlush = nullptr;
        state->flushLocked();
    });
    queue->asyncAfter(kFlushDelaySeconds, pendingFlush);
}

void UserDefaults::State::cancelPendingLocked() {
    // Items may only be cancelled on their queue; elsewhere the item fires later,
    // finds nothing dirty and writes nothing.
    if (pendingFlush && queue && queue->isCurrent()) {
        pendingFlush->cancel();
        pendingFlush = nullptr;
    }
}

void UserDefaults::State::flushLocked() {
    cancelPendingLocked();
    if (!dirty) return;
    // Replace, never throw, on ill-formed UTF-8 a host may have handed us.
    const std::string text =
        values.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
    std::string error;
    if (writeAtomically(text, error)) {
        dirty = false;
        ++writes;
        return;
    }
    // Stay dirty so a later flush retries; the values stay served from memory.
    if (!warned) {
        warned = true;
        VPLogger::warning("⚠️ Could not save user defaults to " + file.string() + " (" + error +
                          "); keeping them in memory");
    }
}

bool UserDefaults::State::writeAtomically(const std::string& text, std::string& error) const {
    const auto dir = file.has_parent_path() ? file.parent_path() : std::filesystem::path(".");
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (ec) {
        error = ec.message();
        return false;
    }

    std::string tmpl = (dir / (file.filename().string() + ".XXXXXX")).string();
    std::vector<char> tmpPath(tmpl.begin(), tmpl.end());
    tmpPath.push_back('\0');
    const int fd = ::mkostemp(tmpPath.data(), O_CLOEXEC);
    if (fd < 0) {
        error = errnoText(errno);
        return false;
    }
    auto fail = [&](int err) {
        error = errnoText(err);
        ::close(fd);
        ::unlink(tmpPath.data());
        return false;
    };

    const char* data = text.data();
    size_t left = text.size();
    while (left > 0) {
        const ssize_t n = ::write(fd, data, left);
        if (n < 0) {
            if (errno == EINTR) continue;
            return fail(errno);
        }
        data += n;
        left -= static_cast<size_t>(n);
    }
    if (::fsync(fd) != 0) return fail(errno);
    if (::close(fd) != 0) {
        error = errnoText(errno);
        ::unlink(tmpPath.data());
        return false;
    }
    if (::rename(tmpPath.data(), file.c_str()) != 0) {
        error = errnoText(errno);
        ::unlink(tmpPath.data());
        return false;
    }
    // Make the rename itself durable.
    const int dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd >= 0) {
        ::fsync(dirFd);
        ::close(dirFd);
    }
    return true;
}

UserDefaults::UserDefaults(std::filesystem::path file, std::shared_ptr<MainQueue> queue)
    : state_(std::make_shared<State>()) {
    state_->file = std::move(file);
    state_->queue = std::move(queue);
    state_->load();
    registerForExit(state_);
}

UserDefaults::~UserDefaults() {
    std::lock_guard lock(state_->mutex);
    state_->flushLocked();
}

std::filesystem::path UserDefaults::defaultPath() {
    std::filesystem::path base;
    if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg)
        base = xdg;
    else if (const char* home = std::getenv("HOME"); home && *home)
        base = std::filesystem::path(home) / ".config";
    else
        base = ".config";
    return base / "Kavelin" / "UserDefaults.json";
}

std::optional<nlohmann::json> UserDefaults::object(const std::string& key) const {
    std::lock_guard lock(state_->mutex);
    auto it = state_->values.find(key);
    if (it == state_->values.end()) return std::nullopt;
    return *it;
}

void UserDefaults::setObject(const std::string& key, const nlohmann::json& value) {
    std::lock_guard lock(state_->mutex);
    auto it = state_->values.find(key);
    if (it != state_->values.end()) {
        if (*it == value) return;
        *it = value;
    } else {
        state_->values.emplace(key, value);
    }
    state_->markDirty(state_);
}

void UserDefaults::setObject(const std::string& key, nlohmann::json&& value) {
    std::lock_guard lock(state_->mutex);
    auto it = state_->values.find(key);
    if (it != state_->values.end()) {
        if (*it == value) return;
        *it = std::move(value);
    } else {
        state_->values.emplace(key, std::move(value));
    }
    state_->markDirty(state_);
}

void UserDefaults::removeObject(const std::string& key) {
    std::lock_guard lock(state_->mutex);
    if (state_->values.erase(key) == 0) return;
    state_->markDirty(state_);
}

void UserDefaults::flush() {
    std::lock_guard lock(state_->mutex);
    state_->flushLocked();
}

size_t UserDefaults::fileWriteCount() const {
    std::lock_guard lock(state_->mutex);
    return state_->writes;
}

}  // namespace kavelin
