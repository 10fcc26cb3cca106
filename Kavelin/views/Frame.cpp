#include "Kavelin/views/Frame.h"

#include <algorithm>
#include <cmath>
#include <map>

#include "Kavelin/Extentions/Color+Ext.h"
#include "Kavelin/Platform/Immortal.h"

namespace kavelin {

namespace {
constexpr float kTapSlop = 10.0f;

struct TextureState {
    Textures::Upload upload;
    Textures::Release release;
    std::map<const Image*, std::pair<std::weak_ptr<const Image>, ImTextureID>> uploaded;
};
TextureState& textureState() {
    static Immortal<TextureState> state;
    return state.get();
}
}  // namespace

namespace {
std::function<void()>& invalidation() {
    static Immortal<std::function<void()>> fn;
    return fn.get();
}
}  // namespace

void Display::setNeedsDisplay() {
    if (auto& fn = invalidation()) fn();
}
void Display::install(std::function<void()> invalidate) {
    invalidation() = std::move(invalidate);
}

const DrawTrace::Item* DrawTrace::find(Kind kind, std::string_view name) const {
    for (const auto& item : items)
        if (item.kind == kind && item.name == name) return &item;
    return nullptr;
}

size_t DrawTrace::count(Kind kind, std::string_view name) const {
    return static_cast<size_t>(std::count_if(items.begin(), items.end(), [&](const Item& i) {
        return i.kind == kind && i.name == name;
    }));
}

void Textures::install(Upload upload, Release release) {
    uninstall();
    auto& s = textureState();
    s.upload = std::move(upload);
    s.release = std::move(release);
}

void Textures::uninstall() {
    auto& s = textureState();
    if (s.release)
        for (auto& [key, entry] : s.uploaded) s.release(entry.second);
    s.uploaded.clear();
    s.upload = nullptr;
    s.release = nullptr;
}

ImTextureID Textures::get(const std::shared_ptr<const Image>& image) {
    auto& s = textureState();
    if (!image || image->empty() || !s.upload) return nullptr;
    auto it = s.uploaded.find(image.get());
    if (it != s.uploaded.end()) {
        if (!it->second.first.expired()) return it->second.second;
        // The picture went away and its address was reused: drop the old texture.
        if (s.release) s.release(it->second.second);
        s.uploaded.erase(it);
    }
    ImTextureID id = s.upload(*image);
    if (id) s.uploaded[image.get()] = {image, id};
    return id;
}

size_t Textures::uploadedCount() {
    return textureState().uploaded.size();
}

Frame::Frame(ImDrawList* list, double now, DrawTrace* trace)
    : list_(list), now_(now), trace_(trace) {}

ImVec2 Frame::pointer() const {
    return ImGui::GetIO().MousePos;
}
bool Frame::isDown() const {
    return ImGui::GetIO().MouseDown[0];
}

bool Frame::pressedIn(const Rect& r) const {
    const auto& io = ImGui::GetIO();
    return io.MouseClicked[0] && r.contains(io.MouseClickedPos[0]);
}

bool Frame::isDragging() const {
    const auto& io = ImGui::GetIO();
    return io.MouseDown[0] && io.MouseDragMaxDistanceSqr[0] > kTapSlop * kTapSlop;
}

bool Frame::tapIn(const Rect& r) {
    if (tapConsumed_) return false;
    const auto& io = ImGui::GetIO();
    if (!io.MouseReleased[0]) return false;
    if (io.MouseDragMaxDistanceSqr[0] > kTapSlop * kTapSlop) return false;
    if (!r.contains(io.MouseClickedPos[0]) || !r.contains(io.MousePos)) return false;
    tapConsumed_ = true;
    return true;
}

float Frame::wheel() const {
    const auto& io = ImGui::GetIO();
    return std::abs(io.MouseWheelH) > std::abs(io.MouseWheel) ? io.MouseWheelH : io.MouseWheel;
}

ImU32 Frame::color(ImU32 c) const {
    return Color::withOpacity(c, opacity_);
}

void Frame::fill(const Rect& r, ImU32 c, RoundedCorner shape) {
    if (opacity_ <= 0 || r.empty()) return;
    shape.fill(list_, r, color(c));
}

void Frame::stroke(const Rect& r, ImU32 c, float lineWidth, RoundedCorner shape) {
    if (opacity_ <= 0 || r.empty()) return;
    shape.stroke(list_, r, color(c), lineWidth);
}

void Frame::verticalGradient(const Rect& r, ImU32 top, ImU32 bottom) {
    if (opacity_ <= 0 || r.empty()) return;
    list_->AddRectFilledMultiColor({r.x, r.y}, {r.right(), r.bottom()}, color(top), color(top),
                                   color(bottom), color(bottom));
}

void Frame::text(const Font& font, ImVec2 pos, ImU32 c, std::string_view text) {
    if (trace_ && opacity_ > 0) {
        ImVec2 size =
            font.font->CalcTextSizeA(font.size, FLT_MAX, 0, text.data(), text.data() + text.size());
        trace_->items.push_back(
            {DrawTrace::Kind::text, std::string(text), {pos.x, pos.y, size.x, size.y}, opacity_});
    }
    if (opacity_ <= 0) return;
    list_->AddText(font.font, font.size, pos, color(c), text.data(), text.data() + text.size());
}

void Frame::asset(const std::string& name, const Rect& r, float opacity, bool rotated180,
                  ImVec2 rasterSize) {
    Opacity scope(*this, opacity);
    if (trace_ && opacity_ > 0)
        trace_->items.push_back({DrawTrace::Kind::image, name, r, opacity_});
    if (opacity_ <= 0 || r.empty()) return;
    float scale = ImGui::GetIO().DisplayFramebufferScale.x;
    if (scale <= 0) scale = 1;
    ImVec2 size = rasterSize.x > 0 && rasterSize.y > 0 ? rasterSize : ImVec2(r.w, r.h);
    auto image = assetImage(name, static_cast<int>(std::ceil(size.x * scale)),
                            static_cast<int>(std::ceil(size.y * scale)));
    ImTextureID tex = Textures::get(image);
    if (!tex) return;
    ImVec2 uv0 = rotated180 ? ImVec2(1, 1) : ImVec2(0, 0);
    ImVec2 uv1 = rotated180 ? ImVec2(0, 0) : ImVec2(1, 1);
    list_->AddImage(tex, r.min(), r.max(), uv0, uv1, color(IM_COL32_WHITE));
}

void Frame::stretchableAsset(const std::string& name, const Rect& r, float capInset) {
    if (trace_ && opacity_ > 0)
        trace_->items.push_back({DrawTrace::Kind::image, name, r, opacity_});
    if (opacity_ <= 0 || r.empty()) return;
    float scale = ImGui::GetIO().DisplayFramebufferScale.x;
    if (scale <= 0) scale = 1;
    // Rasterised at a fixed 40-point width: the caps are capInset / 40 of it.
    const float assetWidth = 40;
    auto image = assetImage(name, static_cast<int>(std::ceil(assetWidth * scale)),
                            static_cast<int>(std::ceil(r.h * scale)));
    ImTextureID tex = Textures::get(image);
    if (!tex) return;
    float cap = std::min(capInset, r.w / 2);
    float u = capInset / assetWidth;
    ImU32 c = color(IM_COL32_WHITE);
    list_->AddImage(tex, r.min(), {r.x + cap, r.bottom()}, {0, 0}, {u, 1}, c);
    list_->AddImage(tex, {r.x + cap, r.y}, {r.right() - cap, r.bottom()}, {u, 0}, {1 - u, 1}, c);
    list_->AddImage(tex, {r.right() - cap, r.y}, r.max(), {1 - u, 0}, {1, 1}, c);
}

void Frame::picture(const std::shared_ptr<const Image>& image, const std::string& name,
                    const Rect& r, RoundedCorner shape) {
    if (trace_ && opacity_ > 0)
        trace_->items.push_back({DrawTrace::Kind::picture, name, r, opacity_});
    if (opacity_ <= 0 || r.empty() || !image) return;
    ImTextureID tex = Textures::get(image);
    if (!tex) return;
    UVRect uv =
        aspectFillUV(static_cast<float>(image->width), static_cast<float>(image->height), r.w, r.h);
    list_->AddImageRounded(tex, r.min(), r.max(), uv.uv0, uv.uv1, color(IM_COL32_WHITE),
                           shape.radius, shape.drawFlags());
}

void Frame::pushClip(const Rect& r) {
    list_->PushClipRect(r.min(), r.max(), true);
}
void Frame::popClip() {
    list_->PopClipRect();
}

std::vector<std::string> wrapText(const Font& font, std::string_view text, float width,
                                  int maxLines) {
    std::vector<std::string> lines;
    auto measure = [&](std::string_view s) {
        return font.font->CalcTextSizeA(font.size, FLT_MAX, 0, s.data(), s.data() + s.size()).x;
    };
    size_t pos = 0;
    while (pos < text.size() && static_cast<int>(lines.size()) < maxLines) {
        while (pos < text.size() && text[pos] == ' ') ++pos;
        if (pos >= text.size()) break;
        // Longest run of words that fits; a single long word is cut by characters.
        size_t end = pos, lastFit = pos;
        while (end < text.size()) {
            size_t next = text.find(' ', end + 1);
            if (next == std::string_view::npos) next = text.size();
            if (measure(text.substr(pos, next - pos)) > width) break;
            lastFit = next;
            end = next;
        }
        if (lastFit == pos) {
            lastFit = pos + 1;
            while (lastFit < text.size() && measure(text.substr(pos, lastFit + 1 - pos)) <= width)
                ++lastFit;
            // Never split a UTF-8 sequence.
            while (lastFit < text.size() &&
                   (static_cast<unsigned char>(text[lastFit]) & 0xC0) == 0x80)
                ++lastFit;
        }
        lines.emplace_back(text.substr(pos, lastFit - pos));
        pos = lastFit;
    }
    while (pos < text.size() && text[pos] == ' ') ++pos;
    if (pos < text.size() && !lines.empty()) {
        // More text than lines: end the last line in an ellipsis.
        std::string& last = lines.back();
        const std::string ellipsis = "...";
        while (!last.empty() && measure(last + ellipsis) > width) {
            // Drop one whole code point: its continuation bytes, then its lead byte.
            unsigned char dropped;
            do {
                dropped = static_cast<unsigned char>(last.back());
                last.pop_back();
            } while (!last.empty() && (dropped & 0xC0) == 0x80);
        }
        while (!last.empty() && last.back() == ' ') last.pop_back();
        last += ellipsis;
    }
    return lines;
}

}  // namespace kavelin
