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
    // SDL_image keeps the drawing's proportions; artwork is stretched to the
    // frame it is asked for, as a resizable image would be.
    if (image && svgWidth > 0 && svgHeight > 0 &&
        (image->width != svgWidth || image->height != svgHeight))
        image = image->resized(svgWidth, svgHeight);
    return image;
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
