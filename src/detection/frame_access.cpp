#include "detection/frame_access.h"

#include <algorithm>
#include <cstring>

namespace vc {
namespace detail {

using Nvk::utilities::ClSimpleBitmap;

FrameView View(const ClSimpleBitmap& image) {
    FrameView view;
    const long size = image.PixelSize();
    const long stride = image.BPRow();
    const long height = image.Height();
    if (size <= 0 || stride <= 0 || height <= 0) {
        return view;
    }
    view.pixels = image.Pixel();
    view.height = height;
    view.stride = stride;
    view.size = size;
    view.width = std::clamp(image.Width(), 0L, stride);
    return view;
}

bool SameFormat(const ClSimpleBitmap& a, const ClSimpleBitmap& b) {
    return !a.Empty() && !b.Empty() && a.Width() == b.Width() && a.Height() == b.Height() &&
           a.BPRow() == b.BPRow() && a.PalSize() == b.PalSize() && a.FullSize() == b.FullSize();
}

void CopyFrame(ClSimpleBitmap& dst, const ClSimpleBitmap& src) {
    dst = src;  // the bitmap reuses a block of the same size
}

std::uint64_t PixelTotal(const FrameView& view) {
    if (view.height == 0) {
        return 0;
    }
    if (view.width == view.stride) {
        return SumBytes(view.pixels, static_cast<std::size_t>(view.size));
    }
    return SumStrip(view.pixels, view.height, view.stride, view.width);
}

std::uint64_t CopyAndTotal(ClSimpleBitmap& dst, const ClSimpleBitmap& src) {
    // A whole-block copy and a separate summing pass beat a fused row-by-row
    // loop: both passes run at full width over a frame that stays in cache.
    CopyFrame(dst, src);
    return PixelTotal(View(src));
}

std::uint64_t ColumnSums(const FrameView& view, std::vector<std::uint32_t>& sums) {
    sums.resize(static_cast<std::size_t>(view.width));
    return SumColumns(view.pixels, view.height, view.stride, view.width, sums.data());
}

long TruncatedMean(std::int64_t total, std::int64_t divisor) {
    if (divisor <= 0) {
        return 0;
    }
    return static_cast<long>(static_cast<double>(total) / static_cast<double>(divisor));
}

}  // namespace detail
}  // namespace vc
