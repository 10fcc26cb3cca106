# Writes OUTPUT, a C++ source holding every file of FILES (entries "name=path" joined by "|") as a
# byte array, so the library needs nothing from the machine that built it.
# Run as: cmake -DOUTPUT=... -DFILES="a=/x|b=/y" -P EmbedResources.cmake
string(REPLACE "|" ";" FILES "${FILES}")
set(body "")
set(table "")
set(index 0)
foreach(entry IN LISTS FILES)
  string(FIND "${entry}" "=" eq)
  string(SUBSTRING "${entry}" 0 ${eq} name)
  math(EXPR from "${eq} + 1")
  string(SUBSTRING "${entry}" ${from} -1 path)
  file(READ "${path}" hex HEX)
  string(LENGTH "${hex}" digits)
  math(EXPR size "${digits} / 2")
  string(REGEX REPLACE "(..)" "0x\\1," bytes "${hex}")
  string(APPEND body "alignas(8) const unsigned char r${index}[] = {${bytes}0};\n")
  string(APPEND table "    {\"${name}\", {reinterpret_cast<const char*>(r${index}), ${size}}},\n")
  math(EXPR index "${index} + 1")
endforeach()
file(WRITE "${OUTPUT}.tmp" "// Generated at build time; do not edit.
#include \"Kavelin/Extentions/EmbeddedResources.h\"

#include <array>
#include <utility>

namespace kavelin {
namespace {
${body}
const std::pair<std::string_view, std::string_view> resources[] = {
${table}    {{}, {}},
};
}  // namespace

std::optional<std::string_view> embeddedResource(std::string_view name) {
    for (const auto& [key, bytes] : resources)
        if (!key.empty() && key == name) return bytes;
    return std::nullopt;
}

}  // namespace kavelin
")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
