#include "common/optics.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>

namespace {

kr7sim::Optics Unit(int seed = 7) {
    return kr7sim::MakeUnitOptics(640, 480, seed);
}

// Parses from a heap copy of exactly `size` bytes, so that a read past the
// end shows under AddressSanitizer.
bool ParseExact(const std::vector<std::uint8_t>& bytes, std::size_t size, kr7sim::Optics& out) {
    std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[size == 0 ? 1 : size]);
    std::memcpy(copy.get(), bytes.data(), std::min(size, bytes.size()));
    return kr7sim::Parse(copy.get(), size, out);
}

TEST(Optics, RecordRoundTripsAndHasTheDocumentedLayout) {
    kr7sim::Optics unit = Unit();
    unit.seed = 0x0123456789ABCDEFull;
    const auto bytes = kr7sim::Serialize(unit);
    ASSERT_EQ(bytes.size(), kr7sim::kOpticsRecordSize);
    EXPECT_EQ(std::memcmp(bytes.data(), "KR7O", 4), 0);
    EXPECT_EQ(bytes[4], 1);
    EXPECT_EQ(bytes[6], 56);
    EXPECT_EQ(bytes[8] | bytes[9] << 8, 640);
    EXPECT_EQ(bytes[44], 0xEF);  // seed, little-endian
    EXPECT_EQ(bytes[51], 0x01);

    kr7sim::Optics parsed;
    ASSERT_TRUE(ParseExact(bytes, bytes.size(), parsed));
    EXPECT_EQ(kr7sim::Serialize(parsed), bytes);

    auto longer = bytes;
    longer.resize(100, 0xAA);  // trailing bytes are ignored
    EXPECT_TRUE(ParseExact(longer, longer.size(), parsed));
}

TEST(Optics, MalformedRecordsAreRejected) {
    const auto good = kr7sim::Serialize(Unit());
    kr7sim::Optics out;
    out.width = 1;
    for (std::size_t size = 0; size < good.size(); ++size) {
        EXPECT_FALSE(ParseExact(good, size, out)) << size;
    }
    EXPECT_FALSE(kr7sim::Parse(nullptr, 56, out));
    // Any single flipped bit breaks the magic, version, size or CRC.
    for (std::size_t i = 0; i < good.size(); ++i) {
        auto bad = good;
        bad[i] ^= 0x10;
        EXPECT_FALSE(ParseExact(bad, bad.size(), out)) << i;
    }
    EXPECT_EQ(out.width, 1);  // untouched on failure

    // A correctly sealed record whose geometry leaves the frame.
    kr7sim::Optics wide = Unit();
    wide.marginX = 0;
    EXPECT_FALSE(kr7sim::IsValid(wide));
    EXPECT_FALSE(ParseExact(kr7sim::Serialize(wide), 56, out));
    kr7sim::Optics dark = Unit();
    dark.falloffPpm = 750000;
    dark.centreXMilli = 0;
    EXPECT_FALSE(kr7sim::IsValid(dark));
    kr7sim::Optics tiny = Unit();
    tiny.marginY = 237;
    EXPECT_FALSE(kr7sim::IsValid(tiny));
}

TEST(Optics, UnitsAreValidAndDeterministic) {
    for (int seed = 0; seed < 40; ++seed) {
        for (auto [w, h] : {std::pair{320, 480}, std::pair{640, 480}, std::pair{64, 64}}) {
            const kr7sim::Optics o = kr7sim::MakeUnitOptics(w, h, seed);
            ASSERT_TRUE(kr7sim::IsValid(o)) << seed << " " << w;
            EXPECT_GE(std::abs(o.keystonePpm), 10000);
            EXPECT_LE(std::abs(o.keystonePpm), 40000);
            EXPECT_EQ(kr7sim::Serialize(o), kr7sim::Serialize(kr7sim::MakeUnitOptics(w, h, seed)));
        }
    }
}

TEST(Optics, GeometryMapsInvertEachOther) {
    for (int seed : {1, 2, 3}) {
        const kr7sim::Optics o = Unit(seed);
        for (double py = -20; py < 500; py += 37.5) {
            for (double px = -20; px < 660; px += 41.25) {
                double x = 0, y = 0, bx = 0, by = 0;
                kr7sim::PlatenToUncorrected(o, px, py, x, y);
                kr7sim::UncorrectedToPlaten(o, x, y, bx, by);
                EXPECT_NEAR(bx, px, 1e-9);
                EXPECT_NEAR(by, py, 1e-9);
            }
        }
        // The optical centre stays put; a positive keystone narrows lower rows.
        double x = 0, y = 0;
        kr7sim::PlatenToUncorrected(o, o.CentreX(), o.CentreY(), x, y);
        EXPECT_NEAR(x, o.CentreX(), 1e-12);
        EXPECT_NEAR(y, o.CentreY(), 1e-12);
        double topLeft = 0, topRight = 0, bottomLeft = 0, bottomRight = 0, unused = 0;
        kr7sim::PlatenToUncorrected(o, 100, 50, topLeft, unused);
        kr7sim::PlatenToUncorrected(o, 500, 50, topRight, unused);
        kr7sim::PlatenToUncorrected(o, 100, 430, bottomLeft, unused);
        kr7sim::PlatenToUncorrected(o, 500, 430, bottomRight, unused);
        EXPECT_EQ(bottomRight - bottomLeft<topRight - topLeft, o.keystonePpm> 0);
    }
}

TEST(Optics, IlluminationFallsOffTowardTheCorners) {
    kr7sim::Optics o = Unit();
    o.tiltXPpm = o.tiltYPpm = 0;
    o.centreXMilli = 319500;
    o.centreYMilli = 239500;
    EXPECT_DOUBLE_EQ(kr7sim::Illumination(o, 319.5, 239.5), 1.0);
    EXPECT_NEAR(kr7sim::Illumination(o, -0.5, -0.5), 1.0 - o.Falloff(), 1e-12);
    o.tiltXPpm = 20000;
    EXPECT_NEAR(kr7sim::Illumination(o, 639.5, 239.5) - kr7sim::Illumination(o, -0.5, 239.5), 0.04,
                1e-12);
}

TEST(Optics, ApplyOpticsSamplesThePlatenThroughTheMap) {
    const kr7sim::Optics o = Unit(5);
    // A horizontal ramp: the rendered value tells where the platen was sampled.
    std::vector<std::uint8_t> platen(640 * 480), out(644 * 480, 0x77);
    for (int y = 0; y < 480; ++y) {
        for (int x = 0; x < 640; ++x) {
            platen[y * 640 + x] = std::uint8_t(x * 255 / 639);
        }
    }
    kr7sim::ApplyOptics(o, platen.data(), 640, out.data(), 644, false);
    for (int y : {0, 240, 479}) {
        for (int x : {5, 320, 634}) {
            double px = 0, py = 0;
            kr7sim::UncorrectedToPlaten(o, x, y, px, py);
            const double expected = std::clamp(px, 0.0, 639.0) * 255.0 / 639.0;
            EXPECT_NEAR(out[y * 644 + x], expected, 1.0) << x << "," << y;
        }
        EXPECT_EQ(out[y * 644 + 641], 0x77);  // stride padding untouched
    }
    // With illumination a flat platen takes the shape of the factor.
    std::fill(platen.begin(), platen.end(), 200);
    kr7sim::ApplyOptics(o, platen.data(), 640, out.data(), 644);
    EXPECT_NEAR(out[0], 200 * kr7sim::Illumination(o, 0, 0), 0.5);
    EXPECT_NEAR(out[240 * 644 + 320], 200 * kr7sim::Illumination(o, 320, 240), 0.5);
}

}  // namespace
