// Rolled-finger detectors. A rolled print is composed from the frames of a
// finger rolling across the platen and delivered when the finger is lifted.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "detection/image_detection.h"

namespace vc {

// Composes column by column: each column of the print is the darkest version
// of that column seen since the background frame.
class ClRolledFingerVC1 : public ClImageDetection {
public:
    ClRolledFingerVC1() = default;
    ClRolledFingerVC1(const ClRolledFingerVC1&) = default;
    ClRolledFingerVC1& operator=(const ClRolledFingerVC1&) = default;
    ~ClRolledFingerVC1() override = default;

    bool Detect(Nvk::utilities::ClSimpleBitmap& input,
                Nvk::utilities::ClSimpleBitmap& output) override;
    eCaptureModeIDs Type() const override { return eCaptureRolledFinger; }
    bool AssignsOutput() const override { return true; }
    virtual ClRolledFingerVC1* clone() const;

    // Back to waiting for a background; the composed image stays until then.
    void Reset();

    long ColumnSum(const Nvk::utilities::ClSimpleBitmap& image, long column) const;
    // to[row][column] := from[row][column] for every row, with from's row stride.
    void CpyColumn(const Nvk::utilities::ClSimpleBitmap& from, Nvk::utilities::ClSimpleBitmap& to,
                   long column);

    bool IsInitialized() const { return m_bInitialized; }
    bool IsRolling() const { return m_bRolling; }
    std::int32_t ReferenceGray() const { return m_nReferenceGray; }
    std::int32_t Threshold() const { return m_nThreshold; }
    const std::vector<long>& ColumnSums() const { return m_vColumnSums; }
    const Nvk::utilities::ClSimpleBitmap& Composed() const { return m_Composed; }

private:
    // Stores the column sums, the threshold and the composed image of a
    // background frame.
    void TakeBackground(const Nvk::utilities::ClSimpleBitmap& image);
    // One rolling frame with the finger still down: darker columns replace
    // those of the composed image, which then goes to output.
    void Compose(const Nvk::utilities::ClSimpleBitmap& input,
                 Nvk::utilities::ClSimpleBitmap& output);

    std::int32_t m_nResetThreshold = 255;
    bool m_bInitialized = false;
    bool m_bRolling = false;
    std::int32_t m_nThreshold = 255;
    std::int32_t m_nReferenceGray = 255;
    std::vector<long> m_vColumnSums;
    Nvk::utilities::ClSimpleBitmap m_Composed;

    // Working storage reused from frame to frame (no meaning between frames).
    std::vector<std::uint32_t> m_vFrameSums;
    std::vector<unsigned char> m_vTaken;
    std::vector<std::pair<long, long>> m_vRuns;  // [first, last) of taken columns
};

// Composes row spans from a moving vertical border: while the finger rolls,
// each frame contributes the columns between the previous border and the
// darkest point of the first pixel row.
class ClRolledFinger : public ClImageDetection {
public:
    enum eDetectArea {
        eLeftStrip = 0,   // the 50 leftmost columns
        eRightStrip = 1,  // the 50 rightmost columns
        eWholeWidth = 2,  // every column; other values select none
    };

    static constexpr long m_cnDelta_Gray = 10;      // darkening that counts as a finger
    static constexpr long m_cnDetectRowCount = 50;  // strip width and divisor factor

    ClRolledFinger() = default;
    ClRolledFinger(const ClRolledFinger&) = default;
    ClRolledFinger& operator=(const ClRolledFinger&) = default;
    ~ClRolledFinger() override = default;

    bool Detect(Nvk::utilities::ClSimpleBitmap& input,
                Nvk::utilities::ClSimpleBitmap& output) override;
    eCaptureModeIDs Type() const override { return eCaptureRolledFinger; }

    void Initialize(const Nvk::utilities::ClSimpleBitmap& image);
    void Uninitialize();

    // Sum of the selected columns over all rows ÷ (height × 50), truncated,
    // for every area: the whole-width value is the mean scaled by width / 50,
    // the scale its reference is taken with. 0 for an image without rows.
    long Gray_Avarage(const Nvk::utilities::ClSimpleBitmap& image, eDetectArea area);
    bool IsFinger(const Nvk::utilities::ClSimpleBitmap& image, eDetectArea area);
    // Mean of row[0 .. count-1], truncated; the first pixel for count 0.
    long LineAvarage(const unsigned char* row, long count);
    // The x in [from, to) with the smallest LineAvarage(row, x); a tie goes to
    // the later x. 0 when from >= to.
    long LineRand(const unsigned char* row, long from, long to);
    // newBorders[y] := LineRand(first pixel row, borders[y], width), kept as a
    // byte. Every row is measured on the first stored row, so all borders
    // move together as one vertical border.
    void CalculateLineRand(const Nvk::utilities::ClSimpleBitmap& image,
                           const std::vector<unsigned char>& borders,
                           std::vector<unsigned char>& newBorders);
    void BitmapProfilCopy(const Nvk::utilities::ClSimpleBitmap& from,
                          Nvk::utilities::ClSimpleBitmap& to,
                          const std::vector<unsigned char>& borders,
                          const std::vector<unsigned char>& newBorders);
    // Copies pixels [begin, end) of row `row` (with from's row stride).
    void CopyBitmapRow(const Nvk::utilities::ClSimpleBitmap& from,
                       Nvk::utilities::ClSimpleBitmap& to, long row, long begin, long end);

    bool IsInitialized() const { return m_bInitialized; }
    bool IsRolling() const { return m_bRolling; }
    std::int32_t LeftReference() const { return m_nLeftReference; }
    std::int32_t WholeReference() const { return m_nWholeReference; }
    const std::vector<unsigned char>& Borders() const { return m_vBorders; }
    const Nvk::utilities::ClSimpleBitmap& Composed() const { return m_Composed; }

private:
    bool m_bInitialized = false;
    bool m_bRolling = false;
    std::int32_t m_nLeftReference = 0;
    std::int32_t m_nWholeReference = 0;
    std::vector<unsigned char> m_vBorders;
    Nvk::utilities::ClSimpleBitmap m_Composed;

    // Working storage reused from frame to frame.
    std::vector<unsigned char> m_vNewBorders;
    std::vector<long> m_vBorderOfStart;
    std::vector<std::uint64_t> m_vPrefixSums;
};

}  // namespace vc
