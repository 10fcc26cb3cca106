#include "Kavelin/log/VPLogger.h"

#include <atomic>
#include <cstdio>
#include <ctime>
#include <mutex>

#include "Kavelin/Platform/Immortal.h"

namespace kavelin {
namespace {

constexpr std::string_view kPrefix = "[QORVA_VIDEO_PLAYER]";

std::atomic<bool> gEnabled{true};

std::mutex& sinkMutex() {
    static Immortal<std::mutex> m;
    return m.get();
}

VPLogger::Sink& sink() {
    static Immortal<VPLogger::Sink> s;
    return s.get();
}

// "yyyy-MM-dd HH:mm:ss" in the local time zone; digits never depend on the locale.
std::string currentTimestamp() {
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char buf[24];
    std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &local);
    return buf;
}

std::string_view lastPathComponent(std::string_view file) {
    auto slash = file.rfind('/');
    return slash == std::string_view::npos ? file : file.substr(slash + 1);
}

}  // namespace

std::string_view rawValue(LogType type) {
    switch (type) {
        case LogType::log:
            return "LOG";
        case LogType::warning:
            return "WARNING";
        case LogType::error:
            return "ERROR";
    }
    return "LOG";
}

std::optional<LogType> logTypeFromRaw(std::string_view raw) {
    for (auto t : {LogType::log, LogType::warning, LogType::error})
        if (rawValue(t) == raw) return t;
    return std::nullopt;
}

void VPLogger::log(std::string_view message, SourceLocation where) {
    print(message, LogType::log, where.file, where.line);
}

void VPLogger::warning(std::string_view message, SourceLocation where) {
    print(message, LogType::warning, where.file, where.line);
}

void VPLogger::error(std::string_view message, SourceLocation where) {
    print(message, LogType::error, where.file, where.line);
}

void VPLogger::print(std::string_view message, LogType type, std::string_view file, int line) {
    if (!gEnabled.load(std::memory_order_relaxed)) return;
    std::string out;
    out.reserve(64 + message.size());
    out.append(kPrefix).append(" - ").append(currentTimestamp()).append(" : [");
    out.append(rawValue(type)).append("] [").append(lastPathComponent(file)).append(":");
    out.append(std::to_string(line)).append("] ").append(message);

    std::lock_guard lock(sinkMutex());
    if (sink()) {
        sink()(out);
        return;
    }
    out.push_back('\n');
    std::fwrite(out.data(), 1, out.size(), stdout);
    std::fflush(stdout);
}

void VPLogger::setEnabled(bool enabled) {
    gEnabled.store(enabled);
}
bool VPLogger::isEnabled() {
    return gEnabled.load();
}

void VPLogger::setSink(Sink s) {
    std::lock_guard lock(sinkMutex());
    sink() = std::move(s);
}

}  // namespace kavelin
