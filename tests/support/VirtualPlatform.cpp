#include "VirtualPlatform.h"

#include <cmath>
#include <fstream>
#include <iterator>

#include "Kavelin/Platform/Linux/FileUserDefaults.h"
#include "Kavelin/VideoPlayerBridgging.h"
#include "Kavelin/log/VPLogger.h"

namespace kavelin::testing {

VirtualPlatform::VirtualPlatform() {
    queue = std::make_shared<VirtualMainQueue>();
    media = std::make_shared<SimulatedMediaLibrary>();
    players = std::make_shared<SimulatedMediaPlayerFactory>(queue, media);
    presenter = std::make_shared<HeadlessPresenter>(queue);
    defaults = std::make_shared<FileUserDefaults>(directory_.path / "UserDefaults.json", queue);
    // A fixed, readable starting point keeps wall-clock log lines reproducible.
    wallStart_ = std::chrono::system_clock::time_point(std::chrono::seconds(1'750'000'000));

    platform_.queue = queue;
    platform_.players = players;
    platform_.presenter = presenter;
    platform_.defaults = defaults;
    platform_.wallClock = [q = std::weak_ptr<VirtualMainQueue>(queue), offset = wallOffset_,
                           start = wallStart_] {
        const double elapsed = (q.lock() ? q.lock()->now() : 0) + *offset;
        return start + std::chrono::duration_cast<std::chrono::system_clock::duration>(
                           std::chrono::duration<double>(elapsed));
    };
    Platform::install(platform_);
}

VirtualPlatform::~VirtualPlatform() {
    // Let go of everything first so the store's final flush lands before the
    // directory goes.
    Platform::install(Platform{});
    platform_ = Platform{};
    defaults.reset();
    presenter.reset();
    players.reset();
}

void VirtualPlatform::shiftWallClock(double seconds) {
    *wallOffset_ += seconds;
}

std::chrono::system_clock::time_point VirtualPlatform::wallNow() const {
    return platform_.wallClock();
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::ostream& operator<<(std::ostream& os, const HostEvent& event) {
    return os << "{\"" << event.method << "\", \"" << event.payload << "\"}";
}

EventRecorder::EventRecorder() {
    setEventObserverForTesting(
        [events = events_](std::string_view method, std::string_view message) {
            events->push_back({std::string(method), std::string(message)});
        });
}

EventRecorder::~EventRecorder() {
    setEventObserverForTesting(nullptr);
}

std::vector<HostEvent> EventRecorder::take() {
    auto taken = std::move(*events_);
    events_->clear();
    return taken;
}

size_t EventRecorder::count(std::string_view method) const {
    size_t n = 0;
    for (const auto& e : *events_)
        if (e.method == method) ++n;
    return n;
}

LogCapture::LogCapture() {
    VPLogger::setSink([lines = lines_](const std::string& line) { lines->push_back(line); });
}

LogCapture::~LogCapture() {
    VPLogger::setSink(nullptr);
}

std::string LogCapture::messageOf(const std::string& line) {
    // "[TAG] - date : [LEVEL] [file:line] message": the message follows the third "] ".
    size_t pos = 0;
    for (int i = 0; i < 3; ++i) {
        pos = line.find("] ", pos);
        if (pos == std::string::npos) return line;
        pos += 2;
    }
    return line.substr(pos);
}

std::vector<std::string> LogCapture::messages() const {
    std::vector<std::string> out;
    out.reserve(lines_->size());
    for (const auto& line : *lines_) out.push_back(messageOf(line));
    return out;
}

size_t LogCapture::count(std::string_view message) const {
    size_t n = 0;
    for (const auto& line : *lines_)
        if (messageOf(line) == message) ++n;
    return n;
}

size_t LogCapture::countPrefix(std::string_view prefix) const {
    size_t n = 0;
    for (const auto& line : *lines_)
        if (messageOf(line).starts_with(prefix)) ++n;
    return n;
}

std::string LogCapture::levelOf(std::string_view message) const {
    for (const auto& line : *lines_) {
        if (messageOf(line) != message) continue;
        const auto open = line.find(" : [");
        if (open == std::string::npos) return "";
        const auto close = line.find(']', open + 4);
        return line.substr(open + 4, close - open - 4);
    }
    return "";
}

}  // namespace kavelin::testing
