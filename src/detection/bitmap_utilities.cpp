#include "detection/bitmap_utilities.h"

#include <algorithm>
#include <cstdint>

#include "detection/frame_access.h"

namespace vc {

using Nvk::utilities::ClSimpleBitmap;

long ClBitmapUtilities::Gray_Sum(const ClSimpleBitmap& image) {
    // Kept as a 32-bit value: the fast plain detector compares these sums as such.
    const auto total = static_cast<std::uint32_t>(detail::PixelTotal(detail::View(image)));
    return static_cast<std::int32_t>(total);
}

long ClBitmapUtilities::Gray_Avarage(const ClSimpleBitmap& image, long first, long last) {
    const detail::FrameView view = detail::View(image);
    const long count = last - first;
    if (view.height == 0 || count <= 0) {
        return 0;
    }
    if (first == 0 && count == view.width) {
        return detail::TruncatedMean(static_cast<std::int64_t>(detail::PixelTotal(view)),
                                     static_cast<std::int64_t>(view.height) * count);
    }
    // Row y contributes the bytes [y × stride + 2 × first, + count). Such a
    // window may run on into the next row. Bytes outside the pixel rows (past
    // the last row of a right-edge strip) are not read, and the mean is taken
    // over the bytes read: for every window inside the rows that is
    // height × count.
    std::int64_t total = 0;
    std::int64_t read = 0;
    for (long y = 0; y < view.height; ++y) {
        const long start = y * view.stride + 2 * first;
        const long lo = std::max(start, 0L);
        const long hi = std::min(start + count, view.size);
        if (hi > lo) {
            total += static_cast<std::int64_t>(
                detail::SumBytes(view.pixels + lo, static_cast<std::size_t>(hi - lo)));
            read += hi - lo;
        }
    }
    return detail::TruncatedMean(total, read);
}

long ClBitmapUtilities::Gray_Avarage(const ClSimpleBitmap& image) {
    return Gray_Avarage(image, 0, image.Width());
}

void ClFingerUtilities::StripBounds(long width, eArea area, long& first, long& last) {
    switch (area) {
        case eAreaRight:
            first = width - kStripWidth;
            last = width;
            break;
        case eAreaLeft:
            first = 0;
            last = kStripWidth;
            break;
        default:
            first = 0;
            last = width;
            break;
    }
}

bool ClFingerUtilities::IsFinger(const ClSimpleBitmap& image, long referenceGray,
                                 eArea area) const {
    long first = 0;
    long last = 0;
    StripBounds(image.Width(), area, first, last);
    return referenceGray - ClBitmapUtilities::Gray_Avarage(image, first, last) > 19;
}

bool ClFingerUtilities::IsFinger(const ClSimpleBitmap& image, eArea area) const {
    const detail::FrameView view = detail::View(image);
    if (view.height == 0) {
        return false;
    }
    long first = 0;
    long last = 0;
    StripBounds(image.Width(), area, first, last);
    const long stripWidth = last - first;
    const long sumLimit = static_cast<long>(stripWidth * 242.25);
    // Pixels in 0.55 mm at the vertical resolution.
    const long block = static_cast<long>(image.YPels() * 0.55 / 1000.0);
    if (block <= 0) {
        return false;  // resolution unset or too low to measure texture
    }
    const long countLimit = static_cast<long>((stripWidth / block) * 0.2);
    const long step = static_cast<long>(view.height * 0.25);

    long contrastCount = 0;
    long graySum = 0;
    for (int k = 1; k <= 3; ++k) {
        const long rowStart = k * step * view.stride;
        for (long blockStart = first; blockStart < last; blockStart += block) {
            int minimum = 255;
            int maximum = 0;
            // The last block may reach past the strip; it never reads outside
            // the pixel rows.
            const long lo = std::max(rowStart + blockStart, 0L);
            const long hi = std::min(rowStart + blockStart + block, view.size);
            for (long i = lo; i < hi; ++i) {
                const int pixel = view.pixels[i];
                graySum += pixel;
                if (pixel < minimum) {
                    minimum = pixel;
                } else {
                    maximum = std::max(maximum, pixel);
                }
            }
            if (maximum - minimum > 62) {
                ++contrastCount;
            }
        }
        const bool result = contrastCount > countLimit && graySum > sumLimit;
        if (k == 3 || !result) {
            return result;
        }
    }
    return false;
}

namespace detail {

long WholeAverage(const ClSimpleBitmap& image, const FrameView& view, std::uint64_t total) {
    if (view.width == image.Width()) {
        return TruncatedMean(static_cast<std::int64_t>(total),
                             static_cast<std::int64_t>(view.height) * view.width);
    }
    return ClBitmapUtilities::Gray_Avarage(image);
}

}  // namespace detail

}  // namespace vc
