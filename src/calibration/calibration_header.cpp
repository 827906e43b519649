#include "calibration/calibration_header.h"

#include <cstdint>
#include <cstring>
#include <ctime>

#include "base/errors.h"

namespace Nvk {
namespace {

constexpr unsigned int kVersionOffset = 0;
constexpr unsigned int kDateOffset = 1;
constexpr unsigned int kRevisionOffset = 4;
constexpr unsigned int kRevisionSize = 16;
constexpr unsigned int kLengthOffset = 20;
constexpr unsigned int kDescriptionOffset = 21;
constexpr unsigned char kHeaderVersion = 1;

bool IsLittleEndian() {
    const std::uint16_t probe = 1;
    unsigned char first = 0;
    std::memcpy(&first, &probe, 1);
    return first == 1;
}

}  // namespace

bool SXEndian::m_fIsLittleEndianMachine = IsLittleEndian();

unsigned int ClQV2CalibrationHeader::CalculateSize(unsigned int dataSize,
                                                   const char* description) const {
    unsigned int size = dataSize + kFixedSize;
    if (description != nullptr) {
        size += static_cast<unsigned int>(std::strlen(description));
    }
    return size;
}

void ClQV2CalibrationHeader::PutCalibrationData(const unsigned char* data, unsigned int dataSize,
                                                unsigned char* revision, const char* description) {
    // Sized in size_t so that a huge payload cannot wrap the total around.
    std::size_t size = std::size_t(dataSize) + kFixedSize;
    if (description != nullptr) {
        size += std::strlen(description);
    }
    m_vBuffer.resize(size);

    m_vBuffer[kVersionOffset] = kHeaderVersion;
    unsigned int position = kDateOffset;
    SetDate(m_vBuffer, position);

    if (revision != nullptr) {
        std::memcpy(&m_vBuffer[kRevisionOffset], revision, kRevisionSize);
    } else {
        std::memset(&m_vBuffer[kRevisionOffset], 0, kRevisionSize);
    }
    position = kLengthOffset;

    if (description != nullptr) {
        const std::size_t length = std::strlen(description);
        if (length > kMaxDescription) {
            throw ClCHeaderDesrcTooLongException();
        }
        m_vBuffer[kLengthOffset] = static_cast<unsigned char>(length);
        std::memcpy(&m_vBuffer[kDescriptionOffset], description, length);
        position = kDescriptionOffset + static_cast<unsigned int>(length);
    }

    std::memcpy(&m_vBuffer[position], &dataSize, sizeof dataSize);
    if (dataSize != 0 && data != nullptr) {
        std::memcpy(&m_vBuffer[position + sizeof dataSize], data, dataSize);
    }
}

void ClQV2CalibrationHeader::ReadFromStream(CXStream* stream, unsigned int blockSize,
                                            unsigned char** data, unsigned int& dataSize) {
    m_vBuffer.resize(blockSize);
    if (stream != nullptr && blockSize != 0) {
        stream->ReadRaw(m_vBuffer.data(), blockSize);
    }
    if (m_vBuffer.empty() || m_vBuffer[kVersionOffset] != kHeaderVersion) {
        throw ClHeaderFormatException();
    }

    unsigned char* payload = nullptr;
    unsigned int payloadSize = 0;
    // A block that is too short for its fixed part, or whose stated lengths
    // run past its end, has no usable payload.
    if (blockSize >= kFixedSize) {
        const unsigned int length = m_vBuffer[kLengthOffset];
        const std::size_t sizeOffset = std::size_t(kDescriptionOffset) + length;
        if (sizeOffset + sizeof payloadSize <= blockSize) {
            std::memcpy(&payloadSize, &m_vBuffer[sizeOffset], sizeof payloadSize);
            const std::size_t payloadOffset = sizeOffset + sizeof payloadSize;
            if (payloadSize != 0 && payloadOffset + payloadSize <= blockSize) {
                payload = &m_vBuffer[payloadOffset];
            } else {
                payloadSize = 0;
            }
        }
    }
    if (data != nullptr) {
        *data = payload;
    }
    dataSize = payloadSize;
}

std::string ClQV2CalibrationHeader::GetHeaderVersion() const {
    if (m_vBuffer.empty()) {
        return std::string();
    }
    return std::to_string(static_cast<unsigned int>(m_vBuffer[kVersionOffset]));
}

std::string ClQV2CalibrationHeader::Date() const {
    if (m_vBuffer.size() < kRevisionOffset) {
        return std::string();
    }
    const unsigned int day = m_vBuffer[kDateOffset];
    const unsigned int month = m_vBuffer[kDateOffset + 1];
    const unsigned int year = m_vBuffer[kDateOffset + 2] + 1900u;
    return std::to_string(day) + "/" + std::to_string(month) + "/" + std::to_string(year);
}

std::string ClQV2CalibrationHeader::RevisionString() const {
    if (m_vBuffer.size() < kRevisionOffset + kRevisionSize) {
        return std::string();
    }
    return std::string(reinterpret_cast<const char*>(&m_vBuffer[kRevisionOffset]), kRevisionSize);
}

std::string ClQV2CalibrationHeader::Description() const {
    if (m_vBuffer.size() <= kLengthOffset) {
        return std::string();
    }
    const std::size_t length = m_vBuffer[kLengthOffset];
    if (kDescriptionOffset + length > m_vBuffer.size()) {
        return std::string();
    }
    return std::string(reinterpret_cast<const char*>(&m_vBuffer[kDescriptionOffset]), length);
}

void ClQV2CalibrationHeader::SetDate(std::vector<unsigned char>& buffer, unsigned int& position) {
    if (buffer.size() < std::size_t(position) + 3) {
        buffer.resize(std::size_t(position) + 3);
    }
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    buffer[position] = static_cast<unsigned char>(local.tm_mday);
    buffer[position + 1] = static_cast<unsigned char>(local.tm_mon + 1);
    buffer[position + 2] = static_cast<unsigned char>(local.tm_year);
    position += 3;
}

}  // namespace Nvk
