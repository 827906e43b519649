#include "image/image_processor.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "base/errors.h"

using Nvk::utilities::ClSimpleBitmap;

namespace vc {

namespace {

// Moves element j of row y of `source` to element width − 1 − j of row y
// (or height − 1 − y with `flipRows`) of `target`, elements `elementBytes`
// wide and rows `rowBytes` apart. Elements that do not lie wholly within the
// `totalBytes` of pixel rows at both ends are left alone.
void MoveElements(const unsigned char* source, unsigned char* target, long width, long height,
                  long rowBytes, long totalBytes, long elementBytes, bool flipRows) {
    if (elementBytes <= 0) {
        return;
    }
    const long lastStart = totalBytes - elementBytes;
    for (long y = 0; y < height; ++y) {
        const long rowStart = y * rowBytes;
        if (rowStart > lastStart) {
            break;
        }
        const long targetRow = (flipRows ? height - 1 - y : y) * rowBytes;
        // Elements whose source lies inside: j ≤ (lastStart − rowStart) / elementBytes.
        const long lastJ = std::min(width - 1, (lastStart - rowStart) / elementBytes);
        for (long j = 0; j <= lastJ; ++j) {
            const long to = targetRow + (width - 1 - j) * elementBytes;
            if (to >= 0 && to <= lastStart) {
                std::memcpy(target + to, source + rowStart + j * elementBytes,
                            static_cast<std::size_t>(elementBytes));
            }
        }
    }
}

// out = in with the elements moved as above; `in` and `out` may be one.
void FlipElements(ClSimpleBitmap& in, ClSimpleBitmap& out, bool flipRows) {
    ClSimpleBitmap copy;
    const ClSimpleBitmap* source = &in;
    if (&in == &out) {
        copy = in;
        source = &copy;
    } else {
        out = in;
    }
    const long total = source->PixelSize();
    MoveElements(source->Pixel(), out.Pixel(), source->Width(), source->Height(), source->BPRow(),
                 total, total, flipRows);
}

}  // namespace

// ---------------------------------------------------------------------------
// ClImageMacroProcessor

void ClImageMacroProcessor::Add(ClImageProcessor* p) {
    if (p == nullptr) {
        return;
    }
    try {
        m_lstProcessors.push_back(p);
    } catch (const std::bad_alloc&) {
        delete p;
        throw Nvk::CXMemoryAllocException();
    }
}

void ClImageMacroProcessor::RemoveAll() {
    for (ClImageProcessor* p : m_lstProcessors) {
        delete p;
    }
    m_lstProcessors.clear();
}

void ClImageMacroProcessor::Execute(ClSimpleBitmap& in, ClSimpleBitmap& out) {
    m_WorkBitmap.Copy(in.Header());
    ClSimpleBitmap* input = &m_WorkBitmap;
    ClSimpleBitmap* output = &out;
    for (ClImageProcessor* p : m_lstProcessors) {
        p->Execute(*input, *output);
        std::swap(input, output);
    }
    // `input` is now the buffer the last processor wrote. When that is the
    // working copy, `out` takes over its block (the same bytes a copy would
    // give) and hands its own block on for the next frame.
    if (input != &out) {
        out.Swap(m_WorkBitmap);
    }
}

// ---------------------------------------------------------------------------
// The chain's processors

void ClImageFilterProcessor::SetFilter(ClVCImageFilter* filter) {
    if (filter != m_pFilter) {
        delete m_pFilter;
        m_pFilter = filter;
    }
}

void ClImageFilterProcessor::Execute(ClSimpleBitmap& in, ClSimpleBitmap& out) {
    if (m_pFilter != nullptr) {
        m_pFilter->Do(&in, m_pBackground, &out);
    } else {
        out = in;
    }
}

void ClImageFlipProcessor::Execute(ClSimpleBitmap&, ClSimpleBitmap&) {}

void ClImageInvertProcessor::Execute(ClSimpleBitmap& in, ClSimpleBitmap& out) {
    if (&in == &out) {
        out.Invert();
        return;
    }
    out.CopyFormat(in.Header());
    const unsigned char* source = in.Pixel();
    unsigned char* target = out.Pixel();
    const long n = in.PixelSize();
    for (long i = 0; i < n; ++i) {
        target[i] = static_cast<unsigned char>(~source[i]);
    }
}

void ClImageAspectRatioProcessor::Execute(ClSimpleBitmap& in, ClSimpleBitmap& out) {
    out = in;
}

void ClImageRescaleProcessor::Execute(ClSimpleBitmap&, ClSimpleBitmap&) {}

// ---------------------------------------------------------------------------
// ClImageFlip

void ClImageFlip::FlipY(ClSimpleBitmap& in, ClSimpleBitmap& out) {
    if (&in == &out) {
        out.FlipY();
        return;
    }
    out = in;
    const long rowBytes = in.BPRow();
    const long height = in.PixelSize() > 0 ? in.Height() : 0;
    const unsigned char* source = in.Pixel();
    unsigned char* target = out.Pixel();
    for (long i = 0; i < height; ++i) {
        std::memcpy(target + (height - 1 - i) * rowBytes, source + i * rowBytes,
                    static_cast<std::size_t>(rowBytes));
    }
}

void ClImageFlip::FlipX(ClSimpleBitmap& in, ClSimpleBitmap& out) {
    FlipElements(in, out, false);
}

void ClImageFlip::FlipXY(ClSimpleBitmap& in, ClSimpleBitmap& out) {
    FlipElements(in, out, true);
}

}  // namespace vc
