// Which images of a capture a host keeps, as kr7 and kr7src keep them. In
// the finger modes the plug-in's detector reports a result on every frame
// while a finger lies still: of each placement only the darkest result is
// kept, handed on when the finger has gone (no result on the image before
// and no finger on this one); a rolled print is complete in one result and
// handed on at once. Live and preview frames are all handed on.
#pragma once

#include <chrono>
#include <cstdint>
#include <limits>
#include <optional>
#include <utility>
#include <vector>

#include <norvakkr7fg/framegrabber.h>

#include "kr7host/image.h"
#include "kr7host/quality.h"

namespace kr7host {

// Plain, fast plain and rolled finger.
bool IsFingerMode(vc::eCaptureModeIDs mode);

struct Shot {
    Image image;
    Quality quality;
    // The image's number in the capture (Capture's count of images); a
    // result carries the number of the image before it.
    std::int64_t frame = 0;
    // The host's own, carried along untouched (kr7src: the arrival time and
    // its count of the scanner's frames).
    std::uint64_t time = 0;
    std::int64_t index = 0;
};

class Placements {
public:
    // At most `wanted` images are handed on.
    explicit Placements(vc::eCaptureModeIDs mode, int wanted = std::numeric_limits<int>::max())
        : m_eMode(mode), m_nWanted(wanted) {}

    // An image of the capture. In the finger modes only its quality and
    // number are looked at (the image may be empty); the quality only while
    // a placement is open.
    void Frame(Shot&& shot);
    // A result of the detector. Its image is kept only when Keeps says so
    // (it may be empty otherwise), but every result must come here.
    void Result(Shot&& shot);
    // Whether a result of this quality would be kept: a host copies the
    // image only then. Only its mean is looked at.
    bool Keeps(const Quality& quality) const;
    // Whether Frame looks at the quality of image `frame`: only while a
    // placement is open and the image before brought no result. A host may
    // leave the quality out otherwise.
    bool NeedsQuality(std::int64_t frame) const;
    // The image of a result that was not kept, or of a best result that a
    // darker one replaced: its buffer, for the next result's copy.
    Image TakeSpare() { return std::exchange(m_Spare, {}); }

    // The placement still open when the capture has ended.
    void Close();

    std::vector<Shot> TakeReady() { return std::exchange(m_vReady, {}); }

    // The last frame showed a finger.
    bool Finger() const { return m_bFinger; }
    // A placement's best result is held, to be handed on when the finger
    // has gone.
    bool Open() const { return m_Best.has_value(); }
    // When the last result came; the clock's epoch before the first.
    std::chrono::steady_clock::time_point LastResult() const { return m_LastResult; }

private:
    void Hand(Shot&& shot);

    const vc::eCaptureModeIDs m_eMode;
    const int m_nWanted;
    int m_nHanded = 0;
    bool m_bFinger = false;
    std::optional<Shot> m_Best;  // of the placement on the platen
    std::int64_t m_nLastResultFrame = -2;
    std::chrono::steady_clock::time_point m_LastResult;
    std::vector<Shot> m_vReady;
    Image m_Spare;
};

}  // namespace kr7host
