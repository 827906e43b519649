#include "channel/worker_thread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdint>

namespace {

// Records the stack size and priority the thread runs with.
class DefaultThread : public vc::CWin32Thread {
public:
    unsigned int Work() override {
        pthread_attr_t attr;
        if (pthread_getattr_np(pthread_self(), &attr) == 0) {
            pthread_attr_getstacksize(&attr, &stackSize);
            pthread_attr_destroy(&attr);
        }
        int policy = 0;
        sched_param param{};
        pthread_getschedparam(pthread_self(), &policy, &param);
        priority = param.sched_priority;
        return 0xBEEFu;
    }
    std::size_t stackSize = 0;
    int priority = -1;
};

class TunedThread : public DefaultThread {
public:
    std::size_t GetStackSize() const override { return requested; }
    int GetConcurrencyScope() const override { return 0; }
    int GetSchedPriority() const override { return 5; }
    std::size_t requested = 0;
};

std::uintptr_t ExitValue(void* value) {
    return reinterpret_cast<std::uintptr_t>(value);
}

// The stack holds the requested size (the library may add a guard page).
void ExpectStack(std::size_t requested, std::size_t seen) {
    EXPECT_GE(seen, requested);
    EXPECT_LT(seen, requested + 0x10000);
}

TEST(WorkerThread, AttributesAndExitValue) {
    DefaultThread plain;
    ASSERT_TRUE(plain.Start());
    EXPECT_EQ(0xBEEFu, ExitValue(plain.StopMsg()));
    ExpectStack(0x100000, plain.stackSize);
    EXPECT_EQ(0, plain.priority);

    // Process scope is refused by Linux and the priority is not inherited:
    // neither stops the thread.
    TunedThread tuned;
    tuned.requested = 0x300000;
    ASSERT_TRUE(tuned.Start());
    EXPECT_EQ(0xBEEFu, ExitValue(tuned.Stop()));
    ExpectStack(0x300000, tuned.stackSize);
    EXPECT_EQ(0, tuned.priority);

    // A stack size of 0 leaves the library's default.
    pthread_attr_t defaults;
    std::size_t defaultSize = 0;
    ASSERT_EQ(0, pthread_getattr_default_np(&defaults));
    pthread_attr_getstacksize(&defaults, &defaultSize);
    pthread_attr_destroy(&defaults);
    tuned.requested = 0;
    ASSERT_TRUE(tuned.Start());
    tuned.Stop();
    ExpectStack(defaultSize, tuned.stackSize);
}

TEST(WorkerThread, NoThreadMeansNothingToJoinOrSignal) {
    DefaultThread idle;
    EXPECT_EQ(nullptr, idle.Stop());
    EXPECT_TRUE(idle.Kill());

    // A stack no system can map makes the creation fail.
    TunedThread huge;
    huge.requested = std::size_t{1} << 62;
    EXPECT_FALSE(huge.Start());
    EXPECT_EQ(nullptr, huge.StopMsg());
    EXPECT_TRUE(huge.Kill());

    // Once joined, the thread is gone: a second Stop or a Kill touches nothing.
    ASSERT_TRUE(idle.Start());
    EXPECT_EQ(0xBEEFu, ExitValue(idle.Stop()));
    EXPECT_EQ(nullptr, idle.Stop());
    EXPECT_TRUE(idle.Kill());
}

// Blocks SIGTERM and waits for it, so the signal is taken synchronously (no
// handler for a sanitizer to defer); the exit value is the signal received.
class WaitForSignal : public vc::CWin32Thread {
public:
    unsigned int Work() override {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
        ready.store(true);
        const timespec limit{30, 0};  // a lost signal fails the test instead of hanging it
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

TEST(WorkerThread, Sleep) {
    EXPECT_EQ(0, Nvk::CXWorkerThread::Sleep(0));
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(0, Nvk::CXWorkerThread::Sleep(15));
    // An uninterrupted nanosleep never returns early; no upper bound.
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(15));
    EXPECT_EQ(-1, Nvk::CXWorkerThread::Sleep(-1));  // rejected, not a long sleep
}

}  // namespace
