// The device SDK with its real parts, the scanner API and the calibration
// library found by their bare names: captures on scripted scenarios, the
// scanner's initialisation, properties, scanner selection and information,
// contamination, calibration errors, frame preparation, settings, and host
// calls racing a capture that loses its scanner.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "base/errors.h"
#include "calibration/calibration_header.h"
#include "device/calibration_binding.h"
#include "device/device_lock.h"
#include "device/device_test_support.h"
#include "device/norvak_kr7_sdk.h"
#include "device/settings.h"
#include "support/eventually.h"

namespace {

using kr7test::Eventually;
using kr7test::Lines;
using kr7test::Thrown;
using Nvk::utilities::ClSimpleBitmap;
using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Not;
using ::testing::StartsWith;
using vc::ClNorvakKR7SDK;

constexpr const char* kInitFailed = "QV2 scanner. The scanner couldn't be initialized.";
// A wait for frames that a sanitizer build on a busy machine still meets.
constexpr std::chrono::seconds kFrameLimit(60);

std::string LastError(const ClNorvakKR7SDK& sdk) {
    unsigned long code = 0;
    std::string text;
    sdk.GetLastFGError(code, text);
    return std::to_string(code) + ": " + text;
}

// A delivered image: size, mean, means of the first and the last quarter of
// its rows, and the detection result (-1 for a plain image).
struct Shot {
    long width, height;
    double mean, top, bottom;
    int result;
};

Shot Measure(const unsigned char* block, int result) {
    const auto* header = reinterpret_cast<const tagBITMAPINFOHEADER*>(block);
    const long width = header->biWidth, height = header->biHeight;
    const auto mean = [&](long y0, long y1) {
        double sum = 0;
        for (long y = y0; y < y1; ++y) {
            const unsigned char* row = ClSimpleBitmap::Pixel(header) + y * ((width + 3) & ~3L);
            sum = std::accumulate(row, row + width, sum);
        }
        return sum / double((y1 - y0) * width);
    };
    return {width, height, mean(0, height), mean(0, height / 4), mean(height - height / 4, height),
            result};
}

// The host: records its callbacks. A device event reads "handle channel
// kind type thread", the thread being "host" (the test's) or "worker".
class Host {
public:
    void Start(ClNorvakKR7SDK& sdk, vc::eCaptureModeIDs mode) {
        const auto text = [](int, unsigned int, const char* text, void* u) {
            static_cast<Host*>(u)->Add(&Host::m_Errors, std::string(text));
        };
        sdk.StartCapture(
            5, 1, mode,
            [](int, unsigned int, unsigned char* image, void* u) {
                static_cast<Host*>(u)->Add(&Host::m_Images, Measure(image, -1));
            },
            [](int, unsigned int, int result, unsigned char* image, void* u) {
                static_cast<Host*>(u)->Add(&Host::m_Results, Measure(image, result));
            },
            text, text, this);
    }
    static void OnEvent(int handle, unsigned int channel, vc::eFGs kind, unsigned int type,
                        void* user) {
        Host& host = *static_cast<Host*>(user);
        const bool own = std::this_thread::get_id() == host.m_Thread;
        host.Add(&Host::m_Events, std::to_string(handle) + " " + std::to_string(channel) + " " +
                                      std::to_string(kind) + " " + std::to_string(type) +
                                      (own ? " host" : " worker"));
    }

    std::vector<Shot> Images() const { return Get(&Host::m_Images); }
    std::vector<Shot> Results() const { return Get(&Host::m_Results); }
    Lines Errors() const { return Get(&Host::m_Errors); }
    Lines Events() const { return Get(&Host::m_Events); }
    bool WaitImages(std::size_t n) const {
        return Eventually([&] { return Images().size() >= n; }, kFrameLimit);
    }

private:
    template <class T>
    void Add(std::vector<T> Host::*list, T item) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        (this->*list).push_back(std::move(item));
    }
    template <class T>
    std::vector<T> Get(std::vector<T> Host::*list) const {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return this->*list;
    }

    const std::thread::id m_Thread = std::this_thread::get_id();
    mutable std::mutex m_Mutex;
    std::vector<Shot> m_Images, m_Results;
    Lines m_Errors, m_Events;
};

using SdkTest = kr7test::StandInTest;
using Virtual_SdkCapture = SdkTest;
using Virtual_SdkDevice = SdkTest;
using Virtual_SdkConcurrency = SdkTest;
using SdkWithoutDevice = SdkTest;

TEST_F(Virtual_SdkCapture, FramesAreUprightCalibratedAndBrightAndFingersGiveResults) {
    // Empty platens around a platen image whose upper half is black, then a
    // finger placed and lifted.
    std::filesystem::create_directory(m_dir + "/replay");
    std::ofstream(m_dir + "/replay/top.pgm", std::ios::binary)
        << "P5\n320 480\n255\n"
        << std::string(320 * 240, '\0') << std::string(320 * 240, '\xff');
    for (const vc::eCaptureModeIDs mode : {vc::eCaptureLive, vc::eCapturePlainFinger}) {
        SCOPED_TRACE(mode);
        Configure("empty 0.4s; replay " + m_dir +
                  "/replay 0.4s; empty 0.4s; place 0.3s; hold 1s; lift; empty 60s");
        Host host;
        ClNorvakKR7SDK sdk(nullptr);
        host.Start(sdk, mode);
        ASSERT_TRUE(Eventually(
            [&] {  // until the finger has gone
                const std::vector<Shot> images = host.Images();
                return images.size() >= 90 && images.back().mean > 240;
            },
            kFrameLimit));
        sdk.StopCapture(1);
        EXPECT_THAT(host.Errors(), ElementsAre());
        const std::vector<Shot> images = host.Images();
        int darkTop = 0;
        for (const Shot& shot : images) {
            // The calibration crops the unit's margins off the 320 x 480 frame.
            EXPECT_TRUE(shot.width < 320 && shot.width > 240 && shot.height < 480 &&
                        shot.height > 360)
                << shot.width << "x" << shot.height;
            EXPECT_FALSE(shot.bottom + 80 < shot.top) << "upside down";
            darkTop += shot.top + 80 < shot.bottom ? 1 : 0;
        }
        EXPECT_GE(darkTop, 5);
        // The empty platen comes out white and flat (the prism's falloff undone).
        for (const Shot& shot : {images.front(), images.back()}) {
            EXPECT_GT(shot.mean, 240.0);
            EXPECT_NEAR(shot.top, shot.bottom, 4.0);
        }
        // Results for dark frames only, and only when a finger is asked for.
        const std::vector<Shot> results = host.Results();
        EXPECT_EQ(mode == vc::eCapturePlainFinger, results.size() >= 10) << results.size();
        for (const Shot& result : results) {
            EXPECT_EQ(vc::eCapturePlainFinger, result.result);
            EXPECT_LT(result.mean + 5, images.front().mean);
        }
    }
}

TEST_F(Virtual_SdkCapture, RefusedFramesAreSkippedSilently) {
    const struct {
        const char* step;
        bool fakeCheck, callback;
        const char* error;
    } cases[] = {
        {"emptyframe 0.4s", false, false, "-> 0 error 4306"},
        {"move 0.4s", false, false, "-> 0 error 0x20000001"},
        {"fake 0.4s", true, true, "ftrScanGetFrame(h1, buffer) -> 0 error 0x20000002"},
        {"fake 0.4s", true, false, "ftrScanGetFrame(h1, buffer) -> 0 error 0x20000002"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.step) + (c.callback ? " with events" : ""));
        Configure(std::string("empty 0.2s; ") + c.step + "; empty 60s");
        Host host;
        {
            ClNorvakKR7SDK sdk(nullptr);
            if (c.fakeCheck) {
                sdk.SetProperty(vc::ePropFakeFingerDetection, 1);
            }
            if (c.callback) {
                sdk.EnableEvents(0, 77, &Host::OnEvent, &host);
            }
            host.Start(sdk, vc::eCaptureLive);
            ASSERT_TRUE(host.WaitImages(30));  // well past the step
            sdk.StopCapture(1);
        }
        EXPECT_THAT(host.Errors(), ElementsAre());
        EXPECT_GE(CallsWith(c.error).size(), 5u);
        // A fake finger is an event on the channel's worker, none without a callback.
        EXPECT_EQ(c.callback, !host.Events().empty());
        EXPECT_THAT(host.Events(), Each("77 1 19 0 worker"));
    }
}

TEST_F(Virtual_SdkCapture, UnplugEndsTheCaptureAndAReplugCapturesAgain) {
    Configure("empty 0.4s; unplug 0.4s; empty 60s");
    Host host, again;  // outlive the SDK and its channel
    ClNorvakKR7SDK sdk(nullptr);
    host.Start(sdk, vc::eCaptureLive);
    ASSERT_TRUE(Eventually([&] { return !host.Errors().empty(); }, kFrameLimit));
    sdk.StopCapture(1);
    EXPECT_THAT(host.Errors(), ElementsAre("The scanner is disconnected."));
    EXPECT_GE(host.Images().size(), 5u);
    EXPECT_FALSE(sdk.IsScannerInitialized());
    EXPECT_EQ(1u, CallsWith("ftrScanCloseDevice(h1) -> 1").size());
    EXPECT_EQ("31: The scanner is disconnected.", LastError(sdk));
    // Until the unit is back the scanner cannot be opened.
    std::string outcome;
    for (int i = 0; i < 100 && !(outcome = Thrown([&] { sdk.InitializeScanner(); })).empty(); ++i) {
        EXPECT_EQ(std::string("259: ") + kInitFailed, outcome);
    }
    ASSERT_EQ("", outcome);
    again.Start(sdk, vc::eCaptureLive);
    ASSERT_TRUE(again.WaitImages(10));
    sdk.StopCapture(1);
    EXPECT_THAT(again.Errors(), ElementsAre());
    EXPECT_GT(again.Images().back().mean, 240.0);
}

// Listing the scanners reads the serial numbers on every interface and
// closes the scanner; a running capture opens it again and goes on.
TEST_F(Virtual_SdkCapture, ListingScannersDoesNotEndACapture) {
    Configure("empty 60s;", "if=0,serial=FIRST000;if=1,serial=OTHER111");
    ClNorvakKR7SDK sdk(nullptr);
    Host host;
    host.Start(sdk, vc::eCaptureLive);
    ASSERT_TRUE(host.WaitImages(3));
    vc::DeviceInfo list[2] = {};
    unsigned long count = 2;
    sdk.AvailableScanners(list, count);
    const std::size_t seen = host.Images().size();
    EXPECT_TRUE(host.WaitImages(seen + 3));
    sdk.StopCapture(1);
    EXPECT_EQ(Lines{}, host.Errors());
}

TEST_F(Virtual_SdkCapture, LEDsAreLitAgainAfterEveryCapture) {
    Host host;  // outlives the SDK and its channel
    ClNorvakKR7SDK sdk(nullptr);
    host.Start(sdk, vc::eCaptureLive);
    ASSERT_TRUE(host.WaitImages(3));
    const auto led = [&](vc::ePropertyIDs id) {
        unsigned int value = 7;
        sdk.GetProperty(id, value);
        return value;
    };
    const struct {
        vc::ePropertyIDs id;
        unsigned int value, red, green;
    } steps[] = {{vc::ePropRedLED, 1, 100, 0},
                 {vc::ePropGreenLED, 5, 100, 100},
                 {vc::ePropRedLED, 0, 0, 100},
                 {vc::ePropGreenLED, 0, 0, 0}};
    for (const auto& step : steps) {
        sdk.SetProperty(step.id, step.value);
        EXPECT_EQ(step.red, led(vc::ePropRedLED));
        EXPECT_EQ(step.green, led(vc::ePropGreenLED));
        ASSERT_TRUE(host.WaitImages(host.Images().size() + 5));
    }
    sdk.StopCapture(1);
    EXPECT_THAT(host.Errors(), ElementsAre());
    // A capture switches the LEDs off; the worker sends the ones the SDK lit
    // again straight after, and nothing while both are dark.
    const std::string leds = "ftrScanSetDiodesStatus(h1, ", dark = "green 0, red 0";
    const Lines lines = Journal(0, true);
    std::string lit = dark;
    int restored = 0;
    for (std::size_t i = 0; i + 1 < lines.size(); ++i) {
        const std::string thread = lines[i].substr(0, lines[i].find(' ') + 1);
        const std::string call = lines[i].substr(thread.size());
        if (call.rfind(leds, 0) == 0) {
            lit = call.substr(leds.size(), call.find(')') - leds.size());
        } else if (call.rfind("ftrScanGetImageByVariableDose(h1, dose 60, buffer) -> 1", 0) == 0) {
            SCOPED_TRACE(lines[i]);
            if (lit == dark) {
                EXPECT_THAT(lines[i + 1], Not(StartsWith(thread + leds)));
            } else {
                EXPECT_EQ(thread + leds + lit + ") -> 1", lines[i + 1]);
                ++restored;
            }
        }
    }
    EXPECT_GE(restored, 12);
}

// A calibration block with its stated payload size and 8 bytes that are no
// optics record.
std::vector<unsigned char> Block(unsigned int statedSize) {
    const unsigned char payload[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    Nvk::ClQV2CalibrationHeader header;
    header.PutCalibrationData(payload, sizeof payload, nullptr, "");
    std::vector<unsigned char> block = header.Buffer();
    std::memcpy(&block[21], &statedSize, sizeof statedSize);
    return block;
}

// The scanner's own failures while it is set up are rows of the host's
// device-fault table; here the calibration block in its memory is unusable.
TEST_F(Virtual_SdkDevice, AnUnusableCalibrationBlockIsReported) {
    const struct {
        const char* units;
        std::vector<unsigned char> block;  // written to the memory first
        std::string outcome;
    } cases[] = {
        {"calibration=no", {}, "37: The header version is wrong."},
        {"", Block(5000), "37: The calibration data is corrupt."},
        {"", Block(8), "-11: The calibration data is malformed."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.outcome);
        Configure("empty 60s;", c.units);
        ClNorvakKR7SDK sdk(nullptr);
        vc::CXDeviceLock lock(sdk);
        if (!c.block.empty()) {
            ASSERT_TRUE(sdk.Scanner().Initialize());
            ASSERT_TRUE(sdk.Scanner().WriteRaw(c.block.data(), unsigned(c.block.size())));
        }
        EXPECT_EQ(c.outcome, Thrown([&] { sdk.InitializeScanner(); }));
        EXPECT_FALSE(sdk.IsScannerInitialized());
        EXPECT_EQ(nullptr, sdk.Calibration());
    }
}

// The packed information list of the selected scanner: product, serial
// number, hardware and firmware versions, calibration revision. The list of
// scanners and the selection are checked through the host interface.
TEST_F(Virtual_SdkDevice, InformationFollowsTheSelectedScanner) {
    Configure("empty 60s;", "if=2,serial=SECOND22,hw=4.2.1.9,fw=2.5;if=0,serial=FIRST000");
    ClNorvakKR7SDK sdk(nullptr);
    ASSERT_EQ("", Thrown([&] { sdk.SetActiveScanner(2); }));
    std::string info;
    for (const char* part :
         {"Norvak QV2 scanner", "SECOND22", "4.2.1.9", "2.5", "KR7SIM CAL 1.0.0"}) {
        info += std::string(part) + '\0';
    }
    info += '\0';
    std::string buffer(info.size() + 2, 'x');
    unsigned long size = buffer.size();
    sdk.GetSDKInfo(&buffer[0], size);
    EXPECT_EQ(info.size(), size);
    EXPECT_EQ(info + "xx", buffer);
}

TEST_F(Virtual_SdkDevice, ContaminationOfTheCleanAndTheDirtyPlaten) {
    const struct {
        const char* units;
        double low, high;
    } cases[] = {{"", 0.0, 0.001}, {"dirt=50", 0.015, 1.0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.units);
        Configure("empty 60s;", c.units);
        ClNorvakKR7SDK sdk(nullptr);
        double result = -1;
        sdk.ContaminationDetection(1, &result);
        EXPECT_GE(result, c.low);
        EXPECT_LE(result, c.high);
        EXPECT_EQ(std::string("4: ") + vc::err::kBadChannelText,
                  Thrown([&] { sdk.ContaminationDetection(2, &result); }));
    }
}

TEST_F(Virtual_SdkDevice, CalibrationLibraryErrorsComeWithItsTextAndCode) {
    ClNorvakKR7SDK sdk(nullptr);
    vc::CXDeviceLock lock(sdk);
    sdk.InitializeScanner();
    EXPECT_EQ("KR7SIM CAL 1.0.0", sdk.Calibration()->Revision());
    // Calibration files: a 100-byte header, then the unit's optics record.
    sdk.Scanner().ResetStream();
    Nvk::ClQV2CalibrationHeader header;
    unsigned char* payload = nullptr;
    unsigned int payloadSize = 0;
    header.ReadFromStream(&sdk.Scanner(), 4096, &payload, payloadSize);
    ASSERT_NE(nullptr, payload);
    const struct {
        std::string content, outcome;
    } files[] = {
        {std::string(99, 'h'), "37: The calibration data is corrupt."},
        {std::string(100, 'h'), "-11: The calibration data is malformed."},
        {std::string(100, 'h') + std::string(reinterpret_cast<char*>(payload), payloadSize), ""},
    };
    const std::string path = m_dir + "/unit.cal";
    for (const auto& f : files) {
        SCOPED_TRACE(f.content.size());
        std::ofstream(path, std::ios::binary | std::ios::trunc) << f.content;
        EXPECT_EQ(f.outcome, Thrown([&] { ClNorvakKR7SDK::CXCalibration fromFile(path.c_str()); }));
    }
    EXPECT_EQ("", ClNorvakKR7SDK::CXCalibration(path.c_str()).Revision());
    EXPECT_EQ("system error",
              Thrown([&] { ClNorvakKR7SDK::CXCalibration((m_dir + "/none").c_str()); }));
}

TEST_F(SdkWithoutDevice, PropertiesAndTheLastError) {
    ClNorvakKR7SDK sdk(nullptr);
    const std::string bad = std::string("12: ") + vc::err::kBadPropertyText;
    sdk.SetLastFGError(5, "earlier");
    // Setting the LEDs needs the scanner: their sets are left out here.
    const struct {
        unsigned int id, set;
        std::string setOutcome, got, last;
    } cases[] = {
        {3, 0, "18: The property is read only", "1", "5: earlier"},
        {6, 1, "", "100", "5: earlier"},
        {6, 0, "", "0", "5: earlier"},
        {6, 9, "", "100", "5: earlier"},
        {7, 0, "no set", "0", "5: earlier"},
        {8, 0, "no set", "0", "5: earlier"},
        {0, 1, bad, bad, bad},
        {5, 1, bad, bad, bad},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.id);
        const auto id = static_cast<vc::ePropertyIDs>(c.id);
        if (c.setOutcome != "no set") {
            EXPECT_EQ(c.setOutcome, Thrown([&] { sdk.SetProperty(id, c.set); }));
        }
        unsigned int value = 12345;
        const std::string got = Thrown([&] { sdk.GetProperty(id, value); });
        EXPECT_EQ(c.got, got.empty() ? std::to_string(value) : got);
        EXPECT_EQ(c.last, LastError(sdk));
    }
    const std::pair<unsigned long, const char*> texts[] = {
        {0x20000004, "The hardware is incompatible"},
        {0x20000005, "The firmware is incompatible"},
        {0x20000006, "own text"}};
    for (const auto& [code, text] : texts) {
        sdk.SetLastFGError(code, "own text");
        EXPECT_EQ(std::to_string(code) + ": " + text, LastError(sdk));
    }
}

TEST_F(SdkWithoutDevice, ScannerErrorsOfAFailedCapture) {
    Host host;
    ClNorvakKR7SDK sdk(nullptr);
    sdk.EnableEvents(0, 3, &Host::OnEvent, &host);
    EXPECT_TRUE(sdk.CheckScannerError(4306));
    EXPECT_FALSE(sdk.CheckScannerError(0x20000001));
    EXPECT_THAT(host.Events(), ElementsAre());
    EXPECT_FALSE(sdk.CheckScannerError(0x20000002));  // no lock held: at once
    EXPECT_THAT(host.Events(), ElementsAre("3 1 19 0 host"));
    // Under the device lock the event waits for the outermost UnLock.
    {
        vc::CXDeviceLock outer(sdk);
        [&sdk] {
            vc::CXDeviceLock inner(sdk);
            EXPECT_FALSE(sdk.CheckScannerError(0x20000002));
        }();
        EXPECT_EQ(1u, host.Events().size());
    }
    EXPECT_EQ(2u, host.Events().size());
    const struct {
        unsigned long code;
        std::string thrown, last;
    } fatal[] = {{31, "The scanner is disconnected.", "The scanner is disconnected."},
                 {87, "Capture frame failed.", "Capture frame failed."},
                 {0x20000003, "Capture frame failed.", "The user canceled the action"}};
    for (const auto& f : fatal) {
        const std::string code = std::to_string(f.code) + ": ";
        EXPECT_EQ(code + f.thrown, Thrown([&] { sdk.CheckScannerError(f.code); }));
        EXPECT_EQ(code + f.last, LastError(sdk));
    }
    EXPECT_EQ(2u, host.Events().size());
}

TEST_F(SdkWithoutDevice, PrepareImageTurnsAndInvertsInOnePass) {
    const std::pair<long, long> sizes[] = {{1, 1}, {5, 1},  {8, 1},  {3, 3}, {9, 3},
                                           {8, 2}, {17, 4}, {13, 5}, {16, 6}};
    for (const auto& [width, height] : sizes) {
        SCOPED_TRACE(std::to_string(width) + "x" + std::to_string(height));
        ClSimpleBitmap image;
        image.Create(width, height, 8);
        const long stride = image.BPRow();
        std::vector<unsigned char> before(std::size_t(stride * height), 0xAB);  // row padding
        for (long i = 0; i < stride * height; ++i) {
            if (i % stride < width) {
                before[std::size_t(i)] = static_cast<unsigned char>(i * 37 + 11);
            }
        }
        std::memcpy(image.Pixel(), before.data(), before.size());
        ClNorvakKR7SDK::PrepareImage(image);
        for (long i = 0; i < stride * height; ++i) {
            const long x = i % stride, mirrored = (height - 1 - i / stride) * stride + x;
            const int expected = x < width ? 255 - before[std::size_t(mirrored)] : 0xAB;
            ASSERT_EQ(expected, image.Pixel()[i]) << "x " << x << " y " << i / stride;
        }
    }
}

TEST_F(SdkWithoutDevice, SettingsFile) {
    EXPECT_EQ("/etc/abc.cfg", Nvk::cfg::CfgFileName("abc"));
    EXPECT_EQ("/etc/.cfg", Nvk::cfg::CfgFileName(nullptr));
    const std::string existing = m_dir + "/norvakkr7.cfg";
    std::ofstream(existing) << "[SDK]\nLFD=Y\n";
    // An existing file is never parsed; a missing one leaves the defaults.
    for (const std::string& path : {existing, m_dir + "/missing.cfg"}) {
        ClNorvakKR7SDK::CXSetting setting;
        setting.LoadFromFile(path.c_str());
        EXPECT_FALSE(setting.m_bFakeFingerDetection) << path;
        EXPECT_EQ(60u, setting.m_nContaminationDose) << path;
    }
}

// Host threads switch LEDs, read them, measure the contamination and list
// the scanners while a capture runs and the scanner is unplugged again and
// again; the host starts the capture again whenever it has ended.
TEST_F(Virtual_SdkConcurrency, HostCallsRaceACaptureThatLosesItsScanner) {
    Configure("empty 0.4s; unplug 0.3s; repeat");
    Host host;  // outlives the SDK and its channel
    ClNorvakKR7SDK sdk(nullptr);
    constexpr int kRounds = 60;
    std::atomic<int> running{2}, calls{0}, refused{0}, foreign{0};
    const auto guarded = [&](const std::function<void()>& call) {
        try {
            call();
        } catch (const vc::ClVCException&) {
            ++refused;
        } catch (...) {
            ++foreign;
        }
        ++calls;
    };
    // Each host thread runs its round of calls kRounds times, 2 ms apart.
    const auto hammer = [&](std::function<void(int)> round) {
        return std::thread([&, round] {
            for (int i = 0; i < kRounds; ++i) {
                round(i);
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            }
            --running;
        });
    };
    std::thread leds = hammer([&](int i) {
        unsigned int value = 0;
        guarded([&] { sdk.SetProperty(i % 2 ? vc::ePropRedLED : vc::ePropGreenLED, i % 3); });
        guarded([&] { sdk.GetProperty(vc::ePropRedLED, value); });
        guarded([&] { sdk.GetProperty(vc::ePropGreenLED, value); });
    });
    std::thread device = hammer([&](int i) {
        double result = 0;
        vc::DeviceInfo list[2];
        unsigned long count = 2;
        guarded([&] { sdk.ContaminationDetection(1, &result); });
        if (i % 10 == 9) {
            guarded([&] { sdk.AvailableScanners(list, count); });
        }
    });
    host.Start(sdk, vc::eCaptureLive);
    for (std::size_t ended = 0; running > 0;) {
        if (host.Errors().size() > ended) {
            ended = host.Errors().size();
            sdk.StopCapture(1);
            host.Start(sdk, vc::eCaptureLive);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    leds.join();
    device.join();
    sdk.StopCapture(1);
    EXPECT_EQ(0, foreign.load());
    EXPECT_EQ(kRounds * 4 + kRounds / 10, calls.load());
    EXPECT_GT(refused.load(), 0);
    EXPECT_THAT(host.Errors(), Contains("The scanner is disconnected."));
    EXPECT_GT(host.Images().size(), 0u);
}

}  // namespace
