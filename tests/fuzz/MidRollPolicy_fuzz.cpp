#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include "Kavelin/Model/Catalogue.h"
#include "Kavelin/Model/MidRollAdConfig.h"
#include "Kavelin/Model/MidRollCuePointState.h"
#include "Kavelin/log/VPLogger.h"

// The mid-roll policy comes from a remote configuration and its numbers drive the
// cue-point planner: odd values may plan odd breaks but never misbehave.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool quiet = (kavelin::VPLogger::setEnabled(false), true);
    (void)quiet;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    kavelin::MidRollAdConfig config;
    try {
        config = kavelin::MidRollAdConfig::decode(text);
    } catch (const kavelin::DecodingError&) {
        return 0;
    }
    // What decodes must encode and decode to the same policy.
    const auto again = kavelin::MidRollAdConfig::decode(config.encode());
    if (again.encode() != config.encode()) __builtin_trap();

    std::optional<std::string> overridden;
    if (config.videoOverrides && !config.videoOverrides->empty())
        overridden = config.videoOverrides->begin()->first;
    for (double duration :
         {0.0, 9.5, 61.0, 3600.0, 1e300, std::numeric_limits<double>::quiet_NaN()}) {
        kavelin::MidRollCuePointState state;
        state.computeCuePoints(duration, overridden, config);
        for (double t : {0.0, duration / 2, duration}) (void)state.cuePointToTrigger(t);
        (void)state.handleSeek(0, duration);
        state.markConsumed(duration / 3);
    }
    return 0;
}
