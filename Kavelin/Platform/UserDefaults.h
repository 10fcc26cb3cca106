#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace kavelin {

// The persistent key -> value store standing in for the platform's user defaults.
// Values are property-list-like (string, number, boolean, array, dictionary) and
// keep their JSON types. Reads and writes are served from memory at once; what
// reaches the disk, and when, is the implementation's business. Main queue only.
class UserDefaults {
  public:
    virtual ~UserDefaults() = default;

    virtual std::optional<nlohmann::json> object(const std::string& key) const = 0;
    // An equal value changes nothing; the const& form lets a caller re-store a large
    // cached value every tick without copying it.
    virtual void setObject(const std::string& key, const nlohmann::json& value) = 0;
    virtual void setObject(const std::string& key, nlohmann::json&& value) = 0;
    virtual void removeObject(const std::string& key) = 0;

    // Makes pending changes durable now (nothing when nothing changed).
    virtual void flush() = 0;
};

}  // namespace kavelin
