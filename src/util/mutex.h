// The plug-in's one mutex type, its scoped lock and condition, annotated for
// Clang's thread-safety analysis (-Wthread-safety, on in the clang preset).
// The threads, the locks and their order are described in docs/threads.md.
//
// Annotate what a lock guards where it is declared:
//   int m_nValue GUARDED_BY(m_Mutex);           // read and written under it
//   std::unique_ptr<T> m_pT PT_GUARDED_BY(m_Mutex);  // the pointee is
//   void Step() REQUIRES(m_Mutex);              // the caller holds it
//   void Call() EXCLUDES(m_Mutex);              // the caller must not
// Other compilers see empty macros.
#pragma once

#include <pthread.h>

#if defined(__clang__) && defined(__has_attribute)
#if __has_attribute(capability)
#define KR7_THREAD_ANNOTATION(x) __attribute__((x))
#endif
#endif
#ifndef KR7_THREAD_ANNOTATION
#define KR7_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(name) KR7_THREAD_ANNOTATION(capability(name))
#define SCOPED_CAPABILITY KR7_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) KR7_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) KR7_THREAD_ANNOTATION(pt_guarded_by(x))
#define REQUIRES(...) KR7_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) KR7_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) KR7_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define EXCLUDES(...) KR7_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ASSERT_CAPABILITY(x) KR7_THREAD_ANNOTATION(assert_capability(x))
#define RETURN_CAPABILITY(x) KR7_THREAD_ANNOTATION(lock_returned(x))
// For the rare function whose locking the analysis cannot follow; say why
// next to it.
#define NO_THREAD_SAFETY_ANALYSIS KR7_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace Nvk {

class CXCondition;

// A POSIX mutex. Creating one that the system refuses throws
// CXSystemException with the error number; so does a failing Lock.
class CAPABILITY("mutex") CXMutex {
public:
    CXMutex();
    ~CXMutex();
    CXMutex(const CXMutex&) = delete;
    CXMutex& operator=(const CXMutex&) = delete;

    void Lock() ACQUIRE();
    void Unlock() RELEASE();

protected:
    // A mutex of the given pthread type (PTHREAD_MUTEX_RECURSIVE, ...).
    explicit CXMutex(int type);

private:
    friend class CXCondition;
    pthread_mutex_t m_Mutex;
};

// The same, taken again by the thread that holds it; released by as many
// Unlocks. Only for a lock that really is taken recursively: the analysis
// warns when one function takes a mutex it already holds, but not when a
// function it calls does.
class CAPABILITY("mutex") CXRecursiveMutex : public CXMutex {
public:
    CXRecursiveMutex();
};

// Holds a mutex for a scope.
class SCOPED_CAPABILITY CXLock {
public:
    explicit CXLock(CXMutex& mutex) ACQUIRE(mutex) : m_rMutex(mutex) { m_rMutex.Lock(); }
    ~CXLock() RELEASE() { m_rMutex.Unlock(); }
    CXLock(const CXLock&) = delete;
    CXLock& operator=(const CXLock&) = delete;

private:
    CXMutex& m_rMutex;
};

// A POSIX condition variable used with a CXMutex (not a recursive one).
// Creation fails as the mutex's does.
class CXCondition {
public:
    CXCondition();
    ~CXCondition();
    CXCondition(const CXCondition&) = delete;
    CXCondition& operator=(const CXCondition&) = delete;

    // Releases `mutex`, waits for a notification (or wakes spuriously) and
    // takes `mutex` again before it returns: call it in a loop on the
    // condition waited for.
    void Wait(CXMutex& mutex) REQUIRES(mutex);
    void NotifyAll();

private:
    pthread_cond_t m_Condition;
};

}  // namespace Nvk
