// What a person wants to know of a finger image, and which images of a
// finger capture a person keeps: the read-out `kr7 capture` prints (area and
// contrast) and its one result per placement, shared by every front end.
// The platen is white and ridges are dark; the image is looked at in 16×16
// tiles.
#pragma once

#include <chrono>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <norvakkr7fg/framegrabber.h>

#include "kr7host/image.h"

namespace kr7host {

struct Quality {
    double area = 0;      // share of the tiles the finger covers (0..1)
    double contrast = 0;  // mean ridge-to-valley difference on covered tiles (0..1)
    double mean = 255;    // mean grey level: lower is more finger
};

Quality Measure(const Image& image);
// The same figures of a block read in place, without a copy (a view whose
// colour table is not the grey ramp is copied first).
Quality Measure(const BitmapView& view);

// The mean grey level alone (Quality::mean, to the last bit), in one pass
// over the rows: what picks the darkest result of a placement.
double MeanGrey(const BitmapView& view);
double MeanGrey(const Image& image);

// A finger is on the platen when this share of it is covered.
constexpr double kFingerArea = 0.05;

// Plain, fast plain and rolled finger: the modes that give finger results.
bool IsFingerMode(vc::eCaptureModeIDs mode);
// A capture mode's name as hosts spell it ("live", "plain", "fastplain",
// "rolled", "preview"; "unknown" for another number) and back.
const char* ModeName(vc::eCaptureModeIDs mode);
bool ModeFromName(const std::string& name, vc::eCaptureModeIDs& mode);

// An image of a capture with its read-out.
struct Shot {
    Image image;
    Quality quality;
    std::int64_t frame = 0;  // the plug-in's frames before it
    // The host's own, carried along untouched (kr7src: the arrival time and
    // its count of the scanner's frames).
    std::uint64_t time = 0;
    std::int64_t index = 0;
};

// Measures `image` and keeps it in the shot; a negative frame counts as 0.
Shot Measured(Image&& image, std::int64_t frame);

// Which images of a capture a person keeps. Live and preview frames all do,
// up to the number wanted. In the finger modes the detector reports a
// result on every frame while a finger lies still: of each placement only
// the darkest result is kept, handed on when the finger has gone (a rolled
// print is complete in one result). Not thread-safe: one thread feeds it.
class Placements {
public:
    using Clock = std::chrono::steady_clock;

    explicit Placements(vc::eCaptureModeIDs mode, int wanted = std::numeric_limits<int>::max())
        : m_eMode(mode), m_nWanted(wanted) {}

    // A live frame. In the finger modes only its quality and frame number
    // count (the image may be left empty), the quality only while
    // NeedsQuality says so.
    void Frame(Shot&& shot);
    // A result of the detector. Every result must come here; its image is
    // kept only when Keeps says so (it may be left empty otherwise).
    void Result(Shot&& shot);
    // Whether a result of this quality would be kept: a host copies the
    // image only then. Only its mean is looked at.
    bool Keeps(const Quality& quality) const;
    // Whether Frame looks at the quality of frame `frame`: only while a
    // placement is open and the frame before brought no result.
    bool NeedsQuality(std::int64_t frame) const;
    // The image of a result that was not kept, or of a best result that a
    // darker one replaced: its buffer, for the next result's copy.
    Image TakeSpare() { return std::exchange(m_Spare, {}); }
    // The placement still open when the capture has ended.
    void Close();

    // The images handed on since the last call, at most `wanted` in all.
    std::vector<Shot> TakeReady();
    int Handed() const { return m_nHanded; }

    // What a person at the scanner is asked to do.
    const char* Prompt() const;
    // A finger covers the platen in the last frame.
    bool Finger() const { return m_bFinger; }
    // The finger on the platen has given a result (plain modes), or a roll
    // ended moments ago.
    bool Taken() const;
    // A placement's best result is held, to be handed on when the finger
    // has gone.
    bool Open() const { return m_Best.has_value(); }
    // When the last result came; the clock's epoch before the first.
    Clock::time_point LastResult() const { return m_LastResult; }

private:
    void Hand(Shot&& shot);

    const vc::eCaptureModeIDs m_eMode;
    const int m_nWanted;
    int m_nHanded = 0;
    bool m_bFinger = false;
    std::optional<Shot> m_Best;  // of the placement on the platen
    std::int64_t m_nLastResultFrame = -2;
    Clock::time_point m_LastResult;
    std::vector<Shot> m_vReady;
    Image m_Spare;
};

}  // namespace kr7host
