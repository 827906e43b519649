// The device SDK of the KR7 scanner: owns the scanner, its settings, the
// calibration and the capture channel, and turns raw frames into calibrated
// 8-bit bitmaps for the channel's worker.
//
// Threads. The host's threads call the operations below; the channel's
// worker calls the ClFramegrabberSDK operations, one pass at a time between
// Lock and UnLock. The device lock is real: a worker's pass and every host
// operation that touches the scanner or the calibration exclude each other
// (a host call may wait up to one frame). It is recursive, so an operation
// may take it again on the same thread. It is never held while a worker is
// joined or a host callback runs: a device event raised under the lock is
// delivered after the outermost UnLock.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/framegrabber.h"
#include "channel/channel.h"
#include "channel/framegrabber_sdk.h"
#include "closed/norvaklf.h"
#include "device/futronic_base_sdk.h"
#include "image/simple_bitmap.h"
#include "util/multi_string.h"

namespace vc {

class ClNorvakKR7SDK : public ClFramegrabberSDK {
public:
    class CXSetting;            // device/settings.h
    class ClXEvents;            // device/events.h
    class CXCalDynamicLib;      // device/calibration_binding.h
    class CXCalibrationHandle;  // device/calibration_binding.h
    class CXCalibration;        // device/calibration_binding.h

    // No active channel.
    static constexpr unsigned int kNoChannel = 65535;
    // The settings file the scanner's first initialisation reads.
    static constexpr const char* kSettingsPath = "/etc/norvakkr7.cfg";

    // Builds the parts; touches no device. `owner` is kept for the channels.
    explicit ClNorvakKR7SDK(void* owner);
    // Stops every channel, then releases the scanner and the calibration.
    ~ClNorvakKR7SDK() override;
    ClNorvakKR7SDK(const ClNorvakKR7SDK&) = delete;
    ClNorvakKR7SDK& operator=(const ClNorvakKR7SDK&) = delete;

    // ---- the channel's view ---------------------------------------------
    void InitializeSDK(ClFrameGrabberChannel& channel) override;
    void UninitializeSDK(ClFrameGrabberChannel& channel) override;
    void SetActiveChannel(ClFrameGrabberChannel& channel,
                          Nvk::utilities::ClSimpleBitmap& bitmap) override;
    void GetLiveBitmap(ClFrameGrabberChannel& channel,
                       Nvk::utilities::ClSimpleBitmap& bitmap) override;
    void StartLiveCapturing(ClFrameGrabberChannel& channel) override;
    void StopLiveCapturing(ClFrameGrabberChannel& channel) override;
    bool IsDirty(ClFrameGrabberChannel& channel) override;
    bool Lock() override;
    void UnLock() override;

    // ---- scanner lifecycle ----------------------------------------------
    // Settings, open, long image, extended API, calibration; once until
    // UninitializeScanner. Throws ClVCException with the texts and codes of
    // each step.
    void InitializeScanner();
    void UninitializeScanner();
    // Stops every channel, then closes the scanner.
    void FreeSDK();

    // ---- frames -----------------------------------------------------------
    // Raw frame at the contamination dose into `buffer`.
    void FuzzyImage(unsigned char* buffer);
    // A frame turned and inverted but not calibrated.
    void GetRowLiveBitmap(Nvk::utilities::ClSimpleBitmap& bitmap);
    // Turns an 8-bit image upside down and inverts it, in one pass.
    static void PrepareImage(Nvk::utilities::ClSimpleBitmap& bitmap);
    // An 8-bit width × height bitmap holding `size` bytes of `data`, white.
    static void CreateBitmap(Nvk::utilities::ClSimpleBitmap& bitmap, long width, long height,
                             const unsigned char* data, unsigned long size);
    // A raw backlight-dose frame at the native size, 500 dpi.
    void SnapRefImage(Nvk::utilities::ClSimpleBitmap& bitmap);
    // One calibrated frame on `ch` after stopping its capture; the block
    // goes to `*image`, to be freed with delete[].
    void Snap(unsigned int ch, unsigned char** image);

    // ---- forwarding to the channels ---------------------------------------
    void StartCapture(int handle, unsigned int ch, eCaptureModeIDs mode, FGImageCallback image,
                      FGResultCallback result, FGErrorCallback error, FGWarningCallback warning,
                      void* user);
    void StopCapture(unsigned int ch);
    void SetFilter(unsigned int ch, eFilterIDs filter);
    void SetResolution(unsigned int ch, const ClImageResolution& resolution);
    void Freeze(unsigned int ch, bool enable);
    void SetAspectRatio(unsigned int ch, double x, double y);
    void SetCallbacks(unsigned int ch, FGStartCallback start, FGStopCallback stop);
    void SetCamera(unsigned int ch, eCameraIDs camera, eColorModeIDs colorMode);
    void RefreshBackGround(unsigned int ch, ClFramegrabber& grabber);
    void StopAllChannel();
    void SetDefaultCamera(unsigned int ch);

    // ---- properties, events, errors ----------------------------------------
    void GetProperty(ePropertyIDs id, unsigned int& value);
    void SetProperty(ePropertyIDs id, unsigned int value);
    // Stores the last error; three codes get fixed texts.
    void SetLastFGError(unsigned long code, const std::string& description);
    // A consistent copy of the last error, for any thread.
    void GetLastFGError(unsigned long& code, std::string& description) const;
    // Sorts a failed capture's scanner error: true for an empty frame,
    // false for a moving or fake finger (the latter raises the event);
    // throws for a disconnection and anything else, closing the scanner.
    bool CheckScannerError(unsigned long code);
    // The first argument is not used; `handle` comes back in every event.
    void EnableEvents(int unused, unsigned int handle, FGEventCallback callback, void* user);
    void OnFakeFinger();
    void GetActiveScanner(unsigned long& index);
    void SetActiveScanner(unsigned long index);
    void ReadSDKInfo();
    void GetSDKInfo(char* buffer, unsigned long& size);
    void AvailableScanners(DeviceInfo* list, unsigned long& count);
    std::string GetRevisionStr() const;
    // Contamination of the platen, measured on channel 1.
    void ContaminationDetection(unsigned int ch, double* result);
    void RegisterLFCallbacks() {}
    void UnregisterLFCallbacks() {}

    // ---- state, for the facade and for tests ----------------------------
    ClFutronicBaseSDK& Scanner() { return *m_pScanner; }
    bool IsScannerInitialized() const { return m_bScannerInitialized; }
    CXSetting& Settings() { return *m_pSetting; }
    CXCalibration* Calibration() { return m_pCalibration.get(); }
    unsigned int ActiveChannel() const { return m_nActiveChannel.load(); }
    std::size_t ChannelCount() const { return m_vChannels.size(); }
    void* Owner() const { return m_pOwner; }

    // The SDK whose scanner CBLoggingFacility works on, and its lock.
    static ClNorvakKR7SDK* m_pCBData;
    static std::mutex m_cCBMutex;

protected:
    // The channel numbered `ch` (numbers count from 1); error 4 otherwise.
    ClNorvakKR7Channel& Channel(unsigned int ch);
    // Ends all captures without a lock held, then clears the channels' view
    // of this SDK.
    void StopChannelsForTeardown();

private:
    // Shapes the channel's bitmap: raw bitmap, calibrated size, buffer.
    void PrepareChannel(ClFrameGrabberChannel& channel, Nvk::utilities::ClSimpleBitmap& bitmap);
    void ApplyFakeFingerOption();
    // A scanner call failed with the API's last error `code`. A
    // disconnection is handled as in a capture (CheckScannerError): the
    // scanner is closed, since its handle stays dead after a replug and the
    // next operation must open it again, and 31 is thrown with its text. Any
    // other code is thrown with `text`.
    [[noreturn]] void ThrowScannerError(unsigned long code, const char* text);
    // The scanner's frame size; refuses sizes no frame buffer can be made from.
    FTRSCAN_IMAGE_SIZE ReadImageSize();
    // Whether the calling thread holds the device lock.
    bool HoldsDeviceLock() const;

    std::unique_ptr<ClFutronicBaseSDK> m_pScanner;
    mutable std::mutex m_ErrorMutex;  // guards the last-error record
    std::string m_strLastError;
    unsigned long m_nLastError = 0;
    std::unique_ptr<CXCalibration> m_pCalibration;
    Nvk::ClMultiString m_SDKInfo;
    std::unique_ptr<CXSetting> m_pSetting;
    std::unique_ptr<ClXEvents> m_pEvents;
    Nvk::utilities::ClSimpleBitmap m_RawBitmap;
    std::unique_ptr<unsigned char> m_pFakeFingerOverride;
    bool m_bScannerInitialized = false;
    std::vector<ClNorvakKR7Channel> m_vChannels;
    void* m_pOwner = nullptr;
    std::uint32_t m_nCalibratedImageSize = 0;
    std::atomic<unsigned int> m_nActiveChannel{kNoChannel};
    std::atomic<unsigned int> m_nCurrentChannel{1};

    // The device lock: recursion depth and an event waiting for the
    // outermost UnLock, both touched only by the thread holding the lock.
    std::recursive_mutex m_DeviceMutex;
    int m_nLockDepth = 0;
    bool m_bFakeFingerPending = false;
    std::atomic<std::thread::id> m_LockOwner{};
};

// Callback for the logging library's events (enable, disable, level) on the
// scanner of m_pCBData. Nothing registers it in this build.
int CBLoggingFacility(NvkLFCBEvents event, void* data);

}  // namespace vc
