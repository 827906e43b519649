// The viewer's side of the plug-in: one control thread makes every call on
// the frame grabber (loading, listing, starting and stopping captures,
// snapshots, contamination, LEDs, properties), so that no call ever runs on
// the interface thread and none runs beside another. What it learns comes
// back to the interface thread as queued calls of the signals below.
//
// Frames arrive on the plug-in's worker thread. The handler copies each into
// a spare buffer and swaps it into the hand-over slot: the interface thread
// takes the newest one, and a frame replaced before it was taken counts as
// dropped by the view. Results queue beside the slot and none is lost;
// errors, events and the end of a capture are posted one by one.
#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "kr7host/capture.h"
#include "kr7host/plugin.h"

namespace kr7viewer {

// A frame as the interface thread receives it.
struct Frame {
    kr7host::Image image;
    std::int64_t number = -1;  // in its capture
    long generation = 0;       // which start of a capture it belongs to
};

// A finger result, as the interface thread receives it.
struct Result {
    kr7host::Image image;
    std::int64_t frame = -1;  // the number of the frame before it
};

struct ScannerInfo {
    QString pluginFile, pluginVersion;
    QStringList scanners;  // "interface 0: KR712345"
    std::vector<unsigned long> interfaces;
    unsigned long active = 0;
    QStringList details;  // product, serial, hardware, firmware, calibration
};

class Session : public QObject {
    Q_OBJECT
public:
    struct Options {
        kr7host::Options load;
        std::optional<unsigned long> device;
    };

    explicit Session(const Options& options, QObject* parent = nullptr);
    // Stops a capture, uninitialises and unloads the plug-in; waits for the
    // control thread.
    ~Session() override;

    // Requests, carried out in order on the control thread.
    void Open();     // load (again, after a failure) and list the scanners
    void Refresh();  // list the scanners again; capture when one is back
    void Select(unsigned long interfaceNumber);
    void Start(vc::eCaptureModeIDs mode);
    void Stop();
    void Snapshot();
    void Contamination();
    void SetProperty(vc::ePropertyIDs property, bool on);

    // Interface thread: the results that came since the last call, in
    // order, appended to `results`; then the newest frame not yet taken,
    // swapped into `into` (whose buffer goes back for reuse), and false when
    // there is none. Results come before the frames after them.
    bool Take(Frame& into, std::vector<Result>& results);

    // Frames the plug-in delivered, and of them those the view never took.
    long Delivered() const { return m_nDelivered.load(); }
    long Dropped() const { return m_nDropped.load(); }
    // Whether a capture is wanted (started and not stopped by the user).
    bool Wanted() const { return m_bWanted.load(); }

signals:
    // Frames or results wait for Take.
    void framesReady();
    void opened(const kr7viewer::ScannerInfo& info);
    // A failure to show in the banner; `generation`: the capture it ended,
    // or 0.
    void failed(const QString& text, long generation);
    void loadFailed(const QString& text);
    void capturing(bool running, int mode);
    void warning(const QString& text);
    void snapshot(const kr7host::Image& image);
    void contamination(double value);
    void deviceEvent(unsigned int type);

private slots:
    // The calls Later queued, on the interface thread.
    void RunLater();

private:
    using Job = std::function<void()>;
    using Clock = std::chrono::steady_clock;

    void Post(Job job);
    void Loop();
    // Control thread only, from here on.
    void DoOpen();
    void DoRefresh();
    void DoStart();
    void DoStop();
    void Ended(long generation);
    void Fail(const std::exception& error, long generation = 0);
    // Runs `call` with the capture paused, then resumes it.
    void Paused(const std::function<void()>& call);
    void OnDelivery(const kr7host::Delivery& delivery);
    template <class F>
    void Later(F f);

    const Options m_Options;

    std::mutex m_JobMutex;
    std::condition_variable m_JobsChanged;
    std::deque<Job> m_Jobs;                    // under m_JobMutex
    bool m_bQuit = false;                      // under m_JobMutex
    std::optional<Clock::time_point> m_Retry;  // under m_JobMutex

    // The control thread's own.
    std::unique_ptr<kr7host::Plugin> m_pPlugin;
    std::unique_ptr<kr7host::Capture> m_pCapture;
    vc::eCaptureModeIDs m_eMode = vc::eCaptureLive;

    std::atomic<bool> m_bWanted{false};
    std::atomic<long> m_nGeneration{0};
    std::atomic<long> m_nDelivered{0};
    std::atomic<long> m_nDropped{0};

    // The plug-in's worker's spare; swapped with the slot under the mutex.
    kr7host::Image m_Incoming;
    std::mutex m_FrameMutex;
    Frame m_Latest;                  // under m_FrameMutex
    std::vector<Result> m_vResults;  // under m_FrameMutex
    bool m_bFresh = false;           // m_Latest not yet taken; under m_FrameMutex
    bool m_bNotified = false;        // framesReady posted, not yet handled; under m_FrameMutex

    // Calls for the interface thread. They wait here, under our own mutex,
    // rather than inside Qt's queued call: Qt's event queue synchronises
    // with futexes ThreadSanitizer cannot see.
    std::mutex m_LaterMutex;
    std::vector<Job> m_vLater;  // under m_LaterMutex

    std::thread m_Thread;  // last: starts once everything above exists
};

}  // namespace kr7viewer
