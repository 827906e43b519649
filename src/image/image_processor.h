// The processor chain a capture channel runs on every frame, its processors
// and the stand-alone flip operations.
#pragma once

#include <list>

#include "base/framegrabber.h"
#include "image/image_filter.h"
#include "image/simple_bitmap.h"

namespace vc {

class ClImageProcessor {
public:
    virtual ~ClImageProcessor() = default;
    virtual void Execute(Nvk::utilities::ClSimpleBitmap& in,
                         Nvk::utilities::ClSimpleBitmap& out) = 0;
};

// An owned list of processors run one after the other. The first runs from
// a working copy of `in` into `out`; after that the two buffers alternate
// (each processor reads what the previous one was given as input or output
// in turn), and `out` finally receives the buffer the last processor wrote:
// the working copy for an even number of processors (or none), else `out`
// itself. A processor that writes nothing therefore leaves its input as the
// result, which the delivered images rely on.
class ClImageMacroProcessor : public ClImageProcessor {
public:
    ClImageMacroProcessor() = default;
    ClImageMacroProcessor(const ClImageMacroProcessor&) = delete;
    ClImageMacroProcessor& operator=(const ClImageMacroProcessor&) = delete;
    ~ClImageMacroProcessor() override { RemoveAll(); }

    // Appends `p`; the chain owns it from now on (also when appending fails,
    // which throws Nvk::CXMemoryAllocException). A null `p` is ignored.
    void Add(ClImageProcessor* p);
    // Deletes every processor and empties the list.
    void RemoveAll();
    const std::list<ClImageProcessor*>& Processors() const { return m_lstProcessors; }

    void Execute(Nvk::utilities::ClSimpleBitmap& in, Nvk::utilities::ClSimpleBitmap& out) override;

private:
    std::list<ClImageProcessor*> m_lstProcessors;
    // The working copy. Its block is kept between frames so that frames of
    // one size are processed without allocating.
    Nvk::utilities::ClSimpleBitmap m_WorkBitmap;
};

// Runs the filter with the channel's background (not owned). Without a
// filter it passes the image through.
class ClImageFilterProcessor : public ClImageProcessor {
public:
    ClImageFilterProcessor() = default;
    // Takes ownership of `filter`.
    ClImageFilterProcessor(ClVCImageFilter* filter, Nvk::utilities::ClSimpleBitmap* background)
        : m_pFilter(filter), m_pBackground(background) {}
    ClImageFilterProcessor(const ClImageFilterProcessor&) = delete;
    ClImageFilterProcessor& operator=(const ClImageFilterProcessor&) = delete;
    ~ClImageFilterProcessor() override { delete m_pFilter; }

    // Replaces (and deletes) the filter; takes ownership of the new one.
    void SetFilter(ClVCImageFilter* filter);
    ClVCImageFilter* Filter() const { return m_pFilter; }
    void SetBackground(Nvk::utilities::ClSimpleBitmap* background) { m_pBackground = background; }
    Nvk::utilities::ClSimpleBitmap* Background() const { return m_pBackground; }

    void Execute(Nvk::utilities::ClSimpleBitmap& in, Nvk::utilities::ClSimpleBitmap& out) override;

private:
    ClVCImageFilter* m_pFilter = nullptr;
    Nvk::utilities::ClSimpleBitmap* m_pBackground = nullptr;
};

// Carries the camera's flip flags. Execute writes nothing: `out` keeps what
// it holds, so in the chain the image before this step is the result.
class ClImageFlipProcessor : public ClImageProcessor {
public:
    ClImageFlipProcessor() = default;
    ClImageFlipProcessor(bool flipX, bool flipY) : m_bFlipX(flipX), m_bFlipY(flipY) {}
    ~ClImageFlipProcessor() override = default;

    bool FlipX() const { return m_bFlipX; }
    bool FlipY() const { return m_bFlipY; }

    void Execute(Nvk::utilities::ClSimpleBitmap& in, Nvk::utilities::ClSimpleBitmap& out) override;

private:
    bool m_bFlipX = false;
    bool m_bFlipY = false;
};

// out = in with every pixel byte (padding included) complemented.
class ClImageInvertProcessor : public ClImageProcessor {
public:
    ~ClImageInvertProcessor() override = default;
    void Execute(Nvk::utilities::ClSimpleBitmap& in, Nvk::utilities::ClSimpleBitmap& out) override;
};

// Carries the aspect ratio; passes the image through unchanged.
class ClImageAspectRatioProcessor : public ClImageProcessor {
public:
    ClImageAspectRatioProcessor() = default;
    ClImageAspectRatioProcessor(double x, double y) : m_dX(x), m_dY(y) {}
    ~ClImageAspectRatioProcessor() override = default;

    void SetAspectRatio(double x, double y) {
        m_dX = x;
        m_dY = y;
    }
    double X() const { return m_dX; }
    double Y() const { return m_dY; }

    void Execute(Nvk::utilities::ClSimpleBitmap& in, Nvk::utilities::ClSimpleBitmap& out) override;

private:
    double m_dX = 0.0;
    double m_dY = 0.0;
};

// Carries the target resolution. Execute writes nothing: `out` keeps what
// it holds.
class ClImageRescaleProcessor : public ClImageProcessor {
public:
    ClImageRescaleProcessor() = default;
    explicit ClImageRescaleProcessor(const ClImageResolution& target) : m_Resolution(target) {}
    ~ClImageRescaleProcessor() override = default;

    const ClImageResolution& Resolution() const { return m_Resolution; }

    void Execute(Nvk::utilities::ClSimpleBitmap& in, Nvk::utilities::ClSimpleBitmap& out) override;

private:
    ClImageResolution m_Resolution;
};

// Mirror operations outside the chain. Each makes `out` a copy of `in` and
// then rewrites its pixel rows.
class ClImageFlip {
public:
    virtual ~ClImageFlip() = default;

    // Row i of `in` becomes row height − 1 − i of `out`.
    void FlipY(Nvk::utilities::ClSimpleBitmap& in, Nvk::utilities::ClSimpleBitmap& out);
    // Element j of each row goes to element width − 1 − j, an element being
    // PixelSize() bytes of `in` (the whole pixel area). Only an element that
    // lies wholly within the pixel rows at both ends is moved, so with that
    // element width `out` ends up as the plain copy of `in`.
    void FlipX(Nvk::utilities::ClSimpleBitmap& in, Nvk::utilities::ClSimpleBitmap& out);
    // Both, with the same element width.
    void FlipXY(Nvk::utilities::ClSimpleBitmap& in, Nvk::utilities::ClSimpleBitmap& out);
};

}  // namespace vc
