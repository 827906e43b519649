// Configuration of the scanner API stand-in from the environment.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "scanner/faults.h"
#include "scanner/unit.h"

namespace kr7sim {
namespace scanner {

struct Library {
    std::vector<std::unique_ptr<Unit>> units;  // ascending interface numbers
    std::string error;                         // non-empty: the configuration is unusable
    FaultPlan faults;
    Journal journal;
    bool realtime = false;
    bool fixed_frame = false;  // KR7SIM_FIXED_FRAME: one frame rendered, then repeated
};

// Reads KR7SIM_SEED, KR7SIM_UNITS, KR7SIM_SCENARIO, KR7SIM_REALTIME,
// KR7SIM_FIXED_FRAME, KR7SIM_FAULTS and KR7SIM_JOURNAL into `library`. A problem leaves a message
// in `library.error` (and no units); the journal is opened in any case.
void Configure(Library& library);

// Parses one KR7SIM_UNITS value into unit configurations (without building
// the units). False and a message for a malformed value.
bool ParseUnits(const std::string& text, uint64_t seed, std::vector<UnitConfig>& units,
                std::string& error);

}  // namespace scanner
}  // namespace kr7sim
