#include "image/image_processor.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "base/errors.h"

using Nvk::utilities::ClSimpleBitmap;
using Bytes = std::vector<unsigned char>;

namespace {

// An 8-bit bitmap whose pixel bytes, padding included, are `bytes`.
ClSimpleBitmap Grey(long width, long height, const Bytes& bytes) {
    ClSimpleBitmap bmp;
    bmp.Create(width, height, 8);
    EXPECT_EQ(static_cast<size_t>(bmp.PixelSize()), bytes.size());
    std::memcpy(bmp.Pixel(), bytes.data(), bytes.size());
    return bmp;
}

// A 5×2 frame: 3 padding bytes per row.
ClSimpleBitmap Frame(unsigned char base = 10) {
    Bytes bytes(16);
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<unsigned char>(base + 13 * i);
    }
    return Grey(5, 2, bytes);
}

Bytes Block(const ClSimpleBitmap& bmp) {
    return {bmp.Data(), bmp.Data() + bmp.FullSize()};
}

Bytes Pixels(const ClSimpleBitmap& bmp) {
    return {bmp.Pixel(), bmp.Pixel() + bmp.PixelSize()};
}

ClSimpleBitmap Inverted(const ClSimpleBitmap& bmp) {
    ClSimpleBitmap copy(bmp);
    copy.Invert();
    return copy;
}

}  // namespace

TEST(ImageFilter, SubtractBackgroundDarkensAndKeepsPadding) {
    // Row 0: frame vs background pixel by pixel; row 1 all equal. Padding
    // bytes differ between frame and background.
    ClSimpleBitmap frame = Grey(5, 2, {150, 200, 77, 0, 0, 1, 2, 3, 9, 9, 9, 9, 9, 4, 5, 6});
    ClSimpleBitmap back = Grey(5, 2, {200, 150, 77, 1, 255, 90, 90, 90, 9, 9, 9, 9, 9, 90, 90, 90});
    ClSimpleBitmap out;
    vc::ClSubtractBackgroundFilter filter;
    filter.Do(&frame, &back, &out);
    EXPECT_EQ(Pixels(out),
              (Bytes{205, 255, 255, 254, 0, 1, 2, 3, 255, 255, 255, 255, 255, 4, 5, 6}));
    EXPECT_EQ(std::memcmp(out.Data(), frame.Data(), 1064), 0);  // the frame's header and table

    ClSimpleBitmap expected(out);
    filter.Do(&frame, &back, &frame);  // in place gives the same
    EXPECT_EQ(Block(frame), Block(expected));
}

TEST(ImageFilter, SubtractBackgroundPassesOtherFramesThrough) {
    vc::ClSubtractBackgroundFilter filter;
    ClSimpleBitmap frame = Frame();
    ClSimpleBitmap back = Frame(200);
    ClSimpleBitmap emptyBack;
    ClSimpleBitmap colour;
    colour.Create(5, 2, 24);
    colour.SetBlack();
    // The 5×2 frame reads background bytes up to 8 + 5 = 13: 12 bytes of
    // rows are too few.
    ClSimpleBitmap twelve = Grey(12, 1, Bytes(12, 0));

    const std::pair<ClSimpleBitmap*, ClSimpleBitmap*> cases[] = {
        {&frame, nullptr}, {&frame, &emptyBack}, {&frame, &colour},
        {&frame, &twelve}, {&colour, &back},
    };
    for (const auto& c : cases) {
        ClSimpleBitmap out = Frame(99);
        filter.Do(c.first, c.second, &out);
        EXPECT_EQ(Block(out), Block(*c.first));
    }
    ClSimpleBitmap out;
    // 16 bytes of one wide row suffice, read with the frame's row stride:
    // row 1 of the frame meets bytes 8..12.
    Bytes bytes(16, 0);
    bytes[8] = 255;
    ClSimpleBitmap thirteen = Grey(13, 1, bytes);
    filter.Do(&frame, &thirteen, &out);
    EXPECT_EQ(Pixels(out)[8], frame.Pixel()[8]);
    EXPECT_EQ(Pixels(out)[12], 255);

    filter.Do(nullptr, &back, &out);  // null arguments do nothing
    filter.Do(&frame, &back, nullptr);
    EXPECT_EQ(Pixels(out)[12], 255);
}

// Which image each chain delivers: processors that write nothing leave the
// image before them (or the caller's `out`) as the result.
TEST(ImageProcessor, ChainResults) {
    enum Result { Input, InputInverted, Subtracted, OutBefore };
    // I invert, F flip, A aspect ratio, R rescale, S subtract background.
    const std::pair<const char*, Result> cases[] = {
        {"", Input},       {"I", InputInverted}, {"IF", Input},         {"F", OutBefore},
        {"R", OutBefore},  {"A", Input},         {"IA", InputInverted}, {"II", Input},
        {"S", Subtracted}, {"SF", Input},        {"SA", Subtracted},    {"SFA", Input},
        {"SFAR", Input},   {"SAR", Subtracted},  {"SRAF", Input},
    };
    ClSimpleBitmap back = Frame(40);
    ClSimpleBitmap subtracted;
    ClSimpleBitmap frame = Frame();
    vc::ClSubtractBackgroundFilter().Do(&frame, &back, &subtracted);
    const ClSimpleBitmap before = Frame(99);
    const ClSimpleBitmap* results[] = {&frame, nullptr, &subtracted, &before};

    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        vc::ClImageMacroProcessor chain;
        for (const char* k = c.first; *k; ++k) {
            chain.Add(*k == 'I'   ? new vc::ClImageInvertProcessor
                      : *k == 'F' ? new vc::ClImageFlipProcessor(false, true)
                      : *k == 'A' ? new vc::ClImageAspectRatioProcessor(2.0, 1.0)
                      : *k == 'R'
                          ? new vc::ClImageRescaleProcessor(vc::ClImageResolution(1, 1))
                          : static_cast<vc::ClImageProcessor*>(new vc::ClImageFilterProcessor(
                                vc::ClVCImageFilter::Create(1), &back)));
        }
        // Two frames through the same chain: the working buffer is reused.
        for (int round = 0; round < 2; ++round) {
            ClSimpleBitmap out = before;
            chain.Execute(frame, out);
            const ClSimpleBitmap* expected = results[c.second];
            EXPECT_EQ(Block(out), expected ? Block(*expected) : Block(Inverted(frame)));
            EXPECT_EQ(Block(frame), Block(Frame()));  // the input is left alone
        }
    }
}

TEST(ImageProcessor, ChainFollowsFrameSizeChanges) {
    vc::ClImageMacroProcessor chain;
    chain.Add(new vc::ClImageInvertProcessor);
    chain.Add(new vc::ClImageFlipProcessor);  // the result is the working copy
    ClSimpleBitmap out;
    for (long width : {5L, 5L, 9L, 3L}) {
        ClSimpleBitmap frame;
        frame.Create(width, 4, 8);
        for (long i = 0; i < frame.PixelSize(); ++i) {
            frame.Pixel()[i] = static_cast<unsigned char>(i + width);
        }
        chain.Execute(frame, out);
        EXPECT_EQ(Block(out), Block(frame));
    }
    ClSimpleBitmap empty;
    chain.Execute(empty, out);
    EXPECT_TRUE(out.Empty());
}

TEST(ImageProcessor, ChainPassesAllocationFailuresOn) {
    vc::ClImageMacroProcessor chain;
    chain.Add(new vc::ClImageInvertProcessor);
    ClSimpleBitmap damaged = Frame();
    damaged.Header()->biHeight = -2;
    ClSimpleBitmap out;
    EXPECT_THROW(chain.Execute(damaged, out), Nvk::CXMemoryAllocException);
    ClSimpleBitmap frame = Frame();
    chain.Execute(frame, out);
    EXPECT_EQ(Block(out), Block(Inverted(frame)));
}
