#include "Kavelin/Model/MidRollCuePointState.h"

#include <algorithm>
#include <cmath>

#include "Kavelin/Extentions/NumberFormatting.h"
#include "Kavelin/log/VPLogger.h"

namespace kavelin {
namespace {

std::vector<double> prefix(const std::vector<double>& values, int64_t count) {
    auto n = std::min(values.size(), static_cast<size_t>(std::max<int64_t>(count, 0)));
    return {values.begin(), values.begin() + static_cast<std::ptrdiff_t>(n)};
}

// Zones at both ends (bounds inclusive), then ascending, then at least the
// minimum gap from the last point kept.
std::vector<double> applySafetyConstraints(std::vector<double> timestamps, double duration,
                                           const MidRollAdConfig& config) {
    const auto& c = config.globalConstraints;
    const double start = c.noAdZoneStartSeconds;
    const double end = duration - c.noAdZoneEndSeconds;
    std::erase_if(timestamps, [&](double t) { return !(start <= t && t <= end); });
    std::sort(timestamps.begin(), timestamps.end());
    std::vector<double> kept;
    for (double t : timestamps) {
        if (kept.empty() || t - kept.back() >= c.minGapSeconds) kept.push_back(t);
    }
    return kept;
}

std::string overrideList(const std::vector<double>& timestamps) {
    std::string out = "[";
    for (size_t i = 0; i < timestamps.size(); ++i) {
        if (i) out += ", ";
        out += doubleDescription(timestamps[i]);
    }
    return out + "]";
}

std::string bucketList(const std::vector<double>& timestamps) {
    std::string out = "[";
    for (size_t i = 0; i < timestamps.size(); ++i) {
        if (i) out += ", ";
        // Appended piece by piece: prepending to a temporary reallocates for nothing.
        out += '"';
        out += formatDouble("%.1f", timestamps[i]);
        out += '"';
    }
    return out + "]";
}

}  // namespace

void MidRollCuePointState::computeCuePoints(double duration,
                                            const std::optional<std::string>& videoId,
                                            const MidRollAdConfig& config) {
    cuePoints.clear();
    auto plan = [this](const std::vector<double>& timestamps) {
        for (double t : timestamps) cuePoints.push_back({t, false});
    };

    if (videoId && config.videoOverrides) {
        auto found = config.videoOverrides->find(*videoId);
        if (found != config.videoOverrides->end() && found->second.maxBreaks &&
            *found->second.maxBreaks < 0) {
            // A remote configuration typo must not close the game: plan this video
            // as if it had no override.
            VPLogger::error("❌ Mid-roll override for " + *videoId + " has a negative maxBreaks (" +
                            std::to_string(*found->second.maxBreaks) + "); override skipped");
        } else if (found != config.videoOverrides->end()) {
            const auto& o = found->second;
            auto count = o.maxBreaks.value_or(static_cast<int64_t>(o.cuePointSeconds.size()));
            auto timestamps =
                applySafetyConstraints(prefix(o.cuePointSeconds, count), duration, config);
            plan(timestamps);
            VPLogger::log("🎯 Mid-roll: " + std::to_string(timestamps.size()) +
                          " cue points (video override) for " + *videoId + ": " +
                          overrideList(timestamps));
            return;
        }
    }

    const std::string seconds = formatDouble("%.0f", duration);
    auto bucket = std::find_if(config.durationBuckets.begin(), config.durationBuckets.end(),
                               [duration](const MidRollAdConfig::DurationBucket& b) {
                                   return b.minSeconds <= duration && duration < b.maxSeconds;
                               });
    if (bucket == config.durationBuckets.end()) {
        VPLogger::log("🎯 Mid-roll: no matching bucket for duration " + seconds + "s");
        return;
    }
    if (bucket->maxBreaks <= 0 || bucket->placements.empty()) {
        VPLogger::log("🎯 Mid-roll: bucket has 0 breaks for duration " + seconds + "s");
        return;
    }
    // The break count is cut before filtering, in the policy's order of
    // preference: a dropped candidate is not replaced by a later placement.
    auto candidates = prefix(bucket->placements, bucket->maxBreaks);
    for (double& c : candidates) c *= duration;
    auto timestamps = applySafetyConstraints(std::move(candidates), duration, config);
    plan(timestamps);
    VPLogger::log("🎯 Mid-roll: " + std::to_string(timestamps.size()) + " cue points for " +
                  seconds + "s video: " + bucketList(timestamps));
}

std::optional<double> MidRollCuePointState::cuePointToTrigger(double currentTime) const {
    for (const auto& cue : cuePoints) {
        if (!cue.consumed && cue.timestamp <= currentTime) return cue.timestamp;
    }
    return std::nullopt;
}

std::optional<double> MidRollCuePointState::handleSeek(double from, double to) {
    if (!(to > from)) return std::nullopt;
    std::vector<size_t> crossed;
    for (size_t i = 0; i < cuePoints.size(); ++i) {
        const auto& cue = cuePoints[i];
        if (!cue.consumed && from < cue.timestamp && cue.timestamp <= to) crossed.push_back(i);
    }
    if (crossed.empty()) return std::nullopt;
    // A seek over several breaks costs one ad: the latest one, left for the caller.
    for (size_t k = 0; k + 1 < crossed.size(); ++k) cuePoints[crossed[k]].consumed = true;
    return cuePoints[crossed.back()].timestamp;
}

void MidRollCuePointState::markConsumed(double timestamp) {
    for (auto& cue : cuePoints) {
        if (std::fabs(timestamp - cue.timestamp) < 0.5) {
            cue.consumed = true;
            return;
        }
    }
}

void MidRollCuePointState::reset() {
    cuePoints.clear();
    isShowingAd = false;
    seekTargetAfterAd.reset();
}

bool MidRollCuePointState::hasUnconsumedCuePoints() const {
    return std::any_of(cuePoints.begin(), cuePoints.end(),
                       [](const CuePoint& cue) { return !cue.consumed; });
}

}  // namespace kavelin
