#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "Kavelin/Extentions/UIImage+Ext.h"

namespace kavelin {

// Decoded thumbnails kept in memory for the life of the process, keyed by the
// address exactly as the catalogue wrote it, and the addresses that failed lately.
// Safe from any thread.
class ImageCache {
  public:
    // A failed address is not asked again for this long: cards that appear together,
    // or come back soon, do not hammer a broken server; later ones try again.
    static constexpr double failureMemorySeconds = 30.0;

    static ImageCache& shared();

    std::shared_ptr<const Image> image(const std::string& key) const;
    void set(std::shared_ptr<const Image> image, const std::string& key);
    bool failedRecently(const std::string& key) const;
    void setFailed(const std::string& key);
    // Forgets everything (tests start from an empty cache).
    void removeAll();

  private:
    using Clock = std::chrono::steady_clock;
    ImageCache() = default;
    mutable std::mutex mutex_;
    std::unordered_map<std::string, std::shared_ptr<const Image>> cache_;
    std::unordered_map<std::string, Clock::time_point> failedAt_;
};

// Fetches image bytes over http(s) or from file:// addresses on a small pool of
// worker threads (the only work the library does off its main queue).
class ImageLoader {
  public:
    static constexpr double timeoutSeconds = 15.0;
    // A thumbnail larger than this, in bytes or in pixels, is a failure: it is
    // cut off while downloading and never decoded.
    static constexpr size_t maxBytes = 4 * 1024 * 1024;
    static constexpr int64_t maxPixels = 2048 * 2048;
    static constexpr int maxSide = 4096;
    // SVG thumbnails are drawn to fit this square.
    static constexpr int svgSide = 1024;

    // Whether `urlString` is an address the loader can fetch at all.
    static bool isValidURL(const std::string& urlString);

    // Fetches and decodes on a worker; `completion` gets the picture, or null on
    // any failure (transport error, status outside 200-299, empty, oversized or
    // undecodable body). It runs on the worker thread, or at once on the caller's
    // when the shared cache already knows the outcome. Requests for an address
    // already being fetched join that fetch instead of starting another.
    static void fetch(const std::string& urlString,
                      std::function<void(std::shared_ptr<const Image>)> completion);

    // Time-out used by fetches started from now on (tests shorten it).
    static void setTimeoutForTesting(double seconds);
};

}  // namespace kavelin
