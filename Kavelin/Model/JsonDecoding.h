#pragma once

// Strict, path-aware reading of decoded JSON shared by the catalogue and policy
// decoders. Every failure is a DecodingError whose text says where and what.

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "Kavelin/Model/Catalogue.h"

namespace kavelin::json_decoding {

using nlohmann::json;

// Parses UTF-8 text; malformed text, ill-formed UTF-8 and empty input all become
// DecodingError.
json parse(std::string_view utf8);

// "string", "number", "object"... as a reader of the error would call it.
std::string_view typeName(const json& value);

// Where a value sits, for error texts. `path()` locates it ("[0].episodes[2]");
// `name()` is how an error introduces it (`key "isActive" at [0].episodes[2]`).
// A Where is a link to its parent and only renders text when a decode fails, so a
// document that decodes costs no strings; it must not outlive its parent or key.
class Where {
  public:
    std::string path() const;
    std::string name() const;

  private:
    enum class Kind { top, member, element, entry };
    Where(const Where* parent, Kind kind, std::string_view key, size_t index)
        : parent_(parent), kind_(kind), key_(key), index_(index) {}

    const Where* parent_;
    Kind kind_;
    std::string_view key_;
    size_t index_;

    friend Where topLevel();
    friend Where member(const Where& object, std::string_view key);
    friend Where element(const Where& array, size_t index);
    friend Where entry(const Where& object, std::string_view key);
};
Where topLevel();
Where member(const Where& object, std::string_view key);
Where element(const Where& array, size_t index);
// An entry of an object used as a dictionary (id -> record).
Where entry(const Where& object, std::string_view key);

[[noreturn]] void fail(const Where& where, std::string_view problem);
// The value should have been `expected` ("a string").
[[noreturn]] void typeMismatch(const Where& where, std::string_view expected, const json& found);

void requireObject(const json& value, const Where& where);
void requireArray(const json& value, const Where& where);

std::string readString(const json& value, const Where& where);
// As readString, but moves the text out of a document that is read only once.
std::string takeString(json& value, const Where& where);
bool readBool(const json& value, const Where& where);
// Integers must be JSON numbers without a fractional part (1e2 passes, 2.5 and "3" fail).
int64_t readInt64(const json& value, const Where& where);
// Any finite JSON number, integer-valued ones included.
double readDouble(const json& value, const Where& where);

// The value under `key` of an object; throws when it is missing.
const json& requiredMember(const json& object, const Where& where, std::string_view key);
json& requiredMember(json& object, const Where& where, std::string_view key);
// The value under `key`, or nullptr when it is missing or null.
const json* optionalMember(const json& object, std::string_view key);
json* optionalMember(json& object, std::string_view key);

// `Json` is `json` when the elements may be taken apart, `const json` otherwise.
template <typename T, typename Json, typename Read>
std::vector<T> readArray(Json& value, const Where& where, Read read) {
    requireArray(value, where);
    std::vector<T> out;
    out.reserve(value.size());
    for (size_t i = 0; i < value.size(); ++i) out.push_back(read(value[i], element(where, i)));
    return out;
}

}  // namespace kavelin::json_decoding
