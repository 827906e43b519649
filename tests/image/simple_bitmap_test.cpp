#include "image/simple_bitmap.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>

#include "framegrabber/errors.h"

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

// A block holding only a header (plus slack) with the given fields.
struct RawHeader {
    alignas(4) unsigned char bytes[64] = {};
    tagBITMAPINFOHEADER* header() { return reinterpret_cast<tagBITMAPINFOHEADER*>(bytes); }
    RawHeader(std::int32_t w, std::int32_t h, std::uint16_t bits, std::uint32_t clrUsed = 0) {
        header()->biSize = 40;
        header()->biWidth = w;
        header()->biHeight = h;
        header()->biPlanes = 1;
        header()->biBitCount = bits;
        header()->biClrUsed = clrUsed;
    }
};

}  // namespace

TEST(SimpleBitmap, RowAndBlockSizes) {
    EXPECT_EQ(ClSimpleBitmap::BPRow(1, 8), 4);
    EXPECT_EQ(ClSimpleBitmap::BPRow(3, 24), 12);
    EXPECT_EQ(ClSimpleBitmap::BPRow(9, 1), 4);
    EXPECT_EQ(ClSimpleBitmap::BPRow(33, 1), 8);
    EXPECT_EQ(ClSimpleBitmap::BPRow(5, 4), 4);

    ClSimpleBitmap bmp;
    bmp.Create(5, 3, 8, 0);
    EXPECT_EQ(bmp.BPRow(), 8);
    EXPECT_EQ(bmp.PalSize(), 256);
    EXPECT_EQ(bmp.PixelSize(), 24);
    EXPECT_EQ(bmp.FullSize(), 1064 + 24);
    EXPECT_EQ(bmp.Pixel(), bmp.Data() + 1064);
    EXPECT_EQ(bmp.Header()->biSizeImage, 0u);
    EXPECT_EQ(bmp.Header()->biPlanes, 1);

    // BitmapSize counts the header's own biSize, FullSize the constant 40.
    bmp.Header()->biSize = 124;
    EXPECT_EQ(Nvk::vc::BitmapSize(bmp.Header()), 124 + 1024 + 24);
    EXPECT_EQ(ClSimpleBitmap::FullSize(bmp.Header()), 40 + 1024 + 24);
    EXPECT_EQ(Nvk::vc::BitmapPal(bmp.Header()), 256);
    EXPECT_EQ(Nvk::vc::BitmapBPR(bmp.Header()), 8);
    EXPECT_EQ(Nvk::vc::BitmapSize(nullptr), 0);

    bmp.Header()->biClrUsed = 2;  // a smaller colour table moves the rows
    EXPECT_EQ(bmp.PalSize(), 2);
    EXPECT_EQ(bmp.Pixel(), bmp.Data() + 48);
}

TEST(SimpleBitmap, CreateFillsGreyRampsAndMasks) {
    ClSimpleBitmap bmp;
    bmp.Create(4, 4, 8);
    for (int i = 0; i < 256; ++i) {
        ASSERT_EQ(PaletteEntry(bmp, i), static_cast<std::uint32_t>(i * 0x010101));
    }
    bmp.Create(4, 4, 4);
    EXPECT_EQ(bmp.PalSize(), 16);
    EXPECT_EQ(PaletteEntry(bmp, 1), 0x111111u);
    EXPECT_EQ(PaletteEntry(bmp, 15), 0xFFFFFFu);
    bmp.Create(4, 4, 1);
    EXPECT_EQ(PaletteEntry(bmp, 0), 0u);
    EXPECT_EQ(PaletteEntry(bmp, 1), 0xFFFFFFu);

    // Compression 3: the first mask word holds the low bits.
    bmp.Create(3, 2, 24, 3);
    EXPECT_EQ(bmp.PalSize(), 3);
    EXPECT_EQ(bmp.FullSize(), 52 + 2 * 12);
    EXPECT_EQ(PaletteEntry(bmp, 0), 0x0000FFu);
    EXPECT_EQ(PaletteEntry(bmp, 1), 0x00FF00u);
    EXPECT_EQ(PaletteEntry(bmp, 2), 0xFF0000u);
    bmp.Create(3, 2, 16, 3);
    EXPECT_EQ(PaletteEntry(bmp, 0), 0x001Fu);
    EXPECT_EQ(PaletteEntry(bmp, 2), 0x7C00u);
    bmp.Create(3, 2, 24, 0);
    EXPECT_EQ(bmp.PalSize(), 0);
    EXPECT_EQ(bmp.FullSize(), 40 + 2 * 12);
}

TEST(SimpleBitmap, EmptyBitmapIsInert) {
    ClSimpleBitmap bmp;
    EXPECT_TRUE(bmp.Empty());
    EXPECT_EQ(bmp.Width(), 0);
    EXPECT_EQ(bmp.BPRow(), 0);
    EXPECT_EQ(bmp.PixelSize(), 0);
    EXPECT_EQ(bmp.FullSize(), 0);
    EXPECT_EQ(bmp.Pixel(), nullptr);
    EXPECT_EQ(bmp.Palette(), nullptr);
    EXPECT_EQ(bmp.GetPixel(0, 0), 0u);
    bmp.SetPixel(0, 0, 1);
    bmp.SetPels(1, 2);
    bmp.SetWhite();
    bmp.Invert();
    bmp.FlipY();
    bmp.Save(TempPath("never"));
    EXPECT_TRUE(ReadFile(TempPath("never")).empty());
}

TEST(SimpleBitmap, Resolution) {
    ClSimpleBitmap bmp;
    bmp.Create(2, 2, 8);
    bmp.SetResolution(500, 500);
    EXPECT_EQ(bmp.XPels(), 19684);
    EXPECT_EQ(bmp.YPels(), 19684);
    bmp.SetResolution(1000, 96);
    EXPECT_EQ(bmp.XPels(), 39369);
    EXPECT_EQ(bmp.YPels(), 3779);
    bmp.SetPels(-5, 7);
    EXPECT_EQ(bmp.XPels(), -5);
    EXPECT_EQ(bmp.YPels(), 7);
}

TEST(SimpleBitmap, IndexedPixelsMostSignificantBitsFirst) {
    ClSimpleBitmap bmp;
    bmp.Create(9, 2, 1);
    bmp.SetBlack();
    bmp.SetPixel(0, 1, 0xFFFFFF);
    bmp.SetPixel(8, 1, 0xFFFFFF);
    EXPECT_EQ(bmp.Pixel()[4], 0x80);
    EXPECT_EQ(bmp.Pixel()[5], 0x80);
    EXPECT_EQ(bmp.GetPixel(8, 1), 0xFFFFFFu);
    EXPECT_EQ(bmp.GetPixel(7, 1), 0u);

    bmp.Create(4, 1, 2);  // ramp 0, 85, 170, 255
    bmp.SetBlack();
    bmp.SetPixel(1, 0, 0xAAAAAA);
    EXPECT_EQ(bmp.Pixel()[0], 0x20);
    EXPECT_EQ(bmp.GetPixel(1, 0), 0xAAAAAAu);

    bmp.Create(3, 1, 4);
    bmp.SetBlack();
    bmp.SetPixel(1, 0, 0x777777);
    bmp.SetPixel(2, 0, 0xFFFFFF);
    EXPECT_EQ(bmp.Pixel()[0], 0x07);
    EXPECT_EQ(bmp.Pixel()[1], 0xF0);
    EXPECT_EQ(bmp.GetPixel(2, 0), 0xFFFFFFu);

    bmp.Create(3, 3, 8);
    bmp.SetBlack();
    bmp.SetPixel(2, 1, 0x424242);
    EXPECT_EQ(bmp.Pixel()[bmp.BPRow() + 2], 0x42);
    EXPECT_EQ(bmp.GetPixel(2, 1), 0x424242u);
    // Not in the full table: the index would be 256, which does not fit.
    bmp.SetPixel(2, 1, 0x123456);
    EXPECT_EQ(bmp.Pixel()[bmp.BPRow() + 2], 0x42);
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
    ClSimpleBitmap bmp;
    bmp.Create(2, 1, 24);
    bmp.SetPixel(1, 0, 0x112233);
    EXPECT_EQ(bmp.Pixel()[3], 0x33);  // blue first
    EXPECT_EQ(bmp.Pixel()[5], 0x11);
    EXPECT_EQ(bmp.GetPixel(1, 0), 0x112233u);

    bmp.Create(2, 1, 32);
    bmp.SetPixel(1, 0, 0xA1B2C3);
    EXPECT_EQ(bmp.Pixel()[4], 0xC3);
    EXPECT_EQ(bmp.Pixel()[6], 0xA1);
    EXPECT_EQ(bmp.GetPixel(1, 0), 0xA1B2C3u);

    // 16 bits, default masks: red 0x7C00, green 0x03E0, blue 0x001F.
    bmp.Create(2, 1, 16);
    bmp.SetPixel(1, 0, 0xFF0000);
    EXPECT_EQ(bmp.Pixel()[2] | bmp.Pixel()[3] << 8, 0x7C00);
    EXPECT_EQ(bmp.GetPixel(1, 0), 0xFF0000u);
    bmp.SetPixel(0, 0, 0x00FF00);
    EXPECT_EQ(bmp.Pixel()[0] | bmp.Pixel()[1] << 8, 0x03E0);

    // Compression 3 reads the masks in stored order: the low bits come first.
    bmp.Create(2, 1, 16, 3);
    bmp.SetPixel(0, 0, 0xFF0000);
    EXPECT_EQ(bmp.Pixel()[0] | bmp.Pixel()[1] << 8, 0x001F);
    EXPECT_EQ(bmp.GetPixel(0, 0), 0xFF0000u);
    bmp.Create(1, 1, 32, 3);
    bmp.SetPixel(0, 0, 0x102030);
    EXPECT_EQ(bmp.Pixel()[0], 0x10);
    EXPECT_EQ(bmp.Pixel()[2], 0x30);
    EXPECT_EQ(bmp.GetPixel(0, 0), 0x102030u);

    bmp.Create(2, 1, 12);
    EXPECT_EQ(bmp.GetPixel(0, 0), 0xFFFFFFFFu);
}

TEST(SimpleBitmap, MaskData) {
    int shift = -1, bits = -1;
    ClSimpleBitmap::MaskData(0, shift, bits);
    EXPECT_EQ(shift, 32);
    EXPECT_EQ(bits, 0);
    ClSimpleBitmap::MaskData(0x03E0, shift, bits);
    EXPECT_EQ(shift, 5);
    EXPECT_EQ(bits, 5);
    ClSimpleBitmap::MaskData(0xFFFFFFFF, shift, bits);
    EXPECT_EQ(shift, 0);
    EXPECT_EQ(bits, 32);
    ClSimpleBitmap::MaskData(0x0F0F0000, shift, bits);  // only the lowest run counts
    EXPECT_EQ(shift, 16);
    EXPECT_EQ(bits, 4);
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
    EXPECT_EQ(bmp.Pixel()[11], 252);
    EXPECT_EQ(bmp.Pixel()[3], 244);
    bmp.SetWhite();
    EXPECT_EQ(bmp.Pixel()[3], 255);
    bmp.SetBlack();
    EXPECT_EQ(bmp.Pixel()[11], 0);
    const unsigned char ramp1 = bmp.Palette()[4];
    EXPECT_EQ(ramp1, 1);  // colour table untouched

    bmp.Create(1, 2, 8);
    bmp.Pixel()[0] = 1;
    bmp.Pixel()[4] = 2;
    bmp.FlipY();
    EXPECT_EQ(bmp.Pixel()[0], 2);
    EXPECT_EQ(bmp.Pixel()[4], 1);
}

TEST(SimpleBitmap, CopyAssignmentAndBlockReuse) {
    ClSimpleBitmap a;
    a.Create(5, 4, 8);
    for (long i = 0; i < a.PixelSize(); ++i) {
        a.Pixel()[i] = static_cast<unsigned char>(i * 7);
    }
    ClSimpleBitmap b(a);
    ASSERT_EQ(b.FullSize(), a.FullSize());
    EXPECT_NE(b.Data(), a.Data());
    EXPECT_EQ(std::memcmp(b.Data(), a.Data(), a.FullSize()), 0);

    // Same size: the block is kept and overwritten.
    const unsigned char* block = b.Data();
    a.Pixel()[0] = 99;
    b = a;
    EXPECT_EQ(b.Data(), block);
    EXPECT_EQ(b.Pixel()[0], 99);

    // Another size: a new block.
    ClSimpleBitmap c;
    c.Create(7, 7, 24);
    b = c;
    EXPECT_EQ(b.Width(), 7);
    EXPECT_EQ(b.BitCount(), 24u);
    EXPECT_EQ(std::memcmp(b.Data(), c.Data(), c.FullSize()), 0);

    const ClSimpleBitmap& alias = b;
    b = alias;  // self-assignment keeps the image
    EXPECT_EQ(b.Width(), 7);
    b.Copy(b.Header());
    EXPECT_EQ(b.Width(), 7);

    b = ClSimpleBitmap();  // an empty source clears
    EXPECT_TRUE(b.Empty());
    c.Copy(nullptr);
    EXPECT_TRUE(c.Empty());

    ClSimpleBitmap moved(std::move(a));
    EXPECT_TRUE(a.Empty());
    EXPECT_EQ(moved.Pixel()[0], 99);
}

TEST(SimpleBitmap, AttachAndDetachPassOwnership) {
    ClSimpleBitmap a;
    a.Create(2, 2, 8);
    tagBITMAPINFOHEADER* block = a.Detach();
    EXPECT_TRUE(a.Empty());
    {
        ClSimpleBitmap b;
        b.Create(3, 3, 8);
        b.Attach(block);  // frees b's own block
        EXPECT_EQ(b.Header(), block);
        b.Attach(block);  // attaching the own block changes nothing
        EXPECT_EQ(b.Width(), 2);
        block = b.Detach();
    }
    EXPECT_EQ(block->biWidth, 2);  // still alive: Detach left it to us
    ClSimpleBitmap::FreeBlock(block);
}

TEST(SimpleBitmap, ImpossibleHeadersAreRefused) {
    const RawHeader bad[] = {
        RawHeader(-1, 10, 8),
        RawHeader(10, -1, 8),
        RawHeader(0x7FFFFFFF, 0x7FFFFFFF, 32),
        RawHeader(65536, 65536, 8),  // 4 GiB of rows
        RawHeader(10, 10, 24, 0xFFFFFFFF),
        RawHeader(1, 1, 8, 257),
        RawHeader(10, 10, 0),
        RawHeader(0x7FFFFFFF, 1, 0xFFFF),
    };
    const std::string path = TempPath("bad");
    for (RawHeader h : bad) {
        SCOPED_TRACE(testing::Message() << h.header()->biWidth << "x" << h.header()->biHeight << "x"
                                        << h.header()->biBitCount);
        EXPECT_EQ(ClSimpleBitmap::FullSize(h.header()), 0);
        ClSimpleBitmap bmp;
        bmp.Create(2, 2, 8);
        EXPECT_THROW(bmp.Copy(h.header()), Nvk::CXMemoryAllocException);
        EXPECT_TRUE(bmp.Empty());

        // A block whose header was damaged after the fact: not saved, and
        // the whole-image operations touch nothing.
        bmp.Create(2, 2, 8);
        const tagBITMAPINFOHEADER good = *bmp.Header();
        *bmp.Header() = *h.header();
        bmp.SetWhite();
        bmp.Invert();
        bmp.FlipY();
        try {
            bmp.Save(path);
            ADD_FAILURE() << "saved";
        } catch (const Nvk::CXSystemException& e) {
            EXPECT_EQ(e.GetErrorNumber(), EINVAL);
        }
        *bmp.Header() = good;
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
    bmp.SetResolution(500, 500);
    bmp.Pixel()[0] = 10;
    bmp.Pixel()[5] = 20;
    const std::string path = TempPath("save");
    {
        std::ofstream old(path, std::ios::binary);
        old << std::string(5000, 'x');  // an existing file is truncated
    }
    bmp.Save(path);
    const std::vector<unsigned char> file = ReadFile(path);
    std::remove(path.c_str());
    ASSERT_EQ(file.size(), 14u + 40 + 1024 + 8);
    auto u32 = [&](size_t at) {
        return file[at] | file[at + 1] << 8 | file[at + 2] << 16 | file[at + 3] << 24;
    };
    EXPECT_EQ(file[0], 'B');
    EXPECT_EQ(file[1], 'M');
    EXPECT_EQ(u32(2), 1086);
    EXPECT_EQ(u32(6), 0);
    EXPECT_EQ(u32(10), 1078);
    EXPECT_EQ(std::memcmp(file.data() + 14, bmp.Data(), bmp.FullSize()), 0);

    try {
        bmp.Save("/nonexistent-dir/x.bmp");
        ADD_FAILURE() << "saved";
    } catch (const Nvk::CXSystemException& e) {
        EXPECT_EQ(e.GetErrorNumber(), ENOENT);
    }
    EXPECT_THROW(bmp.Save(static_cast<const char*>(nullptr)), Nvk::CXSystemException);
}

TEST(Geometry, RectsAndSizes) {
    const Nvk::CLRect r(10, 20, 50, 80);  // top, left, bottom, right
    EXPECT_EQ(r.top, 10);
    EXPECT_EQ(r.left, 20);
    EXPECT_EQ(r.bottom, 50);
    EXPECT_EQ(r.Width(), 60);
    EXPECT_EQ(r.Height(), 40);
    const Nvk::CLSize s(r);
    EXPECT_EQ(s.width, 60);
    EXPECT_EQ(s.height, 40);
    const Nvk::ClRect c;
    EXPECT_EQ(c.Left() | c.Top() | c.Right() | c.Bottom(), 0);
}
