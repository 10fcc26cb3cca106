#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kavelin {

// The host's mid-roll policy. Values are not range-checked: odd ones simply lead
// to the plans the cue-point planner makes of them.
struct MidRollAdConfig {
    struct GlobalConstraints {
        double minGapSeconds = 0;
        double noAdZoneStartSeconds = 0;
        double noAdZoneEndSeconds = 0;
        std::optional<double> minSecondsBetweenAnyAds;
        std::optional<int64_t> maxAdsPerSession;
    };
    struct DurationBucket {
        double minSeconds = 0;
        double maxSeconds = 0;
        int64_t maxBreaks = 0;
        std::vector<double> placements;  // fractions of the duration
    };
    struct VideoOverride {
        std::vector<double> cuePointSeconds;  // absolute seconds
        std::optional<int64_t> maxBreaks;
    };

    int64_t version = 0;
    double adTimeoutSeconds = 0;
    GlobalConstraints globalConstraints;
    std::vector<DurationBucket> durationBuckets;
    std::optional<std::map<std::string, VideoOverride>> videoOverrides;

    // In force until the host sends a policy: plans no cue points for any video.
    static const MidRollAdConfig& empty();

    // Throws DecodingError (Catalogue.h) naming the offending key.
    static MidRollAdConfig decode(std::string_view utf8);
    // Text arguments are text, not JSON values built from a string.
    static MidRollAdConfig decode(const std::string& utf8) {
        return decode(std::string_view(utf8));
    }
    static MidRollAdConfig decode(const char* utf8) { return decode(std::string_view(utf8)); }
    static MidRollAdConfig decode(const nlohmann::json& json);
    nlohmann::json encode() const;
};

}  // namespace kavelin
