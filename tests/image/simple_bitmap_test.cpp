#include "image/simple_bitmap.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "base/errors.h"

using Nvk::utilities::ClSimpleBitmap;

namespace {

std::uint32_t PaletteEntry(const ClSimpleBitmap& bmp, int i) {
    std::uint32_t v;
    std::memcpy(&v, bmp.Palette() + 4 * i, 4);
    return v;
}

}  // namespace

TEST(SimpleBitmap, RowAndBlockSizes) {
    const long rows[][3] = {{1, 8, 4}, {3, 24, 12}, {9, 1, 4}, {33, 1, 8}, {5, 4, 4}};
    for (const auto& r : rows) {
        EXPECT_EQ(ClSimpleBitmap::BPRow(r[0], static_cast<unsigned>(r[1])), r[2]) << r[0];
    }
    ClSimpleBitmap bmp;
    bmp.Create(5, 3, 8, 0);
    EXPECT_EQ(bmp.PixelSize(), 24);
    EXPECT_EQ(bmp.FullSize(), 1064 + 24);
    EXPECT_EQ(bmp.Pixel(), bmp.Data() + 1064);
    bmp.SetResolution(1000, 96);  // stored as pixels per metre, truncated
    EXPECT_EQ(bmp.XPels(), 39369);
    EXPECT_EQ(bmp.YPels(), 3779);

    // BitmapSize counts the header's own biSize, FullSize the constant 40.
    bmp.Header()->biSize = 124;
    EXPECT_EQ(Nvk::vc::BitmapSize(bmp.Header()), 124 + 1024 + 24);
    EXPECT_EQ(ClSimpleBitmap::FullSize(bmp.Header()), 40 + 1024 + 24);
    EXPECT_EQ(Nvk::vc::BitmapSize(nullptr), 0);

    bmp.Header()->biClrUsed = 2;  // a smaller colour table moves the rows
    EXPECT_EQ(bmp.Pixel(), bmp.Data() + 48);
}

TEST(SimpleBitmap, CreateFillsAGreyRamp) {
    ClSimpleBitmap bmp;
    bmp.Create(4, 4, 8);
    for (int i = 0; i < 256; ++i) {
        ASSERT_EQ(PaletteEntry(bmp, i), static_cast<std::uint32_t>(i * 0x010101));
    }
}

TEST(SimpleBitmap, EmptyBitmapIsInert) {
    ClSimpleBitmap bmp;
    EXPECT_EQ(bmp.FullSize() + bmp.PixelSize() + bmp.BPRow(), 0);
    EXPECT_EQ(bmp.Pixel(), nullptr);
    bmp.SetWhite();
    bmp.Invert();
    bmp.FlipY();
}

TEST(SimpleBitmap, WholeImageOperationsIncludePadding) {
    ClSimpleBitmap bmp;
    bmp.Create(3, 3, 8);  // 4 bytes per row, one of them padding
    for (int i = 0; i < 12; ++i) {
        bmp.Pixel()[i] = static_cast<unsigned char>(i);
    }
    bmp.FlipY();
    const unsigned char flipped[12] = {8, 9, 10, 11, 4, 5, 6, 7, 0, 1, 2, 3};
    EXPECT_EQ(std::memcmp(bmp.Pixel(), flipped, 12), 0);
    bmp.Invert();
    EXPECT_EQ(bmp.Pixel()[3], 244);
    bmp.SetWhite();
    EXPECT_EQ(bmp.Pixel()[3], 255);
    EXPECT_EQ(bmp.Palette()[4], 1);  // colour table untouched
}

TEST(SimpleBitmap, CopyAssignmentAndBlockReuse) {
    ClSimpleBitmap a;
    a.Create(5, 4, 8);
    for (long i = 0; i < a.PixelSize(); ++i) {
        a.Pixel()[i] = static_cast<unsigned char>(i * 7);
    }
    ClSimpleBitmap b(a);
    ASSERT_NE(b.Data(), a.Data());
    EXPECT_EQ(std::memcmp(b.Data(), a.Data(), a.FullSize()), 0);

    // Same size: the block is kept and overwritten.
    const unsigned char* block = b.Data();
    a.Pixel()[0] = 99;
    b = a;
    EXPECT_EQ(b.Data(), block);
    EXPECT_EQ(b.Pixel()[0], 99);

    const ClSimpleBitmap& alias = b;
    b = alias;  // self-assignment keeps the image
    b.Copy(b.Header());
    EXPECT_EQ(b.Pixel()[0], 99);
    b = ClSimpleBitmap();  // an empty source clears
    EXPECT_TRUE(b.Empty());
}

TEST(SimpleBitmap, AttachAndDetachPassOwnership) {
    ClSimpleBitmap a;
    a.Create(2, 2, 8);
    ClSimpleBitmap b;
    b.Create(3, 3, 8);
    b.Attach(a.Detach());  // frees b's own block
    b.Attach(b.Header());  // attaching the own block changes nothing
    EXPECT_TRUE(a.Empty());
    EXPECT_EQ(b.Width(), 2);
    ClSimpleBitmap::FreeBlock(b.Detach());  // Detach left the block to us
}

TEST(SimpleBitmap, ImpossibleHeadersAreRefused) {
    // width, height, bits, biClrUsed
    const std::int64_t bad[][4] = {{-1, 10, 8, 0},
                                   {10, -1, 8, 0},
                                   {0x7FFFFFFF, 0x7FFFFFFF, 32, 0},
                                   {65536, 65536, 8, 0},
                                   {10, 10, 24, 0xFFFFFFFF},
                                   {1, 1, 8, 257},
                                   {10, 10, 0, 0},
                                   {0x7FFFFFFF, 1, 0xFFFF, 0}};
    for (const auto& b : bad) {
        SCOPED_TRACE(testing::Message() << b[0] << "x" << b[1] << "x" << b[2]);
        ClSimpleBitmap bmp;
        bmp.Create(2, 2, 8);
        const tagBITMAPINFOHEADER good = *bmp.Header();
        tagBITMAPINFOHEADER h = good;
        h.biWidth = static_cast<std::int32_t>(b[0]);
        h.biHeight = static_cast<std::int32_t>(b[1]);
        h.biBitCount = static_cast<std::uint16_t>(b[2]);
        h.biClrUsed = static_cast<std::uint32_t>(b[3]);
        EXPECT_EQ(ClSimpleBitmap::FullSize(&h), 0);

        // A block whose header was damaged after the fact: the whole-image
        // operations touch nothing.
        *bmp.Header() = h;
        bmp.SetWhite();
        bmp.Invert();
        bmp.FlipY();
        *bmp.Header() = good;
        EXPECT_THROW(bmp.Copy(&h), Nvk::CXMemoryAllocException);
        EXPECT_TRUE(bmp.Empty());
    }

    ClSimpleBitmap bmp;
    EXPECT_THROW(bmp.Create(-1, 5, 8), Nvk::CXMemoryAllocException);
    EXPECT_THROW(bmp.Create(5, 1L << 40, 8), Nvk::CXMemoryAllocException);
    EXPECT_THROW(bmp.Create(100000, 100000, 32), Nvk::CXMemoryAllocException);
    EXPECT_THROW(bmp.Create(5, 5, 70000), Nvk::CXMemoryAllocException);
    EXPECT_TRUE(bmp.Empty());
    bmp.Create(0, 0, 8);  // no rows is still a bitmap
    EXPECT_EQ(bmp.FullSize(), 1064);
}
