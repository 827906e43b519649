#include <gtest/gtest.h>

#include <memory>

#include "detection/image_detection.h"
#include "detection/rolled_finger.h"
#include "frames.h"

namespace {

using frames::Bitmap;
using vc::ClImageDetection;

TEST(DetectionFactory, OneDetectorPerCaptureMode) {
    for (int mode = 0; mode <= 4; ++mode) {
        std::unique_ptr<ClImageDetection> detector(
            ClImageDetection::Create(static_cast<vc::eCaptureModeIDs>(mode)));
        ASSERT_NE(detector, nullptr) << mode;
        EXPECT_EQ(detector->Type(), mode);
    }
    std::unique_ptr<ClImageDetection> rolled(ClImageDetection::Create(vc::eCaptureRolledFinger));
    EXPECT_NE(dynamic_cast<vc::ClRolledFingerVC1*>(rolled.get()), nullptr);
    for (int mode : {5, 6, 100, -1}) {
        EXPECT_EQ(ClImageDetection::Create(static_cast<vc::eCaptureModeIDs>(mode)), nullptr);
    }
}

TEST(LiveAndPreview, LiveDeliversEveryFramePreviewNone) {
    vc::ClLiveDetection live;
    Bitmap output;
    Bitmap first = frames::Uniform(16, 4, 250);
    EXPECT_TRUE(live.Detect(first, output));
    EXPECT_TRUE(frames::SamePixels(output, first));
    const auto* block = output.Header();
    Bitmap second = frames::Band(16, 4, 2, 6, 90);
    EXPECT_TRUE(live.Detect(second, output));
    EXPECT_TRUE(frames::SamePixels(output, second));
    EXPECT_EQ(output.Header(), block);  // same size: block reused

    vc::ClPreviewDetection preview;
    Bitmap untouched = frames::Uniform(8, 2, 7);
    EXPECT_FALSE(preview.Detect(second, untouched));
    EXPECT_EQ(frames::At(untouched, 0, 0), 7);
}

TEST(PlainFinger, MiddleRowMustAverageBelowThreshold) {
    vc::ClPlainFingerDetection plain(240);
    Bitmap output;
    Bitmap frame = frames::Uniform(64, 9, 250);
    std::memset(frames::Row(frame, 0), 0, 64);  // other rows do not count
    std::memset(frames::Row(frame, 4), 240, 64);
    EXPECT_FALSE(plain.Detect(frame, output));
    EXPECT_TRUE(frames::SamePixels(output, frame));
    frames::Row(frame, 4)[10] = 176;  // average 239
    EXPECT_TRUE(plain.Detect(frame, output));

    // Only the low byte of the threshold is used.
    vc::ClPlainFingerDetection wide(256 + 240);
    EXPECT_TRUE(wide.Detect(frame, output));
    frames::Row(frame, 4)[10] = 240;
    EXPECT_FALSE(wide.Detect(frame, output));
}

TEST(PlainFinger, BlackMiddleRowIsNoFinger) {
    vc::ClPlainFingerDetection plain(240);
    Bitmap frame = frames::Uniform(32, 5, 0);
    Bitmap output;
    EXPECT_TRUE(plain.BlackImage(frame));
    EXPECT_FALSE(plain.Detect(frame, output));  // although the sum is 0
    EXPECT_TRUE(frames::SamePixels(output, frame));
    frames::Row(frame, 2)[31] = 1;
    EXPECT_FALSE(plain.BlackImage(frame));
    EXPECT_TRUE(plain.Detect(frame, output));

    Bitmap empty;
    EXPECT_TRUE(plain.BlackImage(empty));
    EXPECT_FALSE(plain.Detect(empty, output));
    EXPECT_TRUE(output.Empty());
}

TEST(PlainFinger, OddWidthCountsTheAlignmentByte) {
    vc::ClPlainFingerDetection plain(240);
    Bitmap frame = frames::Uniform(5, 3, 200);  // limit 5 × 240 = 1200
    Bitmap output;
    frames::Row(frame, 1)[5] = 199;  // pixels 1000 + alignment byte
    unsigned long sum = 0;
    EXPECT_TRUE(plain.LineDetect(frames::Row(frame, 1), 5, sum));
    EXPECT_EQ(sum, 1199u);
    EXPECT_TRUE(plain.Detect(frame, output));
    frames::Row(frame, 1)[5] = 200;
    EXPECT_FALSE(plain.Detect(frame, output));
}

TEST(FastPlainFinger, DeliversTheDarkestFrameWhenLifted) {
    vc::ClFastPlainFingerDetection fast;
    const Bitmap bright = frames::Uniform(40, 20, 250);
    const Bitmap dark = frames::Band(40, 20, 5, 30, 120);
    const Bitmap darker = frames::Band(40, 20, 5, 35, 80);
    Bitmap output;
    EXPECT_EQ(frames::Feed(fast, {bright}, output), "F");
    EXPECT_EQ(fast.ReferenceGraySum(), 250 * 800);
    EXPECT_TRUE(frames::SamePixels(output, bright));

    EXPECT_EQ(frames::Feed(fast, {dark, darker, dark}, output), "FFF");
    EXPECT_TRUE(frames::SamePixels(output, dark));  // the frame itself meanwhile
    EXPECT_EQ(fast.ImprovementCount(), 2);
    EXPECT_EQ(frames::Feed(fast, {bright}, output), "T");
    EXPECT_TRUE(frames::SamePixels(output, darker));
    EXPECT_EQ(fast.ImprovementCount(), 0);
    EXPECT_EQ(fast.BestGraySum(), fast.ReferenceGraySum());

    // The next placement starts again from the reference.
    EXPECT_EQ(frames::Feed(fast, {bright, dark, bright, bright}, output), "FFTF");
    EXPECT_TRUE(frames::SamePixels(output, bright));
}

TEST(FastPlainFinger, NothingDarkerThanTheReferenceIsNoResult) {
    vc::ClFastPlainFingerDetection fast;
    const Bitmap placed = frames::Uniform(40, 20, 200);  // first frame already dark
    Bitmap output;
    EXPECT_EQ(
        frames::Feed(fast,
                     {placed, frames::Uniform(40, 20, 230), placed, frames::Uniform(40, 20, 250)},
                     output),
        "FFFF");
    EXPECT_EQ(fast.ReferenceGraySum(), 200 * 800);

    // A frame at average 242 is no finger, at 241 it is.
    EXPECT_FALSE(fast.IsFinger(frames::Uniform(4, 4, 242)));
    EXPECT_TRUE(fast.IsFinger(frames::Uniform(4, 4, 241)));
}

TEST(FastPlainFinger, CopiesAreIndependent) {
    vc::ClFastPlainFingerDetection fast;
    Bitmap output;
    frames::Feed(fast, {frames::Uniform(40, 20, 250), frames::Band(40, 20, 0, 20, 60)}, output);
    vc::ClFastPlainFingerDetection copy(fast);
    frames::Feed(fast, {frames::Band(40, 20, 0, 40, 10)}, output);
    EXPECT_EQ(frames::Feed(copy, {frames::Uniform(40, 20, 250)}, output), "T");
    EXPECT_TRUE(frames::SamePixels(output, frames::Band(40, 20, 0, 20, 60)));
    copy = fast;
    EXPECT_EQ(copy.BestGraySum(), fast.BestGraySum());
    EXPECT_TRUE(frames::SamePixels(copy.BestImage(), fast.BestImage()));
}

}  // namespace
