#include "kr7host/quality.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <utility>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace kr7host {

namespace {

// The sum of `count` bytes; 16 at a time with SSE2 (a result is summed on
// every frame while a finger lies still).
unsigned long long SumBytes(const std::uint8_t* bytes, int count) {
    unsigned long long sum = 0;
    int at = 0;
#if defined(__SSE2__)
    const __m128i zero = _mm_setzero_si128();
    __m128i sums = zero;
    for (; at + 16 <= count; at += 16) {
        const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + at));
        sums = _mm_add_epi64(sums, _mm_sad_epu8(block, zero));
    }
    sum = static_cast<unsigned long long>(_mm_cvtsi128_si64(sums)) +
          static_cast<unsigned long long>(_mm_cvtsi128_si64(_mm_unpackhi_epi64(sums, sums)));
#endif
    for (; at < count; ++at) {
        sum += bytes[at];
    }
    return sum;
}

// `row(y)` gives row y, counted from the top, of a grey image.
template <class Row>
unsigned long long TotalOfRows(int width, int height, Row row) {
    unsigned long long total = 0;
    for (int y = 0; y < height; ++y) {
        total += SumBytes(row(y), width);
    }
    return total;
}

double MeanOf(unsigned long long total, int width, int height) {
    return static_cast<double>(total) / (static_cast<double>(width) * static_cast<double>(height));
}

constexpr int kTile = 16;

// The figures of one 16×16 tile, in integers (exact, so the doubles made
// of them are the same on every path).
struct TileSums {
    std::uint32_t sum = 0;      // of the pixels
    std::uint32_t squares = 0;  // of their squares
};
struct TileRidges {
    std::uint32_t sum = 0;  // of the pixels below the tile's mean
    std::uint32_t count = 0;
};

// `line(y)` gives the tile's row y (0..15), its left edge.
template <class Line>
TileSums SumTile(Line line) {
    TileSums tile;
#if defined(__SSE2__)
    const __m128i zero = _mm_setzero_si128();
    __m128i sums = zero, squares = zero;
    for (int y = 0; y < kTile; ++y) {
        const __m128i pixels = _mm_loadu_si128(reinterpret_cast<const __m128i*>(line(y)));
        sums = _mm_add_epi64(sums, _mm_sad_epu8(pixels, zero));
        const __m128i low = _mm_unpacklo_epi8(pixels, zero);
        const __m128i high = _mm_unpackhi_epi8(pixels, zero);
        // 255² · 2 fits a 32-bit lane; 256 of them fit it too.
        squares = _mm_add_epi32(squares, _mm_madd_epi16(low, low));
        squares = _mm_add_epi32(squares, _mm_madd_epi16(high, high));
    }
    tile.sum = static_cast<std::uint32_t>(_mm_cvtsi128_si32(sums) +
                                          _mm_cvtsi128_si32(_mm_unpackhi_epi64(sums, sums)));
    squares = _mm_add_epi32(squares, _mm_unpackhi_epi64(squares, squares));
    squares = _mm_add_epi32(squares, _mm_shuffle_epi32(squares, 1));
    tile.squares = static_cast<std::uint32_t>(_mm_cvtsi128_si32(squares));
#else
    for (int y = 0; y < kTile; ++y) {
        const std::uint8_t* pixels = line(y);
        for (int x = 0; x < kTile; ++x) {
            tile.sum += pixels[x];
            tile.squares += std::uint32_t(pixels[x]) * pixels[x];
        }
    }
#endif
    return tile;
}

// The pixels below `limit`.
template <class Line>
TileRidges RidgesOfTile(Line line, std::uint8_t limit) {
    TileRidges ridges;
#if defined(__SSE2__)
    const __m128i zero = _mm_setzero_si128();
    const __m128i limits = _mm_set1_epi8(static_cast<char>(limit));
    const __m128i ones = _mm_set1_epi8(1);
    __m128i sums = zero, counts = zero;
    for (int y = 0; y < kTile; ++y) {
        const __m128i pixels = _mm_loadu_si128(reinterpret_cast<const __m128i*>(line(y)));
        // limit - pixel, saturated, is 0 exactly where the pixel is not below.
        const __m128i below =
            _mm_xor_si128(_mm_cmpeq_epi8(_mm_subs_epu8(limits, pixels), zero), _mm_set1_epi8(-1));
        sums = _mm_add_epi64(sums, _mm_sad_epu8(_mm_and_si128(pixels, below), zero));
        counts = _mm_add_epi64(counts, _mm_sad_epu8(_mm_and_si128(ones, below), zero));
    }
    ridges.sum = static_cast<std::uint32_t>(_mm_cvtsi128_si32(sums) +
                                            _mm_cvtsi128_si32(_mm_unpackhi_epi64(sums, sums)));
    ridges.count = static_cast<std::uint32_t>(
        _mm_cvtsi128_si32(counts) + _mm_cvtsi128_si32(_mm_unpackhi_epi64(counts, counts)));
#else
    for (int y = 0; y < kTile; ++y) {
        const std::uint8_t* pixels = line(y);
        for (int x = 0; x < kTile; ++x) {
            if (pixels[x] < limit) {
                ridges.sum += pixels[x];
                ++ridges.count;
            }
        }
    }
#endif
    return ridges;
}

template <class Row>
Quality MeasureRows(int width, int height, Row row) {
    // A tile belongs to the finger when its grey levels spread this far
    // (standard deviation); the bare platen stays within a few levels.
    constexpr double kFingerSpread = 12.0;
    constexpr std::uint32_t n = kTile * kTile;
    Quality quality;
    if (width <= 0 || height <= 0) {
        return quality;
    }
    quality.mean = MeanOf(TotalOfRows(width, height, row), width, height);

    int tiles = 0, covered = 0;
    double contrast = 0;
    for (int top = 0; top + kTile <= height; top += kTile) {
        for (int left = 0; left + kTile <= width; left += kTile) {
            const auto line = [&row, top, left](int y) { return row(top + y) + left; };
            const TileSums tile = SumTile(line);
            const double mean = static_cast<double>(tile.sum) / n;
            const double spread =
                std::sqrt(std::max(0.0, static_cast<double>(tile.squares) / n - mean * mean));
            ++tiles;
            if (spread < kFingerSpread) {
                continue;
            }
            ++covered;
            // Ridges are the pixels below the tile's mean, valleys the rest:
            // p < sum / n exactly when p < ceil(sum / n).
            const auto limit = static_cast<std::uint8_t>((tile.sum + n - 1) / n);
            const TileRidges ridges = RidgesOfTile(line, limit);
            const std::uint32_t valleyCount = n - ridges.count;
            if (ridges.count > 0 && valleyCount > 0) {
                const double valleys = static_cast<double>(tile.sum - ridges.sum) / valleyCount;
                contrast += (valleys - static_cast<double>(ridges.sum) / ridges.count) / 255.0;
            }
        }
    }
    if (tiles > 0) {
        quality.area = static_cast<double>(covered) / tiles;
    }
    if (covered > 0) {
        quality.contrast = contrast / covered;
    }
    return quality;
}

}  // namespace

Quality Measure(const Image& image) {
    if (image.Empty()) {
        return Quality();
    }
    return MeasureRows(image.width, image.height, [&image](int y) { return image.Row(y); });
}

double MeanGrey(const Image& image) {
    if (image.Empty()) {
        return Quality().mean;
    }
    return MeanOf(TotalOfRows(image.width, image.height, [&image](int y) { return image.Row(y); }),
                  image.width, image.height);
}

double MeanGrey(const BitmapView& view) {
    if (!view.Valid()) {
        return Quality().mean;
    }
    if (!view.GreyRamp()) {
        return Measure(Image(view)).mean;
    }
    return MeanOf(TotalOfRows(view.Width(), view.Height(), [&view](int y) { return view.Row(y); }),
                  view.Width(), view.Height());
}

Quality Measure(const BitmapView& view) {
    if (!view.Valid()) {
        return Quality();
    }
    if (!view.GreyRamp()) {
        return Measure(Image(view));
    }
    return MeasureRows(view.Width(), view.Height(), [&view](int y) { return view.Row(y); });
}

bool IsFingerMode(vc::eCaptureModeIDs mode) {
    return mode == vc::eCapturePlainFinger || mode == vc::eCaptureFastPlainFinger ||
           mode == vc::eCaptureRolledFinger;
}

const char* ModeName(vc::eCaptureModeIDs mode) {
    switch (mode) {
        case vc::eCaptureLive:
            return "live";
        case vc::eCapturePlainFinger:
            return "plain";
        case vc::eCaptureRolledFinger:
            return "rolled";
        case vc::eCaptureFastPlainFinger:
            return "fastplain";
        case vc::eCapturePreview:
            return "preview";
    }
    return "unknown";
}

bool ModeFromName(const std::string& name, vc::eCaptureModeIDs& mode) {
    for (vc::eCaptureModeIDs candidate :
         {vc::eCaptureLive, vc::eCapturePlainFinger, vc::eCaptureRolledFinger,
          vc::eCaptureFastPlainFinger, vc::eCapturePreview}) {
        if (name == ModeName(candidate)) {
            mode = candidate;
            return true;
        }
    }
    return false;
}

Shot Measured(Image&& image, std::int64_t frame) {
    Shot shot;
    shot.quality = Measure(image);
    shot.image = std::move(image);
    shot.frame = frame < 0 ? 0 : frame;
    return shot;
}

void Placements::Frame(Shot&& shot) {
    m_bFinger = shot.quality.area >= kFingerArea;
    if (!IsFingerMode(m_eMode)) {
        Hand(std::move(shot));
    } else if (m_eMode != vc::eCaptureRolledFinger && m_Best && !m_bFinger &&
               m_nLastResultFrame < shot.frame - 1) {
        // No result on the previous frame and no finger on this one.
        Close();
    }
}

void Placements::Result(Shot&& shot) {
    m_nLastResultFrame = shot.frame;
    m_LastResult = Clock::now();
    if (m_eMode == vc::eCaptureRolledFinger) {
        Hand(std::move(shot));
    } else if (Keeps(shot.quality)) {
        if (m_Best) {
            m_Spare = std::move(m_Best->image);
        }
        m_Best = std::move(shot);
    } else if (!shot.image.Empty()) {
        m_Spare = std::move(shot.image);
    }
}

bool Placements::Keeps(const Quality& quality) const {
    return m_eMode == vc::eCaptureRolledFinger || !m_Best || quality.mean < m_Best->quality.mean;
}

bool Placements::NeedsQuality(std::int64_t frame) const {
    return IsFingerMode(m_eMode) && m_eMode != vc::eCaptureRolledFinger && m_Best &&
           m_nLastResultFrame < frame - 1;
}

void Placements::Close() {
    if (m_Best) {
        Hand(std::move(*m_Best));
        m_Best.reset();
    }
}

std::vector<Shot> Placements::TakeReady() {
    return std::exchange(m_vReady, {});
}

bool Placements::Taken() const {
    if (m_eMode == vc::eCaptureRolledFinger) {
        return m_LastResult != Clock::time_point() &&
               Clock::now() - m_LastResult < std::chrono::milliseconds(1500);
    }
    return m_bFinger && m_Best;
}

const char* Placements::Prompt() const {
    switch (m_eMode) {
        case vc::eCaptureRolledFinger:
            return Taken() ? "Lift the finger" : "Roll the finger from one nail edge to the other";
        case vc::eCapturePlainFinger:
        case vc::eCaptureFastPlainFinger:
            if (!m_bFinger) {
                return "Place a finger on the platen";
            }
            return m_Best ? "Lift the finger" : "Hold the finger still";
        default:
            return "Taking frames";
    }
}

void Placements::Hand(Shot&& shot) {
    if (m_nHanded < m_nWanted) {
        ++m_nHanded;
        m_vReady.push_back(std::move(shot));
    }
}

}  // namespace kr7host
