// What a person wants to know of a finger image. The platen is white and
// ridges are dark; the image is looked at in 16×16 tiles.
#pragma once

#include "kr7host/image.h"

namespace kr7 {

struct Quality {
    double area = 0;      // share of the tiles the finger covers (0..1)
    double contrast = 0;  // mean ridge-to-valley difference on covered tiles (0..1)
    double mean = 255;    // mean grey level: lower is more finger
};

Quality Measure(const kr7host::Image& image);

// A finger is on the platen when this share of it is covered.
constexpr double kFingerArea = 0.05;

}  // namespace kr7
