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
    // Poppins comes from $KAVELIN_FONTS_DIR when set, else from the copy built into
    // the library; without either, ImGui's default font stands in.
    static void install(ImGuiIO& io);
    // Whether both Poppins faces were installed by the last install.
    static bool hasPoppins();
};

}  // namespace kavelin
