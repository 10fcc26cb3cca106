#include "Kavelin/Model/JsonDecoding.h"

#include <cmath>
#include <limits>
#include <utility>

namespace kavelin::json_decoding {
namespace {

// nlohmann's texts start with "[json.exception.parse_error.101] " and may quote
// the offending raw bytes; keep the readable part and only ASCII so the message
// is safe to log whatever the input was.
std::string readableParseError(std::string_view what) {
    if (!what.empty() && what.front() == '[') {
        auto close = what.find("] ");
        if (close != std::string_view::npos) what.remove_prefix(close + 2);
    }
    std::string out;
    out.reserve(what.size());
    for (unsigned char c : what) out.push_back(c < 0x80 ? static_cast<char>(c) : '?');
    return out;
}

std::string quoted(std::string_view key) {
    std::string out;
    out.reserve(key.size() + 2);
    out.push_back('"');
    out.append(key);
    out.push_back('"');
    return out;
}

std::string located(const Where& object) {
    std::string path = object.path();
    return path.empty() ? std::string() : " at " + path;
}

}  // namespace

json parse(std::string_view utf8) {
    try {
        return json::parse(utf8.begin(), utf8.end());
    } catch (const json::exception& e) {
        throw DecodingError("malformed JSON: " + readableParseError(e.what()));
    }
}

std::string_view typeName(const json& value) {
    switch (value.type()) {
        case json::value_t::null:
            return "null";
        case json::value_t::boolean:
            return "boolean";
        case json::value_t::number_integer:
        case json::value_t::number_unsigned:
        case json::value_t::number_float:
            return "number";
        case json::value_t::string:
            return "string";
        case json::value_t::array:
            return "array";
        case json::value_t::object:
            return "object";
        default:
            return "invalid value";
    }
}

Where topLevel() {
    return {nullptr, Where::Kind::top, {}, 0};
}

Where member(const Where& object, std::string_view key) {
    return {&object, Where::Kind::member, key, 0};
}

Where element(const Where& array, size_t index) {
    return {&array, Where::Kind::element, {}, index};
}

Where entry(const Where& object, std::string_view key) {
    return {&object, Where::Kind::entry, key, 0};
}

std::string Where::path() const {
    switch (kind_) {
        case Kind::top:
            return {};
        case Kind::member: {
            std::string parent = parent_->path();
            return parent.empty() ? std::string(key_) : parent + "." + std::string(key_);
        }
        case Kind::element:
            return parent_->path() + "[" + std::to_string(index_) + "]";
        case Kind::entry:
            return parent_->path() + "[" + quoted(key_) + "]";
    }
    return {};
}

std::string Where::name() const {
    switch (kind_) {
        case Kind::top:
            return "top level";
        case Kind::element:
            return "value at " + path();
        case Kind::member:
        case Kind::entry:
            return "key " + quoted(key_) + located(*parent_);
    }
    return {};
}

void fail(const Where& where, std::string_view problem) {
    throw DecodingError(where.name() + ": " + std::string(problem));
}

void typeMismatch(const Where& where, std::string_view expected, const json& found) {
    fail(where, "expected " + std::string(expected) + ", found " + std::string(typeName(found)));
}

void requireObject(const json& value, const Where& where) {
    if (!value.is_object()) typeMismatch(where, "an object", value);
}

void requireArray(const json& value, const Where& where) {
    if (!value.is_array()) typeMismatch(where, "an array", value);
}

std::string readString(const json& value, const Where& where) {
    if (!value.is_string()) typeMismatch(where, "a string", value);
    return value.get<std::string>();
}

std::string takeString(json& value, const Where& where) {
    if (!value.is_string()) typeMismatch(where, "a string", value);
    return std::move(value.get_ref<std::string&>());
}

bool readBool(const json& value, const Where& where) {
    if (!value.is_boolean()) typeMismatch(where, "a boolean", value);
    return value.get<bool>();
}

int64_t readInt64(const json& value, const Where& where) {
    switch (value.type()) {
        case json::value_t::number_integer:
            return value.get<int64_t>();
        case json::value_t::number_unsigned: {
            auto u = value.get<uint64_t>();
            if (u > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
                fail(where, "number " + value.dump() + " does not fit a 64-bit integer");
            return static_cast<int64_t>(u);
        }
        case json::value_t::number_float: {
            double d = value.get<double>();
            if (std::trunc(d) != d) fail(where, "expected an integer, found " + value.dump());
            // -2^63 is representable, 2^63 is not.
            if (d < -9223372036854775808.0 || d >= 9223372036854775808.0)
                fail(where, "number " + value.dump() + " does not fit a 64-bit integer");
            return static_cast<int64_t>(d);
        }
        default:
            typeMismatch(where, "a number", value);
    }
}

double readDouble(const json& value, const Where& where) {
    if (!value.is_number()) typeMismatch(where, "a number", value);
    return value.get<double>();
}

const json& requiredMember(const json& object, const Where& where, std::string_view key) {
    auto it = object.find(key);
    if (it == object.end())
        throw DecodingError("key " + quoted(key) + " not found" + located(where));
    return *it;
}

json& requiredMember(json& object, const Where& where, std::string_view key) {
    return const_cast<json&>(requiredMember(std::as_const(object), where, key));
}

const json* optionalMember(const json& object, std::string_view key) {
    auto it = object.find(key);
    if (it == object.end() || it->is_null()) return nullptr;
    return &*it;
}

json* optionalMember(json& object, std::string_view key) {
    return const_cast<json*>(optionalMember(std::as_const(object), key));
}

}  // namespace kavelin::json_decoding
