#include "channel/worker_thread.h"

#include <cxxabi.h>
#include <sched.h>
#include <signal.h>
#include <time.h>

#include <cstdint>

namespace Nvk {

bool CXWorkerThread::Start() {
    const std::size_t stackSize = GetStackSize();
    const int priority = GetSchedPriority();

    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) {
        return false;
    }
    // Failures of the attribute setters are ignored: the thread then starts
    // with the library's value. Linux supports only system scope.
    pthread_attr_setscope(
        &attr, GetConcurrencyScope() != 1 ? PTHREAD_SCOPE_PROCESS : PTHREAD_SCOPE_SYSTEM);
    if (stackSize != 0) {
        pthread_attr_setstacksize(&attr, stackSize);
    }
    if (priority != kKeepPriority) {
        // The inherit-scheduling attribute stays as it is, so with the
        // defaults the priority does not take effect.
        sched_param param;
        if (pthread_attr_getschedparam(&attr, &param) == 0) {
            param.sched_priority = priority;
            pthread_attr_setschedparam(&attr, &param);
        }
    }
    const int created = pthread_create(&m_hThread, &attr, &CXWorkerThread::Run, this);
    pthread_attr_destroy(&attr);
    if (created != 0) {
        m_hThread = pthread_t{};
        return false;
    }
    return true;
}

void* CXWorkerThread::Run(void* self) {
    CXWorkerThread* const thread = static_cast<CXWorkerThread*>(self);
    thread->m_WorkerId.store(pthread_self());
    unsigned int result = 0;
    try {
        result = thread->Work();
    } catch (abi::__forced_unwind&) {
        throw;  // the thread is being cancelled or exits
    } catch (...) {
        // An exception leaving a thread's function ends the process; the
        // thread ends with the exit value of a failed body instead.
        result = static_cast<unsigned int>(-1);
    }
    return reinterpret_cast<void*>(static_cast<std::uintptr_t>(result));
}

void* CXWorkerThread::Stop() {
    // A thread cannot join itself (EDEADLK); it is left for another thread.
    // Checked first: the identifier below belongs to the controlling thread.
    if (IsWorkerThread()) {
        return nullptr;
    }
    // Joining a zero identifier, or one already joined, is undefined.
    if (m_hThread == pthread_t{}) {
        return nullptr;
    }
    void* result = nullptr;
    if (pthread_join(m_hThread, &result) != 0) {
        return nullptr;
    }
    m_hThread = pthread_t{};
    // Identifiers of joined threads are reused: forget this one.
    m_WorkerId.store(pthread_t{});
    return result;
}

bool CXWorkerThread::IsWorkerThread() const {
    const pthread_t worker = m_WorkerId.load();
    return worker != pthread_t{} && pthread_equal(worker, pthread_self()) != 0;
}

bool CXWorkerThread::Kill() {
    // pthread_kill on an identifier that names no thread is undefined (and
    // crashes the C library); without a thread there is nobody to signal.
    if (m_hThread != pthread_t{}) {
        pthread_kill(m_hThread, SIGTERM);
    }
    return true;
}

int CXWorkerThread::Sleep(int ms) {
    timespec duration;
    duration.tv_sec = ms / 1000;
    duration.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
    return nanosleep(&duration, nullptr);
}

int CXWorkerThread::Relinquish() {
    return sched_yield();
}

}  // namespace Nvk
