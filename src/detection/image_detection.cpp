#include "detection/image_detection.h"

#include <new>

#include "detection/bitmap_utilities.h"
#include "detection/frame_access.h"
#include "detection/rolled_finger.h"

namespace vc {

using Nvk::utilities::ClSimpleBitmap;

ClImageDetection* ClImageDetection::Create(eCaptureModeIDs mode) {
    switch (mode) {
        case eCaptureLive:
            return new (std::nothrow) ClLiveDetection();
        case eCapturePlainFinger:
            return new (std::nothrow) ClPlainFingerDetection(240);
        case eCaptureRolledFinger:
            return new (std::nothrow) ClRolledFingerVC1();
        case eCaptureFastPlainFinger:
            return new (std::nothrow) ClFastPlainFingerDetection();
        case eCapturePreview:
            return new (std::nothrow) ClPreviewDetection();
    }
    return nullptr;
}

bool ClLiveDetection::Detect(ClSimpleBitmap& input, ClSimpleBitmap& output) {
    detail::CopyFrame(output, input);
    return true;
}

bool ClPreviewDetection::Detect(ClSimpleBitmap&, ClSimpleBitmap&) {
    return false;
}

// ---------------------------------------------------------------------------
// Plain finger

ClPlainFingerDetection::ClPlainFingerDetection(unsigned long threshold) : m_nThreshold(threshold) {}

bool ClPlainFingerDetection::LineDetect(const unsigned char* row, unsigned long width,
                                        unsigned long& sum) const {
    // Pairs of pixels: an odd width takes in the alignment byte after the row.
    sum = static_cast<unsigned long>(detail::SumBytes(row, width + (width & 1UL)));
    const std::uint32_t limit =
        static_cast<std::uint32_t>(m_nThreshold & 0xFFUL) * static_cast<std::uint32_t>(width);
    return static_cast<std::uint32_t>(sum) < limit;
}

bool ClPlainFingerDetection::BlackImage(ClSimpleBitmap& image) const {
    const detail::FrameView view = detail::View(image);
    if (view.height == 0) {
        return true;
    }
    const unsigned char* row = view.Row(view.height / 2);
    for (long x = 0; x < view.width; ++x) {
        if (row[x] != 0) {
            return false;
        }
    }
    return true;
}

bool ClPlainFingerDetection::Detect(ClSimpleBitmap& input, ClSimpleBitmap& output) {
    bool result = false;
    if (!BlackImage(input)) {
        const detail::FrameView view = detail::View(input);
        unsigned long sum = 0;
        result = LineDetect(view.Row(view.height / 2), static_cast<unsigned long>(view.width), sum);
    }
    detail::CopyFrame(output, input);
    return result;
}

// ---------------------------------------------------------------------------
// Fast plain finger

void ClFastPlainFingerDetection::Initialize(const ClSimpleBitmap& image) {
    if (!m_bInitialized) {
        m_nBestGraySum = m_nReferenceGraySum;
        detail::CopyFrame(m_BestImage, image);
        m_bInitialized = true;
    }
}

bool ClFastPlainFingerDetection::IsFinger(const ClSimpleBitmap& image) const {
    return ClBitmapUtilities::Gray_Avarage(image) <= 241;
}

void ClFastPlainFingerDetection::Reset() {
    m_nImprovementCount = 0;
    m_nBestGraySum = m_nReferenceGraySum;
}

bool ClFastPlainFingerDetection::Detect(ClSimpleBitmap& input, ClSimpleBitmap& output) {
    // One pass measures the frame: the gray sum and the whole-image average
    // both come from its total.
    const detail::FrameView view = detail::View(input);
    const std::uint64_t total = detail::PixelTotal(view);
    const auto graySum = static_cast<std::int32_t>(static_cast<std::uint32_t>(total));

    if (m_nReferenceGraySum < 1) {
        m_nReferenceGraySum = graySum;
    }
    Initialize(input);

    if (detail::WholeAverage(input, view, total) <= 241) {
        if (graySum < m_nBestGraySum) {
            m_nBestGraySum = graySum;
            detail::CopyFrame(m_BestImage, input);
            ++m_nImprovementCount;
        }
        detail::CopyFrame(output, input);
        return false;
    }
    if (m_nImprovementCount > 0) {
        detail::CopyFrame(output, m_BestImage);
        Reset();
        return true;
    }
    detail::CopyFrame(output, input);
    return false;
}

}  // namespace vc
