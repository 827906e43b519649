// Scanner API stand-in: entry points, identity, memories, errors, faults.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "calibration/calibration_header.h"
#include "common/optics.h"
#include "scanner_test_lib.h"

namespace {

using scantest::Env;
using scantest::Frame;
using scantest::Scanner;

const Env kQuiet = {{"KR7SIM_SCENARIO", "empty;"}};

TEST(ScannerExports, VariantsExportTheirGroups) {
    const char* extended[] = {"ftrScanGetExtMemorySize", "ftrScanSaveExtMemory",
                              "ftrScanRestoreExtMemory", "ftrScanGetSerialNumber",
                              "ftrScanGetVersion"};
    Scanner full;
    ASSERT_NE(full.lib, nullptr);
#define KR7_PRESENT(name) EXPECT_NE(full.name, nullptr) << #name;
    KR7_SCAN_ENTRIES(KR7_PRESENT)
#undef KR7_PRESENT
    // Nothing but the entry points leaves the library.
    EXPECT_EQ(
        dlsym(full.lib, "_ZN6kr7sim10ScanEngine6RenderEPKNS_10ImpressionERKNS_12FrameRequestEPh"),
        nullptr);
    {
        Scanner base(kQuiet, KR7_SCANNER_NOEXT_PATH);
        ASSERT_NE(base.lib, nullptr);
        for (const char* name : extended)
            EXPECT_EQ(dlsym(base.lib, name), nullptr) << name;
        ASSERT_NE(base.ftrScanGetImage2, nullptr);
        FTRHANDLE h = base.Open();
        Frame frame;
        EXPECT_EQ(base.Grab(h, frame), 0u);
        EXPECT_TRUE(base.ftrScanCloseDevice(h));
    }
    Scanner broken(kQuiet, KR7_SCANNER_NOGETIMAGE2_PATH);
    ASSERT_NE(broken.lib, nullptr);
    EXPECT_EQ(broken.ftrScanGetImage2, nullptr);
    EXPECT_NE(broken.ftrScanGetImageByVariableDose, nullptr);
    for (const char* name : extended)
        EXPECT_NE(dlsym(broken.lib, name), nullptr) << name;
}

TEST(ScannerUnit, IdentityOptionsLedsAndMemoriesPersist) {
    Scanner s(kQuiet);
    FTRHANDLE h = s.Open();
    const FTRSCAN_IMAGE_SIZE size = s.Size(h);
    EXPECT_EQ(size.nWidth, 320);
    EXPECT_EQ(size.nHeight, 480);
    EXPECT_EQ(size.nImageSize, 320 * 480);

    char serial[8];
    ASSERT_TRUE(s.ftrScanGetSerialNumber(h, serial));
    EXPECT_EQ(std::string(serial, 3), "KR7");
    FTRSCAN_VERSION_INFO info{};
    info.dwVersionInfoSize = 20;
    EXPECT_FALSE(s.ftrScanGetVersion(h, &info));  // would be written past
    EXPECT_EQ(s.ftrScanGetLastError(), FTR_ERROR_INVALID_PARAMETER);
    info.dwVersionInfoSize = sizeof info;
    ASSERT_TRUE(s.ftrScanGetVersion(h, &info));
    EXPECT_EQ(info.HardwareVersion.wMajorVersionHi, 3);
    EXPECT_EQ(info.FirmwareVersion.wMinorVersionHi, 65535);

    // Options: known bits stick, unknown bits are refused, the default unit
    // has the same frame with the long image.
    uint32_t flags = 0;
    EXPECT_TRUE(s.ftrScanSetOptions(h, 0x45, 0x05));
    ASSERT_TRUE(s.ftrScanGetOptions(h, &flags));
    EXPECT_EQ(flags, 0x05u);
    EXPECT_FALSE(s.ftrScanSetOptions(h, 0x100, 0x100));
    EXPECT_EQ(s.ftrScanGetLastError(), FTR_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(s.Size(h).nWidth, 320);

    // LEDs; a capture switches them off.
    FTR_BOOL green = 0, red = 0;
    ASSERT_TRUE(s.ftrScanSetDiodesStatus(h, 255, 0));
    ASSERT_TRUE(s.ftrScanGetDiodesStatus(h, &green, &red));
    EXPECT_TRUE(green);
    EXPECT_FALSE(red);
    EXPECT_FALSE(s.ftrScanGetDiodesStatus(h, nullptr, &red));
    Frame frame;
    ASSERT_EQ(s.Grab(h, frame), 0u);
    ASSERT_TRUE(s.ftrScanGetDiodesStatus(h, &green, &red));
    EXPECT_FALSE(green);

    // Control bytes, serial number and extended memory survive a reopen.
    unsigned char seven[7] = {1, 2, 3, 4, 5, 6, 7}, back[7] = {};
    ASSERT_TRUE(s.ftrScanSave7Bytes(h, seven));
    unsigned char block[10] = {0xBA, 'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H', 0x24};
    ASSERT_TRUE(s.ftrScanSaveSerialNumber(h, block));
    block[9] = 0x25;
    EXPECT_FALSE(s.ftrScanSaveSerialNumber(h, block));
    EXPECT_EQ(s.ftrScanGetLastError(), FTR_ERROR_INVALID_PARAMETER);
    block[0] = 0xBB;
    block[9] = 0x24;
    EXPECT_FALSE(s.ftrScanSaveSerialNumber(h, block));
    int ext = 0;
    ASSERT_TRUE(s.ftrScanGetExtMemorySize(h, &ext));
    EXPECT_GE(ext, 1024);
    char data[4] = {'d', 'a', 't', 'a'}, read[4] = {};
    ASSERT_TRUE(s.ftrScanSaveExtMemory(h, data, ext - 4, 4));
    EXPECT_FALSE(s.ftrScanSaveExtMemory(h, data, ext - 3, 4));
    EXPECT_FALSE(s.ftrScanRestoreExtMemory(h, read, -1, 4));
    EXPECT_FALSE(s.ftrScanRestoreExtMemory(h, nullptr, 0, 4));
    EXPECT_EQ(s.ftrScanGetLastError(), FTR_ERROR_INVALID_PARAMETER);
    ASSERT_TRUE(s.ftrScanCloseDevice(h));
    EXPECT_FALSE(s.ftrScanCloseDevice(h));  // a closed handle is unknown
    EXPECT_FALSE(s.ftrScanGetFrame(h, frame.data(), nullptr));
    EXPECT_EQ(s.ftrScanGetLastError(), FTR_ERROR_INVALID_PARAMETER);

    h = s.Open();
    ASSERT_TRUE(s.ftrScanRestore7ControlBytes(h, back));
    EXPECT_EQ(std::memcmp(back, seven, 7), 0);
    ASSERT_TRUE(s.ftrScanGetSerialNumber(h, serial));
    EXPECT_EQ(std::string(serial, 8), "ABCDEFGH");
    ASSERT_TRUE(s.ftrScanRestoreExtMemory(h, read, ext - 4, 4));
    EXPECT_EQ(std::memcmp(read, data, 4), 0);
    EXPECT_FALSE(s.ftrScanGetFrame(nullptr, frame.data(), nullptr));
    EXPECT_FALSE(s.ftrScanGetImageByVariableDose(h, -1, frame.data()));
    EXPECT_FALSE(s.ftrScanGetImage(h, 60, nullptr));
}

// The block the plug-in reads from the extended memory, as its own stream.
struct MemoryStream : Nvk::CXStream {
    explicit MemoryStream(std::vector<uint8_t> b) : bytes(std::move(b)) {}
    bool WriteRaw(const void*, unsigned int) override { return false; }
    bool ReadRaw(void* data, unsigned int size) override {
        if (size > bytes.size())
            return false;
        std::memcpy(data, bytes.data(), size);
        return true;
    }
    std::vector<uint8_t> bytes;
};

TEST(ScannerUnit, ExtendedMemoryHoldsTheCalibrationOfTheLongImage) {
    Scanner s(Env{{"KR7SIM_SCENARIO", "empty;"},
                  {"KR7SIM_UNITS", "if=0;if=1,long=640x480;if=2,calibration=no"}});
    for (int unit = 0; unit < 3; ++unit) {
        SCOPED_TRACE(unit);
        ASSERT_TRUE(s.ftrSetBaseInterface(unit));
        FTRHANDLE h = s.Open();
        MemoryStream stream(s.ExtMemory(h));
        Nvk::ClQV2CalibrationHeader header;
        unsigned char* payload = nullptr;
        unsigned int size = 0;
        if (unit == 2) {
            EXPECT_ANY_THROW(
                header.ReadFromStream(&stream, unsigned(stream.bytes.size()), &payload, size));
            continue;
        }
        header.ReadFromStream(&stream, unsigned(stream.bytes.size()), &payload, size);
        EXPECT_EQ(header.GetHeaderVersion(), "1");
        EXPECT_EQ(header.RevisionString().size(), 16u);
        EXPECT_FALSE(header.Description().empty());
        kr7sim::Optics optics;
        ASSERT_TRUE(kr7sim::Parse(payload, size, optics));
        ASSERT_TRUE(
            s.ftrScanSetOptions(h, FTR_OPTIONS_RECEIVE_LONG_IMAGE, FTR_OPTIONS_RECEIVE_LONG_IMAGE));
        EXPECT_EQ(optics.width, s.Size(h).nWidth);
        EXPECT_EQ(optics.height, s.Size(h).nHeight);
    }
    EXPECT_EQ(s.ftrGetBaseInterfaceNumber(), 2);
}

TEST(ScannerUnit, InterfacesSelectUnits) {
    Scanner s(Env{{"KR7SIM_SCENARIO", "empty;"},
                  {"KR7SIM_UNITS", "if=3,size=640x480,long=none,serial=QWERTYUI;if=1"}});
    FTRSCAN_INTERFACES_LIST list;
    ASSERT_TRUE(s.ftrScanGetInterfaces(&list));
    for (int i = 0; i < FTR_MAX_INTERFACE_NUMBER; ++i)
        EXPECT_EQ(list.InterfaceStatus[i], i == 1 || i == 3 ? 0 : 1) << i;
    EXPECT_EQ(s.ftrGetBaseInterfaceNumber(), 1);  // the lowest configured interface
    EXPECT_FALSE(s.ftrSetBaseInterface(5));
    EXPECT_EQ(s.ftrScanGetLastError(), FTR_ERROR_NO_MORE_ITEMS);
    EXPECT_FALSE(s.ftrSetBaseInterface(-1));
    ASSERT_TRUE(s.ftrSetBaseInterface(3));
    FTRHANDLE h = s.Open();
    char serial[8];
    ASSERT_TRUE(s.ftrScanGetSerialNumber(h, serial));
    EXPECT_EQ(std::string(serial, 8), "QWERTYUI");
    EXPECT_EQ(s.Size(h).nWidth, 640);
    EXPECT_FALSE(s.ftrScanSetOptions(h, 4, 4));
    EXPECT_EQ(s.ftrScanGetLastError(), FTR_ERROR_HARDWARE_INCOMPATIBLE);
}

TEST(ScannerErrors, LastErrorIsPerThread) {
    Scanner s(kQuiet);
    s.ftrScanSetLastError(1460);
    uint32_t other = 1;
    std::thread([&] { other = s.ftrScanGetLastError(); }).join();
    EXPECT_EQ(other, 0u);
    EXPECT_EQ(s.ftrScanGetLastError(), 1460u);
    FTRHANDLE h = s.Open();
    EXPECT_EQ(s.ftrScanGetLastError(), 0u);  // success clears it

    // Capture thread and host thread at once on one handle.
    std::thread capture([&] {
        Frame frame;
        for (int i = 0; i < 6; ++i)
            EXPECT_EQ(s.Grab(h, frame), 0u);
    });
    for (int i = 0; i < 20; ++i)
        EXPECT_TRUE(s.ftrScanSetDiodesStatus(h, uint8_t(i % 2 ? 255 : 0), 0));
    capture.join();
}

TEST(ScannerFaults, InjectedFailuresHitTheChosenCalls) {
    scantest::TempDir dir;
    const std::string journal = dir.path + "/journal.txt";
    Scanner s(
        Env{{"KR7SIM_SCENARIO", "empty;"},
            {"KR7SIM_JOURNAL", journal},
            {"KR7SIM_FAULTS",
             "ftrScanGetFrame@2=31; ftrScanOpenDevice@3+=21, ftrScanGetImageSize@2-3=0x20000004;"
             "ftrScanGetLastError@4=8;ftrScanSetLastError@1=120;ftrGetBaseInterfaceNumber@1=50"}});
    FTRHANDLE h = s.Open();
    Frame frame(320 * 480);
    std::vector<uint32_t> frames;
    for (int i = 0; i < 3; ++i)
        frames.push_back(s.ftrScanGetFrame(h, frame.data(), nullptr) ? 0 : s.ftrScanGetLastError());
    EXPECT_EQ(frames, (std::vector<uint32_t>{0, 31, 0}));
    FTRSCAN_IMAGE_SIZE size;
    std::vector<bool> sizes;
    for (int i = 0; i < 4; ++i)
        sizes.push_back(s.ftrScanGetImageSize(h, &size));
    EXPECT_EQ(sizes, (std::vector<bool>{false, false, true, true}));  // Open() made call 1
    EXPECT_EQ(s.ftrScanGetLastError(), 0u);
    EXPECT_FALSE(s.ftrScanGetImageSize(h, nullptr));
    EXPECT_EQ(s.ftrScanGetLastError(), FTR_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(s.ftrScanGetLastError(), FTR_ERROR_NOT_ENOUGH_MEMORY);  // 4th call injected
    s.ftrScanSetLastError(7);
    EXPECT_EQ(s.ftrScanGetLastError(), FTR_ERROR_CALL_NOT_IMPLEMENTED);
    EXPECT_EQ(s.ftrGetBaseInterfaceNumber(), -1);
    EXPECT_NE(s.ftrScanOpenDevice(), nullptr);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(s.ftrScanOpenDevice(), nullptr);
        EXPECT_EQ(s.ftrScanGetLastError(), FTR_ERROR_NOT_READY);
    }
    const std::string text = scantest::ReadText(journal);
    EXPECT_NE(text.find("ftrScanGetFrame(h1, buffer) -> 0 error 31 (injected)"), std::string::npos)
        << text;
    EXPECT_NE(text.find("ftrScanOpenDevice(interface 0) -> h1"), std::string::npos);
    EXPECT_NE(text.find("ftrScanGetImageSize(h1) -> 0 error 0x20000004 (injected)"),
              std::string::npos);
}

TEST(ScannerErrors, BadConfigurationNamesTheProblemAndRefusesToOpen) {
    scantest::TempDir dir;
    const std::string file = dir.Write("bad.txt", "# demo\nempty 1s\nplace 2s skin=oily\n");
    std::system(("mkdir -p " + dir.path + "/frames && printf 'P5\\n4 4\\n255\\nxx' > " + dir.path +
                 "/frames/a.pgm")
                    .c_str());
    const struct {
        Env env;
        std::string message;
    } cases[] = {
        {{{"KR7SIM_SCENARIO", file}}, file + ":3: bad value 'oily' for option 'skin'"},
        {{{"KR7SIM_SCENARIO", "empty 1s;\nhold 3parsecs"}}, "KR7SIM_SCENARIO:2: bad duration"},
        {{{"KR7SIM_SCENARIO", "repeat;empty"}}, "KR7SIM_SCENARIO:1: 'repeat' must be the last"},
        {{{"KR7SIM_SCENARIO", "jump 2s;"}}, "KR7SIM_SCENARIO:1: unknown step 'jump'"},
        {{{"KR7SIM_SCENARIO", "roll 2s;"}}, "unexpected '2s' after 'roll'"},
        {{{"KR7SIM_SCENARIO", "empty;replay " + dir.path + "/frames"}}, "truncated PGM"},
        {{{"KR7SIM_SCENARIO", "empty;replay " + dir.path + "/none"}}, "cannot open folder"},
        {{{"KR7SIM_SCENARIO", dir.path + "/missing.txt"}}, "cannot open the scenario"},
        {{{"KR7SIM_FAULTS", "ftrScanGetFrame@0=31"}}, "bad call number"},
        {{{"KR7SIM_FAULTS", "ftrScanFly@1=31"}}, "unknown entry point 'ftrScanFly'"},
        {{{"KR7SIM_UNITS", "if=0;if=0"}}, "two units on interface 0"},
        {{{"KR7SIM_UNITS", "size=10x10"}}, "bad setting 'size=10x10'"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        Scanner s(c.env);
        FTRHANDLE h = reinterpret_cast<FTRHANDLE>(1);
        const std::string err = scantest::CaptureStderr([&] { h = s.ftrScanOpenDevice(); });
        EXPECT_EQ(h, nullptr);
        EXPECT_EQ(s.ftrScanGetLastError(), FTR_ERROR_INVALID_PARAMETER);
        EXPECT_NE(err.find(c.message), std::string::npos) << err;
        FTRSCAN_INTERFACES_LIST list;
        ASSERT_TRUE(s.ftrScanGetInterfaces(&list));
        EXPECT_EQ(list.InterfaceStatus[0], 1);
    }
}

}  // namespace
