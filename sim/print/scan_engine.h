// Image engine of the virtual KR7 scanner.
//
// The engine turns synthetic fingers (master prints) into raw 8-bit frames
// the way a 500-dpi prism scanner would deliver them, in platen orientation
// and platen polarity: row 0 is the top of the platen (fingertip side), the
// empty platen is white and ridges in contact are dark. Turning the frame
// upside down and inverting it, as the real device delivers it, is left to
// the library wrapper, as is the choice of optics.
//
// Three stages, each doing as much as possible once:
//   unit        (ScanEngine)  sensor gain and dark-offset maps, noise pool,
//                             platen dirt and the optional optics maps,
//                             folded into per-pixel tables;
//   impression  (Impression)  master print resampled once into the sensor
//                             grid for one placement of the finger (shift,
//                             rotation, mild warp, skin texture), plus the
//                             contact geometry per pixel;
//   frame       (Render)      a small table built from the frame's pressure,
//                             dose and contact state, then about ten integer
//                             operations per pixel.
//
// Everything is deterministic: the same unit configuration, impression
// parameters and frame request give the same bytes. Randomness comes from
// hashes of (seed, impression, frame) fed into the generator in rng.h; time
// is the frame index times kFramePeriodSeconds.
#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

#include "print/master_print.h"

namespace kr7sim {

constexpr int kNominalDose = 60;
constexpr int kMaxDose = 1000;
constexpr double kFramePeriodSeconds = 0.040;
constexpr int kDefaultFrameWidth = 320;
constexpr int kDefaultFrameHeight = 480;
constexpr int kRolledFrameWidth = 640;

enum class Skin : uint8_t { Dry, Normal, Wet };
enum class ImpressionKind : uint8_t { Plain, Rolled };
// Side of the platen (platen coordinates, x to the right) where a rolled
// print starts. Random draws it from the placement, as it always did, so
// existing seeds keep their frames.
enum class RollDirection : uint8_t { Random, FromLeft, FromRight };
// How much one placement differs from the next. Natural draws what the
// caller leaves open from the ranges of real placements; Easy keeps a
// normal, firm, centred-ish touch that always gives a good image.
enum class Variation : uint8_t { Natural, Easy };

// One scanner unit: frame size and sensor imperfections.
struct SensorConfig {
    uint64_t unit_seed = 1;
    int width = kDefaultFrameWidth;
    int height = kDefaultFrameHeight;
    double gain_sigma = 0.007;  // relative per-pixel gain error
    double offset_min = 4.0;    // dark offset of the unit, drawn in [min, max]
    double offset_max = 8.0;
    double pixel_offset_sigma = 1.0;   // per-pixel dark-offset pattern, grey levels
    double column_offset_sigma = 0.5;  // per-column dark-offset pattern, grey levels
    double read_noise_sigma = 2.0;     // grey levels
    double empty_level = 244.0;        // signal of the empty platen at the nominal dose
    int dirt_spots = 3;                // faint dark smudges on the platen
};

// Optics folded into the unit's tables, so that they cost nothing per frame.
// Every map is row-major with one entry per output pixel (width * height);
// an empty vector means "identity".
//
//  illumination  multiplies the light that reaches the pixel (illumination
//                falloff, vignetting, prism transmission). It scales the
//                signal, not the dark offset, and is combined with the
//                sensor's gain map once, when the engine is built.
//  source_x/y    the platen point, in platen pixel coordinates (0..width,
//                0..height, y down), that the output pixel sees (keystone
//                and any other geometric distortion). Fractional values are
//                welcome: each impression resamples the master print at
//                exactly these points, so geometry adds no per-frame work and
//                no second interpolation. Platen dirt follows the same map.
//                Both vectors must be given together.
struct OpticsMaps {
    std::vector<float> illumination;
    std::vector<float> source_x;
    std::vector<float> source_y;

    // Convenience for optics that name a whole source pixel per output pixel
    // (index = y * platen_width + x; negative = sees nothing of the platen).
    static OpticsMaps FromSourceIndex(const std::vector<int32_t>& index, int platen_width);
};

struct ImpressionParams {
    ImpressionKind kind = ImpressionKind::Plain;
    uint64_t finger_seed = 1;  // selects the master print
    uint32_t impression = 0;   // which placement of that finger (pose, texture)
    // Skin and peak pressure (0.3 light touch, 1 normal, 1.6 hard). Left
    // unset, a natural plain placement draws them from the mix of real
    // placements; otherwise (easy, rolled) they are normal and 1.
    std::optional<Skin> skin;
    std::optional<double> pressure;
    bool random_pose = true;  // false: centred, upright, no warp or distortion
    // Natural plain placements: several millimetres of translation, up to 20
    // degrees of rotation, plastic distortion, light to hard contact, skin
    // condition, creases and scars. Easy: the mild placement of a careful
    // user (small shift and rotation, a gentle warp). Rolled prints always
    // take the easy pose.
    Variation variation = Variation::Natural;
    bool force_class = false;  // passed to the master request
    FingerClass finger_class = FingerClass::LeftLoop;

    // Timeline in frames.
    uint32_t touch_frame = 0;                                    // first frame with contact
    uint32_t press_frames = 8;                                   // first touch to full pressure
    uint32_t lift_frame = std::numeric_limits<uint32_t>::max();  // first frame free again
    uint32_t roll_frames = 36;  // rolled: one side to the other (1.44 s)
    // Rolled: the side the roll starts from; a fixed side holds for a centred pose too.
    RollDirection roll_from = RollDirection::Random;
};

struct FrameRequest {
    uint32_t frame = 0;
    int dose = kNominalDose;  // exposure; the signal is linear in it
};

class ScanEngine;
class Rng;

// One placement of one finger, resampled into the unit's sensor grid.
// Immutable after creation; may be shared between threads.
class Impression {
public:
    const ImpressionParams& params() const { return params_; }
    const MasterPrint& master() const { return *master_; }

    // Pose: platen point -> master point (includes the warp), and the angle
    // by which the pattern is turned on the platen (radians, image
    // coordinates): orientation on the platen = orientation in master + angle.
    Point PlatenToMaster(float x, float y) const;
    double rotation() const { return rotation_; }
    // Skin and peak pressure of this placement (given or drawn).
    Skin skin() const { return skin_; }
    double pressure() const { return pressure_; }

    // Contact state at a frame. Pressure 0 means the platen is free.
    double PressureAt(uint32_t frame) const;
    // Plain: centre and semi-axes of the full contact ellipse on the platen.
    Point contact_centre() const { return centre_; }
    double contact_semi_x() const { return semi_x_; }
    double contact_semi_y() const { return semi_y_; }
    // Rolled: centre (platen x) and half-width of the contact strip.
    double StripCentreAt(uint32_t frame) const;
    double StripHalfWidthAt(uint32_t frame) const;
    double strip_height() const { return strip_height_; }

    // Plastic distortion of the skin (the model of Cappelli, Maio and
    // Maltoni): a rigid region around the centre of contact, a transition
    // ring, and an elastic outer part that follows the drag and twist of the
    // finger in full.
    struct Distortion {
        bool on = false;
        Point centre;
        double semi_x = 1, semi_y = 1, ring = 1;
        double drag_x = 0, drag_y = 0, cos_twist = 1, sin_twist = 0;
        Point SkinPoint(double x, double y) const;  // platen point -> undistorted point
    };
    // A crease or scar on the skin: a segment in master coordinates where the
    // skin stays off the glass.
    struct Mark {
        Point a, b;
        double half_width = 1, depth = 0;
    };

private:
    friend class ScanEngine;
    Impression() = default;
    double RollProgress(uint32_t frame) const;

    ImpressionParams params_;
    std::shared_ptr<const MasterPrint> master_;
    Skin skin_ = Skin::Normal;
    double pressure_ = 1.0;
    double texture_ = 0.15;  // amplitude of the fine skin texture
    Distortion distortion_;
    std::vector<Mark> marks_;
    double rotation_ = 0;
    Point platen_anchor_, master_anchor_;
    double warp_amp_ = 0, warp_k1_ = 0, warp_k2_ = 0, warp_p1_ = 0, warp_p2_ = 0;
    Point centre_;
    double semi_x_ = 0, semi_y_ = 0;
    double tremor_phase_ = 0;
    double strip_start_ = 0, strip_end_ = 0, strip_half_width_ = 0, strip_height_ = 0;
    double strip_centre_y_ = 0;

    // Per output pixel, in sensor geometry.
    std::vector<uint8_t> ridge_;      // master value with skin texture, 0..255
    std::vector<uint16_t> radius2_;   // plain: normalised ellipse radius^2 * 4096
    std::vector<uint16_t> column_;    // rolled: platen x * 4
    std::vector<uint16_t> row_term_;  // rolled: vertical part of the radius^2 * 4096
};

class ScanEngine {
public:
    // Throws std::invalid_argument for a bad size or mismatched optics maps.
    explicit ScanEngine(const SensorConfig& config, const OpticsMaps& optics = OpticsMaps());

    int width() const { return config_.width; }
    int height() const { return config_.height; }
    const SensorConfig& config() const { return config_; }
    double dark_offset() const { return dark_offset_; }

    // Builds an impression (takes the master print from the process-wide
    // cache, generating it on first use).
    std::shared_ptr<const Impression> CreateImpression(const ImpressionParams& params) const;

    // Renders one frame into `out` (width * height bytes, row-major, row 0 =
    // top of the platen). A null impression, or a frame without contact,
    // gives the empty platen. Thread-safe.
    void Render(const Impression* impression, const FrameRequest& request, uint8_t* out) const;

private:
    // Steps of an impression, in the order the finger meets the glass: where
    // and how it lands (pose, contact, pressure, skin, distortion), what its
    // skin carries (creases, scars), and the resampling into the sensor grid.
    void PlaceEasy(Impression& imp, Rng& rng) const;
    void PlaceNatural(Impression& imp, Rng& rng) const;
    void PlaceRolled(Impression& imp, Rng& rng) const;
    static void MarkSkin(Impression& imp, Rng& rng);
    void Resample(Impression& imp) const;
    void RenderEmpty(uint64_t frame_key, int dose, uint8_t* out) const;

    SensorConfig config_;
    double dark_offset_ = 6;
    bool has_source_map_ = false;
    std::vector<float> source_x_, source_y_;
    std::vector<uint16_t> gain_;   // Q15: gain * illumination * dirt
    std::vector<int16_t> offset_;  // Q4 grey levels
    std::vector<int16_t> noise_;   // Q4 grey levels, pool read at hashed row offsets
};

}  // namespace kr7sim
