#include "Kavelin/Model/MidRollAdConfig.h"

#include "Kavelin/Model/Catalogue.h"
#include "Kavelin/Model/JsonDecoding.h"
#include "Kavelin/Platform/Immortal.h"

namespace kavelin {

using namespace json_decoding;

const MidRollAdConfig& MidRollAdConfig::empty() {
    static Immortal<const MidRollAdConfig> config([] {
        MidRollAdConfig c;
        c.version = 0;
        c.adTimeoutSeconds = 3.0;
        c.globalConstraints.minGapSeconds = 30.0;
        c.globalConstraints.noAdZoneStartSeconds = 10.0;
        c.globalConstraints.noAdZoneEndSeconds = 10.0;
        c.globalConstraints.minSecondsBetweenAnyAds = 60.0;
        return c;
    }());
    return config.get();
}

namespace {

double doubleMember(const json& object, const Where& where, std::string_view key) {
    return readDouble(requiredMember(object, where, key), member(where, key));
}

int64_t int64Member(const json& object, const Where& where, std::string_view key) {
    return readInt64(requiredMember(object, where, key), member(where, key));
}

std::optional<double> optionalDoubleMember(const json& object, const Where& where,
                                           std::string_view key) {
    const json* value = optionalMember(object, key);
    if (!value) return std::nullopt;
    return readDouble(*value, member(where, key));
}

std::optional<int64_t> optionalInt64Member(const json& object, const Where& where,
                                           std::string_view key) {
    const json* value = optionalMember(object, key);
    if (!value) return std::nullopt;
    return readInt64(*value, member(where, key));
}

std::vector<double> doublesMember(const json& object, const Where& where, std::string_view key) {
    return readArray<double>(requiredMember(object, where, key), member(where, key), readDouble);
}

MidRollAdConfig::GlobalConstraints constraintsAt(const json& value, const Where& where) {
    requireObject(value, where);
    MidRollAdConfig::GlobalConstraints c;
    c.minGapSeconds = doubleMember(value, where, "minGapSeconds");
    c.noAdZoneStartSeconds = doubleMember(value, where, "noAdZoneStartSeconds");
    c.noAdZoneEndSeconds = doubleMember(value, where, "noAdZoneEndSeconds");
    c.minSecondsBetweenAnyAds = optionalDoubleMember(value, where, "minSecondsBetweenAnyAds");
    c.maxAdsPerSession = optionalInt64Member(value, where, "maxAdsPerSession");
    return c;
}

MidRollAdConfig::DurationBucket bucketAt(const json& value, const Where& where) {
    requireObject(value, where);
    MidRollAdConfig::DurationBucket b;
    b.minSeconds = doubleMember(value, where, "minSeconds");
    b.maxSeconds = doubleMember(value, where, "maxSeconds");
    b.maxBreaks = int64Member(value, where, "maxBreaks");
    b.placements = doublesMember(value, where, "placements");
    return b;
}

MidRollAdConfig::VideoOverride overrideAt(const json& value, const Where& where) {
    requireObject(value, where);
    MidRollAdConfig::VideoOverride o;
    o.cuePointSeconds = doublesMember(value, where, "cuePointSeconds");
    o.maxBreaks = optionalInt64Member(value, where, "maxBreaks");
    return o;
}

}  // namespace

MidRollAdConfig MidRollAdConfig::decode(std::string_view utf8) {
    return decode(parse(utf8));
}

MidRollAdConfig MidRollAdConfig::decode(const nlohmann::json& value) {
    const Where where = topLevel();
    requireObject(value, where);
    MidRollAdConfig config;
    config.version = int64Member(value, where, "version");
    config.adTimeoutSeconds = doubleMember(value, where, "adTimeoutSeconds");
    config.globalConstraints = constraintsAt(requiredMember(value, where, "globalConstraints"),
                                             member(where, "globalConstraints"));
    config.durationBuckets =
        readArray<DurationBucket>(requiredMember(value, where, "durationBuckets"),
                                  member(where, "durationBuckets"), bucketAt);
    if (const json* overrides = optionalMember(value, "videoOverrides")) {
        const Where at = member(where, "videoOverrides");
        requireObject(*overrides, at);
        std::map<std::string, VideoOverride> byId;
        for (const auto& [id, body] : overrides->items())
            byId[id] = overrideAt(body, entry(at, id));
        config.videoOverrides = std::move(byId);
    }
    return config;
}

nlohmann::json MidRollAdConfig::encode() const {
    const auto& c = globalConstraints;
    nlohmann::json constraints = {{"minGapSeconds", c.minGapSeconds},
                                  {"noAdZoneStartSeconds", c.noAdZoneStartSeconds},
                                  {"noAdZoneEndSeconds", c.noAdZoneEndSeconds}};
    if (c.minSecondsBetweenAnyAds)
        constraints["minSecondsBetweenAnyAds"] = *c.minSecondsBetweenAnyAds;
    if (c.maxAdsPerSession) constraints["maxAdsPerSession"] = *c.maxAdsPerSession;

    nlohmann::json buckets = nlohmann::json::array();
    for (const auto& b : durationBuckets) {
        buckets.push_back({{"minSeconds", b.minSeconds},
                           {"maxSeconds", b.maxSeconds},
                           {"maxBreaks", b.maxBreaks},
                           {"placements", b.placements}});
    }

    nlohmann::json out = {{"version", version},
                          {"adTimeoutSeconds", adTimeoutSeconds},
                          {"globalConstraints", std::move(constraints)},
                          {"durationBuckets", std::move(buckets)}};
    if (videoOverrides) {
        nlohmann::json overrides = nlohmann::json::object();
        for (const auto& [id, o] : *videoOverrides) {
            nlohmann::json body = {{"cuePointSeconds", o.cuePointSeconds}};
            if (o.maxBreaks) body["maxBreaks"] = *o.maxBreaks;
            overrides[id] = std::move(body);
        }
        out["videoOverrides"] = std::move(overrides);
    }
    return out;
}

}  // namespace kavelin
