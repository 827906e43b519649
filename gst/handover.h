// Telling ThreadSanitizer about the hand-overs GStreamer makes out of its
// sight. GLib is not built with the sanitizer and its GMutex, GCond and
// atomic reference counts work on futexes and atomics the sanitizer does not
// see, so a buffer that the element fills on the plug-in's worker, pushes
// downstream and gets back through its pool would look like a race between
// the worker and whoever reads the buffer. The element marks the points
// where a buffer leaves its hands (Release) and where one comes back from
// the pool (Acquire); a reader in an instrumented program does the same
// around its reads. Outside ThreadSanitizer builds these are nothing.
#pragma once

#if defined(__SANITIZE_THREAD__)
#define KR7_HANDOVER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KR7_HANDOVER_TSAN 1
#endif
#endif

#if defined(KR7_HANDOVER_TSAN)
#include <sanitizer/tsan_interface.h>
#endif

namespace kr7gst {

// Everything this thread did before happens before what follows a
// matching Acquire of the same object on another thread.
inline void Release(const void* object) {
#if defined(KR7_HANDOVER_TSAN)
    __tsan_release(const_cast<void*>(object));
#else
    (void)object;
#endif
}

inline void Acquire(const void* object) {
#if defined(KR7_HANDOVER_TSAN)
    __tsan_acquire(const_cast<void*>(object));
#else
    (void)object;
#endif
}

}  // namespace kr7gst
