#include "image/simple_bitmap.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>

#include "base/errors.h"

using Nvk::utilities::ClSimpleBitmap;

namespace {

std::uint32_t PaletteEntry(const ClSimpleBitmap& bmp, int i) {
    std::uint32_t v;
    std::memcpy(&v, bmp.Palette() + 4 * i, 4);
    return v;
}

std::vector<unsigned char> ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::string TempPath(const char* name) {
    return ::testing::TempDir() + name + std::to_string(::getpid()) + ".bmp";
}

int SaveError(const ClSimpleBitmap& bmp, const char* path) {
    try {
        bmp.Save(path);
    } catch (const Nvk::CXSystemException& e) {
        return e.GetErrorNumber();
    }
    return 0;
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

    // BitmapSize counts the header's own biSize, FullSize the constant 40.
    bmp.Header()->biSize = 124;
    EXPECT_EQ(Nvk::vc::BitmapSize(bmp.Header()), 124 + 1024 + 24);
    EXPECT_EQ(ClSimpleBitmap::FullSize(bmp.Header()), 40 + 1024 + 24);
    EXPECT_EQ(Nvk::vc::BitmapSize(nullptr), 0);

    bmp.Header()->biClrUsed = 2;  // a smaller colour table moves the rows
    EXPECT_EQ(bmp.Pixel(), bmp.Data() + 48);
}

TEST(SimpleBitmap, CreateFillsGreyRampsAndMasks) {
    ClSimpleBitmap bmp;
    bmp.Create(4, 4, 8);
    for (int i = 0; i < 256; ++i) {
        ASSERT_EQ(PaletteEntry(bmp, i), static_cast<std::uint32_t>(i * 0x010101));
    }

    // Compression 3: the first mask word holds the low bits.
    bmp.Create(3, 2, 24, 3);
    EXPECT_EQ(bmp.FullSize(), 52 + 2 * 12);
    EXPECT_EQ(PaletteEntry(bmp, 0), 0x0000FFu);
    EXPECT_EQ(PaletteEntry(bmp, 2), 0xFF0000u);
    bmp.Create(3, 2, 24, 0);
    EXPECT_EQ(bmp.FullSize(), 40 + 2 * 12);
}

TEST(SimpleBitmap, EmptyBitmapIsInert) {
    ClSimpleBitmap bmp;
    EXPECT_EQ(bmp.FullSize() + bmp.PixelSize() + bmp.BPRow(), 0);
    EXPECT_EQ(bmp.Pixel(), nullptr);
    EXPECT_EQ(bmp.GetPixel(0, 0), 0u);
    bmp.SetPixel(0, 0, 1);
    bmp.SetWhite();
    bmp.Invert();
    bmp.FlipY();
    bmp.Save(TempPath("never"));
    EXPECT_TRUE(ReadFile(TempPath("never")).empty());
}

TEST(SimpleBitmap, IndexedPixelsMostSignificantBitsFirst) {
    // width, bits, x, colour, byte written in row 1, its value
    const long cases[][6] = {{9, 1, 8, 0xFFFFFF, 1, 0x80},
                             {4, 2, 1, 0xAAAAAA, 0, 0x20},
                             {3, 4, 1, 0x777777, 0, 0x07},
                             {3, 4, 2, 0xFFFFFF, 1, 0xF0},
                             {3, 8, 2, 0x424242, 2, 0x42}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c[1]);
        ClSimpleBitmap bmp;
        bmp.Create(c[0], 2, static_cast<unsigned>(c[1]));
        bmp.SetBlack();
        bmp.SetPixel(c[2], 1, static_cast<std::uint32_t>(c[3]));
        EXPECT_EQ(bmp.Pixel()[bmp.BPRow() + c[4]], c[5]);
        EXPECT_EQ(bmp.GetPixel(c[2], 1), static_cast<std::uint32_t>(c[3]));
        EXPECT_EQ(bmp.GetPixel(c[2] - 1, 1), 0u);
        // Not in the full table: the index would be past what the depth holds.
        bmp.SetPixel(c[2], 1, 0x123456);
        EXPECT_EQ(bmp.Pixel()[bmp.BPRow() + c[4]], c[5]);
    }
}

TEST(SimpleBitmap, ColourMissingFromShortTableTakesNextIndexIfItFits) {
    ClSimpleBitmap bmp;
    bmp.Create(2, 1, 8);
    bmp.Header()->biClrUsed = 2;  // table: 0x000000, 0x010101
    bmp.SetBlack();
    bmp.SetPixel(0, 0, 0x123456);
    EXPECT_EQ(bmp.Pixel()[0], 2);
    // Index 2 has no table entry: read as 0 rather than past the table.
    bmp.Pixel()[1] = 200;
    EXPECT_EQ(bmp.GetPixel(0, 0), 0u);
    EXPECT_EQ(bmp.GetPixel(1, 0), 0u);
}

TEST(SimpleBitmap, DirectColourPixels) {
    const struct {
        unsigned bits, compression;
        long x;
        std::uint32_t colour, stored;  // the pixel's first byte, or its word at 16 bits
    } cases[] = {
        {24, 0, 1, 0x112233, 0x33},  // blue first
        {32, 0, 1, 0xA1B2C3, 0xC3},
        {16, 0, 1, 0xFF0000, 0x7C00},  // default masks: red 0x7C00, green 0x03E0, blue 0x001F
        // Compression 3 reads the masks in stored order: the low bits come first.
        {16, 3, 0, 0xFF0000, 0x001F},
        {32, 3, 0, 0x102030, 0x10},
    };
    ClSimpleBitmap bmp;
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.bits << "/" << c.compression);
        bmp.Create(2, 1, c.bits, c.compression);
        bmp.SetPixel(c.x, 0, c.colour);
        const unsigned char* pixel = bmp.Pixel() + c.x * c.bits / 8;
        EXPECT_EQ(std::uint32_t(c.bits == 16 ? pixel[0] | pixel[1] << 8 : pixel[0]), c.stored);
        EXPECT_EQ(bmp.GetPixel(c.x, 0), c.colour);
    }
    bmp.Create(2, 1, 12);
    EXPECT_EQ(bmp.GetPixel(0, 0), 0xFFFFFFFFu);
}

TEST(SimpleBitmap, MaskData) {
    // mask, shift, bits: only the lowest run counts.
    const std::uint32_t cases[][3] = {
        {0, 32, 0}, {0x03E0, 5, 5}, {0xFFFFFFFF, 0, 32}, {0x0F0F0000, 16, 4}};
    for (const auto& c : cases) {
        int shift = -1, bits = -1;
        ClSimpleBitmap::MaskData(c[0], shift, bits);
        EXPECT_EQ(shift, static_cast<int>(c[1])) << c[0];
        EXPECT_EQ(bits, static_cast<int>(c[2])) << c[0];
    }
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
    const std::string path = TempPath("bad");
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

        // A block whose header was damaged after the fact: not saved, and
        // the whole-image operations touch nothing.
        *bmp.Header() = h;
        bmp.SetWhite();
        bmp.Invert();
        bmp.FlipY();
        EXPECT_EQ(SaveError(bmp, path.c_str()), EINVAL);
        *bmp.Header() = good;
        EXPECT_THROW(bmp.Copy(&h), Nvk::CXMemoryAllocException);
        EXPECT_TRUE(bmp.Empty());
    }
    EXPECT_TRUE(ReadFile(path).empty());

    ClSimpleBitmap bmp;
    EXPECT_THROW(bmp.Create(-1, 5, 8), Nvk::CXMemoryAllocException);
    EXPECT_THROW(bmp.Create(5, 1L << 40, 8), Nvk::CXMemoryAllocException);
    EXPECT_THROW(bmp.Create(100000, 100000, 32), Nvk::CXMemoryAllocException);
    EXPECT_THROW(bmp.Create(5, 5, 70000), Nvk::CXMemoryAllocException);
    EXPECT_TRUE(bmp.Empty());
    bmp.Create(0, 0, 8);  // no rows is still a bitmap
    EXPECT_EQ(bmp.FullSize(), 1064);
}

TEST(SimpleBitmap, SaveWritesBmpFile) {
    ClSimpleBitmap bmp;
    bmp.Create(2, 2, 8);
    bmp.SetResolution(1000, 96);  // stored as pixels per metre, truncated
    EXPECT_EQ(bmp.XPels(), 39369);
    EXPECT_EQ(bmp.YPels(), 3779);
    bmp.Pixel()[5] = 20;
    const std::string path = TempPath("save");
    std::ofstream(path, std::ios::binary) << std::string(5000, 'x');  // truncated by Save
    bmp.Save(path);
    const std::vector<unsigned char> file = ReadFile(path);
    std::remove(path.c_str());
    ASSERT_EQ(file.size(), 14u + 40 + 1024 + 8);
    EXPECT_EQ(std::memcmp(file.data(), "BM\x3E\x04\0\0\0\0\0\0\x36\x04\0\0", 14), 0);
    EXPECT_EQ(std::memcmp(file.data() + 14, bmp.Data(), bmp.FullSize()), 0);

    EXPECT_EQ(SaveError(bmp, "/nonexistent-dir/x.bmp"), ENOENT);
    EXPECT_EQ(SaveError(bmp, nullptr), EINVAL);
}
