#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <vector>

#include "detection/rolled_finger.h"
#include "frames.h"

namespace {

using frames::At;
using frames::Band;
using frames::Bitmap;
using frames::Digits;
using frames::Feed;
using frames::Uniform;
using Bytes = std::vector<unsigned char>;

// ---------------------------------------------------------------------------
// Column-composing detector

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

TEST(RolledFingerVC1, ColumnOperationsAndMismatchedFrames) {
    vc::ClRolledFingerVC1 rolled;
    Bitmap image = Band(10, 4, 3, 4, 5);
    EXPECT_EQ(rolled.ColumnSum(image, 3), 20);
    EXPECT_EQ(rolled.ColumnSum(image, 10), 0);  // a padding column is not read
    EXPECT_EQ(rolled.ColumnSum(Bitmap(), 0), 0);
    Bitmap target = Uniform(10, 4, 250);
    rolled.CpyColumn(image, target, 3);
    rolled.CpyColumn(image, target, -1);
    EXPECT_TRUE(frames::SamePixels(target, image));
    Bitmap small = Uniform(4, 2, 250);
    rolled.CpyColumn(image, small, 3);  // stays inside the smaller image
    EXPECT_EQ(At(small, 3, 0), 5);
    EXPECT_EQ(At(small, 3, 1), 250);

    // A frame of another size during a roll contributes nothing.
    Bitmap output;
    Feed(rolled, {Uniform(40, 20, 250), Band(40, 20, 0, 20, 90)}, output);
    EXPECT_EQ(Feed(rolled, {Uniform(60, 30, 10)}, output), "F");
    EXPECT_TRUE(frames::SamePixels(output, Uniform(40, 20, 250)));
}

// ---------------------------------------------------------------------------
// Border-following detector

TEST(RolledFinger, GrayAverageIsScaledByFiftyColumns) {
    vc::ClRolledFinger rolled;
    const Bitmap image = Uniform(400, 6, 100);
    const Bitmap narrow = Uniform(30, 6, 100);  // narrower than a strip
    // Left strip, right strip, whole width (scaled by 400 / 50), any other area.
    const long wide[] = {100, 100, 800, 0};
    for (int area = 0; area < 4; ++area) {
        const auto a = static_cast<vc::ClRolledFinger::eDetectArea>(area);
        EXPECT_EQ(rolled.Gray_Avarage(image, a), wide[area]) << area;
        EXPECT_EQ(rolled.Gray_Avarage(narrow, a), area < 3 ? 60 : 0) << area;
    }
    EXPECT_EQ(rolled.Gray_Avarage(Bitmap(), vc::ClRolledFinger::eWholeWidth), 0);
}

TEST(RolledFinger, LineRandFindsTheLatestDarkestPrefix) {
    vc::ClRolledFinger rolled;
    const unsigned char row[] = {100, 50, 50, 200, 0, 0};
    EXPECT_EQ(rolled.LineAvarage(row, 0), 100);
    EXPECT_EQ(rolled.LineAvarage(row, 2), 75);
    EXPECT_EQ(rolled.LineRand(row, 3, 3), 0);
    EXPECT_EQ(rolled.LineRand(row, 5, 2), 0);
    EXPECT_EQ(rolled.LineRand(row, 1, 6), 3);  // prefix means from x = 1: 100, 75, 66, 100, 80
    const unsigned char flat[] = {90, 90, 90, 90};
    EXPECT_EQ(rolled.LineRand(flat, 0, 4), 3);  // ties move to the later x

    // The per-frame border computation agrees with LineRand for every start
    // and measures on the first row only.
    std::mt19937 random(7);
    Bitmap image = Uniform(300, 256, 0);
    for (long x = 0; x < 300; ++x) {
        frames::Row(image, 0)[x] = static_cast<unsigned char>(random() % 256);
    }
    Bytes borders(256);
    for (int y = 0; y < 256; ++y) {
        borders[y] = static_cast<unsigned char>(y);
    }
    Bytes next(256, 0);
    rolled.CalculateLineRand(image, borders, next);
    for (int y = 0; y < 256; ++y) {
        ASSERT_EQ(next[y], rolled.LineRand(frames::Row(image, 0), y, 300) % 256) << y;
    }
    // On a flat row ties go to the last column, 299, kept as a byte.
    std::memset(frames::Row(image, 0), 90, 300);
    rolled.CalculateLineRand(image, borders, next);
    EXPECT_EQ(next, Bytes(256, 299 % 256));
}

TEST(RolledFinger, RollIsComposedFromTheMovingBorder) {
    vc::ClRolledFinger rolled;
    const Bitmap background = Uniform(100, 10, 250);
    Bitmap output = Uniform(100, 10, 0);
    EXPECT_EQ(Feed(rolled, {background}, output), "F");
    EXPECT_TRUE(frames::SamePixels(output, background));

    // The finger on the left strip starts the roll; then the darkest prefix
    // mean of the first row (just past a dark column at 30) pulls the border
    // to 31 and the columns [0, 31) of that frame are taken.
    Bitmap rolling = Band(100, 10, 0, 30, 120);
    frames::Fill(rolling, 30, 31, 0);
    EXPECT_EQ(Feed(rolled, {Band(100, 10, 0, 40, 120), rolling, background}, output), "FFT");
    for (long x = 0; x < 100; ++x) {
        EXPECT_EQ(At(output, x, 5), x < 30 ? 120 : x == 30 ? 0 : 250) << x;
    }

    // The output keeps its own size and takes what fits.
    Bitmap small = Uniform(10, 2, 1);
    Bitmap empty;
    Bitmap frame = Uniform(100, 10, 240);
    rolled.Detect(frame, small);  // a new background
    rolled.Detect(frame, empty);
    EXPECT_EQ(At(small, 9, 1), 240);
    EXPECT_TRUE(empty.Empty());
}

TEST(RolledFinger, RowCopiesStayInsideBothImages) {
    vc::ClRolledFinger rolled;
    const Bitmap from = Uniform(20, 4, 9);
    Bitmap to = Uniform(8, 2, 1);
    rolled.CopyBitmapRow(from, to, 1, 2, 200);  // row 1 of `from` lies past `to`
    rolled.CopyBitmapRow(from, to, 7, 0, 5);
    rolled.CopyBitmapRow(from, to, 0, 6, 3);
    EXPECT_EQ(Digits(to, 0) + Digits(to, 1), "1111111111111111");
    rolled.CopyBitmapRow(from, to, 0, 2, 200);  // from's stride of 20 reaches into row 1
    EXPECT_EQ(Digits(to, 0) + Digits(to, 1), "1199999999999999");

    // Profile copies: rows with their own spans, then one span for all rows
    // (more borders than rows).
    Bitmap target = Uniform(20, 4, 1);
    rolled.BitmapProfilCopy(from, target, {0, 2, 5}, {3, 4, 5});
    rolled.BitmapProfilCopy(from, target, Bytes(9, 6), Bytes(9, 8));
    EXPECT_EQ(Digits(target, 0), "99911199111111111111");
    EXPECT_EQ(Digits(target, 1), "11991199111111111111");
    EXPECT_EQ(Digits(target, 3), "11111199111111111111");
    to = Uniform(8, 2, 1);
    rolled.BitmapProfilCopy(from, to, Bytes(4, 2), Bytes(4, 6));
    EXPECT_EQ(Digits(to, 0) + Digits(to, 1), "1199991111111111");  // row 1 of `from` lies past
}

}  // namespace
