#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <vector>

#include "detection/rolled_finger.h"
#include "frames.h"

namespace {

using frames::Bitmap;

// ---------------------------------------------------------------------------
// Column-composing detector

TEST(RolledFingerVC1, WaitsForABrightBackground) {
    vc::ClRolledFingerVC1 rolled;
    const Bitmap dim = frames::Uniform(40, 20, 220);
    const Bitmap darker = frames::Band(40, 20, 0, 40, 100);
    Bitmap output;
    EXPECT_EQ(frames::Feed(rolled, {dim, darker, dim}, output), "FFF");
    EXPECT_FALSE(rolled.IsInitialized());
    EXPECT_FALSE(rolled.IsRolling());
    EXPECT_EQ(rolled.ReferenceGray(), 220);  // refreshed by every frame
    EXPECT_TRUE(frames::SamePixels(output, dim));

    EXPECT_EQ(frames::Feed(rolled, {frames::Uniform(40, 20, 221)}, output), "F");
    EXPECT_TRUE(rolled.IsInitialized());
    EXPECT_EQ(rolled.ColumnSums(), std::vector<long>(40, 221 * 20));
    EXPECT_EQ(rolled.Threshold(), 4420 - 4420 / 20);
}

TEST(RolledFingerVC1, ComposesTheDarkestVersionOfEachColumn) {
    vc::ClRolledFingerVC1 rolled;
    const Bitmap background = frames::Uniform(40, 20, 250);
    const Bitmap onset = frames::Band(40, 20, 0, 12, 90);  // starts the roll only
    Bitmap second = frames::Band(40, 20, 8, 20, 60);
    frames::Fill(second, 28, 30, 200);
    Bitmap third = frames::Band(40, 20, 16, 30, 40);
    frames::Fill(third, 8, 10, 80);  // darker than the background, not than `second`
    Bitmap output;
    EXPECT_EQ(frames::Feed(rolled, {background, onset}, output), "FF");
    EXPECT_TRUE(rolled.IsRolling());
    EXPECT_TRUE(frames::SamePixels(output, onset));
    EXPECT_EQ(frames::Feed(rolled, {second}, output), "F");
    EXPECT_TRUE(frames::SamePixels(output, rolled.Composed()));
    EXPECT_EQ(frames::Feed(rolled, {third, background}, output), "FT");
    EXPECT_FALSE(rolled.IsInitialized());

    for (long x = 0; x < 40; ++x) {
        const unsigned char expected = x < 8 ? 250 : x < 16 ? 60 : x < 30 ? 40 : 250;
        EXPECT_EQ(frames::At(output, x, 0), expected) << x;
        EXPECT_EQ(frames::At(output, x, 19), expected) << x;
    }
    // Waiting for a new background: the next bright frame replaces the print.
    EXPECT_EQ(frames::Feed(rolled, {background}, output), "F");
    EXPECT_TRUE(frames::SamePixels(rolled.Composed(), background));
}

TEST(RolledFingerVC1, ScatteredDarkerColumnsAreTakenOneByOne) {
    vc::ClRolledFingerVC1 rolled;
    Bitmap output;
    Bitmap striped = frames::Band(40, 20, 20, 40, 100);
    for (long x = 0; x < 20; x += 2) {
        frames::Fill(striped, x, x + 1, 30);  // ten separate runs
    }
    EXPECT_EQ(frames::Feed(rolled,
                           {frames::Uniform(40, 20, 250), frames::Band(40, 20, 0, 30, 90), striped,
                            frames::Band(40, 20, 25, 40, 50), frames::Uniform(40, 20, 250)},
                           output),
              "FFFFT");
    for (long x = 0; x < 40; ++x) {
        const unsigned char expected = x < 20 ? (x % 2 ? 250 : 30) : x < 25 ? 100 : 50;
        EXPECT_EQ(frames::At(output, x, 7), expected) << x;
    }
}

TEST(RolledFingerVC1, CloneIsDeep) {
    vc::ClRolledFingerVC1 rolled;
    Bitmap output;
    frames::Feed(rolled,
                 {frames::Uniform(40, 20, 250), frames::Band(40, 20, 0, 20, 90),
                  frames::Band(40, 20, 0, 20, 90)},
                 output);
    std::unique_ptr<vc::ClRolledFingerVC1> copy(rolled.clone());
    EXPECT_EQ(frames::Feed(rolled, {frames::Band(40, 20, 10, 30, 10)}, output), "F");
    EXPECT_NE(copy->ColumnSums(), rolled.ColumnSums());
    EXPECT_EQ(frames::Feed(*copy, {frames::Uniform(40, 20, 250)}, output), "T");
    EXPECT_TRUE(frames::SamePixels(output, frames::Band(40, 20, 0, 20, 90)));
}

TEST(RolledFingerVC1, ColumnOperationsAndMismatchedFrames) {
    vc::ClRolledFingerVC1 rolled;
    Bitmap image = frames::Band(10, 4, 3, 4, 5);
    EXPECT_EQ(rolled.ColumnSum(image, 3), 20);
    EXPECT_EQ(rolled.ColumnSum(image, 0), 1000);
    EXPECT_EQ(rolled.ColumnSum(image, 10), 0);
    EXPECT_EQ(rolled.ColumnSum(Bitmap(), 0), 0);
    Bitmap target = frames::Uniform(10, 4, 250);
    rolled.CpyColumn(image, target, 3);
    rolled.CpyColumn(image, target, -1);
    EXPECT_TRUE(frames::SamePixels(target, image));
    Bitmap small = frames::Uniform(4, 2, 250);
    rolled.CpyColumn(image, small, 3);  // stays inside the smaller image
    EXPECT_EQ(frames::At(small, 3, 0), 5);
    EXPECT_EQ(frames::At(small, 3, 1), 250);

    // A frame of another size during a roll contributes nothing.
    Bitmap output;
    frames::Feed(rolled, {frames::Uniform(40, 20, 250), frames::Band(40, 20, 0, 20, 90)}, output);
    EXPECT_EQ(frames::Feed(rolled, {frames::Uniform(60, 30, 10)}, output), "F");
    EXPECT_TRUE(frames::SamePixels(output, frames::Uniform(40, 20, 250)));
}

// ---------------------------------------------------------------------------
// Border-following detector

TEST(RolledFinger, GrayAverageIsScaledByFiftyColumns) {
    vc::ClRolledFinger rolled;
    const Bitmap image = frames::Uniform(400, 6, 100);
    EXPECT_EQ(rolled.Gray_Avarage(image, vc::ClRolledFinger::eWholeWidth), 800);
    EXPECT_EQ(rolled.Gray_Avarage(image, vc::ClRolledFinger::eLeftStrip), 100);
    EXPECT_EQ(rolled.Gray_Avarage(image, vc::ClRolledFinger::eRightStrip), 100);
    EXPECT_EQ(rolled.Gray_Avarage(image, static_cast<vc::ClRolledFinger::eDetectArea>(3)), 0);
    EXPECT_EQ(rolled.Gray_Avarage(Bitmap(), vc::ClRolledFinger::eWholeWidth), 0);
    // A frame narrower than the strip gives the columns it has.
    const Bitmap narrow = frames::Uniform(30, 6, 100);
    EXPECT_EQ(rolled.Gray_Avarage(narrow, vc::ClRolledFinger::eLeftStrip), 60);
    EXPECT_EQ(rolled.Gray_Avarage(narrow, vc::ClRolledFinger::eRightStrip), 60);
}

TEST(RolledFinger, LineRandFindsTheLatestDarkestPrefix) {
    vc::ClRolledFinger rolled;
    const unsigned char row[] = {100, 50, 50, 200, 0, 0};
    EXPECT_EQ(rolled.LineAvarage(row, 0), 100);
    EXPECT_EQ(rolled.LineAvarage(row, 2), 75);
    EXPECT_EQ(rolled.LineRand(row, 3, 3), 0);
    EXPECT_EQ(rolled.LineRand(row, 5, 2), 0);
    // Prefix means from x = 1: 100, 75, 66, 100, 80.
    EXPECT_EQ(rolled.LineRand(row, 1, 6), 3);
    const unsigned char flat[] = {90, 90, 90, 90};
    EXPECT_EQ(rolled.LineRand(flat, 0, 4), 3);  // ties move to the later x

    // The per-frame border computation agrees with LineRand for every start.
    std::mt19937 random(7);
    Bitmap image;
    image.Create(300, 256, 8, 0);
    for (long x = 0; x < 300; ++x) {
        frames::Row(image, 0)[x] = static_cast<unsigned char>(random() % 256);
    }
    std::vector<unsigned char> borders(256);
    for (int y = 0; y < 256; ++y) {
        borders[y] = static_cast<unsigned char>(y);
    }
    std::vector<unsigned char> next(256, 0);
    rolled.CalculateLineRand(image, borders, next);
    for (int y = 0; y < 256; ++y) {
        ASSERT_EQ(next[y], rolled.LineRand(frames::Row(image, 0), y, 300) % 256) << y;
    }
}

TEST(RolledFinger, BordersAreBytesMeasuredOnTheFirstRow) {
    vc::ClRolledFinger rolled;
    Bitmap image = frames::Uniform(300, 3, 250);
    // Prefix means of the first row keep falling to the last column, 299.
    std::memset(frames::Row(image, 0) + 257, 0, 43);
    std::memset(frames::Row(image, 2), 0, 300);  // other rows are not looked at
    std::vector<unsigned char> borders = {0, 10, 200};
    std::vector<unsigned char> next(3, 0);
    rolled.CalculateLineRand(image, borders, next);
    EXPECT_EQ(next, (std::vector<unsigned char>(3, 299 % 256)));
}

TEST(RolledFinger, RollIsComposedFromTheMovingBorder) {
    vc::ClRolledFinger rolled;
    const Bitmap background = frames::Uniform(100, 10, 250);
    Bitmap output = frames::Uniform(100, 10, 0);
    EXPECT_EQ(frames::Feed(rolled, {background}, output), "F");
    EXPECT_EQ(rolled.WholeReference(), 500);
    EXPECT_TRUE(frames::SamePixels(output, background));

    // The finger on the left strip starts the roll; then the darkest prefix
    // mean of the first row (just past a dark column at 30) pulls the border
    // to 31 and the columns [0, 31) of that frame are taken.
    Bitmap rolling = frames::Band(100, 10, 0, 30, 120);
    frames::Fill(rolling, 30, 31, 0);
    EXPECT_EQ(frames::Feed(rolled, {frames::Band(100, 10, 0, 40, 120), rolling}, output), "FF");
    EXPECT_EQ(rolled.Borders(), std::vector<unsigned char>(10, 31));
    EXPECT_EQ(frames::Feed(rolled, {background}, output), "T");
    for (long x = 0; x < 100; ++x) {
        EXPECT_EQ(frames::At(output, x, 5), x < 30 ? 120 : x == 30 ? 0 : 250) << x;
    }

    // The output keeps its own size and takes what fits.
    Bitmap small = frames::Uniform(10, 2, 1);
    Bitmap empty;
    Bitmap frame = frames::Uniform(100, 10, 240);
    rolled.Detect(frame, small);  // a new background
    rolled.Detect(frame, empty);
    EXPECT_EQ(frames::At(small, 9, 1), 240);
    EXPECT_TRUE(empty.Empty());
}

TEST(RolledFinger, RowCopiesStayInsideBothImages) {
    vc::ClRolledFinger rolled;
    const Bitmap from = frames::Uniform(20, 4, 9);
    Bitmap to = frames::Uniform(8, 2, 1);
    rolled.CopyBitmapRow(from, to, 1, 2, 200);  // row 1 of `from` lies past `to`
    rolled.CopyBitmapRow(from, to, 7, 0, 5);
    rolled.CopyBitmapRow(from, to, 0, 6, 3);
    EXPECT_TRUE(frames::SamePixels(to, frames::Uniform(8, 2, 1)));
    rolled.CopyBitmapRow(from, to, 0, 2, 200);
    EXPECT_EQ(frames::At(to, 1, 0), 1);
    EXPECT_EQ(frames::At(to, 7, 0), 9);
    EXPECT_EQ(frames::At(to, 3, 1), 9);  // from's stride of 20 reaches into row 1 of `to`

    // Profile copies: rows with their own spans, and one span for all rows.
    Bitmap target = frames::Uniform(20, 4, 1);
    rolled.BitmapProfilCopy(from, target, {0, 2, 5}, {3, 4, 5});
    EXPECT_EQ(frames::At(target, 2, 0), 9);
    EXPECT_EQ(frames::At(target, 3, 0), 1);
    EXPECT_EQ(frames::At(target, 1, 1), 1);
    EXPECT_EQ(frames::At(target, 3, 1), 9);
    EXPECT_EQ(frames::At(target, 5, 2), 1);
    rolled.BitmapProfilCopy(from, target, std::vector<unsigned char>(9, 6),
                            std::vector<unsigned char>(9, 8));  // more borders than rows
    for (long y = 0; y < 4; ++y) {
        EXPECT_EQ(frames::At(target, 7, y), 9);
        EXPECT_EQ(frames::At(target, 8, y), 1);
    }
    Bitmap small = frames::Uniform(8, 2, 1);
    rolled.BitmapProfilCopy(from, small, std::vector<unsigned char>(4, 2),
                            std::vector<unsigned char>(4, 6));
    EXPECT_EQ(frames::At(small, 5, 0), 9);
    EXPECT_EQ(frames::At(small, 5, 1), 1);  // row 1 of `from` lies past `small`
}

}  // namespace
