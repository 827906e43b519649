// Client of the optional logging library libnorvaklf.so.
//
// Create() loads the library once per process and publishes its two entry
// points in static members; Destroy() unloads it. Every log site of the
// plug-in writes through Nvk::utilities::Log(), which forwards level, format
// and arguments unformatted to the library while a client exists and does
// nothing at all (no formatting, no allocation) otherwise. A missing library
// only silences logging.
#pragma once

#include <atomic>
#include <type_traits>

#include "closed/norvaklf.h"
#include "util/dynamic_library.h"

namespace Nvk {
namespace utilities {

class ClLoggingFacilityClient : public CXDynamicLibrary {
public:
    // NvkLFLog (closed/norvaklf.h) without its printf-checking attribute, which a
    // template argument cannot carry.
    using LogFn = NvkLFResult (*)(NvkLFLogLevels, const char*, ...);
    using FlushFn = decltype(&NvkLFFlush);

    // Loads the library. Throws CXOtherException: kErrLibraryLoad when it
    // cannot be opened, kErrSymbolResolve when an entry is missing (the
    // handle is closed again then).
    ClLoggingFacilityClient();
    ~ClLoggingFacilityClient() override;

    // Creates the process's client unless there is one. A failing load
    // leaves logging off and passes the exception on.
    static void Create();
    // Deletes the client; logging is off afterwards. Harmless without one.
    static void Destroy();
    // Kept for callers of the library's old interface; does nothing.
    static void Log(NvkLFLogLevels level, const char* format, ...);

    // The switch every log site tests; null while logging is off.
    static std::atomic<ClLoggingFacilityClient*> m_fpLogInstance;
    // The library's entries. They keep their values after Destroy (and
    // m_fpLog after a load that failed at NvkLFFlush), but nothing calls
    // them while m_fpLogInstance is null. m_fpFlush is never called.
    static std::atomic<LogFn> m_fpLog;
    static std::atomic<FlushFn> m_fpFlush;

private:
    void Initialize();
};

// Log levels the plug-in writes at.
enum eLogLevel : int {
    kLogError = 3,
    kLogWarning = 4,
    kLogState = 6,
    kLogTrace = 7,
};

// The one way a log site writes: forwards to the library while logging is
// on; otherwise returns at once without touching the arguments.
template <class... Args>
inline void Log(int level, const char* format, Args... args) {
    static_assert((std::is_scalar<Args>::value && ...),
                  "log arguments are numbers and pointers, passed as printf takes them");
    if (ClLoggingFacilityClient::m_fpLogInstance.load(std::memory_order_acquire) == nullptr) {
        return;
    }
    const ClLoggingFacilityClient::LogFn log =
        ClLoggingFacilityClient::m_fpLog.load(std::memory_order_relaxed);
    if (log != nullptr) {
        log(static_cast<NvkLFLogLevels>(level), format, args...);
    }
}

}  // namespace utilities
}  // namespace Nvk
