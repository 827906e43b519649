// One capture stream: a worker thread that drives the device SDK frame by
// frame, runs the image pipeline and the finger detector and hands images,
// results, errors and warnings to the host's callbacks.
//
// Threads, locks and their order, which callback comes on which thread and
// the road of a frame: docs/threads.md. No lock is held while a worker is
// joined or a host callback runs.
#pragma once

#include <pthread.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <vector>

#include "base/camera.h"
#include "base/errors.h"
#include "base/framegrabber.h"
#include "channel/framegrabber_sdk.h"
#include "channel/worker_thread.h"
#include "image/image_processor.h"
#include "image/simple_bitmap.h"
#include "util/mutex.h"

namespace vc {

class ClImageDetection;

class ClFrameGrabberChannel : public CWin32Thread {
public:
    // The host's start and stop callbacks. The pair is read under a mutex
    // of its own and called after it has been released, so that a callback
    // may set the callbacks itself; a callback already under way finishes
    // with the pointer it was called through.
    class CXCallbacks {
    public:
        CXCallbacks();
        // A copy holds the same two pointers and a mutex of its own.
        CXCallbacks(const CXCallbacks& other);
        CXCallbacks& operator=(const CXCallbacks& other);
        ~CXCallbacks();

        void Set(FGStartCallback start, FGStopCallback stop) EXCLUDES(m_Mutex);
        void OnStart(int captureId, unsigned int channelIndex, void* context) EXCLUDES(m_Mutex);
        void OnStop(int captureId, unsigned int channelIndex, void* context) EXCLUDES(m_Mutex);

    private:
        void Call(FGStartCallback CXCallbacks::*which, int captureId, unsigned int channelIndex,
                  void* context) EXCLUDES(m_Mutex);

        mutable Nvk::CXMutex m_Mutex;
        FGStartCallback m_fpStart GUARDED_BY(m_Mutex) = nullptr;
        FGStopCallback m_fpStop GUARDED_BY(m_Mutex) = nullptr;
    };

    ClFrameGrabberChannel();
    // A copy takes the settings (camera, index, filter, colour mode, aspect
    // ratio, resolution, background, callbacks, context) of an idle channel.
    // It starts idle, without a thread, detector, SDK data or chain of its
    // own; the chain is rebuilt from the settings at its first frame.
    ClFrameGrabberChannel(const ClFrameGrabberChannel& other);
    ClFrameGrabberChannel& operator=(const ClFrameGrabberChannel& other);
    // The owner must have stopped the capture before.
    ~ClFrameGrabberChannel() override;

    unsigned int Work() override;

    // Starts the worker. `captureId` is passed first to every host callback.
    // A call from the thread that started the running capture returns true
    // and changes nothing; one from the worker itself (a host callback)
    // returns false and changes nothing; otherwise a running capture is
    // stopped first. Returns whether the thread started; a failing
    // SetDetection throws before it does. Waits while another host thread
    // starts or stops this channel.
    virtual bool StartCapture(int captureId, eCaptureModeIDs mode, FGImageCallback image,
                              FGResultCallback detection, FGErrorCallback error,
                              FGWarningCallback warning, void* context);
    // Ends the worker and waits for it. True when nothing was running,
    // false when a capture was stopped. Called on the worker itself (from a
    // host callback) it only asks the loop to end; the thread is joined by
    // the next StartCapture or StopCapture from another thread, which also
    // joins a worker that has ended on its own. Waits while another host
    // thread starts or stops this channel.
    virtual bool StopCapture();
    // Reports to the host's error callback; a null text is sent as
    // "Framegrabber error". The code stays inside the plug-in.
    virtual void SendError(const char* text, long code);
    // Reports to the host's warning callback; the code stays inside.
    virtual void SendWarning(const char* text, long code);
    // Adds the flip processor when the camera asks for a flip. Called by a
    // host thread while a worker exists, it marks the chain for rebuilding
    // instead (the rebuilt chain flips as the camera asks).
    virtual void SetImageFlipPrecessing() EXCLUDES(m_ChainMutex);
    // Running: the next frame becomes the background. Idle: takes one
    // unfiltered image through `grabber` as the background.
    virtual void RefreshBackGround(ClFramegrabber& grabber) EXCLUDES(m_ChainMutex);
    // Hook for processors of a derived channel, added last to the chain.
    // Runs under the chain mutex, which is not recursive: it adds to
    // m_Processor directly and calls none of the locking functions.
    virtual void AddSpecificImageProcessing() REQUIRES(m_ChainMutex);
    // Whether frames pass through the processor chain before delivery.
    virtual bool DoImageProcessing() const;

    // Setters, called on the host's thread (also while the worker runs).
    void SetFilter(eFilterIDs filter);
    void SetCamera(eCameraIDs camera, eColorModeIDs mode) EXCLUDES(m_SettingsMutex);
    void SetAspectRatio(double x, double y) EXCLUDES(m_SettingsMutex);
    void SetResolution(const ClImageResolution& resolution) EXCLUDES(m_SettingsMutex);
    // Replaces the detector; also while frames flow (the next frame meets
    // the new one).
    void SetDetection(eCaptureModeIDs mode) EXCLUDES(m_DetectionMutex);
    void SetCallbacks(FGStartCallback start, FGStopCallback stop);

    // Rebuilds the processor chain when a setting changed or when forced.
    // Called by a host thread while a worker exists, it only marks the chain
    // for rebuilding (when forced): the worker rebuilds it at its next frame
    // and reports a failure to the host's error callback.
    void InitializeImageProcessing(bool force) EXCLUDES(m_ChainMutex);
    // Runs the chain (when the channel processes images) and the detector on
    // `frame` and calls the host's image and detection callbacks. `detect`
    // is false when the device has already detected the finger itself.
    void SendBitmapToClient(Nvk::utilities::ClSimpleBitmap& frame, bool detect)
        EXCLUDES(m_ChainMutex, m_DetectionMutex);
    // The detector's answer for `image`; false without a detector. Any
    // thread, also while frames flow.
    bool DoDetect(Nvk::utilities::ClSimpleBitmap& image, Nvk::utilities::ClSimpleBitmap& result)
        EXCLUDES(m_DetectionMutex);

    void SetCurrentThread();
    bool IsCurrentThread() const;
    // Takes ownership; the previous data is deleted first.
    void SetSDKData(ClFrameGrabberChannelSDKData* data);
    // The detector's type; live (0) while the channel has no detector.
    eCaptureModeIDs GetCaptureMode() const EXCLUDES(m_DetectionMutex);

    // State the device SDK and the host reach.
    unsigned int GetChannelIndex() const { return m_nChannelIndex.load(); }
    void SetChannelIndex(unsigned int index) { m_nChannelIndex.store(index); }
    bool IsRunning() const { return m_bRunning.load(); }
    // Paused: the worker idles without touching the device (Freeze).
    void SetPaused(bool paused) { m_bPaused.store(paused); }
    // In preview capture, asks the worker for one triggered image.
    void RequestTrigger() { m_bTriggerRequested.store(true); }
    bool IsTriggerRequested() const { return m_bTriggerRequested.load(); }
    int GetCaptureID() const { return m_nCaptureID.load(); }
    eFilterIDs GetFilter() const { return m_eFilter.load(); }

    // The device SDK shared by all channels; set by the device SDK when it
    // starts a capture, never owned by a channel.
    static std::atomic<ClFramegrabberSDK*> m_pFramegrabberSDK;

protected:
    // Hook called when a capture stops; nothing to release here.
    void Release() {}

    // The camera, aspect ratio and resolution, read together when the
    // chain is rebuilt. A leaf: nothing else is taken while it is held.
    mutable Nvk::CXMutex m_SettingsMutex;
    ClVCCamera m_Camera GUARDED_BY(m_SettingsMutex);
    double m_dAspectRatioX GUARDED_BY(m_SettingsMutex) = 1.0;
    double m_dAspectRatioY GUARDED_BY(m_SettingsMutex) = 1.0;
    ClImageResolution m_Resolution GUARDED_BY(m_SettingsMutex);

    // The detector is read, used and replaced under this mutex.
    mutable Nvk::CXMutex m_DetectionMutex;
    std::unique_ptr<ClImageDetection> m_pDetection GUARDED_BY(m_DetectionMutex);

    // The processor chain, its output and the background. While a worker
    // exists (m_bWorkerActive) only the worker changes them; it hands the
    // processed frame to the host after releasing the mutex.
    mutable Nvk::CXMutex m_ChainMutex;
    ClImageMacroProcessor m_Processor GUARDED_BY(m_ChainMutex);
    Nvk::utilities::ClSimpleBitmap m_Background GUARDED_BY(m_ChainMutex);
    Nvk::utilities::ClSimpleBitmap m_Processed GUARDED_BY(m_ChainMutex);

    // The worker's own, kept from frame to frame so that a frame needs no
    // new block: the detector's result (used only on the worker).
    Nvk::utilities::ClSimpleBitmap m_Result;
    // Set by the device SDK under its device lock.
    std::unique_ptr<ClFrameGrabberChannelSDKData> m_pSDKData;
    CXCallbacks m_Callbacks;

    // Unguarded atomics, read by any thread. The capture id, the callbacks
    // and the context are written only while no worker runs (StartCapture
    // before the thread starts, StopCapture after the join), so a worker
    // sees one capture's set throughout.
    std::atomic<unsigned int> m_nChannelIndex{1};
    std::atomic<bool> m_bRefreshBackground{true};
    std::atomic<bool> m_bPaused{false};
    std::atomic<eColorModeIDs> m_eColorMode{eColorGray8};
    std::atomic<bool> m_bRunning{false};
    std::atomic<bool> m_bProcessingDirty{true};
    std::atomic<eFilterIDs> m_eFilter{eFilterNone};
    std::atomic<int> m_nCaptureID{-1};
    std::atomic<FGImageCallback> m_fpImageCallback{nullptr};
    std::atomic<FGErrorCallback> m_fpErrorCallback{nullptr};
    std::atomic<FGResultCallback> m_fpDetectionCallback{nullptr};
    std::atomic<void*> m_pContext{nullptr};
    std::atomic<FGWarningCallback> m_fpWarningCallback{nullptr};
    std::atomic<pthread_t> m_OwnerThread{0};
    std::atomic<bool> m_bTriggerRequested{false};
    // From just before a worker is created until it leaves Work() or is
    // joined: the chain then belongs to the worker.
    std::atomic<bool> m_bWorkerActive{false};

private:
    // One host thread at a time starts or stops the channel. The turn is not
    // a lock held across the join: a second thread waits on the condition
    // until the first is done, and the thread that has the turn may take
    // it again (StartCapture stops through the virtual StopCapture).
    class CXTurn {
    public:
        explicit CXTurn(ClFrameGrabberChannel& channel)
            : m_rChannel(channel), m_bNested(!channel.TakeTurn()) {}
        ~CXTurn() {
            if (!m_bNested) {
                m_rChannel.GiveTurnBack();
            }
        }
        CXTurn(const CXTurn&) = delete;
        CXTurn& operator=(const CXTurn&) = delete;

    private:
        ClFrameGrabberChannel& m_rChannel;
        const bool m_bNested;
    };
    // Waits for the turn and takes it; false (and no wait) when the calling
    // thread has it already.
    bool TakeTurn() EXCLUDES(m_TurnMutex);
    void GiveTurnBack() EXCLUDES(m_TurnMutex);
    Nvk::CXMutex m_TurnMutex;
    Nvk::CXCondition m_TurnFree;
    // Zero while nobody has the turn.
    pthread_t m_TurnOwner GUARDED_BY(m_TurnMutex){};

    enum class eOutcome { Done, Warned, Failed };
    // What a pass over the device took: nothing, a frame the device itself
    // found a finger on, a triggered frame or a live frame.
    enum class eDelivery { None, Detected, Triggered, Live };

    template <class Step>
    eOutcome Guarded(Step&& step, bool warningsGoOn);
    void ReportError(const Nvk::ClNorvakException& error);
    void CapturePass(ClFramegrabberSDK& sdk, Nvk::utilities::ClSimpleBitmap& frame);
    eDelivery CaptureFrame(ClFramegrabberSDK& sdk, Nvk::utilities::ClSimpleBitmap& frame);
    void StopSequence(ClFramegrabberSDK* sdk, Nvk::utilities::ClSimpleBitmap& frame)
        EXCLUDES(m_ChainMutex);
    void Deliver(Nvk::utilities::ClSimpleBitmap& image, bool detect, eCaptureModeIDs type)
        EXCLUDES(m_DetectionMutex);
    void RebuildChain(bool force) REQUIRES(m_ChainMutex);
    // The flip processor, when the camera asks for one.
    void AddFlipProcessing() REQUIRES(m_ChainMutex);
    // Whether the chain must be left to the worker: a worker exists and the
    // caller is not it.
    bool ChainBelongsToWorker() const;
    // Calls the host through `report`; whatever the host's callback throws
    // stays here.
    template <class Report>
    void ReportSafely(Report&& report);
    void CopySettings(const ClFrameGrabberChannel& other) EXCLUDES(m_SettingsMutex, m_ChainMutex);
};

// The channel of the KR7 scanner: the device SDK prepares its frames, so
// they reach the host as delivered, without the processor chain.
class ClNorvakKR7Channel : public ClFrameGrabberChannel {
public:
    ClNorvakKR7Channel() = default;
    ClNorvakKR7Channel(const ClNorvakKR7Channel&) = default;
    ClNorvakKR7Channel& operator=(const ClNorvakKR7Channel&) = default;

    bool DoImageProcessing() const override;
};

// Whether a detection result may go to the host: at least 101 pixels wide
// and some non-zero byte in the middle row between columns 50 and
// width - 51.
bool DetectionResultVisible(const Nvk::utilities::ClSimpleBitmap& image);

// The channel at `index`; an index outside the vector is the host's error 4.
template <class Channel>
Channel& get_item(std::vector<Channel>& channels, std::size_t index) {
    try {
        return channels.at(index);
    } catch (const std::out_of_range&) {
        throw ClVCException(err::kBadChannelText, vc::FGERR_BAD_CHANNEL);
    }
}

template <class Channel>
const Channel& get_item(const std::vector<Channel>& channels, std::size_t index) {
    try {
        return channels.at(index);
    } catch (const std::out_of_range&) {
        throw ClVCException(err::kBadChannelText, vc::FGERR_BAD_CHANNEL);
    }
}

}  // namespace vc
