#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>

#include "calibration/norvakcalibratesdk.h"
#include "common/optics.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Image = std::vector<std::uint8_t>;  // width * height, unpadded

#define KR7_RESOLVE(name) name = reinterpret_cast<decltype(&::name)>(dlsym(lib, #name))

// The library's entry points, resolved the way the plug-in does.
struct Sdk {
    explicit Sdk(const char* path) : lib(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
        if (lib != nullptr) {
            KR7_RESOLVE(CalibrateCreate);
            KR7_RESOLVE(Calibrate);
            KR7_RESOLVE(CalibrateDelete);
            KR7_RESOLVE(CalibrateSetData);
            KR7_RESOLVE(CalibrateGetErrorDescription);
            KR7_RESOLVE(ContaminationDetection);
        }
    }
    ~Sdk() {
        if (lib != nullptr) {
            dlclose(lib);
        }
    }
    void* lib;
    decltype(&::CalibrateCreate) CalibrateCreate = nullptr;
    decltype(&::Calibrate) Calibrate = nullptr;
    decltype(&::CalibrateDelete) CalibrateDelete = nullptr;
    decltype(&::CalibrateSetData) CalibrateSetData = nullptr;
    decltype(&::CalibrateGetErrorDescription) CalibrateGetErrorDescription = nullptr;
    decltype(&::ContaminationDetection) ContaminationDetection = nullptr;
};

Sdk& Lib() {
    static Sdk sdk(KR7_CALIBRATE_SDK_PATH);
    return sdk;
}

unsigned Stride(int width) {
    return unsigned(width + 3) & ~3u;
}
tagBITMAPINFOHEADER* Dib(Bytes& b) {
    return reinterpret_cast<tagBITMAPINFOHEADER*>(b.data());
}

// Packs an image as an 8-bit DIB with a grey palette, as the plug-in does.
Bytes ToDib(const Image& pixels, int width, int height) {
    const unsigned stride = Stride(width);
    Bytes block(1064 + stride * height, 0);
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

// A unit's instance with its data set.
struct Unit {
    Unit(int width, std::uint64_t seed) : optics(kr7sim::MakeUnitOptics(width, 480, seed)) {
        const auto record = kr7sim::Serialize(optics);
        setData = Lib().CalibrateSetData(handle, record.data(), unsigned(record.size()));
    }
    ~Unit() { Lib().CalibrateDelete(&handle); }

    // Renders a platen image through the optics, optionally with a gain error
    // of 0.7 % and read noise (sigma 2) per pixel, as a DIB.
    Bytes Frame(const Image& platen, bool noisy) const {
        Image frame(std::size_t(optics.width) * optics.height);
        kr7sim::ApplyOptics(optics, platen.data(), optics.width, frame.data(), optics.width);
        std::uint64_t state = optics.seed;
        auto uniform = [&] {  // splitmix64, -0.5..0.5
            std::uint64_t z = (state += 0x9E3779B97F4A7C15ull);
            z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
            z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
            return double((z ^ (z >> 31)) >> 11) / 9007199254740992.0 - 0.5;
        };
        for (auto& p : frame) {
            const double gain = 1 + 0.007 * std::sqrt(12.0) * uniform();
            const double noise = 2.0 * std::sqrt(6.0) * (uniform() + uniform());
            p = noisy ? std::uint8_t(std::clamp(std::lround(p * gain + noise), 0L, 255L)) : p;
        }
        return ToDib(frame, optics.width, optics.height);
    }
    Image Correct(Bytes in) {
        unsigned size = 0;
        EXPECT_EQ(Lib().Calibrate(handle, Dib(in), unsigned(in.size()), nullptr, &size), -21);
        Bytes out(size, 0xCD);
        EXPECT_EQ(Lib().Calibrate(handle, Dib(in), unsigned(in.size()), Dib(out), &size), 0);
        const int w = optics.OutputWidth(), h = optics.OutputHeight();
        EXPECT_EQ(size, 1064 + Stride(w) * h);
        EXPECT_EQ(std::memcmp(&out[4], &w, 4) | std::memcmp(&out[8], &h, 4), 0);
        Image pixels(std::size_t(w) * h);
        for (int y = 0; y < h; ++y) {
            std::memcpy(&pixels[y * w], &out[1064 + y * Stride(w)], w);
        }
        return pixels;
    }
    double Contamination(Bytes in) {
        double result = -1;
        EXPECT_EQ(Lib().ContaminationDetection(handle, Dib(in), unsigned(in.size()), &result), 0);
        return result;
    }

    kr7sim::Optics optics;
    void* handle = Lib().CalibrateCreate();
    std::int32_t setData = 1;
};

TEST(CalibrateSdk, ExportsAllSixEntriesAndTheTestVariantLacksContamination) {
    ASSERT_NE(Lib().lib, nullptr) << dlerror();
    EXPECT_TRUE(Lib().CalibrateCreate && Lib().Calibrate && Lib().CalibrateDelete &&
                Lib().CalibrateSetData && Lib().CalibrateGetErrorDescription &&
                Lib().ContaminationDetection);
    Sdk variant(KR7_CALIBRATE_SDK_NOCONTAM_PATH);
    ASSERT_NE(variant.lib, nullptr) << dlerror();
    EXPECT_NE(variant.Calibrate, nullptr);
    EXPECT_EQ(variant.ContaminationDetection, nullptr);
}

TEST(CalibrateSdk, GridComesBackWithinOnePixel) {
    for (int seed : {11, 12, 13, 14}) {
        for (int width : {320, 640}) {
            Unit unit(width, seed);
            ASSERT_EQ(unit.setData, 0);
            const kr7sim::Optics& o = unit.optics;
            // Two-pixel dark lines every 24 pixels on a clean platen.
            Image platen(std::size_t(width) * 480);
            for (int y = 0; y < 480; ++y) {
                for (int x = 0; x < width; ++x) {
                    platen[y * width + x] =
                        (x % 24 < 2 || y % 24 < 2) ? 40 : std::uint8_t(o.flatLevel);
                }
            }
            const Image out = unit.Correct(unit.Frame(platen, false));
            const int w = o.OutputWidth(), h = o.OutputHeight();
            // Darkness-weighted centre of each line across it, away from the
            // crossings, against the line's platen position. `pixel(a, b)`
            // reads position a across the line, b along it.
            auto worstOffset = [&](int lines, int margin, int along, int alongMargin, auto pixel) {
                double worst = 0;
                for (int line = 24; line + 24 < lines; line += 24) {
                    const double expected = line + 0.5 - margin;
                    for (int b = 0; b < along; ++b) {
                        if ((b + alongMargin) % 24 < 6 || (b + alongMargin) % 24 > 20) {
                            continue;
                        }
                        double sum = 0, moment = 0;
                        for (int a = int(expected) - 6; a <= int(expected) + 6; ++a) {
                            sum += std::max(0, 248 - pixel(a, b));
                            moment += std::max(0, 248 - pixel(a, b)) * a;
                        }
                        worst = std::max(worst, sum > 0 ? std::abs(moment / sum - expected) : 99);
                    }
                }
                return worst;
            };
            EXPECT_LT(worstOffset(width, o.marginX, h, o.marginY,
                                  [&](int a, int b) { return int(out[b * w + a]); }),
                      1.0)
                << seed << " " << width;
            EXPECT_LT(worstOffset(480, o.marginY, w, o.marginX,
                                  [&](int a, int b) { return int(out[a * w + b]); }),
                      1.0)
                << seed << " " << width;
        }
    }
}

TEST(CalibrateSdk, EmptyPlatenIsBrightFlatAndCleanAndSmudgesAreMeasured) {
    for (int seed : {21, 22, 23}) {
        Unit unit(640, seed);
        const Bytes frame =
            unit.Frame(Image(std::size_t(640) * 480, std::uint8_t(unit.optics.flatLevel)), true);
        const Image out = unit.Correct(frame);
        const int w = unit.optics.OutputWidth(), h = unit.optics.OutputHeight();
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
        EXPECT_EQ(unit.Contamination(frame), 0.0);
    }

    // Smudges of 20 x 20 pixels covering about 4 % of the corrected area.
    Unit unit(320, 31);
    Image platen(std::size_t(320) * 480, std::uint8_t(unit.optics.flatLevel));
    for (int cy = 60; cy < 440; cy += 95) {
        for (int cx = 40; cx < 300; cx += 90) {
            for (int y = cy; y < cy + 20; ++y) {
                std::fill_n(&platen[y * 320 + cx], 20, 150);
            }
        }
    }
    const double share = 12 * 400 / double(unit.optics.OutputWidth() * unit.optics.OutputHeight());
    EXPECT_NEAR(unit.Contamination(unit.Frame(platen, true)), share, share * 0.15);
}

TEST(CalibrateSdk, RejectsBadDataAndFramesWithoutReadingPastThem) {
    Sdk& sdk = Lib();
    Unit unit(320, 41);
    void* h = unit.handle;
    auto record = kr7sim::Serialize(unit.optics);
    EXPECT_EQ(sdk.CalibrateSetData(h, record.data(), 55), -11);  // earlier data stays
    EXPECT_EQ(sdk.CalibrateSetData(h, nullptr, 56), -2);
    EXPECT_EQ(sdk.CalibrateSetData(nullptr, record.data(), 56), -1);
    record[30] ^= 1;
    EXPECT_EQ(sdk.CalibrateSetData(h, record.data(), 56), -11);
    EXPECT_STREQ(sdk.CalibrateGetErrorDescription(-11), "The calibration data is malformed.");
    EXPECT_STREQ(sdk.CalibrateGetErrorDescription(-999), "Unknown calibration error.");

    const Bytes good = ToDib(Image(320 * 480, 180), 320, 480);
    unsigned size = 0;
    double result = 0;
    for (unsigned n : {0u, 39u, 1063u, unsigned(good.size() - 1)}) {  // exact-size copies
        std::unique_ptr<unsigned char[]> copy(new unsigned char[n + 1]);
        std::memcpy(copy.get(), good.data(), n);
        auto* dib = reinterpret_cast<tagBITMAPINFOHEADER*>(copy.get());
        EXPECT_EQ(sdk.Calibrate(h, dib, n, nullptr, &size), -23) << n;
        EXPECT_EQ(sdk.ContaminationDetection(h, dib, n, &result), -23) << n;
    }
    const struct {
        int offset;
        std::uint32_t value;
        std::int32_t code;
    } cases[] = {{14, 0x180001, -20}, {16, 1, -20},    {32, 257, -20},
                 {4, 321, -22},       {8, ~479u, -22}, {0, 0x7FFFFFFF, -23}};
    for (const auto& c : cases) {
        Bytes bad = good;
        std::memcpy(&bad[c.offset], &c.value, 4);
        EXPECT_EQ(sdk.Calibrate(h, Dib(bad), unsigned(bad.size()), nullptr, &size), c.code);
    }
    Bytes in = good, out(1064 + Stride(unit.optics.OutputWidth()) * unit.optics.OutputHeight());
    size = unsigned(out.size() - 1);
    EXPECT_EQ(sdk.Calibrate(h, Dib(in), unsigned(in.size()), Dib(out), &size), -21);
    EXPECT_EQ(size, out.size());
    EXPECT_EQ(sdk.Calibrate(h, nullptr, 0, nullptr, &size), -2);
    EXPECT_EQ(sdk.ContaminationDetection(h, Dib(in), unsigned(in.size()), nullptr), -2);

    void* fresh = sdk.CalibrateCreate();
    EXPECT_EQ(sdk.Calibrate(fresh, Dib(in), unsigned(in.size()), nullptr, &size), -10);
    sdk.CalibrateDelete(&fresh);
    EXPECT_EQ(fresh, nullptr);
    sdk.CalibrateDelete(&fresh);
    sdk.CalibrateDelete(nullptr);
}

}  // namespace
