// The frame grabber facade in process: checks against the lists and the
// forward that follows them, result flags and the last error, list copies,
// text getters, the end of a running capture and host calls made from
// inside the host's own callbacks. Suites named Virtual_* run against the
// virtual scanner; the others with no closed library reachable.
#include "framegrabber/norvak_kr7_framegrabber.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "capture.h"

namespace {

using vc::ClNorvakKR7Framegrabber;

// The virtual scanner reads its settings at the first call of the process.
const bool kScenario = [] {
    setenv("KR7SIM_SCENARIO", "empty 0.3s; place; hold 1.5s; lift 0.5s; repeat", 1);
    unsetenv("KR7SIM_REALTIME");
    return true;
}();

constexpr int kUntouched = -1;
constexpr unsigned long kSentinelCode = 77;

using kr7test::Capture;
using kr7test::Eventually;

unsigned long LastCode(ClNorvakKR7Framegrabber& fg) {
    unsigned long code = 0;
    std::string text;
    fg.GetLastFGError(code, text);
    return code;
}

// The last error's text as a host reads it: size query, then the copy.
std::string LastText(vc::ClFramegrabber& fg) {
    unsigned long size = 0;
    EXPECT_EQ(vc::FGERR_FLAG | vc::FGERR_MORE_DATA, fg.GetLastError(nullptr, size));
    std::string text(size, '#');
    EXPECT_EQ(0u, fg.GetLastError(&text[0], size));
    EXPECT_EQ('\0', text.back());
    text.pop_back();
    return text;
}

// One operation on a fresh frame grabber whose last error is a sentinel
// beforehand: its result and the last error it leaves.
struct Case {
    const char* what;
    std::function<unsigned int(ClNorvakKR7Framegrabber&)> call;
    unsigned int result;
    int lastError;               // kUntouched: the sentinel is still there
    const char* text = nullptr;  // the last error's text, when it matters
};

TEST(FramegrabberFacade, ResultsAndLastErrors) {
    using namespace vc;
    namespace e = vc::err;
    unsigned char data[8] = {};
    unsigned long size = sizeof data;
    unsigned long value = 0;
    unsigned int property = 0;
    const auto start = [](ClNorvakKR7Framegrabber& fg, unsigned int mode) {
        return fg.StartCapture(5, 1, eCaptureModeIDs(mode), nullptr, nullptr, nullptr, nullptr,
                               nullptr);
    };
    const Case cases[] = {
        {"known camera", [](auto& fg) { return fg.SetCamera(1, eCameraKR7, eColorGray8); }, 0,
         kUntouched},
        {"unknown camera, accepted by the channel",
         [](auto& fg) { return fg.SetCamera(1, eCameraType5, eColorGray8); },
         FGERR_FLAG | FGERR_CAMERA_NOT_SUPPORTED, FGERR_CAMERA_NOT_SUPPORTED,
         e::kCameraUnknownText},
        {"unknown camera on channel 2: the forward's error wins",
         [](auto& fg) { return fg.SetCamera(2, eCameraType5, eColorGray8); },
         FGERR_FLAG | FGERR_BAD_CHANNEL, FGERR_BAD_CHANNEL, e::kBadChannelText},
        {"colour mode 1, before any channel lookup",
         [](auto& fg) { return fg.SetCamera(0, eCameraKR7, eColorModeIDs(1)); },
         FGERR_FLAG | FGERR_COLOR_MODE_NOT_SUPPORTED, FGERR_COLOR_MODE_NOT_SUPPORTED,
         e::kBadColorModeText},
        {"rolled mode: not listed, started all the same", [&](auto& fg) { return start(fg, 2); },
         FGERR_FLAG | FGERR_DETECTION_NOT_SUPPORTED, FGERR_DETECTION_NOT_SUPPORTED,
         e::kBadDetectionText},
        {"capture mode 99: no detector", [&](auto& fg) { return start(fg, 99); },
         FGERR_FLAG | FGERR_OUT_OF_MEMORY, FGERR_OUT_OF_MEMORY, e::kNoStorageText},
        {"background filter", [](auto& fg) { return fg.SetFilter(1, eFilterSubtractBackground); },
         FGERR_FLAG | FGERR_FILTER_NOT_SUPPORTED, FGERR_FILTER_NOT_SUPPORTED, e::kBadFilterText},
        {"filter 99", [](auto& fg) { return fg.SetFilter(1, eFilterIDs(99)); },
         FGERR_FLAG | FGERR_FILTER_NOT_SUPPORTED, FGERR_FILTER_NOT_SUPPORTED},
        {"property 99 read", [&](auto& fg) { return fg.GetFGProperty(ePropertyIDs(99), property); },
         FGERR_FLAG | FGERR_PROPERTY_NOT_SUPPORTED, FGERR_PROPERTY_NOT_SUPPORTED,
         e::kBadPropertyText},
        {"property 99 written", [](auto& fg) { return fg.SetFGProperty(ePropertyIDs(99), 1); },
         FGERR_FLAG | FGERR_PROPERTY_NOT_SUPPORTED, FGERR_PROPERTY_NOT_SUPPORTED},
        {"read-only property", [](auto& fg) { return fg.SetFGProperty(ePropFixedOne, 1); },
         FGERR_FLAG | FGERR_PROPERTY_READ_ONLY, FGERR_PROPERTY_READ_ONLY, e::kReadOnlyPropertyText},
        {"aspect ratio below 1", [](auto& fg) { return fg.SetAspectRatio(1, 0.5, 1.0); },
         FGERR_FLAG | FGERR_BAD_ASPECT_RATIO, FGERR_BAD_ASPECT_RATIO, e::kBadAspectRatioText},
        {"no place for the image", [](auto& fg) { return fg.GetImage(1, nullptr); },
         FGERR_FLAG | FGERR_FAILED, FGERR_FAILED},
        {"events", [](auto& fg) { return fg.EnableEvents(0, 9, nullptr, nullptr); }, 0, kUntouched},
        {"FreeImage of nothing", [](auto& fg) { return fg.FreeImage(nullptr); }, 0, kUntouched},
        // Not supported: bare numbers, no last error.
        {"WriteEEPROM", [&](auto& fg) { return fg.WriteEEPROM(data, size); },
         FGERR_EEPROM_NOT_SUPPORTED, kUntouched},
        {"ReadEEPROM", [&](auto& fg) { return fg.ReadEEPROM(data, size); },
         FGERR_EEPROM_NOT_SUPPORTED, kUntouched},
        {"ShowDialog", [](auto& fg) { return fg.ShowDialog(eDlgIDs(0), 0); }, FGERR_NOT_SUPPORTED,
         kUntouched},
        {"SaveSetting", [](auto& fg) { return fg.SaveSetting(1, 2); }, FGERR_NOT_SUPPORTED,
         kUntouched},
        {"AvailableDialogs", [&](auto& fg) { return fg.AvailableDialogs(0, nullptr, size); },
         FGERR_NOT_SUPPORTED, kUntouched},
        {"SetFGPropertyEx", [](auto& fg) { return fg.SetFGPropertyEx(1, ePropRedLED, 1); },
         FGERR_NOT_SUPPORTED, kUntouched},
        {"GetFGPropertyEx", [&](auto& fg) { return fg.GetFGPropertyEx(1, ePropRedLED, value); },
         FGERR_NOT_SUPPORTED, kUntouched},
        {"AvailablePropertiesEx", [&](auto& fg) { return fg.AvailablePropertiesEx(nullptr, size); },
         FGERR_NOT_SUPPORTED, kUntouched},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ClNorvakKR7Framegrabber fg(nullptr);
        fg.SetLastFGError(kSentinelCode, "earlier error");
        const unsigned int result = c.call(fg);
        EXPECT_EQ(c.result, result) << std::hex << result;
        EXPECT_EQ(c.lastError == kUntouched ? kSentinelCode : c.lastError, LastCode(fg));
        if (c.text != nullptr) {
            EXPECT_EQ(c.text, LastText(fg));
        }
        fg.StopCapture(1);
    }
}

TEST(FramegrabberFacade, ChannelsOtherThanOneAreRefused) {
    using namespace vc;
    // The host's wider channel type must not wrap round onto channel 1.
    for (unsigned long ch : {0ul, 2ul, 0xFFFFFFFFul, 0x100000001ul}) {
        SCOPED_TRACE(ch);
        ClNorvakKR7Framegrabber fg(nullptr);
        const unsigned int narrow = static_cast<unsigned int>(ch > UINT_MAX ? 0 : ch);
        unsigned char* image = nullptr;
        double contamination = 0;
        for (unsigned int result : {
                 fg.SetCamera(narrow, eCameraKR7, eColorGray8),
                 fg.GetImage(narrow, &image),
                 fg.StartCapture(1, narrow, eCaptureLive, nullptr, nullptr, nullptr, nullptr,
                                 nullptr),
                 fg.StopCapture(narrow),
                 fg.SetFilter(narrow, eFilterNone),
                 fg.SetResolution(narrow, ClImageResolution(100, 100)),
                 fg.Freeze(narrow, true),
                 fg.SetAspectRatio(narrow, 1.0, 1.0),
                 fg.SetCallbacks(narrow, nullptr, nullptr),
                 fg.ContaminationDetection(ch, &contamination),
             }) {
            EXPECT_EQ(vc::FGERR_FLAG | vc::FGERR_BAD_CHANNEL, result);
        }
        EXPECT_EQ(nullptr, image);
        EXPECT_EQ(err::kBadChannelText, LastText(fg));
    }
}

// Each list copy with no array and with arrays of every size from none to
// one to spare: 17 while the list does not fit, count set to its length,
// the entries that fit copied and nothing past the room given; the last
// error is never touched.
template <class Id>
void ExpectList(unsigned int (ClNorvakKR7Framegrabber::*copy)(Id*, unsigned long&),
                const std::vector<std::uint32_t>& expected) {
    static_assert(sizeof(Id) == sizeof(std::uint32_t));
    ClNorvakKR7Framegrabber fg(nullptr);
    fg.SetLastFGError(kSentinelCode, "earlier error");
    const unsigned long n = expected.size();
    unsigned long count = 5;
    EXPECT_EQ(vc::FGERR_FLAG | vc::FGERR_MORE_DATA, (fg.*copy)(nullptr, count));
    EXPECT_EQ(n, count);
    for (unsigned long room = 0; room <= n + 1; ++room) {
        std::vector<std::uint32_t> buffer(n + 2, 0xEEEEEEEEu);
        count = room;
        EXPECT_EQ(room < n ? vc::FGERR_FLAG | vc::FGERR_MORE_DATA : 0u,
                  (fg.*copy)(reinterpret_cast<Id*>(buffer.data()), count))
            << room;
        EXPECT_EQ(n, count);
        std::vector<std::uint32_t> copied(expected.begin(), expected.begin() + std::min(room, n));
        copied.resize(n + 2, 0xEEEEEEEEu);
        EXPECT_EQ(copied, buffer) << room;
    }
    EXPECT_EQ(kSentinelCode, LastCode(fg));
}

TEST(FramegrabberFacade, ListCopies) {
    using namespace vc;
    ExpectList(&ClNorvakKR7Framegrabber::AvailableCameras, {eCameraKR7});
    ExpectList(&ClNorvakKR7Framegrabber::AvailableColorModes, {eColorGray8});
    ExpectList(&ClNorvakKR7Framegrabber::AvailableDetections, {eCaptureLive, eCapturePlainFinger});
    ExpectList(&ClNorvakKR7Framegrabber::AvailableFilters, {eFilterNone});
    ExpectList(&ClNorvakKR7Framegrabber::AvailableProperties,
               {ePropFixedOne, ePropFakeFingerDetection, ePropRedLED, ePropGreenLED});
}

// ---- against the virtual scanner ------------------------------------------

class Virtual_Facade : public ::testing::Test {
protected:
    ClNorvakKR7Framegrabber fg{nullptr};

    void TearDown() override { fg.Uninitialize(); }
};

// The three text getters, before Initizalize: a null buffer asks for the
// size; otherwise as much as fits is copied, cut without a terminator, and
// nothing past it. Only GetInfo's size query leaves a last error.
TEST_F(Virtual_Facade, TextGetters) {
    using Getter = unsigned int (ClNorvakKR7Framegrabber::*)(char*, unsigned long&);
    const auto terminated = [](const char* text) { return std::string(text) + '\0'; };
    const struct {
        Getter get;
        std::string text;  // the whole text; GetInfo's list only begins so
        const char* queryError;
    } getters[] = {
        {&ClNorvakKR7Framegrabber::GetVersion, terminated("1.13.38.0"), vc::err::kBadChannelText},
        {&ClNorvakKR7Framegrabber::GetLastError, terminated(vc::err::kBadChannelText),
         vc::err::kBadChannelText},
        {&ClNorvakKR7Framegrabber::GetInfo, terminated("Norvak QV2 scanner"),
         vc::err::kMoreDataText},
    };
    for (const auto& g : getters) {
        SCOPED_TRACE(g.text);
        fg.SetLastFGError(4, vc::err::kBadChannelText);
        unsigned long needed = 0;
        EXPECT_EQ(vc::FGERR_FLAG | vc::FGERR_MORE_DATA, (fg.*g.get)(nullptr, needed));
        EXPECT_EQ(g.queryError, LastText(fg));
        fg.SetLastFGError(4, vc::err::kBadChannelText);

        std::string whole(needed + 8, '#');
        unsigned long size = whole.size();
        ASSERT_EQ(0u, (fg.*g.get)(&whole[0], size));
        EXPECT_EQ(needed, size);
        EXPECT_EQ(std::string(8, '#'), whole.substr(needed));
        whole.resize(needed);
        EXPECT_EQ('\0', whole.back());
        EXPECT_EQ(g.text, g.get == &ClNorvakKR7Framegrabber::GetInfo
                              ? whole.substr(0, g.text.size())
                              : whole);
        for (unsigned long room : {0ul, 4ul, needed - 1, needed}) {
            std::string buffer(needed + 1, '#');
            size = room;
            EXPECT_EQ(0u, (fg.*g.get)(&buffer[0], size)) << room;
            EXPECT_EQ(needed, size);
            EXPECT_EQ(whole.substr(0, room) + std::string(needed + 1 - room, '#'), buffer) << room;
        }
        EXPECT_EQ(vc::err::kBadChannelText, LastText(fg));  // copies leave the last error
    }
}

// A stop from the image callback is the channel's and kr7host's case.
TEST_F(Virtual_Facade, GetImageFromTheHostsImageCallbackEndsTheCapture) {
    Capture capture(fg);
    capture.snap = true;
    ASSERT_EQ(0u, capture.Start());
    ASSERT_TRUE(Eventually([&] { return capture.stops.load() == 1; }));
    EXPECT_EQ(0u, capture.snapResult.load());
    EXPECT_EQ(1, capture.images.load());  // the pass that took it was the last
    EXPECT_EQ(0, capture.errors.load());

    // The same host thread starts again; the stopped worker is joined.
    capture.snap = false;
    ASSERT_EQ(0u, capture.Start());
    ASSERT_TRUE(Eventually([&] { return capture.images.load() > 3; }));
    EXPECT_EQ(0u, fg.StopCapture(1));
    EXPECT_EQ(2, capture.stops.load());
}

// Uninitialize during a capture is the hostile host's out-of-order case.
TEST_F(Virtual_Facade, DestructionEndsARunningCapture) {
    auto doomed = std::make_unique<ClNorvakKR7Framegrabber>(nullptr);
    Capture capture(*doomed);
    ASSERT_EQ(0u, capture.Start());
    ASSERT_TRUE(Eventually([&] { return capture.images.load() > 3; }));
    doomed.reset();
    EXPECT_EQ(1, capture.stops.load());
}

}  // namespace
