// A capture on one channel: StartCapture and StopCapture, with the
// plug-in's callbacks turned into a C++ handler or into a queue that the
// host's own thread reads. No front-end writes a C callback again.
//
// The plug-in calls back on the channel's worker thread, and a slow
// callback delays its next frame. With a handler, the handler runs there,
// on the image as the plug-in lent it. With the queue, the callback copies
// the image once and returns; a host thread that falls behind loses the
// oldest live frames (counted as dropped), never a finger result, an error
// or the end of the capture.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include <norvakkr7fg/framegrabber.h>

#include "kr7host/image.h"
#include "kr7host/plugin.h"

namespace kr7host {

enum class Kind { Start, Image, Result, Error, Warning, Stop };

// What every callback tells, whatever else it carries.
struct Call {
    Kind kind = Kind::Image;
    int handle = 0;        // the handle given to Start
    unsigned int tag = 0;  // the channel's callback tag (its number)
    int result = 0;        // Result: the detector's type, the capture mode
    // Image: its number in this capture, from 0. Result: the number of the
    // image before it (-1 when none came yet).
    std::int64_t frame = -1;
    // Image: the detector's copy of the frame before it, which the plug-in
    // hands out in place of a result in plain and fast plain mode when it
    // finds no finger. It is numbered as an image of its own.
    bool copy = false;
};

// One callback as the plug-in made it, valid only during the call.
struct Delivery : Call {
    BitmapView image;            // Image, Result
    const char* text = nullptr;  // Error, Warning
};

// The same, owned, as the queue hands it over.
struct Event : Call {
    Image image;
    std::string text;
};

// Callbacks of a capture since it was made.
struct Counts {
    long starts = 0;
    long stops = 0;
    long images = 0;
    long results = 0;
    long errors = 0;
    long warnings = 0;
    long dropped = 0;  // live frames the queue let go, the oldest first
    // Callbacks with another handle or channel, a result of another type or
    // an image that is no 8-bit bitmap.
    long strays = 0;
    // Callbacks made after Stop returned, or still running when it did.
    long late = 0;
};

class Capture {
public:
    using Handler = std::function<void(const Delivery&)>;

    struct Options {
        unsigned int channel = 1;
        vc::eCaptureModeIDs mode = vc::eCaptureLive;
        // Live frames the queue keeps; a newer one pushes the oldest out.
        std::size_t liveFrames = 4;
    };

    // Without a handler the callbacks fill the queue that Next reads.
    Capture(Grabber& grabber, const Options& options, Handler handler = nullptr);
    // Stops a running capture; throws nothing.
    ~Capture();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    // SetCallbacks and StartCapture; `handle` comes back first in every
    // callback. Returns StartCapture's result: 0, or FGERR_FLAG |
    // FGERR_DETECTION_NOT_SUPPORTED for a mode the plug-in does not list but
    // captures in all the same. Throws Error for any other failure.
    unsigned int Start(int handle = 1);
    // StopCapture: when it returns, the plug-in calls back no more for this
    // start. Throws Error when it fails. From inside a handler it only asks
    // the capture to end, as the plug-in does.
    void Stop();

    // The next event, waiting up to `timeout` for one (queue only).
    std::optional<Event> Next(std::chrono::milliseconds timeout);
    // The plug-in's stop callback came for the current start: the capture
    // ended, by Stop or by an error.
    bool Stopped() const { return m_bStopped.load(); }
    Counts Totals() const;

    // Callbacks that reached no capture of this process: a context no
    // capture owns, or one already destroyed.
    static long Unclaimed();

private:
    class Visit;
    static void OnImage(int handle, unsigned int tag, unsigned char* image, void* user);
    static void OnResult(int handle, unsigned int tag, int result, unsigned char* image,
                         void* user);
    static void OnError(int handle, unsigned int tag, const char* text, void* user);
    static void OnWarning(int handle, unsigned int tag, const char* text, void* user);
    static void OnStart(int handle, unsigned int tag, void* user);
    static void OnStop(int handle, unsigned int tag, void* user);

    // Every callback: finds the capture, lets `fill` complete what it
    // delivers, counts it and hands it on.
    template <class Fill>
    static void Arrive(void* user, Kind kind, int handle, unsigned int tag, Fill fill);
    void Deliver(const Delivery& delivery);
    void Queue(const Delivery& delivery);

    Grabber& m_rGrabber;
    const Options m_Options;
    const Handler m_Handler;
    bool m_bStarted = false;  // by a host thread: Start succeeded, Stop not yet called

    std::atomic<int> m_nHandle{0};
    std::atomic<bool> m_bClosed{true};  // Stop has returned
    std::atomic<int> m_nInside{0};      // callbacks under way
    std::atomic<bool> m_bStopped{false};
    std::atomic<std::int64_t> m_nFrame{0};
    std::atomic<bool> m_bFramePending{false};  // a frame came, no copy or result yet
    std::atomic<long> m_nByKind[6] = {};       // callbacks of each Kind
    std::atomic<long> m_nDropped{0};
    std::atomic<long> m_nStrays{0};
    std::atomic<long> m_nLate{0};

    mutable std::mutex m_QueueMutex;
    std::condition_variable m_QueueChanged;
    std::deque<Event> m_Queue;        // under m_QueueMutex
    std::size_t m_nQueuedImages = 0;  // under m_QueueMutex
    Image m_Spare;  // a dropped frame's buffer, for the next copy; under m_QueueMutex
};

}  // namespace kr7host
