// The event sink through which the KR7 SDK tells the host about device
// events (a fake finger on the platen).
#pragma once

#include <mutex>

#include "device/norvak_kr7_sdk.h"

namespace vc {

class ClNorvakKR7SDK::ClXEvents {
public:
    ClXEvents() = default;

    // Stores the host's handle, callback and user word; a null callback
    // turns events off. Any thread.
    void EnableEvents(unsigned int handle, FGEventCallback callback, void* user);
    // Calls the host's callback with (handle, channel, 19, type, user);
    // nothing without a callback. Never call it under the device lock.
    void Fire(unsigned int channel, eFG_KR7_Events type);

private:
    std::mutex m_Mutex;  // guards the three values below
    unsigned int m_nHandle = 0;
    FGEventCallback m_fpCallback = nullptr;
    void* m_pUser = nullptr;
};

}  // namespace vc
