// One KR7 scanner opened through the scanner API: the only way the rest of
// the plug-in reaches the hardware. Every wrapper reports failure by its
// result; the reason is the API's last error (GetLastError). The extended
// memory doubles as the byte stream the calibration block is read from.
//
// Not thread-safe: the device SDK serialises all calls.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/framegrabber.h"
#include "calibration/stream.h"
#include "device/qv2_api_lib.h"

namespace vc {

class ClFutronicBaseSDK : public Nvk::CXStream {
public:
    // Loads nothing yet; the API is loaded by the first Initialize.
    ClFutronicBaseSDK();
    // Closes the scanner and unloads the API.
    ~ClFutronicBaseSDK() override;
    ClFutronicBaseSDK(const ClFutronicBaseSDK&) = delete;
    ClFutronicBaseSDK& operator=(const ClFutronicBaseSDK&) = delete;

    // Extended memory as a stream, one API call per request. On success the
    // position advances by `size`. Without the extended API, or when the
    // API's last error is 8, throws ClQV2NOTImplException (22); any other
    // failure throws CXSystemException with errno.
    bool WriteRaw(const void* data, unsigned int size) override;
    bool ReadRaw(void* data, unsigned int size) override;

    // Loads the API on first use (may throw the loader's CXOtherException),
    // closes a scanner already open and opens it again. True when open.
    bool Initialize();
    // Closes an open scanner, both LEDs switched off first. False when
    // nothing was open.
    bool Unitialize();
    void ResetStream();

    // Capture into a buffer of GetImageSize's byte count. The LEDs are
    // restored after each, since the API's capture switches them.
    // CaptureFrame fills the buffer with 100 first and returns the API's
    // result unchanged.
    int CaptureFrame(unsigned char* buffer, unsigned int size);
    bool CaptureImage(unsigned char* buffer, int unused);
    bool GetImageByDose(unsigned char* buffer, int dose);
    int CaptureFuzzyImage(unsigned char* buffer);
    bool GetDarkImage(unsigned char* buffer);
    int IsFingerPresent();
    bool GetImageSize(FTRSCAN_IMAGE_SIZE* size);

    bool SetOptions(unsigned long mask, unsigned long flags);
    bool GetOptions(unsigned long* flags);
    // Asks for the long image (option 4).
    bool SetLongImage();

    bool SwitchRedLED(bool on);
    bool SwitchGreenLED(bool on);
    // Sends the stored LED states again; no device call when both are off.
    bool RestoreLEDsState();
    bool StateRedLED() const { return m_nRedLED != 0; }
    bool StateGreenLED() const { return m_nGreenLED != 0; }

    // The seven control bytes.
    bool GetEPROMData(unsigned char* seven);
    bool PutEPROMData(unsigned char* seven);
    // Size of the extended memory; throws ClQV2NOTImplException (22)
    // without the extended API.
    bool GetEPROMSize(int* size);

    // The open scanner's serial number: exactly 8 characters. Without the
    // extended API nothing reads the number and `serial` is 8 zero bytes.
    bool GetSerialNumber(std::string& serial);
    // The serial number of the scanner on interface `index`. Another
    // interface is selected for the read and selected back after it, also
    // when the read fails (the API's last error is then the read's); after
    // a successful read the open handle is forgotten (the scanner is opened
    // again by the next Initialize).
    bool GetSerialNumber(unsigned long index, std::string& serial);
    // Writes 0xBA, the first 8 characters and their sum modulo 256.
    bool SetSerialNumber(const std::string& serial);
    // Hardware and firmware versions as "a.b[.c[.d]]"; 65535 parts are left
    // out. The strings stay as they were when the API cannot tell.
    bool GetDeviceVersions(std::string& hardware, std::string& firmware, std::string& third);

    // Connected scanners in ascending interface order. `count` is the
    // array's capacity on entry: 0 asks for the number (false, last error
    // 17, count set); too small is false with last error 17 and the count
    // unchanged. Never writes more than `count` records.
    bool GetScannerList(DeviceInfo* list, unsigned long& count);
    // Whether the last GetScannerList failed for want of room (rather than
    // by a failing API call); unlike the API's last error, no later call
    // changes it.
    bool ListDidNotFit() const { return m_bListDidNotFit; }
    // The base interface; false when the API cannot tell.
    bool GetScanInterface(unsigned long& index);
    bool SetScanInterface(unsigned long index);

    unsigned long GetLastError();
    void SetLastError(unsigned long code);

    bool LoggingEnable(unsigned short level, const char* fileName);
    bool LoggingDisable();

    bool IsOpen() const { return m_hFtrHandle != nullptr; }
    // True when the loaded API has the extended group.
    bool HasExtendedAPI() const { return m_pApi != nullptr && m_pApi->m_nExtendedLevel >= 1; }
    ClQV2APILib* Api() const { return m_pApi.get(); }

private:
    std::unique_ptr<ClQV2APILib> m_pApi;
    FTRHANDLE m_hFtrHandle = nullptr;
    std::uint8_t m_nGreenLED = 0;
    std::uint8_t m_nRedLED = 0;
    std::uint32_t m_nWritePosition = 0;
    std::uint32_t m_nReadPosition = 0;
    bool m_bListDidNotFit = false;
    std::string m_strLogFileName;
};

}  // namespace vc
