#include "Kavelin/Platform/Linux/FileUserDefaults.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <mutex>
#include <system_error>
#include <vector>

#include "Kavelin/Platform/MainQueueCheck.h"
#include "Kavelin/log/VPLogger.h"

namespace kavelin {

namespace {
// Coalescing window: a burst of changes reaches the file once, about this late.
constexpr double kFlushDelaySeconds = 1.0;
// The file holds watched marks: a few hundred KiB at most in real use. Anything
// larger is damage, and reading it must not stall the first entry point.
constexpr size_t kMaxFileBytes = 4 * 1024 * 1024;
// Real values nest three deep; the parser recurses, so a hostile file must not.
constexpr size_t kMaxNesting = 64;

struct ExitFlushable {
    virtual ~ExitFlushable() = default;
    virtual void flushAtExit() = 0;
};
}  // namespace

struct FileUserDefaults::State final : ExitFlushable {
    std::filesystem::path file;
    std::shared_ptr<MainQueue> queue;

    mutable std::mutex mutex;
    nlohmann::json values = nlohmann::json::object();
    bool dirty = false;
    WorkItemPtr pendingFlush;
    size_t writes = 0;
    bool warned = false;
    // Where a damaged file goes before the first write replaces it; empty if sound.
    std::filesystem::path asidePath;

    void load();
    void markDirty(const std::shared_ptr<State>& self);
    // Copies or moves `value` in; an equal value changes nothing and writes nothing.
    template <typename Value>
    void store(const std::shared_ptr<State>& self, const std::string& key, Value&& value) {
        std::lock_guard lock(mutex);
        auto it = values.find(key);
        if (it != values.end()) {
            if (*it == value) return;
            *it = std::forward<Value>(value);
        } else {
            values.emplace(key, std::forward<Value>(value));
        }
        markDirty(self);
    }
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

// Reads the whole (already size-checked) file; empty on success, else the reason.
std::string readBounded(int fd, std::string& text) {
    char buffer[64 * 1024];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n == 0) return {};
        if (n < 0) {
            if (errno == EINTR) continue;
            return errnoText(errno);
        }
        // The file may grow while read; never hold more than the bound.
        if (text.size() + static_cast<size_t>(n) > kMaxFileBytes)
            return "larger than " + std::to_string(kMaxFileBytes) + " bytes";
        text.append(buffer, static_cast<size_t>(n));
    }
}

size_t skipSpace(std::string_view text, size_t pos) {
    while (pos < text.size() &&
           (text[pos] == ' ' || text[pos] == '\t' || text[pos] == '\n' || text[pos] == '\r'))
        ++pos;
    return pos;
}

// Index just past the string literal opening at `pos`, or npos when it is torn.
size_t skipString(std::string_view text, size_t pos) {
    for (++pos; pos < text.size(); ++pos) {
        if (text[pos] == '\\')
            ++pos;
        else if (text[pos] == '"')
            return pos + 1;
    }
    return std::string_view::npos;
}

// Index of the ',' or '}' ending the member value starting at `pos` (npos when
// torn); `tooDeep` is set when it nests beyond what the parser is handed.
size_t skipValue(std::string_view text, size_t pos, bool& tooDeep) {
    size_t depth = 0;
    tooDeep = false;
    while (pos < text.size()) {
        const char c = text[pos];
        if (c == '"') {
            pos = skipString(text, pos);
            if (pos == std::string_view::npos) return pos;
            continue;
        }
        if (c == '[' || c == '{') {
            if (++depth > kMaxNesting) tooDeep = true;
        } else if (c == ']' || c == '}') {
            if (depth == 0) return c == '}' ? pos : std::string_view::npos;
            --depth;
        } else if (c == ',' && depth == 0) {
            return pos;
        }
        ++pos;
    }
    return std::string_view::npos;
}

}  // namespace

// Splits the top-level object member by member without recursion, so a torn tail,
// one broken value or a bomb of nesting costs only its own member. nullopt when
// the text is not an object at all.
std::optional<nlohmann::json> salvageObject(std::string_view text, size_t& dropped) {
    dropped = 0;
    size_t pos = skipSpace(text, 0);
    if (pos >= text.size() || text[pos] != '{') return std::nullopt;
    auto result = nlohmann::json::object();
    pos = skipSpace(text, pos + 1);
    if (pos < text.size() && text[pos] == '}')
        return skipSpace(text, pos + 1) == text.size() ? std::optional(result) : std::nullopt;
    while (pos < text.size()) {
        if (text[pos] != '"') break;
        const size_t keyEnd = skipString(text, pos);
        if (keyEnd == std::string_view::npos) break;
        auto key = nlohmann::json::parse(text.substr(pos, keyEnd - pos), nullptr, false);
        pos = skipSpace(text, keyEnd);
        if (pos >= text.size() || text[pos] != ':' || !key.is_string()) break;
        const size_t valueStart = pos + 1;
        bool tooDeep = false;
        const size_t valueEnd = skipValue(text, valueStart, tooDeep);
        if (valueEnd == std::string_view::npos) break;
        auto value = tooDeep ? nlohmann::json(nlohmann::json::value_t::discarded)
                             : nlohmann::json::parse(text.substr(valueStart, valueEnd - valueStart),
                                                     nullptr, false);
        if (value.is_discarded())
            ++dropped;
        else
            result[key.get<std::string>()] = std::move(value);
        if (text[valueEnd] == '}') {
            if (skipSpace(text, valueEnd + 1) != text.size()) ++dropped;  // trailing junk
            return result;
        }
        pos = skipSpace(text, valueEnd + 1);
    }
    ++dropped;  // torn or malformed from here on
    return result;
}

namespace {}  // namespace

void FileUserDefaults::State::load() {
    std::string problem;
    std::string text;
    // Non-blocking: a FIFO in the file's place must not hang the first entry point.
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        if (errno == ENOENT || errno == ENOTDIR) return;  // nothing saved yet
        problem = errnoText(errno);
    } else {
        struct stat st {};
        if (::fstat(fd, &st) != 0)
            problem = errnoText(errno);
        else if (!S_ISREG(st.st_mode))
            problem = "not a regular file";
        else if (static_cast<uint64_t>(st.st_size) > kMaxFileBytes)
            problem = "larger than " + std::to_string(kMaxFileBytes) + " bytes";
        else
            problem = readBounded(fd, text);
        ::close(fd);
    }
    size_t dropped = 0;
    if (problem.empty()) {
        auto salvaged = salvageObject(text, dropped);
        if (!salvaged)
            problem = "not a JSON object";
        else {
            values = std::move(*salvaged);
            if (dropped > 0) problem = std::to_string(dropped) + " unreadable entries";
        }
    }
    if (problem.empty()) return;
    asidePath = file;
    asidePath += ".corrupt-" + std::to_string(::time(nullptr));
    // One line covers this file; a failing save after it would only repeat the news.
    warned = true;
    VPLogger::error("❌ Watched-state file " + file.string() + " is damaged (" + problem +
                    "); kept " + std::to_string(values.size()) +
                    " entries, the file will be moved to " + asidePath.string());
}

void FileUserDefaults::State::markDirty(const std::shared_ptr<State>& self) {
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

void FileUserDefaults::State::cancelPendingLocked() {
    // Items may only be cancelled on their queue; elsewhere the item fires later,
    // finds nothing dirty and writes nothing.
    if (pendingFlush && queue && queue->isCurrent()) {
        pendingFlush->cancel();
        pendingFlush = nullptr;
    }
}

void FileUserDefaults::State::flushLocked() {
    cancelPendingLocked();
    if (!dirty) return;
    // Replace, never throw, on ill-formed UTF-8 a host may have handed us.
    const std::string text =
        values.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
    std::string error;
    if (writeAtomically(text, error)) {
        asidePath.clear();
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

bool FileUserDefaults::State::writeAtomically(const std::string& text, std::string& error) const {
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
    if (!asidePath.empty()) {
        // Never overwrite a damaged file: it is the only evidence of what happened.
        if (::rename(file.c_str(), asidePath.c_str()) != 0 && errno != ENOENT) {
            error = errnoText(errno);
            ::unlink(tmpPath.data());
            return false;
        }
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

FileUserDefaults::FileUserDefaults(std::filesystem::path file, std::shared_ptr<MainQueue> queue)
    : state_(std::make_shared<State>()) {
    state_->file = std::move(file);
    state_->queue = std::move(queue);
    state_->load();
    registerForExit(state_);
}

FileUserDefaults::~FileUserDefaults() {
    std::lock_guard lock(state_->mutex);
    state_->flushLocked();
}

std::filesystem::path FileUserDefaults::defaultPath() {
    std::filesystem::path base;
    if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg)
        base = xdg;
    else if (const char* home = std::getenv("HOME"); home && *home)
        base = std::filesystem::path(home) / ".config";
    else
        base = ".config";
    return base / "Kavelin" / "UserDefaults.json";
}

std::optional<nlohmann::json> FileUserDefaults::object(const std::string& key) const {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    std::lock_guard lock(state_->mutex);
    auto it = state_->values.find(key);
    if (it == state_->values.end()) return std::nullopt;
    return *it;
}

void FileUserDefaults::setObject(const std::string& key, const nlohmann::json& value) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    state_->store(state_, key, value);
}

void FileUserDefaults::setObject(const std::string& key, nlohmann::json&& value) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    state_->store(state_, key, std::move(value));
}

void FileUserDefaults::removeObject(const std::string& key) {
    KAVELIN_ASSERT_ON_MAIN_QUEUE();
    std::lock_guard lock(state_->mutex);
    if (state_->values.erase(key) == 0) return;
    state_->markDirty(state_);
}

void FileUserDefaults::flush() {
    std::lock_guard lock(state_->mutex);
    state_->flushLocked();
}

size_t FileUserDefaults::fileWriteCount() const {
    std::lock_guard lock(state_->mutex);
    return state_->writes;
}

}  // namespace kavelin
