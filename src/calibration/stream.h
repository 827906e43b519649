// Raw byte stream: the source the calibration block is read from and the sink
// it is written to. The scanner wrapper implements it over the scanner's
// extended memory.
#pragma once

namespace Nvk {

class CXStream {
public:
    virtual ~CXStream() = default;
    // Writes `size` bytes at the stream's write position; true on success.
    virtual bool WriteRaw(const void* data, unsigned int size) = 0;
    // Reads `size` bytes from the stream's read position; true on success.
    virtual bool ReadRaw(void* data, unsigned int size) = 0;
};

}  // namespace Nvk
