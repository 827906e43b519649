// End-to-end tests through the plug-in's host contract: the built library
// is loaded with dlopen and driven through GetFrameGrabber, as a host does.
// Only the public header is used. Each case runs as a CTest test of its own
// (the plug-in keeps process-wide state), with LD_LIBRARY_PATH choosing
// which closed libraries the plug-in finds.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/framegrabber.h"

namespace {

constexpr const char* kScenario = "empty 0.3s; place; hold 1.5s; lift 0.5s; repeat";

template <class Done>
bool Eventually(Done done, std::chrono::seconds limit = std::chrono::seconds(60)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return done();
}

// The last error's text, read the way the contract describes.
std::string LastError(vc::ClFramegrabber& fg) {
    unsigned long size = 0;
    EXPECT_EQ(vc::FGERR_FLAG | vc::FGERR_MORE_DATA, fg.GetLastError(nullptr, size));
    std::string text(size, '\0');
    EXPECT_EQ(0u, fg.GetLastError(&text[0], size));
    text.resize(size > 0 ? size - 1 : 0);
    return text;
}

std::string Info(vc::ClFramegrabber& fg, unsigned int& result) {
    char buffer[512] = {};
    unsigned long size = sizeof buffer;
    result = fg.GetInfo(buffer, size);
    // A list of zero-terminated texts: shown with the zeros as '|'.
    std::string text(buffer, size < sizeof buffer ? size : sizeof buffer);
    for (char& c : text) {
        c = c == '\0' ? '|' : c;
    }
    return text;
}

// Checks the packed bitmap a callback or GetImage hands out.
void ExpectBitmap(const unsigned char* image) {
    ASSERT_NE(nullptr, image);
    std::int32_t header = 0, width = 0, height = 0;
    std::uint16_t bits = 0;
    std::memcpy(&header, image, 4);
    std::memcpy(&width, image + 4, 4);
    std::memcpy(&height, image + 8, 4);
    std::memcpy(&bits, image + 14, 2);
    EXPECT_EQ(40, header);
    EXPECT_GT(width, 100);
    EXPECT_GT(height, 100);
    EXPECT_EQ(8, bits);
}

// What the host's callbacks received.
struct Received {
    std::atomic<int> images{0};
    std::atomic<int> results{0};
    std::atomic<int> stops{0};
    std::atomic<int> badResult{0};
    std::mutex mutex;
    std::vector<std::string> errors;

    std::vector<std::string> Errors() {
        std::lock_guard<std::mutex> lock(mutex);
        return errors;
    }

    static void OnImage(int handle, unsigned int, unsigned char* image, void* user) {
        EXPECT_EQ(11, handle);
        ExpectBitmap(image);
        ++static_cast<Received*>(user)->images;
    }
    static void OnResult(int, unsigned int tag, int result, unsigned char* image, void* user) {
        auto& self = *static_cast<Received*>(user);
        ExpectBitmap(image);
        if (result != vc::eCapturePlainFinger || tag != 1) {
            ++self.badResult;
        }
        ++self.results;
    }
    static void OnError(int, unsigned int, const char* text, void* user) {
        auto& self = *static_cast<Received*>(user);
        std::lock_guard<std::mutex> lock(self.mutex);
        self.errors.emplace_back(text ? text : "(null)");
    }
    static void OnStop(int, unsigned int, void* user) { ++static_cast<Received*>(user)->stops; }

    unsigned int Start(vc::ClFramegrabber& fg, vc::eCaptureModeIDs mode) {
        EXPECT_EQ(0u, fg.SetCallbacks(1, nullptr, &OnStop));
        return fg.StartCapture(11, 1, mode, &OnImage, &OnResult, &OnError, nullptr, this);
    }
};

class Host : public ::testing::Test {
protected:
    void SetUp() override {
        // The virtual scanner reads its settings at its first call.
        setenv("KR7SIM_SCENARIO", kScenario, 1);
        unsetenv("KR7SIM_REALTIME");
        m_hPlugin = dlopen(KR7_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(nullptr, m_hPlugin) << dlerror();
        get = reinterpret_cast<FGGetFrameGrabberFn>(dlsym(m_hPlugin, "GetFrameGrabber"));
        destroy =
            reinterpret_cast<FGDestroyFrameGrabberFn>(dlsym(m_hPlugin, "DestroyFrameGrabber"));
        global = static_cast<vc::ClFramegrabber**>(dlsym(m_hPlugin, "m_pFrameGrabber"));
        ASSERT_NE(nullptr, get);
        ASSERT_NE(nullptr, destroy);
        ASSERT_NE(nullptr, global);
    }
    void TearDown() override {
        if (destroy != nullptr) {
            destroy();
        }
        if (m_hPlugin != nullptr) {
            EXPECT_EQ(0, dlclose(m_hPlugin));
        }
    }

    // GetFrameGrabber, Initizalize.
    vc::ClFramegrabber& Open() {
        vc::ClFramegrabber* fg = get();
        EXPECT_NE(nullptr, fg);
        EXPECT_EQ(0u, fg->Initizalize(nullptr));
        return *fg;
    }

    FGGetFrameGrabberFn get = nullptr;
    FGDestroyFrameGrabberFn destroy = nullptr;
    vc::ClFramegrabber** global = nullptr;

private:
    void* m_hPlugin = nullptr;
};

TEST_F(Host, OneObjectUntilDestroyedThenAFreshOne) {
    EXPECT_EQ(nullptr, *global);
    vc::ClFramegrabber* first = get();
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(first, get());
    EXPECT_EQ(first, *global);
    unsigned int value = 0;
    EXPECT_EQ(0u, first->SetFGProperty(vc::ePropFakeFingerDetection, 1));
    EXPECT_EQ(0u, first->GetFGProperty(vc::ePropFakeFingerDetection, value));
    EXPECT_EQ(100u, value);

    destroy();
    EXPECT_EQ(nullptr, *global);
    destroy();  // harmless without an object
    vc::ClFramegrabber* second = get();
    ASSERT_NE(nullptr, second);
    EXPECT_EQ(second, *global);
    // A fresh object: the setting of the old one is gone.
    EXPECT_EQ(0u, second->GetFGProperty(vc::ePropFakeFingerDetection, value));
    EXPECT_EQ(0u, value);
    char version[16];
    unsigned long size = sizeof version;
    EXPECT_EQ(0u, second->GetVersion(version, size));
    EXPECT_STREQ("1.13.38.0", version);
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
    vc::ClFramegrabber& fg = Open();
    unsigned int result = 0;
    EXPECT_EQ(0u, Info(fg, result).find("Norvak QV2 scanner"));
    EXPECT_EQ(0u, result);
    EXPECT_EQ(0u, fg.Uninitialize());
    const std::string written = log();
    EXPECT_NE(std::string::npos, written.find("QV2 scanner. Calling ReadSDKInfo function."));
    EXPECT_EQ(0u, Info(fg, result).find("Norvak QV2 scanner"));
    EXPECT_EQ(written, log());  // nothing more after Uninitialize
}

// Without libnorvaklf.so the plug-in works, only silently.
TEST_F(Host, WithoutTheLoggingLibraryEverythingWorks) {
    vc::ClFramegrabber& fg = Open();
    unsigned char* image = nullptr;
    EXPECT_EQ(0u, fg.GetImage(1, &image));
    ExpectBitmap(image);
    EXPECT_EQ(0u, fg.FreeImage(image));
    EXPECT_EQ(0u, fg.Uninitialize());
}

TEST_F(Host, PlainFingerCaptureDeliversFramesAndResults) {
    vc::ClFramegrabber& fg = Open();
    Received received;
    ASSERT_EQ(0u, received.Start(fg, vc::eCapturePlainFinger));
    EXPECT_TRUE(Eventually([&] { return received.results.load() >= 2; }));
    EXPECT_EQ(0u, fg.StopCapture(1));
    EXPECT_EQ(1, received.stops.load());
    EXPECT_GT(received.images.load(), 10);
    EXPECT_EQ(0, received.badResult.load());
    EXPECT_TRUE(received.Errors().empty());
    EXPECT_EQ(0u, fg.Uninitialize());
}

TEST_F(Host, ContaminationOfThePlaten) {
    vc::ClFramegrabber& fg = Open();
    double contamination = -1;
    EXPECT_EQ(0u, fg.ContaminationDetection(1, &contamination));
    EXPECT_GE(contamination, 0.0);
    EXPECT_EQ(vc::FGERR_FLAG | vc::FGERR_BAD_CHANNEL, fg.ContaminationDetection(2, &contamination));
    EXPECT_EQ("Incorrect channel number for frame grabber", LastError(fg));
    EXPECT_EQ(0u, fg.Uninitialize());
}

TEST_F(Host, ScannerListAndSelection) {
    setenv("KR7SIM_UNITS", "if=0,serial=KR7UNIT0;if=2,serial=KR7UNIT2", 1);
    vc::ClFramegrabber& fg = Open();
    unsigned long count = 0;
    EXPECT_EQ(vc::FGERR_FLAG | vc::FGERR_MORE_DATA, fg.AvailableDevices(nullptr, count));
    EXPECT_EQ(2u, count);
    vc::DeviceInfo devices[3];
    std::memset(devices, 0x55, sizeof devices);
    count = 3;
    ASSERT_EQ(0u, fg.AvailableDevices(devices, count));
    ASSERT_EQ(2u, count);
    EXPECT_STREQ("KR7UNIT0", devices[0].SerialNumber);
    EXPECT_EQ(0u, devices[0].Index);
    EXPECT_STREQ("KR7UNIT2", devices[1].SerialNumber);
    EXPECT_STREQ("", devices[1].Description);
    EXPECT_EQ(2u, devices[1].Index);

    EXPECT_EQ(0u, fg.SetActiveDevice(devices[1].Index));
    unsigned long active = 99;
    EXPECT_EQ(0u, fg.GetActiveDevice(active));
    EXPECT_EQ(2u, active);
    unsigned int result = 0;
    EXPECT_NE(std::string::npos, Info(fg, result).find("|KR7UNIT2|"));
    EXPECT_EQ(0u, result);

    EXPECT_EQ(vc::FGERR_FLAG | vc::FGERR_BAD_DEVICE_INDEX,
              fg.SetActiveDevice(1));  // no scanner there
    EXPECT_EQ("The device index out of range or is not supported by frame grabber", LastError(fg));
    EXPECT_EQ(0u, fg.Uninitialize());
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
    vc::ClFramegrabber& fg = Open();  // logging may be missing too: still 0
    unsigned int result = 0;
    Info(fg, result);
    EXPECT_EQ(vc::FGERR_FLAG | m.number, result);
    const std::string text = LastError(fg);
    EXPECT_NE(std::string::npos, text.find(m.text)) << text;

    Received received;
    ASSERT_EQ(0u, received.Start(fg, vc::eCaptureLive));
    ASSERT_TRUE(Eventually([&] { return received.stops.load() == 1; }));
    EXPECT_EQ(0, received.images.load());
    const std::vector<std::string> errors = received.Errors();
    ASSERT_EQ(1u, errors.size());
    EXPECT_NE(std::string::npos, errors[0].find(m.text)) << errors[0];
    EXPECT_EQ(0u, fg.StopCapture(1));

    unsigned char* image = nullptr;
    EXPECT_EQ(vc::FGERR_FLAG | m.number, fg.GetImage(1, &image));
    EXPECT_EQ(nullptr, image);
    EXPECT_EQ(0u, fg.Uninitialize());
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
