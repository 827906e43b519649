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

ClRolledFingerVC1::ClRolledFingerVC1(const ClRolledFingerVC1& other)
    : ClImageDetection(other),
      m_nResetThreshold(other.m_nResetThreshold),
      m_nConstant(other.m_nConstant),
      m_bInitialized(other.m_bInitialized),
      m_bRolling(other.m_bRolling),
      m_nThreshold(other.m_nThreshold),
      m_nReferenceGray(other.m_nReferenceGray),
      m_vColumnSums(other.m_vColumnSums) {
    detail::CopyFrame(m_Composed, other.m_Composed);
}

ClRolledFingerVC1& ClRolledFingerVC1::operator=(const ClRolledFingerVC1& other) {
    if (this != &other) {
        m_nResetThreshold = other.m_nResetThreshold;
        m_nConstant = other.m_nConstant;
        m_bInitialized = other.m_bInitialized;
        m_bRolling = other.m_bRolling;
        m_nThreshold = other.m_nThreshold;
        m_nReferenceGray = other.m_nReferenceGray;
        m_vColumnSums = other.m_vColumnSums;
        detail::CopyFrame(m_Composed, other.m_Composed);
    }
    return *this;
}

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

void ClRolledFingerVC1::Initialize(const ClSimpleBitmap& image) {
    if (m_bInitialized) {
        return;
    }
    m_nReferenceGray = static_cast<std::int32_t>(ClBitmapUtilities::Gray_Avarage(image));
    if (m_nReferenceGray > 220) {
        TakeBackground(image);
    }
}

void ClRolledFingerVC1::TakeBackground(const ClSimpleBitmap& image) {
    const detail::FrameView view = detail::View(image);
    detail::ColumnSums(view, m_vFrameSums, m_vScratch);
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
    // Columns darker than ever before are taken over (the mask marks them).
    m_vMask.assign(static_cast<std::size_t>(view.stride), 0);
    long firstColumn = view.width;
    long lastColumn = -1;
    for (long c = 0; c < view.width; ++c) {
        const long sum = m_vFrameSums[static_cast<std::size_t>(c)];
        if (sum < m_vColumnSums[static_cast<std::size_t>(c)]) {
            m_vColumnSums[static_cast<std::size_t>(c)] = sum;
            m_vMask[static_cast<std::size_t>(c)] = 0xFF;
            firstColumn = std::min(firstColumn, c);
            lastColumn = c;
        }
    }
    if (lastColumn < 0) {
        detail::CopyFrame(output, m_Composed);
        return;
    }
    // One pass over the rows updates the composed image and writes it to output.
    unsigned char* out = detail::PrepareCopy(output, m_Composed);
    unsigned char* composed = m_Composed.Pixel();
    const unsigned char* mask = m_vMask.data();
    const long spanEnd = lastColumn + 1;
    for (long y = 0; y < view.height; ++y) {
        const unsigned char* in = view.Row(y);
        unsigned char* comp = composed + y * view.stride;
        unsigned char* dst = out + y * view.stride;
        for (long c = firstColumn; c < spanEnd; ++c) {
            const unsigned char m = mask[c];
            comp[c] = static_cast<unsigned char>((in[c] & m) | (comp[c] & ~m));
        }
        if (dst != comp) {
            std::memcpy(dst, comp, static_cast<std::size_t>(view.stride));
        }
    }
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
    const std::uint64_t total = detail::ColumnSums(view, m_vFrameSums, m_vScratch);
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

ClRolledFinger::ClRolledFinger(const ClRolledFinger& other)
    : ClImageDetection(other),
      m_bReserved(other.m_bReserved),
      m_bInitialized(other.m_bInitialized),
      m_bRolling(other.m_bRolling),
      m_nLeftReference(other.m_nLeftReference),
      m_nWholeReference(other.m_nWholeReference),
      m_vBorders(other.m_vBorders) {
    detail::CopyFrame(m_Composed, other.m_Composed);
}

ClRolledFinger& ClRolledFinger::operator=(const ClRolledFinger& other) {
    if (this != &other) {
        m_bReserved = other.m_bReserved;
        m_bInitialized = other.m_bInitialized;
        m_bRolling = other.m_bRolling;
        m_nLeftReference = other.m_nLeftReference;
        m_nWholeReference = other.m_nWholeReference;
        m_vBorders = other.m_vBorders;
        detail::CopyFrame(m_Composed, other.m_Composed);
    }
    return *this;
}

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
        for (long y = 0; y < view.height; ++y) {
            total += static_cast<std::int64_t>(
                detail::SumBytes(view.Row(y) + first, static_cast<std::size_t>(last - first)));
        }
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

long ClRolledFinger::LineRand(const unsigned char* row, long from, long to) {
    if (from >= to) {
        return 0;
    }
    // Running prefix sum instead of averaging each prefix anew.
    std::uint64_t prefix = from > 0 ? detail::SumBytes(row, static_cast<std::size_t>(from)) : 0;
    long best = 255;
    long position = 0;
    for (long x = from; x < to; ++x) {
        const long average =
            x <= 0 ? row[0] : static_cast<long>(prefix / static_cast<std::uint64_t>(x));
        if (average <= best) {
            best = average;
            position = x;
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
    // LineRand(row, start, width) is needed for at most 256 starts. It is the
    // latest position of the smallest prefix average in [start, width): found
    // for every start by one backward pass over the prefix averages.
    const unsigned char* row = view.Row(0);
    const long width = view.width;
    constexpr long kStarts = 256;
    m_vBorderOfStart.assign(kStarts, 0);
    if (width > 0) {
        std::vector<long>& averages = m_vPrefixAverages;
        averages.resize(static_cast<std::size_t>(width));
        std::uint64_t prefix = 0;
        for (long x = 0; x < width; ++x) {
            averages[static_cast<std::size_t>(x)] =
                x == 0 ? row[0] : static_cast<long>(prefix / static_cast<std::uint64_t>(x));
            prefix += row[x];
        }
        long best = std::numeric_limits<long>::max();
        long position = 0;
        for (long x = width - 1; x >= 0; --x) {
            if (averages[static_cast<std::size_t>(x)] < best) {
                best = averages[static_cast<std::size_t>(x)];
                position = x;
            }
            if (x < kStarts) {
                m_vBorderOfStart[static_cast<std::size_t>(x)] = position;
            }
        }
    }
    for (std::size_t y = 0; y < rows; ++y) {
        newBorders[y] = static_cast<unsigned char>(m_vBorderOfStart[borders[y]]);
    }
}

void ClRolledFinger::CopyBitmapRow(const ClSimpleBitmap& from, ClSimpleBitmap& to, long row,
                                   long begin, long end) {
    const detail::FrameView source = detail::View(from);
    const detail::FrameView target = detail::View(to);
    begin = std::max(begin, 0L);
    end = std::min(end, source.width);
    if (end <= begin || row < 0 || row >= source.height) {
        return;
    }
    const long at = row * source.stride + begin;
    const long count = std::min(end - begin, target.size - at);
    if (count > 0) {
        std::memcpy(to.Pixel() + at, source.pixels + at, static_cast<std::size_t>(count));
    }
}

void ClRolledFinger::BitmapProfilCopy(const ClSimpleBitmap& from, ClSimpleBitmap& to,
                                      const std::vector<unsigned char>& borders,
                                      const std::vector<unsigned char>& newBorders) {
    const std::size_t rows = std::min(borders.size(), newBorders.size());
    for (std::size_t y = 0; y < rows; ++y) {
        CopyBitmapRow(from, to, static_cast<long>(y), borders[y], newBorders[y]);
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
