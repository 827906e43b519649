#include "device/events.h"

#include "util/logging_client.h"

namespace vc {

using Nvk::utilities::Log;

void ClNorvakKR7SDK::ClXEvents::EnableEvents(unsigned int handle, FGEventCallback callback,
                                             void* user) {
    Log(7, "QV2 scanner. Enabling of QV2 scanner events.");
    Nvk::CXLock lock(m_Mutex);
    m_nHandle = handle;
    m_fpCallback = callback;
    m_pUser = user;
}

void ClNorvakKR7SDK::ClXEvents::Fire(unsigned int channel, eFG_KR7_Events type) {
    unsigned int handle;
    FGEventCallback callback;
    void* user;
    {
        Nvk::CXLock lock(m_Mutex);
        handle = m_nHandle;
        callback = m_fpCallback;
        user = m_pUser;
    }
    if (callback == nullptr) {
        return;
    }
    Log(7, "QV2 scanner. Occurring of QV2-scanner event. Handle: %d, channel: %d, Type: %d", handle,
        channel, static_cast<int>(type));
    callback(static_cast<int>(handle), channel, eFGKR7, static_cast<unsigned int>(type), user);
}

}  // namespace vc
