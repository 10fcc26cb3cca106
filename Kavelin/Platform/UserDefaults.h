#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "Kavelin/Platform/MainQueue.h"

namespace kavelin {

// The persistent key -> value store standing in for the platform's user defaults.
// Values are property-list-like (string, number, boolean, array, dictionary) and
// keep their JSON types. Reads and writes are served from memory at once; the file
// is rewritten coalesced (at most about once a second while values change, and
// always on flush/teardown/process exit), atomically via temp file, fsync, rename.
class UserDefaults {
  public:
    // `file` is the JSON file; `queue` schedules the coalesced writes.
    UserDefaults(std::filesystem::path file, std::shared_ptr<MainQueue> queue);
    ~UserDefaults();  // flushes pending changes

    // $XDG_CONFIG_HOME/Kavelin/UserDefaults.json, or ~/.config/... when unset.
    static std::filesystem::path defaultPath();

    std::optional<nlohmann::json> object(const std::string& key) const;
    // An equal value changes nothing and schedules no write; the const& form lets
    // a caller re-store a large cached value every tick without copying it.
    void setObject(const std::string& key, const nlohmann::json& value);
    void setObject(const std::string& key, nlohmann::json&& value);
    void removeObject(const std::string& key);

    // Writes pending changes now (no-op when nothing changed).
    void flush();

    // How many times the file was (re)written; benchmarks and tests read it.
    size_t fileWriteCount() const;

  private:
    struct State;
    std::shared_ptr<State> state_;
};

// Reads a top-level JSON object member by member, keeping every member that parses
// and counting the others in `dropped` (a torn tail counts as one). Nesting and
// size are bounded before anything recursive sees the text. nullopt when the text
// does not even start an object.
std::optional<nlohmann::json> salvageObject(std::string_view text, size_t& dropped);

}  // namespace kavelin
