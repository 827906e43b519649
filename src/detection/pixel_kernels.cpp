#include "detection/pixel_kernels.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
#define KR7_DETECTION_X86 1
#else
#define KR7_DETECTION_X86 0
#endif

namespace vc {
namespace detail {

namespace {

// 16-bit partial column sums over at most 257 rows cannot overflow
// (257 × 255 = 65535).
constexpr long kBand = 257;

std::uint64_t SumPlain(const unsigned char* p, std::size_t n) {
    std::uint64_t total = 0;
    for (std::size_t i = 0; i < n; ++i) {
        total += p[i];
    }
    return total;
}

// Row-major column sums for the columns the strip kernels leave over.
void AddColumnsPlain(const unsigned char* p, long rows, long stride, long width,
                     std::uint32_t* sums) {
    for (long y = 0; y < rows; ++y) {
        const unsigned char* row = p + y * stride;
        for (long c = 0; c < width; ++c) {
            sums[c] += row[c];
        }
    }
}

void TakePlain(const unsigned char* in, unsigned char* out, long rows, long stride,
               const unsigned char* take, long first, long last) {
    for (long y = 0; y < rows; ++y) {
        const unsigned char* src = in + y * stride;
        unsigned char* dst = out + y * stride;
        for (long c = first; c < last; ++c) {
            dst[c] = static_cast<unsigned char>((src[c] & take[c]) | (dst[c] & ~take[c]));
        }
    }
}

std::uint64_t StripPlain(const unsigned char* p, long rows, long stride, long count) {
    std::uint64_t total = 0;
    for (long y = 0; y < rows; ++y) {
        total += SumPlain(p + y * stride, static_cast<std::size_t>(count));
    }
    return total;
}

// Sliding byte mask: 32 zero bytes, then 32 bytes 0xFF. Loaded at kTail + k
// as a 32-byte vector (at kTail + 16 + k as a 16-byte one) it keeps exactly
// the last k bytes.
alignas(64) constexpr unsigned char kTail[64] = {
    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,
    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,    0,
    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
    0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

void CopyPlain(const unsigned char* in, unsigned char* out, long rows, long stride, long first,
               long last) {
    for (long y = 0; y < rows; ++y) {
        std::memcpy(out + y * stride + first, in + y * stride + first,
                    static_cast<std::size_t>(last - first));
    }
}

struct Kernels {
    std::uint64_t (*sum)(const unsigned char*, std::size_t);
    std::uint64_t (*strip)(const unsigned char*, long, long, long);
    void (*columns)(const unsigned char*, long, long, long, std::uint32_t*);
    void (*take)(const unsigned char*, unsigned char*, long, long, const unsigned char*, long,
                 long);
    void (*copy)(const unsigned char*, unsigned char*, long, long, long, long);
};

const Kernels kPlainKernels{SumPlain, StripPlain, AddColumnsPlain, TakePlain, CopyPlain};

#if KR7_DETECTION_X86

inline std::uint64_t Sse2Total(__m128i v) {
    return static_cast<std::uint64_t>(_mm_cvtsi128_si64(v)) +
           static_cast<std::uint64_t>(_mm_cvtsi128_si64(_mm_unpackhi_epi64(v, v)));
}

inline std::uint64_t SumSse2(const unsigned char* p, std::size_t n) {
    const __m128i zero = _mm_setzero_si128();
    __m128i a0 = zero;
    __m128i a1 = zero;
    std::size_t i = 0;
    for (; i + 32 <= n; i += 32) {
        const auto* q = reinterpret_cast<const __m128i*>(p + i);
        a0 = _mm_add_epi64(a0, _mm_sad_epu8(_mm_loadu_si128(q), zero));
        a1 = _mm_add_epi64(a1, _mm_sad_epu8(_mm_loadu_si128(q + 1), zero));
    }
    if (i + 16 <= n) {
        a0 = _mm_add_epi64(
            a0, _mm_sad_epu8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i)), zero));
        i += 16;
    }
    if (i < n && n >= 16) {
        // The rest as the last 16 bytes with those already counted masked off.
        const __m128i keep =
            _mm_loadu_si128(reinterpret_cast<const __m128i*>(kTail + 16 + (n - i)));
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + n - 16));
        a1 = _mm_add_epi64(a1, _mm_sad_epu8(_mm_and_si128(v, keep), zero));
        i = n;
    }
    return Sse2Total(_mm_add_epi64(a0, a1)) + SumPlain(p + i, n - i);
}

std::uint64_t StripSse2(const unsigned char* p, long rows, long stride, long count) {
    std::uint64_t total = 0;
    for (long y = 0; y < rows; ++y) {
        total += SumSse2(p + y * stride, static_cast<std::size_t>(count));
    }
    return total;
}

// Strips of 32 columns; even and odd bytes go to separate 16-bit lanes.
void ColumnsSse2(const unsigned char* p, long rows, long stride, long width, std::uint32_t* sums) {
    const __m128i low = _mm_set1_epi16(0x00FF);
    long x0 = 0;
    for (; x0 + 32 <= width; x0 += 32) {
        for (long y0 = 0; y0 < rows; y0 += kBand) {
            const long y1 = std::min(rows, y0 + kBand);
            __m128i e0 = _mm_setzero_si128();
            __m128i o0 = e0;
            __m128i e1 = e0;
            __m128i o1 = e0;
            const unsigned char* q = p + y0 * stride + x0;
            for (long y = y0; y < y1; ++y, q += stride) {
                const __m128i v0 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(q));
                const __m128i v1 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(q + 16));
                e0 = _mm_add_epi16(e0, _mm_and_si128(v0, low));
                o0 = _mm_add_epi16(o0, _mm_srli_epi16(v0, 8));
                e1 = _mm_add_epi16(e1, _mm_and_si128(v1, low));
                o1 = _mm_add_epi16(o1, _mm_srli_epi16(v1, 8));
            }
            alignas(16) std::uint16_t t[4][8];
            _mm_store_si128(reinterpret_cast<__m128i*>(t[0]), e0);
            _mm_store_si128(reinterpret_cast<__m128i*>(t[1]), o0);
            _mm_store_si128(reinterpret_cast<__m128i*>(t[2]), e1);
            _mm_store_si128(reinterpret_cast<__m128i*>(t[3]), o1);
            for (int k = 0; k < 8; ++k) {
                sums[x0 + 2 * k] += t[0][k];
                sums[x0 + 2 * k + 1] += t[1][k];
                sums[x0 + 16 + 2 * k] += t[2][k];
                sums[x0 + 16 + 2 * k + 1] += t[3][k];
            }
        }
    }
    AddColumnsPlain(p + x0, rows, stride, width - x0, sums + x0);
}

__attribute__((target("avx2"))) inline std::uint64_t SumAvx2(const unsigned char* p,
                                                             std::size_t n) {
    const __m256i zero = _mm256_setzero_si256();
    __m256i a0 = zero;
    __m256i a1 = zero;
    __m256i a2 = zero;
    __m256i a3 = zero;
    std::size_t i = 0;
    for (; i + 128 <= n; i += 128) {
        const auto* q = reinterpret_cast<const __m256i*>(p + i);
        a0 = _mm256_add_epi64(a0, _mm256_sad_epu8(_mm256_loadu_si256(q), zero));
        a1 = _mm256_add_epi64(a1, _mm256_sad_epu8(_mm256_loadu_si256(q + 1), zero));
        a2 = _mm256_add_epi64(a2, _mm256_sad_epu8(_mm256_loadu_si256(q + 2), zero));
        a3 = _mm256_add_epi64(a3, _mm256_sad_epu8(_mm256_loadu_si256(q + 3), zero));
    }
    for (; i + 32 <= n; i += 32) {
        a0 = _mm256_add_epi64(
            a0, _mm256_sad_epu8(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + i)), zero));
    }
    if (i < n && n >= 32) {
        // The rest as the last 32 bytes with those already counted masked off.
        const __m256i keep = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(kTail + (n - i)));
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + n - 32));
        a1 = _mm256_add_epi64(a1, _mm256_sad_epu8(_mm256_and_si256(v, keep), zero));
        i = n;
    } else if (i < n) {
        return SumSse2(p, n);  // shorter than one vector
    }
    const __m256i a = _mm256_add_epi64(_mm256_add_epi64(a0, a1), _mm256_add_epi64(a2, a3));
    const __m128i half = _mm_add_epi64(_mm256_castsi256_si128(a), _mm256_extracti128_si256(a, 1));
    std::uint64_t total = static_cast<std::uint64_t>(_mm_cvtsi128_si64(half)) +
                          static_cast<std::uint64_t>(_mm_extract_epi64(half, 1));
    for (; i < n; ++i) {
        total += p[i];
    }
    return total;
}

__attribute__((target("avx2"))) std::uint64_t StripAvx2(const unsigned char* p, long rows,
                                                        long stride, long count) {
    std::uint64_t total = 0;
    for (long y = 0; y < rows; ++y) {
        total += SumAvx2(p + y * stride, static_cast<std::size_t>(count));
    }
    return total;
}

// Byte mask of the lanes [from, 64) of a 64-byte strip, as two halves.
__attribute__((target("avx2"))) inline void LaneMask(long from, __m256i& keep0, __m256i& keep1) {
    alignas(32) unsigned char bytes[64];
    for (long k = 0; k < 64; ++k) {
        bytes[k] = static_cast<unsigned char>(k >= from ? 0xFF : 0x00);
    }
    keep0 = _mm256_load_si256(reinterpret_cast<const __m256i*>(bytes));
    keep1 = _mm256_load_si256(reinterpret_cast<const __m256i*>(bytes + 32));
}

// Column sums in strips of 64 columns. The rows are walked in blocks of 32
// rows, all strips of a block before the next block, so the block stays in
// the first-level cache and a cache line shared by two strips is fetched
// once. Each strip keeps 16-bit partial sums in four registers while it walks
// a block (parked in `parked` between blocks): per lane the raw words w (low
// byte + 256 × high byte, wrapping) and the high bytes h; the low-byte sum is
// w − 256 × h, exact modulo 2^16 and so exact within a band of 256 rows.
// A width that is not a multiple of 64 ends with a strip moved back to end at
// the last column, its lanes already covered masked off.
__attribute__((target("avx2"))) void ColumnsAvx2(const unsigned char* p, long rows, long stride,
                                                 long width, std::uint32_t* sums) {
    if (width < 64) {
        ColumnsSse2(p, rows, stride, width, sums);
        return;
    }
    constexpr long kMaxStrips = 32;  // columns are taken 2048 at a time
    constexpr long kRowBlock = 32;
    constexpr long kBand256 = 256;
    alignas(32) __m256i parked[kMaxStrips][4];
    const __m256i all = _mm256_set1_epi8(-1);
    for (long c0 = 0; c0 < width; c0 += kMaxStrips * 64) {
        const long strips = std::min(kMaxStrips, (width - c0 + 63) / 64);
        long lastBase = c0 + (strips - 1) * 64;
        __m256i lastKeep0 = all;
        __m256i lastKeep1 = all;
        if (lastBase + 64 > width) {
            LaneMask(lastBase - (width - 64), lastKeep0, lastKeep1);
            lastBase = width - 64;
        }
        for (long y0 = 0; y0 < rows; y0 += kBand256) {
            const long y1 = std::min(rows, y0 + kBand256);
            for (long s = 0; s < strips; ++s) {
                for (auto& reg : parked[s]) {
                    reg = _mm256_setzero_si256();
                }
            }
            for (long yb = y0; yb < y1; yb += kRowBlock) {
                const long ye = std::min(y1, yb + kRowBlock);
                for (long s = 0; s < strips; ++s) {
                    const bool last = s == strips - 1;
                    const long base = last ? lastBase : c0 + s * 64;
                    const __m256i keep0 = last ? lastKeep0 : all;
                    const __m256i keep1 = last ? lastKeep1 : all;
                    __m256i w0 = parked[s][0];
                    __m256i h0 = parked[s][1];
                    __m256i w1 = parked[s][2];
                    __m256i h1 = parked[s][3];
                    const unsigned char* r = p + yb * stride + base;
                    for (long y = yb; y < ye; ++y, r += stride) {
                        const __m256i v0 = _mm256_and_si256(
                            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(r)), keep0);
                        const __m256i v1 = _mm256_and_si256(
                            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(r + 32)), keep1);
                        w0 = _mm256_add_epi16(w0, v0);
                        h0 = _mm256_add_epi16(h0, _mm256_srli_epi16(v0, 8));
                        w1 = _mm256_add_epi16(w1, v1);
                        h1 = _mm256_add_epi16(h1, _mm256_srli_epi16(v1, 8));
                    }
                    parked[s][0] = w0;
                    parked[s][1] = h0;
                    parked[s][2] = w1;
                    parked[s][3] = h1;
                }
            }
            for (long s = 0; s < strips; ++s) {
                const long base = s == strips - 1 ? lastBase : c0 + s * 64;
                alignas(32) std::uint16_t t[4][16];
                _mm256_store_si256(
                    reinterpret_cast<__m256i*>(t[0]),
                    _mm256_sub_epi16(parked[s][0], _mm256_slli_epi16(parked[s][1], 8)));
                _mm256_store_si256(reinterpret_cast<__m256i*>(t[1]), parked[s][1]);
                _mm256_store_si256(
                    reinterpret_cast<__m256i*>(t[2]),
                    _mm256_sub_epi16(parked[s][2], _mm256_slli_epi16(parked[s][3], 8)));
                _mm256_store_si256(reinterpret_cast<__m256i*>(t[3]), parked[s][3]);
                std::uint32_t* out = sums + base;
                for (int k = 0; k < 16; ++k) {
                    out[2 * k] += t[0][k];
                    out[2 * k + 1] += t[1][k];
                    out[32 + 2 * k] += t[2][k];
                    out[32 + 2 * k + 1] += t[3][k];
                }
            }
        }
    }
}

// Blends 32 bytes at a time. The last block of a row ends at `last` and may
// overlap the one before it: it is blended from the row as it was and stored
// last (a byte blended twice gets the same value), so no load waits on an
// overlapping store.
__attribute__((target("avx2"))) void TakeAvx2(const unsigned char* in, unsigned char* out,
                                              long rows, long stride, const unsigned char* take,
                                              long first, long last) {
    if (last - first < 32) {
        TakePlain(in, out, rows, stride, take, first, last);
        return;
    }
    const long tail = last - 32;
    const __m256i tailMask = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(take + tail));
    for (long y = 0; y < rows; ++y) {
        const unsigned char* src = in + y * stride;
        unsigned char* dst = out + y * stride;
        const __m256i tailValue = _mm256_blendv_epi8(
            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(dst + tail)),
            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + tail)), tailMask);
        for (long c = first; c < tail; c += 32) {
            const __m256i m = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(take + c));
            const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(dst + c));
            const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + c));
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + c), _mm256_blendv_epi8(a, b, m));
        }
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + tail), tailValue);
    }
}

// Moves 32 bytes at a time without a call per row; the last block of a row
// ends at `last` (an overlapping copy writes the same bytes again).
__attribute__((target("avx2"))) void CopyAvx2(const unsigned char* in, unsigned char* out,
                                              long rows, long stride, long first, long last) {
    if (last - first < 32) {
        CopyPlain(in, out, rows, stride, first, last);
        return;
    }
    const long tail = last - 32;
    for (long y = 0; y < rows; ++y) {
        const unsigned char* src = in + y * stride;
        unsigned char* dst = out + y * stride;
        for (long c = first; c < tail; c += 32) {
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + c),
                                _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + c)));
        }
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + tail),
                            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + tail)));
    }
}

std::uint64_t SumSse2Call(const unsigned char* p, std::size_t n) {
    return SumSse2(p, n);
}
__attribute__((target("avx2"))) std::uint64_t SumAvx2Call(const unsigned char* p, std::size_t n) {
    return SumAvx2(p, n);
}

const Kernels kSse2Kernels{SumSse2Call, StripSse2, ColumnsSse2, TakePlain, CopyPlain};
const Kernels kAvx2Kernels{SumAvx2Call, StripAvx2, ColumnsAvx2, TakeAvx2, CopyAvx2};

const Kernels* BestKernels() {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") ? &kAvx2Kernels : &kSse2Kernels;
}

#else  // portable loops

const Kernels* BestKernels() {
    return &kPlainKernels;
}

#endif

std::atomic<const Kernels*> g_pKernels{nullptr};

const Kernels& Select() {
    const Kernels* kernels = g_pKernels.load(std::memory_order_relaxed);
    if (kernels == nullptr) {
        kernels = BestKernels();
        g_pKernels.store(kernels, std::memory_order_relaxed);
    }
    return *kernels;
}

}  // namespace

void UseKernels(KernelSet set) {
    const Kernels* kernels = &kPlainKernels;
    if (set == KernelSet::kBest) {
        kernels = BestKernels();
    }
#if KR7_DETECTION_X86
    if (set == KernelSet::kSse2) {
        kernels = &kSse2Kernels;
    }
#endif
    g_pKernels.store(kernels, std::memory_order_relaxed);
}

std::uint64_t SumBytes(const unsigned char* p, std::size_t n) {
    return Select().sum(p, n);
}

std::uint64_t SumStrip(const unsigned char* p, long rows, long stride, long count) {
    if (rows <= 0 || count <= 0) {
        return 0;
    }
    return Select().strip(p, rows, stride, count);
}

std::uint64_t SumColumns(const unsigned char* p, long rows, long stride, long width,
                         std::uint32_t* sums) {
    std::fill(sums, sums + std::max(width, 0L), 0u);
    if (rows <= 0 || width <= 0) {
        return 0;
    }
    Select().columns(p, rows, stride, width, sums);
    std::uint64_t total = 0;
    for (long c = 0; c < width; ++c) {
        total += sums[c];
    }
    return total;
}

void TakeColumns(const unsigned char* in, unsigned char* out, long rows, long stride,
                 const unsigned char* take, long first, long last) {
    if (rows > 0 && last > first) {
        Select().take(in, out, rows, stride, take, first, last);
    }
}

void CopyColumns(const unsigned char* in, unsigned char* out, long rows, long stride, long first,
                 long last) {
    if (rows > 0 && last > first) {
        Select().copy(in, out, rows, stride, first, last);
    }
}

}  // namespace detail
}  // namespace vc
