#pragma once

#include <imgui.h>

#include <functional>

#include "Kavelin/Extentions/Fonts.h"
#include "Kavelin/views/Frame.h"

namespace kavelin::testing {

// An ImGui context without a window, with the library's fonts. Each frame takes a
// synthetic pointer and records what was drawn in `trace` (cleared first).
class HeadlessImGui {
  public:
    explicit HeadlessImGui(ImVec2 size = {800, 400}) : context_(ImGui::CreateContext()) {
        ImGuiIO& io = ImGui::GetIO();
        io.IniFilename = nullptr;
        io.DisplaySize = size;
        Font::install(io);
        io.Fonts->Build();
    }
    ~HeadlessImGui() { ImGui::DestroyContext(context_); }
    HeadlessImGui(const HeadlessImGui&) = delete;
    HeadlessImGui& operator=(const HeadlessImGui&) = delete;

    void frame(double now, const std::function<void(Frame&)>& draw, ImVec2 mouse = {-1, -1},
               bool down = false) {
        ImGuiIO& io = ImGui::GetIO();
        io.MousePos = mouse;
        io.MouseDown[0] = down;
        io.DeltaTime = 1.0f / 60;
        ImGui::NewFrame();
        trace.items.clear();
        Frame f(ImGui::GetBackgroundDrawList(), now, &trace);
        draw(f);
        ImGui::Render();
    }

    DrawTrace trace;

  private:
    ImGuiContext* context_;
};

}  // namespace kavelin::testing
