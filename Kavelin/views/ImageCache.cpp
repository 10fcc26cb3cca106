#include "Kavelin/views/ImageCache.h"

#include <SDL_image.h>
#include <curl/curl.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "Kavelin/Extentions/EmbeddedResources.h"
#include "Kavelin/Extentions/ThreadName.h"

namespace kavelin {

ImageCache& ImageCache::shared() {
    static ImageCache* cache = new ImageCache();  // outlives late worker completions
    return *cache;
}

std::shared_ptr<const Image> ImageCache::image(const std::string& key) const {
    std::lock_guard lock(mutex_);
    auto it = cache_.find(key);
    return it == cache_.end() ? nullptr : it->second;
}

void ImageCache::set(std::shared_ptr<const Image> image, const std::string& key) {
    std::lock_guard lock(mutex_);
    cache_[key] = std::move(image);
}

bool ImageCache::failedRecently(const std::string& key) const {
    std::lock_guard lock(mutex_);
    auto it = failedAt_.find(key);
    return it != failedAt_.end() &&
           Clock::now() - it->second < std::chrono::duration<double>(failureMemorySeconds);
}

void ImageCache::setFailed(const std::string& key) {
    std::lock_guard lock(mutex_);
    const auto now = Clock::now();
    // Bounded by what failed within the memory, however long the process runs.
    std::erase_if(failedAt_, [&](const auto& entry) {
        return now - entry.second >= std::chrono::duration<double>(failureMemorySeconds);
    });
    failedAt_[key] = now;
}

void ImageCache::removeAll() {
    std::lock_guard lock(mutex_);
    cache_.clear();
    failedAt_.clear();
}

namespace {

std::atomic<double> gTimeout{ImageLoader::timeoutSeconds};

// Thumbnails are small and few; two workers keep the rail responsive without
// competing with playback.
class WorkerPool {
  public:
    static WorkerPool& shared() {
        static WorkerPool* pool = new WorkerPool(2);  // threads live as long as the process
        return *pool;
    }
    void post(std::function<void()> job) {
        {
            std::lock_guard lock(mutex_);
            jobs_.push_back(std::move(job));
        }
        cv_.notify_one();
    }

  private:
    explicit WorkerPool(int count) {
        curl_global_init(CURL_GLOBAL_DEFAULT);
        // Decoder libraries load on first use; do it once, before two workers race.
        IMG_Init(IMG_INIT_PNG | IMG_INIT_JPG | IMG_INIT_WEBP);
        for (int i = 0; i < count; ++i) namedThread("kavelin-image", [this] { run(); }).detach();
    }
    void run() {
        for (;;) {
            std::function<void()> job;
            {
                std::unique_lock lock(mutex_);
                cv_.wait(lock, [this] { return !jobs_.empty(); });
                job = std::move(jobs_.front());
                jobs_.pop_front();
            }
            job();
        }
    }
    std::mutex mutex_;
    std::condition_variable cv_;
    std::deque<std::function<void()>> jobs_;
};

// Returning less than was handed over aborts the transfer.
size_t appendBody(char* data, size_t size, size_t count, void* user) {
    auto* body = static_cast<std::string*>(user);
    if (body->size() + size * count > ImageLoader::maxBytes) return 0;
    body->append(data, size * count);
    return size * count;
}

// Everyone waiting for an address whose fetch is running.
using Completion = std::function<void(std::shared_ptr<const Image>)>;
std::mutex gInFlightMutex;
std::unordered_map<std::string, std::vector<Completion>>& inFlight() {
    static auto* waiting = new std::unordered_map<std::string, std::vector<Completion>>();
    return *waiting;
}

bool startsWith(const std::string& s, std::string_view prefix) {
    return s.compare(0, prefix.size(), prefix) == 0;
}

// SVG thumbnails are rasterised at their own size, keeping their proportions.
std::shared_ptr<const Image> decodeShared(const std::string& body) {
    auto image = decodeBoundedImage(body, ImageLoader::maxPixels, ImageLoader::maxSide,
                                    ImageLoader::svgSide);
    if (!image) return nullptr;
    return std::make_shared<const Image>(std::move(*image));
}

std::shared_ptr<const Image> fetchFile(const std::string& urlString) {
    std::string path = urlString.substr(std::string_view("file://").size());
    std::error_code ec;
    const auto size = std::filesystem::file_size(path, ec);
    if (ec || size > ImageLoader::maxBytes) return nullptr;
    std::ifstream in(path, std::ios::binary);
    if (!in) return nullptr;
    std::stringstream buffer;
    buffer << in.rdbuf();
    return decodeShared(buffer.str());
}

std::shared_ptr<const Image> fetchResource(const std::string& urlString) {
    auto bytes = resourceBytes(std::string_view(urlString).substr(resourceScheme.size()),
                               "KAVELIN_RESOURCES_DIR");
    return bytes ? decodeShared(*bytes) : nullptr;
}

std::shared_ptr<const Image> fetchHttp(const std::string& urlString) {
    CURL* curl = curl_easy_init();
    if (!curl) return nullptr;
    std::string body;
    curl_easy_setopt(curl, CURLOPT_URL, urlString.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, appendBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, static_cast<long>(gTimeout.load() * 1000));
    curl_easy_setopt(curl, CURLOPT_MAXFILESIZE_LARGE,
                     static_cast<curl_off_t>(ImageLoader::maxBytes));
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    CURLcode rc = curl_easy_perform(curl);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_cleanup(curl);
    if (rc != CURLE_OK || status < 200 || status > 299 || body.empty()) return nullptr;
    return decodeShared(body);
}

}  // namespace

bool ImageLoader::isValidURL(const std::string& urlString) {
    if (urlString.empty()) return false;
    if (startsWith(urlString, "file://")) return urlString.size() > 7;
    if (startsWith(urlString, resourceScheme)) return urlString.size() > resourceScheme.size();
    if (!startsWith(urlString, "http://") && !startsWith(urlString, "https://")) return false;
    for (unsigned char c : urlString)
        if (c <= ' ' || c == 0x7F) return false;
    CURLU* url = curl_url();
    bool ok = curl_url_set(url, CURLUPART_URL, urlString.c_str(), 0) == CURLUE_OK;
    if (ok) {
        char* host = nullptr;
        ok = curl_url_get(url, CURLUPART_HOST, &host, 0) == CURLUE_OK && host && *host;
        curl_free(host);
    }
    curl_url_cleanup(url);
    return ok;
}

void ImageLoader::fetch(const std::string& urlString,
                        std::function<void(std::shared_ptr<const Image>)> completion) {
    {
        // A fetch publishes its outcome before it leaves the in-flight list, so under
        // this lock an address is either known, in flight, or to be fetched.
        std::unique_lock lock(gInFlightMutex);
        auto& cache = ImageCache::shared();
        auto known = cache.image(urlString);
        if (known || cache.failedRecently(urlString)) {
            lock.unlock();
            completion(std::move(known));
            return;
        }
        auto& waiting = inFlight()[urlString];
        waiting.push_back(std::move(completion));
        if (waiting.size() > 1) return;
    }
    WorkerPool::shared().post([urlString] {
        auto image = startsWith(urlString, "file://")        ? fetchFile(urlString)
                     : startsWith(urlString, resourceScheme) ? fetchResource(urlString)
                                                             : fetchHttp(urlString);
        if (image)
            ImageCache::shared().set(image, urlString);
        else
            ImageCache::shared().setFailed(urlString);
        std::vector<Completion> waiting;
        {
            std::lock_guard lock(gInFlightMutex);
            auto node = inFlight().extract(urlString);
            if (!node.empty()) waiting = std::move(node.mapped());
        }
        for (auto& done : waiting) done(image);
    });
}

void ImageLoader::setTimeoutForTesting(double seconds) {
    gTimeout.store(seconds);
}

}  // namespace kavelin
