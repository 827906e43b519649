#include "print/master_print.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <list>
#include <mutex>
#include <utility>

#include "print/rng.h"

namespace kr7sim {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr int kAngles = 32;
constexpr int kPeriods = 6;
constexpr float kGrowthGain = 4.0f;
constexpr int kSeedCount = 15;
constexpr int kMaxPasses = 60;
constexpr double kStopFraction = 0.003;
constexpr float kChangeEpsilon = 0.05f;  // with a sign change: ridge became valley
constexpr int kBlock = 8;
constexpr int kPixelsPerDefect = 900;
constexpr int kDefectPasses = 12;

// Stream identifiers keep the random draws of different purposes apart.
constexpr uint64_t kStreamLayout = 0x4C41594F5554ull;
constexpr uint64_t kStreamPeriod = 0x504552494F44ull;
constexpr uint64_t kStreamSeeds = 0x5345454453ull;
constexpr uint64_t kStreamPores = 0x504F524553ull;
constexpr uint64_t kStreamDefects = 0x444546454354ull;
constexpr uint64_t kStreamFlow = 0x464C4F57ull;
constexpr uint64_t kStreamShape = 0x5348415045ull;

// How the flow turns around one singular point: the zero-pole model's angle
// about the point, a, becomes a + a1 sin(a + p1) + a2 sin(2a + p2). Periodic
// in a and increasing (|a1| + 2 |a2| < 1), so the point keeps its index;
// loops become narrow or wide, symmetric or leaning, as real ones are.
struct TurnShape {
    double a1 = 0, p1 = 0, a2 = 0, p2 = 0;
    double Angle(double a) const { return a + a1 * std::sin(a + p1) + a2 * std::sin(2 * a + p2); }
};

struct Layout {
    FingerClass finger_class;
    std::vector<Point> cores;
    std::vector<Point> deltas;
    std::vector<TurnShape> core_shapes, delta_shapes;
    // Closed-form arch: ridge lines y = c - A(y) exp(-(x-x0)^2 / 2 s^2).
    double arch_x0 = 0, arch_ym = 0, arch_amp = 0, arch_sx = 1, arch_sy = 1;
};

Layout PlaceSingularities(FingerClass cls, int w, int h, Rng& rng) {
    Layout l;
    l.finger_class = cls;
    const double cx = w * rng.Uniform(0.35, 0.65);
    const double cy = h * rng.Uniform(0.30, 0.52);
    auto pt = [](double x, double y) {
        return Point{static_cast<float>(x), static_cast<float>(y)};
    };
    switch (cls) {
        case FingerClass::Arch:
            l.arch_x0 = cx;
            l.arch_ym = h * rng.Uniform(0.45, 0.60);
            l.arch_amp = rng.Uniform(45.0, 75.0);
            l.arch_sx = rng.Uniform(65.0, 95.0);
            l.arch_sy = rng.Uniform(90.0, 140.0);
            break;
        case FingerClass::TentedArch:
            l.cores.push_back(pt(cx, cy));
            l.deltas.push_back(pt(cx + rng.Uniform(-6.0, 6.0), cy + rng.Uniform(45.0, 70.0)));
            break;
        case FingerClass::LeftLoop:
        case FingerClass::RightLoop: {
            // A left loop opens to the left; its delta lies to the right.
            const double side = cls == FingerClass::LeftLoop ? 1.0 : -1.0;
            const double dist = rng.Uniform(80.0, 170.0);
            const double ang = rng.Uniform(15.0, 65.0) * kPi / 180.0;
            l.cores.push_back(pt(cx, cy));
            l.deltas.push_back(pt(cx + side * dist * std::sin(ang), cy + dist * std::cos(ang)));
            break;
        }
        case FingerClass::Whorl: {
            const double sep = rng.Uniform(12.0, 45.0);
            const double ang = rng.Uniform(-0.7, 0.7);
            const double dx = 0.5 * sep * std::cos(ang), dy = 0.5 * sep * std::sin(ang);
            l.cores.push_back(pt(cx - dx, cy - dy));
            l.cores.push_back(pt(cx + dx, cy + dy));
            l.deltas.push_back(pt(cx - rng.Uniform(90.0, 150.0), cy + rng.Uniform(70.0, 140.0)));
            l.deltas.push_back(pt(cx + rng.Uniform(90.0, 150.0), cy + rng.Uniform(70.0, 140.0)));
            break;
        }
    }
    return l;
}

// Ridge orientation before smoothing, in image coordinates (y down).
double RawOrientation(const Layout& l, double x, double y) {
    if (l.finger_class == FingerClass::Arch) {
        const double dx = x - l.arch_x0;
        const double dy = (y - l.arch_ym) / l.arch_sy;
        const double amp = l.arch_amp * std::exp(-dy * dy);
        const double slope =
            amp * dx / (l.arch_sx * l.arch_sx) * std::exp(-dx * dx / (2 * l.arch_sx * l.arch_sx));
        return std::atan(slope);
    }
    // Zero-pole model evaluated with y pointing up, then mirrored back: a
    // direction angle a (y up) is the angle -a with y down.
    double sum = 0;
    for (size_t i = 0; i < l.cores.size(); ++i)
        sum += l.core_shapes[i].Angle(std::atan2(-(y - l.cores[i].y), x - l.cores[i].x));
    for (size_t i = 0; i < l.deltas.size(); ++i)
        sum -= l.delta_shapes[i].Angle(std::atan2(-(y - l.deltas[i].y), x - l.deltas[i].x));
    return -0.5 * sum;
}

void GaussianBlur(std::vector<float>& img, int w, int h, double sigma) {
    const int r = static_cast<int>(std::ceil(3 * sigma));
    std::vector<float> k(2 * r + 1);
    double total = 0;
    for (int i = -r; i <= r; ++i)
        total += k[i + r] = static_cast<float>(std::exp(-i * i / (2 * sigma * sigma)));
    for (float& v : k)
        v = static_cast<float>(v / total);
    std::vector<float> tmp(img.size());
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            float acc = 0;
            for (int i = -r; i <= r; ++i)
                acc += k[i + r] * img[y * w + std::clamp(x + i, 0, w - 1)];
            tmp[y * w + x] = acc;
        }
    }
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            float acc = 0;
            for (int i = -r; i <= r; ++i)
                acc += k[i + r] * tmp[std::clamp(y + i, 0, h - 1) * w + x];
            img[y * w + x] = acc;
        }
    }
}

// One oriented, zero-mean Gabor kernel stored as row spans whose lengths are
// rounded up to a multiple of four (padding taps are zero).
struct Kernel {
    int radius = 0;
    std::vector<int> row_start;  // column offset of each row's first tap
    std::vector<int> row_len;    // taps in the row, multiple of 4
    std::vector<float> taps;
};

Kernel MakeKernel(double theta, double period) {
    Kernel k;
    const double sigma = 0.40 * period;
    k.radius = static_cast<int>(std::ceil(2.5 * sigma));
    const int r = k.radius;
    const double rr = (r + 0.5) * (r + 0.5);
    const double nx = -std::sin(theta), ny = std::cos(theta);  // ridge normal
    std::vector<double> full((2 * r + 1) * (2 * r + 1), 0.0);
    std::vector<double> wave(full.size(), 0.0);
    double sum = 0;
    int count = 0;
    for (int v = -r; v <= r; ++v) {
        for (int u = -r; u <= r; ++u) {
            if (u * u + v * v > rr)
                continue;
            const double n = u * nx + v * ny;
            const double c = std::cos(2 * kPi * n / period);
            const size_t i = (v + r) * (2 * r + 1) + (u + r);
            full[i] = std::exp(-(u * u + v * v) / (2 * sigma * sigma)) * c;
            wave[i] = c;
            sum += full[i];
            ++count;
        }
    }
    const double mean = sum / count;
    double response = 0;  // to a unit cosine wave along the normal
    for (int v = -r; v <= r; ++v) {
        for (int u = -r; u <= r; ++u) {
            if (u * u + v * v > rr)
                continue;
            const size_t i = (v + r) * (2 * r + 1) + (u + r);
            full[i] -= mean;
            response += full[i] * wave[i];
        }
    }
    for (int v = -r; v <= r; ++v) {
        const int half = static_cast<int>(std::floor(std::sqrt(rr - v * v)));
        const int len = (2 * half + 1 + 3) & ~3;
        k.row_start.push_back(-half);
        k.row_len.push_back(len);
        for (int j = 0; j < len; ++j) {
            const int u = -half + j;
            const bool inside = u <= r && u * u + v * v <= rr;
            k.taps.push_back(
                inside ? static_cast<float>(full[(v + r) * (2 * r + 1) + (u + r)] / response)
                       : 0.0f);
        }
    }
    return k;
}

// Kernel response at `center` (a pointer into a zero-padded image with the
// given row stride). Works on four lanes at a time with the compilers' vector
// extension (GCC and Clang); the lane order of the sums is fixed, so the
// result does not depend on the instruction set.
typedef float Lanes __attribute__((vector_size(16)));

// The taps stay inside the canvas padding by construction (the padding is the
// largest kernel radius plus the row rounding), and the canvas belongs to the
// one thread growing the print; sanitizer builds skip the per-tap checks
// here, which would otherwise dominate their run time. Both functions carry
// the same attribute so that one inlines into the other.
#define KR7SIM_HOT_LOOP __attribute__((no_sanitize("address", "undefined", "thread")))

KR7SIM_HOT_LOOP inline Lanes Load(const float* p) {
    Lanes v;
    __builtin_memcpy(&v, p, sizeof v);
    return v;
}

KR7SIM_HOT_LOOP inline float Apply(const Kernel& k, const float* center, int stride) {
    Lanes acc0 = {0, 0, 0, 0}, acc1 = {0, 0, 0, 0};
    const float* t = k.taps.data();
    const int* starts = k.row_start.data();
    const int* lens = k.row_len.data();
    for (int v = -k.radius; v <= k.radius; ++v) {
        const int row = v + k.radius;
        const float* p = center + v * stride + starts[row];
        const int len = lens[row];
        int j = 0;
        for (; j + 8 <= len; j += 8) {
            acc0 += Load(t + j) * Load(p + j);
            acc1 += Load(t + j + 4) * Load(p + j + 4);
        }
        if (j < len)
            acc0 += Load(t + j) * Load(p + j);
        t += len;
    }
    const Lanes acc = acc0 + acc1;
    return (acc[0] + acc[1]) + (acc[2] + acc[3]);
}

// Stage 1: class and singular points.
Layout DrawLayout(const MasterRequest& req, int w, int h) {
    Rng rng(HashWords(req.seed, kStreamLayout));
    const double class_draw = rng.Uniform();
    const FingerClass cls = req.force_class ? req.finger_class : ClassFromUniform(class_draw);
    Layout layout = PlaceSingularities(cls, w, h, rng);
    Rng shape_rng(HashWords(req.seed, kStreamShape));
    auto draw_shapes = [&](size_t count) {
        std::vector<TurnShape> shapes(count);
        for (TurnShape& s : shapes) {
            s.a1 = shape_rng.Uniform(-0.45, 0.45);
            s.p1 = shape_rng.Uniform(0.0, 2 * kPi);
            s.a2 = shape_rng.Uniform(-0.15, 0.15);
            s.p2 = shape_rng.Uniform(0.0, 2 * kPi);
        }
        return shapes;
    };
    layout.core_shapes = draw_shapes(layout.cores.size());
    layout.delta_shapes = draw_shapes(layout.deltas.size());
    return layout;
}

// Real ridge flow departs from the zero-pole model away from the singular
// points, differently on every finger: a smooth deflection of a few to about
// twenty-four degrees from three long waves. Being continuous, it leaves the
// Poincare indices (the class) as they are.
struct FlowDeflection {
    double kx[3], ky[3], ph[3], amp[3];
    explicit FlowDeflection(uint64_t seed) {
        Rng rng(HashWords(seed, kStreamFlow));
        for (int i = 0; i < 3; ++i) {
            const double wl = rng.Uniform(160.0, 420.0), dir = rng.Uniform(0.0, kPi);
            kx[i] = 2 * kPi / wl * std::cos(dir);
            ky[i] = 2 * kPi / wl * std::sin(dir);
            ph[i] = rng.Uniform(0.0, 2 * kPi);
            amp[i] = rng.Uniform(0.0, 0.14);
        }
    }
    double At(double x, double y) const {
        double v = 0;
        for (int i = 0; i < 3; ++i)
            v += amp[i] * std::sin(kx[i] * x + ky[i] * y + ph[i]);
        return v;
    }
};

// Stage 2: ridge orientation, smoothed as the doubled-angle vector.
std::vector<float> OrientationField(const Layout& layout, uint64_t seed, int w, int h) {
    const size_t n = static_cast<size_t>(w) * h;
    const FlowDeflection deflection(seed);
    std::vector<float> c2(n), s2(n);
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const double t = RawOrientation(layout, x, y) + deflection.At(x, y);
            c2[y * w + x] = static_cast<float>(std::cos(2 * t));
            s2[y * w + x] = static_cast<float>(std::sin(2 * t));
        }
    }
    GaussianBlur(c2, w, h, 5.0);
    GaussianBlur(s2, w, h, 5.0);
    std::vector<float> orientation(n);
    for (size_t i = 0; i < n; ++i) {
        double t = 0.5 * std::atan2(s2[i], c2[i]);
        if (t < 0)
            t += kPi;
        if (t >= kPi)
            t -= kPi;
        orientation[i] = static_cast<float>(t);
    }
    return orientation;
}

// Stage 3: ridge period, a smooth field from three long plane waves around
// the finger's own mean. Returns the mean over the canvas.
double PeriodField(uint64_t seed, int w, int h, std::vector<float>& period) {
    Rng rng(HashWords(seed, kStreamPeriod));
    const double base = rng.Uniform(8.0, 10.5);
    double kx[3], ky[3], ph[3];
    for (int i = 0; i < 3; ++i) {
        const double wl = rng.Uniform(180.0, 400.0);
        const double dir = rng.Uniform(0.0, kPi);
        kx[i] = 2 * kPi / wl * std::cos(dir);
        ky[i] = 2 * kPi / wl * std::sin(dir);
        ph[i] = rng.Uniform(0.0, 2 * kPi);
    }
    period.resize(static_cast<size_t>(w) * h);
    double sum = 0;
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            double v = 0;
            for (int i = 0; i < 3; ++i)
                v += std::cos(kx[i] * x + ky[i] * y + ph[i]);
            const float t = static_cast<float>(std::clamp(base * (1.0 + 0.035 * v), 7.5, 12.0));
            period[y * w + x] = t;
            sum += t;
        }
    }
    return sum / period.size();
}

// Stage 4: the kernel bank over the periods the print actually uses, and the
// kernel of every pixel.
struct KernelBank {
    std::vector<Kernel> kernels;
    std::vector<uint16_t> kernel_of;  // per pixel
    int max_radius = 0;

    KernelBank(const std::vector<float>& orientation, const std::vector<float>& period) {
        float tmin = *std::min_element(period.begin(), period.end());
        float tmax = *std::max_element(period.begin(), period.end());
        if (tmax - tmin < 0.5f) {
            const float mid = 0.5f * (tmin + tmax);
            tmin = mid - 0.25f;
            tmax = mid + 0.25f;
        }
        const float pstep = (tmax - tmin) / (kPeriods - 1);
        kernels.reserve(kAngles * kPeriods);
        for (int a = 0; a < kAngles; ++a) {
            for (int p = 0; p < kPeriods; ++p) {
                kernels.push_back(MakeKernel(a * kPi / kAngles, tmin + p * pstep));
                max_radius = std::max(max_radius, kernels.back().radius);
            }
        }
        kernel_of.resize(period.size());
        for (size_t i = 0; i < period.size(); ++i) {
            const int a = static_cast<int>(std::lround(orientation[i] / (kPi / kAngles))) % kAngles;
            const int p = std::clamp(static_cast<int>(std::lround((period[i] - tmin) / pstep)), 0,
                                     kPeriods - 1);
            kernel_of[i] = static_cast<uint16_t>(a * kPeriods + p);
        }
    }
    const Kernel& At(size_t i) const { return kernels[kernel_of[i]]; }
};

// Stages 5 to 7: growth on zero-padded, double-buffered canvases, updating
// only blocks of 8x8 pixels near recent changes.
class Growth {
public:
    Growth(const KernelBank& bank, int w, int h)
        : bank_(bank),
          w_(w),
          h_(h),
          n_(static_cast<size_t>(w) * h),
          pad_(bank.max_radius + 4),  // +4: row spans are padded to a multiple of four
          stride_(w + 2 * pad_),
          cur_(static_cast<size_t>(stride_) * (h + 2 * pad_), 0.0f),
          nxt_(cur_.size(), 0.0f),
          bw_((w + kBlock - 1) / kBlock),
          bh_((h + kBlock - 1) / kBlock),
          reach_((bank.max_radius + kBlock - 1) / kBlock),
          active_(static_cast<size_t>(bw_) * bh_, 0),
          changed_(active_.size(), 0) {}

    // Small random discs to grow from.
    void PlantSeeds(uint64_t seed) {
        Rng rng(HashWords(seed, kStreamSeeds));
        for (int s = 0; s < kSeedCount; ++s) {
            const Disc d = RandomDisc(rng, 12, 3);
            ForDisc(d, [&](int x, int y) {
                Cur(x, y) = Nxt(x, y) = static_cast<float>(rng.Uniform(-1.0, 1.0));
            });
        }
        DilateIntoActive();
    }

    // Growth alone settles into long, regular ridges with fewer minutiae
    // than real fingers show. Small patches put half a period out of step,
    // grown over again, heal into ridge endings, bifurcations and short
    // ridges.
    void ScrambleDefects(uint64_t seed) {
        Rng rng(HashWords(seed, kStreamDefects));
        std::fill(changed_.begin(), changed_.end(), 0);
        const int defects = static_cast<int>(n_ / kPixelsPerDefect);
        for (int d = 0; d < defects; ++d) {
            Disc disc = RandomDisc(rng, 8, 0);
            disc.r = 6 + static_cast<int>(rng.Below(7));
            ForDisc(disc, [&](int x, int y) { Cur(x, y) = Nxt(x, y) = -Cur(x, y); });
        }
        DilateIntoActive();
    }

    // Runs growth passes over the active blocks until fewer than 0.3 % of
    // the pixels flip between ridge and valley (once the canvas is covered)
    // or `max_passes` have run.
    void Run(int max_passes, int& passes, GrowthStats& stats) {
        for (int pass = 0; pass < max_passes; ++pass) {
            std::fill(changed_.begin(), changed_.end(), 0);
            size_t changed_pixels = 0;
            ForActiveBlocks([&](int bx, int by, int x1, int y1) {
                for (int y = by * kBlock; y < y1; ++y) {
                    for (int x = bx * kBlock; x < x1; ++x) {
                        const float old = Cur(x, y);
                        const float r =
                            Apply(bank_.At(static_cast<size_t>(y) * w_ + x), &Cur(x, y), stride_);
                        const float v = std::clamp(kGrowthGain * r, -1.0f, 1.0f);
                        Nxt(x, y) = v;
                        if ((v > 0) != (old > 0) && std::fabs(v - old) > kChangeEpsilon) {
                            ++changed_pixels;
                            changed_[by * bw_ + bx] = 1;
                        }
                    }
                }
                stats.pixel_updates += (x1 - bx * kBlock) * (y1 - by * kBlock);
            });
            ForActiveBlocks([&](int bx, int by, int x1, int y1) {
                for (int y = by * kBlock; y < y1; ++y)
                    for (int x = bx * kBlock; x < x1; ++x)
                        Cur(x, y) = Nxt(x, y);
            });
            size_t covered = 0;
            for (int y = 0; y < h_; ++y)
                for (int x = 0; x < w_; ++x)
                    covered += std::fabs(Cur(x, y)) > 0.05f;
            passes += 1;
            stats.last_changed_fraction = static_cast<double>(changed_pixels) / n_;
            if (changed_pixels < kStopFraction * n_ && covered >= 0.98 * n_)
                break;
            DilateIntoActive();
        }
    }

    // Final unclamped pass: a smooth, nearly sinusoidal profile across each
    // ridge, so that thresholds can set the ridge width continuously. The
    // response is divided by its local amplitude (from the mean square over
    // about one period), which keeps the contrast even where growth fronts
    // met and left a weaker response around a minutia.
    std::vector<float> Profile(double mean_period, GrowthStats& stats) {
        std::vector<float> resp(n_), energy(n_);
        for (int y = 0; y < h_; ++y) {
            for (int x = 0; x < w_; ++x) {
                const size_t i = static_cast<size_t>(y) * w_ + x;
                resp[i] = Apply(bank_.At(i), &Cur(x, y), stride_);
                energy[i] = resp[i] * resp[i];
            }
        }
        GaussianBlur(energy, w_, h_, 0.5 * mean_period);
        double mean_energy = 0;
        for (float e : energy)
            mean_energy += e;
        mean_energy /= n_;
        const float floor_amp = static_cast<float>(0.3 * std::sqrt(2 * mean_energy)) + 1e-6f;
        std::vector<float> ridge(n_);
        for (size_t i = 0; i < n_; ++i) {
            const float amp = std::max(floor_amp, std::sqrt(2 * energy[i]));
            ridge[i] = std::clamp(resp[i] / amp, -1.0f, 1.0f);
        }
        stats.pixel_updates += static_cast<double>(n_);
        return ridge;
    }

private:
    struct Disc {
        int x, y, r;
    };

    float& Cur(int x, int y) { return cur_[static_cast<size_t>(y + pad_) * stride_ + x + pad_]; }
    float& Nxt(int x, int y) { return nxt_[static_cast<size_t>(y + pad_) * stride_ + x + pad_]; }

    // A disc at least `margin` pixels inside the canvas; marks its block.
    Disc RandomDisc(Rng& rng, int margin, int r) {
        const int x = margin + static_cast<int>(
                                   rng.Below(static_cast<uint32_t>(std::max(1, w_ - 2 * margin))));
        const int y = margin + static_cast<int>(
                                   rng.Below(static_cast<uint32_t>(std::max(1, h_ - 2 * margin))));
        changed_[(y / kBlock) * bw_ + x / kBlock] = 1;
        return {x, y, r};
    }

    template <class F>
    void ForDisc(const Disc& d, F&& f) {
        for (int dy = -d.r; dy <= d.r; ++dy) {
            for (int dx = -d.r; dx <= d.r; ++dx) {
                const int x = d.x + dx, y = d.y + dy;
                if (dx * dx + dy * dy <= d.r * d.r && x >= 0 && y >= 0 && x < w_ && y < h_)
                    f(x, y);
            }
        }
    }

    template <class F>
    void ForActiveBlocks(F&& f) {
        for (int by = 0; by < bh_; ++by)
            for (int bx = 0; bx < bw_; ++bx)
                if (active_[by * bw_ + bx])
                    f(bx, by, std::min(w_, (bx + 1) * kBlock), std::min(h_, (by + 1) * kBlock));
    }

    // Blocks changed since the last pass, and their neighbours within a
    // kernel radius, become the active blocks.
    void DilateIntoActive() {
        std::fill(active_.begin(), active_.end(), 0);
        for (int by = 0; by < bh_; ++by) {
            for (int bx = 0; bx < bw_; ++bx) {
                if (!changed_[by * bw_ + bx])
                    continue;
                for (int yy = std::max(0, by - reach_); yy <= std::min(bh_ - 1, by + reach_); ++yy)
                    for (int xx = std::max(0, bx - reach_); xx <= std::min(bw_ - 1, bx + reach_);
                         ++xx)
                        active_[yy * bw_ + xx] = 1;
            }
        }
    }

    const KernelBank& bank_;
    const int w_, h_;
    const size_t n_;
    const int pad_, stride_;
    std::vector<float> cur_, nxt_;
    const int bw_, bh_, reach_;
    std::vector<uint8_t> active_, changed_;
};

// Stage 8: sweat pores, small shallow dips on ridge crests.
void AddPores(MasterPrint& m) {
    Rng rng(HashWords(m.seed, kStreamPores));
    const int w = m.width, h = m.height;
    const int pores = static_cast<int>(m.ridge.size() / 450);
    for (int i = 0; i < pores; ++i) {
        const int px = 2 + static_cast<int>(rng.Below(static_cast<uint32_t>(w - 4)));
        const int py = 2 + static_cast<int>(rng.Below(static_cast<uint32_t>(h - 4)));
        if (m.RidgeAt(px, py) < 0.6f)
            continue;
        const float depth = static_cast<float>(rng.Uniform(0.5, 1.1));
        for (int dy = -2; dy <= 2; ++dy) {
            for (int dx = -2; dx <= 2; ++dx) {
                float& v = m.ridge[static_cast<size_t>(py + dy) * w + px + dx];
                v = std::max(-1.0f, v - depth * std::exp(-(dx * dx + dy * dy) / 1.4f));
            }
        }
    }
}

}  // namespace

const char* FingerClassName(FingerClass c) {
    switch (c) {
        case FingerClass::Arch:
            return "arch";
        case FingerClass::TentedArch:
            return "tented arch";
        case FingerClass::LeftLoop:
            return "left loop";
        case FingerClass::RightLoop:
            return "right loop";
        case FingerClass::Whorl:
            return "whorl";
    }
    return "unknown";
}

FingerClass ClassFromUniform(double u) {
    if (u < 0.037)
        return FingerClass::Arch;
    if (u < 0.066)
        return FingerClass::TentedArch;
    if (u < 0.404)
        return FingerClass::LeftLoop;
    if (u < 0.721)
        return FingerClass::RightLoop;
    return FingerClass::Whorl;
}

float MasterPrint::SampleRidge(float x, float y) const {
    const float fx = std::floor(x), fy = std::floor(y);
    const int x0 = static_cast<int>(fx), y0 = static_cast<int>(fy);
    const float ax = x - fx, ay = y - fy;
    auto at = [&](int xx, int yy) {
        return (xx < 0 || yy < 0 || xx >= width || yy >= height) ? 0.0f : RidgeAt(xx, yy);
    };
    if (x0 < -1 || y0 < -1 || x0 >= width || y0 >= height)
        return 0.0f;
    return (1 - ay) * ((1 - ax) * at(x0, y0) + ax * at(x0 + 1, y0)) +
           ay * ((1 - ax) * at(x0, y0 + 1) + ax * at(x0 + 1, y0 + 1));
}

float MasterPrint::OrientationNear(float x, float y) const {
    const int xi = std::clamp(static_cast<int>(std::lround(x)), 0, width - 1);
    const int yi = std::clamp(static_cast<int>(std::lround(y)), 0, height - 1);
    return orientation[static_cast<size_t>(yi) * width + xi];
}

float MasterPrint::PeriodNear(float x, float y) const {
    const int xi = std::clamp(static_cast<int>(std::lround(x)), 0, width - 1);
    const int yi = std::clamp(static_cast<int>(std::lround(y)), 0, height - 1);
    return period[static_cast<size_t>(yi) * width + xi];
}

MasterPrint GenerateMasterPrint(const MasterRequest& req) {
    MasterPrint m;
    m.seed = req.seed;
    m.width = req.width > 0 ? req.width : (req.rolled ? kRolledCanvasWidth : kPlainCanvasWidth);
    m.height =
        req.height > 0 ? req.height : (req.rolled ? kRolledCanvasHeight : kPlainCanvasHeight);

    const Layout layout = DrawLayout(req, m.width, m.height);
    m.finger_class = layout.finger_class;
    m.cores = layout.cores;
    m.deltas = layout.deltas;
    m.orientation = OrientationField(layout, req.seed, m.width, m.height);
    m.mean_period = static_cast<float>(PeriodField(req.seed, m.width, m.height, m.period));

    const KernelBank bank(m.orientation, m.period);
    Growth growth(bank, m.width, m.height);
    growth.PlantSeeds(req.seed);
    growth.Run(kMaxPasses, m.growth.passes, m.growth);
    growth.ScrambleDefects(req.seed);
    growth.Run(kDefectPasses, m.growth.defect_passes, m.growth);
    m.ridge = growth.Profile(m.mean_period, m.growth);
    AddPores(m);
    return m;
}

std::shared_ptr<const MasterPrint> GetMasterPrint(const MasterRequest& req) {
    struct Entry {
        MasterRequest req;
        std::shared_ptr<const MasterPrint> print;
    };
    static std::mutex mutex;
    static std::list<Entry> cache;  // most recently used first
    constexpr size_t kCapacity = 24;
    auto same = [&](const MasterRequest& a) {
        return a.seed == req.seed && a.rolled == req.rolled && a.width == req.width &&
               a.height == req.height && a.force_class == req.force_class &&
               (!a.force_class || a.finger_class == req.finger_class);
    };
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (auto it = cache.begin(); it != cache.end(); ++it) {
            if (same(it->req)) {
                cache.splice(cache.begin(), cache, it);
                return cache.front().print;
            }
        }
    }
    // Generated outside the lock; two threads asking for the same new print
    // both build it and one copy wins, which is harmless.
    auto print = std::make_shared<const MasterPrint>(GenerateMasterPrint(req));
    std::lock_guard<std::mutex> lock(mutex);
    for (auto it = cache.begin(); it != cache.end(); ++it) {
        if (same(it->req))
            return it->print;
    }
    cache.push_front(Entry{req, print});
    if (cache.size() > kCapacity)
        cache.pop_back();
    return print;
}

}  // namespace kr7sim
