#include "image/image_filter.h"

#include <cstring>
#include <new>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "base/errors.h"
#include "base/framegrabber.h"

using Nvk::utilities::ClSimpleBitmap;

namespace vc {

namespace {

ClVCImageFilter* Allocated(ClVCImageFilter* filter) {
    if (filter == nullptr) {
        throw Nvk::CXMemoryAllocException();
    }
    return filter;
}

// One row: 255 − max(background − frame, 0) for the pixels, the frame's
// bytes for the padding. Works in place when `out` is `in` or `background`.
// The pixel formula is written as (255 − b) + min(b, i), which equals it and
// stays within a byte, so it runs on 16 bytes at a time; each vector is read
// before the same bytes are written, which keeps the in-place cases right.
void SubtractRow(const unsigned char* in, const unsigned char* background, unsigned char* out,
                 long width, long rowBytes) {
    long x = 0;
#if defined(__SSE2__)
    const __m128i ones = _mm_set1_epi8(static_cast<char>(0xFF));
    for (; x + 16 <= width; x += 16) {
        const __m128i i = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + x));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(background + x));
        const __m128i value = _mm_add_epi8(_mm_xor_si128(b, ones), _mm_min_epu8(i, b));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x), value);
    }
#endif
    for (; x < width; ++x) {
        const unsigned char i = in[x];
        const unsigned char b = background[x];
        const unsigned char darkest = i < b ? i : b;
        out[x] = static_cast<unsigned char>(static_cast<unsigned char>(255 - b) + darkest);
    }
    if (out != in) {
        std::memcpy(out + width, in + width, static_cast<std::size_t>(rowBytes - width));
    }
}

}  // namespace

ClVCImageFilter* ClVCImageFilter::Create(int id) {
    switch (id) {
        case eFilterNone:
            return Allocated(new (std::nothrow) ClNoFilter);
        case eFilterSubtractBackground:
            return Allocated(new (std::nothrow) ClSubtractBackgroundFilter);
        default:
            return nullptr;
    }
}

void ClNoFilter::Do(ClSimpleBitmap* in, ClSimpleBitmap*, ClSimpleBitmap* out) {
    if (in != nullptr && out != nullptr) {
        out->Copy(in->Header());
    }
}

ClVCImageFilter* ClNoFilter::clone() const {
    return Allocated(new (std::nothrow) ClNoFilter(*this));
}

void ClSubtractBackgroundFilter::Do(ClSimpleBitmap* in, ClSimpleBitmap* background,
                                    ClSimpleBitmap* out) {
    if (in == nullptr || out == nullptr) {
        return;
    }
    const long width = in->Width();
    const long height = in->Height();
    const long rowBytes = in->BPRow();
    // The background is read at the frame's offsets: the last byte read is
    // pixel width − 1 of row height − 1.
    const long backgroundNeeded = height > 0 ? rowBytes * (height - 1) + width : 0;
    if (background == nullptr || in->BitCount() != 8 || background->BitCount() != 8 ||
        background->Empty() || background->PixelSize() < backgroundNeeded) {
        out->Copy(in->Header());
        return;
    }
    if (out == background) {
        // The copy of the frame replaces the background before it is read.
        out->Copy(in->Header());
    } else {
        out->CopyFormat(in->Header());  // every pixel byte is written below
    }
    const unsigned char* source = in->Pixel();
    const unsigned char* back = background->Pixel();
    unsigned char* target = out->Pixel();
    for (long y = 0; y < height; ++y) {
        const long offset = y * rowBytes;
        SubtractRow(source + offset, back + offset, target + offset, width, rowBytes);
    }
}

ClVCImageFilter* ClSubtractBackgroundFilter::clone() const {
    return Allocated(new (std::nothrow) ClSubtractBackgroundFilter(*this));
}

}  // namespace vc
