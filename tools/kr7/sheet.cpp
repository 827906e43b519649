#include "sheet.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdio>

using kr7host::Image;

namespace kr7 {

namespace {

constexpr int kGlyphWidth = 5;
constexpr int kGlyphHeight = 7;
constexpr int kAdvance = kGlyphWidth + 1;

// One glyph: seven rows top-down, five bits each, the leftmost column in
// bit 4.
struct Glyph {
    char character;
    std::uint8_t rows[kGlyphHeight];
};

constexpr Glyph kFont[] = {
    {'0', {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}},
    {'1', {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E}},
    {'2', {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}},
    {'3', {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E}},
    {'4', {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}},
    {'5', {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E}},
    {'6', {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}},
    {'7', {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08}},
    {'8', {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}},
    {'9', {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}},
    {'A', {0x0E, 0x11, 0x11, 0x1F, 0x11, 0x11, 0x11}},
    {'B', {0x1E, 0x11, 0x11, 0x1E, 0x11, 0x11, 0x1E}},
    {'C', {0x0E, 0x11, 0x10, 0x10, 0x10, 0x11, 0x0E}},
    {'D', {0x1C, 0x12, 0x11, 0x11, 0x11, 0x12, 0x1C}},
    {'E', {0x1F, 0x10, 0x10, 0x1E, 0x10, 0x10, 0x1F}},
    {'F', {0x1F, 0x10, 0x10, 0x1E, 0x10, 0x10, 0x10}},
    {'G', {0x0E, 0x11, 0x10, 0x17, 0x11, 0x11, 0x0F}},
    {'H', {0x11, 0x11, 0x11, 0x1F, 0x11, 0x11, 0x11}},
    {'I', {0x0E, 0x04, 0x04, 0x04, 0x04, 0x04, 0x0E}},
    {'J', {0x07, 0x02, 0x02, 0x02, 0x02, 0x12, 0x0C}},
    {'K', {0x11, 0x12, 0x14, 0x18, 0x14, 0x12, 0x11}},
    {'L', {0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x1F}},
    {'M', {0x11, 0x1B, 0x15, 0x15, 0x11, 0x11, 0x11}},
    {'N', {0x11, 0x11, 0x19, 0x15, 0x13, 0x11, 0x11}},
    {'O', {0x0E, 0x11, 0x11, 0x11, 0x11, 0x11, 0x0E}},
    {'P', {0x1E, 0x11, 0x11, 0x1E, 0x10, 0x10, 0x10}},
    {'Q', {0x0E, 0x11, 0x11, 0x11, 0x15, 0x12, 0x0D}},
    {'R', {0x1E, 0x11, 0x11, 0x1E, 0x14, 0x12, 0x11}},
    {'S', {0x0F, 0x10, 0x10, 0x0E, 0x01, 0x01, 0x1E}},
    {'T', {0x1F, 0x04, 0x04, 0x04, 0x04, 0x04, 0x04}},
    {'U', {0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x0E}},
    {'V', {0x11, 0x11, 0x11, 0x11, 0x11, 0x0A, 0x04}},
    {'W', {0x11, 0x11, 0x11, 0x15, 0x15, 0x15, 0x0A}},
    {'X', {0x11, 0x11, 0x0A, 0x04, 0x0A, 0x11, 0x11}},
    {'Y', {0x11, 0x11, 0x0A, 0x04, 0x04, 0x04, 0x04}},
    {'Z', {0x1F, 0x01, 0x02, 0x04, 0x08, 0x10, 0x1F}},
    {'%', {0x18, 0x19, 0x02, 0x04, 0x08, 0x13, 0x03}},
    {'.', {0x00, 0x00, 0x00, 0x00, 0x00, 0x0C, 0x0C}},
    {'#', {0x0A, 0x0A, 0x1F, 0x0A, 0x1F, 0x0A, 0x0A}},
    {':', {0x00, 0x0C, 0x0C, 0x00, 0x0C, 0x0C, 0x00}},
    {'-', {0x00, 0x00, 0x00, 0x1F, 0x00, 0x00, 0x00}},
    {'/', {0x01, 0x01, 0x02, 0x04, 0x08, 0x10, 0x10}},
};

const Glyph* GlyphOf(char c) {
    const char upper = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    for (const Glyph& glyph : kFont) {
        if (glyph.character == upper) {
            return &glyph;
        }
    }
    return nullptr;
}

void Fill(Image& image, int left, int top, int width, int height, std::uint8_t level) {
    const int right = std::min(image.width, left + width);
    const int bottom = std::min(image.height, top + height);
    for (int y = std::max(0, top); y < bottom; ++y) {
        for (int x = std::max(0, left); x < right; ++x) {
            image.At(x, y) = level;
        }
    }
}

void Paste(Image& sheet, const Image& image, int left, int top) {
    for (int y = 0; y < image.height; ++y) {
        for (int x = 0; x < image.width; ++x) {
            sheet.At(left + x, top + y) = image.At(x, y);
        }
    }
}

int Percent(double share) {
    return static_cast<int>(std::lround(std::clamp(share, 0.0, 1.0) * 100.0));
}

}  // namespace

int TextWidth(const std::string& text, int scale) {
    return text.empty() ? 0 : (static_cast<int>(text.size()) * kAdvance - 1) * scale;
}

void DrawText(Image& image, int x, int y, const std::string& text, int scale, std::uint8_t ink) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const Glyph* glyph = GlyphOf(text[i]);
        if (glyph == nullptr) {
            continue;
        }
        const int left = x + static_cast<int>(i) * kAdvance * scale;
        for (int row = 0; row < kGlyphHeight; ++row) {
            for (int column = 0; column < kGlyphWidth; ++column) {
                if ((glyph->rows[row] >> (kGlyphWidth - 1 - column) & 1) != 0) {
                    Fill(image, left + column * scale, y + row * scale, scale, scale, ink);
                }
            }
        }
    }
}

Image Shrink(const Image& image, int factor) {
    if (factor <= 1 || image.width < factor || image.height < factor) {
        return image;
    }
    Image small(image.width / factor, image.height / factor, 0, image.ppi / factor);
    for (int y = 0; y < small.height; ++y) {
        for (int x = 0; x < small.width; ++x) {
            unsigned sum = 0;
            for (int dy = 0; dy < factor; ++dy) {
                for (int dx = 0; dx < factor; ++dx) {
                    sum += image.At(x * factor + dx, y * factor + dy);
                }
            }
            small.At(x, y) =
                static_cast<std::uint8_t>(sum / static_cast<unsigned>(factor * factor));
        }
    }
    return small;
}

std::string Caption(int number, const Quality& quality) {
    char text[64];
    std::snprintf(text, sizeof text, "#%d AREA %d%% CONTRAST %d%%", number, Percent(quality.area),
                  Percent(quality.contrast));
    return text;
}

Image MakeSheet(const std::vector<SheetEntry>& entries) {
    constexpr int kGap = 12;
    constexpr std::uint8_t kGround = 96, kPaper = 255, kInk = 0;
    if (entries.empty()) {
        const std::string text = "NO IMAGES";
        Image sheet(TextWidth(text, 2) + 2 * kGap, 7 * 2 + 2 * kGap, kPaper, kr7host::kScannerPpi);
        DrawText(sheet, kGap, kGap, text, 2, kInk);
        return sheet;
    }
    int cellWidth = 0, imageHeight = 0;
    for (const SheetEntry& entry : entries) {
        cellWidth = std::max(cellWidth, entry.image.width);
        imageHeight = std::max(imageHeight, entry.image.height);
    }
    // Captions as large as the narrowest fit allows; cells at least as wide
    // as the smallest captions.
    for (const SheetEntry& entry : entries) {
        cellWidth = std::max(cellWidth, TextWidth(Caption(entry.number, entry.quality), 1) + 8);
    }
    int scale = 3;
    for (const SheetEntry& entry : entries) {
        while (scale > 1 &&
               TextWidth(Caption(entry.number, entry.quality), scale) + 8 > cellWidth) {
            --scale;
        }
    }
    const int captionHeight = kGlyphHeight * scale + 8;
    const int cellHeight = imageHeight + captionHeight;
    const int count = static_cast<int>(entries.size());
    const int columns = std::min(count, 4);
    const int rows = (count + columns - 1) / columns;
    Image sheet(kGap + columns * (cellWidth + kGap), kGap + rows * (cellHeight + kGap), kGround,
                entries.front().image.ppi);
    for (int i = 0; i < count; ++i) {
        const SheetEntry& entry = entries[static_cast<std::size_t>(i)];
        const int left = kGap + (i % columns) * (cellWidth + kGap);
        const int top = kGap + (i / columns) * (cellHeight + kGap);
        Fill(sheet, left, top, cellWidth, cellHeight, kPaper);
        Paste(sheet, entry.image, left + (cellWidth - entry.image.width) / 2, top);
        DrawText(sheet, left + 4, top + imageHeight + 4, Caption(entry.number, entry.quality),
                 scale, kInk);
    }
    return sheet;
}

}  // namespace kr7
