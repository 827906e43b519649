#include <gtest/gtest.h>

#include <numeric>
#include <random>
#include <vector>

#include "detection/pixel_kernels.h"

namespace {

using namespace vc::detail;

std::vector<unsigned char> Noise(std::size_t n, unsigned seed) {
    std::mt19937 random(seed);
    std::vector<unsigned char> bytes(n);
    for (auto& b : bytes) {
        b = static_cast<unsigned char>(random());
    }
    return bytes;
}

// The reference: `count` bytes of each of `rows` rows `stride` apart, summed.
std::uint64_t Plain(const unsigned char* p, long rows, long stride, long count) {
    std::uint64_t sum = 0;
    for (long y = 0; y < rows; ++y) {
        sum = std::accumulate(p + y * stride, p + y * stride + count, sum);
    }
    return sum;
}

// Each test runs against every implementation of the kernels.
class PixelKernels : public ::testing::TestWithParam<KernelSet> {
protected:
    void SetUp() override { UseKernels(GetParam()); }
    void TearDown() override { UseKernels(KernelSet::kBest); }
};

INSTANTIATE_TEST_SUITE_P(Sets, PixelKernels,
                         ::testing::Values(KernelSet::kBest, KernelSet::kSse2, KernelSet::kPlain));

// Every length and start offset around the vector widths; the buffers are
// exactly as long as the data so that ASan sees any read past them.
TEST_P(PixelKernels, SumsMatchPlainLoops) {
    const auto data = Noise(700, 1);
    for (std::size_t offset = 0; offset < 64; offset += 7) {
        for (std::size_t n = 0; n + offset <= 700; n += (n < 300 ? 1 : 37)) {
            std::vector<unsigned char> exact(data.begin() + offset, data.begin() + offset + n);
            const long count = static_cast<long>(n);
            ASSERT_EQ(SumBytes(exact.data(), n), Plain(exact.data(), 1, 0, count)) << offset;
        }
    }
    const auto frame = Noise(13 * 20, 2);
    EXPECT_EQ(SumStrip(frame.data() + 3, 13, 20, 17), Plain(frame.data() + 3, 13, 20, 17));
    EXPECT_EQ(SumStrip(frame.data(), 0, 20, 17), 0u);
}

TEST_P(PixelKernels, ColumnSumsMatchPlainLoops) {
    // Widths below, at and around the strip widths; more rows than one
    // 16-bit band holds; starts at every alignment within a cache line; one
    // width beyond the 2048 columns taken in one go.
    const long rows = 600;
    for (long width : {1L, 31L, 32L, 63L, 64L, 65L, 130L, 200L, 2100L}) {
        for (long shift = 0; shift < 64; shift += 9) {
            std::vector<unsigned char> frame(static_cast<std::size_t>(shift + rows * width));
            for (std::size_t i = 0; i < frame.size(); ++i) {
                frame[i] = static_cast<unsigned char>(255 - (i * 7) % 13);
            }
            const unsigned char* p = frame.data() + shift;
            std::vector<std::uint32_t> sums(static_cast<std::size_t>(width), 99);
            EXPECT_EQ(SumColumns(p, rows, width, width, sums.data()), Plain(p, rows, width, width));
            for (long c = 0; c < width; ++c) {
                ASSERT_EQ(sums[c], Plain(p + c, rows, width, 1))
                    << width << " " << shift << " " << c;
            }
        }
    }
}

TEST_P(PixelKernels, ColumnCopiesStayInTheirSpan) {
    const long width = 100;
    const long rows = 5;
    const auto in = Noise(static_cast<std::size_t>(width * rows), 3);
    auto mask = Noise(static_cast<std::size_t>(width), 4);
    for (auto& m : mask) {
        m = m & 1 ? 0xFF : 0x00;
    }
    for (long first : {0L, 5L, 40L}) {
        for (long last : {first, first + 1, first + 31, first + 32, first + 33, width}) {
            std::vector<unsigned char> out(in.size(), 7);
            std::vector<unsigned char> copied(in.size(), 7);
            TakeColumns(in.data(), out.data(), rows, width, mask.data(), first, last);
            CopyColumns(in.data(), copied.data(), rows, width, first, last);
            for (std::size_t i = 0; i < in.size(); ++i) {
                const long c = static_cast<long>(i) % width;
                const bool inside = c >= first && c < last;
                ASSERT_EQ(out[i], inside && mask[c] != 0 ? in[i] : 7) << first << " " << last;
                ASSERT_EQ(copied[i], inside ? in[i] : 7) << first << " " << last << " " << c;
            }
        }
    }
}

}  // namespace
