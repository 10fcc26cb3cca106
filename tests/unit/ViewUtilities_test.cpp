// The small building blocks of the screen: shapes, stacks, animation curves,
// image resizing, colours, orientation, text fitting, the slider and loaders.
#include "Kavelin/Extentions/ViewUtilities.h"

#include <gtest/gtest.h>

#include <fstream>
#include <set>

#include "Kavelin/Extentions/Color+Ext.h"
#include "Kavelin/Extentions/EmbeddedResources.h"
#include "Kavelin/Extentions/UIImage+Ext.h"
#include "Kavelin/Model/Catalogue.h"
#include "Kavelin/views/Loaders.h"
#include "Kavelin/views/OrientationObserver.h"
#include "Kavelin/views/SwiftUISlider.h"
#include "Kavelin/views/VideoSurfaces.h"
#include "support/HeadlessImGui.h"
#include "support/ScopedEnv.h"
#include "support/ScratchDir.h"
#include "support/VirtualPlatform.h"

namespace kavelin {
namespace {

using testing::HeadlessImGui;

TEST(Shapes, RoundedCornersRoundOnlyTheListedOnesAndStacksCloseUpAroundHiddenItems) {
    EXPECT_EQ(cornerRadius(10, bottomLeft | bottomRight).drawFlags(),
              ImDrawFlags_RoundCornersBottomLeft | ImDrawFlags_RoundCornersBottomRight);
    EXPECT_EQ(cornerRadius(10).drawFlags(), ImDrawFlags_RoundCornersAll);
    EXPECT_EQ(cornerRadius(0, topLeft).drawFlags(), ImDrawFlags_RoundCornersNone);

    const Rect bounds{0, 0, 400, 100};
    EXPECT_FLOAT_EQ(hstackCentred(bounds, {50, 50, 50}, {false, false, false}, 50, 20)[0].x, 105);
    // The two left are 20 apart and centred as a pair on both axes.
    auto some = hstackCentred(bounds, {50, 50, 50}, {false, true, false}, 50, 20);
    EXPECT_TRUE(some[1].empty());
    EXPECT_EQ(some[0], (Rect{140, 25, 50, 50}));
    EXPECT_EQ(some[2], (Rect{210, 25, 50, 50}));
    EXPECT_TRUE(hstackCentred(bounds, {50}, {true}, 50, 20)[0].empty());
}

TEST(Animation, EasesRetargetsFromWhereItIsAndFadesHiddenViewsBackIn) {
    AnimatedValue v(0);
    v.animateTo(1, 10, 1);
    for (auto [t, x] : {std::pair{10.0, 0.f}, {10.5, 0.5f}, {11.0, 1.f}})
        EXPECT_FLOAT_EQ(v.value(t), x) << t;
    EXPECT_LT(v.value(10.25), 0.25f);  // slow start
    EXPECT_TRUE(v.isAnimating(10.9));
    EXPECT_FALSE(v.isAnimating(11));
    v.animateTo(0, 11.5, 1);
    v.animateTo(1, 12, 1);  // turned around half way
    EXPECT_FLOAT_EQ(v.value(12), 0.5f);
    // A hidden view goes at once and fades back in over a quarter second.
    AnimatedValue fade(1);
    EXPECT_EQ(isHidden(true).opacity(fade, 0), 0);
    for (auto [t, x] : {std::pair{1.0, 0.f}, {1.125, 0.5f}, {1.25, 1.f}})
        EXPECT_FLOAT_EQ(isHidden(false).opacity(fade, t), x) << t;
}

TEST(VideoGeometry, FitLetterBoxesAndFillCrops) {
    Rect fit = aspectFitRect(640, 360, {0, 0, 1280, 544});
    EXPECT_FLOAT_EQ(fit.h, 544);
    EXPECT_NEAR(fit.w, 967.1f, 0.1f);
    EXPECT_NEAR(fit.x, (1280 - fit.w) / 2, 0.01f);
    Rect tall = aspectFitRect(640, 360, {0, 0, 390, 844});
    EXPECT_FLOAT_EQ(tall.w, 390);
    EXPECT_NEAR(tall.y, (844 - tall.h) / 2, 0.01f);
    EXPECT_EQ(aspectFitRect(0, 0, {1, 2, 3, 4}), (Rect{1, 2, 3, 4}));

    UVRect uv = aspectFillUV(1600, 900, 900, 900);  // square window on wide video
    EXPECT_NEAR(uv.uv0.x, (1 - 900.0f / 1600) / 2, 1e-5);
    EXPECT_EQ(std::make_pair(uv.uv0.y, uv.uv1.y), std::make_pair(0.f, 1.f));
}

TEST(Images, ResizeStretchesToExactlyTheRequestedSizeAndOnlyRealPicturesDecode) {
    Image img{2, 1, {255, 0, 0, 255, 0, 0, 255, 255}};
    Image big = img.resized(8, 3);
    ASSERT_EQ(std::make_tuple(big.width, big.height, big.rgba.size()), std::make_tuple(8, 3, 96u));
    EXPECT_EQ(big.rgba[0], 255);                            // left stays red
    EXPECT_EQ(big.rgba[7 * 4 + 2] - big.rgba[7 * 4], 255);  // right stays blue
    EXPECT_TRUE(img.resized(0, 5).empty());

    EXPECT_FALSE(decodeImage("") || decodeImage("<html>nope</html>"));
    auto svg = decodeImage(
        "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"10\" height=\"10\"><rect width=\"10\" "
        "height=\"10\" fill=\"#00ff00\"/></svg>",
        40, 20);
    ASSERT_TRUE(svg.has_value());
    EXPECT_EQ(std::make_pair(svg->width, svg->rgba[1]), std::make_pair(40, uint8_t{255}));
    // Every artwork asset is there and rasterises at the size asked for.
    for (const char* name : {"backbutton", "backword_10", "forward_10", "prev", "Play", "Pause",
                             "zelkinLogo", "gray_back", "slider", "slider_thik", "Circle", "ad",
                             "photo", "checkmark.circle.fill", "rocket.fill", "tortoise.fill"}) {
        auto image = assetImage(name, 30, 20);
        ASSERT_NE(image, nullptr) << name;
        EXPECT_EQ(image->width, 30) << name;
    }
    EXPECT_EQ(assetImage("no-such-asset", 10, 10), nullptr);
}

TEST(ColorExt, RandomPicksOnlyTheFiveColoursAndAllOfThem) {
    const std::set<uint32_t> allowed{Color::pink(), Color::blue(), Color::yellow(), Color::green(),
                                     Color::orange()};
    std::set<uint32_t> seen;
    for (int i = 0; i < 500; ++i) seen.insert(Color::random());
    EXPECT_EQ(seen, allowed);
    EXPECT_EQ(Color::withOpacity(Color::white(), 0.5f) >> 24, 128u);
}

TEST(Orientation, WindowShapeDecidesAndNoWindowKeepsTheLastValue) {
    OrientationObserver o;
    int changes = 0;
    auto sub = o.onChange([&] { ++changes; });
    EXPECT_FALSE(o.isLandscape());
    o.updateOrientation(std::make_pair(1280, 720));
    EXPECT_TRUE(o.isLandscape());
    EXPECT_EQ(static_cast<int>(o.orientation.get()), 3);
    o.updateOrientation(std::nullopt);
    EXPECT_TRUE(o.isLandscape());
    o.updateOrientation(std::make_pair(500, 500));
    EXPECT_TRUE(isPortrait(o.orientation));
    EXPECT_EQ(changes, 2);
    EXPECT_FALSE(isLandscape(UIInterfaceOrientation::unknown) ||
                 isPortrait(UIInterfaceOrientation::unknown));
}

TEST(TextFitting, LongTitlesWrapToTwoLinesAndEndInAnEllipsis) {
    HeadlessImGui h;
    Font font = Font::poppinsMedium(20);
    EXPECT_EQ(wrapText(font, "Red", 180, 2), std::vector<std::string>{"Red"});
    auto lines = wrapText(
        font, "A very long title about a rocket that flies to the moon and back again", 180, 2);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_TRUE(lines[1].ends_with("..."));
    for (const auto& line : lines)
        EXPECT_LE(font.font->CalcTextSizeA(font.size, FLT_MAX, 0, line.c_str()).x, 180);
}

TEST(Slider, WorksInHundredthsClampsAndReportsATapOnTheThumbWithoutChangingTheValue) {
    double value = 0;
    int writes = 0;
    std::vector<bool> editing;
    SwiftUISlider::Binding binding{[&] { return value; }, [&](double v) { value = v, ++writes; }};
    SwiftUISlider unknown(binding, false, 0);
    auto control = [](const SwiftUISlider& s) {
        const auto& c = s.control();
        return std::make_tuple(c.maximumValue, c.value, c.thumbSize);
    };
    EXPECT_EQ(control(unknown), std::make_tuple(1.f, 0.f, 30.f));
    EXPECT_FLOAT_EQ(unknown.control().trackHeight, 6);
    value = 95;
    SwiftUISlider slider(binding, true, 60);
    EXPECT_EQ(control(slider), std::make_tuple(6000.f, 6000.f, 45.f));  // thumb at the end
    EXPECT_FLOAT_EQ(SwiftUISlider::thumbRect(slider.control(), {0, 0, 445, 45}).right(), 445);

    HeadlessImGui h;
    value = 10;
    auto onEditing = [&](bool e) { editing.push_back(e); };
    SwiftUISlider tapped(binding, false, 40, onEditing);
    const Rect r{100, 100, 430, 30};
    auto frame = [&](double t, ImVec2 mouse, bool down) {
        h.frame(
            t, [&](Frame& f) { tapped.draw(f, r); }, mouse, down);
    };
    ImVec2 thumb{SwiftUISlider::thumbRect(tapped.control(), r).midX(), r.midY()};
    frame(0, thumb, true);
    EXPECT_TRUE(tapped.coordinator().isDragging);
    // Rotating mid-drag reconfigures the artwork; the clock does not move the thumb.
    value = 30;
    tapped.updateUIView(binding, true, 40, onEditing);
    EXPECT_EQ(std::make_tuple(tapped.control().thumbSize, tapped.control().configurations,
                              tapped.control().value),
              std::make_tuple(45.f, 2, 1000.f));
    value = 10;
    frame(0.1, thumb, false);
    EXPECT_EQ(editing, (std::vector<bool>{true, false}));
    EXPECT_EQ(writes, 0);
    EXPECT_FALSE(tapped.coordinator().isDragging);
    // A press on the track away from the thumb is not a drag.
    frame(0.2, {r.right() - 5, r.midY()}, true);
    EXPECT_EQ(editing.size(), 2u);
}

TEST(Loaders, RocketSpinsAndPulsesFromItsAppearance) {
    EXPECT_FLOAT_EQ(KidsRocketLoader::rotation(0), 0);
    EXPECT_NEAR(KidsRocketLoader::rotation(0.6), 180, 1e-3);
    EXPECT_NEAR(KidsRocketLoader::rotation(1.2 + 0.3), 90, 1e-3);  // repeats, never reverses
    for (auto [t, scale] : {std::pair{0.0, 1.f}, {0.6, 1.2f}, {1.2, 1.f /* reverses */}})
        EXPECT_NEAR(KidsRocketLoader::rocketScale(t), scale, 1e-5) << t;
    EXPECT_FLOAT_EQ(KidsJumpLoader::offset(0), 0);
    EXPECT_LT(KidsJumpLoader::offset(0.4), -10);  // up by about 15 points

    HeadlessImGui h;
    KidsRocketLoader first;
    EXPECT_FALSE(first.rotate());
    h.frame(5, [&](Frame& f) { first.draw(f, {100, 100}); });
    EXPECT_TRUE(first.rotate() && first.scale());
    // A loader shown anew starts from its initial state.
    KidsRocketLoader again;
    h.frame(7.3, [&](Frame& f) { again.draw(f, {100, 100}); });
    const auto* rocket = h.trace.find(DrawTrace::Kind::image, "rocket.fill");
    ASSERT_NE(rocket, nullptr);
    EXPECT_FLOAT_EQ(rocket->rect.w, KidsRocketLoader::UI::rocketSize);
}

}  // namespace
}  // namespace kavelin

// What the screen reads at run time comes from inside the library; a development
// folder may shadow single files but never lets an address climb out of it.
using namespace kavelin;

namespace {

TEST(EmbeddedResources, SampleThumbnailsAndFontsAreBuiltIn) {
    unsetenv("KAVELIN_RESOURCES_DIR");
    for (const Playlist* p :
         {&SampleVideos::Playlist1(), &SampleVideos::Playlist2(), &SampleVideos::Playlist3()}) {
        std::vector<std::string> addresses{*p->thumbnail};
        for (const Video& v : p->videos) addresses.push_back(v.thumbnail);
        for (const auto& address : addresses) {
            auto bytes = resourceBytes(address.substr(resourceScheme.size()), nullptr);
            ASSERT_TRUE(bytes) << address;
            EXPECT_TRUE(decodeImage(*bytes).has_value()) << address;
        }
    }
    // The faces set-up fetched are the ones inside, byte for byte.
    for (const char* face : {"Poppins-Medium.ttf", "Poppins-SemiBold.ttf"}) {
        const std::string fetched =
            kavelin::testing::readFile(KAVELIN_SOURCE_DIR "/build/fonts/" + std::string(face));
        if (fetched.empty()) continue;
        auto inside = embeddedResource(face);
        ASSERT_TRUE(inside) << face;
        EXPECT_EQ(*inside, fetched) << face;
    }
}

TEST(EmbeddedResources, DevelopmentFolderShadowsOnlyWhatItHolds) {
    ScratchDir dir;
    std::ofstream(dir.path / "Play.svg") << "edited";
    const std::string outside = dir.path.filename().string() + "-outside.svg";
    std::ofstream(dir.path.parent_path() / outside) << "secret";
    ScopedEnv folder("KAVELIN_TEST_RESOURCES", dir.path.c_str());
    const auto builtInPause = embeddedResource("Pause.svg");
    ASSERT_TRUE(builtInPause && embeddedResource("Play.svg"));
    const char* var = "KAVELIN_TEST_RESOURCES";
    const std::tuple<std::string, const char*, std::optional<std::string>> cases[] = {
        {"Play.svg", var, "edited"},
        {"Play.svg", nullptr, std::string(*embeddedResource("Play.svg"))},
        {"Pause.svg", var, std::string(*builtInPause)},
        {"../" + outside, var, std::nullopt},
        {"no-such.svg", var, std::nullopt},
        {"no-such.svg", nullptr, std::nullopt}};
    for (const auto& [name, variable, expected] : cases)
        EXPECT_EQ(resourceBytes(name, variable), expected)
            << name << " via " << (variable ? variable : "-");
    std::filesystem::remove(dir.path.parent_path() / outside);
}

}  // namespace
