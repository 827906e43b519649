// The event sink through which the KR7 SDK tells the host about device
// events (a fake finger on the platen).
#pragma once

#include "device/norvak_kr7_sdk.h"
#include "util/mutex.h"

namespace vc {

class ClNorvakKR7SDK::ClXEvents {
public:
    ClXEvents() = default;

    // Stores the host's handle, callback and user word; a null callback
    // turns events off. Any thread.
    void EnableEvents(unsigned int handle, FGEventCallback callback, void* user) EXCLUDES(m_Mutex);
    // Calls the host's callback with (handle, channel, 19, type, user);
    // nothing without a callback. Never call it under the device lock.
    void Fire(unsigned int channel, eFG_KR7_Events type) EXCLUDES(m_Mutex);

private:
    // A leaf: the host's callback is called after it is released.
    Nvk::CXMutex m_Mutex;
    unsigned int m_nHandle GUARDED_BY(m_Mutex) = 0;
    FGEventCallback m_fpCallback GUARDED_BY(m_Mutex) = nullptr;
    void* m_pUser GUARDED_BY(m_Mutex) = nullptr;
};

}  // namespace vc
