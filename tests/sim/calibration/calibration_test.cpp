// The optics record shared by the scanner and calibration stand-ins, and the
// calibration library stand-in, opened through dlopen the way the plug-in
// opens it.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <tuple>

#include "closed/norvakcalibratesdk.h"
#include "common/optics.h"
#include "print/rng.h"

namespace {

using Bytes = std::vector<std::uint8_t>;  // DIBs, records, and images (width * height, unpadded)

// Parses from a heap copy of exactly `size` bytes, so that an overread shows
// under AddressSanitizer.
bool ParseExact(const Bytes& bytes, std::size_t size, kr7sim::Optics& out) {
    std::unique_ptr<std::uint8_t[]> copy(new std::uint8_t[size + 1]);
    std::memcpy(copy.get(), bytes.data(), std::min(size, bytes.size()));
    return kr7sim::Parse(copy.get(), size, out);
}

// That a record which parses serializes to the same bytes, and that damaged
// or truncated records are refused, the optics fuzz target checks.
TEST(Optics, RecordIgnoresItsTailUnitsAreValidAndTheirMapsInvertEachOther) {
    kr7sim::Optics unit = kr7sim::MakeUnitOptics(640, 480, 7), parsed;
    const Bytes good = kr7sim::Serialize(unit);
    ASSERT_TRUE(ParseExact(good, 60, parsed));  // trailing bytes ignored
    EXPECT_EQ(kr7sim::Serialize(parsed), good);
    parsed.width = 1;
    unit.marginX = 0;  // sealed correctly, but samples outside the frame
    EXPECT_FALSE(ParseExact(kr7sim::Serialize(unit), 56, parsed));
    EXPECT_EQ(parsed.width, 1);  // untouched on failure

    for (int seed = 0; seed < 30; ++seed) {
        for (auto [w, h] : {std::pair{320, 480}, std::pair{640, 480}, std::pair{64, 64}}) {
            const kr7sim::Optics o = kr7sim::MakeUnitOptics(w, h, seed);
            ASSERT_TRUE(kr7sim::IsValid(o)) << seed << " " << w;
            EXPECT_EQ(kr7sim::Serialize(o), kr7sim::Serialize(kr7sim::MakeUnitOptics(w, h, seed)));
            for (double py : {-20.0, 0.0, 123.4, h + 20.0}) {  // the maps invert each other
                double x = 0, y = 0, px = 0, back = 0;
                kr7sim::PlatenToUncorrected(o, 17.5, py, x, y);
                kr7sim::UncorrectedToPlaten(o, x, y, px, back);
                EXPECT_NEAR(px, 17.5, 1e-9);
                EXPECT_NEAR(back, py, 1e-9);
            }
        }
    }
}

// clang-format off
#define KR7_CAL_ENTRIES(X) X(CalibrateCreate) X(Calibrate) X(CalibrateDelete) X(CalibrateSetData) \
    X(ContaminationDetection) X(CalibrateGetErrorDescription)
// clang-format on

// The library's entry points, resolved the way the plug-in does.
struct Sdk {
    explicit Sdk(const char* path) : lib(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
#define KR7_RESOLVE(name) \
    name = lib ? reinterpret_cast<decltype(&::name)>(dlsym(lib, #name)) : nullptr;
        KR7_CAL_ENTRIES(KR7_RESOLVE)
#undef KR7_RESOLVE
    }
    ~Sdk() {
        if (lib != nullptr)
            dlclose(lib);
    }
    void* lib;
#define KR7_DECLARE(name) decltype(&::name) name;
    KR7_CAL_ENTRIES(KR7_DECLARE)
#undef KR7_DECLARE
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
Bytes ToDib(const Bytes& pixels, int width, int height) {
    Bytes block(1064 + Stride(width) * height, 0);
    const std::uint32_t header[10] = {
        40, std::uint32_t(width), std::uint32_t(height), 0x80001, 0, 0, 19684, 19684};
    std::memcpy(block.data(), header, sizeof header);
    for (int i = 0; i < 256; ++i)
        std::memset(&block[40 + 4 * i], i, 3);
    for (int y = 0; y < height; ++y)
        std::memcpy(&block[1064 + y * Stride(width)], &pixels[y * width], width);
    return block;
}

// A unit's instance with its data set, of the library or of `sdk`.
struct Unit {
    Unit(int width, std::uint64_t seed, Sdk& library = Lib())
        : sdk(library), optics(kr7sim::MakeUnitOptics(width, 480, seed)) {
        const Bytes record = kr7sim::Serialize(optics);
        setData = sdk.CalibrateSetData(handle, record.data(), unsigned(record.size()));
    }
    ~Unit() { sdk.CalibrateDelete(&handle); }

    // Renders a platen image through the optics, optionally with a gain error
    // of 0.7 % and read noise (sigma 2) per pixel, as a DIB.
    Bytes Frame(const Bytes& platen, bool noisy) const {
        Bytes frame(std::size_t(optics.width) * optics.height);
        kr7sim::ApplyOptics(optics, platen.data(), optics.width, frame.data(), optics.width);
        kr7sim::Rng rng(optics.seed);
        for (auto& p : frame) {
            const double v = p * (1 + 0.007 * rng.Normal()) + 2.0 * rng.Normal();
            p = noisy ? std::uint8_t(std::clamp(std::lround(v), 0L, 255L)) : p;
        }
        return ToDib(frame, optics.width, optics.height);
    }
    // The corrected image; its size is checked against the optics.
    Bytes Correct(Bytes in) {
        unsigned size = 0;
        EXPECT_EQ(sdk.Calibrate(handle, Dib(in), unsigned(in.size()), nullptr, &size), -21);
        Bytes out(size, 0xCD);
        EXPECT_EQ(sdk.Calibrate(handle, Dib(in), unsigned(in.size()), Dib(out), &size), 0);
        const int w = optics.OutputWidth(), h = optics.OutputHeight();
        EXPECT_EQ(size, 1064 + Stride(w) * h);
        EXPECT_EQ(std::memcmp(&out[4], &w, 4) | std::memcmp(&out[8], &h, 4), 0);
        Bytes pixels(std::size_t(w) * h);
        for (int y = 0; y < h; ++y)
            std::memcpy(&pixels[y * w], &out[1064 + y * Stride(w)], w);
        return pixels;
    }
    double Contamination(Bytes in) {
        double result = -1;
        EXPECT_EQ(sdk.ContaminationDetection(handle, Dib(in), unsigned(in.size()), &result), 0);
        return result;
    }

    Sdk& sdk;
    kr7sim::Optics optics;
    void* handle = sdk.CalibrateCreate();
    std::int32_t setData = 1;
};

// KR7SIM_CAL_COPY: Calibrate copies the top-left rows at the corrected
// size. The setting is read once per library, so a child process sets it and
// loads a copy of its own (the variant, which the parent has not loaded).
TEST(CalibrateSdk, CopyModeCopiesTheRowsAtTheCorrectedSize) {
    EXPECT_EXIT(
        {
            setenv("KR7SIM_CAL_COPY", "1", 1);
            Sdk copying(KR7_CALIBRATE_SDK_NOCONTAM_PATH);
            Unit unit(320, 5, copying);
            Bytes pixels(320 * 480);
            for (std::size_t i = 0; i < pixels.size(); ++i)
                pixels[i] = std::uint8_t(i * 7 + i / 320);
            const Bytes out = unit.Correct(ToDib(pixels, 320, 480));
            const int w = unit.optics.OutputWidth();
            for (std::size_t y = 0; y < out.size() / w; ++y)
                EXPECT_EQ(std::memcmp(&out[y * w], &pixels[y * 320], w), 0) << y;
            std::_Exit(unit.setData == 0 && !::testing::Test::HasFailure() ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(CalibrateSdk, GridComesBackWithinOnePixel) {
    for (int seed : {11, 12, 13, 14}) {
        for (int width : {320, 640}) {
            Unit unit(width, seed);
            ASSERT_EQ(unit.setData, 0);
            const kr7sim::Optics& o = unit.optics;
            // Two-pixel dark lines every 24 pixels on a clean platen.
            Bytes platen(std::size_t(width) * 480);
            for (std::size_t i = 0; i < platen.size(); ++i)
                platen[i] = (i % width % 24 < 2 || i / width % 24 < 2) ? 40 : o.flatLevel;
            const Bytes out = unit.Correct(unit.Frame(platen, false));
            const int w = o.OutputWidth(), h = o.OutputHeight();
            // Darkness-weighted centre of each line across it, away from the
            // crossings, against the line's platen position. `pixel(a, b)`
            // reads position a across the line, b along it.
            auto worst = [&](int lines, int margin, int along, int along_margin, auto pixel) {
                double offset = 0;
                for (int line = 24; line + 24 < lines; line += 24) {
                    const double expected = line + 0.5 - margin;
                    for (int b = 0; b < along; ++b) {
                        if ((b + along_margin) % 24 < 6 || (b + along_margin) % 24 > 20)
                            continue;
                        double sum = 0, moment = 0;
                        for (int a = int(expected) - 6; a <= int(expected) + 6; ++a) {
                            sum += std::max(0, 248 - pixel(a, b));
                            moment += std::max(0, 248 - pixel(a, b)) * a;
                        }
                        offset = std::max(offset, sum > 0 ? std::abs(moment / sum - expected) : 99);
                    }
                }
                return offset;
            };
            auto column = [&](int a, int b) { return out[b * w + a]; };
            auto row = [&](int a, int b) { return out[a * w + b]; };
            EXPECT_LT(std::max(worst(width, o.marginX, h, o.marginY, column),
                               worst(480, o.marginY, w, o.marginX, row)),
                      1.0)
                << seed << " " << width;
        }
    }
}

// That the empty platen comes back bright and flat the scanner tests check
// end to end, on a unit's calibrated frame. The contamination of a clean
// platen is none.
TEST(CalibrateSdk, CleanPlatensAreCleanAndSmudgesAreMeasured) {
    for (int seed : {21, 22, 23}) {
        Unit unit(640, seed);
        const Bytes frame = unit.Frame(Bytes(std::size_t(640) * 480, unit.optics.flatLevel), true);
        EXPECT_EQ(unit.Contamination(frame), 0.0);
    }
    // Smudges of 20 x 20 pixels covering about 4 % of the corrected area.
    Unit unit(320, 31);
    Bytes platen(std::size_t(320) * 480, unit.optics.flatLevel);
    for (int cy = 60; cy < 440; cy += 95)
        for (int cx = 40; cx < 300; cx += 90)
            for (int y = cy; y < cy + 20; ++y)
                std::fill_n(&platen[y * 320 + cx], 20, 150);
    const double share = 12 * 400 / double(unit.optics.OutputWidth() * unit.optics.OutputHeight());
    EXPECT_NEAR(unit.Contamination(unit.Frame(platen, true)), share, share * 0.15);
}

TEST(CalibrateSdk, RejectsBadDataAndFramesWithoutReadingPastThem) {
    Sdk& sdk = Lib();
    Unit unit(320, 41);
    void* h = unit.handle;
    Bytes record = kr7sim::Serialize(unit.optics);
    EXPECT_EQ(sdk.CalibrateSetData(h, record.data(), 55), -11);  // earlier data stays
    EXPECT_EQ(sdk.CalibrateSetData(h, nullptr, 56), -2);
    EXPECT_EQ(sdk.CalibrateSetData(nullptr, record.data(), 56), -1);
    record[30] ^= 1;
    EXPECT_EQ(sdk.CalibrateSetData(h, record.data(), 56), -11);
    EXPECT_STREQ(sdk.CalibrateGetErrorDescription(-999), "Unknown calibration error.");

    const Bytes good = ToDib(Bytes(320 * 480, 180), 320, 480);
    unsigned size = 0;
    double result = 0;
    for (unsigned n : {0u, 39u, 1063u, unsigned(good.size() - 1)}) {  // exact-size copies
        std::unique_ptr<unsigned char[]> copy(new unsigned char[n + 1]);
        std::memcpy(copy.get(), good.data(), n);
        auto* dib = reinterpret_cast<tagBITMAPINFOHEADER*>(copy.get());
        EXPECT_EQ(sdk.Calibrate(h, dib, n, nullptr, &size), -23) << n;
        EXPECT_EQ(sdk.ContaminationDetection(h, dib, n, &result), -23) << n;
    }
    const std::tuple<int, std::uint32_t, std::int32_t> cases[] = {
        {14, 0x180001, -20}, {16, 1, -20},    {32, 257, -20},
        {4, 321, -22},       {8, ~479u, -22}, {0, 0x7FFFFFFF, -23}};
    for (auto [offset, value, code] : cases) {
        Bytes bad = good;
        std::memcpy(&bad[offset], &value, 4);
        EXPECT_EQ(sdk.Calibrate(h, Dib(bad), unsigned(bad.size()), nullptr, &size), code);
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
