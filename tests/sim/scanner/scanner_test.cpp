// The scanner API stand-in, loaded the way a host loads it (dlopen, dlsym)
// with a fresh environment, so that every test sees a newly configured
// library: entry points, identity, memories, errors, faults, photometry
// through the calibration library, scenario steps, replay and determinism.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <numeric>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "calibration/calibration_header.h"
#include "closed/ftrscan.h"
#include "closed/norvakcalibratesdk.h"
#include "common/optics.h"

namespace scantest {
namespace {

using Env = std::map<std::string, std::string>;
using Frame = std::vector<uint8_t>;
constexpr int kW = 320, kH = 480;

// clang-format off
#define KR7_SCAN_ENTRIES(X)                                                                        \
    X(ftrScanOpenDevice) X(ftrScanCloseDevice) X(ftrScanSetOptions) X(ftrScanGetOptions)           \
    X(ftrScanGetImageSize) X(ftrScanGetFrame) X(ftrScanGetBacklightImage) X(ftrScanGetDarkImage)   \
    X(ftrScanGetImage) X(ftrScanIsFingerPresent) X(ftrScanSave7Bytes)                              \
    X(ftrScanRestore7ControlBytes) X(ftrScanGetDiodesStatus) X(ftrScanSetDiodesStatus)             \
    X(ftrScanGetInterfaces) X(ftrSetBaseInterface) X(ftrGetBaseInterfaceNumber)                    \
    X(ftrScanSaveSerialNumber) X(ftrScanGetImageByVariableDose) X(ftrScanGetImage2)                \
    X(ftrScanGetLastError) X(ftrScanSetLastError) X(ftrScanGetExtMemorySize)                       \
    X(ftrScanSaveExtMemory) X(ftrScanRestoreExtMemory) X(ftrScanGetSerialNumber) X(ftrScanGetVersion)
// clang-format on

struct Scanner {
    explicit Scanner(const Env& env = {}) {
        for (const char* name :
             {"KR7SIM_SEED", "KR7SIM_UNITS", "KR7SIM_SCENARIO", "KR7SIM_REALTIME", "KR7SIM_FAULTS",
              "KR7SIM_JOURNAL", "KR7SIM_FIXED_FRAME"})
            unsetenv(name);
        for (const auto& [key, value] : env)
            setenv(key.c_str(), value.c_str(), 1);
        lib = dlopen(KR7_SCANNER_PATH, RTLD_NOW | RTLD_LOCAL);
        if (lib == nullptr)
            ADD_FAILURE() << dlerror();
#define KR7_RESOLVE(name) \
    name = lib ? reinterpret_cast<decltype(&::name)>(dlsym(lib, #name)) : nullptr;
        KR7_SCAN_ENTRIES(KR7_RESOLVE)
#undef KR7_RESOLVE
    }
    ~Scanner() {
        if (lib != nullptr)
            dlclose(lib);
    }

    // Opens the device on the base interface; fails the test if it cannot.
    FTRHANDLE Open() {
        FTRHANDLE h = ftrScanOpenDevice();
        EXPECT_NE(h, nullptr) << "error " << ftrScanGetLastError();
        return h;
    }
    // 0 for a call that succeeded, otherwise the last error.
    uint32_t Code(bool ok) {
        return ok ? 0 : ftrScanGetLastError();
    }
    // One GetFrame of a kW x kH frame.
    uint32_t Grab(FTRHANDLE h, Frame& frame) {
        frame.resize(kW * kH);
        return Code(ftrScanGetFrame(h, frame.data(), nullptr));
    }
    // Interface `i` as the list reports it: 0 a unit is there, 1 free.
    int Status(int i) {
        FTRSCAN_INTERFACES_LIST list;
        return ftrScanGetInterfaces(&list) ? list.InterfaceStatus[i] : -1;
    }
    std::vector<uint8_t> ExtMemory(FTRHANDLE h) {
        int size = 0;
        EXPECT_TRUE(ftrScanGetExtMemorySize(h, &size));
        std::vector<uint8_t> bytes(size_t(std::max(size, 0)));
        EXPECT_TRUE(ftrScanRestoreExtMemory(h, bytes.data(), 0, size));
        return bytes;
    }

    void* lib = nullptr;
#define KR7_DECLARE(name) decltype(&::name) name = nullptr;
    KR7_SCAN_ENTRIES(KR7_DECLARE)
#undef KR7_DECLARE
};

// The calibration payload of a unit's extended memory, read the way the
// plug-in reads it; throws when there is no valid block.
std::vector<uint8_t> CalibrationPayload(const std::vector<uint8_t>& ext) {
    struct Stream : Nvk::CXStream {
        const std::vector<uint8_t>* bytes = nullptr;
        bool WriteRaw(const void*, unsigned int) override { return false; }
        bool ReadRaw(void* data, unsigned int size) override {
            std::memcpy(data, bytes->data(), std::min<size_t>(size, bytes->size()));
            return size <= bytes->size();
        }
    } stream;
    stream.bytes = &ext;
    Nvk::ClQV2CalibrationHeader header;
    unsigned char* payload = nullptr;
    unsigned int size = 0;
    header.ReadFromStream(&stream, unsigned(ext.size()), &payload, size);
    EXPECT_FALSE(header.Description().empty());
    return std::vector<uint8_t>(payload, payload + size);
}

// A fresh temporary folder, removed with its files at the end of the scope.
struct TempDir {
    TempDir() {
        char templ[] = "/tmp/kr7scan_XXXXXX";
        path = mkdtemp(templ);
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    std::string Write(const std::string& name, const std::string& content) const {
        std::ofstream(path + "/" + name, std::ios::binary) << content;
        return path + "/" + name;
    }
    std::string Read(const std::string& name) const {
        std::stringstream text;
        text << std::ifstream(path + "/" + name).rdbuf();
        return text.str();
    }
    std::string path;
};

// The plug-in's view of a raw frame: rows turned upside down and inverted.
Frame FlipInvert(const Frame& raw) {
    Frame out(raw.size());
    for (size_t y = 0; y < kH; ++y)
        for (size_t x = 0; x < kW; ++x)
            out[y * kW + x] = uint8_t(255 - raw[(kH - 1 - y) * kW + x]);
    return out;
}

// Mean of the pixels from `begin` to `end`, or of a whole frame.
double Mean(const uint8_t* begin, const uint8_t* end) {
    return begin == end ? 0 : std::accumulate(begin, end, 0.0) / double(end - begin);
}
double Mean(const Frame& f) {
    return Mean(f.data(), f.data() + f.size());
}

const Env kQuiet = {{"KR7SIM_SCENARIO", "empty;"}};

TEST(ScannerUnit, IdentityOptionsLedsAndMemoriesPersist) {
    Scanner s(kQuiet);
    // Nothing but the entry points leaves the library.
    EXPECT_EQ(
        dlsym(s.lib, "_ZN6kr7sim10ScanEngine6RenderEPKNS_10ImpressionERKNS_12FrameRequestEPh"),
        nullptr);
    FTRHANDLE h = s.Open();
    // Known option bits stick, unknown ones are refused.
    uint32_t flags = 0;
    EXPECT_TRUE(s.ftrScanSetOptions(h, 0x45, 0x05));
    ASSERT_TRUE(s.ftrScanGetOptions(h, &flags));
    EXPECT_EQ(flags, 0x05u);
    EXPECT_EQ(s.Code(s.ftrScanSetOptions(h, 0x100, 0x100)), FTR_ERROR_NOT_SUPPORTED);
    // LEDs; a capture switches them off.
    FTR_BOOL green = 0, red = 0;
    ASSERT_TRUE(s.ftrScanSetDiodesStatus(h, 255, 0));
    ASSERT_TRUE(s.ftrScanGetDiodesStatus(h, &green, &red));
    EXPECT_TRUE(green && !red);
    Frame frame;
    ASSERT_EQ(s.Grab(h, frame), 0u);
    ASSERT_TRUE(s.ftrScanGetDiodesStatus(h, &green, &red));
    EXPECT_FALSE(green);

    // Control bytes, serial number and extended memory survive a reopen.
    unsigned char seven[7] = {1, 2, 3, 4, 5, 6, 7}, back[7] = {};
    unsigned char block[10] = {0xBA, 'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 0x24};
    unsigned char bad_sum[10] = {0xBA, 'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 0x25};
    unsigned char bad_mark[10] = {0xBB, 'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 0x24};
    const int ext = int(s.ExtMemory(h).size());
    char data[4] = {'d', 'a', 't', 'a'}, read[4] = {}, serial[8];
    ASSERT_GE(ext, 1024);
    ASSERT_TRUE(s.ftrScanSave7Bytes(h, seven) && s.ftrScanSaveSerialNumber(h, block) &&
                s.ftrScanSaveExtMemory(h, data, ext - 4, 4) && s.ftrScanCloseDevice(h));
    EXPECT_EQ(s.Grab(h, frame), FTR_ERROR_INVALID_PARAMETER);  // a closed handle is unknown
    EXPECT_FALSE(s.ftrScanCloseDevice(h));
    // Calls that would read or write past a buffer, pass a null pointer or
    // carry a bad checksum fail with 87 and touch nothing.
    FTRSCAN_VERSION_INFO info{20, {}, {}, {}};
    const FTRHANDLE open = s.Open();
    for (const auto& call : std::vector<std::function<bool()>>{
             [&] { return s.ftrScanGetVersion(open, &info); },
             [&] { return s.ftrScanSaveSerialNumber(open, bad_sum); },
             [&] { return s.ftrScanSaveSerialNumber(open, bad_mark); },
             [&] { return s.ftrScanSaveExtMemory(open, data, ext - 3, 4); },
             [&] { return s.ftrScanRestoreExtMemory(open, read, -1, 4); },
             [&] { return s.ftrScanRestoreExtMemory(open, nullptr, 0, 4); },
             [&] { return s.ftrScanGetDiodesStatus(open, nullptr, &red); },
             [&] { return s.ftrScanGetImageByVariableDose(open, -1, frame.data()); },
             [&] { return s.ftrScanGetImage(open, 60, nullptr); },
             [&] { return s.ftrScanGetFrame(nullptr, frame.data(), nullptr); }})
        EXPECT_EQ(s.Code(call()), FTR_ERROR_INVALID_PARAMETER);
    ASSERT_TRUE(s.ftrScanRestore7ControlBytes(open, back));
    EXPECT_EQ(std::memcmp(back, seven, 7), 0);
    ASSERT_TRUE(s.ftrScanGetSerialNumber(open, serial));
    EXPECT_EQ(std::string(serial, 8), "ABCDEFGH");
    ASSERT_TRUE(s.ftrScanRestoreExtMemory(open, read, ext - 4, 4));
    EXPECT_EQ(std::memcmp(read, data, 4), 0);
}

TEST(ScannerUnit, InterfacesSelectUnitsAndTheMemoryHoldsTheirCalibration) {
    Scanner s(Env{{"KR7SIM_SCENARIO", "empty;"},
                  {"KR7SIM_UNITS",
                   "if=3,size=640x480,long=none;if=1,long=640x480;"
                   "if=2,calibration=no"}});
    EXPECT_EQ(s.ftrGetBaseInterfaceNumber(), 1);  // the lowest configured interface
    EXPECT_EQ(s.Code(s.ftrSetBaseInterface(5)), FTR_ERROR_NO_MORE_ITEMS);
    EXPECT_FALSE(s.ftrSetBaseInterface(-1));
    for (int unit : {3, 1, 2}) {
        SCOPED_TRACE(unit);
        ASSERT_TRUE(s.ftrSetBaseInterface(unit));
        FTRHANDLE h = s.Open();
        if (unit == 2) {  // no calibration block
            EXPECT_ANY_THROW(CalibrationPayload(s.ExtMemory(h)));
            continue;
        }
        // The block describes the optics of the long image, which the plug-in asks for.
        const std::vector<uint8_t> payload = CalibrationPayload(s.ExtMemory(h));
        kr7sim::Optics optics;
        ASSERT_TRUE(kr7sim::Parse(payload.data(), payload.size(), optics));
        const bool long_image = s.ftrScanSetOptions(h, 4, 4);
        EXPECT_EQ(long_image ? 0u : s.ftrScanGetLastError(),
                  unit == 3 ? FTR_ERROR_HARDWARE_INCOMPATIBLE : 0);
        FTRSCAN_IMAGE_SIZE size{};
        ASSERT_TRUE(s.ftrScanGetImageSize(h, &size));
        EXPECT_EQ(optics.width * 1000 + optics.height, size.nWidth * 1000 + size.nHeight);
        EXPECT_EQ(size.nWidth, 640);
    }
}

// KR7SIM_FIXED_FRAME: the first frame of a kind is handed out again by every
// later capture of that kind while the scenario goes on; another dose is
// another frame. Without it the finger's press changes the frames.
TEST(ScannerFrames, FixedFrameModeRepeatsTheFirstFrameWhileTheScenarioRuns) {
    const Env pressing = {{"KR7SIM_SCENARIO", "place 0.2s; hold 10s"}};
    Env fixed = pressing;
    fixed["KR7SIM_FIXED_FRAME"] = "1";
    std::vector<Frame> taken[2];
    for (int mode = 0; mode < 2; ++mode) {
        Scanner s(mode == 0 ? pressing : fixed);
        FTRHANDLE h = s.Open();
        for (int i = 0; i < 8; ++i) {
            Frame frame;
            ASSERT_EQ(s.Grab(h, frame), 0u);
            taken[mode].push_back(frame);
        }
        Frame a(kW * kH), b(kW * kH);
        ASSERT_TRUE(s.ftrScanGetImageByVariableDose(h, 120, a.data()));
        ASSERT_TRUE(s.ftrScanGetImageByVariableDose(h, 120, b.data()));
        EXPECT_NE(a, taken[mode][0]);
        EXPECT_EQ(a == b, mode == 1);
        EXPECT_TRUE(s.ftrScanIsFingerPresent(h, nullptr));
    }
    EXPECT_NE(taken[0][0], taken[0][7]);
    EXPECT_EQ(taken[1][0], taken[0][0]);
    for (const Frame& frame : taken[1])
        EXPECT_EQ(frame, taken[1][0]);
}

TEST(ScannerErrors, LastErrorIsPerThreadAndCapturesKeepTheFramePeriod) {
    Scanner s(Env{{"KR7SIM_SCENARIO", "empty;"}, {"KR7SIM_REALTIME", "1"}});
    s.ftrScanSetLastError(1460);
    uint32_t other = 1;
    std::thread([&] { other = s.ftrScanGetLastError(); }).join();
    EXPECT_EQ(other, 0u);
    EXPECT_EQ(s.ftrScanGetLastError(), 1460u);
    FTRHANDLE h = s.Open();
    EXPECT_EQ(s.ftrScanGetLastError(), 0u);  // success clears it

    // A capture thread in real time and the host thread at once on one handle.
    const auto start = std::chrono::steady_clock::now();
    std::thread capture([&] {
        Frame frame;
        for (int i = 0; i < 6; ++i)
            EXPECT_EQ(s.Grab(h, frame), 0u);
    });
    for (int i = 0; i < 20; ++i)
        EXPECT_TRUE(s.ftrScanSetDiodesStatus(h, uint8_t(i % 2 ? 255 : 0), 0));
    capture.join();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
}

// A range rule, and a rule on ftrScanCloseDevice, which fails before it
// looks at its handle; the journal marks injected failures. The other kinds
// of rule, and the entries the plug-in calls, are pinned end to end by the
// device-fault table and the scanner binding's tests.
TEST(ScannerFaults, InjectedFailuresHitTheChosenCalls) {
    TempDir dir;
    Scanner s(
        Env{{"KR7SIM_SCENARIO", "empty;"},
            {"KR7SIM_JOURNAL", dir.path + "/journal.txt"},
            {"KR7SIM_FAULTS", "ftrScanGetImageSize@1-2=0x20000004; ftrScanCloseDevice@1=17"}});
    FTRHANDLE h = s.Open();
    FTRSCAN_IMAGE_SIZE size;
    std::vector<uint32_t> results;
    while (results.size() < 3)
        results.push_back(s.Code(s.ftrScanGetImageSize(h, &size)));
    EXPECT_EQ(results, (std::vector<uint32_t>{0x20000004, 0x20000004, 0}));
    EXPECT_EQ(s.Code(s.ftrScanCloseDevice(nullptr)), 17u);
    EXPECT_EQ(s.Code(s.ftrScanCloseDevice(nullptr)), FTR_ERROR_INVALID_PARAMETER);
    const std::string text = dir.Read("journal.txt");
    EXPECT_NE(text.find("ftrScanGetImageSize(h1) -> 0 error 0x20000004 (injected)"),
              std::string::npos)
        << text;
}

TEST(ScannerErrors, BadConfigurationNamesTheProblemAndRefusesToOpen) {
    TempDir dir;
    const std::string file = dir.Write("bad.txt", "# demo\nempty 1s\nplace 2s skin=oily\n");
    ASSERT_TRUE(std::filesystem::create_directory(dir.path + "/frames"));
    dir.Write("frames/a.pgm", "P5\n4 4\n255\nxx");
    std::string units129;  // one unit more than there are interfaces
    for (int i = 0; i < 129; ++i)
        units129 += "dirt=0;";
    std::string weeks;  // 285 weeks of frames do not fit in 32 bits
    for (int i = 0; i < 285; ++i)
        weeks += "hold 604800s\n";
    const std::pair<Env, std::string> cases[] = {
        {{{"KR7SIM_SCENARIO", file}}, file + ":3: bad value 'oily' for option 'skin'"},
        {{{"KR7SIM_SCENARIO", "empty 1s;\nhold 3parsecs"}}, "KR7SIM_SCENARIO:2: bad duration"},
        {{{"KR7SIM_SCENARIO", "repeat;empty"}}, "KR7SIM_SCENARIO:1: 'repeat' must be the last"},
        {{{"KR7SIM_SCENARIO", "jump 2s;"}}, "KR7SIM_SCENARIO:1: unknown step 'jump'"},
        {{{"KR7SIM_SCENARIO", "roll 2s;"}}, "unexpected '2s' after 'roll'"},
        {{{"KR7SIM_SCENARIO", "roll from=top;"}}, "bad value 'top' for option 'from'"},
        {{{"KR7SIM_SCENARIO", weeks}}, "KR7SIM_SCENARIO:285: the script runs past 4294967295"},
        {{{"KR7SIM_SCENARIO", "empty;replay " + dir.path + "/frames"}}, "truncated PGM"},
        {{{"KR7SIM_SCENARIO", "empty;replay " + dir.path + "/none"}}, "cannot open folder"},
        {{{"KR7SIM_SCENARIO", dir.path + "/missing.txt"}}, "cannot open the scenario"},
        {{{"KR7SIM_FAULTS", "ftrScanGetFrame@0=31"}}, "bad call number"},
        {{{"KR7SIM_FAULTS", "ftrScanGetFrame@1=0"}}, "bad error code"},
        {{{"KR7SIM_FAULTS", "ftrScanGetFrame=31"}}, "expected NAME@CALL=CODE"},
        {{{"KR7SIM_FAULTS", "ftrScanFly@1=31"}}, "unknown entry point 'ftrScanFly'"},
        {{{"KR7SIM_UNITS", "if=0;if=0"}}, "two units on interface 0"},
        {{{"KR7SIM_UNITS", "size=10x10"}}, "bad setting 'size=10x10'"},
        {{{"KR7SIM_UNITS", units129}}, "the number of units must be 1 to 128"},
        {{{"KR7SIM_UNITS", ";;"}}, "the number of units must be 1 to 128"},
    };
    for (const auto& [env, message] : cases) {
        Scanner s(env);
        testing::internal::CaptureStderr();
        EXPECT_EQ(s.Code(s.ftrScanOpenDevice() != nullptr), FTR_ERROR_INVALID_PARAMETER) << message;
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_NE(err.find(message), std::string::npos) << err;
        EXPECT_EQ(s.Status(0), 1) << message;
    }
}

// Corrects a raw frame the way the plug-in does: flip and invert, then the
// calibration library with the unit's own calibration data. Returns the
// corrected image without row padding; `width` receives its width.
Frame Calibrate(const std::vector<uint8_t>& payload, const Frame& raw, int& width) {
    void* lib = dlopen(KR7_CALIBRATE_SDK_PATH, RTLD_NOW | RTLD_LOCAL);
#define KR7_ENTRY(name) reinterpret_cast<decltype(&::name)>(dlsym(lib, #name))
    void* handle = KR7_ENTRY(CalibrateCreate)();
    EXPECT_EQ(KR7_ENTRY(CalibrateSetData)(handle, payload.data(), unsigned(payload.size())), 0);
    const int32_t head[266] = {40, kW, kH, 0x80001};  // one plane, 8 bits; zero palette
    Frame dib(reinterpret_cast<const uint8_t*>(head), reinterpret_cast<const uint8_t*>(head + 266)),
        plain = FlipInvert(raw), out(1064 + raw.size());
    dib.insert(dib.end(), plain.begin(), plain.end());
    unsigned size = unsigned(out.size());
    EXPECT_EQ(KR7_ENTRY(Calibrate)(handle, reinterpret_cast<tagBITMAPINFOHEADER*>(dib.data()),
                                   unsigned(dib.size()),
                                   reinterpret_cast<tagBITMAPINFOHEADER*>(out.data()), &size),
              0);
    KR7_ENTRY(CalibrateDelete)(&handle);
#undef KR7_ENTRY
    dlclose(lib);
    int height = 0;
    std::memcpy(&width, &out[4], 4);
    std::memcpy(&height, &out[8], 4);
    Frame image;
    for (int y = 0, stride = (width + 3) & ~3; y < height; ++y)
        image.insert(image.end(), &out[1064 + y * stride], &out[1064 + y * stride + width]);
    return image;
}

TEST(ScannerPhotometry, EmptyPlatenCalibratesFlatAndBright) {
    Scanner s(Env{{"KR7SIM_SCENARIO", "empty;"}});
    FTRHANDLE h = s.Open();
    Frame raw(kW * kH), half(kW * kH), dark(kW * kH), backlight(kW * kH);
    ASSERT_EQ(s.Code(s.ftrScanGetImageByVariableDose(h, 60, raw.data())), 0u);
    EXPECT_LT(Mean(raw), 55.0);  // API polarity: the empty platen is dark
    int w = 0;
    const Frame corrected = Calibrate(CalibrationPayload(s.ExtMemory(h)), raw, w);
    ASSERT_GT(w, 0);
    EXPECT_NEAR(Mean(corrected), 248.0, 2.0);
    for (size_t y = 0; y < corrected.size() / size_t(w); ++y)
        ASSERT_GT(Mean(&corrected[y * w], &corrected[y * w] + w), 243.0) << "row " << y;

    // The signal is linear in the dose above the dark offset.
    ASSERT_EQ(s.Code(s.ftrScanGetImageByVariableDose(h, 30, half.data())), 0u);
    ASSERT_TRUE(s.ftrScanGetDarkImage(h, dark.data()));
    const double offset = Mean(FlipInvert(dark));
    EXPECT_TRUE(offset > 3.0 && offset < 9.0) << offset;
    EXPECT_NEAR((Mean(FlipInvert(half)) - offset) / (Mean(FlipInvert(raw)) - offset), 0.5, 0.02);
    ASSERT_TRUE(s.ftrScanGetBacklightImage(h, backlight.data()));
    EXPECT_NEAR(Mean(backlight), Mean(raw), 1.0);
    // With the invert option the frame keeps the platen's polarity.
    ASSERT_TRUE(s.ftrScanSetOptions(h, FTR_OPTIONS_INVERT_IMAGE, FTR_OPTIONS_INVERT_IMAGE));
    ASSERT_EQ(s.Code(s.ftrScanGetImageByVariableDose(h, 60, raw.data())), 0u);
    EXPECT_GT(Mean(raw), 200.0);
}

// One letter per GetFrame: e empty platen, f finger (ridges in contact), or
// the error: F fake rejected, m moving finger, x empty frame, u unplugged.
std::string Outcomes(Scanner& s, FTRHANDLE h, int n, std::vector<Frame>* keep = nullptr) {
    std::string letters;
    for (int i = 0; i < n; ++i) {
        Frame f;
        const uint32_t code = s.Grab(h, f);
        const size_t ridges = std::count_if(f.begin(), f.end(), [](uint8_t v) { return v > 135; });
        letters += code == 0                          ? (ridges > f.size() / 100 ? 'f' : 'e')
                   : code == FTR_ERROR_NO_FRAME       ? 'F'
                   : code == FTR_ERROR_MOVABLE_FINGER ? 'm'
                   : code == FTR_ERROR_EMPTY_FRAME    ? 'x'
                   : code == FTR_ERROR_DEVICE_NOT_FUNCTIONING ? 'u'
                                                              : '?';
        if (keep != nullptr)
            keep->push_back(f);
    }
    return letters;
}

// Mean column of the ridges in contact (bright in API polarity).
double ContactColumn(const Frame& raw) {
    double sum = 0, weight = 0;
    for (size_t i = 0; i < raw.size(); ++i) {
        sum += double(raw[i]) * double(i % kW);
        weight += raw[i];
    }
    return sum / weight;
}

// Finger scenarios run on units of one library, so that they share its cache
// of ridge patterns (finger 5): unit 0 walks through the steps, units 1 and 2
// (same seed) play rolls, dirt and skins, unit 3 places finger 5 by option.
TEST(ScannerFingers, StepsRollsSkinsAndDirt) {
    TempDir dir;
    const std::string walk_file =
        dir.Write("walk.txt",
                  "seed 5; empty 2f; place 2f pressure=1.2 press=1f\n"
                  "hold 1f; wait 1f; fake 2f; move 1f; movable 1f\n"
                  "emptyframe 2f; lift 1f; unplug 3f; empty 2f; repeat 2\n");
    const std::string rolls_file = dir.Write(
        "rolls.txt",
        "seed 5\nempty 1f; roll from=left press=1f over=6f; roll from=right press=1f over=6f\n"
        "dirt 8; empty 1f; place 3f skin=dry press=1f; place 3f skin=wet press=1f\n");
    const std::string same_file = dir.Write(
        "same.txt",
        "empty 2f; place 2f pressure=1.2 press=1f finger=5; fake 1f finger=5 variation=easy");
    Scanner s(Env{{"KR7SIM_UNITS", "if=0,seed=9,scenario=" + walk_file + ";if=1,seed=9,scenario=" +
                                       rolls_file + ";if=2,seed=9,scenario=" + rolls_file +
                                       ";if=3,seed=9,scenario=" + same_file},
                  {"KR7SIM_JOURNAL", dir.path + "/journal.txt"}});
    ASSERT_TRUE(s.ftrSetBaseInterface(0));
    FTRHANDLE h = s.Open();
    ASSERT_TRUE(s.ftrScanSetOptions(h, FTR_OPTIONS_CHECK_FAKE_REPLICA, 1));
    std::vector<Frame> walk, same;
    EXPECT_EQ(Outcomes(s, h, 13, &walk), "eeffffFFmmxxe");
    // Unplugged from frame 13 to 15: the interface reads as free, opening
    // fails, the handle is dead and stays dead after the replug.
    EXPECT_EQ(s.Status(0), 1);
    EXPECT_EQ(s.Code(s.ftrScanOpenDevice() != nullptr), FTR_ERROR_NO_MORE_ITEMS);
    EXPECT_EQ(Outcomes(s, h, 2), "uu");
    EXPECT_EQ(s.Status(0), 0);
    EXPECT_EQ(Outcomes(s, h, 1), "u");
    EXPECT_TRUE(s.ftrScanCloseDevice(h));
    h = s.Open();
    EXPECT_EQ(Outcomes(s, h, 2), "ee");
    // The second round, with presence checks; then the platen stays empty.
    EXPECT_EQ(s.Code(s.ftrScanIsFingerPresent(h, nullptr)), FTR_ERROR_EMPTY_FRAME);
    EXPECT_EQ(Outcomes(s, h, 1), "e");
    EXPECT_TRUE(s.ftrScanIsFingerPresent(h, nullptr));
    EXPECT_EQ(Outcomes(s, h, 13), "fffFFmmxxeuuu");
    EXPECT_TRUE(s.ftrScanCloseDevice(h));
    h = s.Open();
    EXPECT_EQ(Outcomes(s, h, 3), "eee");
    EXPECT_FALSE(s.ftrScanIsFingerPresent(h, nullptr));
    const std::string text = dir.Read("journal.txt");
    EXPECT_NE(text.find(", buffer) -> 0 error 0x20000002 [frame 6 t=0.24s step fake line 2]"),
              std::string::npos)
        << text;

    // `seed 5` picks the finger that `finger=5` names; a fake images like a
    // finger while fake checking is off.
    ASSERT_TRUE(s.ftrSetBaseInterface(3));
    EXPECT_EQ(Outcomes(s, s.Open(), 5, &same), "eefff");
    EXPECT_TRUE(std::equal(walk.begin(), walk.begin() + 4, same.begin()));

    // Rolls from the chosen side, dirt and skins, the same bytes on both units.
    std::vector<Frame> frames, again;
    for (int unit = 1; unit <= 2; ++unit) {
        ASSERT_TRUE(s.ftrSetBaseInterface(unit));
        EXPECT_EQ(Outcomes(s, s.Open(), 24, unit == 1 ? &frames : &again),
                  "effffffffffffffffeffffff");
    }
    EXPECT_TRUE(frames == again);
    for (int roll = 0; roll < 2; ++roll) {
        const double start = ContactColumn(frames[size_t(2 + 8 * roll)]);
        const double end = ContactColumn(frames[size_t(7 + 8 * roll)]);
        EXPECT_GT(roll == 0 ? end - start : start - end, 20.0) << "roll " << roll;
    }
    // Dirt: dark smudges on the empty platen that were not there before.
    const Frame clean = FlipInvert(frames[0]), dirty = FlipInvert(frames[17]);
    int smudged = 0;
    for (size_t i = 0; i < clean.size(); ++i)
        smudged += dirty[i] + 12 < clean[i] ? 1 : 0;
    EXPECT_GT(smudged, 100);
    // Wet skin images darker than dry skin.
    EXPECT_LT(Mean(FlipInvert(frames[22])) + 10, Mean(FlipInvert(frames[19])));
}

// An 8-bit bottom-up BMP of a flat grey level with a grey palette.
std::string FlatBmp(int32_t w, int32_t h, uint8_t level) {
    const int32_t head[13] = {0, 0, 1078, 40, w, h, 0x80001};  // file and info headers
    std::string b = "BM" + std::string(reinterpret_cast<const char*>(head), sizeof head);
    for (int i = 0; i < 256; ++i)
        b += std::string{char(i), char(i), char(i), '\0'};
    return b + std::string(size_t(((w + 3) & ~3) * h), char(level));
}

TEST(ScannerScenario, ReplaysRecordedFrames) {
    TempDir dir;
    // A platen image whose top half is black.
    dir.Write("a.pgm", "P5\n# recorded\n200 300\n255\n" + std::string(200 * 150, '\0') +
                           std::string(200 * 150, '\xff'));
    dir.Write("b.pgm", "P5 2 2 255\n\x01\x02\x03\x04");
    dir.Write("c.bmp", FlatBmp(330, 10, 77));
    dir.Write("notes.txt", "ignored");
    Scanner s(Env{{"KR7SIM_SCENARIO", "replay " + dir.path + " 3f as=raw; replay " + dir.path}});
    FTRHANDLE h = s.Open();
    std::vector<Frame> f;
    ASSERT_EQ(Outcomes(s, h, 5, &f).find_first_not_of("ef"), std::string::npos);
    // Raw frames come as they are, centred, with a black border.
    EXPECT_EQ(f[0][0] + f[0][90 * kW + 60], 0);  // corner; first row of the image
    EXPECT_EQ(f[0][389 * kW + 259], 255);        // its last row
    EXPECT_EQ(f[1][239 * kW + 159] * 10 + f[1][240 * kW + 160], 14);
    EXPECT_EQ(f[2][235 * kW + 0], 77);
    EXPECT_EQ(f[2][230 * kW + 0], 0);
    EXPECT_TRUE(s.ftrScanIsFingerPresent(h, nullptr));   // frame 5, the last of the replay
    EXPECT_FALSE(s.ftrScanIsFingerPresent(h, nullptr));  // the script is over
}

// Each step that lasts, given no duration, one a line: the presence checks'
// journal notes give its default length in frames and the name it shows
// (wait as hold, movable as move; lift lasts no frame, a place its press).
TEST(ScannerScenario, StepsWithoutDurationLastTheirDefault) {
    TempDir dir;
    Scanner s(Env{{"KR7SIM_SCENARIO",
                   "empty\nlift\nplace\nhold\nmove\nlift\nwait\nfake\n"
                   "movable\nemptyframe\nroll press=4f\nunplug\n"},
                  {"KR7SIM_JOURNAL", dir.path + "/journal.txt"}});
    FTRHANDLE h = s.Open();
    for (int i = 0; i < 238; ++i)
        s.ftrScanIsFingerPresent(h, nullptr);
    std::string runs, last;  // "<step> line <line>:<frames>" per run of frames
    int count = 0;
    std::istringstream journal(dir.Read("journal.txt"));
    for (std::string line; std::getline(journal, line);) {
        const size_t at = line.find(" step ");
        if (line.find("ftrScanIsFingerPresent") == std::string::npos || at == std::string::npos)
            continue;
        const std::string step = line.substr(at + 6, line.find(']', at) - at - 6);
        if (step != last && count > 0)
            runs += last + ":" + std::to_string(count) + " ";
        count = step == last ? count + 1 : 1;
        last = step;
    }
    runs += last + ":" + std::to_string(count);
    EXPECT_EQ(runs,
              "empty line 1:25 place line 3:8 hold line 4:25 move line 5:13 hold line 7:25 "
              "fake line 8:25 move line 9:13 emptyframe line 10:13 roll line 11:41 "
              "unplug line 12:50");
}

TEST(ScannerDeterminism, SameSeedSameBytesAcrossLoads) {
    auto take = [](const char* seed) {
        Scanner s(Env{{"KR7SIM_SCENARIO", "empty;"}, {"KR7SIM_SEED", seed}});
        std::vector<Frame> frames;
        EXPECT_EQ(Outcomes(s, s.Open(), 3, &frames), "eee");
        return frames;
    };
    const std::vector<Frame> first = take("3");
    EXPECT_TRUE(take("3") == first);
    EXPECT_FALSE(take("4") == first);
    EXPECT_FALSE(first[0] == first[1]);  // fresh noise in every frame
}

}  // namespace
}  // namespace scantest
