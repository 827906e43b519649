// Images as hosts keep them: the plug-in's bitmap blocks read in place or
// copied once into an owned grey image, and image files written and read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kr7host {

// The resolution of the scanner's images. Files get it in their header
// (PNG pHYs, BMP pixels per metre) so that fingerprint tools read the scale.
constexpr int kScannerPpi = 500;

// One of the plug-in's bitmap blocks as it lies in memory: a 40-byte
// BITMAPINFOHEADER, a colour table, 8-bit rows padded to 4 bytes, bottom-up
// unless the height is negative. A view of a block the header does not
// describe so is invalid. The view is good as long as the block is (for a
// callback's image, until the callback returns). Making one is cheap enough
// for every callback: it reads the header and compares the colour table
// with the plug-in's grey ramp; grey levels are worked out only when a
// view of another table is copied.
class BitmapView {
public:
    BitmapView() = default;
    // `size` is the block's size when known: a block shorter than its
    // header says is invalid.
    explicit BitmapView(const unsigned char* block, std::size_t size = kUnknownSize);

    static constexpr std::size_t kUnknownSize = static_cast<std::size_t>(-1);
    // The largest side accepted; no scanner comes near it.
    static constexpr int kMaxSide = 1 << 14;

    bool Valid() const { return m_pPixels != nullptr; }
    int Width() const { return m_nWidth; }
    int Height() const { return m_nHeight; }
    // Pixels per inch from the header, rounded; 0 when the header has none.
    int Ppi() const { return m_nPpi; }
    std::size_t Stride() const { return m_nStride; }
    // Row `y`, counted from the top, as stored: colour-table indices.
    const unsigned char* Row(int y) const;
    // Whether the colour table is the identity grey ramp (index = grey),
    // as in every image of the plug-in: rows are then grey as they stand.
    bool GreyRamp() const { return m_bGreyRamp; }
    // Writes the grey levels top-down into `out`, rows `outStride` apart.
    void CopyTo(std::uint8_t* out, std::size_t outStride) const;

private:
    int m_nWidth = 0;
    int m_nHeight = 0;
    int m_nPpi = 0;
    bool m_bBottomUp = true;
    bool m_bGreyRamp = false;
    std::size_t m_nStride = 0;
    const unsigned char* m_pPalette = nullptr;
    std::size_t m_nColours = 0;
    const unsigned char* m_pPixels = nullptr;
};

// An 8-bit grey image owned by the host: rows top-down, no padding.
struct Image {
    int width = 0;
    int height = 0;
    int ppi = 0;  // pixels per inch; 0 unknown
    std::vector<std::uint8_t> pixels;

    Image() = default;
    Image(int w, int h, std::uint8_t fill, int resolution = 0);
    // One copy of a valid view; an empty image for an invalid one.
    explicit Image(const BitmapView& view, int fallbackPpi = 0);

    bool Empty() const { return pixels.empty(); }
    std::uint8_t At(int x, int y) const { return pixels[Index(x, y)]; }
    std::uint8_t& At(int x, int y) { return pixels[Index(x, y)]; }
    const std::uint8_t* Row(int y) const { return pixels.data() + Index(0, y); }

    // Copies `view` into this image, reusing its buffer when it is large
    // enough; false (and the image empty) for an invalid view. A view
    // without a resolution gives `fallbackPpi`.
    bool Assign(const BitmapView& view, int fallbackPpi = 0);

private:
    std::size_t Index(int x, int y) const {
        return static_cast<std::size_t>(y) * static_cast<std::size_t>(width) +
               static_cast<std::size_t>(x);
    }
};

enum class Format { Png, Bmp, Pgm, Unknown };

// From the file name's extension, in any letter case.
Format FormatOf(const std::string& path);

// Write the image; a PNG carries its resolution in pHYs, a BMP in the info
// header (an image without one gets kScannerPpi). They throw
// std::runtime_error "cannot write PATH: why".
void WriteImage(const Image& image, const std::string& path);  // as the extension says
void WritePng(const Image& image, const std::string& path);
void WriteBmp(const Image& image, const std::string& path);
void WritePgm(const Image& image, const std::string& path);

// Read PNG (any colour type, turned grey), 8-bit BMP (with a colour table)
// and binary PGM files with a maximum of 255. They throw std::runtime_error
// "cannot read PATH: why".
Image ReadImage(const std::string& path);  // as the extension says
Image ReadPng(const std::string& path);
Image ReadBmp(const std::string& path);
Image ReadPgm(const std::string& path);

// A file's bytes; an empty image when they are not one ReadBmp or ReadPgm
// takes.
Image ParseBmp(const unsigned char* data, std::size_t size);
Image ParsePgm(const unsigned char* data, std::size_t size);

}  // namespace kr7host
