#include "Kavelin/Extentions/Fonts.h"

#include <cstdlib>
#include <filesystem>

#include "Kavelin/Platform/Immortal.h"

namespace kavelin {

namespace {

// Rasterised once at this size and scaled when drawn.
constexpr float kAtlasSize = 40.0f;

struct Installed {
    ImGuiContext* context = nullptr;
    ImFont* medium = nullptr;
    ImFont* semiBold = nullptr;
    ImFont* mono = nullptr;
    ImFont* fallback = nullptr;
    bool poppins = false;
};

Installed& installed() {
    static Immortal<Installed> fonts;
    return fonts.get();
}

ImFont* addIfPresent(ImGuiIO& io, const std::string& path) {
    std::error_code ec;
    if (!std::filesystem::exists(path, ec)) return nullptr;
    return io.Fonts->AddFontFromFileTTF(path.c_str(), kAtlasSize);
}

Font pick(ImFont* wanted, float size) {
    auto& f = installed();
    ImFont* font = wanted ? wanted : f.fallback;
    if (!font || f.context != ImGui::GetCurrentContext()) font = ImGui::GetFont();
    return {font, size};
}

}  // namespace

std::string Font::fontsDirectory() {
    if (const char* dir = std::getenv("KAVELIN_FONTS_DIR"); dir && *dir) return dir;
    return std::string(KAVELIN_BUILD_DIR) + "/fonts";
}

void Font::install(ImGuiIO& io) {
    auto& f = installed();
    f = Installed{};
    f.context = ImGui::GetCurrentContext();
    // The first font added is ImGui's default; keep ours explicit.
    f.fallback = io.Fonts->AddFontDefault();
    const std::string dir = fontsDirectory();
    f.medium = addIfPresent(io, dir + "/Poppins-Medium.ttf");
    f.semiBold = addIfPresent(io, dir + "/Poppins-SemiBold.ttf");
    f.poppins = f.medium && f.semiBold;
    f.mono = addIfPresent(io, "/usr/share/fonts/truetype/dejavu/DejaVuSansMono-Bold.ttf");
    ImFont* system = addIfPresent(io, "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf");
    if (system) f.fallback = system;
    if (!f.medium) f.medium = f.fallback;
    if (!f.semiBold) f.semiBold = f.fallback;
    if (!f.mono) f.mono = f.fallback;
}

bool Font::hasPoppins() {
    return installed().poppins;
}

Font Font::poppinsMedium(float size) {
    return pick(installed().medium, size);
}
Font Font::poppinsSemiBold(float size) {
    return pick(installed().semiBold, size);
}
Font Font::monospacedBold(float size) {
    return pick(installed().mono, size);
}
Font Font::system(float size) {
    return pick(installed().fallback, size);
}

}  // namespace kavelin
