// Synthetic 8-bit frames for the detector tests: a bright platen is 250, a
// finger darkens columns or rows of it.
#pragma once

#include <cstring>
#include <initializer_list>
#include <string>

#include "detection/image_detection.h"
#include "image/simple_bitmap.h"

namespace frames {

using Bitmap = Nvk::utilities::ClSimpleBitmap;

inline unsigned char* Row(Bitmap& image, long y) {
    return image.Pixel() + y * image.BPRow();
}
inline unsigned char At(const Bitmap& image, long x, long y) {
    return image.Pixel()[y * image.BPRow() + x];
}

// Pixels of every row in [x0, x1) := value.
inline void Fill(Bitmap& image, long x0, long x1, unsigned char value) {
    for (long y = 0; y < image.Height(); ++y) {
        std::memset(Row(image, y) + x0, value, static_cast<std::size_t>(x1 - x0));
    }
}

// A uniform frame; padding bytes are 0.
inline Bitmap Uniform(long width, long height, unsigned char value) {
    Bitmap image;
    image.Create(width, height, 8, 0);
    image.SetBlack();
    Fill(image, 0, width, value);
    return image;
}

// A bright platen with columns [x0, x1) darkened to `value`.
inline Bitmap Band(long width, long height, long x0, long x1, unsigned char value) {
    Bitmap image = Uniform(width, height, 250);
    Fill(image, x0, x1, value);
    return image;
}

inline bool SamePixels(const Bitmap& a, const Bitmap& b) {
    return a.PixelSize() == b.PixelSize() &&
           std::memcmp(a.Pixel(), b.Pixel(), static_cast<std::size_t>(a.PixelSize())) == 0;
}

// Feeds copies of the frames to the detector in order; returns the results as
// 'T'/'F' letters and leaves the last output in `output`.
inline std::string Feed(vc::ClImageDetection& detector, std::initializer_list<Bitmap> sequence,
                        Bitmap& output) {
    std::string results;
    for (const Bitmap& frame : sequence) {
        Bitmap input = frame;
        results += detector.Detect(input, output) ? 'T' : 'F';
    }
    return results;
}

}  // namespace frames
