#include "Kavelin/Extentions/Fonts.h"

#include <atomic>
#include <cstring>
#include <filesystem>

#include "Kavelin/Extentions/EmbeddedResources.h"
#include "Kavelin/Platform/Immortal.h"
#include "Kavelin/log/VPLogger.h"

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

ImFont* addPoppins(ImGuiIO& io, const char* file) {
    auto bytes = resourceBytes(file, "KAVELIN_FONTS_DIR");
    if (!bytes || bytes->empty()) return nullptr;
    // The atlas frees what it owns, so it gets a copy of its own.
    void* data = IM_ALLOC(bytes->size());
    std::memcpy(data, bytes->data(), bytes->size());
    return io.Fonts->AddFontFromMemoryTTF(data, static_cast<int>(bytes->size()), kAtlasSize);
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

void Font::install(ImGuiIO& io) {
    auto& f = installed();
    f = Installed{};
    f.context = ImGui::GetCurrentContext();
    // The first font added is ImGui's default; keep ours explicit.
    f.fallback = io.Fonts->AddFontDefault();
    f.medium = addPoppins(io, "Poppins-Medium.ttf");
    f.semiBold = addPoppins(io, "Poppins-SemiBold.ttf");
    f.poppins = f.medium && f.semiBold;
    static std::atomic<bool> warned{false};
    if (!f.poppins && !warned.exchange(true))
        VPLogger::warning(
            "⚠️ Poppins is not built into this library; the screen uses the default font");
    ImFont* imguiDefault = f.fallback;
    f.mono = addIfPresent(io, "/usr/share/fonts/truetype/dejavu/DejaVuSansMono-Bold.ttf");
    ImFont* system = addIfPresent(io, "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf");
    if (system) f.fallback = system;
    if (!f.medium) f.medium = imguiDefault;
    if (!f.semiBold) f.semiBold = imguiDefault;
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
