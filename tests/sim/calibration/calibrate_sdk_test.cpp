#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "calibration/norvakcalibratesdk.h"
#include "common/optics.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Image = std::vector<std::uint8_t>;  // width * height, no padding

// The library's entry points, resolved the way the plug-in does.
struct Sdk {
    explicit Sdk(const char* path) {
        handle = dlopen(path, RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) {
            return;
        }
        create = reinterpret_cast<decltype(create)>(dlsym(handle, "CalibrateCreate"));
        calibrate = reinterpret_cast<decltype(calibrate)>(dlsym(handle, "Calibrate"));
        destroy = reinterpret_cast<decltype(destroy)>(dlsym(handle, "CalibrateDelete"));
        setData = reinterpret_cast<decltype(setData)>(dlsym(handle, "CalibrateSetData"));
        errorText =
            reinterpret_cast<decltype(errorText)>(dlsym(handle, "CalibrateGetErrorDescription"));
        contamination =
            reinterpret_cast<decltype(contamination)>(dlsym(handle, "ContaminationDetection"));
    }
    ~Sdk() {
        if (handle != nullptr) {
            dlclose(handle);
        }
    }
    void* handle = nullptr;
    decltype(&::CalibrateCreate) create = nullptr;
    decltype(&::Calibrate) calibrate = nullptr;
    decltype(&::CalibrateDelete) destroy = nullptr;
    decltype(&::CalibrateSetData) setData = nullptr;
    decltype(&::CalibrateGetErrorDescription) errorText = nullptr;
    decltype(&::ContaminationDetection) contamination = nullptr;
};

Sdk& Library() {
    static Sdk sdk(KR7_CALIBRATE_SDK_PATH);
    return sdk;
}

unsigned Stride(int width) {
    return unsigned(width + 3) & ~3u;
}

// Packs an image as an 8-bit DIB with a grey palette, as the plug-in does.
Bytes ToDib(const Image& pixels, int width, int height) {
    const unsigned stride = Stride(width);
    Bytes block(40 + 1024 + stride * height, 0);
    const std::uint32_t header[10] = {
        40, std::uint32_t(width), std::uint32_t(height), 0x80001, 0, 0, 19684, 19684};
    std::memcpy(block.data(), header, sizeof header);
    for (int i = 0; i < 256; ++i) {
        std::memset(&block[40 + 4 * i], i, 3);
    }
    for (int y = 0; y < height; ++y) {
        std::memcpy(&block[1064 + y * stride], &pixels[y * width], width);
    }
    return block;
}

std::int32_t HeaderField(const Bytes& block, int offset) {
    std::int32_t v = 0;
    std::memcpy(&v, &block[offset], 4);
    return v;
}

// An instance that owns its handle and holds the given unit's data.
class Calibrator {
public:
    explicit Calibrator(const kr7sim::Optics& optics) : m_optics(optics) {
        m_handle = Library().create();
        const auto record = kr7sim::Serialize(optics);
        m_setDataResult = Library().setData(m_handle, record.data(), unsigned(record.size()));
    }
    ~Calibrator() { Library().destroy(&m_handle); }
    void* Handle() const { return m_handle; }
    std::int32_t SetDataResult() const { return m_setDataResult; }

    // Corrects an uncorrected frame; returns the output pixels unpadded.
    Image Run(const Image& frame, int* outW = nullptr, int* outH = nullptr) {
        Bytes in = ToDib(frame, m_optics.width, m_optics.height);
        unsigned size = 0;
        EXPECT_EQ(Library().calibrate(m_handle, Block(in), unsigned(in.size()), nullptr, &size),
                  NVK_CAL_OUTPUT_SIZE);
        Bytes out(size, 0xCD);
        EXPECT_EQ(Library().calibrate(m_handle, Block(in), unsigned(in.size()), Block(out), &size),
                  NVK_CAL_OK);
        const int w = HeaderField(out, 4), h = HeaderField(out, 8);
        EXPECT_EQ(size, 1064 + Stride(w) * h);
        Image pixels(std::size_t(w) * h);
        for (int y = 0; y < h; ++y) {
            std::memcpy(&pixels[y * w], &out[1064 + y * Stride(w)], w);
        }
        if (outW != nullptr) {
            *outW = w;
            *outH = h;
        }
        return pixels;
    }

    static tagBITMAPINFOHEADER* Block(Bytes& b) {
        return reinterpret_cast<tagBITMAPINFOHEADER*>(b.data());
    }

private:
    kr7sim::Optics m_optics;
    void* m_handle = nullptr;
    std::int32_t m_setDataResult = 1;
};

// Deterministic noise, roughly normal with the given sigma.
class Noise {
public:
    explicit Noise(std::uint64_t seed) : m_state(seed) {}
    double Next(double sigma) {
        double sum = 0;
        for (int i = 0; i < 4; ++i) {
            m_state += 0x9E3779B97F4A7C15ull;
            std::uint64_t z = m_state;
            z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
            z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
            sum += double((z ^ (z >> 31)) >> 11) / 9007199254740992.0;
        }
        return (sum - 2.0) * std::sqrt(3.0) * sigma;
    }

private:
    std::uint64_t m_state;
};

// Renders a platen image through the optics, with sensor gain error and
// read noise.
Image Render(const kr7sim::Optics& o, const Image& platen, double noise = 0) {
    Image frame(std::size_t(o.width) * o.height);
    kr7sim::ApplyOptics(o, platen.data(), o.width, frame.data(), o.width);
    if (noise > 0) {
        Noise n(o.seed);
        for (auto& p : frame) {
            p = std::uint8_t(
                std::clamp(std::lround(p * (1 + n.Next(0.007)) + n.Next(noise)), 0L, 255L));
        }
    }
    return frame;
}

TEST(CalibrateSdk, ExportsAllSixEntriesAndTheTestVariantLacksContamination) {
    Sdk& sdk = Library();
    ASSERT_NE(sdk.handle, nullptr) << dlerror();
    EXPECT_TRUE(sdk.create && sdk.calibrate && sdk.destroy && sdk.setData && sdk.errorText &&
                sdk.contamination);

    Sdk variant(KR7_CALIBRATE_SDK_NOCONTAM_PATH);
    ASSERT_NE(variant.handle, nullptr) << dlerror();
    EXPECT_NE(variant.calibrate, nullptr);
    EXPECT_EQ(variant.contamination, nullptr);
    EXPECT_NE(dlerror(), nullptr);
}

TEST(CalibrateSdk, GridComesBackWithinOnePixel) {
    for (int seed : {11, 12, 13, 14}) {
        for (int width : {320, 640}) {
            const kr7sim::Optics o = kr7sim::MakeUnitOptics(width, 480, seed);
            // Two-pixel dark lines every 24 pixels on a clean platen.
            Image platen(std::size_t(width) * 480, std::uint8_t(o.flatLevel));
            for (int y = 0; y < 480; ++y) {
                for (int x = 0; x < width; ++x) {
                    if (x % 24 < 2 || y % 24 < 2) {
                        platen[y * width + x] = 40;
                    }
                }
            }
            Calibrator cal(o);
            ASSERT_EQ(cal.SetDataResult(), NVK_CAL_OK);
            int w = 0, h = 0;
            const Image out = cal.Run(Render(o, platen), &w, &h);
            ASSERT_EQ(w, o.OutputWidth());
            ASSERT_EQ(h, o.OutputHeight());

            // Darkness-weighted centre of each line, row by row and column
            // by column, against where the platen had it.
            auto darkness = [&](int u, int v) { return std::max(0, 248 - int(out[v * w + u])); };
            double worst = 0;
            for (int line = 24; line + 24 < width; line += 24) {
                const double expected = line + 0.5 - o.marginX;
                for (int v = 0; v < h; ++v) {
                    if ((v + o.marginY) % 24 < 6 || (v + o.marginY) % 24 > 20) {
                        continue;  // near a crossing
                    }
                    double sum = 0, moment = 0;
                    for (int u = int(expected) - 6; u <= int(expected) + 6; ++u) {
                        sum += darkness(u, v);
                        moment += darkness(u, v) * u;
                    }
                    ASSERT_GT(sum, 0);
                    worst = std::max(worst, std::abs(moment / sum - expected));
                }
            }
            for (int line = 24; line + 24 < 480; line += 24) {
                const double expected = line + 0.5 - o.marginY;
                for (int u = 0; u < w; ++u) {
                    if ((u + o.marginX) % 24 < 6 || (u + o.marginX) % 24 > 20) {
                        continue;
                    }
                    double sum = 0, moment = 0;
                    for (int v = int(expected) - 6; v <= int(expected) + 6; ++v) {
                        sum += darkness(u, v);
                        moment += darkness(u, v) * v;
                    }
                    ASSERT_GT(sum, 0);
                    worst = std::max(worst, std::abs(moment / sum - expected));
                }
            }
            EXPECT_LT(worst, 1.0) << "seed " << seed << " width " << width;
            // Mid-cell background comes back flat at the target level.
            for (int v = 12 - o.marginY + 24; v < h; v += 24) {
                for (int u = 12 - o.marginX + 24; u < w; u += 24) {
                    EXPECT_NEAR(out[v * w + u], o.targetLevel, 2) << u << "," << v;
                }
            }
        }
    }
}

TEST(CalibrateSdk, EmptyPlatenIsBrightAndFlat) {
    for (int seed : {21, 22, 23}) {
        const kr7sim::Optics o = kr7sim::MakeUnitOptics(640, 480, seed);
        const Image platen(std::size_t(640) * 480, std::uint8_t(o.flatLevel));
        Calibrator cal(o);
        int w = 0, h = 0;
        const Image out = cal.Run(Render(o, platen, 2.0), &w, &h);
        double total = 0, lowestRow = 255;
        for (int v = 0; v < h; ++v) {
            double row = 0;
            for (int u = 0; u < w; ++u) {
                row += out[v * w + u];
            }
            total += row;
            lowestRow = std::min(lowestRow, row / w);
        }
        EXPECT_NEAR(total / (double(w) * h), 248.0, 1.0);
        EXPECT_GT(lowestRow, 243.0);
    }
}

TEST(CalibrateSdk, ContaminationMeasuresTheDirtyShare) {
    const kr7sim::Optics o = kr7sim::MakeUnitOptics(320, 480, 31);
    Calibrator cal(o);
    Image platen(std::size_t(320) * 480, std::uint8_t(o.flatLevel));
    double result = -1;
    Bytes clean = ToDib(Render(o, platen, 2.0), 320, 480);
    ASSERT_EQ(Library().contamination(cal.Handle(), Calibrator::Block(clean),
                                      unsigned(clean.size()), &result),
              NVK_CAL_OK);
    EXPECT_EQ(result, 0.0);

    // Smudges of 20 x 20 pixels covering about 4 % of the corrected area.
    int dirty = 0;
    for (int cy = 60; cy < 440; cy += 95) {
        for (int cx = 40; cx < 300; cx += 90) {
            for (int y = cy; y < cy + 20; ++y) {
                for (int x = cx; x < cx + 20; ++x) {
                    platen[y * 320 + x] = 150;
                    ++dirty;
                }
            }
        }
    }
    Bytes smudged = ToDib(Render(o, platen, 2.0), 320, 480);
    ASSERT_EQ(Library().contamination(cal.Handle(), Calibrator::Block(smudged),
                                      unsigned(smudged.size()), &result),
              NVK_CAL_OK);
    const double expected = dirty / double(o.OutputWidth() * o.OutputHeight());
    EXPECT_NEAR(result, expected, expected * 0.15);
}

TEST(CalibrateSdk, RejectsBadDataAndKeepsWhatWasAccepted) {
    Sdk& sdk = Library();
    const kr7sim::Optics o = kr7sim::MakeUnitOptics(320, 480, 41);
    auto record = kr7sim::Serialize(o);
    void* handle = sdk.create();
    ASSERT_NE(handle, nullptr);

    Bytes frame = ToDib(Image(320 * 480, 200), 320, 480);
    unsigned size = 0;
    EXPECT_EQ(
        sdk.calibrate(handle, Calibrator::Block(frame), unsigned(frame.size()), nullptr, &size),
        NVK_CAL_NO_DATA);

    // Truncated (from a heap copy of exactly that size) and corrupted records.
    for (unsigned n : {0u, 1u, 55u}) {
        std::unique_ptr<unsigned char[]> copy(new unsigned char[n + 1]);
        std::memcpy(copy.get(), record.data(), n);
        EXPECT_EQ(sdk.setData(handle, copy.get(), n), NVK_CAL_BAD_DATA) << n;
    }
    EXPECT_EQ(sdk.setData(handle, nullptr, 0), NVK_CAL_BAD_DATA);
    EXPECT_EQ(sdk.setData(handle, nullptr, 56), NVK_CAL_BAD_PARAMETER);
    EXPECT_EQ(sdk.setData(nullptr, record.data(), 56), NVK_CAL_BAD_HANDLE);
    record[30] ^= 1;
    EXPECT_EQ(sdk.setData(handle, record.data(), 56), NVK_CAL_BAD_DATA);
    EXPECT_STREQ(sdk.errorText(NVK_CAL_BAD_DATA), "The calibration data is malformed.");
    record[30] ^= 1;

    ASSERT_EQ(sdk.setData(handle, record.data(), 56), NVK_CAL_OK);
    EXPECT_EQ(sdk.setData(handle, record.data(), 20), NVK_CAL_BAD_DATA);
    EXPECT_EQ(
        sdk.calibrate(handle, Calibrator::Block(frame), unsigned(frame.size()), nullptr, &size),
        NVK_CAL_OUTPUT_SIZE);
    EXPECT_EQ(size, 1064 + Stride(o.OutputWidth()) * o.OutputHeight());

    sdk.destroy(&handle);
    EXPECT_EQ(handle, nullptr);
    sdk.destroy(&handle);  // a null handle is ignored
    sdk.destroy(nullptr);
}

TEST(CalibrateSdk, ValidatesFramesWithoutReadingPastThem) {
    Sdk& sdk = Library();
    const kr7sim::Optics o = kr7sim::MakeUnitOptics(320, 480, 51);
    Calibrator cal(o);
    void* h = cal.Handle();
    const Bytes good = ToDib(Image(320 * 480, 180), 320, 480);
    unsigned size = 0;
    double result = 0;

    // Every size short of the block, from a heap copy of exactly that size.
    for (unsigned n : {0u, 39u, 40u, 1063u, unsigned(good.size() - 1)}) {
        std::unique_ptr<unsigned char[]> copy(new unsigned char[n + 1]);
        std::memcpy(copy.get(), good.data(), n);
        auto* block = reinterpret_cast<tagBITMAPINFOHEADER*>(copy.get());
        EXPECT_EQ(sdk.calibrate(h, block, n, nullptr, &size), NVK_CAL_INPUT_SHORT) << n;
        EXPECT_EQ(sdk.contamination(h, block, n, &result), NVK_CAL_INPUT_SHORT) << n;
    }
    auto patched = [&](int offset, std::uint32_t value) {
        Bytes b = good;
        std::memcpy(&b[offset], &value, 4);
        return b;
    };
    struct Case {
        int offset;
        std::uint32_t value;
        std::int32_t code;
    } cases[] = {{14, 0x180001, NVK_CAL_BAD_FORMAT},  // 24 bits
                 {16, 1, NVK_CAL_BAD_FORMAT},         // compressed
                 {0, 12, NVK_CAL_BAD_FORMAT},         // old header
                 {32, 257, NVK_CAL_BAD_FORMAT},       // palette too big
                 {4, 321, NVK_CAL_SIZE_MISMATCH},
                 {8, std::uint32_t(-480), NVK_CAL_SIZE_MISMATCH},
                 {0, 0x7FFFFFFF, NVK_CAL_INPUT_SHORT}};  // header larger than the block
    for (const Case& c : cases) {
        Bytes b = patched(c.offset, c.value);
        EXPECT_EQ(sdk.calibrate(h, Calibrator::Block(b), unsigned(b.size()), nullptr, &size),
                  c.code)
            << c.offset;
    }

    Bytes in = good;
    const unsigned needed = 1064 + Stride(o.OutputWidth()) * o.OutputHeight();
    Bytes out(needed - 1);
    size = unsigned(out.size());
    EXPECT_EQ(
        sdk.calibrate(h, Calibrator::Block(in), unsigned(in.size()), Calibrator::Block(out), &size),
        NVK_CAL_OUTPUT_SIZE);
    EXPECT_EQ(size, needed);
    EXPECT_EQ(sdk.calibrate(nullptr, Calibrator::Block(in), unsigned(in.size()), nullptr, &size),
              NVK_CAL_BAD_HANDLE);
    EXPECT_EQ(sdk.calibrate(h, nullptr, 0, nullptr, &size), NVK_CAL_BAD_PARAMETER);
    EXPECT_EQ(sdk.calibrate(h, Calibrator::Block(in), unsigned(in.size()), nullptr, nullptr),
              NVK_CAL_BAD_PARAMETER);
    EXPECT_EQ(sdk.contamination(h, Calibrator::Block(in), unsigned(in.size()), nullptr),
              NVK_CAL_BAD_PARAMETER);

    // A smaller palette moves the pixels; the output keeps the input's
    // resolution and carries a full grey palette.
    Bytes small(good.begin(), good.begin() + 40);
    const std::uint32_t sixteen = 16;
    std::memcpy(&small[32], &sixteen, 4);
    small.resize(40 + 64, 0);
    small.insert(small.end(), good.begin() + 1064, good.end());
    Bytes result2(needed);
    size = needed;
    ASSERT_EQ(sdk.calibrate(h, Calibrator::Block(small), unsigned(small.size()),
                            Calibrator::Block(result2), &size),
              NVK_CAL_OK);
    EXPECT_EQ(HeaderField(result2, 0), 40);
    EXPECT_EQ(HeaderField(result2, 24), 19684);
    EXPECT_EQ(result2[40 + 4 * 200], 200);
    EXPECT_EQ(result2[40 + 4 * 200 + 3], 0);
}

TEST(CalibrateSdk, EveryCodeHasADescription) {
    for (std::int32_t code : {0, -1, -2, -3, -10, -11, -20, -21, -22, -23, 7, -999}) {
        const char* text = Library().errorText(code);
        ASSERT_NE(text, nullptr);
        EXPECT_GT(std::strlen(text), 5u) << code;
    }
    EXPECT_STRNE(Library().errorText(-21), Library().errorText(-999));
}

}  // namespace
