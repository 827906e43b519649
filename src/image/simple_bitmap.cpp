#include "image/simple_bitmap.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <new>

#include "base/errors.h"
#include "base/framegrabber.h"

namespace Nvk {
namespace utilities {

namespace {

unsigned char* Bytes(tagBITMAPINFOHEADER* header) {
    return reinterpret_cast<unsigned char*>(header);
}

const unsigned char* Bytes(const tagBITMAPINFOHEADER* header) {
    return reinterpret_cast<const unsigned char*>(header);
}

std::uint32_t ReadU32(const unsigned char* p) {
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

void WriteU32(unsigned char* p, std::uint32_t v) {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
    p[2] = static_cast<unsigned char>(v >> 16);
    p[3] = static_cast<unsigned char>(v >> 24);
}

// Channel value under `mask`, scaled to 8 bits.
std::uint32_t ExtractChannel(std::uint32_t pixel, std::uint32_t mask) {
    int shift = 0;
    int bits = 0;
    ClSimpleBitmap::MaskData(mask, shift, bits);
    if (bits == 0) {
        return 0;
    }
    const std::uint64_t maxValue = (std::uint64_t{1} << bits) - 1;
    const std::uint64_t value = (static_cast<std::uint64_t>(pixel) >> shift) & maxValue;
    if (bits >= 8) {
        return static_cast<std::uint32_t>(value >> (bits - 8));
    }
    return static_cast<std::uint32_t>((value * 255 + maxValue / 2) / maxValue);
}

// An 8-bit channel value placed under `mask`.
std::uint32_t PlaceChannel(std::uint32_t value8, std::uint32_t mask) {
    int shift = 0;
    int bits = 0;
    ClSimpleBitmap::MaskData(mask, shift, bits);
    if (bits == 0) {
        return 0;
    }
    const std::uint64_t value = bits >= 8 ? static_cast<std::uint64_t>(value8) << (bits - 8)
                                          : static_cast<std::uint64_t>(value8) >> (8 - bits);
    return static_cast<std::uint32_t>((value << shift) & mask);
}

unsigned char* AllocateBlock(std::int64_t size) {
    return new (std::nothrow) unsigned char[static_cast<std::size_t>(size)];
}

}  // namespace

ClSimpleBitmap::ClSimpleBitmap(const ClSimpleBitmap& other) {
    Copy(other.m_pBitmap);
}

ClSimpleBitmap& ClSimpleBitmap::operator=(const ClSimpleBitmap& other) {
    if (this != &other) {
        Copy(other.m_pBitmap);  // an empty source clears
    }
    return *this;
}

ClSimpleBitmap& ClSimpleBitmap::operator=(ClSimpleBitmap&& other) noexcept {
    if (this != &other) {
        Clear();
        m_pBitmap = other.m_pBitmap;
        other.m_pBitmap = nullptr;
    }
    return *this;
}

void ClSimpleBitmap::Clear() {
    delete[] Bytes(m_pBitmap);
    m_pBitmap = nullptr;
}

void ClSimpleBitmap::Create(long width, long height, unsigned int bitCount,
                            unsigned int compression) {
    Clear();
    if (width < 0 || width > std::numeric_limits<std::int32_t>::max() || height < 0 ||
        height > std::numeric_limits<std::int32_t>::max() ||
        bitCount > std::numeric_limits<std::uint16_t>::max()) {
        throw CXMemoryAllocException();
    }
    // The size follows from the header FillBI writes, so the block always
    // holds what its header describes: the rows, then 2^bitCount colours up
    // to 8 bits, else 3 masks for compression 3 or nothing.
    tagBITMAPINFOHEADER header{};
    header.biWidth = static_cast<std::int32_t>(width);
    header.biHeight = static_cast<std::int32_t>(height);
    header.biBitCount = static_cast<std::uint16_t>(bitCount);
    header.biCompression = compression;
    bitmap::Layout layout;
    if (!bitmap::GetLayout(header, layout)) {
        throw CXMemoryAllocException();
    }
    unsigned char* block = AllocateBlock(layout.fullSize);
    if (block == nullptr) {
        throw CXMemoryAllocException();
    }
    m_pBitmap = reinterpret_cast<tagBITMAPINFOHEADER*>(block);
    FillBI(m_pBitmap, width, height, bitCount, compression);
}

void ClSimpleBitmap::FillBI(tagBITMAPINFOHEADER* header, long width, long height,
                            unsigned int bitCount, unsigned int compression) {
    if (header == nullptr) {
        return;
    }
    std::memset(header, 0, sizeof(*header));
    header->biSize = static_cast<std::uint32_t>(bitmap::kHeaderSize);
    header->biWidth = static_cast<std::int32_t>(width);
    header->biHeight = static_cast<std::int32_t>(height);
    header->biPlanes = 1;
    header->biBitCount = static_cast<std::uint16_t>(bitCount);
    header->biCompression = compression;

    unsigned char* palette = Bytes(header) + bitmap::kHeaderSize;
    if (bitCount >= 1 && bitCount <= 8) {
        const unsigned int entries = 1u << bitCount;
        const unsigned int step = 255 / (entries - 1);
        for (unsigned int i = 0; i < entries; ++i) {
            const auto v = static_cast<unsigned char>(i * step);
            palette[4 * i] = v;
            palette[4 * i + 1] = v;
            palette[4 * i + 2] = v;
            palette[4 * i + 3] = 0;
        }
    }
    // The first mask word gets the low bits; every mask reader of this type
    // takes the words in this order.
    if (bitCount > 8 && compression == bitmap::kCompressionBitFields) {
        const bool wide = bitCount > 16;
        WriteU32(palette, wide ? 0x000000FFu : 0x001Fu);
        WriteU32(palette + 4, wide ? 0x0000FF00u : 0x03E0u);
        WriteU32(palette + 8, wide ? 0x00FF0000u : 0x7C00u);
    }
}

void ClSimpleBitmap::Copy(const tagBITMAPINFOHEADER* header) {
    CopyBlock(header, true);
}

void ClSimpleBitmap::CopyFormat(const tagBITMAPINFOHEADER* header) {
    CopyBlock(header, false);
}

void ClSimpleBitmap::CopyBlock(const tagBITMAPINFOHEADER* header, bool withPixels) {
    if (header == nullptr) {
        Clear();
        return;
    }
    bitmap::Layout layout;
    if (!bitmap::GetLayout(*header, layout)) {
        Clear();
        throw CXMemoryAllocException();
    }
    if (header == m_pBitmap) {
        return;
    }
    const auto bytes = static_cast<std::size_t>(withPixels ? layout.fullSize
                                                           : layout.fullSize - layout.pixelBytes);
    if (FullSize() == layout.fullSize) {
        // Same size: overwrite in place (memmove: the source may lie inside
        // the own block).
        std::memmove(m_pBitmap, header, bytes);
        return;
    }
    unsigned char* block = AllocateBlock(layout.fullSize);
    if (block == nullptr) {
        Clear();
        throw CXMemoryAllocException();
    }
    std::memcpy(block, header, bytes);
    Clear();
    m_pBitmap = reinterpret_cast<tagBITMAPINFOHEADER*>(block);
}

void ClSimpleBitmap::Attach(tagBITMAPINFOHEADER* header) {
    if (header == m_pBitmap) {
        return;
    }
    Clear();
    m_pBitmap = header;
}

tagBITMAPINFOHEADER* ClSimpleBitmap::Detach() {
    tagBITMAPINFOHEADER* header = m_pBitmap;
    m_pBitmap = nullptr;
    return header;
}

void ClSimpleBitmap::FreeBlock(tagBITMAPINFOHEADER* header) {
    delete[] Bytes(header);
}

void ClSimpleBitmap::Swap(ClSimpleBitmap& other) noexcept {
    std::swap(m_pBitmap, other.m_pBitmap);
}

long ClSimpleBitmap::BPRow(long width, unsigned int bitCount) {
    // A header's width is 32 bits; anything wider describes no block.
    if (width < std::numeric_limits<std::int32_t>::min() ||
        width > std::numeric_limits<std::int32_t>::max()) {
        return -1;
    }
    return static_cast<long>(bitmap::RowBytes(static_cast<std::int32_t>(width), bitCount));
}

long ClSimpleBitmap::BPRow() const {
    return m_pBitmap ? BPRow(m_pBitmap->biWidth, m_pBitmap->biBitCount) : 0;
}

long ClSimpleBitmap::PalSize(const tagBITMAPINFOHEADER* header) {
    return header ? static_cast<long>(bitmap::PaletteEntries(*header)) : 0;
}

long ClSimpleBitmap::FullSize(const tagBITMAPINFOHEADER* header) {
    bitmap::Layout layout;
    if (header == nullptr || !bitmap::GetLayout(*header, layout)) {
        return 0;
    }
    return static_cast<long>(layout.fullSize);
}

long ClSimpleBitmap::PixelSize() const {
    bitmap::Layout layout;
    if (m_pBitmap == nullptr || !bitmap::GetLayout(*m_pBitmap, layout)) {
        return 0;
    }
    return static_cast<long>(layout.pixelBytes);
}

unsigned char* ClSimpleBitmap::Pixel(tagBITMAPINFOHEADER* header) {
    return header ? Bytes(header) + bitmap::kHeaderSize + 4 * bitmap::PaletteEntries(*header)
                  : nullptr;
}

const unsigned char* ClSimpleBitmap::Pixel(const tagBITMAPINFOHEADER* header) {
    return header ? Bytes(header) + bitmap::kHeaderSize + 4 * bitmap::PaletteEntries(*header)
                  : nullptr;
}

void ClSimpleBitmap::SetPels(std::int32_t x, std::int32_t y) {
    if (m_pBitmap != nullptr) {
        m_pBitmap->biXPelsPerMeter = x;
        m_pBitmap->biYPelsPerMeter = y;
    }
}

void ClSimpleBitmap::SetResolution(std::uint32_t xDpi, std::uint32_t yDpi) {
    SetPels(static_cast<std::int32_t>(::vc::ClImageResolution::DpiToPels(xDpi)),
            static_cast<std::int32_t>(::vc::ClImageResolution::DpiToPels(yDpi)));
}

void ClSimpleBitmap::SetBlack() {
    const long n = PixelSize();
    if (n > 0) {
        std::memset(Pixel(), 0, static_cast<std::size_t>(n));
    }
}

void ClSimpleBitmap::SetWhite() {
    const long n = PixelSize();
    if (n > 0) {
        std::memset(Pixel(), 255, static_cast<std::size_t>(n));
    }
}

void ClSimpleBitmap::Invert() {
    unsigned char* p = Pixel();
    const long n = PixelSize();
    for (long i = 0; i < n; ++i) {
        p[i] = static_cast<unsigned char>(~p[i]);
    }
}

void ClSimpleBitmap::FlipY() {
    if (PixelSize() == 0) {
        return;
    }
    const long bpr = BPRow();
    const long height = Height();
    unsigned char* pixels = Pixel();
    for (long i = 0; i < height / 2; ++i) {
        unsigned char* top = pixels + i * bpr;
        std::swap_ranges(top, top + bpr, pixels + (height - 1 - i) * bpr);
    }
}

void ClSimpleBitmap::Rescale(eRescaleMode) {}

void ClSimpleBitmap::MaskData(std::uint32_t mask, int& shift, int& bits) {
    if (mask == 0) {
        shift = 32;
        bits = 0;
        return;
    }
    shift = __builtin_ctz(mask);
    const std::uint32_t run = mask >> shift;
    bits = run == 0xFFFFFFFFu ? 32 : __builtin_ctz(~run);
}

void ClSimpleBitmap::Masks(std::uint32_t masks[3]) const {
    if (m_pBitmap->biCompression == bitmap::kCompressionBitFields) {
        const unsigned char* words = Palette();
        masks[0] = ReadU32(words);
        masks[1] = ReadU32(words + 4);
        masks[2] = ReadU32(words + 8);
    } else if (m_pBitmap->biBitCount == 16) {
        masks[0] = 0x7C00;
        masks[1] = 0x03E0;
        masks[2] = 0x001F;
    } else {
        masks[0] = 0xFF0000;
        masks[1] = 0x00FF00;
        masks[2] = 0x0000FF;
    }
}

std::uint32_t ClSimpleBitmap::GetPixel(long x, long y) const {
    if (m_pBitmap == nullptr) {
        return 0;
    }
    const unsigned int bitCount = m_pBitmap->biBitCount;
    const long bitOffset = x * static_cast<long>(bitCount);
    const unsigned char* p = Pixel() + BPRow() * y + bitOffset / 8;
    switch (bitCount) {
        case 1:
        case 2:
        case 4:
        case 8: {
            const unsigned int shift = 8 - bitCount - static_cast<unsigned int>(bitOffset % 8);
            const unsigned int index = (*p >> shift) & ((1u << bitCount) - 1);
            if (index >= static_cast<unsigned long>(PalSize())) {
                return 0;  // no colour-table entry for it
            }
            return ReadU32(Palette() + 4 * index);
        }
        case 24:
            return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
                   static_cast<std::uint32_t>(p[2]) << 16;
        case 16:
        case 32: {
            const std::uint32_t value =
                bitCount == 16 ? static_cast<std::uint32_t>(p[0] | p[1] << 8) : ReadU32(p);
            std::uint32_t masks[3];
            Masks(masks);
            return ExtractChannel(value, masks[0]) << 16 | ExtractChannel(value, masks[1]) << 8 |
                   ExtractChannel(value, masks[2]);
        }
        default:
            return 0xFFFFFFFFu;
    }
}

void ClSimpleBitmap::SetPixel(long x, long y, std::uint32_t colour) {
    if (m_pBitmap == nullptr) {
        return;
    }
    const unsigned int bitCount = m_pBitmap->biBitCount;
    const long bitOffset = x * static_cast<long>(bitCount);
    unsigned char* p = Pixel() + BPRow() * y + bitOffset / 8;
    switch (bitCount) {
        case 1:
        case 2:
        case 4:
        case 8: {
            const long entries = PalSize();
            const unsigned char* palette = Palette();
            const unsigned int valueMask = (1u << bitCount) - 1;
            // Past valueMask + 1 entries no match could be written anyway.
            const long searched = std::min(entries, static_cast<long>(valueMask) + 1);
            long index = 0;
            while (index < searched && ReadU32(palette + 4 * index) != colour) {
                ++index;
            }
            if (index > static_cast<long>(valueMask)) {
                return;
            }
            const unsigned int shift = 8 - bitCount - static_cast<unsigned int>(bitOffset % 8);
            *p = static_cast<unsigned char>((*p & ~(valueMask << shift)) |
                                            static_cast<unsigned int>(index) << shift);
            return;
        }
        case 24:
            p[0] = static_cast<unsigned char>(colour);
            p[1] = static_cast<unsigned char>(colour >> 8);
            p[2] = static_cast<unsigned char>(colour >> 16);
            return;
        case 16:
        case 32: {
            std::uint32_t masks[3];
            Masks(masks);
            const std::uint32_t value = PlaceChannel((colour >> 16) & 0xFF, masks[0]) |
                                        PlaceChannel((colour >> 8) & 0xFF, masks[1]) |
                                        PlaceChannel(colour & 0xFF, masks[2]);
            p[0] = static_cast<unsigned char>(value);
            p[1] = static_cast<unsigned char>(value >> 8);
            if (bitCount == 32) {
                p[2] = static_cast<unsigned char>(value >> 16);
                p[3] = static_cast<unsigned char>(value >> 24);
            }
            return;
        }
        default:
            return;
    }
}

void ClSimpleBitmap::Save(const char* path) const {
    if (m_pBitmap == nullptr) {
        return;
    }
    bitmap::Layout layout;
    if (path == nullptr || !bitmap::GetLayout(*m_pBitmap, layout)) {
        throw CXSystemException(EINVAL);
    }
    std::FILE* file = std::fopen(path, "wb");
    if (file == nullptr) {
        throw CXSystemException(errno);
    }
    const auto fileSize = static_cast<std::uint32_t>(layout.fullSize + 14);
    const auto pixelOffset = static_cast<std::uint32_t>(layout.fullSize + 14 - layout.pixelBytes);
    unsigned char fileHeader[14] = {'B', 'M'};
    WriteU32(fileHeader + 2, fileSize);
    WriteU32(fileHeader + 10, pixelOffset);

    const auto formatBytes = static_cast<std::size_t>(layout.fullSize - layout.pixelBytes);
    const auto pixelBytes = static_cast<std::size_t>(layout.pixelBytes);
    errno = 0;
    const bool written =
        std::fwrite(fileHeader, 1, sizeof(fileHeader), file) == sizeof(fileHeader) &&
        std::fwrite(Data(), 1, formatBytes, file) == formatBytes &&
        std::fwrite(Pixel(), 1, pixelBytes, file) == pixelBytes && std::fflush(file) == 0;
    if (!written) {
        const int error = errno != 0 ? errno : EIO;
        std::fclose(file);
        throw CXSystemException(error);
    }
    std::fclose(file);  // a failing close is not reported
}

}  // namespace utilities
}  // namespace Nvk
