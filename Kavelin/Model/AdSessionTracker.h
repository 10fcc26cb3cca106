#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>

#include "Kavelin/Model/MidRollAdConfig.h"

namespace kavelin {

// Whether one more ad may be asked for now: the per-session cap and the
// wall-clock cooldown of the policy.
class AdSessionTracker {
  public:
    using Clock = std::function<std::chrono::system_clock::time_point()>;

    // `now` defaults to the system wall clock; tests pass their own.
    explicit AdSessionTracker(Clock now = {});

    bool canShowAd(const MidRollAdConfig& config) const;
    void recordAdShown();
    void reset();

    int64_t totalAdsShown() const { return totalAdsShown_; }
    std::optional<std::chrono::system_clock::time_point> lastAdTimestamp() const {
        return lastAdTimestamp_;
    }

  private:
    Clock now_;
    int64_t totalAdsShown_ = 0;
    std::optional<std::chrono::system_clock::time_point> lastAdTimestamp_;
};

}  // namespace kavelin
