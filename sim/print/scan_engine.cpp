#include "print/scan_engine.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "print/rng.h"

namespace kr7sim {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kDeg = kPi / 180.0;

// Contact table: rows are bins of the normalised contact radius squared
// (0 .. kRadius2Max), columns the 256 quantised master values. The last row
// is "no contact".
constexpr int kBins = 64;
constexpr double kRadius2Max = 1.44;
constexpr int kLevels = 256;

constexpr size_t kNoisePool = 65536;

constexpr uint64_t kStreamUnit = 0x554E4954ull;
constexpr uint64_t kStreamDirt = 0x44495254ull;
constexpr uint64_t kStreamPose = 0x504F5345ull;
constexpr uint64_t kStreamSkin = 0x534B494Eull;
constexpr uint64_t kStreamFrame = 0x4652414Dull;
constexpr uint64_t kStreamSkinDraw = 0x434F4E44ull;
constexpr uint64_t kStreamMarks = 0x4D41524Bull;

// The natural mix of placements (sim/print/README.md gives the reasons).
constexpr double kDryShare = 0.2;
constexpr double kWetShare = 0.2;
constexpr double kLightShare = 0.15;
constexpr double kHardShare = 0.2;
constexpr double kScarShare = 0.15;

struct SkinModel {
    double threshold_offset;  // added to the contact threshold (dry: only crests)
    double softness;          // width of the ridge edge in master units
    double ridge_reflectance;
    double valley_darkening;  // per unit pressure (moisture in the valleys)
};

SkinModel ModelOf(Skin s) {
    switch (s) {
        case Skin::Dry:
            return {0.20, 0.22, 0.42, 0.02};
        case Skin::Wet:
            return {-0.30, 0.45, 0.07, 0.22};
        case Skin::Normal:
            break;
    }
    return {0.0, 0.30, 0.15, 0.05};
}

double Smoothstep(double t) {
    t = std::clamp(t, 0.0, 1.0);
    return t * t * (3 - 2 * t);
}

// Smooth noise in [0, 1]: bilinear interpolation of hashed values on a grid.
double ValueNoise(uint64_t key, double x, double y, double spacing) {
    const double gx = x / spacing, gy = y / spacing;
    const double fx = std::floor(gx), fy = std::floor(gy);
    const int64_t ix = static_cast<int64_t>(fx), iy = static_cast<int64_t>(fy);
    auto corner = [&](int64_t cx, int64_t cy) {
        return static_cast<double>(
                   HashWords(key, static_cast<uint64_t>(cx), static_cast<uint64_t>(cy)) >> 11) *
               (1.0 / 9007199254740992.0);
    };
    const double ax = Smoothstep(gx - fx), ay = Smoothstep(gy - fy);
    return (1 - ay) * ((1 - ax) * corner(ix, iy) + ax * corner(ix + 1, iy)) +
           ay * ((1 - ax) * corner(ix, iy + 1) + ax * corner(ix + 1, iy + 1));
}

// Skin texture added to the master value at a master point.
double SkinTexture(Skin skin, uint64_t key, double x, double y, double texture) {
    const double fine = texture * (ValueNoise(key, x, y, 3.0) - 0.5);
    switch (skin) {
        case Skin::Dry: {
            // Patches where the dry skin does not reach the glass.
            const double n =
                0.6 * ValueNoise(key + 1, x, y, 5.0) + 0.4 * ValueNoise(key + 3, x, y, 11.0);
            const double breaks = Smoothstep((n - 0.5) / 0.25);
            return -1.1 * breaks + 0.25 * fine;
        }
        case Skin::Wet: {
            // Moisture filling the valleys in blotches.
            const double blobs = Smoothstep((ValueNoise(key + 2, x, y, 10.0) - 0.6) / 0.25);
            return 0.6 * blobs + 0.12 * fine;
        }
        case Skin::Normal:
            break;
    }
    return 0.15 * fine;
}

// A uniform draw for a random pose, the fixed value otherwise.
struct Jitter {
    Rng& rng;
    bool random;
    double operator()(double lo, double hi, double fixed) const {
        return random ? rng.Uniform(lo, hi) : fixed;
    }
};

// How far a crease or scar lifts the skin at a master point: 1 on its line,
// falling to 0 at its half-width.
double MarkProfile(const Impression::Mark& mark, Point p) {
    const double ex = mark.b.x - mark.a.x, ey = mark.b.y - mark.a.y;
    const double px = p.x - mark.a.x, py = p.y - mark.a.y;
    const double reach = mark.half_width + 1;
    if (p.x < std::min(mark.a.x, mark.b.x) - reach || p.x > std::max(mark.a.x, mark.b.x) + reach ||
        p.y < std::min(mark.a.y, mark.b.y) - reach || p.y > std::max(mark.a.y, mark.b.y) + reach)
        return 0.0;
    const double t = std::clamp((px * ex + py * ey) / (ex * ex + ey * ey + 1e-9), 0.0, 1.0);
    const double dx = px - t * ex, dy = py - t * ey;
    const double r2 = (dx * dx + dy * dy) / (mark.half_width * mark.half_width);
    return std::max(0.0, 1.0 - r2);
}

// Fills one row of the contact table for a local pressure q.
void FillRow(uint16_t* row, double q, const SkinModel& skin, double scale) {
    const auto level = [&](double reflectance) {
        return static_cast<uint16_t>(std::clamp(std::lround(scale * reflectance), 0L, 65535L));
    };
    if (q <= 1e-3) {
        std::fill(row, row + kLevels, level(1.0));
        return;
    }
    // Light contact touches only ridge crests; firm contact flattens the
    // ridges and narrows the valleys.
    const double threshold = 1.0 - 1.05 * std::pow(q, 0.6) + skin.threshold_offset;
    const double valley = 1.0 - skin.valley_darkening * std::min(q, 1.6);
    for (int m = 0; m < kLevels; ++m) {
        const double v = (m - 127.5) / 127.5;
        const double c = Smoothstep((v - threshold) / skin.softness + 0.5);
        row[m] = level(valley - c * (valley - skin.ridge_reflectance));
    }
}

}  // namespace

OpticsMaps OpticsMaps::FromSourceIndex(const std::vector<int32_t>& index, int platen_width) {
    if (platen_width <= 0)
        throw std::invalid_argument("platen width must be positive");
    OpticsMaps maps;
    maps.source_x.resize(index.size());
    maps.source_y.resize(index.size());
    for (size_t i = 0; i < index.size(); ++i) {
        if (index[i] < 0) {
            maps.source_x[i] = maps.source_y[i] = -1e4f;  // far outside the platen
        } else {
            maps.source_x[i] = static_cast<float>(index[i] % platen_width);
            maps.source_y[i] = static_cast<float>(index[i] / platen_width);
        }
    }
    return maps;
}

// The elastic part of the skin moved with the drag and twist of the finger;
// the rigid part did not; the ring between blends the two with a raised
// cosine. Returns where the platen point lay before the skin was pulled.
Point Impression::Distortion::SkinPoint(double x, double y) const {
    const double ux = x - centre.x, uy = y - centre.y;
    const double e = std::sqrt((ux * ux) / (semi_x * semi_x) + (uy * uy) / (semi_y * semi_y));
    const double outside = (e - 1.0) * std::min(semi_x, semi_y);
    if (outside <= 0)
        return {static_cast<float>(x), static_cast<float>(y)};
    const double brake = outside >= ring ? 1.0 : 0.5 * (1.0 - std::cos(kPi * outside / ring));
    const double mx = cos_twist * ux - sin_twist * uy - ux + drag_x;
    const double my = sin_twist * ux + cos_twist * uy - uy + drag_y;
    return {static_cast<float>(x - brake * mx), static_cast<float>(y - brake * my)};
}

Point Impression::PlatenToMaster(float x, float y) const {
    if (distortion_.on) {
        const Point s = distortion_.SkinPoint(x, y);
        x = s.x;
        y = s.y;
    }
    double dx = x - platen_anchor_.x + warp_amp_ * std::sin(warp_k1_ * y + warp_p1_);
    double dy = y - platen_anchor_.y + warp_amp_ * std::sin(warp_k2_ * x + warp_p2_);
    const double c = std::cos(rotation_), s = std::sin(rotation_);
    return Point{static_cast<float>(master_anchor_.x + c * dx + s * dy),
                 static_cast<float>(master_anchor_.y - s * dx + c * dy)};
}

double Impression::PressureAt(uint32_t frame) const {
    if (frame < params_.touch_frame || frame >= params_.lift_frame)
        return 0.0;
    const double rel = frame - params_.touch_frame;
    const double press = std::max<uint32_t>(1, params_.press_frames);
    if (params_.kind == ImpressionKind::Rolled &&
        rel >= press + std::max<uint32_t>(1, params_.roll_frames) + 1) {
        return 0.0;  // the roll is over and the finger has left
    }
    const double ramp = Smoothstep((rel + 1) / press);
    double p = pressure_ * (0.12 + 0.88 * ramp);
    if (params_.kind == ImpressionKind::Plain) {
        p *= 1.0 + 0.03 * ramp * std::sin(0.45 * rel + tremor_phase_);  // hand tremor
    }
    return p;
}

double Impression::RollProgress(uint32_t frame) const {
    if (frame < params_.touch_frame)
        return 0.0;
    const double rel = frame - params_.touch_frame;
    const double press = std::max<uint32_t>(1, params_.press_frames);
    return std::clamp((rel + 1 - press) / std::max<uint32_t>(1, params_.roll_frames), 0.0, 1.0);
}

double Impression::StripCentreAt(uint32_t frame) const {
    return strip_start_ + (strip_end_ - strip_start_) * Smoothstep(RollProgress(frame));
}

double Impression::StripHalfWidthAt(uint32_t frame) const {
    const double rel = frame < params_.touch_frame ? 0.0 : frame - params_.touch_frame;
    const double ramp = Smoothstep((rel + 1) / std::max<uint32_t>(1, params_.press_frames));
    return strip_half_width_ * (0.6 + 0.4 * ramp) *
           (0.9 + 0.1 * std::sin(kPi * RollProgress(frame)));
}

ScanEngine::ScanEngine(const SensorConfig& config, const OpticsMaps& optics) : config_(config) {
    const int w = config.width, h = config.height;
    if (w < 16 || h < 16 || w > 4096 || h > 4096) {
        throw std::invalid_argument("frame size out of range");
    }
    const size_t n = static_cast<size_t>(w) * h;
    if (!optics.illumination.empty() && optics.illumination.size() != n) {
        throw std::invalid_argument("illumination map does not match the frame size");
    }
    if (optics.source_x.size() != optics.source_y.size() ||
        (!optics.source_x.empty() && optics.source_x.size() != n)) {
        throw std::invalid_argument("source map does not match the frame size");
    }
    has_source_map_ = !optics.source_x.empty();
    source_x_ = optics.source_x;
    source_y_ = optics.source_y;

    Rng rng(HashWords(config.unit_seed, kStreamUnit));
    dark_offset_ = rng.Uniform(config.offset_min, config.offset_max);

    // Platen dirt: a few faint, soft smudges in platen coordinates.
    struct Spot {
        double x, y, r, depth;
    };
    std::vector<Spot> spots;
    Rng dirt_rng(HashWords(config.unit_seed, kStreamDirt));
    for (int i = 0; i < config.dirt_spots; ++i) {
        spots.push_back({dirt_rng.Uniform(0.1, 0.9) * w, dirt_rng.Uniform(0.1, 0.9) * h,
                         dirt_rng.Uniform(4.0, 12.0), dirt_rng.Uniform(0.05, 0.18)});
    }

    std::vector<double> column(w);
    for (double& c : column)
        c = config.column_offset_sigma * rng.Normal();
    gain_.resize(n);
    offset_.resize(n);
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const size_t i = static_cast<size_t>(y) * w + x;
            double g = 1.0 + config.gain_sigma * rng.Normal();
            if (!optics.illumination.empty())
                g *= std::max(0.0f, optics.illumination[i]);
            const double px = has_source_map_ ? source_x_[i] : x;
            const double py = has_source_map_ ? source_y_[i] : y;
            for (const Spot& s : spots) {
                const double d2 = (px - s.x) * (px - s.x) + (py - s.y) * (py - s.y);
                if (d2 < 9 * s.r * s.r)
                    g *= 1.0 - s.depth * std::exp(-d2 / (2 * s.r * s.r));
            }
            gain_[i] = static_cast<uint16_t>(std::clamp(std::lround(g * 32768.0), 0L, 65535L));
            const double off = dark_offset_ + column[x] + config.pixel_offset_sigma * rng.Normal();
            offset_[i] = static_cast<int16_t>(std::clamp(std::lround(off * 16.0), -4000L, 4000L));
        }
    }
    noise_.resize(kNoisePool + static_cast<size_t>(w));
    for (int16_t& v : noise_) {
        v = static_cast<int16_t>(std::lround(config.read_noise_sigma * 16.0 * rng.Normal()));
    }
}

std::shared_ptr<const Impression> ScanEngine::CreateImpression(
    const ImpressionParams& params) const {
    std::shared_ptr<Impression> imp(new Impression);
    imp->params_ = params;
    const bool rolled = params.kind == ImpressionKind::Rolled;
    MasterRequest req;
    req.seed = params.finger_seed;
    req.rolled = rolled;
    req.force_class = params.force_class;
    req.finger_class = params.finger_class;
    imp->master_ = GetMasterPrint(req);

    // How the finger lands. The placement draws come from their own stream,
    // so that fixing the skin or the pressure leaves the pose as it was.
    Rng rng(HashWords(params.finger_seed, params.impression, kStreamPose));
    const bool natural = params.variation == Variation::Natural && !rolled;
    if (rolled)
        PlaceRolled(*imp, rng);
    else if (natural && params.random_pose)
        PlaceNatural(*imp, rng);
    else
        PlaceEasy(*imp, rng);
    if (params.random_pose) {
        imp->warp_amp_ = rng.Uniform(1.5, 3.0);
        imp->warp_k1_ = 2 * kPi / rng.Uniform(250, 400);
        imp->warp_k2_ = 2 * kPi / rng.Uniform(250, 400);
        imp->warp_p1_ = rng.Uniform(0, 2 * kPi);
        imp->warp_p2_ = rng.Uniform(0, 2 * kPi);
    }
    imp->tremor_phase_ = rng.Uniform(0, 2 * kPi);

    // What the skin is like today, and what it carries.
    imp->skin_ = params.skin.value_or(Skin::Normal);
    imp->pressure_ = params.pressure.value_or(1.0);
    if (natural) {
        Rng skin_rng(HashWords(params.finger_seed, params.impression, kStreamSkinDraw));
        const double kind = skin_rng.Uniform();
        const Skin skin = kind < kDryShare         ? Skin::Dry
                          : kind < 1.0 - kWetShare ? Skin::Normal
                                                   : Skin::Wet;
        const double touch = skin_rng.Uniform();
        const double pressure = touch < kLightShare        ? skin_rng.Uniform(0.35, 0.65)
                                : touch < 1.0 - kHardShare ? skin_rng.Uniform(0.7, 1.25)
                                                           : skin_rng.Uniform(1.25, 1.7);
        imp->skin_ = params.skin.value_or(skin);
        imp->pressure_ = params.pressure.value_or(pressure);
        imp->texture_ = skin_rng.Uniform(0.08, 0.35);
        MarkSkin(*imp, skin_rng);
    }
    Resample(*imp);
    return imp;
}

// A careful user: the finger near the middle, turned a little (or centred
// and upright without a random pose).
void ScanEngine::PlaceEasy(Impression& imp, Rng& rng) const {
    const MasterPrint& m = *imp.master_;
    const Jitter jitter{rng, imp.params_.random_pose};
    const int w = config_.width, h = config_.height;
    imp.rotation_ = jitter(-15.0, 15.0, 0.0) * kDeg;
    imp.master_anchor_ = {static_cast<float>(0.5 * m.width + jitter(-15, 15, 0)),
                          static_cast<float>(0.5 * m.height + jitter(-15, 15, 0))};
    imp.platen_anchor_ = {static_cast<float>(0.5 * w + jitter(-20, 20, 0)),
                          static_cast<float>(0.5 * h + jitter(-20, 20, 0))};
    imp.semi_x_ = jitter(105, 135, 120);
    imp.semi_y_ = jitter(165, 205, 185);
    imp.centre_ = imp.platen_anchor_;
}

// A placement as users make them: anywhere within a few millimetres, turned
// up to 20 degrees, from a fingertip touch to the flat of the finger, and
// dragged or twisted a little as it presses (ranges: sim/print/README.md).
void ScanEngine::PlaceNatural(Impression& imp, Rng& rng) const {
    const MasterPrint& m = *imp.master_;
    const int w = config_.width, h = config_.height;
    auto clipped = [&](double sigma, double limit) {
        return std::clamp(sigma * rng.Normal(), -limit, limit);
    };
    imp.rotation_ = clipped(8.0, 20.0) * kDeg;
    // Which part of the finger lies under the contact centre...
    imp.master_anchor_ = {static_cast<float>(0.5 * m.width + clipped(25, 60)),
                          static_cast<float>(0.5 * m.height + clipped(30, 70))};
    // ...and where on the platen it lands.
    imp.platen_anchor_ = {static_cast<float>(0.5 * w + clipped(22, 55)),
                          static_cast<float>(0.5 * h + clipped(28, 70))};
    imp.semi_x_ = rng.Uniform(95, 140);
    imp.semi_y_ = rng.Uniform(150, 210);
    // Tip down or flat: the contact sits off the pattern's anchor.
    imp.centre_ = {static_cast<float>(imp.platen_anchor_.x + clipped(10, 25)),
                   static_cast<float>(imp.platen_anchor_.y + clipped(22, 50))};

    Impression::Distortion& d = imp.distortion_;
    d.on = true;
    d.centre = imp.centre_;
    d.semi_x = imp.semi_x_ * rng.Uniform(0.3, 0.5);
    d.semi_y = imp.semi_y_ * rng.Uniform(0.3, 0.5);
    d.ring = rng.Uniform(40, 90);
    d.drag_x = clipped(8, 24);
    d.drag_y = clipped(8, 24);
    const double twist = clipped(2.5, 7.0) * kDeg;
    d.cos_twist = std::cos(twist);
    d.sin_twist = std::sin(twist);
}

// A rolled print: the pattern stays still while the contact strip sweeps.
void ScanEngine::PlaceRolled(Impression& imp, Rng& rng) const {
    const MasterPrint& m = *imp.master_;
    const Jitter jitter{rng, imp.params_.random_pose};
    const int w = config_.width, h = config_.height;
    imp.rotation_ = jitter(-4.0, 4.0, 0.0) * kDeg;
    imp.master_anchor_ = {static_cast<float>(0.5 * m.width + jitter(-10, 10, 0)),
                          static_cast<float>(0.5 * m.height + jitter(-10, 10, 0))};
    imp.platen_anchor_ = {static_cast<float>(0.5 * w), static_cast<float>(0.5 * h)};
    imp.strip_half_width_ = jitter(60, 110, 85);
    imp.strip_height_ = jitter(400, 470, 440);
    imp.strip_centre_y_ = 0.5 * h + jitter(-10, 10, 0);
    const double finger_radius = jitter(160, 200, 180);
    const double travel =
        std::max(0.0, std::min(kPi * finger_radius, w - 2 * imp.strip_half_width_ - 10));
    // The draw is taken whenever the pose is random, so that a fixed
    // direction leaves every other draw of the placement as it was.
    const bool drawn_right = jitter.random && rng.Chance(0.5);
    const RollDirection from = imp.params_.roll_from;
    const bool from_right =
        from == RollDirection::Random ? drawn_right : from == RollDirection::FromRight;
    const double dir = from_right ? -1.0 : 1.0;
    imp.strip_start_ = 0.5 * w - dir * 0.5 * travel;
    imp.strip_end_ = 0.5 * w + dir * 0.5 * travel;
    imp.centre_ = {static_cast<float>(0.5 * w), static_cast<float>(imp.strip_centre_y_)};
}

// Flexion creases and scars belong to the finger (drawn from its seed); how
// deep they show depends on the placement.
void ScanEngine::MarkSkin(Impression& imp, Rng& rng) {
    const MasterPrint& m = *imp.master_;
    Rng finger(HashWords(imp.params_.finger_seed, kStreamMarks));
    const int creases = static_cast<int>(finger.Below(4));
    const bool scar = finger.Chance(kScarShare);
    for (int i = 0; i < creases + (scar ? 1 : 0); ++i) {
        const bool is_scar = i == creases;
        const double cx = m.width * finger.Uniform(0.2, 0.8),
                     cy = m.height * finger.Uniform(0.3, 0.9);
        const double angle = (is_scar ? finger.Uniform(0, kPi) : 0.35 * finger.Normal());
        const double half = 0.5 * (is_scar ? finger.Uniform(20, 60) : finger.Uniform(40, 160));
        Impression::Mark mark;
        mark.a = {static_cast<float>(cx - half * std::cos(angle)),
                  static_cast<float>(cy - half * std::sin(angle))};
        mark.b = {static_cast<float>(cx + half * std::cos(angle)),
                  static_cast<float>(cy + half * std::sin(angle))};
        mark.half_width = is_scar ? finger.Uniform(2.0, 4.0) : finger.Uniform(1.0, 2.5);
        mark.depth = rng.Uniform(0.4, 1.4) * (imp.skin_ == Skin::Dry ? 1.3 : 1.0);
        imp.marks_.push_back(mark);
    }
}

// Resamples the skin into the sensor grid once, with the contact geometry.
void ScanEngine::Resample(Impression& imp) const {
    const MasterPrint& m = *imp.master_;
    const ImpressionParams& params = imp.params_;
    const bool rolled = params.kind == ImpressionKind::Rolled;
    const int w = config_.width, h = config_.height;
    const size_t n = static_cast<size_t>(w) * h;
    const uint64_t skin_key = HashWords(params.finger_seed, params.impression, kStreamSkin);
    const double texture = imp.texture_ / 0.15;
    imp.ridge_.resize(n);
    if (rolled) {
        imp.column_.resize(n);
        imp.row_term_.resize(n);
    } else {
        imp.radius2_.resize(n);
    }
    const double cr = std::cos(imp.rotation_), sr = std::sin(imp.rotation_);
    const double half_height = 0.5 * imp.strip_height_;
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const size_t i = static_cast<size_t>(y) * w + x;
            const float px = has_source_map_ ? source_x_[i] : static_cast<float>(x);
            const float py = has_source_map_ ? source_y_[i] : static_cast<float>(y);
            const Point mp = imp.PlatenToMaster(px, py);
            double v =
                m.SampleRidge(mp.x, mp.y) + SkinTexture(imp.skin_, skin_key, mp.x, mp.y, texture);
            for (const Impression::Mark& mark : imp.marks_)
                v -= mark.depth * MarkProfile(mark, mp);
            imp.ridge_[i] =
                static_cast<uint8_t>(std::clamp(std::lround(127.5 + 127.5 * v), 0L, 255L));
            if (rolled) {
                imp.column_[i] =
                    static_cast<uint16_t>(std::clamp(std::lround(px * 4.0), 0L, 4L * w));
                const double d = (py - imp.strip_centre_y_) / half_height;
                imp.row_term_[i] =
                    static_cast<uint16_t>(std::min(65535.0, d * d * d * d * 4096.0 + 0.5));
            } else {
                const double ux = px - imp.centre_.x, uy = py - imp.centre_.y;
                const double a = (cr * ux + sr * uy) / imp.semi_x_;
                const double b = (-sr * ux + cr * uy) / imp.semi_y_;
                imp.radius2_[i] =
                    static_cast<uint16_t>(std::min(65535.0, (a * a + b * b) * 4096.0 + 0.5));
            }
        }
    }
}

void ScanEngine::RenderEmpty(uint64_t frame_key, int dose, uint8_t* out) const {
    const int w = config_.width, h = config_.height;
    const uint32_t signal = static_cast<uint32_t>(
        std::min(65535.0, std::round(config_.empty_level * dose / kNominalDose * 16.0)));
    for (int y = 0; y < h; ++y) {
        const int16_t* noise = noise_.data() + HashWords(frame_key, y) % kNoisePool;
        const size_t row = static_cast<size_t>(y) * w;
        for (int x = 0; x < w; ++x) {
            int32_t v =
                static_cast<int32_t>((signal * gain_[row + x]) >> 15) + offset_[row + x] + noise[x];
            v = std::clamp((v + 8) >> 4, 0, 255);
            out[row + x] = static_cast<uint8_t>(v);
        }
    }
}

void ScanEngine::Render(const Impression* imp, const FrameRequest& request, uint8_t* out) const {
    const int dose = std::clamp(request.dose, 0, kMaxDose);
    if (imp == nullptr) {
        RenderEmpty(HashWords(config_.unit_seed, ~0ull, ~0ull, request.frame) ^ kStreamFrame, dose,
                    out);
        return;
    }
    const ImpressionParams& ip = imp->params_;
    const uint64_t key =
        HashWords(config_.unit_seed, ip.finger_seed, ip.impression, request.frame) ^ kStreamFrame;
    const double pressure = imp->PressureAt(request.frame);
    if (pressure <= 0) {
        RenderEmpty(key, dose, out);
        return;
    }

    // Per-frame contact table.
    const SkinModel skin = ModelOf(imp->skin_);
    const double scale = config_.empty_level * dose / kNominalDose * 16.0;
    uint16_t table[kBins * kLevels];
    for (int b = 0; b < kBins; ++b) {
        const double r2 = (b + 0.5) * kRadius2Max / kBins;
        const double q = b == kBins - 1 ? 0.0 : pressure * std::max(0.0, 1.0 - r2);
        FillRow(table + b * kLevels, q, skin, scale);
    }

    const int w = config_.width, h = config_.height;
    const uint8_t* ridge = imp->ridge_.data();
    const uint16_t* gain = gain_.data();
    const int16_t* offset = offset_.data();
    if (ip.kind == ImpressionKind::Plain) {
        // The contact ellipse grows as the finger is pressed down.
        const double s = std::min(1.08, 0.55 + 0.45 * std::sqrt(std::min(pressure, 1.6)));
        const uint32_t k = static_cast<uint32_t>(16.0 * kBins / (kRadius2Max * s * s));
        const uint16_t* radius2 = imp->radius2_.data();
        for (int y = 0; y < h; ++y) {
            const int16_t* noise = noise_.data() + HashWords(key, y) % kNoisePool;
            const size_t row = static_cast<size_t>(y) * w;
            for (int x = 0; x < w; ++x) {
                const size_t i = row + x;
                const uint32_t bin = std::min<uint32_t>((radius2[i] * k) >> 16, kBins - 1);
                const uint32_t signal = table[bin * kLevels + ridge[i]];
                int32_t v = static_cast<int32_t>((signal * gain[i]) >> 15) + offset[i] + noise[x];
                v = std::clamp((v + 8) >> 4, 0, 255);
                out[i] = static_cast<uint8_t>(v);
            }
        }
        return;
    }

    // Rolled: the contact strip sweeps across the still ridge pattern.
    const double centre = imp->StripCentreAt(request.frame);
    const double half_width = imp->StripHalfWidthAt(request.frame);
    std::vector<uint16_t> column_term(4 * static_cast<size_t>(w) + 1);
    for (size_t c = 0; c < column_term.size(); ++c) {
        const double d = (c / 4.0 - centre) / half_width;
        column_term[c] = static_cast<uint16_t>(std::min(65535.0, d * d * 4096.0 + 0.5));
    }
    const uint32_t k = static_cast<uint32_t>(16.0 * kBins / kRadius2Max);
    const uint16_t* column = imp->column_.data();
    const uint16_t* row_term = imp->row_term_.data();
    for (int y = 0; y < h; ++y) {
        const int16_t* noise = noise_.data() + HashWords(key, y) % kNoisePool;
        const size_t row = static_cast<size_t>(y) * w;
        for (int x = 0; x < w; ++x) {
            const size_t i = row + x;
            const uint32_t r2 = static_cast<uint32_t>(column_term[column[i]]) + row_term[i];
            const uint32_t bin = std::min<uint32_t>((r2 * k) >> 16, kBins - 1);
            const uint32_t signal = table[bin * kLevels + ridge[i]];
            int32_t v = static_cast<int32_t>((signal * gain[i]) >> 15) + offset[i] + noise[x];
            v = std::clamp((v + 8) >> 4, 0, 255);
            out[i] = static_cast<uint8_t>(v);
        }
    }
}

}  // namespace kr7sim
