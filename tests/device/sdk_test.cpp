// The device SDK with its real parts, the scanner API and the calibration
// library found by their bare names: captures on scripted scenarios, LEDs
// and events during a capture, unusable calibration blocks, the fake-finger
// property, frame preparation, settings, and host calls racing a capture that
// loses its scanner. What the host sees of the scanner's information, the
// scanner list, contamination and the device's failures is the host-level
// suites'.
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

// Empty frames, a moving and a fake finger do not end a capture (the host's
// device-fault table); a fake finger is an event, sent from the channel's
// worker once the pass has let the device go.
TEST_F(Virtual_SdkCapture, AFakeFingerIsAnEventOnTheWorker) {
    Configure("empty 0.2s; fake 0.4s; empty 60s");
    Host host;
    {
        ClNorvakKR7SDK sdk(nullptr);
        sdk.SetProperty(vc::ePropFakeFingerDetection, 1);
        sdk.EnableEvents(0, 77, &Host::OnEvent, &host);
        host.Start(sdk, vc::eCaptureLive);
        ASSERT_TRUE(host.WaitImages(30));  // well past the step
        sdk.StopCapture(1);
    }
    EXPECT_THAT(host.Errors(), ElementsAre());
    EXPECT_FALSE(host.Events().empty());
    EXPECT_THAT(host.Events(), Each("77 1 19 0 worker"));
}

// The unplug as the host's device-fault table meets it, and the last error
// it leaves.
TEST_F(Virtual_SdkCapture, UnplugEndsTheCaptureAndIsTheLastError) {
    Configure("empty 0.4s; unplug 0.4s; empty 60s");
    Host host;  // outlives the SDK and its channel
    ClNorvakKR7SDK sdk(nullptr);
    host.Start(sdk, vc::eCaptureLive);
    ASSERT_TRUE(Eventually([&] { return !host.Errors().empty(); }, kFrameLimit));
    sdk.StopCapture(1);
    EXPECT_THAT(host.Errors(), ElementsAre("The scanner is disconnected."));
    EXPECT_EQ("31: The scanner is disconnected.", LastError(sdk));
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

// The other properties' answers and errors are the host's (the facade's
// result table, kr7's properties, the device-fault table's LED rows).
TEST_F(SdkWithoutDevice, FakeFingerDetectionAndTheLastError) {
    ClNorvakKR7SDK sdk(nullptr);
    sdk.SetLastFGError(5, "earlier");
    const struct {
        unsigned int set;
        std::string got;
    } cases[] = {{1, "100"}, {0, "0"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.set);
        EXPECT_EQ("", Thrown([&] { sdk.SetProperty(vc::ePropFakeFingerDetection, c.set); }));
        unsigned int value = 12345;
        const std::string got =
            Thrown([&] { sdk.GetProperty(vc::ePropFakeFingerDetection, value); });
        EXPECT_EQ(c.got, got.empty() ? std::to_string(value) : got);
        EXPECT_EQ("5: earlier", LastError(sdk));
    }
    sdk.SetLastFGError(0x20000005, "own text");
    EXPECT_EQ(std::to_string(0x20000005) + ": The firmware is incompatible", LastError(sdk));
}

// The errors that end a capture are the host's device-fault table; these
// do not.
TEST_F(SdkWithoutDevice, ScannerErrorsThatDoNotEndACapture) {
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
    Configure("empty 0.8s; unplug 0.3s; repeat");
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
    // The host calls end after a fixed number of rounds; on a slow machine
    // the capture may not have met an unplug by then, so it goes on until
    // one ended it (or a generous deadline passed).
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    const auto disconnected = [&] {
        const auto errors = host.Errors();
        return std::find(errors.begin(), errors.end(), "The scanner is disconnected.") !=
               errors.end();
    };
    for (std::size_t ended = 0;
         running > 0 || (!disconnected() && std::chrono::steady_clock::now() < deadline);) {
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
