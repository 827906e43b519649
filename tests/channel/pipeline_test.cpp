// The channel's settings, the processor chain built from them, background
// refresh and the detection-result gate.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "channel_test_support.h"

namespace kr7test {
namespace {

using vc::eCaptureLive;

template <class Call>
void ExpectVCError(Call&& call, int number, const char* text) {
    try {
        call();
        ADD_FAILURE() << "no exception";
    } catch (const vc::ClVCException& e) {
        EXPECT_EQ(e.GetErrorNumber(), number);
        EXPECT_STREQ(e.What(), text);
    }
}

// ---- the gate ---------------------------------------------------------------

TEST(DetectionGate, WidthAndTheMiddleRowDecide) {
    ClSimpleBitmap image;
    EXPECT_FALSE(vc::DetectionResultVisible(image));  // empty

    MakeFrame(image, 100, 20, 255, 255);
    EXPECT_FALSE(vc::DetectionResultVisible(image));  // 100 pixels are too narrow

    MakeFrame(image, 101, 20, 0, 0);
    image.Pixel()[image.BPRow() * 10 + 50] = 1;  // the only column searched
    EXPECT_TRUE(vc::DetectionResultVisible(image));

    // Black from column 50 to width - 51, bright just outside and in the
    // other rows: not shown.
    MakeFrame(image, 200, 21, 255, 255);
    unsigned char* middle = image.Pixel() + image.BPRow() * 10;
    for (int x = 50; x <= 149; ++x) {
        middle[x] = 0;
    }
    EXPECT_FALSE(vc::DetectionResultVisible(image));
    middle[149] = 7;
    EXPECT_TRUE(vc::DetectionResultVisible(image));
}

TEST(DetectionGate, StaysInsideRowsNarrowerThanTheirPixelCount) {
    // 1 bit per pixel: 200 pixels take 28 bytes a row, fewer than the
    // columns the gate would search; it must not read past the row.
    ClSimpleBitmap image;
    image.Create(200, 3, 1);
    image.SetBlack();
    EXPECT_FALSE(vc::DetectionResultVisible(image));
    ClSimpleBitmap flat;
    flat.Create(200, 0, 8);  // no rows at all
    EXPECT_FALSE(vc::DetectionResultVisible(flat));
}

// ---- settings and the chain -------------------------------------------------

using Channel = ProbeChannel<vc::ClFrameGrabberChannel>;

template <class T>
const T* At(Channel& channel, std::size_t index) {
    const auto& list = channel.Chain().Processors();
    if (index >= list.size()) {
        return nullptr;
    }
    auto it = list.begin();
    std::advance(it, index);
    return dynamic_cast<const T*>(*it);
}

TEST(ChannelSettings, AspectRatioBelowOneIsRefused) {
    Channel channel;
    const char* text = "The aspect ratio is incorrect. It can be set 1.. ";
    ExpectVCError([&] { channel.SetAspectRatio(0.5, 1.0); }, 25, text);
    ExpectVCError([&] { channel.SetAspectRatio(1.0, 0.99); }, 25, text);
    ExpectVCError([&] { channel.SetAspectRatio(std::nan(""), 2.0); }, 25, text);
    channel.SetAspectRatio(1.0, 1.0);
    channel.InitializeImageProcessing(false);
    EXPECT_TRUE(channel.Chain().Processors().empty());
}

TEST(ChannelSettings, ChainIsFilterFlipAspectRatioRescaleInThatOrder) {
    Channel channel;
    channel.SetFilter(vc::eFilterSubtractBackground);
    channel.SetCamera(vc::eCameraType6, vc::eColorGray8);  // flips both ways, has a resolution
    channel.SetAspectRatio(2.0, 1.5);
    channel.SetResolution(vc::ClImageResolution(19684, 19684));
    channel.InitializeImageProcessing(false);
    EXPECT_FALSE(channel.ProcessingDirty());

    ASSERT_EQ(channel.Chain().Processors().size(), 4u);
    const auto* filter = At<vc::ClImageFilterProcessor>(channel, 0);
    ASSERT_NE(filter, nullptr);
    EXPECT_NE(dynamic_cast<vc::ClSubtractBackgroundFilter*>(filter->Filter()), nullptr);
    EXPECT_EQ(filter->Background(), &channel.Background());
    const auto* flip = At<vc::ClImageFlipProcessor>(channel, 1);
    ASSERT_NE(flip, nullptr);
    EXPECT_TRUE(flip->FlipX());
    EXPECT_TRUE(flip->FlipY());
    const auto* aspect = At<vc::ClImageAspectRatioProcessor>(channel, 2);
    ASSERT_NE(aspect, nullptr);
    EXPECT_EQ(aspect->X(), 2.0);
    EXPECT_EQ(aspect->Y(), 1.5);
    const auto* rescale = At<vc::ClImageRescaleProcessor>(channel, 3);
    ASSERT_NE(rescale, nullptr);
    EXPECT_EQ(rescale->Resolution(), vc::ClImageResolution(19684, 19684));

    // Clean: nothing is rebuilt; forced: rebuilt from the same settings.
    const vc::ClImageProcessor* first = channel.Chain().Processors().front();
    channel.InitializeImageProcessing(false);
    EXPECT_EQ(channel.Chain().Processors().front(), first);
    channel.InitializeImageProcessing(true);
    EXPECT_EQ(channel.Chain().Processors().size(), 4u);

    // The KR7 camera has no resolution of its own: no rescale step, and no
    // flip either.
    channel.SetCamera(vc::eCameraKR7, vc::eColorGray8);
    channel.InitializeImageProcessing(false);
    ASSERT_EQ(channel.Chain().Processors().size(), 2u);
    EXPECT_NE(At<vc::ClImageAspectRatioProcessor>(channel, 1), nullptr);
}

TEST(ChannelSettings, UnknownFilterFailsTheRebuildAndStaysDirty) {
    Channel channel;
    channel.SetFilter(static_cast<vc::eFilterIDs>(2));
    for (int i = 0; i < 2; ++i) {
        ExpectVCError([&] { channel.InitializeImageProcessing(false); }, 11,
                      "The filter ID bad or framegrabber does not support");
        EXPECT_TRUE(channel.ProcessingDirty());
    }
    channel.SetFilter(vc::eFilterNone);
    channel.InitializeImageProcessing(false);
    EXPECT_TRUE(channel.Chain().Processors().empty());
}

TEST(ChannelSettings, ColourModeAndFilterExcludeEachOther) {
    const char* text = "The filter can not be applied";
    Channel channel;
    channel.SetFilter(vc::eFilterSubtractBackground);
    ExpectVCError([&] { channel.SetCamera(vc::eCameraKR7, static_cast<vc::eColorModeIDs>(1)); }, 21,
                  text);
    EXPECT_EQ(channel.GetColorMode(), vc::eColorGray8);

    channel.SetFilter(vc::eFilterNone);
    channel.SetCamera(vc::eCameraType7, static_cast<vc::eColorModeIDs>(1));
    EXPECT_EQ(channel.GetColorMode(), 1);
    EXPECT_EQ(channel.GetCamera().m_nWidth, 640u);
    channel.SetFilter(vc::eFilterSubtractBackground);  // idle: allowed
    channel.SetFilter(vc::eFilterNone);

    ScriptedSDK sdk;
    SDKScope scope(&sdk);
    Host host;
    sdk.Add(Op::GetLiveBitmap, Action::Do(Action::Park));
    ASSERT_TRUE(host.Start(channel, eCaptureLive));
    ExpectVCError([&] { channel.SetFilter(vc::eFilterSubtractBackground); }, 21, text);
    channel.SetFilter(vc::eFilterNone);  // no filter is always fine
    channel.StopCapture();
}

// ---- delivery through the chain ---------------------------------------------

class PipelineTest : public ::testing::Test {
protected:
    ScriptedSDK sdk;
    SDKScope scope{&sdk};
    Host host;
    int images = 0;

    void TearDown() override { EXPECT_TRUE(sdk.LockBalanced()); }

    // Lets the next gated frame through and returns the middle pixel of the
    // image the host gets for it.
    int Next(vc::ClFrameGrabberChannel& channel) {
        sdk.Release();
        if (!host.WaitFor(Event::Image, ++images)) {
            ADD_FAILURE() << "no image " << images;
            channel.StopCapture();
            return -1;
        }
        return host.Events(Event::Image)[images - 1].middle;
    }
};

// A minimal frame grabber for the idle background refresh: GetImage hands out
// a block of one grey value or fails with a last error.
class SnapGrabber : public vc::ClFramegrabber {
public:
    unsigned int result = 0;
    std::string lastError;
    unsigned char fill = 180;
    unsigned int askedChannel = 0;
    unsigned char* handedOut = nullptr;
    unsigned char* freed = nullptr;

    unsigned int GetImage(unsigned int ch, unsigned char** image) override {
        askedChannel = ch;
        if (result != 0) {
            return result;
        }
        ClSimpleBitmap bitmap;
        MakeFrame(bitmap, 160, 120, fill, fill);
        handedOut = reinterpret_cast<unsigned char*>(bitmap.Detach());
        *image = handedOut;
        return 0;
    }
    unsigned int FreeImage(unsigned char* image) override {
        freed = image;
        ClSimpleBitmap::FreeBlock(reinterpret_cast<tagBITMAPINFOHEADER*>(image));
        return 0;
    }
    unsigned int GetLastError(char* buffer, unsigned long& size) override {
        const unsigned long needed = lastError.size() + 1;
        if (buffer == nullptr) {
            size = needed;
            return vc::FGERR_FLAG | 17;
        }
        std::memcpy(buffer, lastError.c_str(), std::min(needed, size));
        size = needed;
        return 0;
    }

// clang-format off
#define KR7_STUB(name, ...) \
    unsigned int name(__VA_ARGS__) override { return 0; }
    KR7_STUB(GetInfo, char*, unsigned long&)
    KR7_STUB(GetVersion, char*, unsigned long&)
    KR7_STUB(SetCamera, unsigned int, vc::eCameraIDs, vc::eColorModeIDs)
    KR7_STUB(StartCapture, int, unsigned int, vc::eCaptureModeIDs, vc::FGImageCallback,
             vc::FGResultCallback, vc::FGErrorCallback, vc::FGWarningCallback, void*)
    KR7_STUB(StopCapture, unsigned int)
    KR7_STUB(SetFilter, unsigned int, vc::eFilterIDs)
    KR7_STUB(RefreshBackGround, unsigned int)
    KR7_STUB(SetResolution, unsigned int, const vc::ClImageResolution&)
    KR7_STUB(SetFGProperty, vc::ePropertyIDs, unsigned int)
    KR7_STUB(GetFGProperty, vc::ePropertyIDs, unsigned int&)
    KR7_STUB(Freeze, unsigned int, bool)
    KR7_STUB(AvailableCameras, vc::eCameraIDs*, unsigned long&)
    KR7_STUB(AvailableColorModes, vc::eColorModeIDs*, unsigned long&)
    KR7_STUB(AvailableDetections, vc::eCaptureModeIDs*, unsigned long&)
    KR7_STUB(AvailableFilters, vc::eFilterIDs*, unsigned long&)
    KR7_STUB(AvailableProperties, vc::ePropertyIDs*, unsigned long&)
    KR7_STUB(EnableEvents, int, unsigned int, vc::FGEventCallback, void*)
    KR7_STUB(WriteEEPROM, const unsigned char*, unsigned long&)
    KR7_STUB(ReadEEPROM, unsigned char*, unsigned long&)
    KR7_STUB(SetAspectRatio, unsigned int, double, double)
    KR7_STUB(AvailableDevices, vc::DeviceInfo*, unsigned long&)
    KR7_STUB(SetActiveDevice, unsigned long)
    KR7_STUB(GetActiveDevice, unsigned long&)
    KR7_STUB(ShowDialog, vc::eDlgIDs, unsigned long)
    KR7_STUB(SaveSetting, unsigned int, unsigned long)
    KR7_STUB(AvailableDialogs, unsigned long, vc::eDlgIDs*, unsigned long&)
    KR7_STUB(SetFGPropertyEx, unsigned int, vc::ePropertyIDs, unsigned long)
    KR7_STUB(GetFGPropertyEx, unsigned int, vc::ePropertyIDs, unsigned long&)
    KR7_STUB(AvailablePropertiesEx, vc::ePropertyIDs*, unsigned long&)
    KR7_STUB(SetCallbacks, unsigned int, vc::FGStartCallback, vc::FGStopCallback)
    KR7_STUB(ContaminationDetection, unsigned long, double*)
#undef KR7_STUB
    // clang-format on
};

TEST_F(PipelineTest, TheFirstFrameAfterEachSettingBecomesTheBackground) {
    // With background subtraction a frame equal to the background comes out
    // white (255); a frame 50 darker than the background comes out 205.
    Channel channel;
    SnapGrabber grabber;
    channel.SetFilter(vc::eFilterSubtractBackground);
    for (unsigned char fill : {200, 150, 150, 100, 100, 50, 50, 20, 20, 10}) {
        sdk.Add(Op::GetLiveBitmap, Action::Gated(fill));
    }
    sdk.Add(Op::GetLiveBitmap, Action::Do(Action::Park));
    ASSERT_TRUE(host.Start(channel, eCaptureLive));

    EXPECT_EQ(Next(channel), 255);  // first frame of the capture
    EXPECT_EQ(Next(channel), 205);
    channel.SetAspectRatio(1.0, 1.0);
    EXPECT_EQ(Next(channel), 255);
    EXPECT_EQ(Next(channel), 205);
    channel.SetResolution(vc::ClImageResolution(1, 1));
    EXPECT_EQ(Next(channel), 255);
    EXPECT_EQ(Next(channel), 205);
    channel.SetFilter(vc::eFilterSubtractBackground);
    EXPECT_EQ(Next(channel), 255);
    EXPECT_EQ(Next(channel), 225);       // 20 below 50
    channel.RefreshBackGround(grabber);  // running: no snap, just the flag
    EXPECT_EQ(grabber.handedOut, nullptr);
    EXPECT_EQ(Next(channel), 255);
    // A new camera rebuilds the chain but keeps the background.
    channel.SetCamera(vc::eCameraKR7, vc::eColorGray8);
    EXPECT_EQ(Next(channel), 245);
    ASSERT_TRUE(sdk.WaitUntilWaiting());  // parked: the script is used up
    EXPECT_FALSE(channel.StopCapture());

    // The next capture starts with a new background.
    sdk.Add(Op::GetLiveBitmap, Action::Gated(10));
    sdk.Add(Op::GetLiveBitmap, Action::Do(Action::Park));
    ASSERT_TRUE(host.Start(channel, eCaptureLive));
    EXPECT_EQ(Next(channel), 255);
    channel.StopCapture();
}

TEST(ChannelBackground, IdleRefreshTakesAnUnfilteredSnap) {
    Channel channel;
    channel.SetChannelIndex(2);
    channel.SetFilter(vc::eFilterSubtractBackground);
    SnapGrabber grabber;
    grabber.fill = 77;
    channel.RefreshBackGround(grabber);

    EXPECT_EQ(grabber.askedChannel, 2u);
    ASSERT_NE(grabber.handedOut, nullptr);
    EXPECT_EQ(grabber.freed, grabber.handedOut);  // given back, not kept
    const ClSimpleBitmap& background = channel.Background();
    ASSERT_FALSE(background.Empty());
    EXPECT_EQ(background.Width(), 160);
    EXPECT_EQ(background.Pixel()[background.BPRow() * 60 + 80], 77);
    EXPECT_EQ(channel.GetFilter(), vc::eFilterSubtractBackground);
}

TEST(ChannelBackground, IdleRefreshReportsTheGrabbersError) {
    Channel channel;
    SnapGrabber grabber;
    grabber.result = vc::FGERR_FLAG | 4;
    grabber.lastError = "Incorrect channel number for frame grabber";
    ExpectVCError([&] { channel.RefreshBackGround(grabber); }, static_cast<int>(grabber.result),
                  "Incorrect channel number for frame grabber");
    EXPECT_TRUE(channel.Background().Empty());
}

}  // namespace
}  // namespace kr7test
