#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Kavelin/Model/Catalogue.h"

// The episodes document comes from a remote configuration; each decoded episode
// also becomes a video the way the catalogue does it.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    try {
        for (const auto& response : kavelin::decodeEpisodeResponses(text))
            for (const auto& episode : response.episodes) {
                const auto video = episode.toVideo(response.id);
                if (video.description != response.id) __builtin_trap();
            }
    } catch (const kavelin::DecodingError&) {
    }
    return 0;
}
