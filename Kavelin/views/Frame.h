#pragma once

#include <imgui.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Kavelin/Extentions/Fonts.h"
#include "Kavelin/Extentions/UIImage+Ext.h"
#include "Kavelin/Extentions/ViewUtilities.h"

namespace kavelin {

// What a frame drew, for tests that check what the viewer would see. Filled only
// when a trace is attached to the frame.
struct DrawTrace {
    enum class Kind { text, image, picture };
    struct Item {
        Kind kind;
        std::string name;  // the text, the asset name, or the picture's address
        Rect rect;
        float opacity;
    };
    std::vector<Item> items;

    const Item* find(Kind kind, std::string_view name) const;
    size_t count(Kind kind, std::string_view name) const;
    bool hasText(std::string_view text) const { return find(Kind::text, text) != nullptr; }
};

// Decoded pictures as GPU textures. The window installs an uploader bound to its
// GL context; without one nothing is uploaded and pictures are not drawn.
class Textures {
  public:
    using Upload = std::function<ImTextureID(const Image&)>;
    using Release = std::function<void(ImTextureID)>;

    static void install(Upload upload, Release release);
    // Releases every texture and drops the uploader.
    static void uninstall();
    // The texture for this picture, uploaded on first use (main queue only).
    static ImTextureID get(const std::shared_ptr<const Image>& image);
    static size_t uploadedCount();
};

// Asks the screen for a new frame from state that is not published (a picture
// arrived, a new video frame). Main queue only; does nothing without a screen.
class Display {
  public:
    static void setNeedsDisplay();
    static void install(std::function<void()> invalidate);
};

// One frame of drawing and input on the current ImGui context. Views read the
// pointer from here, consume taps front to back, then draw back to front.
class Frame {
  public:
    Frame(ImDrawList* list, double now, DrawTrace* trace = nullptr);

    ImDrawList* list() const { return list_; }
    double now() const { return now_; }
    DrawTrace* trace() const { return trace_; }

    // --- pointer (mouse or touch) ---
    ImVec2 pointer() const;
    bool isDown() const;
    // The button went down this frame inside `r`.
    bool pressedIn(const Rect& r) const;
    // A tap (press and release without dragging) ended this frame inside `r` and
    // nothing in front consumed it. Consumes it.
    bool tapIn(const Rect& r);
    bool tapConsumed() const { return tapConsumed_; }
    void consumeTap() { tapConsumed_ = true; }
    // Whether the press that is going on has moved far enough to be a drag.
    bool isDragging() const;
    float wheel() const;

    // --- animation ---
    void requestAnimationFrame() { needsAnotherFrame_ = true; }
    bool needsAnotherFrame() const { return needsAnotherFrame_; }

    // --- drawing, multiplied by the current opacity ---
    class Opacity {
      public:
        Opacity(Frame& frame, float opacity) : frame_(frame), saved_(frame.opacity_) {
            frame.opacity_ *= opacity;
        }
        ~Opacity() { frame_.opacity_ = saved_; }
        Opacity(const Opacity&) = delete;
        Opacity& operator=(const Opacity&) = delete;

      private:
        Frame& frame_;
        float saved_;
    };
    float opacity() const { return opacity_; }
    ImU32 color(ImU32 c) const;

    void fill(const Rect& r, ImU32 color, RoundedCorner shape = {});
    void stroke(const Rect& r, ImU32 color, float lineWidth, RoundedCorner shape = {});
    // A rectangle shading from `top` to `bottom` (soft edges such as a blur's halo).
    void verticalGradient(const Rect& r, ImU32 top, ImU32 bottom);
    // Text with its top-left at `pos`.
    void text(const Font& font, ImVec2 pos, ImU32 color, std::string_view text);
    // An artwork asset stretched over `r`, optionally turned by 180 degrees.
    // Animated sizes pass the size to rasterise at, so each frame reuses it.
    void asset(const std::string& name, const Rect& r, float opacity = 1, bool rotated180 = false,
               ImVec2 rasterSize = {0, 0});
    // An asset stretched horizontally over `r` with only its middle stretching:
    // `capInset` points at the left and right keep their shape.
    void stretchableAsset(const std::string& name, const Rect& r, float capInset);
    // A decoded picture filling `r` (cropped, never distorted) inside `shape`.
    void picture(const std::shared_ptr<const Image>& image, const std::string& name, const Rect& r,
                 RoundedCorner shape = {});
    void pushClip(const Rect& r);
    void popClip();

  private:
    ImDrawList* list_;
    double now_;
    DrawTrace* trace_;
    float opacity_ = 1;
    bool tapConsumed_ = false;
    bool needsAnotherFrame_ = false;
};

// Text that fits `width`: wrapped at blanks into at most `maxLines` lines, the
// last one cut with an ellipsis when the text does not fit.
std::vector<std::string> wrapText(const Font& font, std::string_view text, float width,
                                  int maxLines);

}  // namespace kavelin
