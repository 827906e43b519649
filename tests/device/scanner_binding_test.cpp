// The scanner binding loaded the way the plug-in loads it, by the bare
// library name, against the scanner API stand-in: what reaches the device
// (read back from the stand-in's call journal or from the device itself), how
// injected failures come back to the caller, and how the binding copes with
// an API without the extended group, with an incomplete one and with none.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "base/errors.h"
#include "device/device_test_support.h"
#include "device/futronic_base_sdk.h"
#include "device/qv2_api_lib.h"

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using vc::ClFutronicBaseSDK;
using vc::ClQV2APILib;
using vc::DeviceInfo;

constexpr unsigned int kFrameBytes = 320 * 480;  // the stand-in's default frame
constexpr const char* kNotSupported = "22: The QV2-scanner hardware version is not supported";
const std::string kZeroSerial(8, '\0');

bool ApiResident() {
    return kr7test::Resident("libQV2ScanAPI.so");
}

using kr7test::Thrown;

// Each test gives its units and fault rules; no finger on the platen.
class ScannerTest : public kr7test::StandInTest {
protected:
    void Configure(const std::string& units, const std::string& faults) {
        StandInTest::Configure("empty 60s;", units, faults);
    }
};

using Virtual_ScannerLoading = ScannerTest;
using Virtual_ScannerCapture = ScannerTest;
using Virtual_ScannerIdentity = ScannerTest;
using Virtual_ScannerMemory = ScannerTest;
using NoExtended_Scanner = ScannerTest;
using NoBaseEntry_Scanner = ScannerTest;
using NoLibraries_Scanner = ScannerTest;

TEST_F(Virtual_ScannerLoading, OpensReopensClosesAndUnloads) {
    {
        vc::ClQV2APILib api;
        EXPECT_EQ(1, api.m_nExtendedLevel);
        EXPECT_NE(nullptr, api.ftrScanGetVersion);
        api.Initialize();  // loads again, same result
        EXPECT_EQ(1, api.m_nExtendedLevel);
        EXPECT_NE(nullptr, api.ftrScanGetImage2);
    }
    EXPECT_FALSE(ApiResident());

    {
        ClFutronicBaseSDK sdk;
        EXPECT_EQ(nullptr, sdk.Api());
        EXPECT_FALSE(ApiResident());  // nothing is loaded before Initialize
        ASSERT_TRUE(sdk.Initialize());
        EXPECT_TRUE(sdk.HasExtendedAPI());
        ASSERT_TRUE(sdk.SwitchRedLED(true));
        ASSERT_TRUE(sdk.Initialize());  // closes the first session, LEDs off
        ASSERT_TRUE(sdk.Unitialize());
        EXPECT_FALSE(sdk.Unitialize());
        EXPECT_FALSE(sdk.IsOpen());
        EXPECT_FALSE(sdk.StateRedLED());
        EXPECT_THAT(Journal(), ElementsAre("ftrScanOpenDevice(interface 0) -> h1",
                                           "ftrScanSetDiodesStatus(h1, green 0, red 255) -> 1",
                                           "ftrScanSetDiodesStatus(h1, green 0, red 0) -> 1",
                                           "ftrScanSetDiodesStatus(h1, green 0, red 0) -> 1",
                                           "ftrScanCloseDevice(h1) -> 1",
                                           "ftrScanOpenDevice(interface 0) -> h2",
                                           "ftrScanSetDiodesStatus(h2, green 0, red 0) -> 1",
                                           "ftrScanSetDiodesStatus(h2, green 0, red 0) -> 1",
                                           "ftrScanCloseDevice(h2) -> 1"));
    }
    EXPECT_FALSE(ApiResident());
}

// One capture wrapper, the entry it reaches, and the error injected into
// that entry in the failure test.
struct CaptureCase {
    const char* entry;
    unsigned long injected;
    std::function<bool(ClFutronicBaseSDK&, unsigned char*)> capture;
};
const CaptureCase kCaptures[] = {
    {"ftrScanGetFrame", 31,
     [](ClFutronicBaseSDK& s, unsigned char* b) { return s.CaptureFrame(b, kFrameBytes) != 0; }},
    {"ftrScanGetFrame", 31,
     [](ClFutronicBaseSDK& s, unsigned char* b) { return s.CaptureImage(b, 0); }},
    {"ftrScanGetImageByVariableDose", 0x20000001,
     [](ClFutronicBaseSDK& s, unsigned char* b) { return s.GetImageByDose(b, 120); }},
    {"ftrScanGetBacklightImage", 21,
     [](ClFutronicBaseSDK& s, unsigned char* b) { return s.CaptureFuzzyImage(b) != 0; }},
    {"ftrScanGetDarkImage", 4306,
     [](ClFutronicBaseSDK& s, unsigned char* b) { return s.GetDarkImage(b); }},
};

TEST_F(Virtual_ScannerCapture, LEDsAreLitAgainAfterEveryCapture) {
    ClFutronicBaseSDK sdk;
    ASSERT_TRUE(sdk.Initialize());
    ClQV2APILib& api = *sdk.Api();
    const FTRHANDLE probe = api.ftrScanOpenDevice();  // a second look at the same unit
    ASSERT_NE(nullptr, probe);
    std::vector<unsigned char> frame(kFrameBytes);
    for (const CaptureCase& c : kCaptures) {
        SCOPED_TRACE(c.entry);
        std::size_t mark = Journal().size();
        EXPECT_TRUE(c.capture(sdk, frame.data()));
        EXPECT_THAT(Journal(mark), ElementsAre(StartsWith(std::string(c.entry) + "(h1")));

        ASSERT_TRUE(sdk.SwitchRedLED(true));
        mark = Journal().size();
        EXPECT_TRUE(c.capture(sdk, frame.data()));
        EXPECT_THAT(Journal(mark),
                    ElementsAre(StartsWith(std::string(c.entry) + "(h1"),
                                "ftrScanSetDiodesStatus(h1, green 0, red 255) -> 1"));
        FTR_BOOL green = 1, red = 0;
        ASSERT_TRUE(api.ftrScanGetDiodesStatus(probe, &green, &red));
        EXPECT_EQ(0, green);
        EXPECT_EQ(1, red);  // the capture had switched it off
        ASSERT_TRUE(sdk.SwitchRedLED(false));
    }
    // A delivered frame replaces the prefill.
    EXPECT_EQ(1, sdk.CaptureFrame(frame.data(), kFrameBytes));
    EXPECT_NE(std::vector<unsigned char>(kFrameBytes, 100), frame);
}

TEST_F(Virtual_ScannerCapture, AFailedCaptureKeepsItsErrorThroughTheLEDRestore) {
    Configure("",
              "ftrScanGetFrame@1+=31;ftrScanGetImageByVariableDose@1+=0x20000001;"
              "ftrScanGetBacklightImage@1+=21;ftrScanGetDarkImage@1+=4306");
    ClFutronicBaseSDK sdk;
    ASSERT_TRUE(sdk.Initialize());
    ASSERT_TRUE(sdk.SwitchGreenLED(true));
    std::vector<unsigned char> frame(kFrameBytes, 7);
    for (const CaptureCase& c : kCaptures) {
        SCOPED_TRACE(c.entry);
        const std::size_t mark = Journal().size();
        EXPECT_FALSE(c.capture(sdk, frame.data()));
        EXPECT_EQ(c.injected, sdk.GetLastError());
        EXPECT_THAT(Journal(mark), Contains("ftrScanSetDiodesStatus(h1, green 255, red 0) -> 1"));
    }
    // CaptureFrame came first: its prefill stays when no frame arrives.
    EXPECT_EQ(std::vector<unsigned char>(kFrameBytes, 100), frame);
}

TEST_F(Virtual_ScannerIdentity, SerialNumberBlock) {
    ClFutronicBaseSDK sdk;
    ASSERT_TRUE(sdk.Initialize());
    // The device refuses a block without the 0xBA mark or with a wrong sum
    // (error 87); reading back shows the eight characters it stored.
    const struct {
        std::string written, read;
    } cases[] = {
        {"ABCDEFGH", "ABCDEFGH"},
        {"ABCDEFGHIJ", "ABCDEFGH"},
        {"AB", std::string("AB\0\0\0\0\0\0", 8)},
        {"", kZeroSerial},
        {"\xff\xfe\x80zzzzz", "\xff\xfe\x80zzzzz"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.written);
        EXPECT_TRUE(sdk.SetSerialNumber(c.written)) << sdk.GetLastError();
        std::string serial = "previous";
        EXPECT_TRUE(sdk.GetSerialNumber(serial));
        EXPECT_EQ(c.read, serial);
    }
}

TEST_F(Virtual_ScannerIdentity, SerialOfAnotherInterfaceSwitchesThereAndBack) {
    Configure("if=0,serial=FIRST000;if=3,serial=THIRD333", "");
    ClFutronicBaseSDK sdk;
    ASSERT_TRUE(sdk.Initialize());
    std::size_t mark = Journal().size();
    std::string serial;
    ASSERT_TRUE(sdk.GetSerialNumber(3, serial));
    EXPECT_EQ("THIRD333", serial);
    EXPECT_FALSE(sdk.IsOpen());  // forgotten, not closed
    EXPECT_THAT(
        Journal(mark),
        ElementsAre("ftrGetBaseInterfaceNumber() -> 0", "ftrSetBaseInterface(3) -> 1",
                    "ftrScanOpenDevice(interface 3) -> h2",
                    "ftrScanGetSerialNumber(h2) -> 1 [THIRD333]", "ftrSetBaseInterface(0) -> 1"));
    // The base interface again, with no session: one is opened and kept.
    mark = Journal().size();
    ASSERT_TRUE(sdk.GetSerialNumber(0, serial));
    EXPECT_EQ("FIRST000", serial);
    EXPECT_TRUE(sdk.IsOpen());
    EXPECT_THAT(Journal(mark), Contains("ftrScanOpenDevice(interface 0) -> h3"));
}

TEST_F(Virtual_ScannerIdentity, SerialOfAnInterfaceFails) {
    // A failure keeps the session; only a successful read on another
    // interface forgets it.
    const struct {
        const char* faults;
        unsigned long index;
        bool closedBefore;
    } cases[] = {
        {"", 5, false},  // no unit there
        {"ftrScanOpenDevice@2=21", 3, false},
        {"ftrScanGetSerialNumber@1=31", 3, false},
        {"ftrSetBaseInterface@2=31", 3, false},  // cannot switch back
        {"ftrScanGetSerialNumber@1=31", 0, false},
        {"ftrScanOpenDevice@2=21", 0, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.faults) + " on " + std::to_string(c.index));
        Configure("if=0;if=3", c.faults);
        ClFutronicBaseSDK sdk;
        ASSERT_TRUE(sdk.Initialize());
        if (c.closedBefore) {
            ASSERT_TRUE(sdk.Unitialize());
        }
        std::string serial = "kept";
        EXPECT_FALSE(sdk.GetSerialNumber(c.index, serial));
        EXPECT_EQ(!c.closedBefore, sdk.IsOpen());
    }
}

TEST_F(Virtual_ScannerIdentity, ScannerListAndInterfaces) {
    Configure("if=5,serial=FFFF5555;if=0,serial=AAAA0000;if=2,serial=CCCC2222", "");
    ClFutronicBaseSDK sdk;
    DeviceInfo list[4];
    std::memset(list, 0x5A, sizeof(list));
    const auto untouched = [](const DeviceInfo& record) {
        const char* p = reinterpret_cast<const char*>(&record);
        return std::all_of(p, p + sizeof(record), [](char c) { return c == 0x5A; });
    };
    // Asking for the number, too small an array, no array: 17 and no record.
    const struct {
        DeviceInfo* list;
        unsigned long count, after;
    } refused[] = {{list, 0, 3}, {list, 2, 2}, {nullptr, 5, 3}};
    for (const auto& c : refused) {
        unsigned long count = c.count;
        EXPECT_FALSE(sdk.GetScannerList(c.list, count));
        EXPECT_EQ(c.after, count);
        EXPECT_EQ(17u, sdk.GetLastError());
        EXPECT_TRUE(untouched(list[0]));
    }

    unsigned long count = 4;
    ASSERT_TRUE(sdk.GetScannerList(list, count));
    EXPECT_EQ(3u, count);
    const struct {
        const char* serial;
        std::uint32_t index;
    } expected[] = {{"AAAA0000", 0}, {"CCCC2222", 2}, {"FFFF5555", 5}};
    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(std::string(expected[i].serial) + std::string(92, '\0'),
                  std::string(list[i].SerialNumber, 100));
        EXPECT_EQ(std::string(100, '\0'), std::string(list[i].Description, 100));
        EXPECT_EQ(expected[i].index, list[i].Index);
    }
    EXPECT_TRUE(untouched(list[3]));

    unsigned long index = 99;
    ASSERT_TRUE(sdk.GetScanInterface(index));
    EXPECT_EQ(0u, index);
    EXPECT_TRUE(sdk.SetScanInterface(5));
    EXPECT_FALSE(sdk.SetScanInterface(7));
    ASSERT_TRUE(sdk.GetScanInterface(index));
    EXPECT_EQ(5u, index);
}

TEST_F(Virtual_ScannerIdentity, DeviceVersions) {
    const struct {
        const char* units;
        const char* faults;
        bool ok;
        const char* hardware;
        const char* firmware;
    } cases[] = {
        {"", "", true, "3.1.2", "1.7"},
        {"hw=3.1.65535.0,fw=2.0.5.9", "", true, "3.1", "2.0.5.9"},
        {"hw=3.1.2.65535,fw=65535.1.0.65535", "", true, "3.1.2", "65535.1.0"},
        {"", "ftrScanGetVersion@1=31", false, "", "firmware before"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.units);
        Configure(c.units, c.faults);
        ClFutronicBaseSDK sdk;
        ASSERT_TRUE(sdk.Initialize());
        std::string hardware = "hardware before", firmware = "firmware before", third;
        EXPECT_EQ(c.ok, sdk.GetDeviceVersions(hardware, firmware, third));
        EXPECT_EQ(c.hardware, hardware);
        EXPECT_EQ(c.firmware, firmware);
    }
}

TEST_F(Virtual_ScannerMemory, StreamRoundTrip) {
    Configure("extsize=1000", "");
    ClFutronicBaseSDK sdk;
    ASSERT_TRUE(sdk.Initialize());
    int size = 0;
    ASSERT_TRUE(sdk.GetEPROMSize(&size));
    EXPECT_EQ(1000, size);
    const std::string text = "calibration block, written in two parts";
    ASSERT_TRUE(sdk.WriteRaw(text.data(), 11));
    ASSERT_TRUE(sdk.WriteRaw(text.data() + 11, static_cast<unsigned>(text.size() - 11)));
    std::string back(text.size(), '\0');
    ASSERT_TRUE(sdk.ReadRaw(&back[0], 20));
    ASSERT_TRUE(sdk.ReadRaw(&back[20], static_cast<unsigned>(text.size() - 20)));
    EXPECT_EQ(text, back);
    sdk.ResetStream();
    ASSERT_TRUE(sdk.ReadRaw(&back[0], 4));
    EXPECT_THAT(CallsWith("ftrScanRestoreExtMemory("),
                ElementsAre(HasSubstr("offset 0, count 20"), HasSubstr("offset 20, count 19"),
                            HasSubstr("offset 0, count 4")));
    // Reading past the end is refused by the device (87): a system error.
    EXPECT_EQ("system error", Thrown([&] { sdk.ReadRaw(&back[0], 1000); }));
}

TEST_F(Virtual_ScannerMemory, AFailedTransferThrowsAndDoesNotAdvance) {
    const struct {
        const char* entry;
        const char* code;
        const char* thrown;
    } cases[] = {
        {"ftrScanRestoreExtMemory", "8", kNotSupported},
        {"ftrScanRestoreExtMemory", "31", "system error"},
        {"ftrScanSaveExtMemory", "8", kNotSupported},
        {"ftrScanSaveExtMemory", "0x20000004", "system error"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.entry) + " " + c.code);
        Configure("", std::string(c.entry) + "@2=" + c.code);
        const bool write = std::string(c.entry) == "ftrScanSaveExtMemory";
        ClFutronicBaseSDK sdk;
        ASSERT_TRUE(sdk.Initialize());
        char data[16] = {};
        const auto transfer = [&] {
            return write ? sdk.WriteRaw(data, sizeof(data)) : sdk.ReadRaw(data, sizeof(data));
        };
        EXPECT_TRUE(transfer());
        EXPECT_EQ(c.thrown, Thrown(transfer));
        EXPECT_TRUE(transfer());
        EXPECT_THAT(CallsWith(std::string(c.entry) + "("),
                    ElementsAre(HasSubstr("offset 0, count 16) -> 1"),
                                HasSubstr("offset 16, count 16) -> 0 error"),
                                HasSubstr("offset 16, count 16) -> 1")));
    }
}

// The wrappers' failures reach the host as the rows of its device-fault
// table show. The long image where the unit has one: option 4 set, the
// larger frame.
TEST_F(Virtual_ScannerCapture, LongImageWhereTheUnitHasOne) {
    Configure("long=400x600", "");
    ClFutronicBaseSDK sdk;
    ASSERT_TRUE(sdk.Initialize());
    ASSERT_TRUE(sdk.SetLongImage());
    FTRSCAN_IMAGE_SIZE size;
    ASSERT_TRUE(sdk.GetImageSize(&size));
    EXPECT_EQ(400 * 600, size.nImageSize);
    EXPECT_THAT(Journal(), Contains("ftrScanSetOptions(h1, mask 4, flags 4) -> 1"));
}

TEST_F(NoExtended_Scanner, BaseGroupOnly) {
    Configure("2", "");
    ClFutronicBaseSDK sdk;
    ASSERT_TRUE(sdk.Initialize());
    ASSERT_NE(nullptr, sdk.Api());
    const ClQV2APILib& api = *sdk.Api();
    EXPECT_EQ(0, api.m_nExtendedLevel);
    EXPECT_FALSE(sdk.HasExtendedAPI());
    EXPECT_NE(nullptr, api.ftrScanGetImage2);
    EXPECT_EQ(nullptr, api.ftrScanGetExtMemorySize);
    EXPECT_EQ(nullptr, api.ftrScanGetVersion);

    std::string serial = "previous";
    EXPECT_TRUE(sdk.GetSerialNumber(serial));
    EXPECT_EQ(kZeroSerial, serial);
    serial = "previous";
    EXPECT_TRUE(sdk.GetSerialNumber(1, serial));
    EXPECT_EQ(kZeroSerial, serial);
    std::string hardware = "hw", firmware = "fw", third;
    EXPECT_FALSE(sdk.GetDeviceVersions(hardware, firmware, third));
    EXPECT_EQ("", hardware);
    EXPECT_EQ("fw", firmware);
    char data[4] = {};
    int size = 0;
    EXPECT_EQ(kNotSupported, Thrown([&] { sdk.GetEPROMSize(&size); }));
    EXPECT_EQ(kNotSupported, Thrown([&] { sdk.ReadRaw(data, 4); }));
    EXPECT_EQ(kNotSupported, Thrown([&] { sdk.WriteRaw(data, 4); }));
    EXPECT_TRUE(sdk.LoggingEnable(7, "scan.log"));

    DeviceInfo list[2];
    unsigned long count = 2;
    ASSERT_TRUE(sdk.GetScannerList(list, count));
    EXPECT_EQ(1u, list[1].Index);
    EXPECT_STREQ("", list[1].SerialNumber);
}

TEST_F(NoBaseEntry_Scanner, AnIncompleteBaseGroupIsRefused) {
    const std::string thrown = Thrown([] { vc::ClQV2APILib api; });
    EXPECT_THAT(thrown, StartsWith("-202: "));
    EXPECT_THAT(thrown, HasSubstr("ftrScanGetImage2"));
    EXPECT_FALSE(ApiResident());

    ClFutronicBaseSDK sdk;
    EXPECT_EQ(thrown, Thrown([&] { sdk.Initialize(); }));
    EXPECT_EQ(nullptr, sdk.Api());
    EXPECT_FALSE(ApiResident());
    EXPECT_EQ(thrown, Thrown([&] { sdk.Initialize(); }));  // tried again, same answer
}

TEST_F(NoLibraries_Scanner, AMissingLibraryIsReported) {
    const std::string thrown = Thrown([] { vc::ClQV2APILib api; });
    EXPECT_THAT(thrown, StartsWith("-201: "));
    EXPECT_THAT(thrown, HasSubstr("libQV2ScanAPI.so"));
    ClFutronicBaseSDK sdk;
    EXPECT_EQ(thrown, Thrown([&] { sdk.Initialize(); }));
    unsigned long count = 0;
    EXPECT_EQ(thrown, Thrown([&] { sdk.GetScannerList(nullptr, count); }));
}

// Before the API is loaded (or after it failed to load) the wrappers answer
// without it.
TEST(ScannerWithoutApi, WrappersAnswerWithoutTheApi) {
    ClFutronicBaseSDK sdk;
    std::vector<unsigned char> frame(16, 7);
    EXPECT_EQ(0, sdk.CaptureFrame(frame.data(), 16));
    EXPECT_EQ(std::vector<unsigned char>(16, 100), frame);
    EXPECT_FALSE(sdk.CaptureImage(frame.data(), 0));
    EXPECT_FALSE(sdk.SwitchRedLED(true));
    EXPECT_FALSE(sdk.RestoreLEDsState());
    std::string serial = "kept", hardware = "hw", firmware = "fw";
    EXPECT_FALSE(sdk.GetSerialNumber(serial));
    EXPECT_FALSE(sdk.GetSerialNumber(0, serial));
    EXPECT_EQ("kept", serial);
    EXPECT_FALSE(sdk.GetDeviceVersions(hardware, firmware, serial));
    EXPECT_EQ("fw", firmware);
    EXPECT_EQ(0u, sdk.GetLastError());
    sdk.SetLastError(17);
    EXPECT_FALSE(sdk.Unitialize());
    int eprom = 0;
    EXPECT_EQ(kNotSupported, Thrown([&] { sdk.GetEPROMSize(&eprom); }));
    EXPECT_EQ(kNotSupported, Thrown([&] { sdk.ReadRaw(frame.data(), 7); }));
}

}  // namespace
