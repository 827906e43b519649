// Symbols the host resolves after loading the plug-in.
#include <string>

#include "base/framegrabber.h"

#define KR7_EXPORT __attribute__((visibility("default")))

namespace {
// Marks the binary with its version; kept in the data segment as written.
const char* const m_szVersion = "Norvak_version libnorvakkr7fg 1.13.38.0";
}  // namespace

// The one frame-grabber object of the process, or null.
extern "C" {
KR7_EXPORT vc::ClFramegrabber* m_pFrameGrabber = nullptr;
}

KR7_EXPORT void ClientVersionDummyFunction() {
    std::string version(m_szVersion);
    (void)version;
}
