// Symbols the host resolves after loading the plug-in.
#include <string>
#include <type_traits>

#include "base/framegrabber.h"
#include "framegrabber/norvak_kr7_framegrabber.h"
#include "util/mutex.h"

#define KR7_EXPORT __attribute__((visibility("default")))

namespace {
// Marks the binary with its version; kept in the data segment as written.
[[gnu::used]] const char m_szVersion[] = "Norvak_version libnorvakkr7fg 1.13.38.0";

// Serialises creation and destruction of the object. Never held while the
// object is deleted: the destructor joins the capture threads.
Nvk::CXMutex g_EntryMutex;
}  // namespace

// The one frame-grabber object of the process, or null.
extern "C" {
KR7_EXPORT vc::ClFramegrabber* m_pFrameGrabber GUARDED_BY(g_EntryMutex) = nullptr;

KR7_EXPORT vc::ClFramegrabber* GetFrameGrabber() {
    Nvk::CXLock lock(g_EntryMutex);
    if (m_pFrameGrabber == nullptr) {
        // A throwing constructor releases the memory and leaves the global
        // null; the exception goes on to the host.
        m_pFrameGrabber = new vc::ClNorvakKR7Framegrabber(nullptr);
    }
    return m_pFrameGrabber;
}

KR7_EXPORT void DestroyFrameGrabber() {
    vc::ClFramegrabber* grabber = nullptr;
    {
        Nvk::CXLock lock(g_EntryMutex);
        grabber = m_pFrameGrabber;
        m_pFrameGrabber = nullptr;
    }
    delete grabber;
}
}

static_assert(std::is_same_v<decltype(&GetFrameGrabber), FGGetFrameGrabberFn>,
              "GetFrameGrabber must match its pointer type");
static_assert(std::is_same_v<decltype(&DestroyFrameGrabber), FGDestroyFrameGrabberFn>,
              "DestroyFrameGrabber must match its pointer type");

KR7_EXPORT void ClientVersionDummyFunction() {
    std::string version(m_szVersion);
    (void)version;
}
