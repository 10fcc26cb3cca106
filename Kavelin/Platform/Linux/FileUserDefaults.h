#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string_view>

#include "Kavelin/Platform/MainQueue.h"
#include "Kavelin/Platform/UserDefaults.h"

namespace kavelin {

// User defaults in one JSON file. The file is rewritten coalesced (at most about
// once a second while values change, and always on flush/teardown/process exit),
// atomically via temp file, fsync, rename. A damaged file is set aside and what
// can be read of it is kept.
class FileUserDefaults final : public UserDefaults {
  public:
    // `file` is the JSON file; `queue` schedules the coalesced writes.
    FileUserDefaults(std::filesystem::path file, std::shared_ptr<MainQueue> queue);
    ~FileUserDefaults() override;  // flushes pending changes

    // $XDG_CONFIG_HOME/Kavelin/UserDefaults.json, or ~/.config/... when unset.
    static std::filesystem::path defaultPath();

    std::optional<nlohmann::json> object(const std::string& key) const override;
    void setObject(const std::string& key, const nlohmann::json& value) override;
    void setObject(const std::string& key, nlohmann::json&& value) override;
    void removeObject(const std::string& key) override;
    void flush() override;

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
