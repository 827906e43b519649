// Byte-summing kernels of the detectors. On x86-64 they use SSE2 (always
// present) or AVX2 (chosen at run time); elsewhere plain loops.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vc {
namespace detail {

// Which implementation the kernels use. kBest (the default) is AVX2 where the
// processor has it, else SSE2 on x86-64, else plain loops; the others exist
// so that every implementation can be tested on any x86-64 machine.
enum class KernelSet { kBest, kSse2, kPlain };
void UseKernels(KernelSet set);

// Sum of n bytes.
std::uint64_t SumBytes(const unsigned char* p, std::size_t n);

// Sum of the first `count` bytes of each of `rows` rows that start `stride`
// bytes apart at p.
std::uint64_t SumStrip(const unsigned char* p, long rows, long stride, long count);

// sums[c] := sum of byte c of each of `rows` rows (c < width), read in column
// strips held in registers. Returns the total of all sums. Rows must hold
// fewer than 2^24 (16.8 million) rows so that a column sum fits 32 bits.
std::uint64_t SumColumns(const unsigned char* p, long rows, long stride, long width,
                         std::uint32_t* sums);

// For each of `rows` rows (both images `stride` bytes per row): out[c] :=
// in[c] where take[c] is 0xFF, for c in [first, last); take[c] is 0x00 or 0xFF.
void TakeColumns(const unsigned char* in, unsigned char* out, long rows, long stride,
                 const unsigned char* take, long first, long last);

// For each of `rows` rows (both images `stride` bytes per row): out[c] :=
// in[c] for c in [first, last).
void CopyColumns(const unsigned char* in, unsigned char* out, long rows, long stride, long first,
                 long last);

}  // namespace detail
}  // namespace vc
