// Capture channel: construction, start and stop, reporting and the worker
// loop. The image pipeline and delivery are in channel_pipeline.cpp.
#include "channel/channel.h"

#include <cxxabi.h>
#include <sys/prctl.h>

#include "detection/image_detection.h"
#include "util/logging_client.h"

namespace vc {

std::atomic<ClFramegrabberSDK*> ClFrameGrabberChannel::m_pFramegrabberSDK{nullptr};

namespace {

// Runs `work` under the device lock. The lock is released on every way
// out; when `work` throws, before the exception goes on (an UnLock that
// throws then replaces it).
template <class Work>
void UnderDeviceLock(ClFramegrabberSDK& sdk, Work&& work) {
    sdk.Lock();
    try {
        work();
    } catch (...) {
        sdk.UnLock();
        throw;
    }
    sdk.UnLock();
}

}  // namespace

// ---- CXCallbacks ----------------------------------------------------------

ClFrameGrabberChannel::CXCallbacks::CXCallbacks() = default;

ClFrameGrabberChannel::CXCallbacks::CXCallbacks(const CXCallbacks& other) {
    Nvk::CXLock lock(other.m_Mutex);
    m_fpStart = other.m_fpStart;
    m_fpStop = other.m_fpStop;
}

ClFrameGrabberChannel::CXCallbacks& ClFrameGrabberChannel::CXCallbacks::operator=(
    const CXCallbacks& other) {
    if (this != &other) {
        FGStartCallback start;
        FGStopCallback stop;
        {
            Nvk::CXLock lock(other.m_Mutex);
            start = other.m_fpStart;
            stop = other.m_fpStop;
        }
        Set(start, stop);
    }
    return *this;
}

ClFrameGrabberChannel::CXCallbacks::~CXCallbacks() = default;

void ClFrameGrabberChannel::CXCallbacks::Set(FGStartCallback start, FGStopCallback stop) {
    Nvk::CXLock lock(m_Mutex);
    m_fpStart = start;
    m_fpStop = stop;
}

void ClFrameGrabberChannel::CXCallbacks::Call(FGStartCallback CXCallbacks::*which, int captureId,
                                              unsigned int channelIndex, void* context) {
    // Not called under the mutex: the host may set the callbacks from
    // inside this one.
    FGStartCallback callback;
    {
        Nvk::CXLock lock(m_Mutex);
        callback = this->*which;
    }
    if (callback != nullptr) {
        callback(captureId, channelIndex, context);
    }
}

void ClFrameGrabberChannel::CXCallbacks::OnStart(int captureId, unsigned int channelIndex,
                                                 void* context) {
    Call(&CXCallbacks::m_fpStart, captureId, channelIndex, context);
}

void ClFrameGrabberChannel::CXCallbacks::OnStop(int captureId, unsigned int channelIndex,
                                                void* context) {
    Call(&CXCallbacks::m_fpStop, captureId, channelIndex, context);
}

// ---- construction ---------------------------------------------------------

ClFrameGrabberChannel::ClFrameGrabberChannel() = default;

ClFrameGrabberChannel::ClFrameGrabberChannel(const ClFrameGrabberChannel& other)
    : CWin32Thread(), m_Callbacks(other.m_Callbacks) {
    CopySettings(other);
}

ClFrameGrabberChannel& ClFrameGrabberChannel::operator=(const ClFrameGrabberChannel& other) {
    if (this != &other) {
        m_Callbacks = other.m_Callbacks;
        CopySettings(other);
    }
    return *this;
}

// The two channels' mutexes are taken one at a time, never together.
void ClFrameGrabberChannel::CopySettings(const ClFrameGrabberChannel& other) {
    ClVCCamera camera;
    ClImageResolution resolution;
    double x = 1.0;
    double y = 1.0;
    {
        Nvk::CXLock lock(other.m_SettingsMutex);
        camera = other.m_Camera;
        resolution = other.m_Resolution;
        x = other.m_dAspectRatioX;
        y = other.m_dAspectRatioY;
    }
    {
        Nvk::CXLock lock(m_SettingsMutex);
        m_Camera = camera;
        m_Resolution = resolution;
        m_dAspectRatioX = x;
        m_dAspectRatioY = y;
    }
    Nvk::utilities::ClSimpleBitmap background;
    {
        Nvk::CXLock lock(other.m_ChainMutex);
        background = other.m_Background;
    }
    {
        Nvk::CXLock lock(m_ChainMutex);
        m_Background = background;
    }
    m_nChannelIndex = other.m_nChannelIndex.load();
    m_bRefreshBackground = other.m_bRefreshBackground.load();
    m_bPaused = other.m_bPaused.load();
    m_eColorMode = other.m_eColorMode.load();
    m_eFilter = other.m_eFilter.load();
    m_fpDetectionCallback = other.m_fpDetectionCallback.load();
    m_fpWarningCallback = other.m_fpWarningCallback.load();
    m_pContext = other.m_pContext.load();
    m_bProcessingDirty = true;
}

ClFrameGrabberChannel::~ClFrameGrabberChannel() = default;

// ---- start and stop -------------------------------------------------------

bool ClFrameGrabberChannel::TakeTurn() {
    const pthread_t self = pthread_self();
    Nvk::CXLock lock(m_TurnMutex);
    if (m_TurnOwner != pthread_t{} && pthread_equal(m_TurnOwner, self) != 0) {
        return false;
    }
    while (m_TurnOwner != pthread_t{}) {
        m_TurnFree.Wait(m_TurnMutex);
    }
    m_TurnOwner = self;
    return true;
}

void ClFrameGrabberChannel::GiveTurnBack() {
    {
        Nvk::CXLock lock(m_TurnMutex);
        m_TurnOwner = pthread_t{};
    }
    m_TurnFree.NotifyAll();
}

bool ClFrameGrabberChannel::StartCapture(int captureId, eCaptureModeIDs mode, FGImageCallback image,
                                         FGResultCallback detection, FGErrorCallback error,
                                         FGWarningCallback warning, void* context) {
    // From a host callback on the worker: the worker cannot replace itself.
    // Checked before the turn, which the thread stopping this worker holds.
    if (IsWorkerThread()) {
        return false;
    }
    CXTurn turn(*this);
    if (IsCurrentThread()) {
        return true;
    }
    StopCapture();
    // The owner is recorded after the stop, which forgets the owner of the
    // capture it ends.
    SetCurrentThread();
    try {
        SetDetection(mode);
    } catch (...) {
        // Nothing was started: forget the owner, or every later start from
        // this thread would be taken for a capture already running.
        m_OwnerThread = pthread_t();
        throw;
    }

    m_bProcessingDirty = true;
    m_nCaptureID = captureId;
    m_fpImageCallback = image;
    m_fpDetectionCallback = detection;
    m_fpErrorCallback = error;
    m_fpWarningCallback = warning;
    m_pContext = context;
    m_bWorkerActive = true;
    m_bRunning = true;
    if (!Start()) {
        // No thread to join: the channel must not read as running, or the
        // next StopCapture would wait for a thread that never existed.
        m_bRunning = false;
        m_bWorkerActive = false;
        m_OwnerThread = pthread_t();
        return false;
    }
    return true;
}

bool ClFrameGrabberChannel::StopCapture() {
    if (IsWorkerThread()) {
        // Asked from a host callback on the worker itself: the loop ends
        // after this pass and runs the stop sequence. The thread cannot join
        // itself; the next start or stop from another thread joins it and
        // clears the capture's state. The capture no longer belongs to the
        // thread that started it, so that thread may start again.
        m_OwnerThread = pthread_t();
        return !m_bRunning.exchange(false);
    }
    CXTurn turn(*this);
    const bool wasRunning = m_bRunning.exchange(false);
    if (!wasRunning && !IsJoinable()) {
        return true;
    }
    StopMsg();
    m_bWorkerActive = false;
    m_nCaptureID = -1;
    m_fpImageCallback = nullptr;
    m_fpErrorCallback = nullptr;
    m_bRefreshBackground = true;
    Release();
    m_OwnerThread = pthread_t();
    return !wasRunning;
}

void ClFrameGrabberChannel::SetCallbacks(FGStartCallback start, FGStopCallback stop) {
    m_Callbacks.Set(start, stop);
}

// ---- reporting ------------------------------------------------------------

void ClFrameGrabberChannel::SendError(const char* text, long /*code*/) {
    FGErrorCallback callback = m_fpErrorCallback.load();
    if (callback != nullptr) {
        callback(m_nCaptureID.load(), m_nChannelIndex.load(), text ? text : "Framegrabber error",
                 m_pContext.load());
    }
}

void ClFrameGrabberChannel::SendWarning(const char* text, long /*code*/) {
    FGWarningCallback callback = m_fpWarningCallback.load();
    if (callback != nullptr) {
        callback(m_nCaptureID.load(), m_nChannelIndex.load(), text, m_pContext.load());
    }
}

void ClFrameGrabberChannel::ReportError(const Nvk::ClNorvakException& error) {
    const char* text = error.What();
    SendError(text ? text : "Framegrabber Unknown error", 1);
}

// ---- small accessors ------------------------------------------------------

void ClFrameGrabberChannel::SetCurrentThread() {
    m_OwnerThread = pthread_self();
}

bool ClFrameGrabberChannel::IsCurrentThread() const {
    return pthread_equal(m_OwnerThread.load(), pthread_self()) != 0;
}

void ClFrameGrabberChannel::SetSDKData(ClFrameGrabberChannelSDKData* data) {
    if (data == m_pSDKData.get()) {
        return;
    }
    m_pSDKData.reset();
    m_pSDKData.reset(data);
}

eCaptureModeIDs ClFrameGrabberChannel::GetCaptureMode() const {
    Nvk::CXLock lock(m_DetectionMutex);
    return m_pDetection ? m_pDetection->Type() : eCaptureLive;
}

bool ClFrameGrabberChannel::DoDetect(Nvk::utilities::ClSimpleBitmap& image,
                                     Nvk::utilities::ClSimpleBitmap& result) {
    Nvk::CXLock lock(m_DetectionMutex);
    return m_pDetection ? m_pDetection->Detect(image, result) : false;
}

bool ClFrameGrabberChannel::DoImageProcessing() const {
    return true;
}

bool ClNorvakKR7Channel::DoImageProcessing() const {
    return false;
}

// ---- the worker loop ------------------------------------------------------

// Nothing may leave the worker thread: an exception that got out of Work()
// would end the host's process. A thread being cancelled or exited unwinds
// with an exception that must go on, though.
template <class Report>
void ClFrameGrabberChannel::ReportSafely(Report&& report) {
    try {
        report();
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (...) {
        Nvk::utilities::Log(3, "Capture channel %u: a host callback threw an exception",
                            m_nChannelIndex.load());
    }
}

// Runs one guarded step of the loop and turns what it throws into the
// host's warning or error callback. Warnings are reported as such only
// where the loop goes on after them; elsewhere they count as errors. An
// exception of no known kind (one the host's callback threw) is an error
// without a text.
template <class Step>
ClFrameGrabberChannel::eOutcome ClFrameGrabberChannel::Guarded(Step&& step, bool warningsGoOn) {
    try {
        step();
        return eOutcome::Done;
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (const ClVCWarning& warning) {
        if (!warningsGoOn) {
            ReportSafely([&] { ReportError(warning); });
            return eOutcome::Failed;
        }
        ReportSafely([&] { SendWarning(warning.What(), warning.GetErrorNumber()); });
        return eOutcome::Warned;
    } catch (const Nvk::ClNorvakException& error) {
        ReportSafely([&] { ReportError(error); });
        return eOutcome::Failed;
    } catch (const std::exception& error) {
        ReportSafely([&] { SendError(error.what(), vc::FGERR_FAILED); });
        return eOutcome::Failed;
    } catch (...) {
        ReportSafely([&] { SendError("Framegrabber Unknown error", vc::FGERR_FAILED); });
        return eOutcome::Failed;
    }
}

// One pass: under the device lock, set the channel up when needed and take
// a frame the way the capture mode asks for; then, with the lock released,
// hand it to the host. No host callback runs under the device lock, so a
// host may call into the plug-in from its callbacks.
void ClFrameGrabberChannel::CapturePass(ClFramegrabberSDK& sdk,
                                        Nvk::utilities::ClSimpleBitmap& frame) {
    eDelivery delivery = eDelivery::None;
    UnderDeviceLock(sdk, [&] { delivery = CaptureFrame(sdk, frame); });
    switch (delivery) {
        case eDelivery::None:
            break;
        case eDelivery::Detected:
            // The device has done the detection; no running check on this path.
            SendBitmapToClient(frame, false);
            break;
        case eDelivery::Triggered:
            if (m_bRunning) {
                SendBitmapToClient(frame, true);
            }
            m_bTriggerRequested = false;
            break;
        case eDelivery::Live:
            if (m_bRunning) {
                SendBitmapToClient(frame, true);
            }
            break;
    }
}

// The device part of a pass; the device lock is held.
ClFrameGrabberChannel::eDelivery ClFrameGrabberChannel::CaptureFrame(
    ClFramegrabberSDK& sdk, Nvk::utilities::ClSimpleBitmap& frame) {
    if (sdk.IsDirty(*this) || frame.Empty()) {
        sdk.SetActiveChannel(*this, frame);
        sdk.StartLiveCapturing(*this);
    }
    const eCaptureModeIDs type = GetCaptureMode();
    if (type == eCapturePlainFinger && sdk.HasSelfDetection(*this)) {
        return sdk.WaitForPlainFinger(*this, frame) ? eDelivery::Detected : eDelivery::None;
    }
    if (type == eCapturePreview) {
        if (!m_bTriggerRequested) {
            return eDelivery::None;
        }
        sdk.TriggerImage(*this, frame);
        return eDelivery::Triggered;
    }
    sdk.GetLiveBitmap(*this, frame);
    return eDelivery::Live;
}

void ClFrameGrabberChannel::StopSequence(ClFramegrabberSDK* sdk,
                                         Nvk::utilities::ClSimpleBitmap& frame) {
    frame.Clear();
    {
        Nvk::CXLock lock(m_ChainMutex);
        m_Processed.Clear();
    }
    m_Result.Clear();
    // A device that fails to stop is reported; the host's stop callback
    // comes in any case, so that each start has its stop.
    if (sdk != nullptr) {
        Guarded(
            [&] {
                UnderDeviceLock(*sdk, [&] {
                    sdk->StopLiveCapturing(*this);
                    sdk->UninitializeSDK(*this);
                });
            },
            false);
    }
    ReportSafely([&] { m_Callbacks.OnStop(m_nCaptureID, m_nChannelIndex, m_pContext); });
}

namespace {
// Yields after a pass while a host thread waits for the device lock; beyond
// these the worker waits for the lock like anyone else.
constexpr int kMaxYields = 50;
}  // namespace

unsigned int ClFrameGrabberChannel::Work() {
    if (!m_bRunning) {
        m_bWorkerActive = false;
        return 0;
    }
    // The zero-length sleeps below give the processor away without a wait;
    // with the default timer slack of 50 us each would cost far more than a
    // pass. The least slack keeps them yields.
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    ClFramegrabberSDK* const sdk = m_pFramegrabberSDK.load();
    Nvk::utilities::ClSimpleBitmap frame;

    eOutcome started = Guarded(
        [&] {
            m_Callbacks.OnStart(m_nCaptureID, m_nChannelIndex, m_pContext);
            if (sdk != nullptr) {
                UnderDeviceLock(*sdk, [&] { sdk->InitializeSDK(*this); });
            }
        },
        false);
    if (started != eOutcome::Failed && sdk == nullptr) {
        // No device to capture from: reported like a failed start.
        SendError(nullptr, 1);
        started = eOutcome::Failed;
    }

    bool failed = started == eOutcome::Failed;
    while (!failed && m_bRunning) {
        if (m_bPaused) {
            Sleep(100);
            continue;
        }
        const eOutcome pass = Guarded([&] { CapturePass(*sdk, frame); }, true);
        if (pass == eOutcome::Failed) {
            failed = true;
        } else if (pass == eOutcome::Done) {
            // A host thread waiting for the device gets it before the next
            // pass; a few yields are enough for it to wake and take the lock.
            // Nobody waiting: the next pass follows at once.
            for (int yields = 0; yields < kMaxYields && sdk->LockRequested(); ++yields) {
                Sleep(0);
            }
        }
    }
    StopSequence(sdk, frame);
    m_bWorkerActive = false;
    return 0;
}

}  // namespace vc
