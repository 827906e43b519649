// The C++ half of the kr7 Python module, free of Python: an open scanner
// (the plug-in loaded, initialised and serialised behind one lock) and the
// captures that the module's generators step through. module.cpp wraps
// them, releases the GIL around every call here and turns their exceptions
// into Python's.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "kr7host/capture.h"
#include "kr7host/plugin.h"
#include "kr7host/quality.h"

namespace kr7py {

// A call that the state of the scanner or generator does not allow (a
// closed scanner, a second capture on one channel, a second scanner on one
// plug-in); module.cpp raises it as RuntimeError.
class Refused : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A capture ended with the plug-in's error callback, or the plug-in ended it
// on its own. `number` is 0 when the text is none of the plug-in's numbered
// texts.
class CaptureFailed : public std::runtime_error {
public:
    CaptureFailed(unsigned int number, const std::string& text)
        : std::runtime_error(text), m_nNumber(number) {}
    unsigned int Number() const { return m_nNumber; }

private:
    unsigned int m_nNumber;
};

// Where the module looks when kr7.open is not told: set once at import from
// the module's own file.
struct Defaults {
    std::string moduleFolder;  // the folder of the module's file, resolved
    // With the virtual scanner, from the build tree: the plug-in and the
    // stand-ins built there.
    std::string plugin;     // empty: kr7host::DefaultPlugin
    std::string simFolder;  // empty: kr7host::VirtualScannerFolder
};
Defaults FindDefaults();

struct OpenOptions {
    bool virtualScanner = false;
    std::string plugin;                   // empty: the default
    std::optional<unsigned long> device;  // none: the plug-in's active one
};

struct DeviceEntry {
    unsigned long index = 0;
    std::string serial;
    bool active = false;
};

class Stream;

// Closes every session still open (at the interpreter's exit).
void CloseAll();

// Pixel buffers for frames, kept for reuse: an array hands its buffer back
// when it dies, and the next frame is copied into it without an allocation
// or a zero fill (a buffer of the frame's size keeps its size). At most a
// few are kept; any thread may take and give.
namespace pool {
std::vector<std::uint8_t> Take();
void Give(std::vector<std::uint8_t>&& pixels);
}  // namespace pool

// One open scanner: the plug-in loaded and its frame grabber initialised.
// One at a time per plug-in file in a process, since the plug-in has one
// frame grabber per process. Every call of the plug-in goes through Call,
// under one lock; the waits of a capture do not hold it.
class Session {
public:
    // Throws kr7host::LoadError, kr7host::Error, Refused.
    static std::shared_ptr<Session> Open(const Defaults& defaults, const OpenOptions& options);
    // The open session of the plug-in `options` name, if any.
    static std::shared_ptr<Session> Find(const Defaults& defaults, const OpenOptions& options);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Stops a capture still running, Uninitialize, DestroyFrameGrabber,
    // unloads the files. A second call does nothing. Throws nothing.
    void Close();
    bool Closed() const;
    const std::string& File() const { return m_strFile; }
    bool Virtual() const { return m_bVirtual; }

    // Runs `call` on the grabber under the lock; Refused when closed.
    template <class Call>
    auto Run(Call call) -> decltype(call(std::declval<kr7host::Grabber&>())) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        if (!m_pGrabber) {
            throw Refused("the scanner is closed");
        }
        return call(*m_pGrabber);
    }

    std::vector<DeviceEntry> Devices();

private:
    friend class Stream;
    Session(const std::string& key, const OpenOptions& options, const kr7host::Options& load);

    const std::string m_strKey;
    std::string m_strFile;
    bool m_bVirtual = false;
    mutable std::mutex m_Mutex;
    std::unique_ptr<kr7host::Library> m_pLibrary;  // under m_Mutex
    std::unique_ptr<kr7host::Grabber> m_pGrabber;  // under m_Mutex
    Stream* m_pActive = nullptr;                   // under m_Mutex: the running capture
};

// What a capture hands its generator.
struct Item {
    enum class What { Nothing, Frame, Result, Warning, End };
    What what = What::Nothing;
    kr7host::Image image;
    kr7host::Quality quality;  // Result
    std::int64_t number = 0;   // Frame: the plug-in's frame, from 1; Result: from 1
    std::int64_t frame = 0;    // Result: the plug-in's frames before it
    std::string text;          // Warning
};

// One capture as a generator steps through it: started by the first Wait,
// stopped when enough came, at the timeout, on an error, by Stop, or when
// the session closes. The plug-in's callbacks come to a kr7host::Capture
// handler on its worker thread, which fills a queue the reader's thread
// takes from. Results keeps one finger result per placement (worked out on
// the worker thread, so none is lost however slow the reader); Frames
// copies each live frame once into a pooled buffer and keeps the newest
// `keep` of them, letting the oldest go when the reader falls behind. One
// thread at a time steps it; Session::Close may stop it from another.
class Stream {
public:
    enum class Kind { Results, Frames };

    struct Options {
        Kind kind = Kind::Results;
        vc::eCaptureModeIDs mode = vc::eCapturePlainFinger;
        long long count = -1;  // results or frames to hand over; -1 no limit
        double timeout = -1;   // seconds from the start; negative: none
        std::size_t keep = 4;  // live frames queued (Frames)
    };

    Stream(std::shared_ptr<Session> session, const Options& options);
    // Stops a capture still running; throws nothing.
    ~Stream();
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    // The next item, waiting up to `slice`: Nothing when none came in it,
    // End when the capture is over (for good). Throws kr7host::Error (start
    // or stop failed), CaptureFailed (after the results before the failure
    // were handed over), Refused (session closed before the start, another
    // capture running).
    Item Wait(std::chrono::milliseconds slice);
    // Stops the capture now and ends the stream; `why` becomes Stopped().
    // Throws kr7host::Error when StopCapture fails.
    void Stop(const char* why);

    bool Started() const { return m_bStarted; }
    // Why it ended: "count", "timeout", "closed", "interrupted", "error",
    // "ended"; empty while it runs or before it starts.
    std::string Stopped() const;
    long Frames() const;   // live frames the plug-in delivered
    long Dropped() const;  // of them, let go before the reader took them
    long Handed() const { return m_nHanded; }
    const Options& Settings() const { return m_Options; }

private:
    friend class Session;
    void Start();
    // Stops the capture if it still runs; with the session's lock held.
    void Halt(const char* why);
    void OnDelivery(const kr7host::Delivery& delivery);
    Item Take(std::chrono::milliseconds slice);
    bool TimedOut() const;
    void Push(Item&& item);  // on the worker, with m_ReadyMutex held
    // After the capture stopped: the placement still open, then the error.
    void Drain();

    const std::shared_ptr<Session> m_pSession;
    const Options m_Options;
    std::unique_ptr<kr7host::Capture> m_pCapture;
    bool m_bStarted = false;
    bool m_bOver = false;  // nothing more comes from Wait
    std::chrono::steady_clock::time_point m_Start;
    long long m_nHanded = 0;
    std::deque<Item> m_Pending;  // handed over before anything new
    std::optional<CaptureFailed> m_Failure;
    std::optional<kr7host::Error> m_StopFailure;  // a stop at the count that failed

    mutable std::mutex m_StateMutex;
    std::string m_strStopped;            // under m_StateMutex
    std::atomic<bool> m_bHalted{false};  // the capture was stopped

    // The worker's side.
    kr7host::Placements m_Placements;  // Results
    kr7host::Image m_Scratch;          // Results: a live frame, measured
    kr7host::Quality m_FrameQuality;   // Results: of that frame
    std::atomic<long> m_nDropped{0};   // Frames
    std::mutex m_ReadyMutex;
    std::condition_variable m_ReadyChanged;
    std::deque<Item> m_Ready;        // under m_ReadyMutex
    std::size_t m_nReadyFrames = 0;  // under m_ReadyMutex: of them frames
    std::string m_strError;          // under m_ReadyMutex: the first error text
    bool m_bEnded = false;           // under m_ReadyMutex: the stop callback came
};

}  // namespace kr7py
