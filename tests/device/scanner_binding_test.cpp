// The scanner binding loaded the way the plug-in loads it, by the bare
// library name, against the scanner API stand-in: what reaches the device
// (read back from the stand-in's call journal or from the device itself) and
// how the binding copes with an API without the extended group and with an
// incomplete one. What the host sees of the binding's failures is the
// host-level suites' (device-fault table, missing libraries, scanner list).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

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

using kr7test::Resident;
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

TEST_F(Virtual_ScannerLoading, OpensReopensClosesAndUnloads) {
    {
        ClFutronicBaseSDK sdk;
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
    EXPECT_FALSE(Resident("libQV2ScanAPI.so"));
}

// The plug-in takes frames by dose, or through ftrScanGetFrame while
// fake-finger detection is on. The LEDs after frames by dose are the SDK's
// LED test and the host's lit-live fault rows; here the other way.
TEST_F(Virtual_ScannerCapture, LEDsAreLitAgainAfterEveryCapture) {
    ClFutronicBaseSDK sdk;
    ASSERT_TRUE(sdk.Initialize());
    ClQV2APILib& api = *sdk.Api();
    const FTRHANDLE probe = api.ftrScanOpenDevice();  // a second look at the same unit
    ASSERT_NE(nullptr, probe);
    std::vector<unsigned char> frame(kFrameBytes);
    std::size_t mark = Journal().size();
    EXPECT_TRUE(sdk.CaptureImage(frame.data(), 0));
    EXPECT_THAT(Journal(mark), ElementsAre(StartsWith("ftrScanGetFrame(h1")));

    ASSERT_TRUE(sdk.SwitchRedLED(true));
    mark = Journal().size();
    EXPECT_TRUE(sdk.CaptureImage(frame.data(), 0));
    EXPECT_THAT(Journal(mark), ElementsAre(StartsWith("ftrScanGetFrame(h1"),
                                           "ftrScanSetDiodesStatus(h1, green 0, red 255) -> 1"));
    FTR_BOOL green = 1, red = 0;
    ASSERT_TRUE(api.ftrScanGetDiodesStatus(probe, &green, &red));
    EXPECT_EQ(0, green);
    EXPECT_EQ(1, red);  // the capture had switched it off
}

TEST_F(Virtual_ScannerCapture, AFailedCaptureKeepsItsErrorThroughTheLEDRestore) {
    Configure("", "ftrScanGetFrame@1+=31");
    ClFutronicBaseSDK sdk;
    ASSERT_TRUE(sdk.Initialize());
    ASSERT_TRUE(sdk.SwitchGreenLED(true));
    std::vector<unsigned char> frame(kFrameBytes);
    const std::size_t mark = Journal().size();
    EXPECT_FALSE(sdk.CaptureImage(frame.data(), 0));
    EXPECT_EQ(31u, sdk.GetLastError());
    EXPECT_THAT(Journal(mark), Contains("ftrScanSetDiodesStatus(h1, green 255, red 0) -> 1"));
}

// The serial number of an interface: a successful read on another
// interface forgets the session (the scanner API keeps that handle), a
// failure keeps it.
TEST_F(Virtual_ScannerIdentity, SerialOfAnInterface) {
    const struct {
        const char* faults;
        unsigned long index;
        bool closedBefore, read;
    } cases[] = {
        {"", 3, false, true},
        {"", 5, false, false},  // no unit there
        {"ftrScanGetSerialNumber@1=31", 3, false, false},
        {"ftrSetBaseInterface@2=31", 3, false, false},  // cannot switch back
        {"ftrScanGetSerialNumber@1=31", 0, false, false},
        {"ftrScanOpenDevice@2=21", 0, true, false},
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
        EXPECT_EQ(c.read, sdk.GetSerialNumber(c.index, serial));
        EXPECT_EQ(!c.closedBefore && !c.read, sdk.IsOpen());
    }
}

TEST_F(Virtual_ScannerIdentity, ScannerList) {
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
}

// A version stops at its first unknown (65535) minor part; the default
// unit's versions and a failed read are the host's.
TEST_F(Virtual_ScannerIdentity, DeviceVersions) {
    const struct {
        const char* units;
        const char* hardware;
        const char* firmware;
    } cases[] = {
        {"hw=3.1.65535.0,fw=2.0.5.9", "3.1", "2.0.5.9"},
        {"hw=3.1.2.65535,fw=65535.1.0.65535", "3.1.2", "65535.1.0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.units);
        Configure(c.units, "");
        ClFutronicBaseSDK sdk;
        ASSERT_TRUE(sdk.Initialize());
        std::string hardware = "hardware before", firmware = "firmware before", third;
        EXPECT_TRUE(sdk.GetDeviceVersions(hardware, firmware, third));
        EXPECT_EQ(c.hardware, hardware);
        EXPECT_EQ(c.firmware, firmware);
    }
}

// The extended memory as a stream: each read and write goes on where the
// last one ended, and ResetStream (or a new session) starts over.
TEST_F(Virtual_ScannerMemory, StreamRoundTrip) {
    ClFutronicBaseSDK sdk;
    ASSERT_TRUE(sdk.Initialize());
    const std::string text = "calibration block, written in two parts";
    ASSERT_TRUE(sdk.WriteRaw(text.data(), 11));
    ASSERT_TRUE(sdk.WriteRaw(text.data() + 11, static_cast<unsigned>(text.size() - 11)));
    const std::size_t mark = Journal().size();
    std::string back(text.size(), '\0');
    ASSERT_TRUE(sdk.ReadRaw(&back[0], 20));
    ASSERT_TRUE(sdk.ReadRaw(&back[20], static_cast<unsigned>(text.size() - 20)));
    EXPECT_EQ(text, back);
    sdk.ResetStream();
    ASSERT_TRUE(sdk.ReadRaw(&back[0], 4));
    EXPECT_THAT(Journal(mark),
                ElementsAre(HasSubstr("offset 0, count 20"), HasSubstr("offset 20, count 19"),
                            HasSubstr("offset 0, count 4")));
}

// The long image where the unit has one: option 4 set, the larger frame.
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

// Without the extended group the plug-in refuses to open the scanner (the
// host's missing-library case), but lists the scanners, without serial
// numbers.
TEST_F(NoExtended_Scanner, TheListHasNoSerialNumbers) {
    Configure("2", "");
    ClFutronicBaseSDK sdk;
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
    EXPECT_FALSE(Resident("libQV2ScanAPI.so"));
}

}  // namespace
