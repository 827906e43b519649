#include "channel/worker_thread.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdint>

namespace {

// Records the stack size the thread runs with; `requested` other than 0
// replaces the stack size asked for.
class StackThread : public vc::CWin32Thread {
public:
    unsigned int Work() override {
        pthread_attr_t attr;
        if (pthread_getattr_np(pthread_self(), &attr) == 0) {
            pthread_attr_getstacksize(&attr, &stackSize);
            pthread_attr_destroy(&attr);
        }
        return 0xBEEFu;
    }
    std::size_t GetStackSize() const override {
        return requested != 0 ? requested : CWin32Thread::GetStackSize();
    }
    std::size_t stackSize = 0;
    std::size_t requested = 0;
};

// The capture channel's worker: a stack of at least 1 MiB. glibc may hand a
// new thread the cached stack of an ended one, up to four times the size
// asked for (pthread_getattr_np then reports the cached size), so the bound
// above is that and not the request itself: any other thread of the process
// may have left such a stack behind.
TEST(WorkerThread, StackExitValueAndOneJoin) {
    StackThread plain;
    ASSERT_TRUE(plain.Start());
    EXPECT_EQ(0xBEEFu, reinterpret_cast<std::uintptr_t>(plain.StopMsg()));
    EXPECT_GE(plain.stackSize, 0x100000u);
    EXPECT_LE(plain.stackSize, 4 * 0x100000u + 0x10000);
    // Once joined, the thread is gone: a second join touches nothing.
    EXPECT_EQ(nullptr, plain.Stop());
}

TEST(WorkerThread, NoThreadMeansNothingToJoin) {
    StackThread idle;
    EXPECT_EQ(nullptr, idle.Stop());

    // A stack no system can map makes the creation fail.
    StackThread huge;
    huge.requested = std::size_t{1} << 62;
    EXPECT_FALSE(huge.Start());
    EXPECT_EQ(nullptr, huge.StopMsg());
}

}  // namespace
