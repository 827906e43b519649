#include "channel/framegrabber_sdk.h"

namespace vc {

// Defaults for a device that needs no set-up, has no live stream to start
// or stop, no own finger detection and no lock.

void ClFramegrabberSDK::InitializeSDK(ClFrameGrabberChannel&) {}

void ClFramegrabberSDK::UninitializeSDK(ClFrameGrabberChannel&) {}

void ClFramegrabberSDK::SetActiveChannel(ClFrameGrabberChannel&, Nvk::utilities::ClSimpleBitmap&) {}

void ClFramegrabberSDK::GetLiveBitmap(ClFrameGrabberChannel&, Nvk::utilities::ClSimpleBitmap&) {}

bool ClFramegrabberSDK::WaitForPlainFinger(ClFrameGrabberChannel&,
                                           Nvk::utilities::ClSimpleBitmap&) {
    return false;
}

void ClFramegrabberSDK::StartLiveCapturing(ClFrameGrabberChannel&) {}

void ClFramegrabberSDK::StopLiveCapturing(ClFrameGrabberChannel&) {}

bool ClFramegrabberSDK::HasSelfDetection(ClFrameGrabberChannel&) {
    return false;
}

bool ClFramegrabberSDK::Lock() {
    return true;
}

void ClFramegrabberSDK::UnLock() {}

void ClFramegrabberSDK::TriggerImage(ClFrameGrabberChannel&, Nvk::utilities::ClSimpleBitmap&) {}

}  // namespace vc
