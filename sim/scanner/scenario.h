// Scenarios of the virtual scanner: what lies on the platen, and what goes
// wrong, at every frame.
//
// A scenario is a script of timed steps (see README.md beside this file for
// the format). Parsing compiles it into segments of whole frames; the unit
// then asks, for each frame it delivers, which segment applies. Time is the
// unit's frame index times the frame period, never the wall clock.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "print/scan_engine.h"
#include "scanner/grey_image.h"

namespace kr7sim {
namespace scanner {

// One finger put on the platen by the script. Frames in `params` (touch,
// lift) count from the start of the script's cycle.
struct FingerSpec {
    ImpressionParams params;
    bool fake = false;  // a replica: rejected when fake checking is on
};

// A folder of recorded frames played back one per frame period.
struct ReplaySpec {
    std::string folder;
    bool raw = false;  // frames are raw API frames, delivered as they are
    std::vector<GreyImage> frames;
};

struct Segment {
    uint32_t start = 0;  // frames from the start of the cycle, [start, end)
    uint32_t end = 0;
    int finger = -1;             // index into fingers(), -1 = none
    uint32_t capture_error = 0;  // captures fail with it (empty frame, movable finger)
    bool unplugged = false;      // the unit is disconnected
    int dirt = -1;               // dirt spots on the platen, -1 = the unit's own
    int replay = -1;             // index into replays(), -1 = none
    int line = 0;                // script line of the step, 0 = none
    const char* step = "end";    // step keyword, for the journal
};

class Scenario {
public:
    // Parses a script. `source` names it in messages ("file.txt" or
    // "KR7SIM_SCENARIO"); `default_seed` is the finger seed unless the script
    // sets one. Returns null and a message naming the line on failure.
    static std::shared_ptr<const Scenario> Parse(const std::string& text, const std::string& source,
                                                 uint64_t default_seed, std::string& error);

    // The script used when none is configured: a finger is placed, held and
    // lifted, over and over.
    static const char* DefaultScript();

    struct State {
        const Segment* segment = nullptr;
        uint64_t cycle = 0;  // which repetition of the script
        uint64_t local = 0;  // frame within that repetition
        uint64_t start = 0;  // absolute frame where the segment began
    };
    State At(uint64_t frame) const;

    // Number of unplug events that began at or before `frame`: a handle
    // opened before an unplug is dead afterwards.
    uint64_t UnplugsUpTo(uint64_t frame) const;

    const std::vector<FingerSpec>& fingers() const { return fingers_; }
    const std::vector<ReplaySpec>& replays() const { return replays_; }
    const std::vector<Segment>& segments() const { return segments_; }
    uint32_t cycle_frames() const { return cycle_; }
    uint32_t repeats() const { return repeats_; }  // 0 = forever

private:
    std::vector<Segment> segments_;  // contiguous, covering [0, cycle_)
    Segment tail_;                   // after the last repetition
    std::vector<FingerSpec> fingers_;
    std::vector<ReplaySpec> replays_;
    uint32_t cycle_ = 0;
    uint32_t repeats_ = 1;
    uint32_t unplugs_per_cycle_ = 0;
};

// Parses a duration: "2s", "250ms", "12f" (frames) or a bare number of
// seconds; rounds to whole frames. False for anything else or a negative or
// absurdly long value.
bool ParseDuration(const std::string& text, uint32_t& frames);

}  // namespace scanner
}  // namespace kr7sim
