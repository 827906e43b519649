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

unsigned char* PrepareCopy(ClSimpleBitmap& dst, const ClSimpleBitmap& src) {
    if (src.Empty()) {
        dst.Clear();
        return nullptr;
    }
    dst.CopyFormat(src.Header());
    return dst.Pixel();
}

std::uint64_t SumBytes(const unsigned char* p, std::size_t n) {
    // 32-bit lanes vectorise well; a chunk of 2^24 bytes cannot overflow one.
    constexpr std::size_t kChunk = std::size_t{1} << 24;
    std::uint64_t total = 0;
    while (n > 0) {
        const std::size_t count = std::min(n, kChunk);
        std::uint32_t sum = 0;
        for (std::size_t i = 0; i < count; ++i) {
            sum += p[i];
        }
        total += sum;
        p += count;
        n -= count;
    }
    return total;
}

std::uint64_t PixelTotal(const FrameView& view) {
    if (view.height == 0) {
        return 0;
    }
    if (view.width == view.stride) {
        return SumBytes(view.pixels, static_cast<std::size_t>(view.size));
    }
    std::uint64_t total = 0;
    for (long y = 0; y < view.height; ++y) {
        total += SumBytes(view.Row(y), static_cast<std::size_t>(view.width));
    }
    return total;
}

std::uint64_t CopyAndTotal(ClSimpleBitmap& dst, const ClSimpleBitmap& src) {
    const FrameView view = View(src);
    if (&dst == &src) {
        return PixelTotal(view);
    }
    unsigned char* out = PrepareCopy(dst, src);
    if (out == nullptr) {
        return 0;
    }
    // Row by row: the row is summed while it is fresh in the cache, then copied.
    const std::size_t stride = static_cast<std::size_t>(view.stride);
    std::uint64_t total = 0;
    for (long y = 0; y < view.height; ++y) {
        const unsigned char* row = view.Row(y);
        total += SumBytes(row, static_cast<std::size_t>(view.width));
        std::memcpy(out + y * view.stride, row, stride);
    }
    return total;
}

std::uint64_t ColumnSums(const FrameView& view, std::vector<std::uint32_t>& sums,
                         std::vector<std::uint16_t>& scratch) {
    const std::size_t width = static_cast<std::size_t>(view.width);
    sums.assign(width, 0);
    scratch.resize(width);
    // 16-bit partial sums over at most 257 rows (257 × 255 = 65535) keep the
    // inner loop narrow; they are folded into the 32-bit sums per band.
    constexpr long kBand = 257;
    std::uint32_t* total = sums.data();
    std::uint16_t* partial = scratch.data();
    for (long y0 = 0; y0 < view.height; y0 += kBand) {
        const long y1 = std::min(view.height, y0 + kBand);
        std::fill(partial, partial + width, std::uint16_t{0});
        for (long y = y0; y < y1; ++y) {
            const unsigned char* row = view.Row(y);
            for (std::size_t c = 0; c < width; ++c) {
                partial[c] = static_cast<std::uint16_t>(partial[c] + row[c]);
            }
        }
        for (std::size_t c = 0; c < width; ++c) {
            total[c] += partial[c];
        }
    }
    std::uint64_t all = 0;
    for (std::size_t c = 0; c < width; ++c) {
        all += total[c];
    }
    return all;
}

long TruncatedMean(std::int64_t total, std::int64_t divisor) {
    if (divisor <= 0) {
        return 0;
    }
    return static_cast<long>(static_cast<double>(total) / static_cast<double>(divisor));
}

}  // namespace detail
}  // namespace vc
