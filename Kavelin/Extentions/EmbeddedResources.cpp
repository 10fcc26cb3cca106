#include "Kavelin/Extentions/EmbeddedResources.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace kavelin {

std::optional<std::string> resourceBytes(std::string_view name, const char* overrideVariable) {
    const char* dir = overrideVariable ? std::getenv(overrideVariable) : nullptr;
    // A host's "kavelin:" thumbnail address must not walk out of the folder.
    if (dir && *dir && name.find("..") == std::string_view::npos) {
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
