#include "device/futronic_base_sdk.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/errors.h"
#include "util/logging_client.h"

namespace vc {

namespace {

using Nvk::utilities::kLogTrace;
using Nvk::utilities::kLogWarning;
using Nvk::utilities::Log;

constexpr std::uint8_t kLEDOn = 255;
constexpr std::uint32_t kLongImageOption = FTR_OPTIONS_RECEIVE_LONG_IMAGE;
// The API's last error when the scanner has no extended memory to offer.
constexpr std::uint32_t kErrorNoExtMemory = FTR_ERROR_NOT_ENOUGH_MEMORY;
constexpr std::size_t kSerialSize = 8;
constexpr std::uint8_t kSerialBlockMark = 0xBA;
constexpr std::uint16_t kVersionPartUnknown = 0xFFFF;

[[noreturn]] void ThrowNotSupported() {
    throw ClQV2NOTImplException(err::kHardwareNotSupportedText, vc::FGERR_HARDWARE_NOT_SUPPORTED);
}

// After a capture the LEDs are switched on again. A successful
// ftrScanSetDiodesStatus clears the thread's last error, so the error of a
// failed capture is put back for the caller who asks for it next.
void RestoreLEDsAfterCapture(ClFutronicBaseSDK& sdk, bool captured) {
    ClQV2APILib* api = sdk.Api();
    const bool sendsLEDs = sdk.StateRedLED() || sdk.StateGreenLED();
    if (api == nullptr || captured || !sendsLEDs) {
        sdk.RestoreLEDsState();
        return;
    }
    const std::uint32_t error = api->ftrScanGetLastError();
    sdk.RestoreLEDsState();
    api->ftrScanSetLastError(error);
}

// "a.b", then ".c" and ".d" while the parts are known.
static_assert(sizeof(FTRSCAN_VERSION_INFO) == 28, "the API checks the record size it is given");

std::string FormatVersion(const FTRSCAN_VERSION& version) {
    std::string text =
        std::to_string(version.wMajorVersionHi) + "." + std::to_string(version.wMajorVersionLo);
    if (version.wMinorVersionHi != kVersionPartUnknown) {
        text += "." + std::to_string(version.wMinorVersionHi);
        if (version.wMinorVersionLo != kVersionPartUnknown) {
            text += "." + std::to_string(version.wMinorVersionLo);
        }
    }
    return text;
}

}  // namespace

ClFutronicBaseSDK::ClFutronicBaseSDK() : m_strLogFileName("LogFileName") {
    Log(kLogTrace, "ClFutronicBaseSDK is constructed");
}

ClFutronicBaseSDK::~ClFutronicBaseSDK() {
    Log(kLogTrace, "ClFutronicBaseSDK is distroyed");
    Unitialize();
}

bool ClFutronicBaseSDK::Initialize() {
    Log(kLogTrace, "ClFutronicBaseSDK::Initialize is called");
    if (!m_pApi) {
        m_pApi.reset(new ClQV2APILib());
    } else {
        Unitialize();
    }
    m_hFtrHandle = m_pApi->ftrScanOpenDevice();
    if (m_hFtrHandle != nullptr) {
        Log(kLogTrace, "ClFutronicBaseSDK::Initialize ftrScanOpenDevice succeeded");
    } else {
        Log(kLogTrace, "ClFutronicBaseSDK::Initialize ftrScanOpenDevice failed");
    }
    ResetStream();
    return m_hFtrHandle != nullptr;
}

bool ClFutronicBaseSDK::Unitialize() {
    if (m_hFtrHandle == nullptr || !m_pApi) {
        return false;
    }
    Log(kLogTrace, "ClFutronicBaseSDK::Initialize ftrScanOpenDevice failed");
    SwitchRedLED(false);
    SwitchGreenLED(false);
    const FTR_BOOL closed = m_pApi->ftrScanCloseDevice(m_hFtrHandle);
    m_hFtrHandle = nullptr;
    ResetStream();
    return closed != 0;
}

void ClFutronicBaseSDK::ResetStream() {
    m_nReadPosition = 0;
    m_nWritePosition = 0;
}

bool ClFutronicBaseSDK::ReadRaw(void* data, unsigned int size) {
    if (!HasExtendedAPI()) {
        ThrowNotSupported();
    }
    if (m_pApi->ftrScanRestoreExtMemory(m_hFtrHandle, data, static_cast<int>(m_nReadPosition),
                                        static_cast<int>(size)) == 0) {
        const int systemError = errno;
        if (m_pApi->ftrScanGetLastError() == kErrorNoExtMemory) {
            ThrowNotSupported();
        }
        throw Nvk::CXSystemException(systemError);
    }
    m_nReadPosition += size;
    return true;
}

bool ClFutronicBaseSDK::WriteRaw(const void* data, unsigned int size) {
    if (!HasExtendedAPI()) {
        ThrowNotSupported();
    }
    // The API takes the source as a plain pointer but only reads it.
    if (m_pApi->ftrScanSaveExtMemory(m_hFtrHandle, const_cast<void*>(data),
                                     static_cast<int>(m_nWritePosition),
                                     static_cast<int>(size)) == 0) {
        const int systemError = errno;
        if (m_pApi->ftrScanGetLastError() == kErrorNoExtMemory) {
            ThrowNotSupported();
        }
        throw Nvk::CXSystemException(systemError);
    }
    m_nWritePosition += size;
    return true;
}

int ClFutronicBaseSDK::CaptureFrame(unsigned char* buffer, unsigned int size) {
    Log(kLogTrace, "ClFutronicBaseSDK::CaptureFrame read the image buffer address: %p",
        static_cast<void*>(buffer));
    Log(kLogTrace, "ClFutronicBaseSDK::CaptureFrame read the ftrHandle address: %p", m_hFtrHandle);
    Log(kLogTrace, "ClFutronicBaseSDK::CaptureFrame is filling the buffer with 100");
    if (buffer != nullptr) {
        std::memset(buffer, 100, size);
    }
    const int result = m_pApi ? m_pApi->ftrScanGetFrame(m_hFtrHandle, buffer, nullptr) : 0;
    Log(kLogTrace,
        "ClFutronicBaseSDK::CaptureFrame called  ftrScanGetFrame methode, the return value: %d",
        result);
    RestoreLEDsAfterCapture(*this, result != 0);
    Log(kLogTrace, "ClFutronicBaseSDK::CaptureFrame quit");
    return result;
}

bool ClFutronicBaseSDK::CaptureImage(unsigned char* buffer, int) {
    if (!m_pApi) {
        return false;
    }
    const bool captured = m_pApi->ftrScanGetFrame(m_hFtrHandle, buffer, nullptr) != 0;
    RestoreLEDsAfterCapture(*this, captured);
    return captured;
}

bool ClFutronicBaseSDK::GetImageByDose(unsigned char* buffer, int dose) {
    if (!m_pApi) {
        return false;
    }
    const bool captured = m_pApi->ftrScanGetImageByVariableDose(m_hFtrHandle, dose, buffer) != 0;
    RestoreLEDsAfterCapture(*this, captured);
    return captured;
}

int ClFutronicBaseSDK::CaptureFuzzyImage(unsigned char* buffer) {
    if (!m_pApi) {
        return 0;
    }
    const int result = m_pApi->ftrScanGetBacklightImage(m_hFtrHandle, buffer);
    RestoreLEDsAfterCapture(*this, result != 0);
    return result;
}

bool ClFutronicBaseSDK::GetDarkImage(unsigned char* buffer) {
    if (!m_pApi) {
        return false;
    }
    const bool captured = m_pApi->ftrScanGetDarkImage(m_hFtrHandle, buffer) != 0;
    RestoreLEDsAfterCapture(*this, captured);
    return captured;
}

int ClFutronicBaseSDK::IsFingerPresent() {
    return m_pApi ? m_pApi->ftrScanIsFingerPresent(m_hFtrHandle, nullptr) : 0;
}

bool ClFutronicBaseSDK::GetImageSize(FTRSCAN_IMAGE_SIZE* size) {
    return m_pApi && m_pApi->ftrScanGetImageSize(m_hFtrHandle, size) != 0;
}

bool ClFutronicBaseSDK::SetOptions(unsigned long mask, unsigned long flags) {
    return m_pApi && m_pApi->ftrScanSetOptions(m_hFtrHandle, static_cast<std::uint32_t>(mask),
                                               static_cast<std::uint32_t>(flags)) != 0;
}

bool ClFutronicBaseSDK::GetOptions(unsigned long* flags) {
    if (!m_pApi) {
        return false;
    }
    std::uint32_t value = 0;
    if (m_pApi->ftrScanGetOptions(m_hFtrHandle, &value) == 0) {
        return false;
    }
    if (flags != nullptr) {
        *flags = value;
    }
    return true;
}

bool ClFutronicBaseSDK::SetLongImage() {
    Log(kLogTrace, "ClFutronicBaseSDK::SetLongImage is called");
    return m_pApi &&
           m_pApi->ftrScanSetOptions(m_hFtrHandle, kLongImageOption, kLongImageOption) != 0;
}

bool ClFutronicBaseSDK::SwitchRedLED(bool on) {
    m_nRedLED = on ? kLEDOn : 0;
    return m_pApi && m_pApi->ftrScanSetDiodesStatus(m_hFtrHandle, m_nGreenLED, m_nRedLED) != 0;
}

bool ClFutronicBaseSDK::SwitchGreenLED(bool on) {
    m_nGreenLED = on ? kLEDOn : 0;
    return m_pApi && m_pApi->ftrScanSetDiodesStatus(m_hFtrHandle, m_nGreenLED, m_nRedLED) != 0;
}

bool ClFutronicBaseSDK::RestoreLEDsState() {
    if (m_nGreenLED == 0 && m_nRedLED == 0) {
        return true;
    }
    return m_pApi && m_pApi->ftrScanSetDiodesStatus(m_hFtrHandle, m_nGreenLED, m_nRedLED) != 0;
}

bool ClFutronicBaseSDK::GetEPROMData(unsigned char* seven) {
    return m_pApi && m_pApi->ftrScanRestore7ControlBytes(m_hFtrHandle, seven) != 0;
}

bool ClFutronicBaseSDK::PutEPROMData(unsigned char* seven) {
    return m_pApi && m_pApi->ftrScanSave7Bytes(m_hFtrHandle, seven) != 0;
}

bool ClFutronicBaseSDK::GetEPROMSize(int* size) {
    if (!HasExtendedAPI()) {
        ThrowNotSupported();
    }
    return m_pApi->ftrScanGetExtMemorySize(m_hFtrHandle, size) != 0;
}

bool ClFutronicBaseSDK::GetSerialNumber(std::string& serial) {
    if (!m_pApi) {
        return false;
    }
    char number[kSerialSize] = {};
    if (HasExtendedAPI()) {
        if (m_pApi->ftrScanGetSerialNumber(m_hFtrHandle, number) == 0) {
            return false;
        }
    } else {
        serial.clear();
    }
    serial.assign(number, kSerialSize);
    return true;
}

bool ClFutronicBaseSDK::GetSerialNumber(unsigned long index, std::string& serial) {
    if (!m_pApi) {
        return false;
    }
    ClQV2APILib& api = *m_pApi;
    // Without the extended group there is nothing to ask: the number reads
    // as zeros.
    const auto readSerial = [&](FTRHANDLE handle, char* number) {
        return !HasExtendedAPI() || api.ftrScanGetSerialNumber(handle, number) != 0;
    };
    char number[kSerialSize] = {};
    const int base = api.ftrGetBaseInterfaceNumber();
    if (base < 0) {
        return false;  // no interface to come back to
    }
    if (index == static_cast<unsigned long>(base)) {
        if (m_hFtrHandle == nullptr) {
            m_hFtrHandle = api.ftrScanOpenDevice();
            if (m_hFtrHandle == nullptr) {
                return false;
            }
        }
        if (!readSerial(m_hFtrHandle, number)) {
            return false;
        }
        serial.assign(number, kSerialSize);
        return true;
    }

    if (api.ftrSetBaseInterface(static_cast<int>(index)) == 0) {
        return false;
    }
    // This handle stays open: the scanner API keeps it until the process
    // ends.
    const FTRHANDLE other = api.ftrScanOpenDevice();
    if (other == nullptr || !readSerial(other, number)) {
        // Back to the base interface, or the next open would reach the other
        // scanner; the caller learns why the read failed.
        const std::uint32_t error = api.ftrScanGetLastError();
        api.ftrSetBaseInterface(base);
        api.ftrScanSetLastError(error);
        return false;
    }
    serial.assign(number, kSerialSize);
    if (api.ftrSetBaseInterface(base) == 0) {
        return false;
    }
    // The member handle belonged to the base interface's earlier session;
    // the next Initialize opens the scanner again.
    m_hFtrHandle = nullptr;
    return true;
}

bool ClFutronicBaseSDK::SetSerialNumber(const std::string& serial) {
    if (!m_pApi) {
        return false;
    }
    unsigned char block[kSerialSize + 2] = {};
    block[0] = kSerialBlockMark;
    std::memcpy(block + 1, serial.data(), std::min(serial.size(), kSerialSize));
    unsigned int sum = 0;
    for (std::size_t i = 1; i <= kSerialSize; ++i) {
        sum += block[i];
    }
    block[kSerialSize + 1] = static_cast<unsigned char>(sum & 0xFF);
    return m_pApi->ftrScanSaveSerialNumber(m_hFtrHandle, block) != 0;
}

bool ClFutronicBaseSDK::GetDeviceVersions(std::string& hardware, std::string& firmware,
                                          std::string&) {
    hardware.clear();
    if (!m_pApi || m_pApi->ftrScanGetVersion == nullptr) {
        return false;
    }
    FTRSCAN_VERSION_INFO info{};
    info.dwVersionInfoSize = sizeof(FTRSCAN_VERSION_INFO);
    if (m_pApi->ftrScanGetVersion(m_hFtrHandle, &info) == 0) {
        return false;
    }
    hardware = FormatVersion(info.HardwareVersion);
    firmware = FormatVersion(info.FirmwareVersion);
    return true;
}

bool ClFutronicBaseSDK::GetScannerList(DeviceInfo* list, unsigned long& count) {
    m_bListDidNotFit = false;
    Initialize();
    if (!m_pApi) {
        return false;
    }
    FTRSCAN_INTERFACES_LIST interfaces;
    if (m_pApi->ftrScanGetInterfaces(&interfaces) == 0) {
        return false;
    }
    unsigned long connected = 0;
    for (int status : interfaces.InterfaceStatus) {
        if (status == 0) {
            ++connected;
        }
    }
    // No room (or no array) for the records: the caller learns how many.
    if (count == 0 || list == nullptr) {
        count = connected;
        m_bListDidNotFit = true;
        SetLastError(vc::FGERR_MORE_DATA);
        return false;
    }
    if (connected > count) {
        m_bListDidNotFit = true;
        SetLastError(vc::FGERR_MORE_DATA);
        return false;
    }
    unsigned long filled = 0;
    for (int i = 0; i < FTR_MAX_INTERFACE_NUMBER && filled < connected; ++i) {
        if (interfaces.InterfaceStatus[i] != 0) {
            continue;
        }
        DeviceInfo& record = list[filled++];
        std::memset(record.SerialNumber, 0, sizeof(record.SerialNumber));
        std::memset(record.Description, 0, sizeof(record.Description));
        record.Index = static_cast<std::uint32_t>(i);
        std::string serial;
        if (!GetSerialNumber(static_cast<unsigned long>(i), serial)) {
            return false;
        }
        std::memcpy(record.SerialNumber, serial.data(),
                    std::min(serial.size(), sizeof(record.SerialNumber) - 1));
    }
    count = connected;
    return true;
}

bool ClFutronicBaseSDK::GetScanInterface(unsigned long& index) {
    Initialize();
    if (!m_pApi) {
        return false;
    }
    const int base = m_pApi->ftrGetBaseInterfaceNumber();
    if (base < 0) {
        return false;
    }
    index = static_cast<unsigned long>(base);
    return true;
}

bool ClFutronicBaseSDK::SetScanInterface(unsigned long index) {
    Initialize();
    return m_pApi && m_pApi->ftrSetBaseInterface(static_cast<int>(index)) != 0;
}

unsigned long ClFutronicBaseSDK::GetLastError() {
    return m_pApi ? m_pApi->ftrScanGetLastError() : 0;
}

void ClFutronicBaseSDK::SetLastError(unsigned long code) {
    if (m_pApi) {
        m_pApi->ftrScanSetLastError(static_cast<std::uint32_t>(code));
    }
}

bool ClFutronicBaseSDK::LoggingEnable(unsigned short, const char*) {
    if (m_pApi && m_pApi->m_nExtendedLevel > 1) {
        return true;
    }
    Log(kLogWarning, "The installed version of QV2ScanAPI doesn't support the logging facility");
    return true;
}

bool ClFutronicBaseSDK::LoggingDisable() {
    return true;
}

}  // namespace vc
