// The channel's settings, the processor chain built from them, background
// refresh and the detection-result gate.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "channel_test_support.h"
#include "framegrabber/norvak_kr7_framegrabber.h"

namespace kr7test {
namespace {

using vc::eCaptureLive;

// ---- the gate ---------------------------------------------------------------

TEST(DetectionGate, NeedsAWideImageWithSomethingInTheMiddleRowBetweenTheMargins) {
    ClSimpleBitmap image;
    EXPECT_FALSE(vc::DetectionResultVisible(image));  // empty
    MakeFrame(image, 100, 21, 255);
    EXPECT_FALSE(vc::DetectionResultVisible(image));  // 100 pixels are too narrow

    // Black in the middle row from column 50 to width - 51, bright just
    // outside and in the other rows: hidden until the last column searched
    // lights up (at width 101 it is also the first).
    for (long width : {101L, 200L}) {
        MakeFrame(image, width, 21, 255);
        unsigned char* middle = image.Pixel() + image.BPRow() * 10;
        std::memset(middle + 50, 0, static_cast<std::size_t>(width - 100));
        EXPECT_FALSE(vc::DetectionResultVisible(image)) << width;
        middle[width - 51] = 7;
        EXPECT_TRUE(vc::DetectionResultVisible(image)) << width;
    }

    // 1 bit per pixel: 200 pixels take 28 bytes a row, fewer than the
    // columns the gate would search; it must not read past the row.
    image.Create(200, 3, 1);
    image.SetBlack();
    EXPECT_FALSE(vc::DetectionResultVisible(image));
    image.Create(200, 0, 8);  // no rows at all
    EXPECT_FALSE(vc::DetectionResultVisible(image));
}

// ---- settings and the chain -------------------------------------------------

using Channel = ProbeChannel<vc::ClFrameGrabberChannel>;

TEST(ChannelSettings, ChainIsFilterFlipAspectRatioRescaleInThatOrder) {
    Channel channel;
    for (auto bad : {std::make_pair(0.99, 2.0), std::make_pair(2.0, std::nan(""))}) {
        ExpectVCError([&] { channel.SetAspectRatio(bad.first, bad.second); }, 25,
                      "The aspect ratio is incorrect. It can be set 1.. ");
    }
    channel.SetFilter(vc::eFilterSubtractBackground);
    channel.SetCamera(vc::eCameraType6, vc::eColorGray8);  // flips both ways, has a resolution
    channel.SetAspectRatio(2.0, 1.5);
    channel.SetResolution(vc::ClImageResolution(19684, 19684));
    channel.InitializeImageProcessing(false);
    EXPECT_FALSE(channel.ProcessingDirty());

    const auto& chain = channel.Chain().Processors();
    ASSERT_EQ(chain.size(), 4u);
    auto it = chain.begin();
    const auto* filter = dynamic_cast<const vc::ClImageFilterProcessor*>(*it++);
    const auto* flip = dynamic_cast<const vc::ClImageFlipProcessor*>(*it++);
    const auto* aspect = dynamic_cast<const vc::ClImageAspectRatioProcessor*>(*it++);
    const auto* rescale = dynamic_cast<const vc::ClImageRescaleProcessor*>(*it);
    ASSERT_TRUE(filter && flip && aspect && rescale);
    EXPECT_NE(dynamic_cast<vc::ClSubtractBackgroundFilter*>(filter->Filter()), nullptr);
    EXPECT_EQ(filter->Background(), &channel.Background());
    EXPECT_TRUE(flip->FlipX() && flip->FlipY());
    EXPECT_EQ(aspect->X(), 2.0);
    EXPECT_EQ(aspect->Y(), 1.5);
    EXPECT_EQ(rescale->Resolution(), vc::ClImageResolution(19684, 19684));

    // Clean: nothing is rebuilt.
    channel.InitializeImageProcessing(false);
    EXPECT_EQ(chain.front(), filter);

    // The KR7 camera has no resolution of its own and does not flip; 1:1
    // needs no aspect-ratio step.
    channel.SetCamera(vc::eCameraKR7, vc::eColorGray8);
    channel.SetAspectRatio(1.0, 1.0);
    channel.InitializeImageProcessing(false);
    ASSERT_EQ(chain.size(), 1u);
    EXPECT_NE(dynamic_cast<const vc::ClImageFilterProcessor*>(chain.front()), nullptr);

    // An unknown filter fails the rebuild, which stays due.
    channel.SetFilter(static_cast<vc::eFilterIDs>(2));
    ExpectVCError([&] { channel.InitializeImageProcessing(false); }, 11,
                  "The filter ID bad or framegrabber does not support");
    EXPECT_TRUE(channel.ProcessingDirty());
}

// The facade with its image calls replaced, for the idle background
// refresh: GetImage hands out a block of one grey value or fails with a
// last error.
class SnapGrabber : public vc::ClNorvakKR7Framegrabber {
public:
    SnapGrabber() : ClNorvakKR7Framegrabber(nullptr) {}
    unsigned int result = 0;
    std::string lastError;
    unsigned char fill = 77;
    unsigned int askedChannel = 0;
    unsigned char* handedOut = nullptr;
    unsigned char* freed = nullptr;

    unsigned int GetImage(unsigned int ch, unsigned char** image) override {
        askedChannel = ch;
        if (result != 0) {
            return result;
        }
        ClSimpleBitmap bitmap;
        MakeFrame(bitmap, 160, 120, fill);
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
        if (buffer != nullptr) {
            std::memcpy(buffer, lastError.c_str(), std::min<std::size_t>(size, lastError.size()));
        }
        size = lastError.size();  // the text may come without its terminator
        return 0;
    }
};

TEST(ChannelBackground, TheFirstFrameAfterEachSettingBecomesTheBackground) {
    // With background subtraction a frame equal to the background comes out
    // white (255); a frame 50 darker than the background comes out 205.
    ScriptedSDK sdk;
    Host host;
    Channel channel;
    SnapGrabber grabber;
    channel.SetFilter(vc::eFilterSubtractBackground);
    for (unsigned char fill : {200, 150, 100, 60, 20, 10, 0}) {
        sdk.Add(Op::GetLiveBitmap, Do(Action::Gate, fill));
    }
    sdk.Add(Op::GetLiveBitmap, Do(Action::Park));
    ASSERT_TRUE(host.Start(channel, eCaptureLive));
    // Lets the next frame through; the middle pixel of the image the host gets.
    int images = 0;
    auto next = [&] {
        sdk.Release();
        return host.WaitFor(Event::Image, ++images) ? host.Events(Event::Image)[images - 1].middle
                                                    : -1;
    };

    EXPECT_EQ(next(), 255);  // first frame of the capture
    EXPECT_EQ(next(), 205);
    channel.SetAspectRatio(1.0, 1.0);
    EXPECT_EQ(next(), 255);
    channel.SetResolution(vc::ClImageResolution(1, 1));
    EXPECT_EQ(next(), 255);
    channel.SetFilter(vc::eFilterSubtractBackground);
    EXPECT_EQ(next(), 255);
    channel.RefreshBackGround(grabber);  // running: no snap, just the flag
    EXPECT_EQ(grabber.handedOut, nullptr);
    EXPECT_EQ(next(), 255);
    // A new camera rebuilds the chain but keeps the background.
    channel.SetCamera(vc::eCameraKR7, vc::eColorGray8);
    EXPECT_EQ(next(), 245);
    ASSERT_TRUE(sdk.WaitUntilWaiting());  // parked: the script is used up
    EXPECT_FALSE(channel.StopCapture());

    // The next capture starts with a new background.
    sdk.Add(Op::GetLiveBitmap, Do(Action::Gate, 0));
    sdk.Add(Op::GetLiveBitmap, Do(Action::Park));
    ASSERT_TRUE(host.Start(channel, eCaptureLive));
    EXPECT_EQ(next(), 255);
    channel.StopCapture();
    EXPECT_TRUE(sdk.LockBalanced());
}

TEST(ChannelBackground, IdleRefreshTakesAnUnfilteredSnapOrReportsTheGrabbersError) {
    Channel channel;
    channel.SetChannelIndex(2);
    channel.SetFilter(vc::eFilterSubtractBackground);
    SnapGrabber grabber;
    channel.RefreshBackGround(grabber);
    EXPECT_EQ(grabber.askedChannel, 2u);
    ASSERT_NE(grabber.handedOut, nullptr);
    EXPECT_EQ(grabber.freed, grabber.handedOut);  // given back, not kept
    const ClSimpleBitmap& background = channel.Background();
    ASSERT_EQ(background.Width(), 160);
    EXPECT_EQ(background.Pixel()[background.BPRow() * 60 + 80], 77);
    EXPECT_EQ(channel.GetFilter(), vc::eFilterSubtractBackground);

    // A failed snap keeps the background and, as hosts have always seen it,
    // leaves the filter off.
    grabber.result = vc::FGERR_FLAG | vc::FGERR_BAD_CHANNEL;
    grabber.lastError = "Incorrect channel number for frame grabber";
    ExpectVCError([&] { channel.RefreshBackGround(grabber); }, static_cast<int>(grabber.result),
                  "Incorrect channel number for frame grabber");
    EXPECT_EQ(background.Pixel()[background.BPRow() * 60 + 80], 77);
    EXPECT_EQ(channel.GetFilter(), vc::eFilterNone);
}

}  // namespace
}  // namespace kr7test
