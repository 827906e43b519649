#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <stdexcept>
#include <vector>

#include "fingerprint_analysis.h"
#include "print/scan_engine.h"

namespace kr7sim {
namespace {

constexpr double kPi = 3.14159265358979323846;
using Frame = std::vector<uint8_t>;

Frame Render(const ScanEngine& e, const Impression* imp, uint32_t frame, int dose = kNominalDose) {
    Frame f(size_t(e.width()) * e.height());
    e.Render(imp, FrameRequest{frame, dose}, f.data());
    return f;
}

double Mean(const Frame& f) {
    return std::accumulate(f.begin(), f.end(), 0.0) / f.size();
}

ImpressionParams LeftLoop(uint32_t impression) {
    ImpressionParams p;
    p.finger_seed = 11;  // shares the cached master with the master-print tests
    p.impression = impression;
    p.force_class = true;
    p.finger_class = FingerClass::LeftLoop;
    return p;
}

double Correlation(const std::vector<double>& a, const std::vector<double>& b) {
    const double ma = std::accumulate(a.begin(), a.end(), 0.0) / a.size();
    const double mb = std::accumulate(b.begin(), b.end(), 0.0) / b.size();
    double sab = 0, saa = 0, sbb = 0;
    for (size_t i = 0; i < a.size(); ++i) {
        sab += (a[i] - ma) * (b[i] - mb);
        saa += (a[i] - ma) * (a[i] - ma);
        sbb += (b[i] - mb) * (b[i] - mb);
    }
    return sab / std::sqrt(saa * sbb);
}

TEST(ScanEngine, SameStateGivesSameBytes) {
    const ScanEngine a(SensorConfig{}), b(SensorConfig{});
    const auto ia = a.CreateImpression(LeftLoop(3));
    const auto ib = b.CreateImpression(LeftLoop(3));
    EXPECT_EQ(Render(a, ia.get(), 12), Render(b, ib.get(), 12));
    EXPECT_EQ(Render(a, nullptr, 5), Render(b, nullptr, 5));
    EXPECT_NE(Render(a, ia.get(), 12), Render(a, ia.get(), 13)) << "read noise differs per frame";
    SensorConfig other;
    other.unit_seed = 2;
    EXPECT_NE(Render(ScanEngine(other), nullptr, 5), Render(a, nullptr, 5)) << "units differ";
}

TEST(ScanEngine, RejectsBadGeometry) {
    SensorConfig tiny;
    tiny.width = 8;
    EXPECT_THROW(ScanEngine{tiny}, std::invalid_argument);
    OpticsMaps wrong;
    wrong.illumination.assign(10, 1.0f);
    EXPECT_THROW(ScanEngine(SensorConfig{}, wrong), std::invalid_argument);
    OpticsMaps half;
    half.source_x.assign(320 * 480, 0.0f);
    EXPECT_THROW(ScanEngine(SensorConfig{}, half), std::invalid_argument);
    EXPECT_THROW(OpticsMaps::FromSourceIndex({0, 1}, 0), std::invalid_argument);
}

// A plain impression measured like a real one: orientation, ridge period and
// minutiae against the generating fields.
TEST(ScanEngine, PlainImpressionLooksLikeAFingerprint) {
    const ScanEngine e(SensorConfig{});
    const auto imp = e.CreateImpression(LeftLoop(1));
    const Frame f = Render(e, imp.get(), 20);
    const fpa::Image img = fpa::Image::FromBytes(f.data(), e.width(), e.height());
    const fpa::Orientation o = fpa::StructureTensor(img, 23);
    const auto mask = fpa::Foreground(img, 25, 16);

    std::vector<double> errors, coherence, period_ratio;
    for (int y = 16; y < e.height() - 16; y += 8) {
        for (int x = 16; x < e.width() - 16; x += 8) {
            if (!mask[size_t(y) * e.width() + x])
                continue;
            const Point m = imp->PlatenToMaster(x, y);
            const double truth = imp->master().OrientationNear(m.x, m.y) + imp->rotation();
            errors.push_back(fpa::OrientationDiff(o.theta.at(x, y), truth));
            coherence.push_back(o.coherence.at(x, y));
            if (x % 32 == 16 && y % 32 == 16) {
                period_ratio.push_back(fpa::BlockPeriod(img, x, y, o.theta.at(x, y)) /
                                       imp->master().PeriodNear(m.x, m.y));
            }
        }
    }
    ASSERT_GT(errors.size(), 300u) << "finger area too small";
    EXPECT_LT(fpa::Median(errors), 8 * kPi / 180);
    EXPECT_GT(fpa::Median(coherence), 0.7);
    ASSERT_GT(period_ratio.size(), 20u);
    EXPECT_NEAR(fpa::Median(period_ratio), 1.0, 0.10);

    const int minutiae = fpa::CountMinutiae(img, mask);
    RecordProperty("orientation_error_deg", std::to_string(fpa::Median(errors) * 180 / kPi));
    RecordProperty("coherence", std::to_string(fpa::Median(coherence)));
    RecordProperty("period_ratio", std::to_string(fpa::Median(period_ratio)));
    RecordProperty("minutiae", minutiae);
    EXPECT_GE(minutiae, 20);
    EXPECT_LE(minutiae, 100);
}

TEST(ScanEngine, PhotometryOfPlatenAndFinger) {
    const ScanEngine e(SensorConfig{});
    const Frame empty = Render(e, nullptr, 0);
    const double mean = Mean(empty);
    EXPECT_NEAR(mean, 250, 3);
    for (int y = 0; y < e.height(); ++y) {
        const double row = std::accumulate(empty.begin() + y * e.width(),
                                           empty.begin() + (y + 1) * e.width(), 0.0);
        ASSERT_GT(row / e.width(), 243) << "row " << y;
    }
    double var = 0;
    for (uint8_t v : empty)
        var += (v - mean) * (v - mean);
    EXPECT_LT(std::sqrt(var / empty.size()), 4.0) << "flat apart from noise and a little dirt";

    // Linear in dose above the dark offset, clipping at 255.
    const Frame dark = Render(e, nullptr, 0, 0);
    EXPECT_NEAR(Mean(dark), e.dark_offset(), 1.0);
    const double m15 = Mean(Render(e, nullptr, 0, 15)), m30 = Mean(Render(e, nullptr, 0, 30));
    EXPECT_NEAR((m30 - Mean(dark)) / (m15 - Mean(dark)), 2.0, 0.05);
    EXPECT_LT(m30, mean);
    const Frame bright = Render(e, nullptr, 0, 200);
    EXPECT_GT(std::count(bright.begin(), bright.end(), 255), long(bright.size() * 0.99));
    EXPECT_EQ(Render(e, nullptr, 0, -5), dark) << "negative dose is no light";

    // A finger spans at least 150 grey levels at the nominal dose.
    const auto imp = e.CreateImpression(LeftLoop(1));
    Frame finger = Render(e, imp.get(), 20);
    std::sort(finger.begin(), finger.end());
    EXPECT_GE(finger[finger.size() * 995 / 1000] - finger[finger.size() * 5 / 1000], 150);
}

// Fraction of dark (ridge-contact) pixels.
double DarkFraction(const Frame& f) {
    return std::count_if(f.begin(), f.end(), [](uint8_t v) { return v < 128; }) / double(f.size());
}

TEST(ScanEngine, PressureAndSkinChangeTheRidges) {
    const ScanEngine e(SensorConfig{});
    ImpressionParams p = LeftLoop(2);
    p.touch_frame = 4;
    p.lift_frame = 40;
    auto normal = e.CreateImpression(p);
    EXPECT_NEAR(Mean(Render(e, normal.get(), 3)), 250, 3) << "before the touch";
    EXPECT_NEAR(Mean(Render(e, normal.get(), 40)), 250, 3) << "after the lift";
    const double first = DarkFraction(Render(e, normal.get(), 4));
    const double full = DarkFraction(Render(e, normal.get(), 20));
    p.pressure = 1.6;
    const double hard = DarkFraction(Render(e, e.CreateImpression(p).get(), 20));
    EXPECT_GT(first, 0.005) << "first touch shows the crests";
    EXPECT_LT(first * 3, full);
    EXPECT_LT(full * 1.15, hard) << "a hard press widens the ridges";

    p.pressure = 1.0;
    p.skin = Skin::Dry;
    const Frame dry = Render(e, e.CreateImpression(p).get(), 20);
    p.skin = Skin::Wet;
    const Frame wet = Render(e, e.CreateImpression(p).get(), 20);
    const Frame norm = Render(e, normal.get(), 20);
    EXPECT_GT(Mean(dry), Mean(norm) + 10);
    EXPECT_LT(Mean(wet), Mean(norm) - 10);
}

TEST(ScanEngine, RolledStripSweepsAcrossAStillPattern) {
    SensorConfig c;
    c.width = kRolledFrameWidth;
    const ScanEngine e(c);
    ImpressionParams p;
    p.kind = ImpressionKind::Rolled;
    p.finger_seed = 21;
    const auto imp = e.CreateImpression(p);
    const uint32_t first = p.press_frames, last = p.press_frames + p.roll_frames;

    std::vector<Frame> frames;
    std::vector<double> centres;
    for (uint32_t f = first; f <= last; f += 2) {
        frames.push_back(Render(e, imp.get(), f));
        // Centre of the contact: darkness-weighted mean column.
        double sw = 0, sx = 0;
        for (int y = 0; y < e.height(); ++y)
            for (int x = 0; x < e.width(); ++x) {
                const double d = std::max(0, 230 - frames.back()[size_t(y) * e.width() + x]);
                sw += d;
                sx += d * x;
            }
        centres.push_back(sx / sw);
        EXPECT_NEAR(centres.back(), imp->StripCentreAt(f), 15);
    }
    const double dir = centres.back() > centres.front() ? 1 : -1;
    EXPECT_GT(std::fabs(centres.back() - centres.front()), 200);
    for (size_t i = 1; i < centres.size(); ++i)
        EXPECT_GE(dir * (centres[i] - centres[i - 1]), -2.0) << i;

    // Consecutive frames agree where both strips are in firm contact.
    for (size_t i = 1; i < frames.size(); ++i) {
        const uint32_t fa = first + 2 * uint32_t(i - 1), fb = fa + 2;
        const double ca = imp->StripCentreAt(fa), cb = imp->StripCentreAt(fb);
        const double ha = 0.6 * imp->StripHalfWidthAt(fa), hb = 0.6 * imp->StripHalfWidthAt(fb);
        const int x0 = int(std::max(ca - ha, cb - hb)), x1 = int(std::min(ca + ha, cb + hb));
        if (x1 - x0 < 10)
            continue;
        std::vector<double> a, b;
        for (int y = e.height() / 4; y < 3 * e.height() / 4; ++y)
            for (int x = x0; x < x1; ++x) {
                a.push_back(frames[i - 1][size_t(y) * e.width() + x]);
                b.push_back(frames[i][size_t(y) * e.width() + x]);
            }
        EXPECT_GT(Correlation(a, b), 0.9) << "frames " << fa << " and " << fb;
    }
    EXPECT_NEAR(Mean(Render(e, imp.get(), last + 2)), 250, 3) << "finger lifted after the roll";
}

TEST(ScanEngine, OpticsMapsAreFoldedIn) {
    const ScanEngine plain(SensorConfig{});
    const size_t n = size_t(plain.width()) * plain.height();
    OpticsMaps dim;
    dim.illumination.assign(n, 0.8f);
    const ScanEngine dimmed(SensorConfig{}, dim);
    EXPECT_NEAR(Mean(Render(dimmed, nullptr, 0)), plain.dark_offset() + 0.8 * 244, 3);

    // A source map that looks 12 px further right shows the same finger
    // moved 12 px to the left, up to the sensor's own noise.
    std::vector<int32_t> index(n);
    for (int y = 0; y < plain.height(); ++y)
        for (int x = 0; x < plain.width(); ++x)
            index[size_t(y) * plain.width() + x] = y * plain.width() + x + 12;
    const ScanEngine shifted(SensorConfig{}, OpticsMaps::FromSourceIndex(index, plain.width()));
    ImpressionParams p = LeftLoop(1);
    const Frame a = Render(plain, plain.CreateImpression(p).get(), 20);
    const Frame b = Render(shifted, shifted.CreateImpression(p).get(), 20);
    std::vector<double> va, vb;
    for (int y = 0; y < plain.height(); ++y)
        for (int x = 0; x + 12 < plain.width(); ++x) {
            va.push_back(a[size_t(y) * plain.width() + x + 12]);
            vb.push_back(b[size_t(y) * plain.width() + x]);
        }
    EXPECT_GT(Correlation(va, vb), 0.98);
}

}  // namespace
}  // namespace kr7sim
