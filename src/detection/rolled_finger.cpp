#include "detection/rolled_finger.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "detection/bitmap_utilities.h"
#include "detection/frame_access.h"

namespace vc {

using Nvk::utilities::ClSimpleBitmap;

// ---------------------------------------------------------------------------
// ClRolledFingerVC1

ClRolledFingerVC1* ClRolledFingerVC1::clone() const {
    return new ClRolledFingerVC1(*this);
}

long ClRolledFingerVC1::ColumnSum(const ClSimpleBitmap& image, long column) const {
    const detail::FrameView view = detail::View(image);
    if (column < 0 || column >= view.width) {
        return 0;
    }
    long sum = 0;
    for (long y = 0; y < view.height; ++y) {
        sum += view.Row(y)[column];
    }
    return sum;
}

void ClRolledFingerVC1::CpyColumn(const ClSimpleBitmap& from, ClSimpleBitmap& to, long column) {
    const detail::FrameView source = detail::View(from);
    const detail::FrameView target = detail::View(to);
    if (column < 0 || column >= source.width || target.height == 0) {
        return;
    }
    unsigned char* pixels = to.Pixel();
    for (long y = 0; y < source.height; ++y) {
        const long at = y * source.stride + column;
        if (at >= target.size) {
            break;
        }
        pixels[at] = source.pixels[at];
    }
}

void ClRolledFingerVC1::Reset() {
    m_bInitialized = false;
    m_bRolling = false;
    m_nThreshold = m_nResetThreshold;
}

void ClRolledFingerVC1::TakeBackground(const ClSimpleBitmap& image) {
    const detail::FrameView view = detail::View(image);
    detail::ColumnSums(view, m_vFrameSums);
    long threshold = view.width * 255L;
    m_vColumnSums.resize(static_cast<std::size_t>(view.width));
    for (std::size_t c = 0; c < m_vColumnSums.size(); ++c) {
        m_vColumnSums[c] = m_vFrameSums[c];
        threshold = std::min(threshold, m_vColumnSums[c]);
    }
    threshold -= threshold / 20;
    m_nThreshold = static_cast<std::int32_t>(threshold);
    detail::CopyFrame(m_Composed, image);
    m_bInitialized = true;
}

void ClRolledFingerVC1::Compose(const ClSimpleBitmap& input, ClSimpleBitmap& output) {
    const detail::FrameView view = detail::View(input);
    // Frames of one capture share their format; a frame that does not match
    // the background cannot contribute columns.
    if (!detail::SameFormat(input, m_Composed) ||
        m_vColumnSums.size() != static_cast<std::size_t>(view.width)) {
        detail::CopyFrame(output, m_Composed);
        return;
    }
    // Columns darker than ever before are taken over. They usually form one
    // run (the band the finger rolled onto): each run is copied down the
    // rows; a mask scattered over many runs is blended over its span instead.
    m_vTaken.assign(static_cast<std::size_t>(view.width), 0);
    m_vRuns.clear();
    for (long c = 0; c < view.width; ++c) {
        const long sum = m_vFrameSums[static_cast<std::size_t>(c)];
        if (sum < m_vColumnSums[static_cast<std::size_t>(c)]) {
            m_vColumnSums[static_cast<std::size_t>(c)] = sum;
            m_vTaken[static_cast<std::size_t>(c)] = 0xFF;
            if (!m_vRuns.empty() && m_vRuns.back().second == c) {
                m_vRuns.back().second = c + 1;
            } else {
                m_vRuns.emplace_back(c, c + 1);
            }
        }
    }
    constexpr std::size_t kMaxRunCopies = 4;
    if (m_vRuns.size() <= kMaxRunCopies) {
        for (const auto& run : m_vRuns) {
            detail::CopyColumns(view.pixels, m_Composed.Pixel(), view.height, view.stride,
                                run.first, run.second);
        }
    } else {
        detail::TakeColumns(view.pixels, m_Composed.Pixel(), view.height, view.stride,
                            m_vTaken.data(), m_vRuns.front().first, m_vRuns.back().second);
    }
    detail::CopyFrame(output, m_Composed);
}

bool ClRolledFingerVC1::Detect(ClSimpleBitmap& input, ClSimpleBitmap& output) {
    const detail::FrameView view = detail::View(input);
    if (!m_bRolling) {
        // output := input and the whole-image average, in one pass.
        const long average = detail::WholeAverage(input, view, detail::CopyAndTotal(output, input));
        if (!m_bInitialized) {
            m_nReferenceGray = static_cast<std::int32_t>(average);
            if (average > 220) {
                TakeBackground(input);
            }
        }
        if (m_nReferenceGray - average > 19) {
            m_bRolling = true;
        }
        return false;
    }
    // Rolling: the column sums of this frame give the finger test as well.
    const std::uint64_t total = detail::ColumnSums(view, m_vFrameSums);
    if (m_nReferenceGray - detail::WholeAverage(input, view, total) > 19) {
        Compose(input, output);
        return false;
    }
    Reset();
    detail::CopyFrame(output, m_Composed);
    return true;
}

// ---------------------------------------------------------------------------
// ClRolledFinger

long ClRolledFinger::Gray_Avarage(const ClSimpleBitmap& image, eDetectArea area) {
    const detail::FrameView view = detail::View(image);
    if (view.height == 0) {
        return 0;
    }
    std::int64_t total = 0;
    if (area == eWholeWidth) {
        total = static_cast<std::int64_t>(detail::PixelTotal(view));
    } else if (area == eLeftStrip || area == eRightStrip) {
        // A frame narrower than the strip contributes the columns it has.
        const long first = area == eLeftStrip ? 0 : std::max(view.width - m_cnDetectRowCount, 0L);
        const long last =
            area == eLeftStrip ? std::min(m_cnDetectRowCount, view.width) : view.width;
        total = static_cast<std::int64_t>(
            detail::SumStrip(view.pixels + first, view.height, view.stride, last - first));
    }
    return detail::TruncatedMean(total,
                                 static_cast<std::int64_t>(view.height) * m_cnDetectRowCount);
}

bool ClRolledFinger::IsFinger(const ClSimpleBitmap& image, eDetectArea area) {
    const long reference = area == eWholeWidth ? m_nWholeReference : m_nLeftReference;
    return reference - Gray_Avarage(image, area) > m_cnDelta_Gray;
}

void ClRolledFinger::Initialize(const ClSimpleBitmap& image) {
    if (m_bInitialized) {
        return;
    }
    m_nLeftReference = static_cast<std::int32_t>(Gray_Avarage(image, eLeftStrip));
    m_nWholeReference = static_cast<std::int32_t>(Gray_Avarage(image, eWholeWidth));
    m_vBorders.assign(static_cast<std::size_t>(detail::View(image).height), 0);
    detail::CopyFrame(m_Composed, image);
    m_bInitialized = true;
}

void ClRolledFinger::Uninitialize() {
    m_bInitialized = false;
    m_bRolling = false;
}

long ClRolledFinger::LineAvarage(const unsigned char* row, long count) {
    if (count <= 0) {
        return row[0];
    }
    return static_cast<long>(detail::SumBytes(row, static_cast<std::size_t>(count)) /
                             static_cast<std::uint64_t>(count));
}

// Prefix means are compared without dividing: for x > 0,
// floor(prefix / x) <= b exactly when prefix < (b + 1) × x. A division is
// made only when the best mean changes.
long ClRolledFinger::LineRand(const unsigned char* row, long from, long to) {
    if (from >= to) {
        return 0;
    }
    std::uint64_t prefix = from > 0 ? detail::SumBytes(row, static_cast<std::size_t>(from)) : 0;
    std::uint64_t best = 255;
    long position = 0;
    for (long x = from; x < to; ++x) {
        if (x <= 0) {
            if (row[0] <= best) {
                best = row[0];
                position = x;
            }
        } else {
            const auto count = static_cast<std::uint64_t>(x);
            if (prefix < (best + 1) * count) {
                best = prefix / count;
                position = x;
            }
        }
        if (x >= 0) {
            prefix += row[x];
        }
    }
    return position;
}

void ClRolledFinger::CalculateLineRand(const ClSimpleBitmap& image,
                                       const std::vector<unsigned char>& borders,
                                       std::vector<unsigned char>& newBorders) {
    const detail::FrameView view = detail::View(image);
    const std::size_t rows =
        std::min({static_cast<std::size_t>(view.height), borders.size(), newBorders.size()});
    if (rows == 0) {
        return;
    }
    // All rows are measured on the first pixel row and a border is a byte, so
    // LineRand(row, start, width) is needed for at most 256 starts: the latest
    // position of the smallest prefix mean in [start, width). One backward
    // pass over the prefix sums finds it for every start (a strictly smaller
    // mean takes over, so among equal ones the latest stays).
    const unsigned char* row = view.Row(0);
    const long width = view.width;
    constexpr long kStarts = 256;
    m_vBorderOfStart.assign(kStarts, 0);
    if (width > 0) {
        std::vector<std::uint64_t>& prefix = m_vPrefixSums;
        prefix.resize(static_cast<std::size_t>(width));
        std::uint64_t sum = 0;
        for (long x = 0; x < width; ++x) {
            prefix[static_cast<std::size_t>(x)] = sum;
            sum += row[x];
        }
        std::uint64_t best = 256;  // above every mean
        long position = 0;
        for (long x = width - 1; x >= 1; --x) {
            const auto count = static_cast<std::uint64_t>(x);
            if (prefix[static_cast<std::size_t>(x)] < best * count) {
                best = prefix[static_cast<std::size_t>(x)] / count;
                position = x;
            }
            if (x < kStarts) {
                m_vBorderOfStart[static_cast<std::size_t>(x)] = position;
            }
        }
        if (row[0] < best) {
            position = 0;
        }
        m_vBorderOfStart[0] = position;
    }
    for (std::size_t y = 0; y < rows; ++y) {
        newBorders[y] = static_cast<unsigned char>(m_vBorderOfStart[borders[y]]);
    }
}

namespace {

// Pixels [begin, end) of `row` from `source` to the same bytes of `target`
// (source's row stride for both), kept inside both images.
void CopyRowSpan(const detail::FrameView& source, unsigned char* target, long targetSize, long row,
                 long begin, long end) {
    begin = std::max(begin, 0L);
    end = std::min(end, source.width);
    if (end <= begin || row < 0 || row >= source.height) {
        return;
    }
    const long at = row * source.stride + begin;
    const long count = std::min(end - begin, targetSize - at);
    if (count > 0) {
        std::memcpy(target + at, source.pixels + at, static_cast<std::size_t>(count));
    }
}

}  // namespace

void ClRolledFinger::CopyBitmapRow(const ClSimpleBitmap& from, ClSimpleBitmap& to, long row,
                                   long begin, long end) {
    CopyRowSpan(detail::View(from), to.Pixel(), detail::View(to).size, row, begin, end);
}

void ClRolledFinger::BitmapProfilCopy(const ClSimpleBitmap& from, ClSimpleBitmap& to,
                                      const std::vector<unsigned char>& borders,
                                      const std::vector<unsigned char>& newBorders) {
    const detail::FrameView source = detail::View(from);
    unsigned char* target = to.Pixel();
    const long targetSize = detail::View(to).size;
    const std::size_t rows = std::min(borders.size(), newBorders.size());
    if (rows == 0) {
        return;
    }
    // The borders move as one vertical border, so the spans are normally the
    // same in every row: then one strided copy takes them all.
    const long begin = borders[0];
    const long end = std::min(static_cast<long>(newBorders[0]), source.width);
    const long spanRows = std::min(static_cast<long>(rows), source.height);
    const bool uniform =
        std::all_of(borders.begin(), borders.begin() + static_cast<long>(rows),
                    [&](unsigned char b) { return b == borders[0]; }) &&
        std::all_of(newBorders.begin(), newBorders.begin() + static_cast<long>(rows),
                    [&](unsigned char b) { return b == newBorders[0]; });
    if (uniform && (end <= begin || spanRows <= 0)) {
        return;
    }
    if (uniform && (spanRows - 1) * source.stride + end <= targetSize) {
        detail::CopyColumns(source.pixels, target, spanRows, source.stride, begin, end);
        return;
    }
    for (std::size_t y = 0; y < rows; ++y) {
        CopyRowSpan(source, target, targetSize, static_cast<long>(y), borders[y], newBorders[y]);
    }
}

bool ClRolledFinger::Detect(ClSimpleBitmap& input, ClSimpleBitmap& output) {
    Initialize(input);
    bool result = false;
    if (m_bRolling) {
        if (IsFinger(input, eWholeWidth)) {
            m_vNewBorders.assign(static_cast<std::size_t>(detail::View(input).height), 0);
            CalculateLineRand(input, m_vBorders, m_vNewBorders);
            BitmapProfilCopy(input, m_Composed, m_vBorders, m_vNewBorders);
            m_vBorders.swap(m_vNewBorders);
        } else {
            Uninitialize();
            result = true;
        }
    } else if (IsFinger(input, eLeftStrip)) {
        m_bRolling = true;
    }
    // output keeps its own format; it receives as much of the composed image
    // as its pixel rows hold.
    const detail::FrameView composed = detail::View(m_Composed);
    const detail::FrameView target = detail::View(output);
    const long count = std::min(composed.size, target.size);
    if (count > 0 && target.pixels != composed.pixels) {
        std::memcpy(output.Pixel(), composed.pixels, static_cast<std::size_t>(count));
    }
    return result;
}

}  // namespace vc
