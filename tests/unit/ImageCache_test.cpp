// Thumbnail loading against a local HTTP server: what counts as a picture, what
// the memory cache saves, and that failures end quietly in the placeholder.
#include "Kavelin/views/ImageCache.h"

#include <SDL.h>
#include <SDL_image.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <thread>

#include "Kavelin/Platform/Linux/ThreadMainQueue.h"
#include "Kavelin/views/CachedAsyncImage.h"
#include "support/HeadlessImGui.h"
#include "support/LocalHttpServer.h"
#include "support/VirtualPlatform.h"

namespace kavelin {
namespace {

using test::LocalHttpServer;
using Response = LocalHttpServer::Response;

std::string pngBytes(int w, int h) {
    SDL_Surface* s = SDL_CreateRGBSurfaceWithFormat(0, w, h, 32, SDL_PIXELFORMAT_ABGR8888);
    SDL_FillRect(s, nullptr, SDL_MapRGB(s->format, 200, 30, 30));
    std::string buffer(4 * 1024 * 1024, '\0');
    SDL_RWops* rw = SDL_RWFromMem(buffer.data(), static_cast<int>(buffer.size()));
    IMG_SavePNG_RW(s, rw, 0);
    buffer.resize(static_cast<size_t>(SDL_RWtell(rw)));
    SDL_RWclose(rw);
    SDL_FreeSurface(s);
    return buffer;
}

// Fetches finish on worker threads and hop onto the views' real queue; no platform
// is installed, so nothing can reach for one.
class ImageCacheTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ImageCache::shared().removeAll();
        ImageLoader::setTimeoutForTesting(ImageLoader::timeoutSeconds);
        server.setResponse("/thumb.png", {200, pngBytes(8, 6), "image/png"});
    }
    void TearDown() override {
        queue->sync([&] { views.clear(); });
        queue->shutdown();
        ImageLoader::setTimeoutForTesting(ImageLoader::timeoutSeconds);
    }
    // Views for `url` appearing in one turn of the main queue: drawn (their first frame
    // starts the load) or asked to load directly.
    std::vector<CachedAsyncImage*> start(const std::string& url, int count, bool draw = false) {
        std::vector<CachedAsyncImage*> started;
        queue->sync([&] {
            for (int i = 0; i < count; ++i) {
                started.push_back(
                    views.emplace_back(std::make_unique<CachedAsyncImage>(url, queue)).get());
                draw ? void(drawOnce(*started.back())) : started.back()->loadImage();
            }
        });
        return started;
    }
    CachedAsyncImage& show(const std::string& url) {
        auto* view = start(url, 1, true)[0];
        waitUntilLoaded(*view);
        return *view;
    }
    void waitUntilLoaded(const CachedAsyncImage& view) {
        auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        bool loading = true;
        while (loading && std::chrono::steady_clock::now() < until) {
            queue->sync([&] { loading = view.isLoading(); });
            if (loading) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        ASSERT_FALSE(loading);
    }
    // One frame drawing `view` (on the main queue); returns the placeholders drawn.
    size_t drawOnce(CachedAsyncImage& view) {
        imgui.frame(queue->now(), [&](Frame& f) { view.draw(f, {10, 10, 180, 130}); });
        return imgui.trace.count(DrawTrace::Kind::image, "photo");
    }

    testing::HeadlessImGui imgui{{200, 200}};
    std::shared_ptr<ThreadMainQueue> queue = std::make_shared<ThreadMainQueue>();
    LocalHttpServer server;
    testing::LogCapture logs;
    std::vector<std::unique_ptr<CachedAsyncImage>> views;
};

TEST_F(ImageCacheTest, FetchedPictureIsCachedAndServedFromMemoryAfterwards) {
    const std::string url = server.url("/thumb.png");
    auto& first = show(url);
    ASSERT_NE(first.image(), nullptr);
    EXPECT_EQ(std::pair(first.image()->width, first.image()->height), std::pair(8, 6));
    EXPECT_EQ(ImageCache::shared().image(url), first.image());
    // A later view shows it at once, without a spinner or a request.
    auto* second = start(url, 1)[0];
    queue->sync([&] { EXPECT_TRUE(!second->isLoading() && second->image() == first.image()); });
    EXPECT_EQ(server.requestCount("/thumb.png"), 1u);
    // The key is the address as written: another spelling is another fetch.
    show(url + "?");
    EXPECT_EQ(server.requestCount("/thumb.png"), 2u);
    // A forgotten failure is asked again (a server may have come back).
    server.setResponse("/missing.png", {404, "not found"});
    EXPECT_TRUE(show(server.url("/missing.png")).hasError());
    ImageCache::shared().removeAll();
    server.setResponse("/missing.png", {200, pngBytes(4, 4), "image/png"});
    EXPECT_NE(show(server.url("/missing.png")).image(), nullptr);
    EXPECT_EQ(server.requestCount("/missing.png"), 2u);
}

TEST_F(ImageCacheTest, MalformedAddressesFailAtOnceWithoutARequest) {
    for (const std::string& url :
         {std::string(), std::string("not a url"), std::string("http://"),
          std::string("ftp://127.0.0.1/x.png"), server.url("/thumb.png").insert(7, 1, ' ')}) {
        auto* view = start(url, 1)[0];
        queue->sync([&] { EXPECT_TRUE(view->hasError() && !view->isLoading()) << url; });
    }
    EXPECT_EQ(server.totalRequests(), 0u);
    EXPECT_TRUE(logs.lines().empty());
}

// Hostile thumbnail addresses: anything too big in bytes or pixels, broken, silent
// or unfetchable ends in the placeholder without being decoded, and one address is
// fetched once however many cards ask at once.
struct Thumbnail {
    const char* name;
    // What /t serves, made when the case runs; none: no request is expected.
    std::function<Response()> response;
    int expectedWidth;      // 0: the placeholder
    std::string address{};  // when not the server's /t
};

class ThumbnailFaults : public ImageCacheTest, public ::testing::WithParamInterface<Thumbnail> {};

TEST_P(ThumbnailFaults, FourCardsShareOneBoundedFetch) {
    ImageLoader::setTimeoutForTesting(1.0);
    const Thumbnail& t = GetParam();
    if (t.response) server.setResponse("/t", t.response());
    const std::string url = t.address.empty() ? server.url("/t") : t.address;
    // The cache is filled from the fetching worker, so a fetch done between two
    // appearances would spare the later card the request it should share: every
    // worker is held until all four cards have started.
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    for (int i = 0; i < 8; ++i)
        ImageLoader::fetch("file:///" + std::to_string(i), [released](auto) { released.wait(); });
    const auto cards = start(url, 4);
    release.set_value();
    for (auto* v : cards) waitUntilLoaded(*v);
    const size_t requests = t.response ? 1u : 0u;
    EXPECT_EQ(server.requestCount("/t"), requests);
    queue->sync([&] {
        for (auto& v : views) {
            if (t.expectedWidth == 0) {
                EXPECT_TRUE(v->hasError());
                EXPECT_EQ(v->image(), nullptr);
            } else {
                ASSERT_NE(v->image(), nullptr);
                EXPECT_EQ(v->image()->width, t.expectedWidth);
                EXPECT_EQ(v->image(), views.front()->image()) << "one decode for all";
            }
        }
    });
    if (t.expectedWidth == 0) {
        // A card appearing right after the failure is answered from memory, and later
        // frames keep drawing the placeholder: nothing is asked again.
        EXPECT_EQ(ImageCache::shared().image(url), nullptr);
        auto& again = show(url);
        EXPECT_TRUE(again.hasError());
        size_t placeholders = 0;
        queue->sync([&] {
            for (int i = 0; i < 3; ++i) placeholders += drawOnce(again);
        });
        EXPECT_EQ(placeholders, 3u);
        EXPECT_EQ(server.requestCount("/t"), requests);
    }
    EXPECT_TRUE(logs.lines().empty());
}

// A picture trailed by `tail` zero bytes.
std::function<Response()> png(int w, int h, size_t tail = 0, double delay = 0) {
    return [=] {
        return Response{200, pngBytes(w, h) + std::string(tail, '\0'), "image/png", delay};
    };
}
const auto serve = [](Response r) { return [r] { return r; }; };
std::string svg(int w, int h) {
    return "<svg xmlns='http://www.w3.org/2000/svg' width='" + std::to_string(w) + "' height='" +
           std::to_string(h) + "'><rect width='100%' height='100%' fill='red'/></svg>";
}
const std::string kSample = std::string("file://") + KAVELIN_SOURCE_DIR + "/Resources/";

INSTANTIATE_TEST_SUITE_P(
    Loopback, ThumbnailFaults,
    ::testing::Values(
        Thumbnail{"Fits", png(64, 48), 64},
        Thumbnail{"NotFound", serve({404, "no", "text/plain"}), 0},
        Thumbnail{"ServerError", serve({500, "oops"}), 0},
        Thumbnail{"NoContent", serve({204, ""}), 0},
        Thumbnail{"Garbage", serve({200, std::string(9000, '#'), "image/png"}), 0},
        // A valid picture trailed by 50 MB: decoders would ignore the tail.
        Thumbnail{"FiftyMegabytes", png(64, 48, 50 << 20), 0},
        // Kilobytes on the wire, beyond the pixel bound once decoded.
        Thumbnail{"TooManyPixels", png(2100, 2100), 0}, Thumbnail{"TooWide", png(4097, 1), 0},
        Thumbnail{"HugeSvgIsDrawnSmall", serve({200, svg(100000, 50000), "image/svg+xml"}),
                  ImageLoader::svgSide},
        Thumbnail{"NeverAnswers", png(8, 8, 0, 600), 0},
        Thumbnail{"SampleFile", {}, ImageLoader::svgSide, kSample + "Thumbnails/playlist-1.svg"},
        Thumbnail{"MissingFile", {}, 0, kSample + "none.svg"}),
    [](const auto& info) { return std::string(info.param.name); });

// Workers write while the main queue reads: every read sees a whole entry.
TEST(ImageCacheThreads, ConcurrentWritersAndReadersSeeWholeEntries) {
    ImageCache::shared().removeAll();
    auto key = [](int k) { return "http://127.0.0.1/" + std::to_string(k) + ".png"; };
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 4000; ++i) {
                const int k = (i * 7 + t) % 64;
                if (t % 2)
                    ImageCache::shared().set(std::make_shared<Image>(Image{k + 1, 1, {}}), key(k));
                else if (auto image = ImageCache::shared().image(key(k));
                         image && image->width != k + 1)
                    ++mismatches;
            }
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(mismatches.load(), 0);
    for (int k = 0; k < 64; ++k) EXPECT_NE(ImageCache::shared().image(key(k)), nullptr);
    ImageCache::shared().removeAll();
}

}  // namespace
}  // namespace kavelin
