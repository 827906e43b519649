#include "optics.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace kr7sim {
namespace {

constexpr std::size_t kCrcOffset = kOpticsRecordSize - 4;
constexpr double kMinIllumination = 0.2;

void Put16(std::uint8_t* p, std::uint16_t v) {
    p[0] = std::uint8_t(v);
    p[1] = std::uint8_t(v >> 8);
}
void Put32(std::uint8_t* p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        p[i] = std::uint8_t(v >> (8 * i));
    }
}
void Put64(std::uint8_t* p, std::uint64_t v) {
    for (int i = 0; i < 8; ++i) {
        p[i] = std::uint8_t(v >> (8 * i));
    }
}
std::uint16_t Get16(const std::uint8_t* p) {
    return std::uint16_t(p[0] | (p[1] << 8));
}
std::uint32_t Get32(const std::uint8_t* p) {
    std::uint32_t v = 0;
    for (int i = 3; i >= 0; --i) {
        v = (v << 8) | p[i];
    }
    return v;
}
std::uint64_t Get64(const std::uint8_t* p) {
    std::uint64_t v = 0;
    for (int i = 7; i >= 0; --i) {
        v = (v << 8) | p[i];
    }
    return v;
}

std::uint64_t SplitMix64(std::uint64_t& state) {
    std::uint64_t z = (state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

// Uniform in [lo, hi).
double Uniform(std::uint64_t& state, double lo, double hi) {
    return lo + (hi - lo) * double(SplitMix64(state) >> 11) * (1.0 / 9007199254740992.0);
}

bool InRange(std::int64_t v, std::int64_t lo, std::int64_t hi) {
    return v >= lo && v <= hi;
}

// Whether every corrected pixel maps inside the frame. The map is linear in
// px for a fixed row and monotonic in py, so the corners bound it.
bool GeometryFits(const Optics& o, bool& xFits, bool& yFits) {
    const double maxX = o.width - 1.0, maxY = o.height - 1.0, eps = 1e-9;
    const double us[2] = {0.0, o.OutputWidth() - 1.0};
    const double vs[2] = {0.0, o.OutputHeight() - 1.0};
    xFits = yFits = true;
    for (double u : us) {
        for (double v : vs) {
            double x = 0, y = 0;
            CorrectedToUncorrected(o, u, v, x, y);
            xFits = xFits && x >= -eps && x <= maxX + eps;
            yFits = yFits && y >= -eps && y <= maxY + eps;
        }
    }
    return xFits && yFits;
}

// The illumination factor is concave, so its minimum over the frame lies at
// a corner.
bool IlluminationFits(const Optics& o) {
    const double xs[2] = {0.0, o.width - 1.0};
    const double ys[2] = {0.0, o.height - 1.0};
    for (double x : xs) {
        for (double y : ys) {
            if (!(Illumination(o, x, y) >= kMinIllumination)) {
                return false;
            }
        }
    }
    return true;
}

}  // namespace

std::uint32_t Crc32(const std::uint8_t* data, std::size_t size) {
    std::uint32_t crc = 0xFFFFFFFFu;
    for (std::size_t i = 0; i < size; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
        }
    }
    return ~crc;
}

bool IsValid(const Optics& o) {
    if (!InRange(o.width, 16, 4096) || !InRange(o.height, 16, 4096) || o.OutputWidth() < 8 ||
        o.OutputHeight() < 8) {
        return false;
    }
    if (!InRange(o.centreXMilli, 0, std::int64_t(o.width - 1) * 1000) ||
        !InRange(o.centreYMilli, 0, std::int64_t(o.height - 1) * 1000)) {
        return false;
    }
    if (!InRange(o.keystonePpm, -200000, 200000) || !InRange(o.falloffPpm, 0, 750000) ||
        !InRange(o.tiltXPpm, -250000, 250000) || !InRange(o.tiltYPpm, -250000, 250000)) {
        return false;
    }
    if (!InRange(o.flatLevel, 1, 255) || !InRange(o.targetLevel, 1, 255)) {
        return false;
    }
    bool xFits = false, yFits = false;
    return GeometryFits(o, xFits, yFits) && IlluminationFits(o);
}

std::vector<std::uint8_t> Serialize(const Optics& o) {
    std::vector<std::uint8_t> bytes(kOpticsRecordSize, 0);
    std::uint8_t* p = bytes.data();
    std::memcpy(p, kOpticsMagic, 4);
    Put16(p + 4, kOpticsVersion);
    Put16(p + 6, std::uint16_t(kOpticsRecordSize));
    Put16(p + 8, o.width);
    Put16(p + 10, o.height);
    Put16(p + 12, o.marginX);
    Put16(p + 14, o.marginY);
    Put32(p + 16, std::uint32_t(o.centreXMilli));
    Put32(p + 20, std::uint32_t(o.centreYMilli));
    Put32(p + 24, std::uint32_t(o.keystonePpm));
    Put32(p + 28, std::uint32_t(o.falloffPpm));
    Put32(p + 32, std::uint32_t(o.tiltXPpm));
    Put32(p + 36, std::uint32_t(o.tiltYPpm));
    Put16(p + 40, o.flatLevel);
    Put16(p + 42, o.targetLevel);
    Put64(p + 44, o.seed);
    Put32(p + kCrcOffset, Crc32(p, kCrcOffset));
    return bytes;
}

bool Parse(const std::uint8_t* data, std::size_t size, Optics& out) {
    if (data == nullptr || size < kOpticsRecordSize) {
        return false;
    }
    if (std::memcmp(data, kOpticsMagic, 4) != 0 || Get16(data + 4) != kOpticsVersion ||
        Get16(data + 6) != kOpticsRecordSize ||
        Get32(data + kCrcOffset) != Crc32(data, kCrcOffset)) {
        return false;
    }
    Optics o;
    o.width = Get16(data + 8);
    o.height = Get16(data + 10);
    o.marginX = Get16(data + 12);
    o.marginY = Get16(data + 14);
    o.centreXMilli = std::int32_t(Get32(data + 16));
    o.centreYMilli = std::int32_t(Get32(data + 20));
    o.keystonePpm = std::int32_t(Get32(data + 24));
    o.falloffPpm = std::int32_t(Get32(data + 28));
    o.tiltXPpm = std::int32_t(Get32(data + 32));
    o.tiltYPpm = std::int32_t(Get32(data + 36));
    o.flatLevel = Get16(data + 40);
    o.targetLevel = Get16(data + 42);
    o.seed = Get64(data + 44);
    if (!IsValid(o)) {
        return false;
    }
    out = o;
    return true;
}

Optics MakeUnitOptics(int width, int height, std::uint64_t seed) {
    width = std::clamp(width, 64, 4096);
    height = std::clamp(height, 64, 4096);
    std::uint64_t state = seed ^ 0x4B52374F50544943ull;  // "KR7OPTIC"
    Optics o;
    o.width = std::uint16_t(width);
    o.height = std::uint16_t(height);
    o.seed = seed;
    const double keystone = Uniform(state, 0.01, 0.04);
    o.keystonePpm = std::int32_t(std::lround((SplitMix64(state) & 1 ? -keystone : keystone) * 1e6));
    o.falloffPpm = std::int32_t(std::lround(Uniform(state, 0.15, 0.25) * 1e6));
    o.tiltXPpm = std::int32_t(std::lround(Uniform(state, -0.03, 0.03) * 1e6));
    o.tiltYPpm = std::int32_t(std::lround(Uniform(state, -0.03, 0.03) * 1e6));
    const double cx = (width - 1) / 2.0 * (1.0 + Uniform(state, -0.02, 0.02));
    const double cy = (height - 1) / 2.0 * (1.0 + Uniform(state, -0.02, 0.02));
    o.centreXMilli = std::int32_t(std::lround(cx * 1000.0));
    o.centreYMilli = std::int32_t(std::lround(cy * 1000.0));
    o.flatLevel = std::uint16_t(std::lround(Uniform(state, 236.0, 250.0)));
    o.targetLevel = 248;
    // Grow the margins until every corrected pixel lands inside the frame;
    // one more pixel keeps bilinear sampling clear of the very edge.
    bool xFits = false, yFits = false;
    while (!GeometryFits(o, xFits, yFits) && o.OutputWidth() > 8 && o.OutputHeight() > 8) {
        o.marginX = std::uint16_t(o.marginX + (xFits ? 0 : 1));
        o.marginY = std::uint16_t(o.marginY + (yFits ? 0 : 1));
    }
    ++o.marginX;
    ++o.marginY;
    return o;
}

void PlatenToUncorrected(const Optics& o, double px, double py, double& x, double& y) {
    const double cx = o.CentreX(), cy = o.CentreY();
    const double w = 1.0 + o.Keystone() * (py - cy) / (o.height / 2.0);
    x = cx + (px - cx) / w;
    y = cy + (py - cy) / w;
}

void UncorrectedToPlaten(const Optics& o, double x, double y, double& px, double& py) {
    // From s = t / (1 + g t / h) follows t = s / (1 - g s / h), with t = py - cy
    // and s = y - cy; then w = 1 + g t / h = 1 / (1 - g s / h).
    const double cx = o.CentreX(), cy = o.CentreY();
    const double g = o.Keystone() / (o.height / 2.0);
    const double d = 1.0 - g * (y - cy);
    py = cy + (y - cy) / d;
    px = cx + (x - cx) / d;
}

void CorrectedToUncorrected(const Optics& o, double u, double v, double& x, double& y) {
    PlatenToUncorrected(o, u + o.marginX, v + o.marginY, x, y);
}

double Illumination(const Optics& o, double x, double y) {
    const double hw = o.width / 2.0, hh = o.height / 2.0;
    const double dx = x - o.CentreX(), dy = y - o.CentreY();
    const double r2 = (dx * dx + dy * dy) / (hw * hw + hh * hh);
    return 1.0 - o.Falloff() * r2 + o.TiltX() * dx / hw + o.TiltY() * dy / hh;
}

void ApplyOptics(const Optics& o, const std::uint8_t* platen, std::size_t platenStride,
                 std::uint8_t* out, std::size_t outStride, bool illumination) {
    const int w = o.width, h = o.height;
    for (int y = 0; y < h; ++y) {
        std::uint8_t* row = out + std::size_t(y) * outStride;
        for (int x = 0; x < w; ++x) {
            double px = 0, py = 0;
            UncorrectedToPlaten(o, x, y, px, py);
            px = std::clamp(px, 0.0, w - 1.0);
            py = std::clamp(py, 0.0, h - 1.0);
            const int x0 = std::min(int(px), w - 2), y0 = std::min(int(py), h - 2);
            const double fx = px - x0, fy = py - y0;
            const std::uint8_t* r0 = platen + std::size_t(y0) * platenStride + x0;
            const std::uint8_t* r1 = r0 + platenStride;
            const double top = r0[0] + (r0[1] - r0[0]) * fx;
            const double bottom = r1[0] + (r1[1] - r1[0]) * fx;
            double value = top + (bottom - top) * fy;
            if (illumination) {
                value *= Illumination(o, x, y);
            }
            row[x] = std::uint8_t(std::clamp(std::lround(value), 0L, 255L));
        }
    }
}

}  // namespace kr7sim
