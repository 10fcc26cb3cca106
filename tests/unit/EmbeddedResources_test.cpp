// What the screen reads at run time comes from inside the library; a development
// folder may shadow single files but never lets an address climb out of it.
#include "Kavelin/Extentions/EmbeddedResources.h"

#include <gtest/gtest.h>

#include <fstream>

#include "Kavelin/Extentions/UIImage+Ext.h"
#include "Kavelin/Model/Catalogue.h"
#include "support/ScopedEnv.h"
#include "support/ScratchDir.h"
#include "support/VirtualPlatform.h"

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
