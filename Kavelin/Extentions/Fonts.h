#pragma once

#include <imgui.h>

#include <string>

namespace kavelin {

// A typeface at a point size, as the views ask for it. `font` is never null once
// the fonts are installed; it is the default font when the file was missing.
struct Font {
    ImFont* font = nullptr;
    float size = 13;

    static Font poppinsMedium(float size);
    static Font poppinsSemiBold(float size);
    // The system font, monospaced design, bold (the time label).
    static Font monospacedBold(float size);
    static Font system(float size);

    // Adds the typefaces to the current ImGui context's atlas (before it is built).
    // Missing files fall back to ImGui's default font.
    static void install(ImGuiIO& io);
    // Where Poppins-*.ttf are looked for: $KAVELIN_FONTS_DIR, else <build>/fonts.
    static std::string fontsDirectory();
    // Whether the Poppins files were found by the last install.
    static bool hasPoppins();
};

}  // namespace kavelin
