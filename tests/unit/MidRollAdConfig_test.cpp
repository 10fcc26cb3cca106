#include "Kavelin/Model/MidRollAdConfig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Kavelin/Model/Catalogue.h"

namespace kavelin {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;

const char* kExample = R"({
  "version": 3,
  "adTimeoutSeconds": 8,
  "globalConstraints": {
    "minGapSeconds": 45,
    "noAdZoneStartSeconds": 15,
    "noAdZoneEndSeconds": 20.5,
    "minSecondsBetweenAnyAds": 90,
    "maxAdsPerSession": 6
  },
  "durationBuckets": [
    { "minSeconds": 0,   "maxSeconds": 120,  "maxBreaks": 0, "placements": [] },
    { "minSeconds": 120, "maxSeconds": 300,  "maxBreaks": 1, "placements": [0.5] },
    { "minSeconds": 300, "maxSeconds": 1800, "maxBreaks": 2, "placements": [0.33, 0.66, 0.9] }
  ],
  "videoOverrides": {
    "video-42": { "cuePointSeconds": [95.0, 210.5], "maxBreaks": 1 },
    "Video-42": { "cuePointSeconds": [] }
  }
})";

json example() {
    return json::parse(kExample);
}

std::string errorOf(const json& document) {
    try {
        MidRollAdConfig::decode(document);
    } catch (const DecodingError& e) {
        return e.what();
    }
    return "";
}

TEST(MidRollAdConfig, EmptyIsTheBuiltInDefault) {
    const auto& e = MidRollAdConfig::empty();
    EXPECT_EQ(e.version, 0);
    EXPECT_EQ(e.adTimeoutSeconds, 3.0);
    EXPECT_EQ(e.globalConstraints.minGapSeconds, 30.0);
    EXPECT_EQ(e.globalConstraints.noAdZoneStartSeconds, 10.0);
    EXPECT_EQ(e.globalConstraints.noAdZoneEndSeconds, 10.0);
    EXPECT_EQ(e.globalConstraints.minSecondsBetweenAnyAds, 60.0);
    EXPECT_EQ(e.globalConstraints.maxAdsPerSession, std::nullopt);
    EXPECT_TRUE(e.durationBuckets.empty());
    EXPECT_EQ(e.videoOverrides, std::nullopt);
    EXPECT_EQ(&e, &MidRollAdConfig::empty());
}

TEST(MidRollAdConfig, EncodingEmptyOmitsAbsentKeys) {
    json encoded = MidRollAdConfig::empty().encode();
    EXPECT_EQ(encoded, json::parse(R"({
        "version": 0, "adTimeoutSeconds": 3.0,
        "globalConstraints": {"minGapSeconds": 30.0, "noAdZoneStartSeconds": 10.0,
                              "noAdZoneEndSeconds": 10.0, "minSecondsBetweenAnyAds": 60.0},
        "durationBuckets": []})"));
    EXPECT_FALSE(encoded.contains("videoOverrides"));
    EXPECT_FALSE(encoded["globalConstraints"].contains("maxAdsPerSession"));
}

TEST(MidRollAdConfig, DecodesEveryFieldOfAFullDocument) {
    auto c = MidRollAdConfig::decode(std::string_view(kExample));
    EXPECT_EQ(c.version, 3);
    EXPECT_EQ(c.adTimeoutSeconds, 8.0);  // integer-valued numbers are fine for doubles
    EXPECT_EQ(c.globalConstraints.minGapSeconds, 45.0);
    EXPECT_EQ(c.globalConstraints.noAdZoneStartSeconds, 15.0);
    EXPECT_EQ(c.globalConstraints.noAdZoneEndSeconds, 20.5);
    EXPECT_EQ(c.globalConstraints.minSecondsBetweenAnyAds, 90.0);
    EXPECT_EQ(c.globalConstraints.maxAdsPerSession, 6);
    ASSERT_EQ(c.durationBuckets.size(), 3u);
    EXPECT_EQ(c.durationBuckets[1].minSeconds, 120.0);
    EXPECT_EQ(c.durationBuckets[1].maxSeconds, 300.0);
    EXPECT_EQ(c.durationBuckets[1].maxBreaks, 1);
    EXPECT_EQ(c.durationBuckets[2].placements, (std::vector<double>{0.33, 0.66, 0.9}));
    EXPECT_TRUE(c.durationBuckets[0].placements.empty());
    ASSERT_TRUE(c.videoOverrides);
    ASSERT_EQ(c.videoOverrides->size(), 2u);  // ids are case-sensitive
    const auto& o = c.videoOverrides->at("video-42");
    EXPECT_EQ(o.cuePointSeconds, (std::vector<double>{95.0, 210.5}));
    EXPECT_EQ(o.maxBreaks, 1);
    EXPECT_EQ(c.videoOverrides->at("Video-42").maxBreaks, std::nullopt);
}

TEST(MidRollAdConfig, OptionalKeysMayBeMissingOrNull) {
    json doc = example();
    doc.erase("videoOverrides");
    doc["globalConstraints"].erase("maxAdsPerSession");
    doc["globalConstraints"]["minSecondsBetweenAnyAds"] = nullptr;
    auto c = MidRollAdConfig::decode(doc);
    EXPECT_EQ(c.videoOverrides, std::nullopt);
    EXPECT_EQ(c.globalConstraints.maxAdsPerSession, std::nullopt);
    EXPECT_EQ(c.globalConstraints.minSecondsBetweenAnyAds, std::nullopt);

    doc["videoOverrides"] = nullptr;
    doc["globalConstraints"]["maxAdsPerSession"] = nullptr;
    c = MidRollAdConfig::decode(doc);
    EXPECT_EQ(c.videoOverrides, std::nullopt);
    EXPECT_EQ(c.globalConstraints.maxAdsPerSession, std::nullopt);

    doc["videoOverrides"] = json::object();  // present but empty is not absent
    EXPECT_TRUE(MidRollAdConfig::decode(doc).videoOverrides.has_value());
}

TEST(MidRollAdConfig, MissingRequiredKeysFailTheWholeDocument) {
    json doc = example();
    doc.erase("durationBuckets");
    EXPECT_EQ(errorOf(doc), R"(key "durationBuckets" not found)");

    doc = example();
    doc["durationBuckets"][1].erase("maxBreaks");
    EXPECT_EQ(errorOf(doc), R"(key "maxBreaks" not found at durationBuckets[1])");

    doc = example();
    doc["globalConstraints"].erase("noAdZoneEndSeconds");
    EXPECT_EQ(errorOf(doc), R"(key "noAdZoneEndSeconds" not found at globalConstraints)");

    doc = example();
    doc["videoOverrides"]["video-42"].erase("cuePointSeconds");
    EXPECT_EQ(errorOf(doc), R"(key "cuePointSeconds" not found at videoOverrides["video-42"])");

    for (const char* key : {"version", "adTimeoutSeconds", "globalConstraints"}) {
        doc = example();
        doc.erase(key);
        EXPECT_EQ(errorOf(doc), "key \"" + std::string(key) + "\" not found");
    }
}

TEST(MidRollAdConfig, WrongTypesFailTheWholeDocument) {
    json doc = example();
    doc["version"] = "3";
    EXPECT_EQ(errorOf(doc), R"(key "version": expected a number, found string)");

    doc = example();
    doc["version"] = 3.5;
    EXPECT_EQ(errorOf(doc), R"(key "version": expected an integer, found 3.5)");

    doc = example();
    doc["globalConstraints"]["maxAdsPerSession"] = 2.25;
    EXPECT_THAT(errorOf(doc), HasSubstr("expected an integer"));

    doc = example();
    doc["durationBuckets"][2]["placements"][1] = "0.66";
    EXPECT_EQ(errorOf(doc),
              "value at durationBuckets[2].placements[1]: expected a number, found string");

    doc = example();
    doc["videoOverrides"]["video-42"]["cuePointSeconds"] = 95;
    EXPECT_EQ(
        errorOf(doc),
        R"(key "cuePointSeconds" at videoOverrides["video-42"]: expected an array, found number)");

    doc = example();
    doc["videoOverrides"] = json::array();
    EXPECT_EQ(errorOf(doc), R"(key "videoOverrides": expected an object, found array)");

    doc = example();
    doc["globalConstraints"]["minGapSeconds"] = true;
    EXPECT_EQ(errorOf(doc),
              R"(key "minGapSeconds" at globalConstraints: expected a number, found boolean)");

    EXPECT_EQ(errorOf(json::array({example()})), "top level: expected an object, found array");
    EXPECT_THROW(MidRollAdConfig::decode(std::string_view("{\"version\": 1,")), DecodingError);
    EXPECT_THROW(MidRollAdConfig::decode(std::string_view("")), DecodingError);
    EXPECT_THROW(MidRollAdConfig::decode(std::string_view("{\"version\":\"\xFF\"}")),
                 DecodingError);
}

TEST(MidRollAdConfig, UnknownKeysAndOddValuesAreAccepted) {
    json doc = example();
    doc["comment"] = "ignored";
    doc["globalConstraints"]["future"] = {1, 2};
    doc["durationBuckets"][0] = {{"minSeconds", 500},
                                 {"maxSeconds", -1},
                                 {"maxBreaks", -4},
                                 {"placements", {1.5, -0.2}},
                                 {"weight", "heavy"}};
    doc["globalConstraints"]["noAdZoneStartSeconds"] = -10;
    doc["videoOverrides"]["neg"] = {{"cuePointSeconds", {-5}}, {"maxBreaks", -1}};
    auto c = MidRollAdConfig::decode(doc);
    EXPECT_EQ(c.durationBuckets[0].minSeconds, 500.0);
    EXPECT_EQ(c.durationBuckets[0].maxSeconds, -1.0);
    EXPECT_EQ(c.durationBuckets[0].maxBreaks, -4);
    EXPECT_EQ(c.durationBuckets[0].placements, (std::vector<double>{1.5, -0.2}));
    EXPECT_EQ(c.globalConstraints.noAdZoneStartSeconds, -10.0);
    EXPECT_EQ(c.videoOverrides->at("neg").maxBreaks, -1);
}

TEST(MidRollAdConfig, EncodingRoundTrips) {
    auto c = MidRollAdConfig::decode(example());
    json encoded = c.encode();
    EXPECT_FALSE(encoded["videoOverrides"]["Video-42"].contains("maxBreaks"));
    EXPECT_EQ(encoded["videoOverrides"]["video-42"]["maxBreaks"], 1);
    EXPECT_EQ(encoded["globalConstraints"]["maxAdsPerSession"], 6);
    EXPECT_EQ(encoded["durationBuckets"][2]["placements"], json({0.33, 0.66, 0.9}));

    auto again = MidRollAdConfig::decode(std::string_view(encoded.dump()));
    EXPECT_EQ(again.encode(), encoded);
    EXPECT_EQ(again.globalConstraints.noAdZoneEndSeconds, 20.5);
    EXPECT_EQ(again.videoOverrides->at("video-42").cuePointSeconds,
              (std::vector<double>{95.0, 210.5}));
}

}  // namespace
}  // namespace kavelin
