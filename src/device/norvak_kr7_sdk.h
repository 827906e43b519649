// The device SDK of the KR7 scanner: owns the scanner, its settings, the
// calibration and the capture channel, and turns raw frames into calibrated
// 8-bit bitmaps for the channel's worker.
//
// Threads. The host's threads call the operations below; the channel's
// worker calls the ClFramegrabberSDK operations, one pass at a time between
// Lock and UnLock. The device lock is real: a worker's pass and every host
// operation that touches the scanner or the calibration exclude each other
// (a host call may wait up to one frame). It is never held while a worker is
// joined or a host callback runs: a device event raised under the lock is
// delivered after the outermost UnLock. See docs/threads.md.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
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
#include "util/mutex.h"

namespace vc {

class CXDeviceLock;  // device/device_lock.h

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

    // Builds the parts; touches no device. `owner` (the host's context) is
    // not used.
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
    bool Lock() ACQUIRE(m_DeviceMutex) override;
    void UnLock() RELEASE(m_DeviceMutex) override;

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
    void FuzzyImage(unsigned char* buffer) REQUIRES(m_DeviceMutex);
    // Turns an 8-bit image upside down and inverts it, in one pass.
    static void PrepareImage(Nvk::utilities::ClSimpleBitmap& bitmap);
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
    // Under the device lock the event waits for the outermost UnLock.
    void OnFakeFinger();
    void GetActiveScanner(unsigned long& index);
    void SetActiveScanner(unsigned long index);
    void ReadSDKInfo();
    void GetSDKInfo(char* buffer, unsigned long& size);
    void AvailableScanners(DeviceInfo* list, unsigned long& count);
    std::string GetRevisionStr() const REQUIRES(m_DeviceMutex);
    // Contamination of the platen, measured on channel 1.
    void ContaminationDetection(unsigned int ch, double* result);
    void RegisterLFCallbacks() {}
    void UnregisterLFCallbacks() {}

    // ---- state, for tests and the logging library's callback -------------
    ClFutronicBaseSDK& Scanner() REQUIRES(m_DeviceMutex) { return *m_pScanner; }
    bool IsScannerInitialized();
    CXCalibration* Calibration() REQUIRES(m_DeviceMutex) { return m_pCalibration.get(); }

    // The SDK whose scanner CBLoggingFacility works on, and its lock.
    static Nvk::CXMutex m_cCBMutex;
    static ClNorvakKR7SDK* m_pCBData GUARDED_BY(m_cCBMutex);

protected:
    // The channel numbered `ch` (numbers count from 1); error 4 otherwise.
    ClNorvakKR7Channel& Channel(unsigned int ch);
    // Ends all captures without a lock held, then clears the channels' view
    // of this SDK.
    void StopChannelsForTeardown();

private:
    friend class CXDeviceLock;

    void ApplyFakeFingerOption() REQUIRES(m_DeviceMutex);
    // A scanner call failed with the API's last error `code`. A
    // disconnection is handled as in a capture (CheckScannerError): the
    // scanner is closed, since its handle stays dead after a replug and the
    // next operation must open it again, and 31 is thrown with its text. Any
    // other code is thrown with `text`.
    [[noreturn]] void ThrowScannerError(unsigned long code, const char* text)
        REQUIRES(m_DeviceMutex);
    // The scanner's frame size; refuses sizes no frame buffer can be made from.
    FTRSCAN_IMAGE_SIZE ReadImageSize() REQUIRES(m_DeviceMutex);
    // Whether the calling thread holds the device lock.
    bool HoldsDeviceLock() const;
    // Tells the analysis what HoldsDeviceLock() found.
    void DeviceLockHeld() const ASSERT_CAPABILITY(m_DeviceMutex) {}

    // The device lock. Recursive: the operations a worker's pass calls
    // inside Lock/UnLock (InitializeSDK, SetActiveChannel, GetLiveBitmap)
    // are whole operations of their own as well, for GetImage, tests and
    // benchmarks, and take the lock themselves; and a scanner error closes
    // the scanner (CheckScannerError, UninitializeScanner) from inside
    // whichever operation met it.
    Nvk::CXRecursiveMutex m_DeviceMutex;
    // Recursion depth and an event waiting for the outermost UnLock.
    int m_nLockDepth GUARDED_BY(m_DeviceMutex) = 0;
    bool m_bFakeFingerPending GUARDED_BY(m_DeviceMutex) = false;
    // The thread holding the device lock, for HoldsDeviceLock.
    std::atomic<std::thread::id> m_LockOwner{};

    // The scanner, the settings, the calibration and what is read from them.
    // The two pointers themselves never change; what they point to does.
    std::unique_ptr<ClFutronicBaseSDK> m_pScanner PT_GUARDED_BY(m_DeviceMutex);
    std::unique_ptr<CXSetting> m_pSetting PT_GUARDED_BY(m_DeviceMutex);
    std::unique_ptr<CXCalibration> m_pCalibration GUARDED_BY(m_DeviceMutex);
    Nvk::ClMultiString m_SDKInfo GUARDED_BY(m_DeviceMutex);
    Nvk::utilities::ClSimpleBitmap m_RawBitmap GUARDED_BY(m_DeviceMutex);
    std::unique_ptr<unsigned char> m_pFakeFingerOverride GUARDED_BY(m_DeviceMutex);
    bool m_bScannerInitialized GUARDED_BY(m_DeviceMutex) = false;
    std::uint32_t m_nCalibratedImageSize GUARDED_BY(m_DeviceMutex) = 0;

    // The last-error record; a leaf lock, taken also under the device lock.
    mutable Nvk::CXMutex m_ErrorMutex;
    std::string m_strLastError GUARDED_BY(m_ErrorMutex);
    unsigned long m_nLastError GUARDED_BY(m_ErrorMutex) = 0;

    // Locks of their own: the event sink and the channels. The vector is
    // made in the constructor and never resized.
    std::unique_ptr<ClXEvents> m_pEvents;
    std::vector<ClNorvakKR7Channel> m_vChannels;
    // Unguarded atomics: written under the device lock, except that
    // StopCapture forgets the active channel without it.
    std::atomic<unsigned int> m_nActiveChannel{kNoChannel};
    std::atomic<unsigned int> m_nCurrentChannel{1};
};

// Callback for the logging library's events (enable, disable, level) on the
// scanner of m_pCBData. Nothing registers it in this build.
int CBLoggingFacility(NvkLFCBEvents event, void* data);

}  // namespace vc
