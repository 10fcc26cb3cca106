#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kavelin {

// A decoded picture in memory: tightly packed 8-bit RGBA rows, top row first.
struct Image {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> rgba;

    bool empty() const { return width <= 0 || height <= 0; }

    // Stretches the picture over a new bitmap of exactly this size (bilinear).
    Image resized(int newWidth, int newHeight) const;
};

// Decodes PNG, JPEG, SVG (rasterised at its own size, or at `svgWidth` x
// `svgHeight` when given) and the other formats SDL_image knows. Safe off the
// main thread. Empty on anything that does not decode.
std::optional<Image> decodeImage(std::string_view bytes, int svgWidth = 0, int svgHeight = 0);

// Width and height read from the header of a PNG, JPEG, GIF, WebP or BMP file
// without decoding it; empty for anything else or a header that is cut short.
struct PixelSize {
    int64_t width = 0;
    int64_t height = 0;
};
std::optional<PixelSize> imagePixelSize(std::string_view bytes);

// Whether the bytes are an SVG document (which has no fixed pixel size).
bool isSVG(std::string_view bytes);

// Decodes a picture from an untrusted source only when it fits `maxPixels` and
// `maxSide` (judged from its header, before any pixel is decoded); SVG is
// rasterised to fit within svgSide x svgSide, keeping its proportions. Empty
// otherwise.
std::optional<Image> decodeBoundedImage(std::string_view bytes, int64_t maxPixels, int maxSide,
                                        int svgSide);

// One of the library's own artwork files (Resources/<name>.svg), rasterised at
// the given pixel size and kept for reuse. Null when the file is missing.
std::shared_ptr<const Image> assetImage(const std::string& name, int pixelWidth, int pixelHeight);

}  // namespace kavelin
