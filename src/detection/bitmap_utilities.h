// Gray-level measurements on 8-bit grey frames, shared by all finger detectors.
#pragma once

#include "image/simple_bitmap.h"

namespace vc {

class ClBitmapUtilities {
public:
    // Sum of the `width` pixels of every row, as a 32-bit integer (0 without rows).
    static long Gray_Sum(const Nvk::utilities::ClSimpleBitmap& image);

    // Mean gray of the strip [first, last), truncated. Each row contributes the
    // last - first bytes that start at byte 2 * first of that row: the doubled
    // start is what the detectors' references were tuned with and is kept.
    // Bytes of such a window outside the pixel rows are left out of the mean;
    // no rows or an empty strip give 0.
    static long Gray_Avarage(const Nvk::utilities::ClSimpleBitmap& image, long first, long last);
    static long Gray_Avarage(const Nvk::utilities::ClSimpleBitmap& image);
};

class ClFingerUtilities {
public:
    // Vertical strip examined by IsFinger.
    enum eArea {
        eAreaRight = 0,  // the 30 rightmost columns
        eAreaLeft = 1,   // the 30 leftmost columns
        eAreaFull = 2,   // any other value: the whole width
    };

    static constexpr long kStripWidth = 30;

    virtual ~ClFingerUtilities() = default;

    // Texture test: at three rows (a quarter, half and three quarters down) the
    // strip is cut into blocks of 0.55 mm (from the vertical resolution) and a
    // finger is seen when enough blocks show ridge contrast and the strip is
    // not blank. An image whose resolution gives blocks under one pixel, or
    // that has no rows, is never a finger.
    bool IsFinger(const Nvk::utilities::ClSimpleBitmap& image, eArea area) const;

    // True when the strip is at least 20 gray levels darker than referenceGray.
    bool IsFinger(const Nvk::utilities::ClSimpleBitmap& image, long referenceGray,
                  eArea area) const;

    // Column range [first, last) of the strip selected by `area`.
    static void StripBounds(long width, eArea area, long& first, long& last);
};

}  // namespace vc
