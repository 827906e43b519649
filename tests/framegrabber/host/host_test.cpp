// End-to-end tests through the plug-in's host contract: the built library
// is loaded with dlopen and driven through GetFrameGrabber, as a host does,
// through kr7host. Each case runs as a CTest test of its own (the plug-in
// keeps process-wide state), with LD_LIBRARY_PATH choosing which closed
// libraries the plug-in finds.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "kr7host/capture.h"
#include "kr7host/plugin.h"

namespace {

constexpr const char* kScenario = "empty 0.3s; place; hold 1.5s; lift 0.5s; repeat";

// GetInfo's texts, joined with '|'.
std::string Info(kr7host::Grabber& fg, unsigned int& result) {
    try {
        std::string joined;
        for (const std::string& text : fg.Info()) {
            joined += text + "|";
        }
        result = 0;
        return joined;
    } catch (const kr7host::Error& e) {
        result = e.Result();
        return "";
    }
}

// A plug-in image: an 8-bit bitmap of a scanner's size.
void ExpectBitmap(const kr7host::BitmapView& image) {
    ASSERT_TRUE(image.Valid());
    EXPECT_GT(image.Width(), 100);
    EXPECT_GT(image.Height(), 100);
}

// Runs a capture on channel 1 until `done` holds for what came (or a minute
// has passed) and stops it; what came, in order.
template <class Done>
std::vector<kr7host::Event> CaptureUntil(kr7host::Grabber& fg, vc::eCaptureModeIDs mode, Done done,
                                         kr7host::Counts& counts) {
    kr7host::Capture capture(fg, {1, mode, 1000});
    capture.Start(11);
    std::vector<kr7host::Event> events;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!done(events) && std::chrono::steady_clock::now() < deadline) {
        if (std::optional<kr7host::Event> event = capture.Next(std::chrono::milliseconds(50))) {
            events.push_back(std::move(*event));
        }
    }
    capture.Stop();
    while (std::optional<kr7host::Event> event = capture.Next(std::chrono::milliseconds(0))) {
        events.push_back(std::move(*event));
    }
    counts = capture.Totals();
    return events;
}

long Count(const std::vector<kr7host::Event>& events, kr7host::Kind kind) {
    return std::count_if(events.begin(), events.end(),
                         [kind](const kr7host::Event& e) { return e.kind == kind; });
}

class Host : public ::testing::Test {
protected:
    void SetUp() override {
        // The virtual scanner reads its settings at its first call.
        setenv("KR7SIM_SCENARIO", kScenario, 1);
        unsetenv("KR7SIM_REALTIME");
        kr7host::Options options;
        options.plugin = KR7_PLUGIN_PATH;
        library.emplace(options);
    }
    void TearDown() override { EXPECT_NO_THROW(library->Close()); }

    std::optional<kr7host::Library> library;
};

TEST_F(Host, OneObjectUntilDestroyedThenAFreshOne) {
    EXPECT_EQ(nullptr, library->Current());
    vc::ClFramegrabber* first = library->GetFrameGrabber();
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(first, library->GetFrameGrabber());
    EXPECT_EQ(first, library->Current());
    unsigned int value = 0;
    EXPECT_EQ(0u, first->SetFGProperty(vc::ePropFakeFingerDetection, 1));
    EXPECT_EQ(0u, first->GetFGProperty(vc::ePropFakeFingerDetection, value));
    EXPECT_EQ(100u, value);

    library->DestroyFrameGrabber();
    EXPECT_EQ(nullptr, library->Current());
    library->DestroyFrameGrabber();  // harmless without an object
    kr7host::Grabber second(*library, false);
    EXPECT_EQ(&second.Raw(), library->Current());
    // A fresh object: the setting of the old one is gone.
    EXPECT_EQ(0u, second.Property(vc::ePropFakeFingerDetection));
    EXPECT_EQ("1.13.38.0", second.Version());
}

// Run with KR7_LOG_LEVEL=trace and KR7_LOG_FILE naming a file: the plug-in's
// diagnostics reach the logging library once Initizalize has loaded it, and
// stop after Uninitialize.
TEST_F(Host, InitializeSwitchesLoggingOn) {
    const char* file = std::getenv("KR7_LOG_FILE");
    ASSERT_NE(nullptr, file);
    std::remove(file);
    const auto log = [&] {
        std::ifstream in(file);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    };
    kr7host::Grabber fg(*library);
    unsigned int result = 0;
    EXPECT_EQ(0u, Info(fg, result).find("Norvak QV2 scanner"));
    EXPECT_EQ(0u, result);
    fg.Shutdown();
    const std::string written = log();
    EXPECT_NE(std::string::npos, written.find("QV2 scanner. Calling ReadSDKInfo function."));
    EXPECT_EQ(0u, Info(fg, result).find("Norvak QV2 scanner"));
    EXPECT_EQ(written, log());  // nothing more after Uninitialize
}

// Without libnorvaklf.so the plug-in works, only silently.
TEST_F(Host, WithoutTheLoggingLibraryEverythingWorks) {
    kr7host::Grabber fg(*library);
    unsigned char* image = nullptr;
    EXPECT_EQ(0u, fg->GetImage(1, &image));
    ExpectBitmap(kr7host::BitmapView(image));
    EXPECT_EQ(0u, fg->FreeImage(image));
    EXPECT_NO_THROW(fg.Shutdown());
}

TEST_F(Host, ScannerListAndSelection) {
    setenv("KR7SIM_UNITS", "if=0,serial=KR7UNIT0;if=2,serial=KR7UNIT2", 1);
    kr7host::Grabber fg(*library);
    unsigned long count = 0;
    EXPECT_EQ(vc::FGERR_FLAG | vc::FGERR_MORE_DATA, fg->AvailableDevices(nullptr, count));
    EXPECT_EQ(2u, count);
    vc::DeviceInfo devices[3];
    std::memset(devices, 0x55, sizeof devices);
    count = 3;
    ASSERT_EQ(0u, fg->AvailableDevices(devices, count));
    ASSERT_EQ(2u, count);
    EXPECT_STREQ("KR7UNIT0", devices[0].SerialNumber);
    EXPECT_EQ(0u, devices[0].Index);
    EXPECT_STREQ("KR7UNIT2", devices[1].SerialNumber);
    EXPECT_STREQ("", devices[1].Description);
    EXPECT_EQ(2u, devices[1].Index);

    fg.SelectDevice(devices[1].Index);
    EXPECT_EQ(2u, fg.ActiveDevice());
    unsigned int result = 0;
    EXPECT_NE(std::string::npos, Info(fg, result).find("|KR7UNIT2|"));
    EXPECT_EQ(0u, result);

    try {
        fg.SelectDevice(1);  // no scanner there
        ADD_FAILURE() << "SetActiveDevice(1) succeeded";
    } catch (const kr7host::Error& e) {
        EXPECT_EQ(vc::FGERR_BAD_DEVICE_INDEX, e.Number());
        EXPECT_EQ("The device index out of range or is not supported by frame grabber", e.Text());
    }
    EXPECT_NO_THROW(fg.Shutdown());
}

// A closed library missing or incomplete: the operation that opens the
// scanner reports the error number and text, a capture reports the same
// text through the host's error callback, and the process goes on.
struct Missing {
    const char* name;
    unsigned int number;
    const char* text;  // part of the last error's text
};

void PrintTo(const Missing& m, std::ostream* os) {
    *os << m.name;
}

class MissingLibrary : public Host, public ::testing::WithParamInterface<Missing> {};

TEST_P(MissingLibrary, IsReportedAndSurvived) {
    const Missing& m = GetParam();
    kr7host::Grabber fg(*library);  // logging may be missing too: still 0
    unsigned int result = 0;
    Info(fg, result);
    EXPECT_EQ(vc::FGERR_FLAG | m.number, result);
    EXPECT_NE(std::string::npos, fg.LastError().find(m.text)) << fg.LastError();

    kr7host::Counts counts;
    const std::vector<kr7host::Event> events = CaptureUntil(
        fg, vc::eCaptureLive,
        [](const auto& events) { return Count(events, kr7host::Kind::Stop) > 0; }, counts);
    EXPECT_EQ(1, counts.stops);
    EXPECT_EQ(0, counts.images);
    ASSERT_EQ(1, Count(events, kr7host::Kind::Error));
    for (const kr7host::Event& event : events) {
        if (event.kind == kr7host::Kind::Error) {
            EXPECT_NE(std::string::npos, event.text.find(m.text)) << event.text;
        }
    }

    unsigned char* image = nullptr;
    EXPECT_EQ(vc::FGERR_FLAG | m.number, fg->GetImage(1, &image));
    EXPECT_EQ(nullptr, image);
    EXPECT_NO_THROW(fg.Shutdown());
}

INSTANTIATE_TEST_SUITE_P(
    Libraries, MissingLibrary,
    ::testing::Values(Missing{"NoScannerApi", vc::FGERR_LIBRARY_NOT_LOADED,
                              "libQV2ScanAPI.so: cannot open shared object file"},
                      Missing{"NoBaseEntry", vc::FGERR_LIBRARY_NOT_LOADED,
                              "undefined symbol: ftrScanGetImage2"},
                      Missing{"NoExtended", vc::FGERR_API_VERSION_NOT_SUPPORTED,
                              "The QV2 API version isn't more supported"},
                      Missing{"NoCalibration", vc::FGERR_LIBRARY_NOT_LOADED,
                              "libnorvakcalibratesdk.so: cannot open shared object file"},
                      Missing{"NoContamination", vc::FGERR_LIBRARY_NOT_LOADED,
                              "undefined symbol: ContaminationDetection"},
                      Missing{"NoLibraries", vc::FGERR_LIBRARY_NOT_LOADED,
                              "libQV2ScanAPI.so: cannot open shared object file"}),
    [](const ::testing::TestParamInfo<Missing>& info) { return std::string(info.param.name); });

}  // namespace
