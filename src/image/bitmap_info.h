// The in-memory bitmap header shared by the image code, the device layer, the
// calibration binding and the detectors, and the size arithmetic on a bare
// header.
//
// A bitmap block is laid out as a device-independent bitmap: the 40-byte
// header, then the colour table (4 bytes per entry: blue, green, red, 0; for
// compression 3 and more than 8 bits per pixel three 32-bit masks), then the
// pixel rows, each padded to a multiple of 4 bytes, row 0 first.
#pragma once

#include <cstddef>
#include <cstdint>

struct tagBITMAPINFOHEADER {
    std::uint32_t biSize;  // 40
    std::int32_t biWidth;
    std::int32_t biHeight;
    std::uint16_t biPlanes;  // 1
    std::uint16_t biBitCount;
    std::uint32_t biCompression;  // 3: bit-field masks follow the header
    std::uint32_t biSizeImage;
    std::int32_t biXPelsPerMeter;
    std::int32_t biYPelsPerMeter;
    std::uint32_t biClrUsed;
    std::uint32_t biClrImportant;
};
typedef tagBITMAPINFOHEADER BITMAPINFOHEADER;

static_assert(sizeof(tagBITMAPINFOHEADER) == 40, "the bitmap header is 40 bytes without gaps");
static_assert(offsetof(tagBITMAPINFOHEADER, biWidth) == 4, "bitmap header layout");
static_assert(offsetof(tagBITMAPINFOHEADER, biHeight) == 8, "bitmap header layout");
static_assert(offsetof(tagBITMAPINFOHEADER, biPlanes) == 12, "bitmap header layout");
static_assert(offsetof(tagBITMAPINFOHEADER, biBitCount) == 14, "bitmap header layout");
static_assert(offsetof(tagBITMAPINFOHEADER, biCompression) == 16, "bitmap header layout");
static_assert(offsetof(tagBITMAPINFOHEADER, biSizeImage) == 20, "bitmap header layout");
static_assert(offsetof(tagBITMAPINFOHEADER, biXPelsPerMeter) == 24, "bitmap header layout");
static_assert(offsetof(tagBITMAPINFOHEADER, biYPelsPerMeter) == 28, "bitmap header layout");
static_assert(offsetof(tagBITMAPINFOHEADER, biClrUsed) == 32, "bitmap header layout");
static_assert(offsetof(tagBITMAPINFOHEADER, biClrImportant) == 36, "bitmap header layout");

namespace Nvk {

namespace bitmap {

constexpr std::uint32_t kCompressionRGB = 0;
constexpr std::uint32_t kCompressionBitFields = 3;
constexpr std::int64_t kHeaderSize = 40;

// Largest block a bitmap may have: a BMP file stores its size in 32 bits and
// no scanner image comes anywhere near it.
constexpr std::int64_t kMaxBlockSize = 0x7FFFFFFF;
// Largest colour table: an index of at most 8 bits addresses 256 entries.
constexpr std::int64_t kMaxPaletteEntries = 256;

// Sizes of a block described by a header, all in bytes except the entries.
struct Layout {
    std::int64_t rowBytes = 0;        // one padded row
    std::int64_t paletteEntries = 0;  // colour-table entries (or 3 masks)
    std::int64_t pixelBytes = 0;      // all rows
    std::int64_t fullSize = 0;        // 40 + colour table + rows
};

// Padded row length: ((width × bitCount + 7) / 8 + 3) rounded down to a
// multiple of 4. Exact in 64 bits for every header value.
inline std::int64_t RowBytes(std::int32_t width, std::uint32_t bitCount) {
    std::int64_t bytes = (static_cast<std::int64_t>(width) * bitCount + 7) / 8 + 3;
    return bytes - bytes % 4;
}

// Colour-table entries: biClrUsed, or 2^bitCount up to 8 bits; 3 masks for
// compression 3 above 8 bits.
inline std::int64_t PaletteEntries(const tagBITMAPINFOHEADER& header) {
    if (header.biBitCount <= 8) {
        return header.biClrUsed != 0 ? header.biClrUsed : (std::int64_t{1} << header.biBitCount);
    }
    return header.biCompression == kCompressionBitFields ? 3 : header.biClrUsed;
}

// Fills `layout` and returns true when the header describes a block this
// system can hold: width and height not negative, a depth of at least one
// bit, at most kMaxPaletteEntries colours and at most kMaxBlockSize bytes in
// all. Otherwise returns false and leaves `layout` as it was.
bool GetLayout(const tagBITMAPINFOHEADER& header, Layout& layout);

}  // namespace bitmap

// Size arithmetic on a bare header. Note for code inside namespace Nvk: there
// `vc::` names this namespace, not the framework's ::vc.
namespace vc {

// Colour-table entries of the header (0 for a null header).
long BitmapPal(const tagBITMAPINFOHEADER* header);
// Padded bytes per row (0 for a null header).
long BitmapBPR(const tagBITMAPINFOHEADER* header);
// biSize + rows + colour table. Unlike ClSimpleBitmap::FullSize it counts the
// header's own biSize. 0 for a null header or one GetLayout refuses.
long BitmapSize(const tagBITMAPINFOHEADER* header);

}  // namespace vc

}  // namespace Nvk
