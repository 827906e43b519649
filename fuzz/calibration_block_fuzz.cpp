// The calibration block as the scanner's extended memory holds it, read
// through a stream. Input: the memory size the scanner reports (2 bytes,
// little-endian), then the memory's contents; a memory shorter than its
// reported size reads as erased (0xFF) past its end and the read fails.
//
// A payload found must lie inside the block and survive being written into a
// new block and read back.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "base/errors.h"
#include "calibration/calibration_header.h"
#include "fuzz_support.h"

using kr7fuzz::Check;

namespace {

class MemoryStream : public Nvk::CXStream {
public:
    MemoryStream(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}
    bool WriteRaw(const void*, unsigned int) override { return false; }
    bool ReadRaw(void* out, unsigned int size) override {
        const std::size_t have = m_position < m_size ? m_size - m_position : 0;
        const std::size_t copied = size < have ? size : have;
        if (copied > 0) {
            std::memcpy(out, m_data + m_position, copied);
        }
        std::memset(static_cast<std::uint8_t*>(out) + copied, 0xFF, size - copied);
        m_position += size;
        return copied == size;
    }

private:
    const std::uint8_t* m_data;
    std::size_t m_size;
    std::size_t m_position = 0;
};

// Reads a block; returns the payload it located (empty for none).
std::vector<unsigned char> Read(Nvk::ClQV2CalibrationHeader& header, Nvk::CXStream* stream,
                                unsigned int blockSize) {
    unsigned char* data = nullptr;
    unsigned int dataSize = 12345;
    try {
        header.ReadFromStream(stream, blockSize, &data, dataSize);
    } catch (const Nvk::ClHeaderFormatException&) {
        const auto& buffer = header.Buffer();
        Check(buffer.empty() || buffer[0] != 1);
        return {};
    }
    const std::vector<unsigned char>& block = header.Buffer();
    Check(block.size() == blockSize && block[0] == 1);
    Check((data == nullptr) == (dataSize == 0));
    Check(data == nullptr ||
          (data >= block.data() && data + dataSize <= block.data() + block.size()));

    header.GetHeaderVersion();
    header.Date();
    Check(header.RevisionString().size() == (blockSize >= 20 ? 16u : 0u));
    header.Description();
    return std::vector<unsigned char>(data, data + dataSize);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) {
        return 0;
    }
    const unsigned int blockSize = data[0] | data[1] << 8;
    MemoryStream stream(data + 2, size - 2);
    Nvk::ClQV2CalibrationHeader header;
    const std::vector<unsigned char> payload = Read(header, &stream, blockSize);
    if (payload.empty()) {
        return 0;
    }

    // Written anew with the same fields, the block gives the same payload.
    std::string revision = header.RevisionString();
    const std::string description = header.Description();
    Nvk::ClQV2CalibrationHeader writer;
    writer.PutCalibrationData(payload.data(), static_cast<unsigned int>(payload.size()),
                              reinterpret_cast<unsigned char*>(&revision[0]), description.c_str());
    const std::vector<unsigned char> written = writer.Buffer();
    MemoryStream again(written.data(), written.size());
    Nvk::ClQV2CalibrationHeader reader;
    Check(Read(reader, &again, static_cast<unsigned int>(written.size())) == payload);
    Check(reader.RevisionString() == revision);
    Check(reader.Description() == description.c_str());
    return 0;
}
