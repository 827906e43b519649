// The block that wraps a scanner's calibration data in its extended memory.
//
// Layout (byte offsets; n is the description length, s the payload size):
//    0   1  header version, always 1
//    1   1  day of the month of writing (local time)
//    2   1  month 1..12
//    3   1  years since 1900
//    4  16  revision, raw bytes
//   20   1  description length n (0..255)
//   21   n  description, not terminated
//   21+n 4  payload size s, host byte order (little-endian), unaligned
//   25+n s  payload, opaque to the plug-in
#pragma once

#include <string>
#include <vector>

#include "calibration/stream.h"

namespace Nvk {

// Byte order of the machine. The block format is little-endian because the
// hosts are; nothing in the block code consults this flag.
struct SXEndian {
    static bool m_fIsLittleEndianMachine;
};

class ClQV2CalibrationHeader {
public:
    static constexpr unsigned int kFixedSize = 25;
    static constexpr unsigned int kMaxDescription = 255;

    ClQV2CalibrationHeader() = default;

    // dataSize + 25, plus the description's length when there is one.
    unsigned int CalculateSize(unsigned int dataSize, const char* description) const;

    // Builds a block in the buffer. A null description writes no length byte
    // at all (the payload size then sits at offset 20, one byte early); pass an
    // empty string for a readable block without description. Throws
    // ClCHeaderDesrcTooLongException for more than 255 characters, leaving the
    // buffer resized and half-written. `revision` points at 16 bytes (null
    // writes zeros); a null `data` leaves the payload zero-filled.
    void PutCalibrationData(const unsigned char* data, unsigned int dataSize,
                            unsigned char* revision, const char* description);

    // Reads `blockSize` bytes from the stream into the buffer and locates the
    // payload. Throws ClHeaderFormatException when the version byte is not 1
    // (or there is no byte at all). `*data` points into the buffer, or is null
    // when the payload is empty or when the stated sizes do not fit inside the
    // block; `dataSize` is then 0. The pointer lives as long as this object.
    void ReadFromStream(CXStream* stream, unsigned int blockSize, unsigned char** data,
                        unsigned int& dataSize);

    // Accessors read the buffer; a field the buffer is too short to hold
    // reads as an empty string.
    std::string GetHeaderVersion() const;
    std::string Date() const;            // "d/m/yyyy", no leading zeros
    std::string RevisionString() const;  // exactly 16 bytes, zeros included
    std::string Description() const;

    // Writes day, month, year of the current local time at `position` and
    // advances it by 3.
    void SetDate(std::vector<unsigned char>& buffer, unsigned int& position);

    const std::vector<unsigned char>& Buffer() const { return m_vBuffer; }

private:
    std::vector<unsigned char> m_vBuffer;
};

}  // namespace Nvk
