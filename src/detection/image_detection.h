// Finger detectors: the interface every capture channel runs its frames
// through, the factory by capture mode and the live, preview, plain-finger and
// fast plain-finger detectors. All frames are 8-bit grey bitmaps in which the
// empty platen is bright (near 255) and a finger darkens the image.
#pragma once

#include <cstdint>

#include "base/framegrabber.h"
#include "image/simple_bitmap.h"

namespace vc {

class ClImageDetection {
public:
    virtual ~ClImageDetection() = default;

    // True when `output` now holds a finger image to be treated as a captured
    // result; false when this frame is no result (`output` may still have been
    // refreshed with an image for display).
    virtual bool Detect(Nvk::utilities::ClSimpleBitmap& input,
                        Nvk::utilities::ClSimpleBitmap& output) = 0;

    // The capture mode the detector serves.
    virtual eCaptureModeIDs Type() const = 0;

    // True when every Detect assigns `output` whole, whatever it held, so
    // that a caller may hand in the same bitmap frame after frame and have
    // its block reused; false when Detect may leave `output` as it was, which
    // then needs an empty bitmap each time.
    virtual bool AssignsOutput() const { return false; }

    // A new detector for `mode`, owned by the caller; null for a mode without
    // a detector (or when no memory is left).
    static ClImageDetection* Create(eCaptureModeIDs mode);
};

// Every frame is a result.
class ClLiveDetection : public ClImageDetection {
public:
    bool Detect(Nvk::utilities::ClSimpleBitmap& input,
                Nvk::utilities::ClSimpleBitmap& output) override;
    eCaptureModeIDs Type() const override { return eCaptureLive; }
    bool AssignsOutput() const override { return true; }
};

// No frame is a result; images are taken on the host's trigger instead.
class ClPreviewDetection : public ClImageDetection {
public:
    bool Detect(Nvk::utilities::ClSimpleBitmap& input,
                Nvk::utilities::ClSimpleBitmap& output) override;
    eCaptureModeIDs Type() const override { return eCapturePreview; }
};

// A finger is present when the middle row averages below the threshold and is
// not entirely black.
class ClPlainFingerDetection : public ClImageDetection {
public:
    explicit ClPlainFingerDetection(unsigned long threshold);

    bool Detect(Nvk::utilities::ClSimpleBitmap& input,
                Nvk::utilities::ClSimpleBitmap& output) override;
    eCaptureModeIDs Type() const override { return eCapturePlainFinger; }
    bool AssignsOutput() const override { return true; }

    // Sums the row in pixel pairs; for an odd width the byte after the last
    // pixel (the row's alignment byte, always present in a bitmap row) is part
    // of the last pair. True when the sum is below threshold × width.
    bool LineDetect(const unsigned char* row, unsigned long width, unsigned long& sum) const;

    // True when every pixel of the middle row is 0 (or there is no row).
    bool BlackImage(Nvk::utilities::ClSimpleBitmap& image) const;

    unsigned long Threshold() const { return m_nThreshold; }
    std::uint32_t Reserved() const { return m_nReserved; }  // always 0

private:
    std::uint32_t m_nReserved = 0;
    unsigned long m_nThreshold;  // only its low 8 bits are used
};

// Keeps the darkest frame of one finger placement and delivers it when the
// finger is lifted. The first frame ever seen is the reference (empty platen).
class ClFastPlainFingerDetection : public ClImageDetection {
public:
    ClFastPlainFingerDetection() = default;
    ClFastPlainFingerDetection(const ClFastPlainFingerDetection&) = default;
    ClFastPlainFingerDetection& operator=(const ClFastPlainFingerDetection&) = default;

    bool Detect(Nvk::utilities::ClSimpleBitmap& input,
                Nvk::utilities::ClSimpleBitmap& output) override;
    eCaptureModeIDs Type() const override { return eCaptureFastPlainFinger; }
    bool AssignsOutput() const override { return true; }

    // Takes the best image and best sum from the reference, once.
    void Initialize(const Nvk::utilities::ClSimpleBitmap& image);
    // Whole-image average of 241 or darker.
    bool IsFinger(const Nvk::utilities::ClSimpleBitmap& image) const;
    // Ends a placement: the next finger must beat the reference again.
    void Reset();

    std::int32_t ReferenceGraySum() const { return m_nReferenceGraySum; }
    std::int32_t BestGraySum() const { return m_nBestGraySum; }
    std::int32_t ImprovementCount() const { return m_nImprovementCount; }
    const Nvk::utilities::ClSimpleBitmap& BestImage() const { return m_BestImage; }

private:
    std::int32_t m_nReferenceGraySum = -1;
    bool m_bInitialized = false;
    std::int32_t m_nImprovementCount = 0;
    std::int32_t m_nBestGraySum = 0;
    Nvk::utilities::ClSimpleBitmap m_BestImage;
};

}  // namespace vc
