#include "Kavelin/views/PlaylistVideoView.h"

#include <algorithm>

#include "Kavelin/Extentions/Color+Ext.h"
#include "Kavelin/views/OrientationObserver.h"

namespace kavelin {

namespace {
float lineHeight(const Font& font) {
    return font.size * 1.2f;
}
}  // namespace

bool PlaylistVideoView::deviceIsPadIdiom() {
    return deviceIsPad();
}

PlaylistVideoView::PlaylistVideoView(Video video, std::shared_ptr<PlaylistController> controller,
                                     std::shared_ptr<MainQueue> queue, ImVec2 size,
                                     std::function<void(const Video&)> onSelected, bool isPad)
    : video_(std::move(video)),
      controller_(std::move(controller)),
      size_(size),
      onSelected_(std::move(onSelected)),
      isPad_(isPad),
      image_(video_.thumbnail, std::move(queue)) {}

std::optional<std::string> PlaylistVideoView::overlayText(VideoState state, int remainingTime) {
    switch (state) {
        case VideoState::nextVideo:
            return "Playing in " + std::to_string(remainingTime) + "s";
        case VideoState::completed:
            return std::string("Watched");
        case VideoState::watching:
        case VideoState::none:
            break;
    }
    return std::nullopt;
}

float PlaylistVideoView::dimOpacity(VideoState state) {
    return state == VideoState::none ? 0.0f : UI::overlayOpacity;
}

bool PlaylistVideoView::showsAdBadge(SubscriptionStatus status) {
    return status == SubscriptionStatus::free;
}

Rect PlaylistVideoView::adBadgeRect(ImVec2 pictureOrigin, bool isPad) {
    float size = UI::adIconSize(isPad);
    float offset = UI::adIconOffset(isPad);
    return {pictureOrigin.x + offset, pictureOrigin.y + offset, size, size};
}

float PlaylistVideoView::height() const {
    Font font = Font::poppinsMedium(UI::titleFontSize(isPad_));
    auto lines = wrapText(font, video_.title, size_.x, 2);
    return size_.y + UI::titleSpacing + lineHeight(font) * static_cast<float>(lines.size());
}

void PlaylistVideoView::thumbnail(Frame& frame, const Rect& picture, VideoState state) {
    RoundedCorner shape = cornerRadius(UI::cornerRadius);
    image_.draw(frame, picture, shape);
    float dim = dimOpacity(state);
    if (dim > 0) frame.fill(picture, Color::black(dim), shape);
}

void PlaylistVideoView::overlay(Frame& frame, const Rect& picture, VideoState state,
                                int remainingTime) {
    switch (state) {
        case VideoState::watching:
            frame.stroke(picture, Color::white(), UI::borderWidth, cornerRadius(UI::cornerRadius));
            break;
        case VideoState::nextVideo: {
            Font font = Font::poppinsSemiBold(UI::countdownFontSize(isPad_));
            std::string text = *overlayText(state, remainingTime);
            ImVec2 size = font.font->CalcTextSizeA(font.size, FLT_MAX, 0, text.c_str());
            frame.text(font, {picture.midX() - size.x / 2, picture.midY() - size.y / 2},
                       Color::white(), text);
            break;
        }
        case VideoState::completed: {
            Font font = Font::poppinsMedium(UI::watchedFontSize(isPad_));
            std::string text = *overlayText(state, remainingTime);
            ImVec2 textSize = font.font->CalcTextSizeA(font.size, FLT_MAX, 0, text.c_str());
            float total = UI::checkmarkSize + UI::watchedSpacing + textSize.y;
            float top = picture.midY() - total / 2;
            frame.asset("checkmark.circle.fill", {picture.midX() - UI::checkmarkSize / 2, top,
                                                  UI::checkmarkSize, UI::checkmarkSize});
            frame.text(
                font,
                {picture.midX() - textSize.x / 2, top + UI::checkmarkSize + UI::watchedSpacing},
                Color::white(), text);
            break;
        }
        case VideoState::none:
            break;
    }
}

Rect PlaylistVideoView::draw(Frame& frame, ImVec2 origin) {
    Rect card{origin.x, origin.y, size_.x, height()};
    if (frame.tapIn(card) && onSelected_) onSelected_(video_);

    VideoState state = controller_ ? controller_->state(video_) : VideoState::none;
    int remaining = controller_ ? controller_->remainingTimeFor(video_) : 0;
    Rect picture{origin.x, origin.y, size_.x, size_.y};
    thumbnail(frame, picture, state);
    overlay(frame, picture, state, remaining);
    if (showsAdBadge(subscriptionStatus())) frame.asset("ad", adBadgeRect(origin, isPad_));

    Font font = Font::poppinsMedium(UI::titleFontSize(isPad_));
    float y = picture.bottom() + UI::titleSpacing;
    for (const auto& line : wrapText(font, video_.title, size_.x, 2)) {
        frame.text(font, {origin.x, y}, Color::white(), line);
        y += lineHeight(font);
    }
    return card;
}

PlaylistCardView::Geometry PlaylistCardView::geometry(const Rect& f, float titleBandHeight) {
    Geometry g;
    float offset = f.w * UI::stackOffsetRatio;
    g.cornerRadius = f.w * UI::cornerRadiusRatio;
    auto centred = [&](float w, float h, float up) {
        return Rect{f.midX() - w / 2, f.midY() - h / 2 - up, w, h};
    };
    g.back1 = centred(f.w * UI::backCardWidthRatio1, f.h * UI::backCardHeightRatio1, 2 * offset);
    g.back2 = centred(f.w * UI::backCardWidthRatio2, f.h * UI::backCardHeightRatio2, 0.5f * offset);
    g.front = centred(f.w, f.h - 2 * offset, 0);
    g.titleBand = {g.front.x, g.front.bottom() - titleBandHeight, g.front.w, titleBandHeight};
    return g;
}

PlaylistCardView::PlaylistCardView(std::string title, std::string imageURL,
                                   std::shared_ptr<MainQueue> queue, ImVec2 size, bool isPad)
    : title_(std::move(title)),
      size_(size),
      isPad_(isPad),
      image_(std::move(imageURL), std::move(queue)) {}

bool PlaylistCardView::draw(Frame& frame, ImVec2 origin) {
    Font font = Font::poppinsSemiBold(UI::titleFontSize(isPad_));
    float padding = UI::titlePadding(isPad_);
    auto lines = wrapText(font, title_, size_.x - 2 * padding, 2);
    float band =
        2 * padding + lineHeight(font) * static_cast<float>(std::max<size_t>(1, lines.size()));
    Rect outer{origin.x, origin.y + UI::verticalPadding, size_.x, size_.y};
    Geometry g = geometry(outer, std::min(band, size_.y / 2));
    bool tapped = frame.tapIn(outer);

    RoundedCorner round = cornerRadius(g.cornerRadius);
    frame.fill(g.back1, Color::white(), round);
    // Soft shadow under the middle card: a few widening translucent outlines.
    for (int i = 1; i <= 4; ++i) {
        float spread = UI::shadowRadius * static_cast<float>(i) / 4;
        frame.fill(g.back2.inset(-spread), Color::black(UI::shadowOpacity / 6),
                   cornerRadius(g.cornerRadius + spread));
    }
    frame.fill(g.back2, Color::white(), round);

    image_.draw(frame, g.front, round);
    // The band's backing: white blurred under white at 60 %, which over any
    // picture reads as frosted white. The blur spreads the white past the band's
    // top edge, fading into the picture.
    RoundedCorner bottomOnly = cornerRadius(g.cornerRadius, bottomLeft | bottomRight);
    const float halo = std::min(UI::blurRadius / 2, g.titleBand.y - g.front.y);
    frame.verticalGradient({g.front.x, g.titleBand.y - halo, g.front.w, halo}, Color::white(0),
                           Color::white(0.55f));
    frame.fill(g.titleBand, Color::white(0.55f), bottomOnly);
    frame.fill(g.titleBand, Color::white(UI::overlayOpacity), bottomOnly);
    float y = g.titleBand.y + padding;
    for (const auto& line : lines) {
        frame.text(font, {g.titleBand.x + padding, y}, Color::black(), line);
        y += lineHeight(font);
    }
    frame.stroke(g.front, Color::white(), UI::borderWidth, round);
    return tapped;
}

}  // namespace kavelin
