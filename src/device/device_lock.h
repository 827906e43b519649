// Holds the KR7 SDK's device lock for a scope.
#pragma once

#include "device/norvak_kr7_sdk.h"

namespace vc {

class CXDeviceLock {
public:
    explicit CXDeviceLock(ClNorvakKR7SDK& sdk) : m_rSdk(sdk) { m_rSdk.Lock(); }
    ~CXDeviceLock() { m_rSdk.UnLock(); }
    CXDeviceLock(const CXDeviceLock&) = delete;
    CXDeviceLock& operator=(const CXDeviceLock&) = delete;

private:
    ClNorvakKR7SDK& m_rSdk;
};

}  // namespace vc
