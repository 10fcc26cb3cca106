// The player screen in a real window under Xvfb, read back pixel by pixel; the
// screenshot is kept in the build dir.
#include <SDL.h>
#include <SDL_image.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "Kavelin/Platform/Linux/WindowPresenter.h"
#include "Kavelin/Platform/Platform.h"
#include "Kavelin/VideoPlayerBridgging.h"
#include "Kavelin/VideoPlayerService.h"
#include "Kavelin/views/VideoPlayerView.h"
#include "support/MainQueueWait.h"
#include "support/ScratchDir.h"
#include "support/TestMedia.h"
#include "support/XvfbDisplay.h"

// Last: Xlib's macros would clash with the headers above.
#include <SDL_syswm.h>
#include <X11/Xutil.h>

namespace kavelin {
namespace {

using kavelin::testing::waitOnMainQueue;
namespace fs = std::filesystem;

struct Pixel {
    int r, g, b;
};

Pixel at(const WindowPresenter::Capture& c, float x, float y) {
    int px = std::clamp(static_cast<int>(x), 0, c.width - 1);
    int py = std::clamp(static_cast<int>(y), 0, c.height - 1);
    const uint8_t* p = &c.rgba[(static_cast<size_t>(py) * c.width + px) * 4];
    return {p[0], p[1], p[2]};
}

const auto isRed = [](Pixel p) { return p.r > 150 && p.g < 90 && p.b < 90; };
const auto isBlack = [](Pixel p) { return p.r < 20 && p.g < 20 && p.b < 20; };
const auto isWhite = [](Pixel p) { return p.r > 200 && p.g > 200 && p.b > 200; };

// Share of pixels in `r` that satisfy `test`.
double share(const WindowPresenter::Capture& c, const Rect& r, bool (*test)(Pixel)) {
    if (c.rgba.empty()) return 0;  // no window yet
    int hits = 0, total = 0;
    for (float y = r.y; y < r.bottom(); y += 2)
        for (float x = r.x; x < r.right(); x += 2) {
            ++total;
            if (test(at(c, x, y))) ++hits;
        }
    return total ? static_cast<double>(hits) / total : 0;
}

// What the X server shows in the window, read over a connection of our own: a
// picture mpv presents itself never passes through capture().
WindowPresenter::Capture readDisplay(SDL_Window* window) {
    WindowPresenter::Capture out;
    SDL_SysWMinfo info;
    SDL_VERSION(&info.version);
    ::Display* display = XOpenDisplay(nullptr);
    if (!display || !SDL_GetWindowWMInfo(window, &info) || info.subsystem != SDL_SYSWM_X11) {
        if (display) XCloseDisplay(display);
        return out;
    }
    SDL_GetWindowSize(window, &out.width, &out.height);
    XImage* image =
        XGetImage(display, info.info.x11.window, 0, 0, out.width, out.height, AllPlanes, ZPixmap);
    if (image) {
        out.rgba.reserve(static_cast<size_t>(out.width) * out.height * 4);
        for (int y = 0; y < out.height; ++y)
            for (int x = 0; x < out.width; ++x) {
                const unsigned long p = XGetPixel(image, x, y);
                for (unsigned long mask : {image->red_mask, image->green_mask, image->blue_mask})
                    out.rgba.push_back(static_cast<uint8_t>((p & mask) / (mask & ~(mask << 1))));
                out.rgba.push_back(255);
            }
        XDestroyImage(image);
    }
    XCloseDisplay(display);
    return out;
}

void savePng(const WindowPresenter::Capture& c, const fs::path& path) {
    SDL_Surface* surface =
        SDL_CreateRGBSurfaceWithFormatFrom(const_cast<uint8_t*>(c.rgba.data()), c.width, c.height,
                                           32, c.width * 4, SDL_PIXELFORMAT_ABGR8888);
    ASSERT_NE(surface, nullptr);
    EXPECT_EQ(IMG_SavePNG(surface, path.c_str()), 0);
    SDL_FreeSurface(surface);
}

TEST(Screen, VideoControlsAndRailAppearWhereTheLayoutPutsThem) {
    test::XvfbDisplay display;
    ASSERT_TRUE(display.ok()) << "no X server for the window";
    struct Shutdown {
        ~Shutdown() { Platform::shutdown(); }  // before the display goes
    } shutdown;
    ScratchDir dir("kavelin-screen");
    const std::string clip = (dir.path / "red.mp4").string();
    ASSERT_NO_THROW(
        test::TestMedia::makeVideoClip(clip, "color=c=0xD02020:size=640x360:rate=25:duration=30"));

    const std::string thumbs =
        std::string("file://") + KAVELIN_SOURCE_DIR + "/Resources/Thumbnails/";
    std::shared_ptr<VideoPlayerService> service;
    std::shared_ptr<WindowPresenter> window;
    mainQueue().sync([&] {
        window = std::dynamic_pointer_cast<WindowPresenter>(Platform::current().presenter);
        subscriptionStatus() = SubscriptionStatus::free;
        std::vector<Video> videos;
        for (int i = 1; i <= 4; ++i)
            videos.emplace_back("v" + std::to_string(i), "file://" + clip,
                                "Red clip number " + std::to_string(i), "pl-1",
                                thumbs + "sample-1-0" + std::to_string(i) + ".svg");
        playlists() = {
            Playlist("pl-1", "Red", thumbs + "playlist-1.svg", std::nullopt, videos),
            Playlist("pl-2", "Colours", thumbs + "playlist-2.svg", std::nullopt, videos)};
        service = std::make_shared<VideoPlayerService>(Platform::current());
        currentVideoPlayerService() = service;
        service->playPlaylist("pl-1");
    });
    ASSERT_NE(window, nullptr) << "the real platform did not choose the window presenter";
    auto pc = service->playerController;

    std::string seen;  // written on the main queue, read once the wait is over
    ASSERT_TRUE(waitOnMainQueue(
        [&] {
            seen = "playing " + std::to_string(pc->isPlaying.get()) + " loading " +
                   std::to_string(pc->showLoading.get()) + " rail " +
                   std::to_string(pc->showPlaylist.get()) + " at " +
                   std::to_string(pc->currentTime.get()) + " of " +
                   std::to_string(pc->duration.get());
            return pc->isPlaying && !pc->showLoading && pc->showPlaylist && pc->currentTime > 0.5;
        },
        20))
        << seen;

    // mpv hands its pictures over on its own schedule and the rail slides in: the
    // checks below say which part did not show up. On a slow machine (a sanitizer)
    // the controls and rail may hide first; they are brought back as a viewer would.
    WindowPresenter::Capture shot;
    VideoPlayerView::Layout layout;
    Rect video;
    (void)waitOnMainQueue(
        [&] {
            if (!pc->showControls) pc->toggleControls();
            if (!pc->showPlaylist) pc->startAutoHideTimer();
            shot = window->capture();
            auto state = VideoPlayerView::State::read(*pc, false, true);
            layout = VideoPlayerView::layout(state, {0, 0, 1280, 720}, 1);
            video = aspectFitRect(640, 360, layout.videoArea);
            return share(shot, {video.x + 8, video.y + 110, 60, 80}, isRed) > 0.95 &&
                   share(shot, {video.x + 8, video.bottom() - 4, 60, 2}, isRed) > 0.95 &&
                   share(shot, {0, layout.rail.y + 2, 1280, 8}, isBlack) > 0.95;
        },
        20);
    ASSERT_EQ(shot.width, 1280);
    ASSERT_EQ(shot.height, 720);
    const fs::path png = fs::path(KAVELIN_BUILD_DIR) / "screen-test.png";
    savePng(shot, png);
    RecordProperty("screenshot", png.string());

    // Video letter-boxed between black bars.
    EXPECT_FLOAT_EQ(layout.rail.h, 176);
    EXPECT_GT(share(shot, {video.x + 8, video.y + 110, 60, 80}, isRed), 0.95);
    EXPECT_GT(share(shot, {4, video.midY(), video.x - 8, 40}, isBlack), 0.95);

    // Controls: back button, white play/pause disc, the time label's light backing.
    EXPECT_GT(1 - share(shot, layout.back.inset(8), isBlack), 0.5);
    EXPECT_GT(share(shot, layout.centre[2].inset(4), isWhite), 0.3);
    EXPECT_GT(share(shot, layout.timeBackground.inset(10), isWhite), 0.3);

    // Rail: the first card's white border and its thumbnail.
    const float cardTop = layout.rail.y + PlaylistBottomView::UI::phoneLandscapeSpacing * 2;
    EXPECT_TRUE(isWhite(at(shot, 16 + 1.5f, cardTop + 55)));
    EXPECT_LT(share(shot, {30, cardTop + 20, 120, 70}, isBlack), 0.5);
    EXPECT_GT(share(shot, {0, layout.rail.y + 2, 1280, 8}, isBlack), 0.95);

    // Controls and rail gone, the frame is the video alone: mpv presents the window
    // itself, and the display shows the picture edge to edge.
    uint64_t direct = 0;
    mainQueue().sync([&] {
        pc->autoHideControls();
        direct = window->picturesShownDirectly();
    });
    WindowPresenter::Capture onDisplay;
    EXPECT_TRUE(waitOnMainQueue(
        [&] {
            if (window->picturesShownDirectly() < direct + 5) return false;
            onDisplay = readDisplay(window->window());
            return share(onDisplay, {0, 0, 1280, 720}, isRed) > 0.99;
        },
        20))
        << "pictures presented by mpv: " << window->picturesShownDirectly() - direct
        << ", red on the display: " << share(onDisplay, {0, 0, 1280, 720}, isRed);
    // A tap brings the controls back: the window draws them over the picture again.
    mainQueue().sync([&] { pc->toggleControls(); });
    EXPECT_TRUE(waitOnMainQueue(
        [&] {
            auto state = VideoPlayerView::State::read(*pc, false, true);
            layout = VideoPlayerView::layout(state, {0, 0, 1280, 720}, 0);
            onDisplay = readDisplay(window->window());
            return share(onDisplay, layout.centre[2].inset(4), isWhite) > 0.3;
        },
        10))
        << "no play button on the display after the tap";

    // Space pauses, as the button does, and like it does nothing while the player
    // waits for data: pressed again about twice a second until playback stops.
    int polls = 0;
    ASSERT_TRUE(waitOnMainQueue(
        [&] {
            if (!pc->isPlaying) return true;
            if (!pc->showLoading && polls++ % 10 == 0) {
                SDL_Event key{};
                key.type = SDL_KEYDOWN;
                key.key.keysym.sym = SDLK_SPACE;
                key.key.windowID = SDL_GetWindowID(window->window());
                EXPECT_EQ(SDL_PushEvent(&key), 1);
            }
            return false;
        },
        20))
        << "loading " << pc->showLoading.get() << " shown " << window->isShown() << " frames "
        << window->framesRendered() << " presses " << (polls + 9) / 10;

    // Paused, once the fades are over, nothing is drawn: the frame count comes to
    // rest, which continuous drawing never does.
    using Clock = std::chrono::steady_clock;
    uint64_t frames = 0;
    auto still = Clock::now();
    EXPECT_TRUE(waitOnMainQueue(
        [&] {
            if (window->framesRendered() != frames) {
                frames = window->framesRendered();
                still = Clock::now();
            }
            return Clock::now() - still >= std::chrono::milliseconds(1500);
        },
        20))
        << "still drawing while paused: " << frames << " frames";
    // A frame asked for with nothing changed is not drawn. A late picture may land
    // between two asked for on a slow machine; drawing every one never passes.
    EXPECT_TRUE(waitOnMainQueue(
        [&] {
            window->renderNow();
            frames = window->framesRendered();
            window->renderNow();
            return window->framesRendered() == frames;
        },
        5));
    // A change the controller publishes is drawn.
    mainQueue().sync([&] { pc->setControlShown(PlayerController::Control::logo, false); });
    EXPECT_TRUE(waitOnMainQueue([&] { return window->framesRendered() > frames; }, 2));

    // Back closes the window, and the dropped player takes its render context along.
    mainQueue().sync([&] {
        EXPECT_EQ(window->attachedPlayers(), 1u);
        pc->backToHome();
    });
    EXPECT_TRUE(waitOnMainQueue([&] { return !window->isShown(); }, 5));
    EXPECT_TRUE(waitOnMainQueue([&] { return window->attachedPlayers() == 0; }, 5));
    mainQueue().sync([&] {
        currentVideoPlayerService().reset();
        service.reset();
    });
}

}  // namespace
}  // namespace kavelin
