// Holds the KR7 SDK's device lock for a scope.
#pragma once

#include "device/norvak_kr7_sdk.h"

namespace vc {

class SCOPED_CAPABILITY CXDeviceLock {
public:
    // A capture worker between two passes lets the waiting thread in.
    explicit CXDeviceLock(ClNorvakKR7SDK& sdk) ACQUIRE(sdk.m_DeviceMutex) : m_rSdk(sdk) {
        const ClFramegrabberSDK::CXLockRequest request(sdk);
        m_rSdk.Lock();
    }
    ~CXDeviceLock() RELEASE() { m_rSdk.UnLock(); }
    CXDeviceLock(const CXDeviceLock&) = delete;
    CXDeviceLock& operator=(const CXDeviceLock&) = delete;

private:
    ClNorvakKR7SDK& m_rSdk;
};

}  // namespace vc
