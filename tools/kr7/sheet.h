// The result sheet: every image of a capture in a grid, each captioned with
// its number and quality, lettered in a small built-in bitmap font.
#pragma once

#include <string>
#include <vector>

#include "kr7host/image.h"
#include "kr7host/quality.h"

namespace kr7 {

using kr7host::Quality;

struct SheetEntry {
    int number = 0;
    kr7host::Image image;
    Quality quality;
};

// Width in pixels of `text` in the font at `scale` (5×7 glyphs, one column
// of spacing, each font pixel scale × scale image pixels).
int TextWidth(const std::string& text, int scale);

// Letters `text` with its top-left corner at (x, y) in grey level `ink`;
// lower-case letters are drawn as capitals, characters the font lacks as
// blanks, and whatever falls outside the image is cut off.
void DrawText(kr7host::Image& image, int x, int y, const std::string& text, int scale,
              std::uint8_t ink);

// A copy `factor` times smaller each way (each pixel the mean of its block,
// the resolution as many times lower).
kr7host::Image Shrink(const kr7host::Image& image, int factor);

// "#3 AREA 78% CONTRAST 41%".
std::string Caption(int number, const Quality& quality);

// The grid: up to four images a row, each with its caption beneath, on a
// grey ground, at the images' resolution. An empty list gives a small sheet
// saying so.
kr7host::Image MakeSheet(const std::vector<SheetEntry>& entries);

}  // namespace kr7
