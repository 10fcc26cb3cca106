#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Kavelin/Model/Catalogue.h"

// The playlists document comes from a remote configuration. Rejecting it is fine;
// any other exception, a crash or a sanitizer report is a bug.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    try {
        for (const auto& response : kavelin::decodePlaylistResponses(text))
            if (response.id.size() > size) __builtin_trap();  // decoded from nowhere
    } catch (const kavelin::DecodingError&) {
    }
    return 0;
}
