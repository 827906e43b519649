// The capture channel against hosts that do what hosts do: start and stop
// from two threads at once, call back into the channel from their
// callbacks, throw from them, take their time in them, and change the
// detector and the processor chain while frames flow.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "channel_test_support.h"

namespace {

// Makes every nothrow allocation of this test program fail while set, the
// way the pipeline's objects are created when memory runs out.
std::atomic<bool> g_bFailNothrowNew{false};

}  // namespace

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    if (g_bFailNothrowNew.load()) {
        return nullptr;
    }
    try {
        return ::operator new(size);
    } catch (...) {
        return nullptr;
    }
}

namespace kr7test {
namespace {

using vc::eCaptureLive;
using vc::eCapturePlainFinger;
using vc::eCaptureRolledFinger;
using E = Event;
using Channel = ProbeChannel<vc::ClNorvakKR7Channel>;

class HostileHostTest : public ::testing::Test {
protected:
    ScriptedSDK sdk;
    Host host;
    Channel channel;

    void TearDown() override {
        channel.StopCapture();
        EXPECT_TRUE(sdk.LockBalanced());
        EXPECT_EQ(host.Count(E::Start), host.Count(E::Stop));
    }
};

TEST_F(HostileHostTest, TwoHostThreadsStartAndStopTheSameChannel) {
    sdk.SetDefault(Op::GetLiveBitmap, Image(90, 32, 24));
    std::atomic<int> failedStarts{0};
    auto rounds = [&](int first) {
        for (int i = first; i < first + 400; ++i) {
            if (!host.Start(channel, eCaptureLive, i)) {
                ++failedStarts;
            }
            channel.StopCapture();
        }
    };
    std::thread other(rounds, 1000);
    rounds(0);
    other.join();
    channel.StopCapture();

    // Every worker was started once, joined once and has said goodbye.
    EXPECT_EQ(failedStarts.load(), 0);
    EXPECT_FALSE(channel.IsRunning());
    EXPECT_FALSE(channel.IsJoinable());
    EXPECT_FALSE(channel.startedOverUnjoined);
    EXPECT_EQ(host.Count(E::Error), 0);
    EXPECT_EQ(sdk.Count(Op::InitializeSDK), sdk.Count(Op::UninitializeSDK));

    // A stop may come before a worker has even begun, so the storm may have
    // let none through to its frames; the channel captures afterwards.
    ASSERT_TRUE(host.Start(channel, eCaptureLive, 7));
    EXPECT_TRUE(host.WaitFor(E::Image, host.Count(E::Image) + 1));
}

// State of a host whose start and stop callbacks replace the callbacks and
// whose image, error and stop callbacks may throw.
struct Reentrant {
    enum Throw { Nothing, Integer, Standard };
    Channel* channel = nullptr;
    std::atomic<Throw> imageThrows{Nothing};
    std::atomic<bool> errorThrows{false};
    std::atomic<bool> stopThrows{false};
    std::atomic<int> starts{0};
    std::atomic<int> stops{0};
    std::atomic<int> images{0};
    std::mutex mutex;
    std::vector<std::string> errors;

    static Reentrant& Of(void* user) { return *static_cast<Reentrant*>(user); }
    static void OnStart(int, unsigned int, void* user) {
        Reentrant& self = Of(user);
        ++self.starts;
        self.channel->SetCallbacks(&OnStart, &OnStop);
    }
    static void OnStop(int, unsigned int, void* user) {
        Reentrant& self = Of(user);
        ++self.stops;
        self.channel->SetCallbacks(&OnStart, &OnStop);
        if (self.stopThrows) {
            throw 7;
        }
    }
    static void OnImage(int, unsigned int, unsigned char*, void* user) {
        Reentrant& self = Of(user);
        ++self.images;
        switch (self.imageThrows.load()) {
            case Integer:
                throw 42;
            case Standard:
                throw std::runtime_error("the host's image callback failed");
            case Nothing:
                break;
        }
    }
    static void OnError(int, unsigned int, const char* text, void* user) {
        Reentrant& self = Of(user);
        {
            std::lock_guard<std::mutex> lock(self.mutex);
            self.errors.emplace_back(text);
        }
        if (self.errorThrows) {
            throw std::logic_error("the host's error callback failed too");
        }
    }
    bool Start(int id) {
        channel->SetCallbacks(&OnStart, &OnStop);
        return channel->StartCapture(id, eCaptureLive, &OnImage, nullptr, &OnError, nullptr, this);
    }
    std::vector<std::string> Errors() {
        std::lock_guard<std::mutex> lock(mutex);
        return errors;
    }
};

TEST_F(HostileHostTest, CallbacksThatSetTheCallbacksOrThrowEndOnlyTheCapture) {
    sdk.SetDefault(Op::GetLiveBitmap, Image(90, 32, 24));
    Reentrant state;
    state.channel = &channel;

    // Replacing the callbacks from inside the start and stop callbacks.
    ASSERT_TRUE(state.Start(1));
    ASSERT_TRUE(Eventually([&] { return state.images.load() > 2; }));
    EXPECT_FALSE(channel.StopCapture());
    EXPECT_EQ(state.starts.load(), 1);
    EXPECT_EQ(state.stops.load(), 1);

    // An image callback that throws something that is no exception class,
    // or a standard exception, ends the stream with an error; so it does
    // when the error callback and the stop callback throw as well. Nothing
    // leaves the worker: the process lives on and the channel restarts.
    struct Round {
        Reentrant::Throw what;
        bool errorThrows;
        const char* text;
    };
    const Round rounds[] = {{Reentrant::Integer, false, "Framegrabber Unknown error"},
                            {Reentrant::Standard, false, "the host's image callback failed"},
                            {Reentrant::Integer, true, "Framegrabber Unknown error"}};
    int id = 2;
    for (const Round& round : rounds) {
        SCOPED_TRACE(round.text);
        const int stopsBefore = state.stops;
        const std::size_t errorsBefore = state.Errors().size();
        state.imageThrows = round.what;
        state.errorThrows = round.errorThrows;
        state.stopThrows = round.errorThrows;
        ASSERT_TRUE(state.Start(id++));
        ASSERT_TRUE(Eventually([&] { return state.stops.load() == stopsBefore + 1; }));
        const std::vector<std::string> errors = state.Errors();
        ASSERT_EQ(errors.size(), errorsBefore + 1);
        EXPECT_EQ(errors.back(), round.text);
        EXPECT_FALSE(channel.StopCapture());
    }

    state.imageThrows = Reentrant::Nothing;
    state.errorThrows = false;
    state.stopThrows = false;
    const int images = state.images;
    ASSERT_TRUE(state.Start(id));
    ASSERT_TRUE(Eventually([&] { return state.images.load() > images + 2; }));
    EXPECT_FALSE(channel.StopCapture());
    EXPECT_EQ(state.starts.load(), state.stops.load());
}

TEST_F(HostileHostTest, ASlowHostSlowsTheCaptureDownWithoutCorruptingIt) {
    for (unsigned char fill = 1; fill <= 6; ++fill) {
        sdk.Add(Op::GetLiveBitmap, Image(fill));
    }
    sdk.SetDefault(Op::GetLiveBitmap, Image(99));
    struct Slow {
        std::mutex mutex;
        std::vector<int> seen;  // the middle pixel, before and after the wait
        std::atomic<bool> stopReturned{false};
        std::atomic<bool> lateCallback{false};
    } state;
    channel.SetCallbacks(nullptr, nullptr);
    ASSERT_TRUE(channel.StartCapture(
        1, eCaptureLive,
        [](int, unsigned int, unsigned char* image, void* user) {
            Slow& self = *static_cast<Slow*>(user);
            if (self.stopReturned) {
                self.lateCallback = true;
            }
            const auto* header = reinterpret_cast<const tagBITMAPINFOHEADER*>(image);
            const unsigned char* middle = ClSimpleBitmap::Pixel(header) + 60 * 160 + 80;
            const int before = *middle;
            std::this_thread::sleep_for(std::chrono::milliseconds(15));
            std::lock_guard<std::mutex> lock(self.mutex);
            self.seen.push_back(before);
            self.seen.push_back(*middle);
        },
        nullptr, nullptr, nullptr, &state));
    ASSERT_TRUE(Eventually([&] {
        std::lock_guard<std::mutex> lock(state.mutex);
        return state.seen.size() >= 16;
    }));
    EXPECT_FALSE(channel.StopCapture());
    state.stopReturned = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(40));
    EXPECT_FALSE(state.lateCallback.load());

    // One device frame per callback, in order, unchanged while the host
    // looked at it.
    std::lock_guard<std::mutex> lock(state.mutex);
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(state.seen[2 * i], i + 1);
        EXPECT_EQ(state.seen[2 * i + 1], i + 1);
    }
    EXPECT_EQ(state.seen[12], 99);
}

TEST(HostileHost, DetectorAndChainChangeFromAHostThreadWhileFramesFlow) {
    ScriptedSDK sdk;
    Host host;
    ProbeChannel<vc::ClFrameGrabberChannel> channel;  // runs the processor chain
    sdk.SetDefault(Op::GetLiveBitmap, Image(120, 200, 100));
    channel.SetFilter(vc::eFilterSubtractBackground);
    ASSERT_TRUE(host.Start(channel, eCapturePlainFinger));

    ClSimpleBitmap image;
    ClSimpleBitmap result;
    MakeFrame(image, 200, 100, 120);
    const vc::eCaptureModeIDs modes[] = {eCaptureLive, eCaptureRolledFinger, eCapturePlainFinger};
    for (int i = 0; i < 300; ++i) {
        channel.SetDetection(modes[i % 3]);
        channel.InitializeImageProcessing(true);
        channel.SetImageFlipPrecessing();
        channel.DoDetect(image, result);
        EXPECT_EQ(channel.GetCaptureMode(), modes[i % 3]);
        if (i % 50 == 0) {
            ASSERT_TRUE(host.WaitFor(E::Image, host.Count(E::Image) + 1));
        }
    }
    EXPECT_FALSE(channel.StopCapture());
    EXPECT_EQ(host.Count(E::Error), 0);
    EXPECT_EQ(host.Count(E::Stop), 1);
}

TEST(HostileHost, PipelineObjectsThatCannotBeCreatedAreError51) {
    vc::ClFrameGrabberChannel channel;
    channel.SetFilter(vc::eFilterSubtractBackground);
    g_bFailNothrowNew = true;
    ExpectVCError([&] { channel.InitializeImageProcessing(true); }, 51,
                  "Not enough storage is available to complete this operation");
    g_bFailNothrowNew = false;
    // The chain is still due to be built, and builds now.
    channel.InitializeImageProcessing(false);
}

}  // namespace
}  // namespace kr7test
