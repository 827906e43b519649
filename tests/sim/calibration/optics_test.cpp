#include "common/optics.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

namespace {

// Parses from a heap copy of exactly `size` bytes, so that an overread shows
// under AddressSanitizer.
bool ParseExact(const std::vector<std::uint8_t>& bytes, std::size_t size, kr7sim::Optics& out) {
    std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[size + 1]);
    std::memcpy(copy.get(), bytes.data(), std::min(size, bytes.size()));
    return kr7sim::Parse(copy.get(), size, out);
}

TEST(Optics, RecordRoundTripsAndRejectsAnyDamage) {
    kr7sim::Optics unit = kr7sim::MakeUnitOptics(640, 480, 7), parsed;
    unit.seed = 0x0123456789ABCDEFull;
    const auto good = kr7sim::Serialize(unit);
    ASSERT_EQ(good.size(), 56u);
    EXPECT_EQ(std::memcmp(good.data(), "KR7O\x01\x00\x38\x00\x80\x02", 10), 0);
    EXPECT_EQ(good[44], 0xEF);                  // seed, little-endian
    ASSERT_TRUE(ParseExact(good, 60, parsed));  // trailing bytes ignored
    EXPECT_EQ(kr7sim::Serialize(parsed), good);

    parsed.width = 1;
    for (std::size_t size = 0; size < good.size(); ++size) {
        EXPECT_FALSE(ParseExact(good, size, parsed)) << size;
    }
    for (std::size_t i = 0; i < good.size(); ++i) {  // magic, version, size or CRC
        auto bad = good;
        bad[i] ^= 0x10;
        EXPECT_FALSE(ParseExact(bad, bad.size(), parsed)) << i;
    }
    EXPECT_EQ(parsed.width, 1);  // untouched on failure
    unit.marginX = 0;            // sealed correctly, but samples outside the frame
    EXPECT_FALSE(ParseExact(kr7sim::Serialize(unit), 56, parsed));
}

TEST(Optics, UnitsAreValidDeterministicAndMapsInvert) {
    for (int seed = 0; seed < 30; ++seed) {
        for (auto [w, h] : {std::pair{320, 480}, std::pair{640, 480}, std::pair{64, 64}}) {
            const kr7sim::Optics o = kr7sim::MakeUnitOptics(w, h, seed);
            ASSERT_TRUE(kr7sim::IsValid(o)) << seed << " " << w;
            EXPECT_EQ(kr7sim::Serialize(o), kr7sim::Serialize(kr7sim::MakeUnitOptics(w, h, seed)));
            for (double py : {-20.0, 0.0, 123.4, h + 20.0}) {
                double x = 0, y = 0, px = 0, back = 0;
                kr7sim::PlatenToUncorrected(o, 17.5, py, x, y);
                kr7sim::UncorrectedToPlaten(o, x, y, px, back);
                EXPECT_NEAR(px, 17.5, 1e-9);
                EXPECT_NEAR(back, py, 1e-9);
            }
        }
    }
}

}  // namespace
