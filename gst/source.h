// The engine of kr7src: the plug-in loaded through kr7host, a capture whose
// handler runs on the plug-in's worker thread and copies each frame once
// (rows turned top-down) into a buffer of the element's pool, and the small
// queue that create() takes them from. gstkr7src.cpp is the GObject around it.
//
// Threads:
//   - the state-change thread: Open/Close (NULL <-> READY), Start/Stop
//     (READY <-> PAUSED, called by GstBaseSrc), SetPlaying;
//   - the plug-in's worker: Deliver, for every callback of the capture;
//   - the streaming thread: Create, Negotiate, Caps;
//   - any thread: the properties, Unlock/UnlockStop.
// m_QueueMutex guards the queue and what the worker tells the streaming
// thread; m_SettingsMutex the properties. Neither is held while the capture
// is stopped (StopCapture joins the worker, which takes m_QueueMutex), nor
// while a message is posted.
#pragma once

#include <gst/base/gstbasesrc.h>
#include <gst/gst.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <norvakkr7fg/framegrabber.h>

#include "kr7host/capture.h"
#include "kr7host/plugin.h"
#include "kr7host/quality.h"

GST_DEBUG_CATEGORY_EXTERN(gst_kr7_src_debug);

namespace kr7gst {

// Live frames the element keeps for a pipeline that falls behind; a newer
// frame pushes the oldest out (counted in frames-dropped).
constexpr std::size_t kLiveFrames = 4;
// The KR7's frame period: the scanner delivers 25 frames a second.
constexpr GstClockTime kFramePeriod = 40 * GST_MSECOND;

using kr7host::ModeName;

struct Settings {
    int device = -1;  // interface number; -1: the first listed
    vc::eCaptureModeIDs mode = vc::eCaptureLive;
    std::string plugin = kr7host::kPluginName;
    bool virtualScanner = false;
    bool resultsOnly = false;
};

// video/x-raw, GRAY8, the size, framerate 0/1, pixel-aspect-ratio 1/1.
GstCaps* FrameCaps(int width, int height);
// A GRAY8 row as GStreamer lays it out: padded to 4 bytes.
std::size_t RowStride(int width);

class Source {
public:
    explicit Source(GstBaseSrc* element);
    ~Source();
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    // ---- properties (any thread) ----
    Settings Current() const;
    template <class Change>
    void Configure(Change change) {
        std::lock_guard<std::mutex> lock(m_SettingsMutex);
        change(m_Settings);
    }
    std::string Serial() const;
    std::uint64_t FramesDropped() const { return m_nDropped.load(); }
    // Whether the plug-in is loaded (READY and above): device, plugin and
    // virtual take effect at the next NULL -> READY.
    bool Loaded() const { return m_bLoaded.load(); }

    // ---- state changes ----
    // NULL -> READY: the files loaded, the frame grabber initialised, the
    // scanner selected. False with an error posted.
    bool Open();
    // READY -> NULL.
    void Close();
    // GstBaseSrc start/stop (READY <-> PAUSED): the capture.
    bool Start();
    void Stop();
    // PAUSED <-> PLAYING: live frames are queued only while playing.
    void SetPlaying(bool playing);
    void Unlock();
    void UnlockStop();

    // ---- streaming thread ----
    GstFlowReturn Create(GstBuffer** buffer);
    // Caps for the size of the frame about to be pushed (nothing before
    // the first frame came).
    gboolean Negotiate();
    // Fixed caps once the frame size is known, else the template's.
    GstCaps* Caps(GstCaps* filter);

private:
    struct Item {
        enum class Kind { Frame, Result, Failure };
        Kind kind = Kind::Frame;
        GstBuffer* buffer = nullptr;  // owned
        int width = 0;
        int height = 0;
    };

    GstElement* Element() const { return GST_ELEMENT_CAST(m_pElement); }
    // Now, as running time of the pipeline's clock; NONE without a clock.
    GstClockTime RunningTime() const;

    // ---- the worker ----
    void Deliver(const kr7host::Delivery& delivery);
    void OnImage(const kr7host::Delivery& delivery);
    void OnResult(const kr7host::Delivery& delivery);
    void OnError(const std::string& text);
    // Posts the capture's first error and queues its end.
    void Fail(const std::string& text, const std::string& debug);
    // The frame size of the capture: the pool made for it, create() told.
    bool FrameSize(int width, int height);
    void PushFrame(const kr7host::BitmapView& view, GstClockTime time, std::int64_t index);
    void PublishReady(bool queue);
    void Publish(const kr7host::Shot& shot, bool queue);
    // Preview: a still from GetImage (streaming thread).
    GstFlowReturn Snap(GstBuffer** buffer);

    // Queue helpers, with m_QueueMutex held.
    GstBuffer* TakeOldestFrameLocked();
    void Enqueue(Item item);
    void ReleaseQueue();

    GstBaseSrc* const m_pElement;

    mutable std::mutex m_SettingsMutex;
    Settings m_Settings;      // under m_SettingsMutex
    std::string m_strSerial;  // under m_SettingsMutex

    // The state-change thread's (and, in preview, the streaming thread's).
    std::unique_ptr<kr7host::Plugin> m_pPlugin;
    std::unique_ptr<kr7host::Capture> m_pCapture;
    std::string m_strDescription;  // "interface 0, serial KR734652", for debug texts
    std::atomic<bool> m_bLoaded{false};

    // Fixed from Start to Stop.
    vc::eCaptureModeIDs m_eMode = vc::eCaptureLive;
    bool m_bResultsOnly = false;

    // The worker's during a capture (in preview the streaming thread's);
    // Start and Stop touch them only while no worker runs.
    GstBufferPool* m_pPool = nullptr;
    int m_nPoolWidth = 0;
    int m_nPoolHeight = 0;
    std::size_t m_nStride = 0;  // of the pool's buffers' rows
    std::unique_ptr<kr7host::Placements> m_pPlacements;
    std::int64_t m_nFrames = 0;  // the scanner's frames of this capture
    std::int64_t m_nLastIndex = -1;
    GstClockTime m_nLastArrival = GST_CLOCK_TIME_NONE;
    kr7host::Quality m_LastQuality;  // of the last frame, when measured
    bool m_bLastMeasured = false;
    unsigned int m_nResults = 0;
    bool m_bFailed = false;

    std::atomic<bool> m_bPlaying{false};
    std::atomic<bool> m_bStopping{false};
    std::atomic<std::uint64_t> m_nDropped{0};

    std::mutex m_QueueMutex;
    std::condition_variable m_QueueChanged;
    std::vector<Item> m_vItems;       // under m_QueueMutex, oldest first
    std::size_t m_nQueuedFrames = 0;  // under m_QueueMutex
    bool m_bFlushing = false;         // under m_QueueMutex
    bool m_bWaiting = false;          // under m_QueueMutex: create() waits for an item
    int m_nWidth = 0;                 // under m_QueueMutex: the capture's frame size
    int m_nHeight = 0;

    // The streaming thread's: the size the caps were set for, the size
    // to negotiate next.
    int m_nCapsWidth = 0;
    int m_nCapsHeight = 0;
    int m_nNextWidth = 0;
    int m_nNextHeight = 0;
};

}  // namespace kr7gst
