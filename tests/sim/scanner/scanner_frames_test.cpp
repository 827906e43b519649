// Scanner API stand-in: frames, photometry through the calibration library,
// scenario steps, replay and determinism.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstring>

#include "calibration/calibration_header.h"
#include "calibration/norvakcalibratesdk.h"
#include "scanner_test_lib.h"

namespace {

using scantest::Env;
using scantest::FlipInvert;
using scantest::Frame;
using scantest::Mean;
using scantest::Scanner;

constexpr int kW = 320, kH = 480;

// Corrects a raw frame the way the plug-in does: flip and invert, then the
// calibration library with the unit's own calibration data.
struct Calibrator {
    explicit Calibrator(const std::vector<uint8_t>& ext)
        : lib(dlopen(KR7_CALIBRATE_SDK_PATH, RTLD_NOW | RTLD_LOCAL)) {
        create = reinterpret_cast<decltype(create)>(dlsym(lib, "CalibrateCreate"));
        set = reinterpret_cast<decltype(set)>(dlsym(lib, "CalibrateSetData"));
        calibrate = reinterpret_cast<decltype(calibrate)>(dlsym(lib, "Calibrate"));
        destroy = reinterpret_cast<decltype(destroy)>(dlsym(lib, "CalibrateDelete"));
        struct Stream : Nvk::CXStream {
            const std::vector<uint8_t>* bytes;
            bool WriteRaw(const void*, unsigned int) override { return false; }
            bool ReadRaw(void* d, unsigned int n) override {
                std::memcpy(d, bytes->data(), std::min<size_t>(n, bytes->size()));
                return true;
            }
        } stream;
        stream.bytes = &ext;
        unsigned char* payload = nullptr;
        unsigned int size = 0;
        header.ReadFromStream(&stream, unsigned(ext.size()), &payload, size);
        handle = create();
        EXPECT_EQ(set(handle, payload, size), 0);
    }
    ~Calibrator() {
        destroy(&handle);
        dlclose(lib);
    }
    // Returns the corrected image (unpadded) and its size.
    Frame Correct(const Frame& raw, int& width, int& height) {
        const Frame plain = FlipInvert(raw, kW, kH);
        std::vector<uint8_t> dib(40 + 1024 + plain.size(), 0);
        const int32_t head[] = {40, kW, kH};
        std::memcpy(dib.data(), head, sizeof head);
        dib[12] = 1;
        dib[14] = 8;
        std::memcpy(dib.data() + 1064, plain.data(), plain.size());
        std::vector<uint8_t> out(dib.size());
        unsigned int out_size = unsigned(out.size());
        EXPECT_EQ(calibrate(handle, reinterpret_cast<tagBITMAPINFOHEADER*>(dib.data()),
                            unsigned(dib.size()),
                            reinterpret_cast<tagBITMAPINFOHEADER*>(out.data()), &out_size),
                  0);
        std::memcpy(&width, out.data() + 4, 4);
        std::memcpy(&height, out.data() + 8, 4);
        const int stride = (width + 3) & ~3;
        Frame image;
        for (int y = 0; y < height; ++y)
            image.insert(image.end(), out.begin() + 1064 + y * stride,
                         out.begin() + 1064 + y * stride + width);
        return image;
    }

    void* lib;
    Nvk::ClQV2CalibrationHeader header;
    void* handle = nullptr;
    decltype(&::CalibrateCreate) create;
    decltype(&::CalibrateSetData) set;
    decltype(&::Calibrate) calibrate;
    decltype(&::CalibrateDelete) destroy;
};

double StdDev(const Frame& f) {
    const double m = Mean(f);
    double s = 0;
    for (uint8_t v : f)
        s += (v - m) * (v - m);
    return std::sqrt(s / double(f.size()));
}

TEST(ScannerPhotometry, EmptyPlatenCalibratesFlatAndBright) {
    Scanner s(Env{{"KR7SIM_SCENARIO", "empty;"}});
    FTRHANDLE h = s.Open();
    Frame raw, half, dark, backlight(kW * kH);
    ASSERT_EQ(s.ByDose(h, 60, raw), 0u);
    EXPECT_LT(Mean(raw), 60.0);  // API polarity: the empty platen is dark
    EXPECT_GT(Mean(FlipInvert(raw, kW, kH)), 200.0);

    Calibrator calibrator(s.ExtMemory(h));
    int w = 0, hgt = 0;
    const Frame corrected = calibrator.Correct(raw, w, hgt);
    ASSERT_GT(w * hgt, 0);
    EXPECT_NEAR(Mean(corrected), 248.0, 2.0);
    for (int y = 0; y < hgt; ++y) {
        const Frame row(corrected.begin() + y * w, corrected.begin() + (y + 1) * w);
        ASSERT_GT(Mean(row), 243.0) << "row " << y;
    }

    // The signal is linear in the dose above the dark offset.
    ASSERT_EQ(s.ByDose(h, 30, half), 0u);
    ASSERT_TRUE(s.ftrScanGetDarkImage(h, (dark.resize(kW * kH), dark.data())));
    const double offset = Mean(FlipInvert(dark, kW, kH));
    EXPECT_GT(offset, 3.0);
    EXPECT_LT(offset, 9.0);
    const double ratio =
        (Mean(FlipInvert(half, kW, kH)) - offset) / (Mean(FlipInvert(raw, kW, kH)) - offset);
    EXPECT_NEAR(ratio, 0.5, 0.02);
    ASSERT_TRUE(s.ftrScanGetBacklightImage(h, backlight.data()));
    EXPECT_NEAR(Mean(backlight), Mean(raw), 1.0);

    // With the invert option the frame keeps the platen's polarity.
    ASSERT_TRUE(s.ftrScanSetOptions(h, FTR_OPTIONS_INVERT_IMAGE, FTR_OPTIONS_INVERT_IMAGE));
    ASSERT_EQ(s.ByDose(h, 60, raw), 0u);
    EXPECT_GT(Mean(raw), 200.0);
}

// Finger scenarios run on three units of one library, so that they share its
// cache of ridge patterns: unit 0 walks through the steps, units 1 and 2
// (same seed) play rolls, dirt and skins.
class ScannerFingers : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        dir = new scantest::TempDir;
        const std::string walk =
            dir->Write("walk.txt",
                       "empty 2f; place 2f pressure=1.2 press=1f\nhold 2f; fake 2f; move 2f\n"
                       "emptyframe 2f; unplug 3f; empty 2f; repeat 2\n");
        const std::string rolls = dir->Write(
            "rolls.txt",
            "empty 1f; roll from=left press=1f over=6f; roll from=right press=1f over=6f\n"
            "dirt 8; empty 1f; place 3f skin=dry press=1f; place 3f skin=wet press=1f\n");
        scanner = new Scanner(
            Env{{"KR7SIM_UNITS", "if=0,scenario=" + walk + ";if=1,seed=9,scenario=" + rolls +
                                     ";if=2,seed=9,scenario=" + rolls},
                {"KR7SIM_JOURNAL", dir->path + "/journal.txt"}});
    }
    static void TearDownTestSuite() {
        delete scanner;
        delete dir;
    }
    static scantest::TempDir* dir;
    static Scanner* scanner;
};
scantest::TempDir* ScannerFingers::dir = nullptr;
Scanner* ScannerFingers::scanner = nullptr;

TEST_F(ScannerFingers, StepsDriveResultsAndUnplugKillsHandles) {
    Scanner& s = *scanner;
    ASSERT_TRUE(s.ftrSetBaseInterface(0));
    FTRHANDLE h = s.Open();
    ASSERT_TRUE(s.ftrScanSetOptions(h, FTR_OPTIONS_CHECK_FAKE_REPLICA, 1));
    std::vector<Frame> frames(12);
    std::vector<uint32_t> codes;
    for (Frame& f : frames)
        codes.push_back(s.Grab(h, f));
    const uint32_t fake = FTR_ERROR_NO_FRAME, moving = FTR_ERROR_MOVABLE_FINGER;
    EXPECT_EQ(codes,
              (std::vector<uint32_t>{0, 0, 0, 0, 0, 0, fake, fake, moving, moving, 4306, 4306}));
    // A finger darkens the platen and brings contrast.
    const Frame empty = FlipInvert(frames[1], kW, kH), finger = FlipInvert(frames[5], kW, kH);
    EXPECT_LT(Mean(finger), Mean(empty) - 20);
    EXPECT_GT(StdDev(finger), 2 * StdDev(empty));

    // Unplugged from frame 12 to 14: the interface reads as free, opening
    // fails, the handle is dead and stays dead after the replug.
    FTRSCAN_INTERFACES_LIST list;
    ASSERT_TRUE(s.ftrScanGetInterfaces(&list));
    EXPECT_EQ(list.InterfaceStatus[0], 1);
    EXPECT_EQ(s.ftrScanOpenDevice(), nullptr);
    EXPECT_EQ(s.ftrScanGetLastError(), FTR_ERROR_NO_MORE_ITEMS);
    Frame f;
    EXPECT_EQ(s.Grab(h, f), FTR_ERROR_DEVICE_NOT_FUNCTIONING);
    EXPECT_EQ(s.Grab(h, f), FTR_ERROR_DEVICE_NOT_FUNCTIONING);
    ASSERT_TRUE(s.ftrScanGetInterfaces(&list));
    EXPECT_EQ(list.InterfaceStatus[0], 0);
    EXPECT_EQ(s.Grab(h, f), FTR_ERROR_DEVICE_NOT_FUNCTIONING);
    EXPECT_TRUE(s.ftrScanCloseDevice(h));
    h = s.Open();
    EXPECT_EQ(s.Grab(h, f), 0u);
    EXPECT_EQ(s.Grab(h, f), 0u);

    // Second round of the script, then the platen stays empty.
    EXPECT_FALSE(s.ftrScanIsFingerPresent(h, nullptr));
    EXPECT_EQ(s.ftrScanGetLastError(), FTR_ERROR_EMPTY_FRAME);
    EXPECT_EQ(s.Grab(h, f), 0u);
    EXPECT_TRUE(s.ftrScanIsFingerPresent(h, nullptr));
    // Through the rest of the round, opening again after its unplug.
    for (int i = 0; i < 20; ++i) {
        if (s.Grab(h, f) == FTR_ERROR_DEVICE_NOT_FUNCTIONING) {
            s.ftrScanCloseDevice(h);
            while ((h = s.ftrScanOpenDevice()) == nullptr)
                ASSERT_EQ(s.ftrScanGetLastError(), FTR_ERROR_NO_MORE_ITEMS);
        }
    }
    EXPECT_EQ(s.Grab(h, f), 0u);
    EXPECT_FALSE(s.ftrScanIsFingerPresent(h, nullptr));

    const std::string text = scantest::ReadText(dir->path + "/journal.txt");
    EXPECT_NE(text.find(", buffer) -> 0 error 0x20000002 [frame 6 t=0.24s step fake line 2]"),
              std::string::npos)
        << text;
}

// Darkness-weighted mean column of a frame in the plug-in's polarity.
double ContactColumn(const Frame& raw) {
    double sum = 0, weight = 0;
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x) {
            const double dark = raw[size_t(y) * kW + x];  // raw: ridges bright
            sum += dark * x;
            weight += dark;
        }
    return sum / weight;
}

TEST_F(ScannerFingers, RollsSkinsAndDirtSameBytesForTheSameSeed) {
    Scanner& s = *scanner;
    std::vector<Frame> frames(23), again(23);
    for (int unit = 1; unit <= 2; ++unit) {
        ASSERT_TRUE(s.ftrSetBaseInterface(unit));
        FTRHANDLE h = s.Open();
        for (Frame& f : unit == 1 ? frames : again)
            ASSERT_EQ(s.Grab(h, f), 0u);
    }
    EXPECT_TRUE(frames == again);
    for (int roll = 0; roll < 2; ++roll) {
        SCOPED_TRACE(roll == 0 ? "from the left" : "from the right");
        const double start = ContactColumn(frames[size_t(2 + 8 * roll)]);
        const double end = ContactColumn(frames[size_t(7 + 8 * roll)]);
        EXPECT_GT(roll == 0 ? end - start : start - end, 20.0);
    }
    // Dirt: dark smudges on the empty platen that were not there before.
    const Frame clean = FlipInvert(frames[0], kW, kH), dirty = FlipInvert(frames[17], kW, kH);
    int smudged = 0;
    for (size_t i = 0; i < clean.size(); ++i)
        smudged += dirty[i] + 12 < clean[i] ? 1 : 0;
    EXPECT_GT(smudged, 100);
    // Wet skin images darker than dry skin.
    EXPECT_LT(Mean(FlipInvert(frames[22], kW, kH)) + 10, Mean(FlipInvert(frames[19], kW, kH)));
}

void PutLe(std::string& s, size_t at, uint32_t v, int bytes) {
    for (int i = 0; i < bytes; ++i)
        s[at + size_t(i)] = char(v >> (8 * i));
}

// An 8-bit bottom-up BMP of a flat grey level.
std::string FlatBmp(int w, int h, uint8_t level) {
    const int stride = (w + 3) & ~3;
    std::string b(1078 + size_t(stride * h), char(level));
    std::memset(&b[0], 0, 1078);
    b[0] = 'B';
    b[1] = 'M';
    PutLe(b, 2, uint32_t(b.size()), 4);
    PutLe(b, 10, 1078, 4);
    PutLe(b, 14, 40, 4);
    PutLe(b, 18, uint32_t(w), 4);
    PutLe(b, 22, uint32_t(h), 4);
    PutLe(b, 26, 1, 2);
    PutLe(b, 28, 8, 2);
    for (int i = 0; i < 256; ++i)
        b[54 + 4 * i] = b[55 + 4 * i] = b[56 + 4 * i] = char(i);
    return b;
}

TEST(ScannerScenario, ReplaysRecordedFrames) {
    scantest::TempDir dir;
    // A platen image whose top half is black.
    std::string pgm = "P5\n# recorded\n200 300\n255\n" + std::string(200 * 150, '\0') +
                      std::string(200 * 150, '\xff');
    dir.Write("a.pgm", pgm);
    dir.Write("b.pgm", "P5 2 2 255\n\x01\x02\x03\x04");
    dir.Write("c.bmp", FlatBmp(330, 10, 77));
    dir.Write("notes.txt", "ignored");
    Scanner s(Env{{"KR7SIM_SCENARIO", "replay " + dir.path + " 3f as=raw; replay " + dir.path}});
    FTRHANDLE h = s.Open();
    Frame a, b, c, platen;
    ASSERT_EQ(s.Grab(h, a), 0u);
    ASSERT_EQ(s.Grab(h, b), 0u);
    ASSERT_EQ(s.Grab(h, c), 0u);
    // Raw frames come as they are, centred, with a black border.
    EXPECT_EQ(a[0], 0);
    EXPECT_EQ(a[size_t(90) * kW + 60], 0);      // first row of the image
    EXPECT_EQ(a[size_t(389) * kW + 259], 255);  // its last row
    EXPECT_EQ(b[size_t(239) * kW + 159], 1);
    EXPECT_EQ(b[size_t(240) * kW + 160], 4);
    EXPECT_EQ(c[size_t(235) * kW + 0], 77);
    EXPECT_EQ(c[size_t(230) * kW + 0], 0);
    // A platen replay passes the optics: dark at the top after flip and invert.
    ASSERT_EQ(s.Grab(h, platen), 0u);
    const Frame view = FlipInvert(platen, kW, kH);
    const Frame top(view.begin() + 120 * kW, view.begin() + 220 * kW);
    const Frame bottom(view.begin() + 260 * kW, view.begin() + 360 * kW);
    EXPECT_TRUE(s.ftrScanIsFingerPresent(h, nullptr));  // frame 4 of the replay
    ASSERT_EQ(s.Grab(h, c), 0u);
    EXPECT_FALSE(s.ftrScanIsFingerPresent(h, nullptr));  // the script is over
    EXPECT_LT(Mean(top) + 80, Mean(bottom));
}

TEST(ScannerDeterminism, SameSeedSameBytesAcrossLoads) {
    auto take = [](const char* seed) {
        Scanner s(Env{{"KR7SIM_SCENARIO", "empty;"}, {"KR7SIM_SEED", seed}});
        FTRHANDLE h = s.Open();
        std::vector<Frame> frames(3);
        for (Frame& f : frames)
            EXPECT_EQ(s.Grab(h, f), 0u);
        return frames;
    };
    const std::vector<Frame> first = take("3");
    EXPECT_TRUE(take("3") == first);
    EXPECT_FALSE(take("4") == first);
    EXPECT_FALSE(first[0] == first[1]);  // fresh noise in every frame
}

TEST(ScannerScenario, RealTimePacingHoldsTheFramePeriod) {
    Scanner s(Env{{"KR7SIM_SCENARIO", "empty;"}, {"KR7SIM_REALTIME", "1"}});
    FTRHANDLE h = s.Open();
    Frame f;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(s.Grab(h, f), 0u);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(120));
}

}  // namespace
