// The one image type of the plug-in: a single heap block holding a bitmap
// header, its colour table and the pixel rows (see bitmap_info.h), so that
// the block can be handed to the host or written to a BMP file as it is.
#pragma once

#include <cstdint>
#include <string>

#include "image/bitmap_info.h"
#include "image/rect.h"

namespace Nvk {
namespace utilities {

// Accepted by ClSimpleBitmap::Rescale, which leaves the image alone:
// rescaling belongs to the image processors.
enum eRescaleMode {
    eRescaleNone = 0,
};

class ClSimpleBitmap {
public:
    ClSimpleBitmap() = default;
    ClSimpleBitmap(const ClSimpleBitmap& other);
    ClSimpleBitmap(ClSimpleBitmap&& other) noexcept : m_pBitmap(other.m_pBitmap) {
        other.m_pBitmap = nullptr;
    }
    ClSimpleBitmap& operator=(const ClSimpleBitmap& other);
    ClSimpleBitmap& operator=(ClSimpleBitmap&& other) noexcept;
    ~ClSimpleBitmap() { Clear(); }

    // Frees the block; the bitmap is empty afterwards.
    void Clear();

    // New block of BPRow(width, bitCount) × height bytes of rows plus the
    // header and a colour table of 2^bitCount entries (up to 8 bits) or room
    // for the three masks (compression 3). Pixel bytes are not initialised.
    // Throws Nvk::CXMemoryAllocException when the block cannot be had,
    // including sizes no block can have (negative, depth 0, beyond
    // bitmap::kMaxBlockSize); the bitmap is empty then.
    void Create(long width, long height, unsigned int bitCount, unsigned int compression = 0);

    // Fills the 40 header bytes, and for up to 8 bits the grey ramp, for
    // compression 3 above 8 bits the masks. The room after the header must
    // be there. Out-of-range values are stored truncated to the fields.
    static void FillBI(tagBITMAPINFOHEADER* header, long width, long height, unsigned int bitCount,
                       unsigned int compression);

    // Replaces the block with a copy of FullSize(header) bytes of `header`'s
    // block. A null header clears. A header GetLayout refuses throws
    // Nvk::CXMemoryAllocException (as does a failed allocation) and leaves
    // the bitmap empty. When the current block has the same size it is
    // reused instead of being freed and allocated again.
    void Copy(const tagBITMAPINFOHEADER* header);

    // Like Copy, but only the header and colour table are copied: afterwards
    // the pixel bytes are unspecified and the caller writes all of them.
    // Used by the processors that produce every pixel themselves.
    void CopyFormat(const tagBITMAPINFOHEADER* header);

    // Takes ownership of a block allocated as an array of unsigned char
    // (the current block is freed first; attaching the own block does
    // nothing).
    void Attach(tagBITMAPINFOHEADER* header);
    // Gives the block away; the bitmap is empty and the caller frees the
    // block with FreeBlock.
    tagBITMAPINFOHEADER* Detach();
    // Frees a block obtained from Detach.
    static void FreeBlock(tagBITMAPINFOHEADER* header);

    void Swap(ClSimpleBitmap& other) noexcept;

    bool Empty() const { return m_pBitmap == nullptr; }
    tagBITMAPINFOHEADER* Header() { return m_pBitmap; }
    const tagBITMAPINFOHEADER* Header() const { return m_pBitmap; }
    // The block as bytes, as handed to the host.
    unsigned char* Data() { return reinterpret_cast<unsigned char*>(m_pBitmap); }
    const unsigned char* Data() const { return reinterpret_cast<const unsigned char*>(m_pBitmap); }

    // Header fields (0 when empty).
    long Width() const { return m_pBitmap ? m_pBitmap->biWidth : 0; }
    long Height() const { return m_pBitmap ? m_pBitmap->biHeight : 0; }
    unsigned int BitCount() const { return m_pBitmap ? m_pBitmap->biBitCount : 0; }
    long XPels() const { return m_pBitmap ? m_pBitmap->biXPelsPerMeter : 0; }
    long YPels() const { return m_pBitmap ? m_pBitmap->biYPelsPerMeter : 0; }

    // Padded bytes per row.
    static long BPRow(long width, unsigned int bitCount);
    long BPRow() const;
    // Colour-table entries (or 3 for the masks).
    static long PalSize(const tagBITMAPINFOHEADER* header);
    long PalSize() const { return PalSize(m_pBitmap); }
    // 40 + 4 × PalSize + BPRow × height: the size of the block. 0 for a
    // null header or one GetLayout refuses.
    static long FullSize(const tagBITMAPINFOHEADER* header);
    long FullSize() const { return FullSize(m_pBitmap); }
    // Bytes of all pixel rows; 0 when empty or when the header describes no
    // possible block.
    long PixelSize() const;

    // First pixel row (header + 40 + 4 × PalSize); null when empty.
    static unsigned char* Pixel(tagBITMAPINFOHEADER* header);
    static const unsigned char* Pixel(const tagBITMAPINFOHEADER* header);
    unsigned char* Pixel() { return Pixel(m_pBitmap); }
    const unsigned char* Pixel() const { return Pixel(m_pBitmap); }
    // Colour table (right after the header); null when empty.
    unsigned char* Palette() { return m_pBitmap ? Data() + bitmap::kHeaderSize : nullptr; }
    const unsigned char* Palette() const {
        return m_pBitmap ? Data() + bitmap::kHeaderSize : nullptr;
    }

    // Pixels per metre, stored as given.
    void SetPels(std::int32_t x, std::int32_t y);
    // Dots per inch, stored as pixels per metre (× 39.37, truncated).
    void SetResolution(std::uint32_t xDpi, std::uint32_t yDpi);

    // Fill every pixel byte, padding included, with 0 / 255.
    void SetBlack();
    void SetWhite();
    // Complements every pixel byte, padding included.
    void Invert();
    // Reverses the order of the rows.
    void FlipY();
    // Does nothing.
    void Rescale(eRescaleMode mode);

    // Colour of a pixel as 0x00RRGGBB. Coordinates are not checked. An
    // index past the colour table reads as 0; a depth other than 1, 2, 4,
    // 8, 16, 24 or 32 as 0xFFFFFFFF.
    std::uint32_t GetPixel(long x, long y) const;
    // Writes a pixel; for up to 8 bits the colour must be in the colour
    // table (or the index one past it must fit the depth). Coordinates are
    // not checked.
    void SetPixel(long x, long y, std::uint32_t colour);

    // Lowest set bit of `mask` (32 when empty) and the run of set bits
    // from there (0 when empty).
    static void MaskData(std::uint32_t mask, int& shift, int& bits);

    // Writes a BMP file. Nothing for an empty bitmap. Throws
    // Nvk::CXSystemException with errno when the file cannot be opened or
    // written, and with EINVAL for a null path or a header that describes
    // no possible block (the file is not touched then).
    void Save(const char* path) const;
    void Save(const std::string& path) const { Save(path.c_str()); }

private:
    // Copy (withPixels) and CopyFormat: the block of `header`, or only its
    // header and colour table, into a block of the same full size.
    void CopyBlock(const tagBITMAPINFOHEADER* header, bool withPixels);
    // The three channel masks in reading order (first, second, third).
    void Masks(std::uint32_t masks[3]) const;

    tagBITMAPINFOHEADER* m_pBitmap = nullptr;
};

}  // namespace utilities
}  // namespace Nvk
