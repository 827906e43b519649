// The device layer as the capture channels see it.
//
// A channel's worker thread drives the device through this interface, one
// pass per frame, always naming itself as the calling channel. A device SDK
// (the KR7 scanner's is one) implements the operations it needs; the others
// keep the defaults below. Any operation may throw vc::ClVCWarning (the
// worker reports it and carries on), another Nvk::ClNorvakException or a
// std::exception (the worker reports it and ends the stream).
#pragma once

#include <atomic>

namespace Nvk {
namespace utilities {
class ClSimpleBitmap;
}  // namespace utilities
}  // namespace Nvk

namespace vc {

class ClFrameGrabberChannel;

// Per-channel data a device SDK hangs on a channel (SetSDKData). The channel
// owns it and deletes it through this base.
class ClFrameGrabberChannelSDKData {
public:
    virtual ~ClFrameGrabberChannelSDKData() = default;
};

class ClFramegrabberSDK {
public:
    virtual ~ClFramegrabberSDK() = default;

    // Prepares the device for `channel`; called once when its worker starts.
    virtual void InitializeSDK(ClFrameGrabberChannel& channel);
    // Releases what InitializeSDK prepared; called once when the worker ends.
    virtual void UninitializeSDK(ClFrameGrabberChannel& channel);
    // Selects `channel` on the device and shapes `bitmap` for its frames.
    virtual void SetActiveChannel(ClFrameGrabberChannel& channel,
                                  Nvk::utilities::ClSimpleBitmap& bitmap);
    // Fills `bitmap` with the next live frame; blocks until there is one.
    virtual void GetLiveBitmap(ClFrameGrabberChannel& channel,
                               Nvk::utilities::ClSimpleBitmap& bitmap);
    // Waits until the device itself has seen a placed finger and fills
    // `bitmap`; true when an image was taken.
    virtual bool WaitForPlainFinger(ClFrameGrabberChannel& channel,
                                    Nvk::utilities::ClSimpleBitmap& bitmap);
    virtual void StartLiveCapturing(ClFrameGrabberChannel& channel);
    virtual void StopLiveCapturing(ClFrameGrabberChannel& channel);
    // True when device settings changed so that the channel and its bitmap
    // must be set up again (SetActiveChannel).
    virtual bool IsDirty(ClFrameGrabberChannel& channel) = 0;
    // True when the device detects fingers itself (see WaitForPlainFinger).
    virtual bool HasSelfDetection(ClFrameGrabberChannel& channel);
    // The device lock, held by a worker for each pass over the device.
    virtual bool Lock();
    virtual void UnLock();
    // Takes one image on the host's request (preview capture).
    virtual void TriggerImage(ClFrameGrabberChannel& channel,
                              Nvk::utilities::ClSimpleBitmap& bitmap);

    // A thread that takes the device lock outside a worker's pass announces
    // it for as long as it waits, with one of these around its Lock(). A
    // worker gives the processor away between two passes only while such a
    // thread waits: otherwise it would take the lock again before the
    // waiting thread has woken up.
    class CXLockRequest {
    public:
        explicit CXLockRequest(ClFramegrabberSDK& sdk) : m_rSdk(sdk) { ++sdk.m_nLockRequests; }
        ~CXLockRequest() { --m_rSdk.m_nLockRequests; }
        CXLockRequest(const CXLockRequest&) = delete;
        CXLockRequest& operator=(const CXLockRequest&) = delete;

    private:
        ClFramegrabberSDK& m_rSdk;
    };
    bool LockRequested() const { return m_nLockRequests.load(std::memory_order_relaxed) > 0; }

private:
    std::atomic<int> m_nLockRequests{0};
};

}  // namespace vc
