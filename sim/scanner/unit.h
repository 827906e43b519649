// One simulated scanner unit: identity, memories, LEDs, options, the clock
// of its scenario and the image engine that renders its frames.
//
// Every member function is thread-safe (one mutex per unit); rendering runs
// outside the lock. Operations return an ftrScan error code, 0 for success.
// A handle carries the unit's unplug count at the time it was opened: once
// the unit has been unplugged since, the handle is dead (error 31) even
// after the unit is back, as with a real device.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "closed/ftrscan.h"
#include "common/optics.h"
#include "print/scan_engine.h"
#include "scanner/scenario.h"

namespace kr7sim {
namespace scanner {

struct UnitConfig {
    int interface_number = 0;
    int width = kDefaultFrameWidth;  // frame without the long-image option
    int height = kDefaultFrameHeight;
    int long_width = 0;  // with the long-image option; 0 = same as above
    int long_height = 0;
    bool long_supported = true;  // false: the option fails with 0x20000004
    uint64_t seed = 1;
    std::string serial;  // 8 characters; empty = derived from the seed
    FTRSCAN_VERSION api_version{2, 1, 0, 65535};
    FTRSCAN_VERSION hardware_version{3, 1, 2, 65535};
    FTRSCAN_VERSION firmware_version{1, 7, 65535, 65535};
    int dirt = 0;             // dirt spots on the platen unless the scenario says otherwise
    bool calibration = true;  // extended memory starts with the calibration block
    int ext_memory_size = 4096;
    std::string scenario_path;  // empty = the library's scenario
};

enum class Capture {
    Finger,     // GetFrame, GetImage, GetImage2, GetImageByVariableDose
    Backlight,  // the platen lit at the nominal dose, no finger checks
    Dark        // LEDs and light off: offset and noise only
};

constexpr uint32_t kKnownOptions = FTR_OPTIONS_CHECK_FAKE_REPLICA |
                                   FTR_OPTIONS_FAST_FINGER_DETECT_METHOD |
                                   FTR_OPTIONS_RECEIVE_LONG_IMAGE | FTR_OPTIONS_INVERT_IMAGE;

class Unit {
public:
    // `fixed_frame`: the first frame of each kind is rendered and then
    // handed out again by every later capture of that kind (the scenario
    // still advances), so that capturing costs only a copy.
    Unit(const UnitConfig& config, std::shared_ptr<const Scenario> scenario, bool realtime,
         bool fixed_frame = false);

    const UnitConfig& config() const { return config_; }

    // The optics record of frames of the given size (deterministic per unit).
    const Optics& OpticsFor(int width, int height);

    // True when the unit is plugged in at its current frame.
    bool Connected();
    // Opens: `epoch` receives the handle's unplug count. Fails with 259 while
    // unplugged (which also lets a frame period pass).
    uint32_t Open(uint64_t& epoch);

    uint32_t SetOptions(uint64_t epoch, uint32_t mask, uint32_t flags);
    uint32_t GetOptions(uint64_t epoch, uint32_t& flags);
    uint32_t GetImageSize(uint64_t epoch, int& width, int& height);

    // Takes one frame into `buffer` (the size GetImageSize reports), rows
    // bottom-up and inverted. Every capture lets one frame period pass and
    // leaves both LEDs off. `note`, when given, receives the frame and step.
    uint32_t TakeFrame(uint64_t epoch, Capture kind, int dose, uint8_t* buffer, std::string* note);
    uint32_t IsFingerPresent(uint64_t epoch, bool& present, std::string* note);

    uint32_t Save7Bytes(uint64_t epoch, const uint8_t* bytes);
    uint32_t Restore7Bytes(uint64_t epoch, uint8_t* bytes);
    uint32_t SetLeds(uint64_t epoch, uint8_t green, uint8_t red);
    uint32_t GetLeds(uint64_t epoch, bool& green, bool& red);
    uint32_t SaveSerialNumber(uint64_t epoch, const uint8_t* block);
    uint32_t GetSerialNumber(uint64_t epoch, uint8_t* eight);
    uint32_t GetExtMemorySize(uint64_t epoch, int& size);
    uint32_t WriteExtMemory(uint64_t epoch, const uint8_t* data, int offset, int count);
    uint32_t ReadExtMemory(uint64_t epoch, uint8_t* data, int offset, int count);
    uint32_t GetVersion(uint64_t epoch, FTRSCAN_VERSION_INFO& info);

private:
    // Caller holds mutex_.
    bool ExtRangeValid(const void* data, int offset, int count) const;
    struct Geometry {
        Optics optics;
        double empty_level = 0;  // signal of the empty platen at the nominal dose
        std::map<int, std::shared_ptr<const ScanEngine>> engines;  // by dirt spots
        OpticsMaps maps;
    };
    using Lock = std::unique_lock<std::mutex>;

    // Checks the handle against the unit's plug state; lets a frame pass
    // when the unit is unplugged.
    uint32_t Reach(uint64_t epoch);
    bool FrameSize(int& width, int& height) const;
    Geometry& GeometryFor(int width, int height);
    std::shared_ptr<const ScanEngine> EngineFor(int width, int height, int dirt);
    std::shared_ptr<const Impression> ImpressionFor(const ScanEngine& engine,
                                                    const Scenario::State& state);
    bool FingerOn(const Scenario::State& state) const;
    void Replay(const ReplaySpec& replay, uint64_t index, int width, int height, int dose,
                uint8_t* out);
    std::string Note(uint64_t frame, const Scenario::State& state) const;

    UnitConfig config_;
    std::shared_ptr<const Scenario> scenario_;
    bool realtime_;
    bool fixed_frame_;
    // The repeated frame of the fixed-frame mode and what it was taken with.
    struct FixedFrame {
        std::vector<uint8_t> pixels;  // empty: none yet
        int width = 0, height = 0, dose = 0;
        Capture kind = Capture::Finger;
        bool invert = false;
    } fixed_;
    double dark_offset_;

    std::mutex mutex_;
    uint64_t frame_ = 0;
    std::chrono::steady_clock::time_point next_due_{};
    uint32_t options_ = 0;
    uint8_t control_[7] = {};
    bool green_ = false, red_ = false;
    std::string serial_;
    std::vector<uint8_t> ext_;
    std::map<std::pair<int, int>, Geometry> geometry_;
    struct CachedImpression {
        int width, height;
        uint64_t cycle;
        int finger;
        std::shared_ptr<const Impression> impression;
    };
    std::vector<CachedImpression> impressions_;  // most recent last
};

}  // namespace scanner
}  // namespace kr7sim
