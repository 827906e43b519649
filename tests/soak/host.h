// The soak's side of the host contract: the plug-in loaded with dlopen and a
// ledger of every callback the plug-in makes.
//
// Every StartCapture is a round with a number of its own, passed as the
// capture's handle; the plug-in hands it back as the first argument of each
// callback of that capture. The ledger knows which round is open and which
// rounds are closed (their StopCapture has returned): a callback of a closed
// round, or one still running when StopCapture returns, is late.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "base/framegrabber.h"

namespace soak {

// The plug-in file, opened and closed like a host does.
class Plugin {
public:
    explicit Plugin(std::string path) : m_strPath(std::move(path)) {}
    Plugin(const Plugin&) = delete;
    Plugin& operator=(const Plugin&) = delete;
    ~Plugin();

    // dlopen and the entry points; false with `error` set when either fails.
    bool Load(std::string& error);
    // dlclose; false with `error` set when it fails.
    bool Unload(std::string& error);

    vc::ClFramegrabber* Get() const { return m_fpGet(); }
    void Destroy() const { m_fpDestroy(); }
    // The exported object pointer: null once DestroyFrameGrabber has run.
    vc::ClFramegrabber* Current() const { return *m_ppObject; }
    const std::string& Path() const { return m_strPath; }

private:
    std::string m_strPath;
    void* m_hLibrary = nullptr;
    FGGetFrameGrabberFn m_fpGet = nullptr;
    FGDestroyFrameGrabberFn m_fpDestroy = nullptr;
    vc::ClFramegrabber** m_ppObject = nullptr;
};

// The texts the plug-in reports while a scanner is away.
constexpr const char* kDisconnectedText = "The scanner is disconnected.";
constexpr const char* kOpenFailedText = "QV2 scanner. The scanner couldn't be initialized.";

// Totals of one phase.
struct Tally {
    long starts = 0;
    long stops = 0;
    long images = 0;
    long results = 0;
    long errors = 0;
    long warnings = 0;
    long late = 0;      // after StopCapture returned, or still running then
    long strays = 0;    // wrong round, channel, context, result type or image
    long unpaired = 0;  // rounds whose start and stop callbacks do not pair up
};

class Ledger {
public:
    static constexpr std::chrono::milliseconds kEpisodeGap{500};

    Ledger();
    ~Ledger();
    Ledger(const Ledger&) = delete;
    Ledger& operator=(const Ledger&) = delete;

    // Round `round` is about to be started: its callbacks are expected.
    void Open(int round);
    // StopCapture of `round` has returned. Checks that nothing of it is
    // still running and that its start and stop callbacks paired up.
    void Close(int round);

    // Waits until `ready` holds (checked at each callback) or until
    // `deadline`; returns `ready()` at the end.
    template <class Ready>
    bool WaitUntil(Ready ready, std::chrono::steady_clock::time_point deadline) {
        std::unique_lock<std::mutex> lock(m_WaitMutex);
        return m_Changed.wait_until(lock, deadline, ready);
    }

    Tally Totals() const;
    // Error texts with their counts, for the report.
    std::map<std::string, long> ErrorTexts() const;
    // Callbacks of the open round so far.
    long RoundStarts() const { return m_nRoundStarts.load(); }
    long RoundImages() const { return m_nRoundImages.load(); }
    long RoundResults() const { return m_nRoundResults.load(); }
    long RoundErrors() const { return m_nRoundErrors.load(); }
    long Results() const { return m_nResults.load(); }
    long Episodes() const { return m_nEpisodes.load(); }
    // The text of the open round's first error, once there is one.
    std::string RoundError() const;

    // The callbacks, registered with every capture (`user` is the ledger).
    static void OnImage(int handle, unsigned int tag, unsigned char* image, void* user);
    static void OnResult(int handle, unsigned int tag, int result, unsigned char* image,
                         void* user);
    static void OnError(int handle, unsigned int tag, const char* text, void* user);
    static void OnWarning(int handle, unsigned int tag, const char* text, void* user);
    static void OnStart(int handle, unsigned int tag, void* user);
    static void OnStop(int handle, unsigned int tag, void* user);

    // StartCapture on channel 1 in plain-finger mode for round `round`.
    unsigned int Start(vc::ClFramegrabber& grabber, int round);

private:
    // Entry and exit bookkeeping shared by all callbacks: checks round,
    // channel and context and counts a late arrival.
    class Visit;
    void Notify();

    // Result episodes: a result more than kEpisodeGap after the previous one
    // begins a new placement (used where frames come at the scanner's pace).
    std::atomic<long> m_nEpisodes{0};
    std::atomic<std::int64_t> m_nLastResultNs{0};

    std::atomic<int> m_nOpenRound{-1};
    std::atomic<int> m_nClosedThrough{-1};
    std::atomic<int> m_nInside{0};

    std::atomic<long> m_nStarts{0};
    std::atomic<long> m_nStops{0};
    std::atomic<long> m_nImages{0};
    std::atomic<long> m_nResults{0};
    std::atomic<long> m_nErrors{0};
    std::atomic<long> m_nWarnings{0};
    std::atomic<long> m_nLate{0};
    std::atomic<long> m_nStrays{0};
    std::atomic<long> m_nUnpaired{0};

    std::atomic<long> m_nRoundStarts{0};
    std::atomic<long> m_nRoundStops{0};
    std::atomic<long> m_nRoundImages{0};
    std::atomic<long> m_nRoundResults{0};
    std::atomic<long> m_nRoundErrors{0};

    mutable std::mutex m_TextMutex;
    std::map<std::string, long> m_ErrorTexts;
    std::string m_strRoundError;

    std::mutex m_WaitMutex;
    std::condition_variable m_Changed;
};

// Well-formed 8-bit bitmap as the header describes every image.
bool PlausibleBitmap(const unsigned char* image);

}  // namespace soak
