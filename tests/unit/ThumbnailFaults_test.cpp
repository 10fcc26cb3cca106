// Hostile thumbnail addresses against a local server: anything too big in bytes
// or pixels, broken, silent or unfetchable ends in the placeholder without being
// decoded, and one address is fetched once however many cards ask at once.
#include <SDL.h>
#include <SDL_image.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>

#include "Kavelin/Platform/Platform.h"
#include "Kavelin/Platform/ThreadMainQueue.h"
#include "Kavelin/views/CachedAsyncImage.h"
#include "Kavelin/views/ImageCache.h"
#include "support/LocalHttpServer.h"

namespace kavelin {
namespace {

using test::LocalHttpServer;

std::string png(int w, int h) {
    SDL_Surface* s = SDL_CreateRGBSurfaceWithFormat(0, w, h, 32, SDL_PIXELFORMAT_ABGR8888);
    SDL_FillRect(s, nullptr, SDL_MapRGB(s->format, 30, 200, 30));
    std::string buffer(4 * 1024 * 1024, '\0');
    SDL_RWops* rw = SDL_RWFromMem(buffer.data(), static_cast<int>(buffer.size()));
    IMG_SavePNG_RW(s, rw, 0);
    buffer.resize(static_cast<size_t>(SDL_RWtell(rw)));
    SDL_RWclose(rw);
    SDL_FreeSurface(s);
    return buffer;
}

std::string svg(int w, int h) {
    return "<svg xmlns='http://www.w3.org/2000/svg' width='" + std::to_string(w) + "' height='" +
           std::to_string(h) + "'><rect width='100%' height='100%' fill='red'/></svg>";
}

using Response = LocalHttpServer::Response;

struct Thumbnail {
    const char* name;
    // Served at /t, made when the case runs; none: no request is expected.
    std::function<std::optional<Response>()> response;
    std::string address;  // when not the server's /t
    int expectedWidth;    // 0: the placeholder
};

class ThumbnailFaults : public ::testing::TestWithParam<Thumbnail> {
  protected:
    void SetUp() override {
        Platform p;
        p.queue = queue;
        Platform::install(p);
        ImageCache::shared().removeAll();
        ImageLoader::setTimeoutForTesting(1.0);
    }
    void TearDown() override {
        queue->sync([&] { views.clear(); });
        queue->shutdown();
        ImageLoader::setTimeoutForTesting(ImageLoader::timeoutSeconds);
    }

    std::shared_ptr<ThreadMainQueue> queue = std::make_shared<ThreadMainQueue>();
    LocalHttpServer server;
    std::vector<std::unique_ptr<CachedAsyncImage>> views;
};

TEST_P(ThumbnailFaults, FourCardsShareOneBoundedFetch) {
    const Thumbnail& t = GetParam();
    const auto response = t.response();
    if (response) server.setResponse("/t", *response);
    const std::string url = t.address.empty() ? server.url("/t") : t.address;
    queue->sync([&] {
        for (int i = 0; i < 4; ++i) {
            views.push_back(std::make_unique<CachedAsyncImage>(url));
            views.back()->loadImage();
        }
    });
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    bool loading = true;
    while (loading && std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        queue->sync([&] {
            loading = false;
            for (auto& v : views) loading = loading || v->isLoading();
        });
    }
    ASSERT_FALSE(loading);
    EXPECT_EQ(server.requestCount("/t"), response ? 1u : 0u);
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
}

INSTANTIATE_TEST_SUITE_P(
    Loopback, ThumbnailFaults,
    ::testing::Values(
        Thumbnail{"Fits",
                  [] {
                      return Response{200, png(64, 48), "image/png"};
                  },
                  "", 64},
        Thumbnail{"NotFound",
                  [] {
                      return Response{404, "no"};
                  },
                  "", 0},
        Thumbnail{"Garbage",
                  [] {
                      return Response{200, std::string(9000, '#'), "image/png"};
                  },
                  "", 0},
        // A valid picture trailed by 50 MB: decoders would ignore the tail.
        Thumbnail{"FiftyMegabytes",
                  [] {
                      return Response{200, png(64, 48) + std::string(50 << 20, '\0'), "image/png"};
                  },
                  "", 0},
        // Kilobytes on the wire, beyond the pixel bound once decoded.
        Thumbnail{"TooManyPixels",
                  [] {
                      return Response{200, png(2100, 2100), "image/png"};
                  },
                  "", 0},
        Thumbnail{"TooWide",
                  [] {
                      return Response{200, png(4097, 1), "image/png"};
                  },
                  "", 0},
        Thumbnail{"HugeSvgIsDrawnSmall",
                  [] {
                      return Response{200, svg(100000, 50000), "image/svg+xml"};
                  },
                  "", ImageLoader::svgSide},
        Thumbnail{"NeverAnswers",
                  [] {
                      return Response{200, png(8, 8), "image/png", 600};
                  },
                  "", 0},
        Thumbnail{"UnknownScheme", [] { return std::optional<Response>(); },
                  "gopher://127.0.0.1/t.png", 0}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace kavelin
