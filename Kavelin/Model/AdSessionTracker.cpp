#include "Kavelin/Model/AdSessionTracker.h"

#include <limits>
#include <string>

#include "Kavelin/Extentions/NumberFormatting.h"
#include "Kavelin/log/VPLogger.h"

namespace kavelin {

AdSessionTracker::AdSessionTracker(Clock now)
    : now_(now ? std::move(now) : Clock([] { return std::chrono::system_clock::now(); })) {}

bool AdSessionTracker::canShowAd(const MidRollAdConfig& config) const {
    const auto& c = config.globalConstraints;
    if (c.maxAdsPerSession && totalAdsShown_ >= *c.maxAdsPerSession) {
        VPLogger::log("🚫 Ad blocked: session cap reached (" + std::to_string(totalAdsShown_) + "/" +
                      std::to_string(*c.maxAdsPerSession) + ")");
        return false;
    }
    if (c.minSecondsBetweenAnyAds && lastAdTimestamp_) {
        // Wall-clock time: a clock set back makes this negative and keeps blocking.
        double elapsed = std::chrono::duration<double>(now_() - *lastAdTimestamp_).count();
        if (elapsed < *c.minSecondsBetweenAnyAds) {
            VPLogger::log("🚫 Ad blocked: cooldown " + formatDouble("%.0f", elapsed) + "s / " +
                          formatDouble("%.0f", *c.minSecondsBetweenAnyAds) + "s");
            return false;
        }
    }
    return true;
}

void AdSessionTracker::recordAdShown() {
    lastAdTimestamp_ = now_();
    // Saturates: past any cap anyway, and a wrap would reopen the session.
    if (totalAdsShown_ < std::numeric_limits<int64_t>::max()) ++totalAdsShown_;
    VPLogger::log("📊 Ad recorded: total=" + std::to_string(totalAdsShown_) + " at " +
                  utcDescription(*lastAdTimestamp_));
}

void AdSessionTracker::reset() {
    lastAdTimestamp_.reset();
    totalAdsShown_ = 0;
}

}  // namespace kavelin
