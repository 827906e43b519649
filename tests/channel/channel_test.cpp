// The capture channel's worker loop driven by a scripted device: start and
// stop, the device calls of each pass, errors and warnings at every step,
// the capture modes and pausing. Many start/stop cycles are in the
// hostile-host tests.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "channel_test_support.h"

namespace kr7test {
namespace {

using ::testing::ElementsAre;
using vc::eCaptureLive;
using vc::eCapturePlainFinger;
using vc::eCapturePreview;
using vc::eCaptureRolledFinger;
using E = Event;

class ChannelTest : public ::testing::Test {
protected:
    ScriptedSDK sdk;
    Host host;
    ProbeChannel<vc::ClNorvakKR7Channel> channel;

    void TearDown() override {
        channel.StopCapture();
        EXPECT_TRUE(sdk.LockBalanced());
        EXPECT_FALSE(host.CalledUnderDeviceLock());
    }
};

TEST_F(ChannelTest, LiveFramesReachTheHostOnTheWorkerInOrder) {
    channel.SetChannelIndex(3);
    channel.SetFilter(vc::eFilterSubtractBackground);  // the scanner channel runs no chain
    sdk.Add(Op::IsDirty, Do(Action::No));
    sdk.Add(Op::IsDirty, Action());
    for (unsigned char fill : {10, 20, 30}) {
        sdk.Add(Op::GetLiveBitmap, Image(fill));
    }
    sdk.Add(Op::GetLiveBitmap, Do(Action::Park));
    ASSERT_TRUE(host.Start(channel, eCaptureLive, 42));
    ASSERT_TRUE(sdk.WaitUntilWaiting());  // in the fourth pass
    EXPECT_EQ(channel.GetCaptureID(), 42);
    EXPECT_FALSE(channel.StopCapture());

    // The stop callback has run before StopCapture returned; every callback
    // came from the worker with the capture's id and index (and context: the
    // host's callbacks record through it).
    EXPECT_THAT(host.Kinds(), ElementsAre(E::Start, E::Image, E::Image, E::Image, E::Stop));
    const std::vector<Event> events = host.Events();
    EXPECT_NE(events[0].thread, std::this_thread::get_id());
    for (const Event& event : events) {
        EXPECT_EQ(event.thread, events[0].thread);
        EXPECT_EQ(event.handle, 42);
        EXPECT_EQ(event.tag, 3u);
    }
    EXPECT_EQ(events[1].middle, 10);  // as the device delivered it
    EXPECT_EQ(events[3].middle, 30);

    // One frame per pass under the lock, with set-up when the frame is still
    // empty or the device is dirty; the parked fourth pass ends with the
    // stop and its frame is not delivered; then the stop sequence.
    EXPECT_THAT(sdk.Calls(),
                ElementsAre(Op::Lock, Op::InitializeSDK, Op::UnLock,                //
                            Op::Lock, Op::IsDirty, Op::SetActiveChannel,            //
                            Op::StartLiveCapturing, Op::GetLiveBitmap, Op::UnLock,  //
                            Op::Lock, Op::IsDirty, Op::SetActiveChannel,            //
                            Op::StartLiveCapturing, Op::GetLiveBitmap, Op::UnLock,  //
                            Op::Lock, Op::IsDirty, Op::GetLiveBitmap, Op::UnLock,   //
                            Op::Lock, Op::IsDirty, Op::GetLiveBitmap, Op::UnLock,   //
                            Op::Lock, Op::StopLiveCapturing, Op::UninitializeSDK, Op::UnLock));

    // Idle again: the id and the error callback are gone, the warning
    // callback stays (and passes a null text on as null).
    EXPECT_EQ(channel.GetCaptureID(), -1);
    channel.SendError("late", 1);
    channel.SendWarning(nullptr, 1);
    EXPECT_EQ(host.Count(E::Error), 0);
    EXPECT_EQ(host.Events(E::Warning).at(0).text, "(null)");
}

TEST_F(ChannelTest, AnotherThreadRestartsOnceTheFrameBeingTakenIsDone) {
    sdk.Add(Op::GetLiveBitmap, Image(90));
    sdk.Add(Op::GetLiveBitmap, Do(Action::Gate, 91));
    sdk.Add(Op::GetLiveBitmap, Do(Action::Park));
    ASSERT_TRUE(host.Start(channel, eCaptureLive, 1));
    ASSERT_TRUE(sdk.WaitUntilWaiting());
    // A start from the thread that owns the capture changes nothing.
    EXPECT_TRUE(host.Start(channel, eCapturePreview, 2));
    EXPECT_EQ(channel.GetCaptureMode(), eCaptureLive);

    std::atomic<bool> restarted{false};
    std::thread other([&] {
        EXPECT_TRUE(host.Start(channel, eCaptureLive, 2));
        restarted = true;
    });
    ASSERT_TRUE(Eventually([&] { return !channel.IsRunning(); }));
    // The worker is still inside GetLiveBitmap: the stop cannot be through.
    EXPECT_FALSE(restarted);
    EXPECT_EQ(host.Count(E::Stop), 0);
    sdk.Release();
    other.join();
    ASSERT_TRUE(host.WaitFor(E::Start, 2));
    // The frame taken after the stop was not delivered.
    EXPECT_THAT(host.Kinds(), ElementsAre(E::Start, E::Image, E::Stop, E::Start));
    EXPECT_EQ(host.Events(E::Start)[1].handle, 2);
    EXPECT_FALSE(channel.StopCapture());  // any thread may stop
}

// A fault thrown by one step. An error (and a warning before the loop)
// ends the stream with one error callback and the stop sequence; a warning
// inside a pass is reported and the next passes deliver.
struct Fault {
    Op op;
    int nth;  // which call of `op` throws (1 = first)
    Action::Kind kind;
    const char* text = kFaultText;  // what the host is told
    bool goesOn = false;
    vc::eCaptureModeIDs mode = eCaptureLive;
};

void PrintTo(const Fault& f, std::ostream* os) {
    *os << "op " << static_cast<int>(f.op) << " call " << f.nth << " kind " << f.kind;
}

class ChannelFaultTest : public ChannelTest, public ::testing::WithParamInterface<Fault> {};

TEST_P(ChannelFaultTest, IsReportedOnceAndEndsTheStreamUnlessAWarningInAPass) {
    const Fault& f = GetParam();
    sdk.SetDefault(Op::IsDirty, Action());  // every pass sets the device up
    sdk.SetDefault(Op::HasSelfDetection,
                   Do(f.op == Op::WaitForPlainFinger ? Action::Frame : Action::No));
    sdk.Add(f.op, Action(), f.nth - 1);
    sdk.Add(f.op, Do(f.kind));
    ASSERT_TRUE(host.Start(channel, f.mode));
    if (f.goesOn) {
        ASSERT_TRUE(host.WaitFor(E::Image, 2));
    } else {
        ASSERT_TRUE(host.WaitFor(E::Stop, 1));
        EXPECT_TRUE(channel.IsRunning());  // ended on its own: running until the host stops it
        const std::vector<Op> calls = sdk.Calls();
        EXPECT_THAT(std::vector<Op>(calls.end() - 3, calls.end() - 1),
                    ElementsAre(Op::StopLiveCapturing, Op::UninitializeSDK));
        EXPECT_EQ(host.Events().back().kind, E::Stop);
    }
    EXPECT_FALSE(channel.StopCapture());
    const std::vector<Event> reports = host.Events(f.goesOn ? E::Warning : E::Error);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].text, f.text);
    EXPECT_EQ(host.Count(f.goesOn ? E::Error : E::Warning), 0);
}

constexpr const char* kUnknown = "Framegrabber Unknown error";
constexpr const char* kGeneric = "Framegrabber error";
INSTANTIATE_TEST_SUITE_P(
    EveryStep, ChannelFaultTest,
    ::testing::Values(
        Fault{Op::InitializeSDK, 1, Action::Error}, Fault{Op::InitializeSDK, 1, Action::Warning},
        Fault{Op::Lock, 2, Action::NoText, kUnknown}, Fault{Op::IsDirty, 1, Action::Error},
        Fault{Op::SetActiveChannel, 1, Action::StdError},
        Fault{Op::StartLiveCapturing, 1, Action::StdNoText, kGeneric},
        Fault{Op::GetLiveBitmap, 2, Action::StdError, kFaultText, false, eCapturePlainFinger},
        Fault{Op::HasSelfDetection, 1, Action::Error, kFaultText, false, eCapturePlainFinger},
        Fault{Op::WaitForPlainFinger, 3, Action::StdError, kFaultText, false, eCapturePlainFinger},
        Fault{Op::UnLock, 3, Action::StdNoText, kGeneric},
        // Warnings within a pass (the first pass is the second Lock and UnLock).
        Fault{Op::Lock, 2, Action::Warning, kFaultText, true},
        Fault{Op::GetLiveBitmap, 1, Action::Warning, kFaultText, true},
        Fault{Op::UnLock, 2, Action::Warning, kFaultText, true}));

// A preview image comes only on a trigger, and nothing in the plug-in
// triggers one (no device SDK takes trigger images either): a preview
// capture's passes only lock, check and unlock.
TEST_F(ChannelTest, PreviewWithoutATriggerLeavesTheDeviceAlone) {
    ASSERT_TRUE(host.Start(channel, eCapturePreview));
    ASSERT_TRUE(Eventually([&] { return sdk.Count(Op::IsDirty) >= 20; }));
    EXPECT_EQ(sdk.Count(Op::TriggerImage) + sdk.Count(Op::GetLiveBitmap), 0);
    channel.StopCapture();
    EXPECT_THAT(host.Kinds(), ElementsAre(E::Start, E::Stop));
}

TEST_F(ChannelTest, PausedChannelLeavesTheDeviceAloneUntilResumed) {
    sdk.Add(Op::GetLiveBitmap, Do(Action::Pause));
    sdk.Add(Op::GetLiveBitmap, Image(60));
    sdk.Add(Op::GetLiveBitmap, Do(Action::Pause));
    ASSERT_TRUE(host.Start(channel, eCaptureLive));
    ASSERT_TRUE(host.WaitFor(E::Image, 1));
    const int passes = sdk.Count(Op::Lock);
    // A few idle rounds of the worker: the device must not be touched.
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    EXPECT_EQ(sdk.Count(Op::Lock), passes);

    channel.SetPaused(false);
    ASSERT_TRUE(host.WaitFor(E::Image, 3));
    EXPECT_EQ(host.Events(E::Image)[1].middle, 60);
    EXPECT_FALSE(channel.StopCapture());  // paused again: the stop still returns
}

TEST_F(ChannelTest, DeviceDetectedFingerIsDeliveredWithoutOwnDetection) {
    sdk.SetDefault(Op::HasSelfDetection, Action());
    sdk.Add(Op::WaitForPlainFinger, Do(Action::No), 2);
    sdk.Add(Op::WaitForPlainFinger, Image(100, 200, 60));  // passes the gate
    sdk.Add(Op::WaitForPlainFinger, Image(0, 200, 60));    // black: held back
    sdk.Add(Op::WaitForPlainFinger, Do(Action::Empty));    // nothing to hand out
    sdk.Add(Op::WaitForPlainFinger, Do(Action::Park));
    ASSERT_TRUE(host.Start(channel, eCapturePlainFinger));
    ASSERT_TRUE(sdk.WaitUntilWaiting());
    channel.StopCapture();
    EXPECT_EQ(sdk.Count(Op::GetLiveBitmap), 0);
    EXPECT_THAT(host.Kinds(), ElementsAre(E::Start, E::Image, E::Result, E::Image, E::Stop));
    EXPECT_EQ(host.Events(E::Result)[0].result, eCapturePlainFinger);
    EXPECT_EQ(host.Events(E::Result)[0].middle, 100);
}

TEST_F(ChannelTest, RolledModeShowsOnlyTheDetectorsIntermediateImages) {
    channel.nextDetector.reset(new ScriptedDetection(
        eCaptureRolledFinger,
        {{false, 11, 200}, {false, 0, 0}, {false, 12, 200}, {true, 13, 200}, {true, 14, 100}}));
    sdk.Add(Op::GetLiveBitmap, Image(50, 200, 60), 5);
    sdk.Add(Op::GetLiveBitmap, Do(Action::Park));
    ASSERT_TRUE(host.Start(channel, eCaptureRolledFinger));
    ASSERT_TRUE(sdk.WaitUntilWaiting());
    channel.StopCapture();
    // Intermediates 11 and 12 (the empty one is skipped), the result 13;
    // the 100-pixel-wide result 14 fails the gate.
    const std::vector<Event> events = host.Events();
    EXPECT_THAT(host.Kinds(), ElementsAre(E::Start, E::Image, E::Image, E::Result, E::Stop));
    EXPECT_EQ(events[1].middle, 11);
    EXPECT_EQ(events[2].middle, 12);
    EXPECT_EQ(events[3].middle, 13);
    EXPECT_EQ(events[3].result, eCaptureRolledFinger);
}

TEST_F(ChannelTest, AStopFromTheHostsImageCallbackEndsTheStreamAndIsJoinedByTheNextStart) {
    struct SelfStop {
        ProbeChannel<vc::ClNorvakKR7Channel>* channel;
        std::atomic<int> images{0};
        std::atomic<int> stopResults{0};  // StopCapture's results, as 10 + result
        std::atomic<bool> stopped{false};
    } state{&channel};
    channel.SetCallbacks(
        nullptr, [](int, unsigned int, void* u) { static_cast<SelfStop*>(u)->stopped = true; });
    ASSERT_TRUE(channel.StartCapture(
        1, eCaptureLive,
        [](int, unsigned int, unsigned char*, void* u) {
            auto& self = *static_cast<SelfStop*>(u);
            ++self.images;
            self.stopResults += 10 + (self.channel->StopCapture() ? 1 : 0);
        },
        nullptr, nullptr, nullptr, &state));
    // The worker ends by itself after the pass that stopped it (a self-join
    // would fail and leave it hanging or running) and waits to be joined.
    ASSERT_TRUE(Eventually([&] { return state.stopped.load(); }));
    EXPECT_EQ(state.images, 1);
    EXPECT_EQ(state.stopResults, 10);  // false: a running capture was stopped
    EXPECT_FALSE(channel.IsRunning());
    EXPECT_TRUE(channel.IsJoinable());
    const std::vector<Op> calls = sdk.Calls();
    EXPECT_THAT(std::vector<Op>(calls.end() - 4, calls.end()),
                ElementsAre(Op::Lock, Op::StopLiveCapturing, Op::UninitializeSDK, Op::UnLock));

    // The thread that started the first capture starts again; the old
    // worker is joined before the new one is created.
    ASSERT_TRUE(host.Start(channel, eCaptureLive, 2));
    EXPECT_FALSE(channel.startedOverUnjoined);
    ASSERT_TRUE(host.WaitFor(E::Image, 1));
    EXPECT_EQ(host.Events(E::Image)[0].handle, 2);
    EXPECT_FALSE(channel.StopCapture());
    EXPECT_FALSE(channel.IsJoinable());
}

TEST_F(ChannelTest, WithoutADeviceTheStreamEndsWithAnError) {
    vc::ClFrameGrabberChannel::m_pFramegrabberSDK = nullptr;
    ASSERT_TRUE(host.Start(channel, eCaptureLive));
    ASSERT_TRUE(host.WaitFor(E::Stop, 1));
    EXPECT_THAT(host.Kinds(), ElementsAre(E::Start, E::Error, E::Stop));
    EXPECT_EQ(host.Events(E::Error)[0].text, "Framegrabber error");
}

TEST_F(ChannelTest, FailedStartsLeaveTheChannelStartable) {
    // An unknown capture mode fails before any thread starts, as error 51,
    // and leaves no detector behind.
    channel.SetDetection(eCapturePreview);
    ExpectVCError([&] { host.Start(channel, static_cast<vc::eCaptureModeIDs>(5)); }, 51,
                  "Not enough storage is available to complete this operation");
    EXPECT_FALSE(channel.IsRunning());
    EXPECT_EQ(channel.GetCaptureMode(), eCaptureLive);
    EXPECT_TRUE(sdk.Calls().empty());

    // A thread that cannot be created leaves the channel idle: nothing to join.
    channel.failStart = true;
    EXPECT_FALSE(host.Start(channel, eCaptureLive));
    EXPECT_FALSE(channel.IsRunning());
    EXPECT_TRUE(channel.StopCapture());

    // Neither left an owner behind: the same thread can start again.
    channel.failStart = false;
    ASSERT_TRUE(host.Start(channel, eCaptureLive));
    EXPECT_TRUE(host.WaitFor(E::Start, 1));
}

TEST(ChannelParts, AThrowingStartCallbackReleasesItsMutex) {
    vc::ClFrameGrabberChannel::CXCallbacks callbacks;
    callbacks.Set([](int, unsigned int, void*) { throw std::runtime_error("start failed"); },
                  nullptr);
    EXPECT_THROW(callbacks.OnStart(1, 1, nullptr), std::runtime_error);
    callbacks.Set(nullptr, nullptr);  // would hang if the mutex were still held
}

}  // namespace
}  // namespace kr7test
