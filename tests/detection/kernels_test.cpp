#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "detection/pixel_kernels.h"

namespace {

using vc::detail::CopyColumns;
using vc::detail::SumBytes;
using vc::detail::SumColumns;
using vc::detail::SumStrip;
using vc::detail::TakeColumns;

std::vector<unsigned char> Noise(std::size_t n, unsigned seed) {
    std::mt19937 random(seed);
    std::vector<unsigned char> bytes(n);
    for (auto& b : bytes) {
        b = static_cast<unsigned char>(random());
    }
    return bytes;
}

// Each test runs against every implementation of the kernels.
class PixelKernels : public ::testing::TestWithParam<vc::detail::KernelSet> {
protected:
    void SetUp() override { vc::detail::UseKernels(GetParam()); }
    void TearDown() override { vc::detail::UseKernels(vc::detail::KernelSet::kBest); }
};

INSTANTIATE_TEST_SUITE_P(Sets, PixelKernels,
                         ::testing::Values(vc::detail::KernelSet::kBest,
                                           vc::detail::KernelSet::kSse2,
                                           vc::detail::KernelSet::kPlain));

// Every length and start offset around the vector widths, checked against a
// plain loop; the buffers are exactly as long as the data so that ASan sees
// any read past them.
TEST_P(PixelKernels, SumsMatchPlainLoops) {
    const auto data = Noise(700, 1);
    for (std::size_t offset = 0; offset < 64; offset += 7) {
        for (std::size_t n = 0; n + offset <= 700; n += (n < 300 ? 1 : 37)) {
            std::vector<unsigned char> exact(data.begin() + offset, data.begin() + offset + n);
            std::uint64_t expected = 0;
            for (unsigned char b : exact) {
                expected += b;
            }
            ASSERT_EQ(SumBytes(exact.data(), n), expected) << offset << " " << n;
        }
    }
    const auto frame = Noise(13 * 20, 2);
    std::uint64_t expected = 0;
    for (int y = 0; y < 13; ++y) {
        for (int x = 3; x < 3 + 17; ++x) {
            expected += frame[y * 20 + x];
        }
    }
    EXPECT_EQ(SumStrip(frame.data() + 3, 13, 20, 17), expected);
    EXPECT_EQ(SumStrip(frame.data(), 0, 20, 17), 0u);
}

TEST_P(PixelKernels, ColumnSumsMatchPlainLoops) {
    // Widths below, at and around the strip widths; more rows than one
    // 16-bit band holds; starts at every alignment within a cache line; one
    // width beyond the 2048 columns taken in one go.
    for (long width : {1L, 31L, 32L, 63L, 64L, 65L, 130L, 200L, 2100L}) {
        const long rows = 600;
        for (long shift = 0; shift < 64; shift += 9) {
            std::vector<unsigned char> frame(static_cast<std::size_t>(shift + rows * width));
            for (std::size_t i = 0; i < frame.size(); ++i) {
                frame[i] = static_cast<unsigned char>(255 - (i * 7) % 13);
            }
            const unsigned char* p = frame.data() + shift;
            std::vector<std::uint32_t> sums(static_cast<std::size_t>(width), 99);
            const std::uint64_t total = SumColumns(p, rows, width, width, sums.data());
            std::uint64_t expectedTotal = 0;
            for (long c = 0; c < width; ++c) {
                std::uint32_t expected = 0;
                for (long y = 0; y < rows; ++y) {
                    expected += p[y * width + c];
                }
                ASSERT_EQ(sums[c], expected) << width << " " << shift << " " << c;
                expectedTotal += expected;
            }
            EXPECT_EQ(total, expectedTotal);
        }
    }
}

TEST_P(PixelKernels, ColumnCopiesStayInTheirSpan) {
    const long width = 100;
    const long rows = 5;
    const auto in = Noise(static_cast<std::size_t>(width * rows), 3);
    const auto take = Noise(static_cast<std::size_t>(width), 4);
    std::vector<unsigned char> mask(take.size());
    for (std::size_t i = 0; i < take.size(); ++i) {
        mask[i] = take[i] & 1 ? 0xFF : 0x00;
    }
    for (long first : {0L, 5L, 40L}) {
        for (long last : {first, first + 1, first + 31, first + 32, first + 33, width}) {
            std::vector<unsigned char> out(in.size(), 7);
            std::vector<unsigned char> copied(in.size(), 7);
            TakeColumns(in.data(), out.data(), rows, width, mask.data(), first, last);
            CopyColumns(in.data(), copied.data(), rows, width, first, last);
            for (long y = 0; y < rows; ++y) {
                for (long c = 0; c < width; ++c) {
                    const std::size_t i = static_cast<std::size_t>(y * width + c);
                    const bool inside = c >= first && c < last;
                    ASSERT_EQ(out[i], inside && mask[c] != 0 ? in[i] : 7)
                        << first << " " << last << " " << c;
                    ASSERT_EQ(copied[i], inside ? in[i] : 7) << first << " " << last << " " << c;
                }
            }
        }
    }
}

}  // namespace
