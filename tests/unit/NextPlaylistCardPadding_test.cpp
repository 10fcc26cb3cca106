// The next-playlist card's stack carries the default padding above it, so it sits
// 16 points lower in the rail than the video cards beside it.
#include <gtest/gtest.h>
#include <imgui.h>

#include "Kavelin/views/PlaylistVideoView.h"

namespace kavelin {
namespace {

TEST(NextPlaylistCard, SitsOnePaddingBelowItsOrigin) {
    ImGuiContext* context = ImGui::CreateContext();
    ImGuiIO& io = ImGui::GetIO();
    io.IniFilename = nullptr;
    io.DisplaySize = {400, 400};
    Font::install(io);
    io.Fonts->Build();
    PlaylistCardView card("Name pl-2", "", {180, 130}, false);

    auto frame = [&](ImVec2 pointer, bool down) {
        io.MousePos = pointer;
        io.MouseDown[0] = down;
        io.DeltaTime = 1.0f / 60;
        ImGui::NewFrame();
        Frame f(ImGui::GetBackgroundDrawList(), 0);
        const bool tapped = card.draw(f, {0, 0});
        ImGui::Render();
        return tapped;
    };
    // The card covers y 16 to 146.
    for (auto [y, hits] :
         {std::pair{5.0f, false}, {20.0f, true}, {140.0f, true}, {150.0f, false}}) {
        frame({90, y}, true);
        EXPECT_EQ(frame({90, y}, false), hits) << "tap at y " << y;
    }
    ImGui::DestroyContext(context);
}

}  // namespace
}  // namespace kavelin
