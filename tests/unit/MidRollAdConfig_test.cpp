#include "Kavelin/Model/MidRollAdConfig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Kavelin/Model/Catalogue.h"

namespace kavelin {
namespace {

using nlohmann::json;
using ::testing::ThrowsMessage;

const json kExample = json::parse(R"({
  "version": 3, "adTimeoutSeconds": 8,
  "globalConstraints": {"minGapSeconds": 45, "noAdZoneStartSeconds": 15, "noAdZoneEndSeconds": 20.5,
                        "minSecondsBetweenAnyAds": 90, "maxAdsPerSession": 6},
  "durationBuckets": [
    { "minSeconds": 0,   "maxSeconds": 120,  "maxBreaks": 0, "placements": [] },
    { "minSeconds": 120, "maxSeconds": 300,  "maxBreaks": 1, "placements": [0.5] },
    { "minSeconds": 300, "maxSeconds": 1800, "maxBreaks": 2, "placements": [0.33, 0.66, 0.9] }
  ],
  "videoOverrides": {"video-42": { "cuePointSeconds": [95.0, 210.5], "maxBreaks": 1 },
                     "Video-42": { "cuePointSeconds": [] }}
})");

// The example with the value at `pointer` replaced, or removed when `value` is absent.
json exampleWith(const std::string& pointer, std::optional<json> value = std::nullopt) {
    json doc = kExample;
    const json::json_pointer at(pointer);
    if (value)
        doc[at] = *value;
    else
        doc[at.parent_pointer()].erase(at.back());
    return doc;
}

TEST(MidRollAdConfig, EmptyIsTheBuiltInDefaultAndEncodesWithoutAbsentKeys) {
    EXPECT_EQ(MidRollAdConfig::empty().encode(), json::parse(R"({
        "version": 0, "adTimeoutSeconds": 3.0,
        "globalConstraints": {"minGapSeconds": 30.0, "noAdZoneStartSeconds": 10.0,
                              "noAdZoneEndSeconds": 10.0, "minSecondsBetweenAnyAds": 60.0},
        "durationBuckets": []})"));
}

TEST(MidRollAdConfig, DecodesEveryFieldAndRoundTrips) {
    auto c = MidRollAdConfig::decode(std::string_view(kExample.dump()));
    const auto& g = c.globalConstraints;
    // Integer-valued numbers are fine for doubles.
    EXPECT_EQ(std::tuple(c.version, c.adTimeoutSeconds, g.minGapSeconds, g.noAdZoneStartSeconds,
                         g.noAdZoneEndSeconds, g.minSecondsBetweenAnyAds, g.maxAdsPerSession),
              std::tuple(3, 8.0, 45.0, 15.0, 20.5, std::optional(90.0), std::optional<int64_t>(6)));
    ASSERT_EQ(c.durationBuckets.size(), 3u);
    const auto& b = c.durationBuckets[1];
    EXPECT_EQ(std::tuple(b.minSeconds, b.maxSeconds, b.maxBreaks), std::tuple(120.0, 300.0, 1));
    EXPECT_EQ(c.durationBuckets[2].placements, (std::vector<double>{0.33, 0.66, 0.9}));
    EXPECT_TRUE(c.durationBuckets[0].placements.empty());
    ASSERT_TRUE(c.videoOverrides);
    ASSERT_EQ(c.videoOverrides->size(), 2u);  // ids are case-sensitive
    const auto& o = c.videoOverrides->at("video-42");
    EXPECT_EQ(o.cuePointSeconds, (std::vector<double>{95.0, 210.5}));
    EXPECT_EQ(o.maxBreaks, 1);
    EXPECT_EQ(c.videoOverrides->at("Video-42").maxBreaks, std::nullopt);
    // Encoding gives the document back, absent keys (Video-42's maxBreaks) left out.
    EXPECT_EQ(c.encode(), kExample);
}

TEST(MidRollAdConfig, OptionalKeysMayBeMissingOrNullAndUnknownOrOddValuesPass) {
    for (const auto& absent : {std::optional<json>(), std::optional<json>(json(nullptr))}) {
        auto decoded = [&](const std::string& key) {
            return MidRollAdConfig::decode(exampleWith(key, absent));
        };
        EXPECT_EQ(decoded("/videoOverrides").videoOverrides, std::nullopt);
        const std::string g = "/globalConstraints/";
        EXPECT_EQ(decoded(g + "maxAdsPerSession").globalConstraints.maxAdsPerSession, std::nullopt);
        EXPECT_EQ(decoded(g + "minSecondsBetweenAnyAds").globalConstraints.minSecondsBetweenAnyAds,
                  std::nullopt);
    }
    // Present but empty is not absent.
    EXPECT_TRUE(MidRollAdConfig::decode(exampleWith("/videoOverrides", json::object()))
                    .videoOverrides.has_value());

    json doc = kExample;
    doc["comment"] = "ignored";
    doc["globalConstraints"]["future"] = {1, 2};
    doc["durationBuckets"][0] = json::parse(R"({"minSeconds": 500, "maxSeconds": -1,
        "maxBreaks": -4, "placements": [1.5, -0.2], "weight": "heavy"})");
    doc["globalConstraints"]["noAdZoneStartSeconds"] = -10;
    doc["videoOverrides"]["neg"] = {{"cuePointSeconds", {-5}}, {"maxBreaks", -1}};
    auto c = MidRollAdConfig::decode(doc);
    const auto& b = c.durationBuckets[0];
    EXPECT_EQ(std::tuple(b.minSeconds, b.maxSeconds, b.maxBreaks, b.placements),
              std::tuple(500.0, -1.0, -4, std::vector<double>{1.5, -0.2}));
    EXPECT_EQ(c.globalConstraints.noAdZoneStartSeconds, -10.0);
    EXPECT_EQ(c.videoOverrides->at("neg").maxBreaks, -1);
}

TEST(MidRollAdConfig, MissingKeysAndWrongTypesFailTheWholeDocument) {
    const std::pair<json, std::string> cases[] = {
        {exampleWith("/durationBuckets"), R"(key "durationBuckets" not found)"},
        {exampleWith("/version"), R"(key "version" not found)"},
        {exampleWith("/adTimeoutSeconds"), R"(key "adTimeoutSeconds" not found)"},
        {exampleWith("/globalConstraints"), R"(key "globalConstraints" not found)"},
        {exampleWith("/durationBuckets/1/maxBreaks"),
         R"(key "maxBreaks" not found at durationBuckets[1])"},
        {exampleWith("/globalConstraints/noAdZoneEndSeconds"),
         R"(key "noAdZoneEndSeconds" not found at globalConstraints)"},
        {exampleWith("/videoOverrides/video-42/cuePointSeconds"),
         R"(key "cuePointSeconds" not found at videoOverrides["video-42"])"},
        {exampleWith("/version", "3"), R"(key "version": expected a number, found string)"},
        {exampleWith("/version", 3.5), R"(key "version": expected an integer, found 3.5)"},
        {exampleWith("/globalConstraints/maxAdsPerSession", 2.25),
         R"(key "maxAdsPerSession" at globalConstraints: expected an integer, found 2.25)"},
        {exampleWith("/durationBuckets/2/placements/1", "0.66"),
         "value at durationBuckets[2].placements[1]: expected a number, found string"},
        {exampleWith("/videoOverrides/video-42/cuePointSeconds", 95),
         R"(key "cuePointSeconds" at videoOverrides["video-42"]: expected an array, found number)"},
        {exampleWith("/videoOverrides", json::array()),
         R"(key "videoOverrides": expected an object, found array)"},
        {exampleWith("/globalConstraints/minGapSeconds", true),
         R"(key "minGapSeconds" at globalConstraints: expected a number, found boolean)"},
        {json::array({kExample}), "top level: expected an object, found array"}};
    for (const auto& [doc, error] : cases)
        EXPECT_THAT([&] { MidRollAdConfig::decode(doc); }, ThrowsMessage<DecodingError>(error))
            << doc.dump();
    for (const char* text : {"{\"version\": 1,", "", "{\"version\":\"\xFF\"}"})
        EXPECT_THROW(MidRollAdConfig::decode(std::string_view(text)), DecodingError) << text;
}

}  // namespace
}  // namespace kavelin
