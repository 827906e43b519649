// Internal helpers of the detectors: a read view of a frame's pixel rows,
// block-reusing copies and the row kernels the detectors are built on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "detection/pixel_kernels.h"
#include "image/simple_bitmap.h"

namespace vc {
namespace detail {

// The pixel rows of an 8-bit frame. `width` never exceeds `stride`, so every
// row-local read of `width` bytes stays inside its row; `size` bounds reads
// that run on past a row. An empty bitmap or one without rows has height 0.
struct FrameView {
    const unsigned char* pixels = nullptr;
    long width = 0;
    long height = 0;
    long stride = 0;
    long size = 0;

    const unsigned char* Row(long y) const { return pixels + y * stride; }
};

FrameView View(const Nvk::utilities::ClSimpleBitmap& image);

// Same width, height, row stride and colour-table size.
bool SameFormat(const Nvk::utilities::ClSimpleBitmap& a, const Nvk::utilities::ClSimpleBitmap& b);

// dst := src. When dst already holds a block of src's size it is overwritten
// in place instead of being freed and allocated again.
void CopyFrame(Nvk::utilities::ClSimpleBitmap& dst, const Nvk::utilities::ClSimpleBitmap& src);

// Sum of the `width` pixels of every row (the whole-image gray total).
std::uint64_t PixelTotal(const FrameView& view);

// dst := src (see CopyFrame); returns PixelTotal(View(src)).
std::uint64_t CopyAndTotal(Nvk::utilities::ClSimpleBitmap& dst,
                           const Nvk::utilities::ClSimpleBitmap& src);

// Sum of each column over all rows; `sums` is resized to view.width. Returns
// the total of all columns.
std::uint64_t ColumnSums(const FrameView& view, std::vector<std::uint32_t>& sums);

// Gray average convention of the detectors: total ÷ divisor in floating point,
// truncated toward zero; 0 when the divisor is not positive.
long TruncatedMean(std::int64_t total, std::int64_t divisor);

// Whole-image Gray_Avarage of `image` from the total of `view` (its PixelTotal).
long WholeAverage(const Nvk::utilities::ClSimpleBitmap& image, const FrameView& view,
                  std::uint64_t total);

}  // namespace detail
}  // namespace vc
