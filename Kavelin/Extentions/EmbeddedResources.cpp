#include "Kavelin/Extentions/EmbeddedResources.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace kavelin {

std::optional<std::string> resourceBytes(std::string_view name, const char* overrideVariable) {
    if (const char* dir = overrideVariable ? std::getenv(overrideVariable) : nullptr; dir && *dir) {
        // Artwork being edited is picked up without a rebuild.
        if (std::ifstream in(std::string(dir) + "/" + std::string(name), std::ios::binary); in) {
            std::stringstream buffer;
            buffer << in.rdbuf();
            return buffer.str();
        }
    }
    if (auto bytes = embeddedResource(name)) return std::string(*bytes);
    return std::nullopt;
}

}  // namespace kavelin
