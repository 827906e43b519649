// One POSIX thread per object: a subclass supplies the thread body in Work();
// creation with attributes, joining, killing, sleeping and yielding live here.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>

namespace Nvk {

class CXWorkerThread {
public:
    // Sentinel of GetSchedPriority(): leave the priority alone.
    static constexpr int kKeepPriority = 0x7fffffff;

    CXWorkerThread() = default;
    CXWorkerThread(const CXWorkerThread&) = delete;
    CXWorkerThread& operator=(const CXWorkerThread&) = delete;
    // Does not stop the thread: the owner stops it first.
    virtual ~CXWorkerThread() = default;

    // Creates the thread with the attributes of the getters below; false when
    // the attributes cannot be initialised or the thread cannot be created.
    virtual bool Start();
    // Joins the thread and returns its exit value (null when the join fails
    // or no thread was started). It does not ask Work() to end. Called on
    // the thread itself it joins nothing and returns null: the thread stays
    // joinable for another thread to join.
    virtual void* Stop();
    // Sends SIGTERM to the thread; always true.
    virtual bool Kill();
    // The thread body; its result becomes the thread's exit value (0xFFFFFFFF
    // when it throws: nothing it throws leaves the thread).
    virtual unsigned int Work() = 0;
    // Stack size in bytes, 0 for the library's default.
    virtual std::size_t GetStackSize() const { return 0x100000; }
    // 1 asks for system contention scope, anything else for process scope.
    virtual int GetConcurrencyScope() const { return 1; }
    // kKeepPriority leaves the scheduling priority alone.
    virtual int GetSchedPriority() const { return kKeepPriority; }

    // nanosleep for `ms` milliseconds; an interrupted sleep is not resumed.
    // Sleep(0) is a real zero-length sleep and serves as a yield point.
    static int Sleep(int ms);
    static int Relinquish();

    // True when called on the thread this object started, until that
    // thread has been joined. Any thread may ask.
    bool IsWorkerThread() const;
    // True while a started thread has not been joined yet, also after its
    // Work() has returned. For the controlling thread.
    bool IsJoinable() const { return m_hThread != pthread_t{}; }

protected:
    // The thread entry: runs Work() of the object passed as argument.
    static void* Run(void* self);

private:
    // Zero while no thread exists. Only the controlling thread (the one
    // calling Start, Stop and Kill) touches it, so the worker never races
    // with its writes.
    pthread_t m_hThread{};
    // The running thread's own identifier, stored by the thread as it
    // starts and cleared once it has been joined; zero otherwise.
    std::atomic<pthread_t> m_WorkerId{};
};

}  // namespace Nvk

namespace vc {

// The base of the capture channel: a worker thread stopped through StopMsg().
class CWin32Thread : public Nvk::CXWorkerThread {
public:
    CWin32Thread() = default;  // no thread yet: the identifier is zero
    // Does not stop, join or kill the thread: the owner stops it first.
    ~CWin32Thread() override = default;

    // Joins the thread (CXWorkerThread::Stop, called non-virtually) and
    // returns its exit value.
    void* StopMsg() { return CXWorkerThread::Stop(); }
};

}  // namespace vc
