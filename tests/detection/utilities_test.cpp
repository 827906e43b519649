#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>

#include "detection/bitmap_utilities.h"
#include "frames.h"

namespace {

using frames::Bitmap;
using vc::ClBitmapUtilities;
using vc::ClFingerUtilities;

TEST(GrayUtilities, SumAndAverageCountPixelsNotPadding) {
    Bitmap image = frames::Uniform(5, 3, 100);  // 3 padding bytes per row
    for (long y = 0; y < 3; ++y) {
        std::memset(frames::Row(image, y) + 5, 255, 3);
    }
    EXPECT_EQ(ClBitmapUtilities::Gray_Sum(image), 1500);
    EXPECT_EQ(ClBitmapUtilities::Gray_Avarage(image), 100);
    EXPECT_EQ(ClBitmapUtilities::Gray_Avarage(image, 0, 5), 100);
    EXPECT_EQ(ClBitmapUtilities::Gray_Sum(Bitmap()), 0);
    EXPECT_EQ(ClBitmapUtilities::Gray_Avarage(Bitmap()), 0);
    EXPECT_EQ(ClBitmapUtilities::Gray_Avarage(image, 3, 3), 0);  // empty strips
    EXPECT_EQ(ClBitmapUtilities::Gray_Avarage(image, 4, 2), 0);
}

TEST(GrayUtilities, StripStartsAtTwiceItsFirstColumnAndStopsAtTheLastRow) {
    Bitmap image = frames::Uniform(40, 3, 10);
    for (long x = 0; x < 8; ++x) {
        frames::Row(image, 0)[x] = static_cast<unsigned char>(x);
    }
    // [2, 4) reads bytes 4 and 5 of each row: (4 + 5 + 10 + 10 + 10 + 10) / 6.
    EXPECT_EQ(ClBitmapUtilities::Gray_Avarage(image, 2, 4), 8);

    std::memset(frames::Row(image, 1), 20, 40);
    std::memset(frames::Row(image, 2), 30, 40);
    // [10, 40) starts at byte 20: row 0 reads 20 × 10 + 10 × 20, row 1 reads
    // 20 × 20 + 10 × 30, row 2 reads its last 20 bytes (600) and nothing past
    // the rows: 1700 over the 80 bytes read.
    EXPECT_EQ(ClBitmapUtilities::Gray_Avarage(image, 10, 40), 21);
}

TEST(FingerUtilities, ReferenceTestNeedsTwentyLevelsOfDarkening) {
    ClFingerUtilities utilities;
    Bitmap image = frames::Uniform(100, 10, 200);
    for (auto area : {ClFingerUtilities::eAreaRight, ClFingerUtilities::eAreaLeft,
                      ClFingerUtilities::eAreaFull}) {
        EXPECT_TRUE(utilities.IsFinger(image, 220, area)) << area;
        EXPECT_FALSE(utilities.IsFinger(image, 219, area)) << area;
    }
    // Only the strip counts: a dark left strip is not seen by the full-width test.
    frames::Fill(image, 0, 30, 100);
    EXPECT_TRUE(utilities.IsFinger(image, 200, ClFingerUtilities::eAreaLeft));
    EXPECT_FALSE(utilities.IsFinger(image, 188, ClFingerUtilities::eAreaFull));
}

// 500 dpi: blocks of 10 pixels, so a 30-column strip has 3 blocks and one
// block with contrast is enough, provided the strip is bright (sum > 7267).
// The first block of every row holds `block`, the rest of the strip is 255.
bool LeftStripIsFinger(std::initializer_list<unsigned char> block, long pels = 19684) {
    Bitmap image = frames::Uniform(100, 40, 255);
    image.SetPels(pels, pels);
    for (long y = 0; y < 40; ++y) {
        std::copy(block.begin(), block.end(), frames::Row(image, y));
    }
    return ClFingerUtilities().IsFinger(image, ClFingerUtilities::eAreaLeft);
}

TEST(FingerUtilities, TextureTest) {
    // A rising block has contrast (min 180, max 254).
    EXPECT_TRUE(LeftStripIsFinger({180, 246, 247, 248, 249, 250, 251, 252, 253, 254}));
    // A pixel that becomes the minimum is never compared with the maximum, so
    // the same pixels falling show none.
    EXPECT_FALSE(LeftStripIsFinger({254, 253, 252, 251, 250, 249, 248, 247, 246, 180}));
    // Blank platen: no contrast. Dark strip: contrast but not bright enough.
    EXPECT_FALSE(LeftStripIsFinger({255}));
    EXPECT_FALSE(LeftStripIsFinger({100, 200, 200, 200, 200, 200, 200, 200}));
    // Under one pixel per 0.55 mm, or no resolution at all: not measured.
    EXPECT_FALSE(LeftStripIsFinger({180, 255}, 1818));
    EXPECT_FALSE(LeftStripIsFinger({180, 255}, 0));
}

TEST(FingerUtilities, TextureTestStaysInsideThePixels) {
    ClFingerUtilities utilities;
    EXPECT_FALSE(utilities.IsFinger(Bitmap(), ClFingerUtilities::eAreaFull));
    // Rows of a single-row image and blocks past the rows.
    Bitmap line = frames::Uniform(20, 1, 255);
    line.SetResolution(1000, 1000);
    EXPECT_FALSE(utilities.IsFinger(line, ClFingerUtilities::eAreaRight));
}

}  // namespace
