#include "Kavelin/views/VideoSurfaces.h"

#include <imgui.h>

#include <cmath>
#include <numbers>

#include "Kavelin/Extentions/Color+Ext.h"

namespace kavelin {

namespace {
int pixels(float points) {
    float scale = ImGui::GetIO().DisplayFramebufferScale.x;
    return static_cast<int>(std::lround(points * (scale > 0 ? scale : 1)));
}
}  // namespace

Rect aspectFitRect(float videoW, float videoH, const Rect& b) {
    if (videoW <= 0 || videoH <= 0 || b.empty()) return b;
    float scale = std::min(b.w / videoW, b.h / videoH);
    float w = videoW * scale, h = videoH * scale;
    return {b.x + (b.w - w) / 2, b.y + (b.h - h) / 2, w, h};
}

void AspectFitVideoPlayer::draw(Frame& frame, const Rect& bounds) const {
    auto* renderer = VideoRenderer::current();
    auto video = player && renderer
                     ? renderer->frameFor(player, pixels(bounds.w), pixels(bounds.h), false)
                     : std::nullopt;
    if (!video || !video->texture) {
        frame.fill(bounds, Color::black());
        return;
    }
    Rect r =
        aspectFitRect(static_cast<float>(video->width), static_cast<float>(video->height), bounds);
    // The picture is rendered at the size of the bounds, bars included; the black
    // under it is needed only while its size lags behind theirs. Filling costs a
    // whole-window pass of software GL per frame.
    if (r.w < bounds.w - 0.5f || r.h < bounds.h - 0.5f) frame.fill(bounds, Color::black());
    frame.pushClip(bounds);
    frame.list()->AddImage(reinterpret_cast<ImTextureID>(video->texture), r.min(), r.max(), {0, 0},
                           {1, 1}, frame.color(IM_COL32_WHITE));
    frame.popClip();
}

void ActivityIndicator::draw(Frame& frame, ImVec2 c) const {
    if (!isAnimating) return;
    const float size = style == Style::large ? largeSize : mediumSize;
    const int spokes = 12;
    int lead = static_cast<int>(std::fmod(frame.now() * 12, spokes));
    for (int i = 0; i < spokes; ++i) {
        float a = static_cast<float>(i) * 2 * std::numbers::pi_v<float> / spokes -
                  std::numbers::pi_v<float> / 2;
        float age = static_cast<float>((lead - i + spokes) % spokes) / spokes;
        ImVec2 dir{std::cos(a), std::sin(a)};
        frame.list()->AddLine({c.x + dir.x * size * 0.25f, c.y + dir.y * size * 0.25f},
                              {c.x + dir.x * size * 0.5f, c.y + dir.y * size * 0.5f},
                              frame.color(Color::white(1.0f - 0.75f * age)), size * 0.09f);
    }
    frame.requestAnimationFrame();
}

}  // namespace kavelin
