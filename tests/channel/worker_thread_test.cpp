#include "channel/worker_thread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdint>

namespace {

// What the thread saw of its own attributes.
struct Observed {
    std::size_t stackSize = 0;
    int scope = -1;
    int policy = -1;
    int priority = -1;
};

Observed ObserveSelf() {
    Observed seen;
    pthread_attr_t attr;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
        pthread_attr_getstacksize(&attr, &seen.stackSize);
        pthread_attr_getscope(&attr, &seen.scope);
        pthread_attr_destroy(&attr);
    }
    sched_param param{};
    pthread_getschedparam(pthread_self(), &seen.policy, &param);
    seen.priority = param.sched_priority;
    return seen;
}

class DefaultThread : public vc::CWin32Thread {
public:
    unsigned int Work() override {
        seen = ObserveSelf();
        return 0xBEEFu;
    }
    Observed seen;
};

class TunedThread : public DefaultThread {
public:
    std::size_t GetStackSize() const override { return stackSize; }
    int GetConcurrencyScope() const override { return 0; }
    int GetSchedPriority() const override { return 5; }
    std::size_t stackSize = 0;
};

std::uintptr_t ExitValue(void* value) {
    return reinterpret_cast<std::uintptr_t>(value);
}

TEST(WorkerThread, DefaultAttributesAndExitValue) {
    DefaultThread thread;
    ASSERT_TRUE(thread.Start());
    EXPECT_EQ(0xBEEFu, ExitValue(thread.StopMsg()));
    // The stack holds the requested 1 MiB (the library may add a guard page).
    EXPECT_GE(thread.seen.stackSize, std::size_t{0x100000});
    EXPECT_LT(thread.seen.stackSize, std::size_t{0x100000 + 0x10000});
    EXPECT_EQ(PTHREAD_SCOPE_SYSTEM, thread.seen.scope);
    EXPECT_EQ(SCHED_OTHER, thread.seen.policy);
    EXPECT_EQ(0, thread.seen.priority);
}

TEST(WorkerThread, OverriddenAttributes) {
    TunedThread thread;
    thread.stackSize = 0x300000;
    // Process scope is refused by Linux and the priority is not inherited:
    // neither stops the thread.
    ASSERT_TRUE(thread.Start());
    EXPECT_EQ(0xBEEFu, ExitValue(thread.Stop()));
    EXPECT_GE(thread.seen.stackSize, std::size_t{0x300000});
    EXPECT_LT(thread.seen.stackSize, std::size_t{0x300000 + 0x10000});
    EXPECT_EQ(0, thread.seen.priority);

    // A stack size of 0 leaves the library's default.
    pthread_attr_t defaults;
    ASSERT_EQ(0, pthread_getattr_default_np(&defaults));
    std::size_t defaultSize = 0;
    pthread_attr_getstacksize(&defaults, &defaultSize);
    pthread_attr_destroy(&defaults);
    thread.stackSize = 0;
    ASSERT_TRUE(thread.Start());
    thread.Stop();
    if (defaultSize != 0) {
        EXPECT_GE(thread.seen.stackSize, defaultSize);
        EXPECT_LT(thread.seen.stackSize, defaultSize + 0x10000);
    }
}

TEST(WorkerThread, NoThreadMeansNothingToJoinOrSignal) {
    DefaultThread idle;
    EXPECT_EQ(nullptr, idle.Stop());
    EXPECT_TRUE(idle.Kill());

    // A stack no system can map makes the creation fail.
    TunedThread huge;
    huge.stackSize = std::size_t{1} << 62;
    EXPECT_FALSE(huge.Start());
    EXPECT_EQ(nullptr, huge.StopMsg());
    EXPECT_TRUE(huge.Kill());

    // Once joined, the thread is gone: a second Stop or a Kill touches nothing.
    DefaultThread done;
    ASSERT_TRUE(done.Start());
    EXPECT_EQ(0xBEEFu, ExitValue(done.Stop()));
    EXPECT_EQ(nullptr, done.Stop());
    EXPECT_TRUE(done.Kill());
}

// Blocks SIGTERM in the worker and waits for it there, so the signal is
// taken synchronously (no handler, nothing for a sanitizer to defer); the
// thread's exit value is the signal it received.
class WaitForSignal : public vc::CWin32Thread {
public:
    unsigned int Work() override {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
        ready.store(true);
        const timespec limit{30, 0};  // a missing signal fails the test instead of hanging it
        const int received = sigtimedwait(&set, nullptr, &limit);
        return received > 0 ? static_cast<unsigned int>(received) : 0u;
    }
    std::atomic<bool> ready{false};
};

TEST(WorkerThread, KillSendsSigtermToTheThread) {
    WaitForSignal thread;
    ASSERT_TRUE(thread.Start());
    while (!thread.ready.load()) {
        Nvk::CXWorkerThread::Relinquish();
    }
    EXPECT_TRUE(thread.Kill());
    EXPECT_EQ(static_cast<std::uintptr_t>(SIGTERM), ExitValue(thread.StopMsg()));
}

TEST(WorkerThread, SleepAndRelinquish) {
    EXPECT_EQ(0, Nvk::CXWorkerThread::Sleep(0));
    EXPECT_EQ(0, Nvk::CXWorkerThread::Relinquish());
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(0, Nvk::CXWorkerThread::Sleep(15));
    // nanosleep never returns early when not interrupted; no upper bound.
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(15));
    EXPECT_EQ(-1, Nvk::CXWorkerThread::Sleep(-1));  // rejected, not a long sleep
}

}  // namespace
