// The KR7 SDK's properties, last error, scanner-error handling, events,
// scanner selection and device information.
#include <cerrno>
#include <cstring>

#include "base/errors.h"
#include "device/calibration_binding.h"
#include "device/device_lock.h"
#include "device/events.h"
#include "device/norvak_kr7_sdk.h"
#include "device/settings.h"
#include "util/logging_client.h"

namespace vc {

using Nvk::utilities::ClSimpleBitmap;
using Nvk::utilities::Log;

namespace {

[[noreturn]] void ThrowBadProperty(ClNorvakKR7SDK& sdk) {
    sdk.SetLastFGError(vc::FGERR_PROPERTY_NOT_SUPPORTED, err::kBadPropertyText);
    throw ClVCException(err::kBadPropertyText, vc::FGERR_PROPERTY_NOT_SUPPORTED);
}

unsigned int OnOff(bool on) {
    return on ? 100u : 0u;
}

}  // namespace

// ---- properties -----------------------------------------------------------

void ClNorvakKR7SDK::GetProperty(ePropertyIDs id, unsigned int& value) {
    Log(7, "QV2 scanner. Reading of QV2 scanner property. Property ID: %d, value: %d",
        static_cast<int>(id), value);
    CXDeviceLock lock(*this);
    switch (id) {
        case ePropFixedOne:
            value = 1;
            return;
        case ePropFakeFingerDetection:
            value = OnOff(m_pFakeFingerOverride ? *m_pFakeFingerOverride != 0
                                                : m_pSetting->m_bFakeFingerDetection);
            return;
        case ePropRedLED:
            value = OnOff(m_pScanner->StateRedLED());
            return;
        case ePropGreenLED:
            value = OnOff(m_pScanner->StateGreenLED());
            return;
    }
    ThrowBadProperty(*this);
}

void ClNorvakKR7SDK::SetProperty(ePropertyIDs id, unsigned int value) {
    Log(7, "QV2 scanner setting of property. Property ID: %d, value: %d", static_cast<int>(id),
        value);
    CXDeviceLock lock(*this);
    switch (id) {
        case ePropFixedOne:
            throw ClVCException(err::kReadOnlyPropertyText, vc::FGERR_PROPERTY_READ_ONLY);
        case ePropFakeFingerDetection:
            // Read when the next channel is activated; no device call now.
            if (!m_pFakeFingerOverride) {
                m_pFakeFingerOverride.reset(new unsigned char(0));
            }
            *m_pFakeFingerOverride = value != 0 ? 1 : 0;
            return;
        case ePropRedLED:
        case ePropGreenLED: {
            InitializeScanner();
            const bool red = id == ePropRedLED;
            ClFutronicBaseSDK& scanner = *m_pScanner;
            const auto switchLED = [&](bool on) {
                return red ? scanner.SwitchRedLED(on) : scanner.SwitchGreenLED(on);
            };
            const bool before = red ? scanner.StateRedLED() : scanner.StateGreenLED();
            if (!switchLED(value != 0)) {
                const unsigned long code = m_pScanner->GetLastError();
                // The LED stays as it was, and so must the state the property
                // reads and a capture restores: it is sent back. (Closing a
                // disconnected scanner switches both off instead.)
                if (code != static_cast<unsigned long>(vc::FGERR_DISCONNECTED)) {
                    switchLED(before);
                }
                ThrowScannerError(code, "Switch the LED failed");
            }
            return;
        }
    }
    ThrowBadProperty(*this);
}

// ---- last error and scanner errors ------------------------------------------

void ClNorvakKR7SDK::SetLastFGError(unsigned long code, const std::string& description) {
    Log(7, "QV2 scanner. Calling SetLastFGError function. Error number: %d, Error description: %s",
        static_cast<int>(code), description.c_str());
    const char* text;
    switch (code) {
        case 0x20000003u:
            text = "The user canceled the action";
            break;
        case 0x20000004u:
            text = "The hardware is incompatible";
            break;
        case 0x20000005u:
            text = "The firmware is incompatible";
            break;
        default:
            text = nullptr;
            break;
    }
    Nvk::CXLock lock(m_ErrorMutex);
    m_nLastError = code;
    m_strLastError = text ? std::string(text) : description;
}

void ClNorvakKR7SDK::GetLastFGError(unsigned long& code, std::string& description) const {
    Nvk::CXLock lock(m_ErrorMutex);
    code = m_nLastError;
    description = m_strLastError;
}

bool ClNorvakKR7SDK::CheckScannerError(unsigned long code) {
    switch (code) {
        case 4306u:  // an empty frame
            return true;
        case 0x20000001u:  // the finger moved
            return false;
        case 0x20000002u:
            Log(7, "QV2 scanner. Fake finger detected.");
            OnFakeFinger();
            return false;
        case 31u:
            Log(7, "QV2 scanner. The scanner is disconnected.");
            SetLastFGError(vc::FGERR_DISCONNECTED, err::kDisconnectedText);
            UninitializeScanner();
            throw ClVCException(err::kDisconnectedText, vc::FGERR_DISCONNECTED);
        default:
            Log(3, "QV2 scanner. Scanner error: 0x%x", static_cast<unsigned int>(code));
            SetLastFGError(code, "Capture frame failed.");
            UninitializeScanner();
            throw ClVCException("Capture frame failed.", static_cast<int>(code));
    }
}

// ---- events -------------------------------------------------------------------

void ClNorvakKR7SDK::EnableEvents(int, unsigned int handle, FGEventCallback callback, void* user) {
    m_pEvents->EnableEvents(handle, callback, user);
}

void ClNorvakKR7SDK::OnFakeFinger() {
    // The host's callback never runs under the device lock: an event raised
    // during a pass goes out when the pass releases the lock.
    if (HoldsDeviceLock()) {
        DeviceLockHeld();
        m_bFakeFingerPending = true;
        return;
    }
    m_pEvents->Fire(m_nCurrentChannel.load(), eKR7EventFakeFinger);
}

// ---- scanner selection and information ------------------------------------------

void ClNorvakKR7SDK::GetActiveScanner(unsigned long& index) {
    CXDeviceLock lock(*this);
    if (!m_pScanner->GetScanInterface(index)) {
        throw ClVCException("GetActiveScanner failed.",
                            static_cast<int>(m_pScanner->GetLastError()));
    }
}

void ClNorvakKR7SDK::SetActiveScanner(unsigned long index) {
    CXDeviceLock lock(*this);
    if (!m_pScanner->SetScanInterface(index)) {
        const unsigned long code = m_pScanner->GetLastError();
        if (code == 259) {
            throw ClVCException(err::kBadDeviceIndexText, vc::FGERR_BAD_DEVICE_INDEX);
        }
        throw ClVCException("SetActiveScanner failed", static_cast<int>(code));
    }
    // The next device call opens the newly selected scanner, and the
    // device information is read from it again.
    UninitializeScanner();
    m_SDKInfo.Empty();
}

void ClNorvakKR7SDK::ReadSDKInfo() {
    Log(7, "QV2 scanner. Calling ReadSDKInfo function.");
    CXDeviceLock lock(*this);
    if (!m_SDKInfo.IsEmpty()) {
        return;
    }
    // The serial number, versions and calibration revision come from the
    // opened scanner.
    InitializeScanner();
    std::string serial;
    if (!m_pScanner->GetSerialNumber(serial)) {
        ThrowScannerError(m_pScanner->GetLastError(),
                          "Could not read the serial number of the scanner.");
    }
    std::string hardware;
    std::string firmware;
    std::string third;
    m_pScanner->GetDeviceVersions(hardware, firmware, third);
    // An empty text would end the packed list early: empty entries are left
    // out, and so is anything after a zero byte inside an entry.
    Nvk::ClMultiString info;
    for (const std::string& text :
         {std::string("Norvak QV2 scanner"), serial, hardware, firmware, GetRevisionStr()}) {
        if (!text.empty() && text[0] != '\0') {
            info.Add(text.c_str());
        }
    }
    m_SDKInfo = info;
}

void ClNorvakKR7SDK::GetSDKInfo(char* buffer, unsigned long& size) {
    CXDeviceLock lock(*this);
    ReadSDKInfo();
    const unsigned long needed = m_SDKInfo.Length() + 1;
    if (buffer == nullptr) {
        size = needed;
        throw ClVCException(err::kMoreDataText, vc::FGERR_MORE_DATA);
    }
    std::memcpy(buffer, m_SDKInfo.Data(), size < needed ? size : needed);
    size = needed;
}

void ClNorvakKR7SDK::AvailableScanners(DeviceInfo* list, unsigned long& count) {
    CXDeviceLock lock(*this);
    if (!m_pScanner->GetScannerList(list, count)) {
        // An array without room for the list is the host's 17 whatever the
        // API's last error says.
        const unsigned long code = m_pScanner->ListDidNotFit()
                                       ? static_cast<unsigned long>(vc::FGERR_MORE_DATA)
                                       : m_pScanner->GetLastError();
        throw ClVCException("Get scanner list failed.", static_cast<int>(code));
    }
    UninitializeScanner();
}

std::string ClNorvakKR7SDK::GetRevisionStr() const {
    if (m_pCalibration != nullptr && !m_pCalibration->Revision().empty()) {
        return m_pCalibration->Revision();
    }
    return "1";
}

// ---- contamination ----------------------------------------------------------------

void ClNorvakKR7SDK::ContaminationDetection(unsigned int ch, double* result) {
    if (ch != 1) {
        throw ClVCException(err::kBadChannelText, vc::FGERR_BAD_CHANNEL);
    }
    if (result == nullptr) {
        throw ClVCException("The result pointer is null.", vc::FGERR_FAILED);
    }
    CXDeviceLock lock(*this);
    InitializeScanner();
    const FTRSCAN_IMAGE_SIZE size = ReadImageSize();
    ClSimpleBitmap image;
    image.Create(size.nWidth, size.nHeight, 8);
    image.SetResolution(500, 500);
    if (!m_pScanner->GetImageByDose(image.Pixel(),
                                    static_cast<int>(m_pSetting->m_nContaminationDose))) {
        ThrowScannerError(m_pScanner->GetLastError(), "Capture image failed.");
    }
    PrepareImage(image);
    *result = m_pCalibration->ContaminationDetection(image.Header());
}

// ---- the logging library's callback ---------------------------------------------

int CBLoggingFacility(NvkLFCBEvents event, void* data) {
    static bool s_bScannerLogging = false;
    Nvk::CXLock lock(ClNorvakKR7SDK::m_cCBMutex);
    ClNorvakKR7SDK* sdk = ClNorvakKR7SDK::m_pCBData;
    if (sdk == nullptr) {
        return 0;
    }
    const auto* bytes = static_cast<const unsigned char*>(data);
    try {
        // The scanner is reached under the device lock, as everywhere.
        CXDeviceLock device(*sdk);
        switch (event) {
            case NvkLFCBEnable:
                if (!s_bScannerLogging) {
                    const char* file = bytes ? reinterpret_cast<const char*>(bytes + 256) : nullptr;
                    if (!sdk->Scanner().LoggingEnable(5, file)) {
                        throw Nvk::CXSystemException(errno);
                    }
                    s_bScannerLogging = true;
                }
                return 0;
            case NvkLFCBDisable:
                if (s_bScannerLogging) {
                    if (!sdk->Scanner().LoggingDisable()) {
                        throw Nvk::CXSystemException(errno);
                    }
                    s_bScannerLogging = false;
                }
                return 0;
            case NvkLFCBLevel:
                if (s_bScannerLogging) {
                    std::uint16_t level = 0;
                    if (bytes != nullptr) {
                        std::memcpy(&level, bytes + 768, sizeof level);
                    }
                    if (!sdk->Scanner().LoggingEnable(level, nullptr)) {
                        throw Nvk::CXSystemException(errno);
                    }
                }
                return 0;
            default:
                return 0;
        }
    } catch (const ClVCException& e) {
        return e.GetErrorNumber();
    }
}

}  // namespace vc
