// Filters: the processing step that sees the channel's background image.
#pragma once

#include "image/simple_bitmap.h"

namespace vc {

class ClVCImageFilter {
public:
    virtual ~ClVCImageFilter() = default;

    // Writes the filtered `in` to `out`; `background` is the channel's
    // background image (may be null). A null `in` or `out` does nothing.
    virtual void Do(Nvk::utilities::ClSimpleBitmap* in, Nvk::utilities::ClSimpleBitmap* background,
                    Nvk::utilities::ClSimpleBitmap* out) = 0;
    // A new filter of the same kind; the caller owns it.
    virtual ClVCImageFilter* clone() const = 0;

    // The filter for a filter id (eFilterIDs): a new ClNoFilter for 0, a new
    // ClSubtractBackgroundFilter for 1, null for anything else. The caller
    // owns the result. Takes the id as an int so that any number a host
    // passes is a valid argument.
    static ClVCImageFilter* Create(int id);
};

// out = in.
class ClNoFilter : public ClVCImageFilter {
public:
    ~ClNoFilter() override = default;
    void Do(Nvk::utilities::ClSimpleBitmap* in, Nvk::utilities::ClSimpleBitmap* background,
            Nvk::utilities::ClSimpleBitmap* out) override;
    ClVCImageFilter* clone() const override;
};

// Darkening against the background: for 8-bit frame and background every
// pixel becomes 255 where the frame is at least as bright as the background,
// else 255 − (background − frame). Row padding keeps the frame's bytes. Any
// other frame passes through unchanged, as it does when the background is
// missing, empty, not 8-bit or too short to cover the frame's rows (the
// background is read with the frame's row stride).
class ClSubtractBackgroundFilter : public ClVCImageFilter {
public:
    ~ClSubtractBackgroundFilter() override = default;
    void Do(Nvk::utilities::ClSimpleBitmap* in, Nvk::utilities::ClSimpleBitmap* background,
            Nvk::utilities::ClSimpleBitmap* out) override;
    ClVCImageFilter* clone() const override;
};

}  // namespace vc
