#include <SDL.h>
#include <SDL_image.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <tuple>

#include "Kavelin/Extentions/EmbeddedResources.h"
#include "Kavelin/Extentions/UIImage+Ext.h"
#include "Kavelin/Platform/Immortal.h"

namespace kavelin {

Image Image::resized(int newWidth, int newHeight) const {
    Image out;
    if (empty() || newWidth <= 0 || newHeight <= 0) return out;
    out.width = newWidth;
    out.height = newHeight;
    out.rgba.resize(static_cast<size_t>(newWidth) * newHeight * 4);
    const float sx = static_cast<float>(width) / newWidth;
    const float sy = static_cast<float>(height) / newHeight;
    for (int y = 0; y < newHeight; ++y) {
        float fy = std::max(0.0f, (y + 0.5f) * sy - 0.5f);
        int y0 = std::min(static_cast<int>(fy), height - 1);
        int y1 = std::min(y0 + 1, height - 1);
        float wy = fy - y0;
        for (int x = 0; x < newWidth; ++x) {
            float fx = std::max(0.0f, (x + 0.5f) * sx - 0.5f);
            int x0 = std::min(static_cast<int>(fx), width - 1);
            int x1 = std::min(x0 + 1, width - 1);
            float wx = fx - x0;
            for (int c = 0; c < 4; ++c) {
                auto at = [&](int px, int py) {
                    return static_cast<float>(rgba[(static_cast<size_t>(py) * width + px) * 4 + c]);
                };
                float top = at(x0, y0) * (1 - wx) + at(x1, y0) * wx;
                float bottom = at(x0, y1) * (1 - wx) + at(x1, y1) * wx;
                out.rgba[(static_cast<size_t>(y) * newWidth + x) * 4 + c] =
                    static_cast<uint8_t>(std::lround(top * (1 - wy) + bottom * wy));
            }
        }
    }
    return out;
}

namespace {

// Every SDL decode runs under this one lock. ThreadSanitizer caught libSDL2 freeing,
// in one decoding thread, a block another had allocated, ordered by nothing it can
// see; thumbnails are few and small, so decoding them one at a time costs nothing.
std::mutex& sdlDecodeMutex() {
    static Immortal<std::mutex> mutex;
    return mutex.get();
}

std::optional<Image> fromSurface(SDL_Surface* surface) {
    if (!surface) return std::nullopt;
    SDL_Surface* rgba = SDL_ConvertSurfaceFormat(surface, SDL_PIXELFORMAT_ABGR8888, 0);
    SDL_FreeSurface(surface);
    if (!rgba) return std::nullopt;
    Image image;
    image.width = rgba->w;
    image.height = rgba->h;
    image.rgba.resize(static_cast<size_t>(rgba->w) * rgba->h * 4);
    SDL_LockSurface(rgba);
    for (int y = 0; y < rgba->h; ++y) {
        const auto* row = static_cast<const uint8_t*>(rgba->pixels) + y * rgba->pitch;
        std::copy(row, row + rgba->w * 4,
                  image.rgba.begin() + static_cast<ptrdiff_t>(y) * rgba->w * 4);
    }
    SDL_UnlockSurface(rgba);
    SDL_FreeSurface(rgba);
    if (image.empty()) return std::nullopt;
    return image;
}

}  // namespace

std::optional<Image> decodeImage(std::string_view bytes, int svgWidth, int svgHeight) {
    if (bytes.empty()) return std::nullopt;
    std::unique_lock lock(sdlDecodeMutex());
    SDL_RWops* rw = SDL_RWFromConstMem(bytes.data(), static_cast<int>(bytes.size()));
    if (!rw) return std::nullopt;
    SDL_Surface* surface = nullptr;
    if (IMG_isSVG(rw)) {
        // SDL_image hands an unparsable SVG back as a 1x1 surface at most; a real
        // picture always has an outline, so ask for the size we want.
        surface = IMG_LoadSizedSVG_RW(rw, svgWidth, svgHeight);
    } else {
        surface = IMG_Load_RW(rw, 0);
    }
    SDL_RWclose(rw);
    auto image = fromSurface(surface);
    lock.unlock();
    // SDL_image keeps the drawing's proportions; artwork is stretched to the
    // frame it is asked for, as a resizable image would be.
    if (image && svgWidth > 0 && svgHeight > 0 &&
        (image->width != svgWidth || image->height != svgHeight))
        image = image->resized(svgWidth, svgHeight);
    return image;
}

namespace {

uint32_t bigEndian(std::string_view b, size_t at, size_t n) {
    uint32_t v = 0;
    for (size_t i = 0; i < n; ++i) v = (v << 8) | static_cast<uint8_t>(b[at + i]);
    return v;
}

uint32_t littleEndian(std::string_view b, size_t at, size_t n) {
    uint32_t v = 0;
    for (size_t i = n; i-- > 0;) v = (v << 8) | static_cast<uint8_t>(b[at + i]);
    return v;
}

std::optional<PixelSize> jpegPixelSize(std::string_view b) {
    size_t i = 2;
    while (i + 4 <= b.size()) {
        if (static_cast<uint8_t>(b[i]) != 0xFF) return std::nullopt;
        const uint8_t marker = static_cast<uint8_t>(b[i + 1]);
        if (marker == 0xFF) {  // fill byte
            ++i;
            continue;
        }
        if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7)) {  // no length
            i += 2;
            continue;
        }
        const uint32_t length = bigEndian(b, i + 2, 2);
        const bool frame =
            marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC;
        if (frame) {
            if (i + 9 > b.size()) return std::nullopt;
            return PixelSize{bigEndian(b, i + 7, 2), bigEndian(b, i + 5, 2)};
        }
        if (length < 2) return std::nullopt;
        i += 2 + length;
    }
    return std::nullopt;
}

}  // namespace

std::optional<PixelSize> imagePixelSize(std::string_view b) {
    auto has = [&](size_t at, std::string_view tag) {
        return b.size() >= at + tag.size() && b.substr(at, tag.size()) == tag;
    };
    if (has(0, "\x89PNG\r\n\x1a\n") && has(12, "IHDR") && b.size() >= 24)
        return PixelSize{bigEndian(b, 16, 4), bigEndian(b, 20, 4)};
    if ((has(0, "GIF87a") || has(0, "GIF89a")) && b.size() >= 10)
        return PixelSize{littleEndian(b, 6, 2), littleEndian(b, 8, 2)};
    if (has(0, "BM") && b.size() >= 26) {
        const auto height = static_cast<int32_t>(littleEndian(b, 22, 4));
        return PixelSize{static_cast<int32_t>(littleEndian(b, 18, 4)),
                         height < 0 ? -static_cast<int64_t>(height) : height};
    }
    if (has(0, "\xFF\xD8")) return jpegPixelSize(b);
    if (has(0, "RIFF") && has(8, "WEBP")) {
        if (has(12, "VP8 ") && b.size() >= 30)
            return PixelSize{littleEndian(b, 26, 2) & 0x3FFF, littleEndian(b, 28, 2) & 0x3FFF};
        if (has(12, "VP8L") && b.size() >= 25) {
            const uint32_t bits = littleEndian(b, 21, 4);
            return PixelSize{(bits & 0x3FFF) + 1, ((bits >> 14) & 0x3FFF) + 1};
        }
        if (has(12, "VP8X") && b.size() >= 30)
            return PixelSize{littleEndian(b, 24, 3) + 1, littleEndian(b, 27, 3) + 1};
    }
    return std::nullopt;
}

bool isSVG(std::string_view bytes) {
    if (bytes.empty()) return false;
    std::lock_guard lock(sdlDecodeMutex());
    SDL_RWops* rw = SDL_RWFromConstMem(bytes.data(), static_cast<int>(bytes.size()));
    if (!rw) return false;
    const bool svg = IMG_isSVG(rw) != 0;
    SDL_RWclose(rw);
    return svg;
}

std::optional<Image> decodeBoundedImage(std::string_view bytes, int64_t maxPixels, int maxSide,
                                        int svgSide) {
    if (bytes.empty() || bytes.size() > static_cast<size_t>(INT32_MAX)) return std::nullopt;
    if (isSVG(bytes)) {
        // One side is pinned to the bound and the other follows the drawing.
        std::lock_guard lock(sdlDecodeMutex());
        SDL_RWops* rw = SDL_RWFromConstMem(bytes.data(), static_cast<int>(bytes.size()));
        if (!rw) return std::nullopt;
        auto image = fromSurface(IMG_LoadSizedSVG_RW(rw, svgSide, svgSide));
        SDL_RWclose(rw);
        if (image && static_cast<int64_t>(image->width) * image->height > maxPixels)
            return std::nullopt;
        return image;
    }
    auto size = imagePixelSize(bytes);
    if (!size || size->width <= 0 || size->height <= 0 || size->width > maxSide ||
        size->height > maxSide || size->width * size->height > maxPixels)
        return std::nullopt;
    return decodeImage(bytes);
}

std::shared_ptr<const Image> assetImage(const std::string& name, int pixelWidth, int pixelHeight) {
    using Cache = std::map<std::tuple<std::string, int, int>, std::shared_ptr<const Image>>;
    static Immortal<std::mutex> mutex;
    static Immortal<Cache> assets;
    std::lock_guard lock(mutex.get());
    auto& cache = assets.get();
    auto key = std::make_tuple(name, pixelWidth, pixelHeight);
    if (auto it = cache.find(key); it != cache.end()) return it->second;
    std::shared_ptr<const Image> result;
    if (auto bytes = resourceBytes(name + ".svg", "KAVELIN_RESOURCES_DIR"))
        if (auto image = decodeImage(*bytes, pixelWidth, pixelHeight))
            result = std::make_shared<const Image>(std::move(*image));
    cache[key] = result;
    return result;
}

}  // namespace kavelin
