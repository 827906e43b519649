#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "detection/bitmap_utilities.h"
#include "detection/image_detection.h"
#include "frames.h"

namespace {

using frames::Bitmap;
using vc::ClImageDetection;

// The channel hands detectors that say they assign their output the same
// result bitmap frame after frame: what an earlier frame left in it must
// never change what a frame gives. Each detector sees the same sequence once
// with an empty output every frame and once with one reused output. (The
// factory's answer for other modes is StartCapture's error 51, in the
// facade's and the channel's tests.)
TEST(DetectionFactory, DetectorsThatAssignTheirOutputIgnoreWhatItHeld) {
    const std::vector<Bitmap> sequence = {
        frames::Uniform(64, 8, 250),     frames::Band(64, 8, 10, 20, 90),
        frames::Band(64, 8, 10, 30, 60), frames::Band(64, 8, 20, 40, 40),
        frames::Uniform(64, 8, 250),     frames::Band(32, 8, 4, 8, 10),
        frames::Band(64, 8, 0, 64, 0),   frames::Uniform(64, 8, 250)};
    for (int mode : {0, 1, 2, 3}) {
        std::unique_ptr<ClImageDetection> fresh(
            ClImageDetection::Create(static_cast<vc::eCaptureModeIDs>(mode)));
        std::unique_ptr<ClImageDetection> reused(
            ClImageDetection::Create(static_cast<vc::eCaptureModeIDs>(mode)));
        ASSERT_TRUE(fresh && fresh->AssignsOutput()) << mode;
        EXPECT_EQ(fresh->Type(), mode);
        Bitmap kept = frames::Uniform(100, 3, 7);  // another format, other pixels
        for (std::size_t i = 0; i < sequence.size(); ++i) {
            Bitmap a = sequence[i];
            Bitmap b = sequence[i];
            Bitmap empty;
            EXPECT_EQ(fresh->Detect(a, empty), reused->Detect(b, kept)) << mode << " " << i;
            EXPECT_EQ(empty.Empty(), kept.Empty()) << mode << " " << i;
            EXPECT_EQ(empty.Width() * 1000 + empty.Height(), kept.Width() * 1000 + kept.Height());
            EXPECT_TRUE(frames::SamePixels(empty, kept)) << mode << " " << i;
        }
    }
    std::unique_ptr<ClImageDetection> preview(ClImageDetection::Create(vc::eCapturePreview));
    EXPECT_FALSE(preview->AssignsOutput());  // leaves its output alone
    EXPECT_EQ(preview->Type(), vc::eCapturePreview);
}

// The plug-in makes its plain detector with a threshold of 240 only.
TEST(PlainFinger, MiddleRowMustAverageBelowTheThreshold) {
    vc::ClPlainFingerDetection plain(240);
    Bitmap output;
    Bitmap frame = frames::Uniform(64, 9, 250);
    std::memset(frames::Row(frame, 0), 0, 64);  // other rows do not count
    std::memset(frames::Row(frame, 4), 240, 64);
    EXPECT_FALSE(plain.Detect(frame, output));
    EXPECT_TRUE(frames::SamePixels(output, frame));
    frames::Row(frame, 4)[10] = 176;  // average 239
    EXPECT_TRUE(plain.Detect(frame, output));
    std::memset(frames::Row(frame, 4), 0, 64);
    EXPECT_FALSE(plain.Detect(frame, output));  // a black row, although its sum is 0
    frames::Row(frame, 4)[63] = 1;
    EXPECT_TRUE(plain.Detect(frame, output));

    // An odd width sums the alignment byte after the row too.
    frame = frames::Uniform(5, 3, 200);  // limit 5 × 240 = 1200
    frames::Row(frame, 1)[5] = 199;      // pixels 1000 + alignment byte
    EXPECT_TRUE(plain.Detect(frame, output));
    frames::Row(frame, 1)[5] = 200;
    EXPECT_FALSE(plain.Detect(frame, output));
    Bitmap empty;
    EXPECT_FALSE(plain.Detect(empty, output));
    EXPECT_TRUE(output.Empty());
}

TEST(GrayUtilities, SumAndAverageCountPixelsNotPadding) {
    Bitmap image = frames::Uniform(5, 3, 100);  // 3 padding bytes per row
    for (long y = 0; y < 3; ++y) {
        std::memset(frames::Row(image, y) + 5, 255, 3);
    }
    EXPECT_EQ(vc::ClBitmapUtilities::Gray_Sum(image), 1500);
    EXPECT_EQ(vc::ClBitmapUtilities::Gray_Avarage(image), 100);
    EXPECT_EQ(vc::ClBitmapUtilities::Gray_Avarage(image, 0, 5), 100);
    EXPECT_EQ(vc::ClBitmapUtilities::Gray_Sum(Bitmap()), 0);
    EXPECT_EQ(vc::ClBitmapUtilities::Gray_Avarage(Bitmap()), 0);
    EXPECT_EQ(vc::ClBitmapUtilities::Gray_Avarage(image, 3, 3), 0);  // empty strips
    EXPECT_EQ(vc::ClBitmapUtilities::Gray_Avarage(image, 4, 2), 0);
}

TEST(FastPlainFinger, DeliversTheDarkestFrameWhenLifted) {
    vc::ClFastPlainFingerDetection fast;
    const Bitmap bright = frames::Uniform(40, 20, 250);
    const Bitmap dark = frames::Band(40, 20, 5, 30, 120);
    const Bitmap darker = frames::Band(40, 20, 5, 35, 80);
    Bitmap output;
    EXPECT_EQ(frames::Feed(fast, {bright}, output), "F");
    EXPECT_TRUE(frames::SamePixels(output, bright));
    EXPECT_EQ(frames::Feed(fast, {dark, darker, dark}, output), "FFF");
    EXPECT_TRUE(frames::SamePixels(output, dark));  // the frame itself meanwhile

    // Copies carry the placement on independently of the original.
    vc::ClFastPlainFingerDetection copy(fast);
    vc::ClFastPlainFingerDetection assigned;
    assigned = fast;
    EXPECT_EQ(copy.BestGraySum(), fast.BestGraySum());
    EXPECT_EQ(assigned.BestGraySum(), fast.BestGraySum());
    const Bitmap black = frames::Uniform(40, 20, 10);
    frames::Feed(fast, {black}, output);
    for (vc::ClFastPlainFingerDetection* d : {&fast, &copy, &assigned}) {
        EXPECT_EQ(frames::Feed(*d, {bright}, output), "T");
        EXPECT_TRUE(frames::SamePixels(output, d == &fast ? black : darker));
    }
    // The next placement starts again from the reference.
    EXPECT_EQ(frames::Feed(fast, {bright, dark, bright, bright}, output), "FFTF");
    EXPECT_TRUE(frames::SamePixels(output, bright));
}

TEST(FastPlainFinger, NothingDarkerThanTheReferenceIsNoResult) {
    vc::ClFastPlainFingerDetection fast;
    const Bitmap placed = frames::Uniform(40, 20, 200);  // first frame already dark
    const Bitmap lighter = frames::Uniform(40, 20, 230);
    Bitmap output;
    EXPECT_EQ(frames::Feed(fast, {placed, lighter, placed, frames::Uniform(40, 20, 250)}, output),
              "FFFF");
    // A frame at average 242 is no finger, at 241 it is.
    EXPECT_FALSE(fast.IsFinger(frames::Uniform(4, 4, 242)));
    EXPECT_TRUE(fast.IsFinger(frames::Uniform(4, 4, 241)));
    vc::ClFastPlainFingerDetection fresh;
    const Bitmap bright = frames::Uniform(40, 20, 250);
    EXPECT_EQ(frames::Feed(fresh,
                           {bright, frames::Uniform(40, 20, 242), bright,
                            frames::Uniform(40, 20, 241), bright},
                           output),
              "FFFFT");
}

}  // namespace
