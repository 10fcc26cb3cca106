// Thumbnail loading against a local HTTP server: what counts as a picture, what
// the memory cache saves, and that failures end quietly in the placeholder.
#include "Kavelin/views/ImageCache.h"

#include <SDL.h>
#include <SDL_image.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
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

class ImageCacheTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // Fetches finish on worker threads and hop onto the views' real queue; no
        // platform is installed, so nothing can reach for one.
        ImageCache::shared().removeAll();
        ImageLoader::setTimeoutForTesting(ImageLoader::timeoutSeconds);
        server.setResponse("/thumb.png", {200, pngBytes(8, 6), "image/png"});
    }
    void TearDown() override {
        queue->sync([&] { views.clear(); });
        queue->shutdown();
        ImageLoader::setTimeoutForTesting(ImageLoader::timeoutSeconds);
    }

    // Shows a view for `url` (its first frame starts the load) and waits until
    // its fetch, if any, has finished.
    CachedAsyncImage& show(const std::string& url) {
        CachedAsyncImage* view = nullptr;
        queue->sync([&] {
            views.push_back(std::make_unique<CachedAsyncImage>(url, queue));
            view = views.back().get();
            drawOnce(*view);
        });
        waitUntilLoaded(*view);
        return *view;
    }

    // Views for `url` asked to load together, in one turn of the main queue.
    std::vector<CachedAsyncImage*> start(const std::string& url, int count) {
        std::vector<CachedAsyncImage*> started;
        queue->sync([&] {
            for (int i = 0; i < count; ++i) {
                views.push_back(std::make_unique<CachedAsyncImage>(url, queue));
                started.push_back(views.back().get());
                started.back()->loadImage();
            }
        });
        return started;
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
    EXPECT_FALSE(first.hasError());
    EXPECT_EQ(first.image()->width, 8);
    EXPECT_EQ(first.image()->height, 6);
    EXPECT_EQ(ImageCache::shared().image(url), first.image());

    // A later view shows it at once, without a spinner or a request.
    auto* second = start(url, 1)[0];
    queue->sync([&] {
        EXPECT_FALSE(second->isLoading());
        EXPECT_EQ(second->image(), first.image());
    });
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
         std::vector<std::string>{"", "not a url", "http://", "ftp://127.0.0.1/x.png",
                                  server.url("/thumb.png").insert(7, 1, ' ')}) {
        SCOPED_TRACE(url);
        bool error = false, loading = true;
        queue->sync([&] {
            CachedAsyncImage view(url, queue);
            view.loadImage();
            error = view.hasError();
            loading = view.isLoading();
        });
        EXPECT_TRUE(error);
        EXPECT_FALSE(loading);
    }
    EXPECT_EQ(server.totalRequests(), 0u);
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(ImageCacheTest, TwoViewsAppearingTogetherShareOneFetch) {
    // The cache is filled from the fetching worker, so a fetch that completed between
    // the two appearances would spare the second view the in-flight request it should share.
    // Holding every worker until both views have started keeps them "together" whatever the
    // scheduling.
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    for (int i = 0; i < 8; ++i)
        ImageLoader::fetch("file:///" + std::to_string(i), [released](auto) { released.wait(); });
    start(server.url("/thumb.png"), 2);
    queue->sync([&] {
        for (auto& v : views) EXPECT_TRUE(v->isLoading());
    });
    release.set_value();
    for (auto& v : views) {
        waitUntilLoaded(*v);
        EXPECT_NE(v->image(), nullptr);
    }
    EXPECT_EQ(server.requestCount("/thumb.png"), 1u);
}

// Thumbnail addresses, hostile ones among them: anything too big in bytes or pixels,
// broken, silent or unfetchable ends in the placeholder without being decoded, and
// one address is fetched once however many cards ask at once.
struct Thumbnail {
    const char* name;
    // What /t serves, made when the case runs; none: no request is expected.
    std::function<std::optional<Response>()> response;
    int expectedWidth;      // 0: the placeholder
    std::string address{};  // when not the server's /t
};

class ThumbnailFaults : public ImageCacheTest, public ::testing::WithParamInterface<Thumbnail> {
  protected:
    void SetUp() override {
        ImageCacheTest::SetUp();
        ImageLoader::setTimeoutForTesting(1.0);
    }
};

TEST_P(ThumbnailFaults, FourCardsShareOneBoundedFetch) {
    const Thumbnail& t = GetParam();
    const auto response = t.response();
    if (response) server.setResponse("/t", *response);
    const std::string url = t.address.empty() ? server.url("/t") : t.address;
    start(url, 4);
    for (auto& v : views) waitUntilLoaded(*v);
    const size_t requests = response ? 1u : 0u;
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
        // A card that appears right after the failure is answered from memory, and later
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

Response png(int w, int h, std::string tail = "", double delay = 0) {
    return {200, pngBytes(w, h) + tail, "image/png", delay};
}
std::string svg(int w, int h) {
    return "<svg xmlns='http://www.w3.org/2000/svg' width='" + std::to_string(w) + "' height='" +
           std::to_string(h) + "'><rect width='100%' height='100%' fill='red'/></svg>";
}
const std::string kSample = std::string("file://") + KAVELIN_SOURCE_DIR + "/Resources/";
const auto nothing = [] { return std::optional<Response>(); };
auto serve(Response r) {
    return [r] { return std::optional<Response>(r); };
}

INSTANTIATE_TEST_SUITE_P(
    Loopback, ThumbnailFaults,
    ::testing::Values(
        Thumbnail{"Fits", [] { return png(64, 48); }, 64},
        Thumbnail{"NotFound", serve({404, "no", "text/plain"}), 0},
        Thumbnail{"ServerError", serve({500, "oops"}), 0},
        Thumbnail{"NoContent", serve({204, ""}), 0},
        Thumbnail{"Garbage", serve({200, std::string(9000, '#'), "image/png"}), 0},
        // A valid picture trailed by 50 MB: decoders would ignore the tail.
        Thumbnail{"FiftyMegabytes", [] { return png(64, 48, std::string(50 << 20, '\0')); }, 0},
        // Kilobytes on the wire, beyond the pixel bound once decoded.
        Thumbnail{"TooManyPixels", [] { return png(2100, 2100); }, 0},
        Thumbnail{"TooWide", [] { return png(4097, 1); }, 0},
        Thumbnail{"HugeSvgIsDrawnSmall", serve({200, svg(100000, 50000), "image/svg+xml"}),
                  ImageLoader::svgSide},
        Thumbnail{"NeverAnswers", [] { return png(8, 8, "", 600); }, 0},
        Thumbnail{"UnknownScheme", nothing, 0, "gopher://127.0.0.1/t.png"},
        Thumbnail{"SampleFile", nothing, ImageLoader::svgSide,
                  kSample + "Thumbnails/playlist-1.svg"},
        Thumbnail{"MissingFile", nothing, 0, kSample + "none.svg"}),
    [](const auto& info) { return std::string(info.param.name); });

// Workers write while the main queue reads: every read sees a whole entry.
TEST(ImageCacheThreads, ConcurrentWritersAndReadersSeeWholeEntries) {
    ImageCache::shared().removeAll();
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t, &mismatches] {
            for (int i = 0; i < 4000; ++i) {
                const int k = (i * 7 + t) % 64;
                const std::string key = "http://127.0.0.1/" + std::to_string(k) + ".png";
                if (t % 2) {
                    auto image = std::make_shared<Image>();
                    image->width = k + 1;
                    image->height = 1;
                    ImageCache::shared().set(image, key);
                } else if (auto image = ImageCache::shared().image(key);
                           image && image->width != k + 1) {
                    ++mismatches;
                }
            }
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(mismatches.load(), 0);
    for (int k = 0; k < 64; ++k)
        EXPECT_NE(ImageCache::shared().image("http://127.0.0.1/" + std::to_string(k) + ".png"),
                  nullptr);
    ImageCache::shared().removeAll();
}

}  // namespace
}  // namespace kavelin
