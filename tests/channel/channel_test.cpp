// The capture channel's worker loop driven by a scripted device: start and
// stop, the device calls of each pass, errors and warnings at every step,
// the capture modes, pausing, and many start/stop cycles.
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
    SDKScope scope{&sdk};
    Host host;
    ProbeChannel<vc::ClNorvakKR7Channel> channel;

    void TearDown() override {
        channel.StopCapture();
        EXPECT_TRUE(sdk.LockBalanced());
    }
    // Waits until the worker has ended on its own (after an error).
    void WaitForStop() { ASSERT_TRUE(host.WaitFor(E::Stop, 1)); }
};

TEST_F(ChannelTest, LiveFramesReachTheHostOnTheWorkerInOrder) {
    channel.SetChannelIndex(3);
    channel.SetFilter(vc::eFilterSubtractBackground);  // the scanner channel runs no chain
    sdk.Add(Op::IsDirty, Action::Returns(false));
    sdk.Add(Op::IsDirty, Action::Returns(true));
    for (unsigned char fill : {10, 20, 30}) {
        sdk.Add(Op::GetLiveBitmap, Action::Image(fill));
    }
    sdk.Add(Op::GetLiveBitmap, Action::Do(Action::Park));
    ASSERT_TRUE(host.Start(channel, eCaptureLive, 42));
    ASSERT_TRUE(host.WaitFor(E::Image, 3));
    ASSERT_TRUE(sdk.WaitUntilWaiting());  // in the fourth pass
    EXPECT_TRUE(channel.IsRunning());
    EXPECT_EQ(channel.GetCaptureID(), 42);
    EXPECT_FALSE(channel.StopCapture());

    // The stop callback has run before StopCapture returned.
    EXPECT_THAT(host.Kinds(), ElementsAre(E::Start, E::Image, E::Image, E::Image, E::Stop));
    const std::vector<Event> events = host.Events();
    const std::thread::id worker = events.front().thread;
    EXPECT_NE(worker, std::this_thread::get_id());
    for (const Event& event : events) {
        EXPECT_EQ(event.thread, worker);
        EXPECT_EQ(event.handle, 42);
        EXPECT_EQ(event.tag, 3u);
        EXPECT_EQ(event.user, &host);
    }
    EXPECT_EQ(events[1].middle, 10);  // as the device delivered it
    EXPECT_EQ(events[3].middle, 30);
    EXPECT_TRUE(channel.Background().Empty());

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
    for (std::thread::id thread : sdk.CallThreads()) {
        EXPECT_EQ(thread, worker);
    }

    // Idle again: the id and the image and error callbacks are gone, the
    // warning callback stays.
    EXPECT_EQ(channel.GetCaptureID(), -1);
    EXPECT_TRUE(channel.StopCapture());
    channel.SendError("late", 1);
    channel.SendWarning(nullptr, 1);
    EXPECT_EQ(host.Count(E::Error), 0);
    ASSERT_EQ(host.Count(E::Warning), 1);
    EXPECT_EQ(host.Events(E::Warning)[0].handle, -1);
    EXPECT_EQ(host.Events(E::Warning)[0].text, "(null)");  // passed on as null
}

TEST_F(ChannelTest, StartFromTheOwnerThreadDoesNothingAnotherThreadRestarts) {
    sdk.Add(Op::GetLiveBitmap, Action::Do(Action::Park), 2);
    ASSERT_TRUE(host.Start(channel, eCaptureLive, 1));
    ASSERT_TRUE(sdk.WaitUntilWaiting());
    EXPECT_TRUE(host.Start(channel, eCapturePreview, 2));
    EXPECT_EQ(channel.GetCaptureID(), 1);
    EXPECT_EQ(channel.GetCaptureMode(), eCaptureLive);

    HostThread other([&] { EXPECT_TRUE(host.Start(channel, eCaptureLive, 2)); });
    other.Join();
    ASSERT_TRUE(host.WaitFor(E::Start, 2));
    EXPECT_THAT(host.Kinds(), ElementsAre(E::Start, E::Stop, E::Start));
    EXPECT_EQ(host.Events(E::Start)[1].handle, 2);
    EXPECT_FALSE(channel.StopCapture());  // any thread may stop
}

TEST_F(ChannelTest, StopWaitsForAFrameThatIsStillBeingTaken) {
    sdk.Add(Op::GetLiveBitmap, Action::Image(90));
    sdk.Add(Op::GetLiveBitmap, Action::Gated(91));
    ASSERT_TRUE(host.Start(channel, eCaptureLive));
    ASSERT_TRUE(sdk.WaitUntilWaiting());

    std::atomic<bool> result{true};
    HostThread stopper([&] { result = channel.StopCapture(); });
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (channel.IsRunning() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    // The worker is still inside GetLiveBitmap: the stop cannot be through.
    EXPECT_FALSE(stopper.Done());
    EXPECT_EQ(host.Count(E::Stop), 0);
    sdk.Release();
    stopper.Join();
    EXPECT_FALSE(result);
    // The frame taken after the stop was not delivered.
    EXPECT_THAT(host.Kinds(), ElementsAre(E::Start, E::Image, E::Stop));
}

TEST_F(ChannelTest, AWarningOnEveryFrameIsReportedEachTimeAndCaptureGoesOn) {
    sdk.Add(Op::GetLiveBitmap, Action::Do(Action::Warning, "Finger moved"), 25);
    sdk.Add(Op::GetLiveBitmap, Action::Image(70));
    sdk.Add(Op::GetLiveBitmap, Action::Do(Action::Park));
    ASSERT_TRUE(host.Start(channel, eCaptureLive));
    ASSERT_TRUE(host.WaitFor(E::Image, 1));
    channel.StopCapture();
    ASSERT_EQ(host.Count(E::Warning), 25);
    EXPECT_EQ(host.Events(E::Warning)[0].text, "Finger moved");
    EXPECT_EQ(host.Count(E::Error), 0);
    EXPECT_EQ(host.Count(E::Stop), 1);
}

// An error thrown by one step of the loop: one error callback with the text
// the host must see, then the stop sequence; the lock is never left held.
struct ErrorCase {
    Op op;
    int nth;  // which call of `op` throws (1 = first)
    Action::Kind kind;
    const char* expected;
    vc::eCaptureModeIDs mode;
};

void PrintTo(const ErrorCase& c, std::ostream* os) {
    *os << OpName(c.op) << "#" << c.nth << " kind " << c.kind << " mode " << c.mode;
}

class ChannelErrorTest : public ChannelTest, public ::testing::WithParamInterface<ErrorCase> {};

TEST_P(ChannelErrorTest, EndsTheStreamWithOneErrorAndTheStopSequence) {
    const ErrorCase& c = GetParam();
    sdk.Add(c.op, Action(), c.nth - 1);
    sdk.Add(c.op, Action::Do(c.kind, "Capture frame failed."));
    if (c.op == Op::WaitForPlainFinger || c.op == Op::HasSelfDetection) {
        sdk.SetDefault(Op::HasSelfDetection, Action::Returns(true));
    }
    channel.RequestTrigger();  // for the preview case
    ASSERT_TRUE(host.Start(channel, c.mode));
    WaitForStop();
    // Ended on its own; the channel reads as running until the host stops it.
    EXPECT_TRUE(channel.IsRunning());
    EXPECT_FALSE(channel.StopCapture());

    const std::vector<Event> errors = host.Events(E::Error);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].text, c.expected);
    EXPECT_EQ(host.Events().back().kind, E::Stop);
    EXPECT_EQ(host.Count(E::Warning), 0);
    const std::vector<Op> calls = sdk.Calls();
    EXPECT_THAT(std::vector<Op>(calls.end() - 3, calls.end() - 1),
                ElementsAre(Op::StopLiveCapturing, Op::UninitializeSDK));
}

constexpr const char* kText = "Capture frame failed.";
INSTANTIATE_TEST_SUITE_P(
    EveryStep, ChannelErrorTest,
    ::testing::Values(
        ErrorCase{Op::InitializeSDK, 1, Action::Error, kText, eCaptureLive},
        // Before the loop a warning counts as an error.
        ErrorCase{Op::InitializeSDK, 1, Action::Warning, kText, eCaptureLive},
        ErrorCase{Op::InitializeSDK, 1, Action::StdError, kText, eCaptureLive},
        ErrorCase{Op::Lock, 1, Action::Error, kText, eCaptureLive},
        ErrorCase{Op::Lock, 2, Action::TextlessError, "Framegrabber Unknown error", eCaptureLive},
        ErrorCase{Op::IsDirty, 1, Action::Error, kText, eCaptureLive},
        ErrorCase{Op::SetActiveChannel, 1, Action::StdError, kText, eCaptureLive},
        ErrorCase{Op::StartLiveCapturing, 1, Action::TextlessStd, "Framegrabber error",
                  eCaptureLive},
        ErrorCase{Op::GetLiveBitmap, 1, Action::Error, kText, eCaptureLive},
        ErrorCase{Op::GetLiveBitmap, 4, Action::TextlessError, "Framegrabber Unknown error",
                  eCaptureLive},
        ErrorCase{Op::GetLiveBitmap, 2, Action::StdError, kText, eCapturePlainFinger},
        ErrorCase{Op::HasSelfDetection, 1, Action::Error, kText, eCapturePlainFinger},
        ErrorCase{Op::WaitForPlainFinger, 3, Action::StdError, kText, eCapturePlainFinger},
        ErrorCase{Op::TriggerImage, 1, Action::Error, kText, eCapturePreview},
        ErrorCase{Op::UnLock, 1, Action::Error, kText, eCaptureLive},
        ErrorCase{Op::UnLock, 3, Action::TextlessStd, "Framegrabber error", eCaptureLive}));

TEST_F(ChannelTest, WarningsInEveryPassStepAreReportedAndTheNextPassDelivers) {
    // Lock and UnLock: call 2 is the first pass; the others: call 1.
    for (Op op : {Op::Lock, Op::IsDirty, Op::SetActiveChannel, Op::StartLiveCapturing,
                  Op::GetLiveBitmap, Op::UnLock}) {
        SCOPED_TRACE(OpName(op));
        ScriptedSDK device;
        SDKScope use(&device);
        Host viewer;
        device.Add(op, Action(), op == Op::Lock || op == Op::UnLock ? 1 : 0);
        device.Add(op, Action::Do(Action::Warning, "Dirty platen"));
        device.SetDefault(Op::IsDirty, Action::Returns(true));
        device.Add(Op::GetLiveBitmap, Action::Image(33), 2);
        device.Add(Op::GetLiveBitmap, Action::Do(Action::Park));
        ASSERT_TRUE(viewer.Start(channel, eCaptureLive));
        ASSERT_TRUE(viewer.WaitFor(E::Image, op == Op::UnLock ? 2 : 1));
        EXPECT_FALSE(channel.StopCapture());
        ASSERT_EQ(viewer.Count(E::Warning), 1);
        EXPECT_EQ(viewer.Events(E::Warning)[0].text, "Dirty platen");
        EXPECT_EQ(viewer.Count(E::Error), 0);
        EXPECT_TRUE(device.LockBalanced());
    }
}

TEST_F(ChannelTest, AnErrorFromTheHostsImageCallbackEndsTheStream) {
    host.throwFromImage = [] { throw std::runtime_error("host gave up"); };
    ASSERT_TRUE(host.Start(channel, eCaptureLive));
    WaitForStop();
    EXPECT_THAT(host.Kinds(), ElementsAre(E::Start, E::Image, E::Error, E::Stop));
    EXPECT_EQ(host.Events(E::Error)[0].text, "host gave up");
}

TEST_F(ChannelTest, PreviewTakesAnImageOnlyOnTrigger) {
    sdk.Add(Op::TriggerImage, Action::Do(Action::Warning, "Not yet"));  // stays requested
    sdk.Add(Op::TriggerImage, Action::Image(140));
    ASSERT_TRUE(host.Start(channel, eCapturePreview));
    // Without a trigger the passes only lock, check and unlock.
    ASSERT_TRUE(sdk.WaitForCalls(Op::IsDirty, 20));
    EXPECT_EQ(sdk.Count(Op::TriggerImage) + sdk.Count(Op::GetLiveBitmap), 0);

    channel.RequestTrigger();
    ASSERT_TRUE(host.WaitFor(E::Image, 1));
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (channel.IsTriggerRequested() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    ASSERT_TRUE(sdk.WaitForCalls(Op::IsDirty, sdk.Count(Op::IsDirty) + 5));
    channel.StopCapture();
    EXPECT_EQ(sdk.Count(Op::TriggerImage), 2);
    EXPECT_THAT(host.Kinds(), ElementsAre(E::Start, E::Warning, E::Image, E::Stop));
    EXPECT_EQ(host.Events(E::Image)[0].middle, 140);
}

TEST_F(ChannelTest, PausedChannelLeavesTheDeviceAloneUntilResumed) {
    sdk.Add(Op::GetLiveBitmap, Action::Do(Action::Pause));
    sdk.Add(Op::GetLiveBitmap, Action::Image(60));
    sdk.Add(Op::GetLiveBitmap, Action::Do(Action::Pause));
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
    sdk.SetDefault(Op::HasSelfDetection, Action::Returns(true));
    sdk.Add(Op::WaitForPlainFinger, Action::Returns(false), 2);
    sdk.Add(Op::WaitForPlainFinger, Action::Image(100, 200, 60));  // passes the gate
    sdk.Add(Op::WaitForPlainFinger, Action::Image(0, 200, 60));    // black: held back
    sdk.Add(Op::WaitForPlainFinger, Action::Do(Action::Park));
    ASSERT_TRUE(host.Start(channel, eCapturePlainFinger));
    ASSERT_TRUE(host.WaitFor(E::Image, 2));
    channel.StopCapture();
    EXPECT_EQ(sdk.Count(Op::GetLiveBitmap), 0);
    EXPECT_THAT(host.Kinds(), ElementsAre(E::Start, E::Image, E::Result, E::Image, E::Stop));
    EXPECT_EQ(host.Events(E::Result)[0].result, eCapturePlainFinger);
    EXPECT_EQ(host.Events(E::Result)[0].middle, 100);
}

TEST_F(ChannelTest, PlainFingerRunsTheDetectorOnEachFrame) {
    // A finger: the middle row averages below 240. A frame that is no
    // result goes to the image callback once more, as the detector's image.
    sdk.Add(Op::GetLiveBitmap, Action::Image(250, 200, 60));
    sdk.Add(Op::GetLiveBitmap, Action::Image(120, 200, 60));
    sdk.Add(Op::GetLiveBitmap, Action::Do(Action::Park));
    ASSERT_TRUE(host.Start(channel, eCapturePlainFinger));
    ASSERT_TRUE(host.WaitFor(E::Result, 1));
    channel.StopCapture();
    EXPECT_THAT(host.Kinds(),
                ElementsAre(E::Start, E::Image, E::Image, E::Image, E::Result, E::Stop));
    EXPECT_EQ(host.Events(E::Result)[0].middle, 120);
}

TEST_F(ChannelTest, RolledModeShowsOnlyTheDetectorsIntermediateImages) {
    channel.nextDetector.reset(new ScriptedDetection(
        eCaptureRolledFinger,
        {{false, 11, 200}, {false, 0, 0}, {false, 12, 200}, {true, 13, 200}, {true, 14, 100}}));
    sdk.Add(Op::GetLiveBitmap, Action::Image(50, 200, 60), 5);
    sdk.Add(Op::GetLiveBitmap, Action::Do(Action::Park));
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

TEST_F(ChannelTest, ThousandStartStopCyclesWhileFramesFlow) {
    sdk.SetDefault(Op::GetLiveBitmap, Action::Image(80, 64, 48));
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(host.Start(channel, eCaptureLive, i));
        if (i % 100 == 0) {  // now and then make sure frames really flow
            ASSERT_TRUE(host.WaitFor(E::Image, host.Count(E::Image) + 1));
        }
        ASSERT_FALSE(channel.StopCapture());
    }
    EXPECT_FALSE(channel.IsRunning());
    const int starts = host.Count(E::Start);
    EXPECT_GE(starts, 10);
    EXPECT_EQ(host.Count(E::Stop), starts);
    EXPECT_EQ(sdk.Count(Op::InitializeSDK), starts);
    EXPECT_EQ(sdk.Count(Op::UninitializeSDK), starts);
    EXPECT_EQ(host.Count(E::Error), 0);
}

TEST_F(ChannelTest, WithoutADeviceTheStreamEndsWithAnError) {
    vc::ClFrameGrabberChannel::m_pFramegrabberSDK = nullptr;
    ASSERT_TRUE(host.Start(channel, eCaptureLive));
    WaitForStop();
    EXPECT_THAT(host.Kinds(), ElementsAre(E::Start, E::Error, E::Stop));
    EXPECT_EQ(host.Events(E::Error)[0].text, "Framegrabber error");
}

TEST_F(ChannelTest, AThreadThatCannotStartLeavesTheChannelIdle) {
    channel.failStart = true;
    EXPECT_FALSE(host.Start(channel, eCaptureLive));
    EXPECT_FALSE(channel.IsRunning());
    EXPECT_TRUE(channel.StopCapture());  // nothing to join
    channel.failStart = false;
    EXPECT_TRUE(host.Start(channel, eCaptureLive));
}

TEST_F(ChannelTest, UnknownCaptureModeFailsBeforeTheThreadStarts) {
    channel.SetDetection(eCapturePreview);
    try {
        host.Start(channel, static_cast<vc::eCaptureModeIDs>(5));
        FAIL() << "no exception";
    } catch (const vc::ClVCException& e) {
        EXPECT_EQ(e.GetErrorNumber(), 51);
        EXPECT_STREQ(e.What(), "Not enough storage is available to complete this operation");
    }
    EXPECT_FALSE(channel.IsRunning());
    EXPECT_EQ(channel.GetCaptureMode(), eCaptureLive);  // no detector left
    EXPECT_TRUE(sdk.Calls().empty());
    // The failed start left no owner behind: the same thread can start again.
    ASSERT_TRUE(host.Start(channel, eCaptureLive));
    EXPECT_TRUE(channel.IsRunning());
}

void ThrowingStart(int, unsigned int, void*) {
    throw std::runtime_error("start failed");
}

TEST(ChannelParts, AThrowingStartCallbackReleasesItsMutex) {
    vc::ClFrameGrabberChannel::CXCallbacks callbacks;
    callbacks.Set(&ThrowingStart, nullptr);
    EXPECT_THROW(callbacks.OnStart(1, 1, nullptr), std::runtime_error);
    callbacks.Set(nullptr, nullptr);  // would hang if the mutex were still held
    callbacks.OnStart(1, 1, nullptr);
}

TEST(ChannelParts, GetItemChecksTheIndexAndCopiesKeepTheSettings) {
    std::vector<vc::ClNorvakKR7Channel> channels(2);
    channels[1].SetChannelIndex(9);
    channels[1].SetAspectRatio(2.0, 3.0);
    channels[1].SetDetection(eCapturePlainFinger);
    EXPECT_EQ(vc::get_item(channels, 1).GetChannelIndex(), 9u);
    try {
        vc::get_item(channels, 2);
        FAIL() << "no exception";
    } catch (const vc::ClVCException& e) {
        EXPECT_EQ(e.GetErrorNumber(), 4);
        EXPECT_STREQ(e.What(), "Incorrect channel number for frame grabber");
    }
    const vc::ClNorvakKR7Channel copy(channels[1]);
    double x = 0;
    double y = 0;
    copy.GetAspectRatio(x, y);
    EXPECT_EQ(copy.GetChannelIndex(), 9u);
    EXPECT_EQ(x + y, 5.0);
    EXPECT_EQ(copy.GetCaptureMode(), eCaptureLive);  // no detector of its own
}

}  // namespace
}  // namespace kr7test
