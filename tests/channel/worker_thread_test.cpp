#include "channel/worker_thread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cstdint>

namespace {

// Records the stack size the thread runs with.
class DefaultThread : public vc::CWin32Thread {
public:
    unsigned int Work() override {
        pthread_attr_t attr;
        if (pthread_getattr_np(pthread_self(), &attr) == 0) {
            pthread_attr_getstacksize(&attr, &stackSize);
            pthread_attr_destroy(&attr);
        }
        return 0xBEEFu;
    }
    std::size_t stackSize = 0;
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

// The stack holds at least the requested size. glibc may hand a new thread
// the cached stack of an ended one, up to four times the size asked for
// (pthread_getattr_np then reports the cached size), so the bound above is
// that and not the request itself: any other thread of the process may have
// left such a stack behind.
void ExpectStack(std::size_t requested, std::size_t seen) {
    EXPECT_GE(seen, requested);
    EXPECT_LE(seen, 4 * requested + 0x10000);
}

TEST(WorkerThread, AttributesAndExitValue) {
    pthread_attr_t defaults;
    std::size_t defaultSize = 0;
    ASSERT_EQ(0, pthread_getattr_default_np(&defaults));
    pthread_attr_getstacksize(&defaults, &defaultSize);
    pthread_attr_destroy(&defaults);

    DefaultThread plain;
    ASSERT_TRUE(plain.Start());
    EXPECT_EQ(0xBEEFu, ExitValue(plain.StopMsg()));
    ExpectStack(0x100000, plain.stackSize);
    // Once joined, the thread is gone: a second Stop or a Kill touches nothing.
    EXPECT_EQ(nullptr, plain.Stop());
    EXPECT_TRUE(plain.Kill());

    // Linux refuses process scope, and priority 5 for the default policy:
    // neither stops the thread. The size asked for is above the default.
    TunedThread tuned;
    tuned.requested = 2 * defaultSize;
    ASSERT_TRUE(tuned.Start());
    EXPECT_EQ(0xBEEFu, ExitValue(tuned.Stop()));
    ExpectStack(2 * defaultSize, tuned.stackSize);

    // A stack size of 0 leaves the library's default.
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

}  // namespace
