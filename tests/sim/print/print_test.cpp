// The virtual scanner's image engine: random numbers, master prints and
// impressions, judged with independent fingerprint measurements: ridge
// spacing and orientation, contrast, determinism by seed, the optics hook.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <set>
#include <stdexcept>
#include <vector>

#include "fingerprint_analysis.h"
#include "print/master_print.h"
#include "print/rng.h"
#include "print/scan_engine.h"

namespace kr7sim {
namespace {

// The generators are pinned: frames must not change with the platform or the
// standard library.
TEST(Rng, PinnedAndWellSpread) {
    EXPECT_EQ(Rng(42).Next(), 0x15780b2e0c2ec716ull);
    EXPECT_EQ(HashWords(1, 2, 3), 0xf6727cbcc01d8ddcull);
    Rng r(7);
    double sum = 0, sq = 0;
    for (int i = 0; i < 20000; ++i) {
        const double g = r.Normal();
        sum += g / 20000;
        sq += g * g / 20000;
    }
    EXPECT_NEAR(sum, 0.0, 0.03);
    EXPECT_NEAR(sq, 1.0, 0.04);
}

// Finger seed 11, a left loop, shared with the engine tests through the cache.
TEST(MasterPrint, GrowthCoversTheCanvasFollowsTheSeedAndIsCached) {
    MasterRequest req;
    req.seed = 11;
    req.force_class = true;
    req.finger_class = FingerClass::LeftLoop;
    const auto m = GetMasterPrint(req);
    EXPECT_EQ(GetMasterPrint(req).get(), m.get());
    EXPECT_EQ(GenerateMasterPrint(req).ridge, m->ridge) << "the seed alone decides the print";
    ASSERT_EQ(m->ridge.size(), size_t(kPlainCanvasWidth) * kPlainCanvasHeight);
    double sum = 0, strong = 0;
    for (float v : m->ridge) {
        sum += v / m->ridge.size();
        strong += std::fabs(v) > 0.5f ? 1.0 / m->ridge.size() : 0;
    }
    EXPECT_NEAR(sum, 0.0, 0.15) << "ridges and valleys balance";
    EXPECT_GT(strong, 0.6) << "covered by ridges, not left flat";
}

using Frame = std::vector<uint8_t>;

Frame Render(const ScanEngine& e, const Impression* imp, uint32_t frame, int dose = kNominalDose) {
    Frame f(size_t(e.width()) * e.height());
    e.Render(imp, FrameRequest{frame, dose}, f.data());
    return f;
}

double Mean(const Frame& f) {
    return std::accumulate(f.begin(), f.end(), 0.0) / f.size();
}

// Fraction of dark (ridge-contact) pixels.
double DarkFraction(const Frame& f) {
    return std::count_if(f.begin(), f.end(), [](uint8_t v) { return v < 128; }) / double(f.size());
}

ImpressionParams LeftLoop(uint32_t impression) {
    ImpressionParams p;
    p.finger_seed = 11;  // shares the cached master with the master-print tests
    p.impression = impression;
    p.force_class = true;
    p.finger_class = FingerClass::LeftLoop;
    p.variation = Variation::Easy;  // one effect at a time
    return p;
}

// The default unit, shared by the tests.
const ScanEngine& Unit() {
    static const ScanEngine e{SensorConfig{}};
    return e;
}

TEST(ScanEngine, SameStateGivesSameBytesAndBadGeometryIsRefused) {
    const ScanEngine& a = Unit();
    const ScanEngine b(SensorConfig{});
    const auto ia = a.CreateImpression(LeftLoop(3));
    EXPECT_EQ(Render(a, ia.get(), 12), Render(b, b.CreateImpression(LeftLoop(3)).get(), 12));
    EXPECT_EQ(Render(a, nullptr, 5), Render(b, nullptr, 5));
    EXPECT_NE(Render(a, ia.get(), 12), Render(a, ia.get(), 13)) << "read noise differs per frame";
    SensorConfig other;
    other.unit_seed = 2;
    EXPECT_NE(Render(ScanEngine(other), nullptr, 5), Render(a, nullptr, 5)) << "units differ";

    other.width = 8;
    EXPECT_THROW(ScanEngine{other}, std::invalid_argument);
    OpticsMaps wrong;
    wrong.illumination.assign(10, 1.0f);
    EXPECT_THROW(ScanEngine(SensorConfig{}, wrong), std::invalid_argument);
    wrong.illumination.clear();
    wrong.source_x.assign(320 * 480, 0.0f);
    EXPECT_THROW(ScanEngine(SensorConfig{}, wrong), std::invalid_argument);
    EXPECT_THROW(OpticsMaps::FromSourceIndex({0, 1}, 0), std::invalid_argument);
}

// A plain impression measured like a real one: orientation and ridge period
// against the generating fields, and the contrast of the ridges.
TEST(ScanEngine, PlainImpressionLooksLikeAFingerprint) {
    const ScanEngine& e = Unit();
    const auto imp = e.CreateImpression(LeftLoop(1));
    Frame f = Render(e, imp.get(), 20);
    const fpa::Image img(f.data(), e.width(), e.height());
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
            if (x % 32 == 16 && y % 32 == 16)
                period_ratio.push_back(fpa::BlockPeriod(img, x, y, o.theta.at(x, y)) /
                                       imp->master().PeriodNear(m.x, m.y));
        }
    }
    ASSERT_GT(errors.size(), 300u) << "finger area too small";
    EXPECT_LT(fpa::Median(errors), 8 * fpa::kPi / 180);
    EXPECT_GT(fpa::Median(coherence), 0.7);
    ASSERT_GT(period_ratio.size(), 20u);
    EXPECT_NEAR(fpa::Median(period_ratio), 1.0, 0.10);
    // Ridges span at least 150 grey levels at the nominal dose.
    std::sort(f.begin(), f.end());
    EXPECT_GE(f[f.size() * 995 / 1000] - f[f.size() * 5 / 1000], 150);
}

TEST(ScanEngine, PhotometryOfTheEmptyPlaten) {
    const ScanEngine& e = Unit();
    const Frame empty = Render(e, nullptr, 0);
    const double mean = Mean(empty);
    EXPECT_NEAR(mean, 250, 3);
    double var = 0;
    for (int y = 0; y < e.height(); ++y) {
        const Frame row(empty.begin() + y * e.width(), empty.begin() + (y + 1) * e.width());
        ASSERT_GT(Mean(row), 243) << "row " << y;
        for (uint8_t v : row)
            var += (v - mean) * (v - mean);
    }
    EXPECT_LT(std::sqrt(var / empty.size()), 4.0) << "flat apart from noise and a little dirt";

    // Clipping at 255; that the signal is linear in the dose above the dark
    // offset the scanner tests check through the API.
    const Frame bright = Render(e, nullptr, 0, 200);
    EXPECT_GT(std::count(bright.begin(), bright.end(), 255), long(bright.size() * 0.99));
    EXPECT_EQ(Render(e, nullptr, 0, -5), Render(e, nullptr, 0, 0)) << "negative dose is no light";
}

TEST(ScanEngine, PressureAndSkinChangeTheRidges) {
    const ScanEngine& e = Unit();
    ImpressionParams p = LeftLoop(2);
    p.touch_frame = 4;
    p.lift_frame = 40;
    const auto normal = e.CreateImpression(p);
    EXPECT_NEAR(Mean(Render(e, normal.get(), 3)), 250, 3) << "before the touch";
    EXPECT_NEAR(Mean(Render(e, normal.get(), 40)), 250, 3) << "after the lift";
    const double first = DarkFraction(Render(e, normal.get(), 4));
    const Frame full = Render(e, normal.get(), 20);
    p.pressure = 1.6;
    const double hard = DarkFraction(Render(e, e.CreateImpression(p).get(), 20));
    EXPECT_GT(first, 0.005) << "first touch shows the crests";
    EXPECT_LT(first * 3, DarkFraction(full));
    EXPECT_LT(DarkFraction(full) * 1.15, hard) << "a hard press widens the ridges";
    p.pressure = 1.0;
    p.skin = Skin::Dry;
    EXPECT_GT(Mean(Render(e, e.CreateImpression(p).get(), 20)), Mean(full) + 10);
    p.skin = Skin::Wet;
    EXPECT_LT(Mean(Render(e, e.CreateImpression(p).get(), 20)), Mean(full) - 10);
}

// Natural placements differ the way real ones do, and what the caller fixes
// stays fixed without moving anything else.
TEST(ScanEngine, NaturalPlacementsVaryAndFixedValuesHold) {
    const ScanEngine& e = Unit();
    ImpressionParams p = LeftLoop(0);
    p.variation = Variation::Natural;
    std::set<Skin> skins;
    double min_pressure = 9, max_pressure = 0, max_rotation = 0, max_shear = 0;
    for (uint32_t k = 0; k < 24; ++k) {
        p.impression = k;
        const auto imp = e.CreateImpression(p);
        skins.insert(imp->skin());
        min_pressure = std::min(min_pressure, imp->pressure());
        max_pressure = std::max(max_pressure, imp->pressure());
        max_rotation = std::max(max_rotation, std::fabs(imp->rotation()));
        // Plastic distortion: the rim of the contact moves against its centre
        // by more than the rigid pose explains.
        const Point c = imp->contact_centre();
        const Point m0 = imp->PlatenToMaster(c.x, c.y);
        const Point m1 = imp->PlatenToMaster(c.x + 110, c.y);
        const double rim = std::hypot(m1.x - m0.x, m1.y - m0.y);
        max_shear = std::max(max_shear, std::fabs(rim - 110));
    }
    EXPECT_EQ(skins.size(), 3u);
    EXPECT_LT(min_pressure, 0.7);
    EXPECT_GT(max_pressure, 1.25);
    EXPECT_GT(max_rotation, 10 * fpa::kPi / 180);
    EXPECT_GT(max_shear, 5.0);

    p.impression = 5;
    const auto drawn = e.CreateImpression(p);
    EXPECT_EQ(Render(e, drawn.get(), 20), Render(e, e.CreateImpression(p).get(), 20));
    p.skin = Skin::Wet;
    p.pressure = 0.5;
    const auto fixed = e.CreateImpression(p);
    EXPECT_EQ(fixed->skin(), Skin::Wet);
    EXPECT_EQ(fixed->pressure(), 0.5);
    EXPECT_EQ(fixed->rotation(), drawn->rotation());
    EXPECT_EQ(fixed->PlatenToMaster(30, 40).x, drawn->PlatenToMaster(30, 40).x);
}

TEST(ScanEngine, RolledStripSweepsFromTheChosenSideAcrossAStillPattern) {
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
        centres.push_back(fpa::ContactColumn(frames.back().data(), e.width(), e.height(), 230));
        EXPECT_NEAR(centres.back(), imp->StripCentreAt(f), 15);
    }
    const double dir = centres.back() > centres.front() ? 1 : -1;
    EXPECT_GT(std::fabs(centres.back() - centres.front()), 200);
    for (size_t i = 1; i < centres.size(); ++i) {
        EXPECT_GE(dir * (centres[i] - centres[i - 1]), -2.0) << i;
        // Consecutive frames agree where both strips are in firm contact.
        const uint32_t fa = first + 2 * uint32_t(i - 1), fb = fa + 2;
        const double ha = 0.6 * imp->StripHalfWidthAt(fa), hb = 0.6 * imp->StripHalfWidthAt(fb);
        const int x0 = int(std::max(imp->StripCentreAt(fa) - ha, imp->StripCentreAt(fb) - hb));
        const int x1 = int(std::min(imp->StripCentreAt(fa) + ha, imp->StripCentreAt(fb) + hb));
        if (x1 - x0 >= 10) {
            EXPECT_GT(fpa::Correlation(frames[i - 1].data(), frames[i].data(), e.width(), x0, x1,
                                       e.height() / 4, 3 * e.height() / 4),
                      0.9)
                << "frames " << fa << " and " << fb;
        }
    }
    EXPECT_NEAR(Mean(Render(e, imp.get(), last + 2)), 250, 3) << "finger lifted after the roll";

    // Naming the drawn side changes nothing; a centred pose follows the named
    // side too (that a roll starts on the side a scenario names the scanner
    // tests check on its frames).
    p.roll_from = dir > 0 ? RollDirection::FromLeft : RollDirection::FromRight;
    EXPECT_EQ(Render(e, e.CreateImpression(p).get(), first + 6), frames[3]);
    p.random_pose = false;
    p.roll_from = RollDirection::FromRight;
    const auto centred = e.CreateImpression(p);
    EXPECT_GT(centred->StripCentreAt(first), centred->StripCentreAt(last));
}

TEST(ScanEngine, OpticsMapsAreFoldedIn) {
    const ScanEngine& plain = Unit();
    const int w = plain.width(), h = plain.height();
    OpticsMaps dim;
    dim.illumination.assign(size_t(w) * h, 0.8f);
    EXPECT_NEAR(Mean(Render(ScanEngine(SensorConfig{}, dim), nullptr, 0)),
                plain.dark_offset() + 0.8 * 244, 3);

    // A source map that looks 12 px further right shows the same finger
    // moved 12 px to the left, up to the sensor's own noise.
    std::vector<int32_t> index(size_t(w) * h);
    std::iota(index.begin(), index.end(), 12);
    const ScanEngine shifted(SensorConfig{}, OpticsMaps::FromSourceIndex(index, w));
    const Frame a = Render(plain, plain.CreateImpression(LeftLoop(1)).get(), 20);
    const Frame b = Render(shifted, shifted.CreateImpression(LeftLoop(1)).get(), 20);
    EXPECT_GT(fpa::Correlation(a.data() + 12, b.data(), w, 0, w - 12, 0, h), 0.98);
}

}  // namespace
}  // namespace kr7sim
