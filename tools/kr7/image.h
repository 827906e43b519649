// Grey images as kr7 keeps them: copied out of the plug-in's packed bitmaps,
// measured, and written as PNG, BMP or PGM files.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kr7 {

// 8-bit grey, rows top-down without padding.
struct Gray {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> pixels;

    Gray() = default;
    Gray(int w, int h, std::uint8_t fill) : width(w), height(h), pixels(Size(w, h), fill) {}
    bool Empty() const { return pixels.empty(); }
    std::uint8_t At(int x, int y) const { return pixels[Index(x, y)]; }
    std::uint8_t& At(int x, int y) { return pixels[Index(x, y)]; }

private:
    std::size_t Index(int x, int y) const {
        return static_cast<std::size_t>(y) * static_cast<std::size_t>(width) +
               static_cast<std::size_t>(x);
    }
    static std::size_t Size(int w, int h) {
        return w > 0 && h > 0 ? static_cast<std::size_t>(w) * static_cast<std::size_t>(h) : 0;
    }
};

// Copies a packed 8-bit bitmap (40-byte header, colour table, rows padded to
// 4 bytes, bottom-up unless the height is negative), mapping each pixel
// through the colour table. False for anything else.
bool FromPackedBitmap(const unsigned char* block, Gray& out);

enum class Format { Png, Bmp, Pgm, Unknown };

// From the file name's extension, in any letter case.
Format FormatOf(const std::string& path);

// Writes the image in the format its name asks for. Throws
// std::runtime_error naming the file and the reason.
void WriteImage(const Gray& image, const std::string& path);

// What a person wants to know of a finger image. The platen is white and
// ridges are dark; the image is looked at in 16×16 tiles.
struct Quality {
    double area = 0;      // share of the tiles the finger covers (0..1)
    double contrast = 0;  // mean ridge-to-valley difference on covered tiles (0..1)
    double mean = 255;    // mean grey level: lower is more finger
};

Quality Measure(const Gray& image);

// A finger is on the platen when this share of it is covered.
constexpr double kFingerArea = 0.05;

}  // namespace kr7
