// What a person wants to know of a finger image, as kr7 prints it and
// kr7src posts it. The platen is white and ridges are dark; the image is
// looked at in 16×16 tiles.
#pragma once

#include "kr7host/image.h"

namespace kr7host {

struct Quality {
    double area = 0;      // share of the tiles the finger covers (0..1)
    double contrast = 0;  // mean ridge-to-valley difference on covered tiles (0..1)
    double mean = 255;    // mean grey level: lower is more finger
};

Quality Measure(const Image& image);
// The same figures of a block read in place, without a copy (a view whose
// colour table is not the grey ramp is copied first).
Quality Measure(const BitmapView& view);

// The mean grey level alone (Quality::mean, to the last bit), in one pass
// over the rows: what picks the darkest result of a placement.
double MeanGrey(const BitmapView& view);

// A finger is on the platen when this share of it is covered.
constexpr double kFingerArea = 0.05;

}  // namespace kr7host
