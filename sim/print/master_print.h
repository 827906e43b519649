// Master prints: the ridge pattern of one synthetic finger.
//
// A master print is grown once per seed by orientation-steered Gabor
// filtering (the method behind the synthetic databases of the fingerprint
// verification competitions) and then reused by every impression of that
// finger. Values are continuous in [-1, 1]: +1 is a ridge crest, -1 the
// bottom of a valley; the compositor thresholds them per frame.
//
// Coordinates are image coordinates: x to the right, y downwards, the
// fingertip at the top (small y). Orientations are ridge directions in
// radians in [0, pi), measured in those coordinates (so a ridge running from
// the lower left to the upper right has an orientation above pi/2).
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace kr7sim {

enum class FingerClass : uint8_t { Arch, TentedArch, LeftLoop, RightLoop, Whorl };

const char* FingerClassName(FingerClass c);

struct Point {
    float x = 0;
    float y = 0;
};

// Canvas sizes used by the scanner: plain impressions and the unrolled
// surface of a rolled print.
constexpr int kPlainCanvasWidth = 416;
constexpr int kPlainCanvasHeight = 560;
constexpr int kRolledCanvasWidth = 800;
constexpr int kRolledCanvasHeight = 560;

struct MasterRequest {
    uint64_t seed = 1;
    bool rolled = false;  // picks the default canvas size
    int width = 0;        // 0: default canvas for `rolled`
    int height = 0;
    bool force_class = false;  // otherwise the class follows the natural mix
    FingerClass finger_class = FingerClass::LeftLoop;
};

// Growth statistics, for tests and benchmarks.
struct GrowthStats {
    int passes = 0;         // growth from the seeds
    int defect_passes = 0;  // healing of the minutia-making defects
    double last_changed_fraction = 1.0;
    double pixel_updates = 0;  // number of kernel evaluations
};

struct MasterPrint {
    uint64_t seed = 0;
    int width = 0;
    int height = 0;
    FingerClass finger_class = FingerClass::LeftLoop;
    std::vector<Point> cores;
    std::vector<Point> deltas;
    float mean_period = 9.0f;  // pixels at 500 dpi

    std::vector<float> ridge;        // width*height, in [-1, 1]
    std::vector<float> orientation;  // width*height, ridge direction in [0, pi)
    std::vector<float> period;       // width*height, ridge period in pixels
    GrowthStats growth;

    float RidgeAt(int x, int y) const { return ridge[static_cast<size_t>(y) * width + x]; }
    // Bilinear sample of the ridge values; 0 outside the canvas.
    float SampleRidge(float x, float y) const;
    // Nearest-neighbour look-ups of the generating fields, clamped to the canvas.
    float OrientationNear(float x, float y) const;
    float PeriodNear(float x, float y) const;
};

// Draws the class by the natural mix (arch 3.7 %, tented arch 2.9 %, left
// loop 33.8 %, right loop 31.7 %, whorl 27.9 %) from a uniform number in [0, 1).
FingerClass ClassFromUniform(double u);

// Builds a master print; deterministic for a given request on one platform.
// Takes a second or two for the plain canvas in an optimised build.
MasterPrint GenerateMasterPrint(const MasterRequest& request);

// Process-wide cache in front of GenerateMasterPrint (thread-safe; keeps the
// most recently used prints up to a small bound).
std::shared_ptr<const MasterPrint> GetMasterPrint(const MasterRequest& request);

}  // namespace kr7sim
