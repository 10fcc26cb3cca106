#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Kavelin/Model/MidRollAdConfig.h"

namespace kavelin {

// The cue-point plan of the video that is playing, and the two pieces of ad state
// the player controller keeps beside it. Never talks to the host.
class MidRollCuePointState {
  public:
    struct CuePoint {
        double timestamp = 0;
        bool consumed = false;
    };

    // Replaces the plan (bucket or per-video override), logging one line.
    void computeCuePoints(double duration, const std::optional<std::string>& videoId,
                          const MidRollAdConfig& config);
    // First unconsumed cue point at or before `currentTime`; changes nothing.
    std::optional<double> cuePointToTrigger(double currentTime) const;
    // Forward seek: consumes all crossed cue points but the last, returns the last.
    std::optional<double> handleSeek(double from, double to);
    // Consumes the first cue point strictly within 0.5 s of `timestamp`.
    void markConsumed(double timestamp);
    void reset();

    bool hasCuePoints() const { return !cuePoints.empty(); }
    bool hasUnconsumedCuePoints() const;

    std::vector<CuePoint> cuePoints;
    bool isShowingAd = false;
    std::optional<double> seekTargetAfterAd;
};

}  // namespace kavelin
