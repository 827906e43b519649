#include <gtest/gtest.h>

#include <memory>

#include "detection/rolled_finger.h"
#include "frames.h"

namespace {

using frames::At;
using frames::Band;
using frames::Bitmap;
using frames::Feed;
using frames::Uniform;

TEST(RolledFingerVC1, ComposesTheDarkestVersionOfEachColumn) {
    vc::ClRolledFingerVC1 rolled;
    const Bitmap dim = Uniform(40, 20, 220);
    const Bitmap bright = Uniform(40, 20, 250);
    const Bitmap onset = Band(40, 20, 0, 14, 90);  // starts the roll only
    Bitmap second = Band(40, 20, 8, 20, 60);
    frames::Fill(second, 28, 30, 200);
    Bitmap third = Band(40, 20, 16, 30, 40);
    frames::Fill(third, 8, 10, 80);  // darker than the background, not than `second`
    Bitmap output;
    // The reference follows every frame until one is above 220: no roll yet.
    EXPECT_EQ(Feed(rolled, {dim, Band(40, 20, 0, 40, 100), dim}, output), "FFF");
    EXPECT_FALSE(rolled.IsInitialized() || rolled.IsRolling());
    EXPECT_TRUE(frames::SamePixels(output, dim));

    EXPECT_EQ(Feed(rolled, {Uniform(40, 20, 221), onset}, output), "FF");
    EXPECT_TRUE(frames::SamePixels(output, onset));
    EXPECT_EQ(Feed(rolled, {second}, output), "F");
    EXPECT_TRUE(frames::SamePixels(output, rolled.Composed()));
    EXPECT_EQ(Feed(rolled, {third, bright}, output), "FT");
    for (long x = 0; x < 40; ++x) {
        const unsigned char expected = x < 8 ? 221 : x < 16 ? 60 : x < 30 ? 40 : 221;
        EXPECT_EQ(At(output, x, 0), expected) << x;
        EXPECT_EQ(At(output, x, 19), expected) << x;
    }
    // Waiting for a new background: the next bright frame replaces the print.
    EXPECT_EQ(Feed(rolled, {bright}, output), "F");
    EXPECT_TRUE(frames::SamePixels(rolled.Composed(), bright));
}

TEST(RolledFingerVC1, ScatteredDarkerColumnsAreTakenOneByOne) {
    vc::ClRolledFingerVC1 rolled;
    Bitmap output;
    Bitmap striped = Band(40, 20, 20, 40, 100);
    for (long x = 0; x < 20; x += 2) {
        frames::Fill(striped, x, x + 1, 30);  // ten separate runs
    }
    const Bitmap bright = Uniform(40, 20, 250);
    EXPECT_EQ(
        Feed(rolled, {bright, Band(40, 20, 0, 30, 90), striped, Band(40, 20, 25, 40, 50)}, output),
        "FFFF");
    // A clone carries the roll on by itself.
    std::unique_ptr<vc::ClRolledFingerVC1> copy(rolled.clone());
    EXPECT_EQ(Feed(rolled, {Uniform(40, 20, 10)}, output), "F");
    EXPECT_EQ(Feed(*copy, {bright}, output), "T");
    for (long x = 0; x < 40; ++x) {
        const unsigned char expected = x < 20 ? (x % 2 ? 250 : 30) : x < 25 ? 100 : 50;
        EXPECT_EQ(At(output, x, 7), expected) << x;
    }
}

TEST(RolledFingerVC1, AFrameOfAnotherSizeDuringARollContributesNothing) {
    vc::ClRolledFingerVC1 rolled;
    Bitmap output;
    Feed(rolled, {Uniform(40, 20, 250), Band(40, 20, 0, 20, 90)}, output);
    EXPECT_EQ(Feed(rolled, {Uniform(60, 30, 10)}, output), "F");
    EXPECT_TRUE(frames::SamePixels(output, Uniform(40, 20, 250)));
}

}  // namespace
