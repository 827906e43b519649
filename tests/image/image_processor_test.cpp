#include "image/image_processor.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "framegrabber/errors.h"

using Nvk::utilities::ClSimpleBitmap;

namespace {

// An 8-bit bitmap whose pixel bytes, padding included, are `bytes`.
ClSimpleBitmap Grey(long width, long height, const std::vector<unsigned char>& bytes) {
    ClSimpleBitmap bmp;
    bmp.Create(width, height, 8);
    EXPECT_EQ(static_cast<size_t>(bmp.PixelSize()), bytes.size());
    std::memcpy(bmp.Pixel(), bytes.data(), bytes.size());
    return bmp;
}

// A 5×2 frame: 3 padding bytes per row.
ClSimpleBitmap Frame(unsigned char base = 10) {
    std::vector<unsigned char> bytes(16);
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<unsigned char>(base + 13 * i);
    }
    return Grey(5, 2, bytes);
}

std::vector<unsigned char> Block(const ClSimpleBitmap& bmp) {
    return {bmp.Data(), bmp.Data() + bmp.FullSize()};
}

std::vector<unsigned char> Pixels(const ClSimpleBitmap& bmp) {
    return {bmp.Pixel(), bmp.Pixel() + bmp.PixelSize()};
}

ClSimpleBitmap Inverted(const ClSimpleBitmap& bmp) {
    ClSimpleBitmap copy(bmp);
    copy.Invert();
    return copy;
}

struct CountingProcessor : vc::ClImageProcessor {
    explicit CountingProcessor(int* deleted) : m_pDeleted(deleted) {}
    ~CountingProcessor() override { ++*m_pDeleted; }
    void Execute(ClSimpleBitmap&, ClSimpleBitmap&) override {}
    int* m_pDeleted;
};

}  // namespace

// --------------------------------------------------------------------------
// Filters

TEST(ImageFilter, CreateAndClone) {
    std::unique_ptr<vc::ClVCImageFilter> none(vc::ClVCImageFilter::Create(vc::eFilterNone));
    std::unique_ptr<vc::ClVCImageFilter> sub(
        vc::ClVCImageFilter::Create(vc::eFilterSubtractBackground));
    EXPECT_NE(dynamic_cast<vc::ClNoFilter*>(none.get()), nullptr);
    EXPECT_NE(dynamic_cast<vc::ClSubtractBackgroundFilter*>(sub.get()), nullptr);
    EXPECT_EQ(vc::ClVCImageFilter::Create(2), nullptr);
    EXPECT_EQ(vc::ClVCImageFilter::Create(-1), nullptr);

    std::unique_ptr<vc::ClVCImageFilter> noneCopy(none->clone());
    std::unique_ptr<vc::ClVCImageFilter> subCopy(sub->clone());
    EXPECT_NE(noneCopy.get(), none.get());
    EXPECT_NE(dynamic_cast<vc::ClNoFilter*>(noneCopy.get()), nullptr);
    EXPECT_NE(subCopy.get(), sub.get());
    EXPECT_NE(dynamic_cast<vc::ClSubtractBackgroundFilter*>(subCopy.get()), nullptr);
}

TEST(ImageFilter, SubtractBackgroundDarkensAndKeepsPadding) {
    // Row 0: frame vs background pixel by pixel; row 1 all equal. Padding
    // bytes differ between frame and background.
    ClSimpleBitmap frame = Grey(5, 2,
                                {150, 200, 77, 0, 0, 1, 2, 3,  //
                                 9, 9, 9, 9, 9, 4, 5, 6});
    ClSimpleBitmap back = Grey(5, 2,
                               {200, 150, 77, 1, 255, 90, 90, 90,  //
                                9, 9, 9, 9, 9, 90, 90, 90});
    ClSimpleBitmap out;
    vc::ClSubtractBackgroundFilter filter;
    filter.Do(&frame, &back, &out);
    EXPECT_EQ(Pixels(out), (std::vector<unsigned char>{205, 255, 255, 254, 0, 1, 2, 3,  //
                                                       255, 255, 255, 255, 255, 4, 5, 6}));
    // Header and colour table are the frame's.
    EXPECT_EQ(std::memcmp(out.Data(), frame.Data(), 1064), 0);

    // In place (out is the frame) gives the same.
    ClSimpleBitmap expected(out);
    filter.Do(&frame, &back, &frame);
    EXPECT_EQ(Block(frame), Block(expected));

    // A second frame of the same size reuses the output block.
    const unsigned char* block = out.Data();
    ClSimpleBitmap frame2 = Frame();
    filter.Do(&frame2, &back, &out);
    EXPECT_EQ(out.Data(), block);
}

TEST(ImageFilter, SubtractBackgroundReadsBackgroundWithFrameStride) {
    // Background 8 wide: row 1 of a 4-wide frame meets bytes 4..7 of the
    // background's first row.
    ClSimpleBitmap frame = Grey(4, 2, {100, 100, 100, 100, 100, 100, 100, 100});
    std::vector<unsigned char> bytes(16, 100);
    bytes[4] = 110;
    bytes[8] = 150;
    ClSimpleBitmap back = Grey(8, 2, bytes);
    ClSimpleBitmap out;
    vc::ClSubtractBackgroundFilter().Do(&frame, &back, &out);
    EXPECT_EQ(Pixels(out), (std::vector<unsigned char>{255, 255, 255, 255, 245, 255, 255, 255}));
}

TEST(ImageFilter, SubtractBackgroundPassesOtherFramesThrough) {
    vc::ClSubtractBackgroundFilter filter;
    ClSimpleBitmap frame = Frame();
    ClSimpleBitmap back = Frame(200);
    ClSimpleBitmap emptyBack;
    ClSimpleBitmap colourBack;
    colourBack.Create(5, 2, 24);
    colourBack.SetWhite();
    ClSimpleBitmap shortBack = Grey(5, 1, std::vector<unsigned char>(8, 255));
    ClSimpleBitmap colour;
    colour.Create(5, 2, 24);
    colour.SetBlack();

    struct Case {
        ClSimpleBitmap* in;
        ClSimpleBitmap* back;
    } cases[] = {{&frame, nullptr},
                 {&frame, &emptyBack},
                 {&frame, &colourBack},
                 {&frame, &shortBack},
                 {&colour, &back}};
    for (const Case& c : cases) {
        ClSimpleBitmap out = Frame(99);
        filter.Do(c.in, c.back, &out);
        EXPECT_EQ(Block(out), Block(*c.in));
    }

    // The 5×2 frame reads background bytes up to 8 + 5 = 13: 12 bytes of
    // rows are too few, 16 (of a single wide row) are enough.
    ClSimpleBitmap out;
    ClSimpleBitmap twelve = Grey(12, 1, std::vector<unsigned char>(12, 0));
    filter.Do(&frame, &twelve, &out);
    EXPECT_EQ(Block(out), Block(frame));
    ClSimpleBitmap thirteen = Grey(13, 1, std::vector<unsigned char>(16, 0));
    filter.Do(&frame, &thirteen, &out);
    EXPECT_EQ(Pixels(out)[12], 255);  // black background: all white

    // Null arguments do nothing.
    filter.Do(nullptr, &back, &out);
    filter.Do(&frame, &back, nullptr);
    EXPECT_EQ(Pixels(out)[12], 255);
}

TEST(ImageFilter, SubtractBackgroundIntoTheBackgroundComparesTheFrameWithItself) {
    // The output copy of the frame replaces the background before it is read.
    ClSimpleBitmap frame = Frame();
    ClSimpleBitmap back = Frame(200);
    vc::ClSubtractBackgroundFilter().Do(&frame, &back, &back);
    const std::vector<unsigned char> pixels = Pixels(back);
    for (int y = 0; y < 2; ++y) {
        for (int x = 0; x < 8; ++x) {
            EXPECT_EQ(pixels[y * 8 + x], x < 5 ? 255 : frame.Pixel()[y * 8 + x]);
        }
    }
}

TEST(ImageFilter, NoFilterCopies) {
    ClSimpleBitmap frame = Frame();
    ClSimpleBitmap out;
    vc::ClNoFilter().Do(&frame, nullptr, &out);
    EXPECT_EQ(Block(out), Block(frame));
}

// --------------------------------------------------------------------------
// Processors and the chain

TEST(ImageProcessor, SingleProcessors) {
    ClSimpleBitmap frame = Frame();
    const ClSimpleBitmap before = Frame(99);
    ClSimpleBitmap out;

    vc::ClImageInvertProcessor invert;
    invert.Execute(frame, out);
    EXPECT_EQ(Block(out), Block(Inverted(frame)));  // padding included

    vc::ClImageAspectRatioProcessor aspect;
    EXPECT_EQ(aspect.X(), 0.0);
    out = before;
    aspect.Execute(frame, out);
    EXPECT_EQ(Block(out), Block(frame));

    // Flip and rescale carry settings and write nothing.
    vc::ClImageFlipProcessor flip(true, false);
    vc::ClImageRescaleProcessor rescale(vc::ClImageResolution(19684, 19684));
    EXPECT_TRUE(flip.FlipX());
    EXPECT_EQ(rescale.Resolution(), vc::ClImageResolution(19684, 19684));
    out = before;
    flip.Execute(frame, out);
    rescale.Execute(frame, out);
    EXPECT_EQ(Block(out), Block(before));

    // A filter processor without a filter passes the image through; with one
    // it follows the background it points to, not a copy of it.
    vc::ClImageFilterProcessor noFilter;
    noFilter.Execute(frame, out);
    EXPECT_EQ(Block(out), Block(frame));
    ClSimpleBitmap back = Frame();
    vc::ClImageFilterProcessor filter(vc::ClVCImageFilter::Create(1), &back);
    back.SetBlack();
    filter.Execute(frame, out);
    EXPECT_EQ(Pixels(out)[0], 255);
    back.SetWhite();
    filter.Execute(frame, out);
    EXPECT_EQ(Pixels(out)[0], frame.Pixel()[0]);
}

TEST(ImageProcessor, EmptyChainCopies) {
    vc::ClImageMacroProcessor chain;
    chain.RemoveAll();
    ClSimpleBitmap frame = Frame();
    ClSimpleBitmap out = Frame(99);
    chain.Execute(frame, out);
    EXPECT_EQ(Block(out), Block(frame));
    EXPECT_EQ(Block(frame), Block(Frame()));  // the input is left alone
}

// Which image each chain delivers: processors that write nothing leave the
// image before them (or the caller's `out`) as the result.
TEST(ImageProcessor, ChainResults) {
    enum Kind { Invert, Flip, Aspect, Rescale, Subtract };
    enum Result { Input, InputInverted, Subtracted, OutBefore };
    struct Case {
        std::vector<Kind> chain;
        Result result;
    } cases[] = {
        {{Invert}, InputInverted},
        {{Invert, Flip}, Input},
        {{Flip}, OutBefore},
        {{Rescale}, OutBefore},
        {{Aspect}, Input},
        {{Invert, Aspect}, InputInverted},
        {{Invert, Invert}, Input},
        {{Subtract}, Subtracted},
        {{Subtract, Flip}, Input},
        {{Subtract, Aspect}, Subtracted},
        {{Subtract, Flip, Aspect}, Input},
        {{Subtract, Flip, Aspect, Rescale}, Input},
        {{Subtract, Aspect, Rescale}, Subtracted},
        {{Subtract, Rescale, Aspect, Flip}, Input},
    };
    ClSimpleBitmap back = Frame(40);
    ClSimpleBitmap subtracted;
    ClSimpleBitmap frame = Frame();
    vc::ClSubtractBackgroundFilter().Do(&frame, &back, &subtracted);
    const ClSimpleBitmap before = Frame(99);

    int index = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(index++);
        vc::ClImageMacroProcessor chain;
        for (Kind k : c.chain) {
            switch (k) {
                case Invert:
                    chain.Add(new vc::ClImageInvertProcessor);
                    break;
                case Flip:
                    chain.Add(new vc::ClImageFlipProcessor(false, true));
                    break;
                case Aspect:
                    chain.Add(new vc::ClImageAspectRatioProcessor(2.0, 1.0));
                    break;
                case Rescale:
                    chain.Add(new vc::ClImageRescaleProcessor(vc::ClImageResolution(1, 1)));
                    break;
                case Subtract:
                    chain.Add(
                        new vc::ClImageFilterProcessor(vc::ClVCImageFilter::Create(1), &back));
                    break;
            }
        }
        // Two frames through the same chain: the working buffer is reused.
        for (int round = 0; round < 2; ++round) {
            ClSimpleBitmap out = before;
            chain.Execute(frame, out);
            const ClSimpleBitmap* expected = c.result == Input        ? &frame
                                             : c.result == Subtracted ? &subtracted
                                             : c.result == OutBefore  ? &before
                                                                      : nullptr;
            EXPECT_EQ(Block(out), expected ? Block(*expected) : Block(Inverted(frame)));
        }
    }
}

TEST(ImageProcessor, ChainFollowsFrameSizeChanges) {
    vc::ClImageMacroProcessor chain;
    chain.Add(new vc::ClImageInvertProcessor);
    chain.Add(new vc::ClImageFlipProcessor);  // the result is the working copy
    ClSimpleBitmap out;
    for (long width : {5L, 5L, 9L, 3L, 3L}) {
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

TEST(ImageProcessor, ChainOwnsItsProcessors) {
    int deleted = 0;
    {
        vc::ClImageMacroProcessor chain;
        chain.Add(new CountingProcessor(&deleted));
        chain.Add(nullptr);  // ignored
        chain.Add(new CountingProcessor(&deleted));
        EXPECT_EQ(chain.Processors().size(), 2u);
        chain.RemoveAll();
        EXPECT_EQ(deleted, 2);
        EXPECT_TRUE(chain.Processors().empty());
        chain.Add(new CountingProcessor(&deleted));
    }
    EXPECT_EQ(deleted, 3);
}

TEST(ImageProcessor, ChainPassesAllocationFailuresOn) {
    vc::ClImageMacroProcessor chain;
    chain.Add(new vc::ClImageInvertProcessor);
    ClSimpleBitmap damaged = Frame();
    damaged.Header()->biHeight = -2;
    ClSimpleBitmap out;
    EXPECT_THROW(chain.Execute(damaged, out), Nvk::CXMemoryAllocException);
    EXPECT_EQ(chain.Processors().size(), 1u);
    ClSimpleBitmap frame = Frame();
    chain.Execute(frame, out);
    EXPECT_EQ(Block(out), Block(Inverted(frame)));
}

// --------------------------------------------------------------------------
// ClImageFlip

TEST(ImageFlip, FlipYReversesRows) {
    vc::ClImageFlip flip;
    ClSimpleBitmap frame = Grey(3, 3, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12});
    ClSimpleBitmap out;
    flip.FlipY(frame, out);
    EXPECT_EQ(Pixels(out), (std::vector<unsigned char>{9, 10, 11, 12, 5, 6, 7, 8, 1, 2, 3, 4}));
    flip.FlipY(frame, frame);
    EXPECT_EQ(Block(frame), Block(out));
}

TEST(ImageFlip, FlipXMovesWholeImageSizedElementsOnlyWhereTheyFit) {
    // The element is the whole pixel area: only a single-element image has
    // one that fits, and it lands where it was.
    vc::ClImageFlip flip;
    ClSimpleBitmap one = Grey(1, 1, {7, 8, 9, 10});
    ClSimpleBitmap column = Grey(1, 3, {1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0});
    ClSimpleBitmap frame = Frame();
    for (ClSimpleBitmap* in : {&one, &column, &frame}) {
        ClSimpleBitmap out = Frame(99);
        flip.FlipX(*in, out);
        EXPECT_EQ(Block(out), Block(*in));
        flip.FlipXY(*in, out);
        EXPECT_EQ(Block(out), Block(*in));
        const ClSimpleBitmap copy(*in);
        flip.FlipXY(*in, *in);
        EXPECT_EQ(Block(*in), Block(copy));
    }
}
