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

std::vector<Event::Kind> Kinds(const std::vector<Event>& events) {
    std::vector<Event::Kind> kinds;
    for (const Event& event : events) {
        kinds.push_back(event.kind);
    }
    return kinds;
}

class ChannelTest : public ::testing::Test {
protected:
    ScriptedSDK sdk;
    SDKScope scope{&sdk};
    Host host;
    ProbeChannel<vc::ClNorvakKR7Channel> channel;

    void TearDown() override {
        channel.StopCapture();
        EXPECT_EQ(sdk.LockDepth(), 0);
        EXPECT_FALSE(sdk.LockMisused());
    }
};

TEST_F(ChannelTest, LiveFramesReachTheHostOnTheWorkerInOrder) {
    channel.SetChannelIndex(3);
    for (unsigned char fill : {10, 20, 30}) {
        sdk.Add(Op::GetLiveBitmap, Action::Image(fill));
    }
    sdk.Add(Op::GetLiveBitmap, Action::ParkUntilStopped());

    ASSERT_TRUE(host.Start(channel, eCaptureLive, 42));
    ASSERT_TRUE(host.WaitFor(Event::Image, 3));
    ASSERT_TRUE(sdk.WaitUntilWaiting());  // in the fourth pass
    EXPECT_TRUE(channel.IsRunning());
    EXPECT_EQ(channel.GetCaptureID(), 42);
    EXPECT_FALSE(channel.StopCapture());

    // The stop callback has run before StopCapture returned.
    const std::vector<Event> events = host.Events();
    EXPECT_THAT(Kinds(events),
                ElementsAre(Event::Start, Event::Image, Event::Image, Event::Image, Event::Stop));
    const std::thread::id worker = events.front().thread;
    EXPECT_NE(worker, std::this_thread::get_id());
    for (const Event& event : events) {
        EXPECT_EQ(event.thread, worker);
        EXPECT_EQ(event.handle, 42);
        EXPECT_EQ(event.tag, 3u);
        EXPECT_EQ(event.user, &host);
    }
    EXPECT_EQ(events[1].middle, 10);
    EXPECT_EQ(events[3].middle, 30);
    EXPECT_EQ(events[1].width, 160);

    // Set-up once (the frame is empty at first), then one frame per pass,
    // each pass under the device lock; the parked fourth pass ends with the
    // stop and its frame is not delivered; the stop sequence at the end.
    EXPECT_THAT(sdk.Calls(),
                ElementsAre(Op::Lock, Op::InitializeSDK, Op::UnLock,                //
                            Op::Lock, Op::IsDirty, Op::SetActiveChannel,            //
                            Op::StartLiveCapturing, Op::GetLiveBitmap, Op::UnLock,  //
                            Op::Lock, Op::IsDirty, Op::GetLiveBitmap, Op::UnLock,   //
                            Op::Lock, Op::IsDirty, Op::GetLiveBitmap, Op::UnLock,   //
                            Op::Lock, Op::IsDirty, Op::GetLiveBitmap, Op::UnLock,   // parked
                            Op::Lock, Op::StopLiveCapturing, Op::UninitializeSDK, Op::UnLock));
    for (std::thread::id thread : sdk.CallThreads()) {
        EXPECT_EQ(thread, worker);
    }

    // Idle again: the id and the image and error callbacks are gone.
    EXPECT_FALSE(channel.IsRunning());
    EXPECT_EQ(channel.GetCaptureID(), -1);
    EXPECT_TRUE(channel.StopCapture());
    channel.SendError("late", 1);
    channel.SendWarning("kept", 1);
    EXPECT_EQ(host.Count(Event::Error), 0);
    ASSERT_EQ(host.Count(Event::Warning), 1);
    EXPECT_EQ(host.Events(Event::Warning)[0].handle, -1);
}

TEST_F(ChannelTest, DirtyDeviceSetsTheChannelUpAgain) {
    sdk.Add(Op::IsDirty, Action::Returns(false));
    sdk.Add(Op::IsDirty, Action::Returns(true));
    sdk.Add(Op::GetLiveBitmap, 2, Action::Image(50));
    sdk.Add(Op::GetLiveBitmap, Action::ParkUntilStopped());
    ASSERT_TRUE(host.Start(channel, eCaptureLive));
    ASSERT_TRUE(host.WaitFor(Event::Image, 2));
    channel.StopCapture();
    EXPECT_EQ(sdk.Count(Op::SetActiveChannel), 2);  // empty frame, then dirty
    EXPECT_EQ(sdk.Count(Op::StartLiveCapturing), 2);
}

TEST_F(ChannelTest, StartFromTheOwnerThreadDoesNothingAnotherThreadRestarts) {
    sdk.Add(Op::GetLiveBitmap, Action::ParkUntilStopped());
    ASSERT_TRUE(host.Start(channel, eCaptureLive, 1));
    ASSERT_TRUE(sdk.WaitUntilWaiting());
    EXPECT_TRUE(host.Start(channel, eCapturePreview, 2));
    EXPECT_EQ(channel.GetCaptureID(), 1);
    EXPECT_EQ(channel.GetCaptureMode(), eCaptureLive);

    sdk.Add(Op::GetLiveBitmap, Action::ParkUntilStopped());
    HostThread other([&] { EXPECT_TRUE(host.Start(channel, eCaptureLive, 2)); });
    other.Join();
    ASSERT_TRUE(host.WaitFor(Event::Start, 2));
    EXPECT_THAT(Kinds(host.Events()), ElementsAre(Event::Start, Event::Stop, Event::Start));
    EXPECT_EQ(host.Events(Event::Start)[1].handle, 2);
    // The owner is now the other thread: this one may stop and start.
    EXPECT_FALSE(channel.StopCapture());
    EXPECT_EQ(sdk.Count(Op::InitializeSDK), 2);
}

TEST_F(ChannelTest, StopWaitsForAFrameThatIsStillBeingTaken) {
    sdk.Add(Op::GetLiveBitmap, Action::Image(90));
    sdk.Add(Op::GetLiveBitmap, Action::Gated(91));
    ASSERT_TRUE(host.Start(channel, eCaptureLive));
    ASSERT_TRUE(sdk.WaitUntilWaiting());

    std::atomic<bool> result{true};
    HostThread stopper([&] { result = channel.StopCapture(); });
    // The worker is inside GetLiveBitmap: the stop cannot be through yet.
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (channel.IsRunning() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    EXPECT_FALSE(stopper.Done());
    EXPECT_EQ(host.Count(Event::Stop), 0);
    sdk.Release();
    stopper.Join();
    EXPECT_FALSE(result);

    // The frame taken after the stop was not delivered.
    EXPECT_THAT(Kinds(host.Events()), ElementsAre(Event::Start, Event::Image, Event::Stop));
}

TEST_F(ChannelTest, AWarningOnEveryFrameIsReportedEachTimeAndCaptureGoesOn) {
    sdk.Add(Op::GetLiveBitmap, 25, Action::Throws(Action::Warning, "Finger moved"));
    sdk.Add(Op::GetLiveBitmap, Action::Image(70));
    sdk.Add(Op::GetLiveBitmap, Action::ParkUntilStopped());
    ASSERT_TRUE(host.Start(channel, eCaptureLive));
    ASSERT_TRUE(host.WaitFor(Event::Image, 1));
    channel.StopCapture();
    const std::vector<Event> warnings = host.Events(Event::Warning);
    ASSERT_EQ(warnings.size(), 25u);
    EXPECT_EQ(warnings[0].text, "Finger moved");
    EXPECT_EQ(host.Count(Event::Error), 0);
    EXPECT_EQ(host.Count(Event::Stop), 1);
}

// An error thrown by one step of the loop: one error callback with the text
// the host must see, then the stop sequence; the lock is never left held.
struct ErrorCase {
    Op op;
    int nth;  // which call of `op` throws (1 = first)
    Action::Kind kind;
    const char* expected;
};

void PrintTo(const ErrorCase& c, std::ostream* os) {
    *os << OpName(c.op) << "#" << c.nth << " kind " << static_cast<int>(c.kind);
}

class ChannelErrorTest : public ChannelTest, public ::testing::WithParamInterface<ErrorCase> {};

TEST_P(ChannelErrorTest, EndsTheStreamWithOneErrorAndTheStopSequence) {
    const ErrorCase& c = GetParam();
    for (int i = 1; i < c.nth; ++i) {
        sdk.Add(c.op, Action());
    }
    sdk.Add(c.op, Action::Throws(c.kind, "Capture frame failed."));
    sdk.SetDefault(Op::GetLiveBitmap, Action::Image(120));

    ASSERT_TRUE(host.Start(channel, eCaptureLive));
    ASSERT_TRUE(host.WaitFor(Event::Stop, 1));
    // The worker has ended on its own; the channel reads as running until
    // the host stops it.
    EXPECT_TRUE(channel.IsRunning());
    EXPECT_FALSE(channel.StopCapture());
    const std::vector<Event> errors = host.Events(Event::Error);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].text, c.expected);
    EXPECT_EQ(host.Events().back().kind, Event::Stop);
    EXPECT_EQ(host.Count(Event::Warning), 0);

    const std::vector<Op> calls = sdk.Calls();
    ASSERT_GE(calls.size(), 3u);
    EXPECT_THAT(std::vector<Op>(calls.end() - 3, calls.end() - 1),
                ElementsAre(Op::StopLiveCapturing, Op::UninitializeSDK));
    EXPECT_FALSE(channel.IsRunning());
}

INSTANTIATE_TEST_SUITE_P(
    EveryStep, ChannelErrorTest,
    ::testing::Values(
        ErrorCase{Op::InitializeSDK, 1, Action::Error, "Capture frame failed."},
        // Before the loop a warning counts as an error.
        ErrorCase{Op::InitializeSDK, 1, Action::Warning, "Capture frame failed."},
        ErrorCase{Op::InitializeSDK, 1, Action::StdError, "Capture frame failed."},
        ErrorCase{Op::Lock, 1, Action::Error, "Capture frame failed."},
        ErrorCase{Op::Lock, 2, Action::TextlessError, "Framegrabber Unknown error"},
        ErrorCase{Op::IsDirty, 1, Action::Error, "Capture frame failed."},
        ErrorCase{Op::SetActiveChannel, 1, Action::StdError, "Capture frame failed."},
        ErrorCase{Op::StartLiveCapturing, 1, Action::TextlessStd, "Framegrabber error"},
        ErrorCase{Op::GetLiveBitmap, 1, Action::Error, "Capture frame failed."},
        ErrorCase{Op::GetLiveBitmap, 4, Action::TextlessError, "Framegrabber Unknown error"},
        ErrorCase{Op::GetLiveBitmap, 2, Action::StdError, "Capture frame failed."},
        ErrorCase{Op::UnLock, 1, Action::Error, "Capture frame failed."},
        ErrorCase{Op::UnLock, 3, Action::TextlessStd, "Framegrabber error"}));

class ChannelWarningTest : public ChannelTest, public ::testing::WithParamInterface<Op> {};

TEST_P(ChannelWarningTest, IsReportedAndTheNextPassDeliversAgain) {
    // Call 2 of Lock and UnLock is the first pass; the others' first call is.
    const Op op = GetParam();
    if (op == Op::Lock || op == Op::UnLock) {
        sdk.Add(op, Action());
    }
    sdk.Add(op, Action::Throws(Action::Warning, "Dirty platen"));
    sdk.SetDefault(Op::IsDirty, Action::Returns(true));
    sdk.Add(Op::GetLiveBitmap, 2, Action::Image(33));
    sdk.Add(Op::GetLiveBitmap, Action::ParkUntilStopped());

    ASSERT_TRUE(host.Start(channel, eCaptureLive));
    ASSERT_TRUE(host.WaitFor(Event::Image, op == Op::UnLock ? 2 : 1));
    EXPECT_FALSE(channel.StopCapture());
    const std::vector<Event> warnings = host.Events(Event::Warning);
    ASSERT_EQ(warnings.size(), 1u);
    EXPECT_EQ(warnings[0].text, "Dirty platen");
    EXPECT_EQ(host.Count(Event::Error), 0);
    EXPECT_EQ(host.Count(Event::Stop), 1);
}

INSTANTIATE_TEST_SUITE_P(EveryPassStep, ChannelWarningTest,
                         ::testing::Values(Op::Lock, Op::IsDirty, Op::SetActiveChannel,
                                           Op::StartLiveCapturing, Op::GetLiveBitmap, Op::UnLock),
                         [](const ::testing::TestParamInfo<Op>& info) {
                             return std::string(OpName(info.param));
                         });

TEST_F(ChannelTest, AnErrorFromTheHostsImageCallbackEndsTheStream) {
    host.ThrowFromImage([] { throw std::runtime_error("host gave up"); });
    ASSERT_TRUE(host.Start(channel, eCaptureLive));
    ASSERT_TRUE(host.WaitFor(Event::Stop, 1));
    EXPECT_THAT(Kinds(host.Events()),
                ElementsAre(Event::Start, Event::Image, Event::Error, Event::Stop));
    EXPECT_EQ(host.Events(Event::Error)[0].text, "host gave up");
}

TEST_F(ChannelTest, PreviewTakesAnImageOnlyOnTrigger) {
    sdk.Add(Op::TriggerImage, Action::Image(140));
    ASSERT_TRUE(host.Start(channel, eCapturePreview));
    // Without a trigger the passes only lock, check and unlock.
    ASSERT_TRUE(sdk.WaitForCalls(Op::IsDirty, 20));
    EXPECT_EQ(sdk.Count(Op::TriggerImage), 0);
    EXPECT_EQ(sdk.Count(Op::GetLiveBitmap), 0);
    EXPECT_EQ(host.Count(Event::Image), 0);

    channel.RequestTrigger();
    ASSERT_TRUE(host.WaitFor(Event::Image, 1));
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (channel.IsTriggerRequested() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    EXPECT_FALSE(channel.IsTriggerRequested());
    channel.StopCapture();
    EXPECT_EQ(sdk.Count(Op::TriggerImage), 1);
    EXPECT_EQ(host.Count(Event::Image), 1);
    EXPECT_EQ(host.Events(Event::Image)[0].middle, 140);
    EXPECT_EQ(host.Count(Event::Result), 0);
}

TEST_F(ChannelTest, PausedChannelLeavesTheDeviceAloneUntilResumed) {
    sdk.Add(Op::GetLiveBitmap, Action::Throws(Action::Pause));
    sdk.Add(Op::GetLiveBitmap, Action::Image(60));
    sdk.Add(Op::GetLiveBitmap, Action::ParkUntilStopped());
    ASSERT_TRUE(host.Start(channel, eCaptureLive));
    ASSERT_TRUE(host.WaitFor(Event::Image, 1));
    const int passes = sdk.Count(Op::Lock);
    // A few idle rounds of the worker: the device must not be touched.
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    EXPECT_EQ(sdk.Count(Op::Lock), passes);
    EXPECT_TRUE(channel.IsPaused());

    channel.SetPaused(false);
    ASSERT_TRUE(host.WaitFor(Event::Image, 2));
    EXPECT_EQ(host.Events(Event::Image)[1].middle, 60);
}

TEST_F(ChannelTest, StopWhilePausedReturns) {
    sdk.Add(Op::GetLiveBitmap, Action::Throws(Action::Pause));
    ASSERT_TRUE(host.Start(channel, eCaptureLive));
    ASSERT_TRUE(host.WaitFor(Event::Image, 1));
    EXPECT_FALSE(channel.StopCapture());
    EXPECT_EQ(host.Count(Event::Stop), 1);
}

TEST_F(ChannelTest, DeviceDetectedFingerIsDeliveredWithoutOwnDetection) {
    sdk.SetDefault(Op::HasSelfDetection, Action::Returns(true));
    sdk.Add(Op::WaitForPlainFinger, 2, Action::Returns(false));
    sdk.Add(Op::WaitForPlainFinger, Action::Image(100, 200, 60));  // passes the gate
    sdk.Add(Op::WaitForPlainFinger, Action::Image(0, 200, 60));    // black: held back
    sdk.Add(Op::WaitForPlainFinger, Action::ParkUntilStopped());
    ASSERT_TRUE(host.Start(channel, eCapturePlainFinger));
    ASSERT_TRUE(host.WaitFor(Event::Image, 2));
    channel.StopCapture();

    EXPECT_EQ(sdk.Count(Op::GetLiveBitmap), 0);
    EXPECT_THAT(Kinds(host.Events()),
                ElementsAre(Event::Start, Event::Image, Event::Result, Event::Image, Event::Stop));
    const Event result = host.Events(Event::Result)[0];
    EXPECT_EQ(result.result, eCapturePlainFinger);
    EXPECT_EQ(result.middle, 100);
}

TEST_F(ChannelTest, PlainFingerRunsTheDetectorOnEachFrame) {
    // The plain detector finds a finger when the middle row averages below
    // 240; a frame that is no result goes to the image callback once more.
    sdk.Add(Op::GetLiveBitmap, Action::Image(250, 200, 60));
    sdk.Add(Op::GetLiveBitmap, Action::Image(120, 200, 60));
    sdk.Add(Op::GetLiveBitmap, Action::ParkUntilStopped());
    ASSERT_TRUE(host.Start(channel, eCapturePlainFinger));
    ASSERT_TRUE(host.WaitFor(Event::Result, 1));
    channel.StopCapture();
    EXPECT_THAT(Kinds(host.Events()), ElementsAre(Event::Start, Event::Image, Event::Image,
                                                  Event::Image, Event::Result, Event::Stop));
    EXPECT_EQ(host.Events(Event::Result)[0].middle, 120);
}

TEST_F(ChannelTest, RolledModeShowsOnlyTheDetectorsIntermediateImages) {
    channel.nextDetector.reset(new ScriptedDetection(
        eCaptureRolledFinger,
        {{false, 11, 200}, {false, 0, 0}, {false, 12, 200}, {true, 13, 200}, {true, 14, 100}}));
    for (int i = 0; i < 5; ++i) {
        sdk.Add(Op::GetLiveBitmap, Action::Image(50, 200, 60));
    }
    sdk.Add(Op::GetLiveBitmap, Action::ParkUntilStopped());
    ASSERT_TRUE(host.Start(channel, eCaptureRolledFinger));
    ASSERT_TRUE(sdk.WaitUntilWaiting());
    channel.StopCapture();

    // Intermediates 11 and 12 (the empty one is skipped), the result 13;
    // the 100-pixel-wide result 14 fails the gate.
    const std::vector<Event> events = host.Events();
    EXPECT_THAT(Kinds(events),
                ElementsAre(Event::Start, Event::Image, Event::Image, Event::Result, Event::Stop));
    EXPECT_EQ(events[1].middle, 11);
    EXPECT_EQ(events[2].middle, 12);
    EXPECT_EQ(events[3].middle, 13);
    EXPECT_EQ(events[3].result, eCaptureRolledFinger);
}

TEST_F(ChannelTest, ThousandStartStopCyclesWhileFramesFlow) {
    sdk.SetDefault(Op::GetLiveBitmap, Action::Image(80, 64, 48));
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(host.Start(channel, eCaptureLive, i));
        if (i % 100 == 0) {
            // Now and then make sure frames really flow before stopping.
            ASSERT_TRUE(host.WaitFor(Event::Image, host.Count(Event::Image) + 1));
        }
        ASSERT_FALSE(channel.StopCapture());
    }
    EXPECT_FALSE(channel.IsRunning());
    const int starts = host.Count(Event::Start);
    EXPECT_GE(starts, 10);
    EXPECT_EQ(host.Count(Event::Stop), starts);
    EXPECT_EQ(sdk.Count(Op::InitializeSDK), starts);
    EXPECT_EQ(sdk.Count(Op::UninitializeSDK), starts);
    EXPECT_EQ(host.Count(Event::Error), 0);
}

TEST_F(ChannelTest, WithoutADeviceTheStreamEndsWithAnError) {
    vc::ClFrameGrabberChannel::m_pFramegrabberSDK = nullptr;
    ASSERT_TRUE(host.Start(channel, eCaptureLive));
    ASSERT_TRUE(host.WaitFor(Event::Stop, 1));
    EXPECT_THAT(Kinds(host.Events()), ElementsAre(Event::Start, Event::Error, Event::Stop));
    EXPECT_EQ(host.Events(Event::Error)[0].text, "Framegrabber error");
    EXPECT_FALSE(channel.StopCapture());
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
    try {
        host.Start(channel, static_cast<vc::eCaptureModeIDs>(5));
        FAIL() << "no exception";
    } catch (const vc::ClVCException& e) {
        EXPECT_EQ(e.GetErrorNumber(), 51);
        EXPECT_STREQ(e.What(), "Not enough storage is available to complete this operation");
    }
    EXPECT_FALSE(channel.IsRunning());
    EXPECT_EQ(sdk.Calls().size(), 0u);
}

TEST(ChannelReporting, TextsAndMissingCallbacks) {
    Host host;
    vc::ClNorvakKR7Channel channel;
    channel.SendError(nullptr, 1);  // no callbacks: nothing happens
    channel.SendWarning(nullptr, 1);

    vc::ClFrameGrabberChannel::CXCallbacks callbacks;
    callbacks.OnStart(1, 2, &host);  // nothing set
    callbacks.Set(&Host::OnStart, &Host::OnStop);
    callbacks.OnStart(1, 2, &host);
    callbacks.OnStop(3, 4, &host);
    EXPECT_THAT(Kinds(host.Events()), ElementsAre(Event::Start, Event::Stop));
    EXPECT_EQ(host.Events()[1].handle, 3);
    EXPECT_EQ(host.Events()[1].tag, 4u);
}

void ThrowingStart(int, unsigned int, void*) {
    throw std::runtime_error("start failed");
}

TEST(ChannelReporting, AThrowingStartCallbackReleasesItsMutex) {
    vc::ClFrameGrabberChannel::CXCallbacks callbacks;
    callbacks.Set(&ThrowingStart, nullptr);
    EXPECT_THROW(callbacks.OnStart(1, 1, nullptr), std::runtime_error);
    callbacks.Set(nullptr, nullptr);  // would hang if the mutex were still held
    callbacks.OnStart(1, 1, nullptr);
}

TEST(ChannelReporting, GetItemChecksTheIndex) {
    std::vector<vc::ClNorvakKR7Channel> channels(2);
    channels[1].SetChannelIndex(9);
    EXPECT_EQ(vc::get_item(channels, 1).GetChannelIndex(), 9u);
    try {
        vc::get_item(channels, 2);
        FAIL() << "no exception";
    } catch (const vc::ClVCException& e) {
        EXPECT_EQ(e.GetErrorNumber(), 4);
        EXPECT_STREQ(e.What(), "Incorrect channel number for frame grabber");
    }
}

TEST(ChannelReporting, CopiesTakeTheSettingsButNotTheStream) {
    vc::ClNorvakKR7Channel original;
    original.SetChannelIndex(5);
    original.SetAspectRatio(2.0, 3.0);
    original.SetCamera(vc::eCameraType7, vc::eColorGray8);
    original.SetDetection(eCapturePlainFinger);
    vc::ClNorvakKR7Channel copy(original);
    EXPECT_EQ(copy.GetChannelIndex(), 5u);
    double x = 0;
    double y = 0;
    copy.GetAspectRatio(x, y);
    EXPECT_EQ(x, 2.0);
    EXPECT_EQ(y, 3.0);
    EXPECT_EQ(copy.GetCamera().m_nWidth, 640u);
    EXPECT_FALSE(copy.IsRunning());
    EXPECT_EQ(copy.GetCaptureMode(), eCaptureLive);  // no detector of its own
}

}  // namespace
}  // namespace kr7test
