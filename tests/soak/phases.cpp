#include "phases.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <optional>
#include <set>
#include <sstream>
#include <thread>

#include "host.h"
#include "kr7host/capture.h"
#include "kr7host/plugin.h"
#include "process_state.h"

#if defined(KR7_SOAK_LSAN)
#include <sanitizer/lsan_interface.h>
#endif

namespace soak {

namespace {

using Clock = std::chrono::steady_clock;

// The longest wait for something a running capture must do at full speed
// (a start callback, a frame, the end of an unplug).
constexpr std::chrono::seconds kPatience{30};
// Restarts in a row without a frame before a capture counts as lost.
constexpr int kMaxRestarts = 500;
// Resident memory may move this much between the first slice and the end.
constexpr long kRssSlackKiB = 1024;
// Failures listed in the report; the rest are only counted.
constexpr std::size_t kListedFailures = 8;
// A phase gives up after this many failures.
constexpr long kGiveUp = 200;

// The sanitizer the program is built with ("", "address" or "thread").
#if defined(KR7_SOAK_SANITIZER)
constexpr const char* kSanitizer = KR7_SOAK_SANITIZER;
#else
constexpr const char* kSanitizer = "";
#endif

// Scenarios. The starts, rounds and reloads phases run on fixed frames: the
// first frame, an empty platen, over and over, left uncorrected by the
// calibration stand-in's copying mode; the prism's falloff in it darkens the
// middle row enough for the plain-finger detector, so every frame also
// gives a result. The disconnect scenario presses each finger in over 8
// frames and holds it for 10, far more than one result needs, and begins
// each repetition with empty frames, so that the host's restart after the
// unplug has the scanner back before the finger comes.
constexpr const char* kIdleScenario = "empty 1s; place 0.3s; hold 1.5s; lift 0.5s; repeat";
constexpr const char* kUnplugScenario =
    "empty 0.12s; place 0.3s; hold 0.4s; lift 0.12s; unplug 0.2s; repeat";
constexpr const char* kRealtimeScenario = "empty 1s; place 0.3s; hold 2s; lift 1s; repeat";
// Frames of one repetition of kRealtimeScenario (40 ms each).
constexpr double kRealtimeCycleFrames = (1.0 + 0.3 + 2.0 + 1.0) * 25.0;

std::string Quote(const std::string& text) {
    return "'" + text + "'";
}

// One phase in this process: the plug-in, the frame grabber and the current
// round's capture as kr7host holds them, the ledger, and what went wrong.
class Phase {
public:
    explicit Phase(const std::string& plugin) { m_Files.plugin = plugin; }

    void Fail(const std::string& text) {
        if (m_Failures.size() < kListedFailures) {
            m_Failures.push_back(text);
        }
        ++m_nFailures;
    }
    // A line of figures for the report.
    void Note(const std::string& text) { m_Notes.push_back(text); }
    const std::vector<std::string>& Notes() const { return m_Notes; }
    // A figure summed over the phase's parts, reported in one line.
    void Add(const std::string& name, long value) {
        for (auto& figure : m_Figures) {
            if (figure.first == name) {
                figure.second += value;
                return;
            }
        }
        m_Figures.emplace_back(name, value);
    }
    const std::vector<std::pair<std::string, long>>& Figures() const { return m_Figures; }
    bool GaveUp() const { return m_nFailures >= kGiveUp; }
    long FailureCount() const { return m_nFailures; }
    const std::vector<std::string>& Failures() const { return m_Failures; }
    Ledger& ledger() { return m_Ledger; }

    // dlopen of the plug-in.
    bool Load() {
        try {
            m_Library.emplace(m_Files);
            return true;
        } catch (const kr7host::LoadError& e) {
            Fail(e.what());
            return false;
        }
    }

    // dlclose of the plug-in; then neither it nor a stand-in may be mapped.
    void Unload() {
        try {
            m_Library->Close();
        } catch (const std::exception& e) {
            Fail(e.what());
        }
        m_Library.reset();
        const std::string plugin = m_Files.plugin.substr(m_Files.plugin.rfind('/') + 1);
        const std::vector<std::string> left = MappedObjects(
            {plugin, "libQV2ScanAPI.so", "libnorvakcalibratesdk.so", "libnorvaklf.so"});
        for (const std::string& path : left) {
            Fail("still mapped after dlclose: " + path);
        }
    }

    // GetFrameGrabber and Initizalize.
    bool Open() {
        try {
            m_Grabber.emplace(*m_Library);
            return true;
        } catch (const std::exception& e) {
            Fail(e.what());
            return false;
        }
    }

    // Uninitialize and DestroyFrameGrabber; no thread of the frame grabber
    // may outlive it.
    void Close() {
        EndRound();
        try {
            m_Grabber->Shutdown();
        } catch (const kr7host::Error& e) {
            Fail(e.what());
        }
        m_Grabber.reset();
        if (m_Library->Current() != nullptr) {
            Fail("m_pFrameGrabber is set after DestroyFrameGrabber");
        }
        const int threads = SettledThreads(m_nIdleThreads, std::chrono::seconds(1));
        if (threads > m_nIdleThreads) {
            Fail(std::to_string(threads - m_nIdleThreads) +
                 " threads still running after DestroyFrameGrabber");
        }
    }

    // The process's threads while no capture runs.
    void SetIdleThreads(int threads) { m_nIdleThreads = threads; }

    // A new round: a capture in plain-finger mode on channel 1, started with
    // the round's number as its handle. False when StartCapture failed.
    bool Start() {
        EndRound();
        m_Ledger.NewRound();
        m_Capture.emplace(*m_Grabber, kr7host::Capture::Options{1, vc::eCapturePlainFinger},
                          m_Ledger.Handler());
        try {
            const unsigned int result = m_Capture->Start(++m_nRound);
            if (result != 0) {
                Fail("StartCapture returned " + Hex(result));
            }
            return true;
        } catch (const kr7host::Error& e) {
            Fail(e.what());
            CheckPairs();
            return false;
        }
    }

    // StopCapture of the round; its start and stop callbacks must pair up.
    void Stop() {
        try {
            m_Capture->Stop();
        } catch (const kr7host::Error& e) {
            Fail(e.what());
        }
        CheckPairs();
    }

    // The callbacks of the current round so far.
    kr7host::Counts Round() const { return m_Capture ? m_Capture->Totals() : kr7host::Counts(); }
    // The callbacks of every round, with those of no live capture and the
    // misfit images among the strays.
    kr7host::Counts Totals() const {
        kr7host::Counts all = m_Ended;
        Sum(all, Round());
        all.strays += kr7host::Capture::Unclaimed() + m_Ledger.Misfits();
        return all;
    }
    // Rounds whose start and stop callbacks did not pair up.
    long Unpaired() const { return m_nUnpaired; }

    // Waits up to kPatience for `ready`; a failure naming `what` otherwise.
    bool WaitFor(const std::function<bool()>& ready, const std::string& what) {
        if (m_Ledger.WaitUntil(ready, Clock::now() + kPatience)) {
            return true;
        }
        Fail("no " + what + " within " + std::to_string(kPatience.count()) + " s");
        return false;
    }

private:
    static std::string Hex(unsigned int code) {
        char number[16];
        std::snprintf(number, sizeof number, "0x%x", code);
        return number;
    }
    static void Sum(kr7host::Counts& to, const kr7host::Counts& from) {
        to.starts += from.starts;
        to.stops += from.stops;
        to.images += from.images;
        to.results += from.results;
        to.errors += from.errors;
        to.warnings += from.warnings;
        to.strays += from.strays;
        to.late += from.late;
    }
    void CheckPairs() {
        const kr7host::Counts round = Round();
        if (round.starts > 1 || round.starts != round.stops) {
            ++m_nUnpaired;
        }
    }
    // The round's capture is destroyed; its counts go to the phase's.
    void EndRound() {
        if (m_Capture) {
            Sum(m_Ended, m_Capture->Totals());
            m_Capture.reset();
        }
    }

    kr7host::Options m_Files;
    Ledger m_Ledger;
    // Declared in the order they are made: destroyed the other way round.
    std::optional<kr7host::Library> m_Library;
    std::optional<kr7host::Grabber> m_Grabber;
    std::optional<kr7host::Capture> m_Capture;
    kr7host::Counts m_Ended;  // of the rounds' captures destroyed so far
    long m_nUnpaired = 0;
    int m_nRound = 0;
    int m_nIdleThreads = 1;
    std::vector<std::string> m_Failures;
    std::vector<std::string> m_Notes;
    std::vector<std::pair<std::string, long>> m_Figures;
    long m_nFailures = 0;
};

// ---- starts -------------------------------------------------------------------
// One frame grabber, cycles of StartCapture and StopCapture. The stop comes
// at four points in turn: at once, after the start callback, after the
// first frame, after a pause of up to 1.75 ms.

void Starts(Phase& phase, long from, long to) {
    if (!phase.Load()) {
        return;
    }
    if (phase.Open()) {
        for (long i = from; i < to && !phase.GaveUp(); ++i) {
            if (!phase.Start()) {
                continue;
            }
            switch (i % 4) {
                case 0:
                    break;
                case 1:
                    phase.WaitFor(
                        [&] { return phase.Round().starts > 0 || phase.Round().errors > 0; },
                        "start callback");
                    break;
                case 2:
                    phase.WaitFor(
                        [&] { return phase.Round().images > 0 || phase.Round().errors > 0; },
                        "frame");
                    break;
                default:
                    std::this_thread::sleep_for(std::chrono::microseconds(250 * (i / 4 % 8)));
                    break;
            }
            phase.Stop();
            if (phase.Round().errors > 0) {
                phase.Fail("cycle " + std::to_string(i) + ": error " +
                           Quote(phase.ledger().RoundError()));
            }
        }
        phase.Close();
    }
    phase.Unload();
}

// ---- disconnects ----------------------------------------------------------------
// The scanner plays kUnplugScenario: each repetition places a finger, lifts
// it and unplugs the scanner. The host restarts its capture after every
// error until frames come again (an unplug is one run of errors). Once the
// placement of the current repetition has given a result, the host also
// restarts the capture after 0 to 3 frames, again and again, so that its
// starts meet the unplug at every point of the capture's set-up.
//
// Every placement between two unplugs of this session, and the one after
// the last, must give at least one result. The placement before the first
// unplug is not counted: where the scenario stands when a session begins is
// the stand-in's business.

void Disconnects(Phase& phase, long from, long to) {
    const long target = to - from;
    if (target <= 0 || !phase.Load()) {
        return;
    }
    if (!phase.Open()) {
        phase.Unload();
        return;
    }
    Ledger& ledger = phase.ledger();
    enum class State { AwaitResult, Restarting, Recovering };
    State state = State::AwaitResult;
    long unplugs = 0;
    long resultsMark = ledger.Results();  // results before the current placement
    int restartsWithoutFrame = 0;
    long voluntary = 0;                // restarts of the host's own
    long afterErrors = 0;              // restarts after a failed capture
    long checked = 0;                  // placements counted
    long missed = 0;                   // of them without a result
    std::set<std::string> unexpected;  // error texts reported as failures
    bool running = phase.Start();
    while (running && !phase.GaveUp()) {
        const long wantedFrames = voluntary % 4;
        const bool woke = phase.WaitFor(
            [&] {
                const kr7host::Counts round = phase.Round();
                if (round.errors > 0) {
                    return true;
                }
                switch (state) {
                    case State::AwaitResult:
                        return ledger.Results() > resultsMark;
                    case State::Restarting:
                        return round.images >= wantedFrames;
                    case State::Recovering:
                        return round.images > 0;
                }
                return true;
            },
            "progress after " + std::to_string(unplugs) + " unplugs");
        if (!woke) {
            break;
        }
        if (phase.Round().errors == 0) {
            if (state == State::Recovering) {
                state = ledger.Results() > resultsMark ? State::Restarting : State::AwaitResult;
                restartsWithoutFrame = 0;
                continue;
            }
            if (state == State::AwaitResult) {
                if (unplugs >= target) {
                    ++checked;
                    break;  // the placement after the last unplug gave its result
                }
                state = State::Restarting;
                continue;
            }
            // A restart of the host's own.
            phase.Stop();
            if (phase.Round().errors == 0) {
                ++voluntary;
                running = phase.Start();
                continue;
            }
        } else {
            phase.Stop();
        }

        // The capture failed: the scanner has gone, or is still away.
        const std::string text = ledger.RoundError();
        if (text != kDisconnectedText && text != kOpenFailedText &&
            unexpected.insert(text).second) {
            phase.Fail("unexpected error " + Quote(text) + " after " + std::to_string(unplugs) +
                       " unplugs");
        }
        if (state != State::Recovering) {
            // A new unplug: the placement before it is complete.
            if (unplugs > 0) {
                ++checked;
                if (ledger.Results() == resultsMark) {
                    ++missed;
                    phase.Fail("no result for the placement before unplug " +
                               std::to_string(unplugs + 1));
                }
            }
            ++unplugs;
            resultsMark = ledger.Results();
            state = State::Recovering;
        }
        if (++restartsWithoutFrame > kMaxRestarts) {
            phase.Fail("the capture did not recover after unplug " + std::to_string(unplugs) +
                       ": " + std::to_string(kMaxRestarts) + " restarts, the last error " +
                       Quote(text));
            running = false;
            break;
        }
        ++afterErrors;
        running = phase.Start();
    }
    if (running) {
        phase.Stop();
    }
    phase.Add("unplugs", unplugs);
    phase.Add("placements counted", checked);
    phase.Add("without a result", missed);
    phase.Add("restarts after errors", afterErrors);
    phase.Add("restarts of the host's own", voluntary);
    if (unplugs < target && !phase.GaveUp() && phase.FailureCount() == 0) {
        phase.Fail("only " + std::to_string(unplugs) + " of " + std::to_string(target) +
                   " unplugs seen");
    }
    phase.Close();
    phase.Unload();
}

// ---- rounds and reloads -----------------------------------------------------------

// A capture until its first frame or result, then stopped; no errors.
void CaptureALittle(Phase& phase, long i) {
    if (!phase.Start()) {
        return;
    }
    phase.WaitFor(
        [&] {
            const kr7host::Counts round = phase.Round();
            return round.images > 0 || round.results > 0 || round.errors > 0;
        },
        "first frame in round " + std::to_string(i));
    phase.Stop();
    if (phase.Round().errors > 0) {
        phase.Fail("round " + std::to_string(i) + ": error " + Quote(phase.ledger().RoundError()));
    }
}

// One plug-in load; in it a frame grabber made and destroyed each round.
void Rounds(Phase& phase, long from, long to) {
    if (!phase.Load()) {
        return;
    }
    for (long i = from; i < to && !phase.GaveUp(); ++i) {
        if (!phase.Open()) {
            break;
        }
        CaptureALittle(phase, i);
        phase.Close();
    }
    phase.Unload();
}

void Reloads(Phase& phase, long from, long to) {
    for (long i = from; i < to && !phase.GaveUp(); ++i) {
        if (!phase.Load()) {
            break;
        }
        if (phase.Open()) {
            CaptureALittle(phase, i);
            phase.Close();
        }
        phase.Unload();
    }
}

// ---- realtime -------------------------------------------------------------------
// One capture at 25 frames a second for `to - from` seconds. In plain-finger
// mode each frame makes two callbacks: the frame, then its result or the
// detector's image. Each repetition of kRealtimeScenario places one finger,
// seen as one episode of results. The pace is taken after the first five
// seconds: the stand-in grows a new finger's ridges once, taking about a
// second, and its frames do not catch up afterwards.

void Realtime(Phase& phase, long from, long to) {
    const long seconds = to - from;
    if (seconds <= 0 || !phase.Load()) {
        return;
    }
    if (phase.Open()) {
        Ledger& ledger = phase.ledger();
        const auto frames = [&] { return (phase.Round().images + phase.Round().results) / 2; };
        const auto failed = [&] { return phase.Round().errors > 0; };
        const long episodesBefore = ledger.Episodes();
        const Clock::time_point begin = Clock::now();
        if (phase.Start()) {
            ledger.WaitUntil(failed, begin + std::chrono::seconds(std::min(5L, seconds / 2)));
            const long settledFrames = frames();
            const Clock::time_point settled = Clock::now();
            ledger.WaitUntil(failed, begin + std::chrono::seconds(seconds));
            const long steadyFrames = frames() - settledFrames;
            const double steady = std::chrono::duration<double>(Clock::now() - settled).count();
            phase.Stop();
            const double rate = steadyFrames / steady;
            const long cycles = static_cast<long>(frames() / kRealtimeCycleFrames);
            const long episodes = ledger.Episodes() - episodesBefore;
            std::ostringstream where;
            where.precision(3);
            where << frames() << " frames (" << rate << " per second after the first "
                  << std::min(5L, seconds / 2) << " s), " << episodes
                  << " placements with results, " << cycles << " repetitions of the scenario";
            phase.Note(where.str());
            if (failed()) {
                phase.Fail("error " + Quote(ledger.RoundError()) + " after " + where.str());
            } else if (steady >= 10.0 && (rate < 20.0 || rate > 25.5)) {
                phase.Fail("not the scanner's pace: " + where.str());
            } else if (episodes + 1 < cycles || episodes > cycles + 1) {
                phase.Fail("placements and results differ: " + where.str());
            }
        }
        phase.Close();
    }
    phase.Unload();
}

// ---- the report -----------------------------------------------------------------

using Body = void (*)(Phase&, long, long);

Body BodyOf(const std::string& name) {
    if (name == "starts") {
        return &Starts;
    }
    if (name == "disconnects") {
        return &Disconnects;
    }
    if (name == "rounds") {
        return &Rounds;
    }
    if (name == "reloads") {
        return &Reloads;
    }
    return &Realtime;
}

std::string MiB(long kib) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", kib / 1024.0);
    return text;
}

}  // namespace

const std::vector<PhaseSettings>& Phases() {
    static const std::vector<PhaseSettings> phases = {
        {"starts",
         "cycles",
         {{"KR7SIM_SCENARIO", kIdleScenario},
          {"KR7SIM_FIXED_FRAME", "1"},
          {"KR7SIM_CAL_COPY", "1"}}},
        {"disconnects", "unplugs", {{"KR7SIM_SCENARIO", kUnplugScenario}}},
        {"rounds",
         "rounds",
         {{"KR7SIM_SCENARIO", kIdleScenario},
          {"KR7SIM_FIXED_FRAME", "1"},
          {"KR7SIM_CAL_COPY", "1"}}},
        {"reloads",
         "reloads",
         {{"KR7SIM_SCENARIO", kIdleScenario},
          {"KR7SIM_FIXED_FRAME", "1"},
          {"KR7SIM_CAL_COPY", "1"}}},
        {"realtime", "seconds", {{"KR7SIM_SCENARIO", kRealtimeScenario}, {"KR7SIM_REALTIME", "1"}}},
    };
    return phases;
}

const PhaseSettings* FindPhase(const std::string& name) {
    for (const PhaseSettings& phase : Phases()) {
        if (name == phase.name) {
            return &phase;
        }
    }
    return nullptr;
}

// The phase runs in two parts, each loading the plug-in and tearing
// everything down again: a first slice, then the rest. The first slice pays
// the process's one-time costs (the C library's per-thread malloc arena and
// its cache of thread stacks, the loader's bookkeeping), so the figures
// after it are what the end must come back to. Threads and descriptors must
// also be back at their level from before the plug-in was first loaded.
int RunPhase(const std::string& name, long count, const std::string& plugin) {
    const PhaseSettings* settings = FindPhase(name);
    if (settings == nullptr || count <= 0) {
        return 2;
    }
    const Body body = BodyOf(name);
    const bool realtime = name == "realtime";
    // At least a few of the phase's units: the first frames of a unit, the
    // first frame grabber, the first reload each settle something once.
    const long slice =
        realtime ? std::max(1L, count / 10) : std::min(count, std::max(5L, count / 100));

    // A sanitizer's runtime may start a helper thread of its own with the
    // process's first thread (ThreadSanitizer does). A thread made and
    // joined before the first reading has it counted from the start.
    std::thread([] {}).join();
    const ProcessFigures start = SettledFigures(1, std::chrono::milliseconds(200));
    const Clock::time_point begin = Clock::now();
    Phase phase(plugin);
    phase.SetIdleThreads(start.threads);
    body(phase, 0, slice);
    const ProcessFigures ref = SettledFigures(start.threads, std::chrono::seconds(5));
    if (slice < count && !phase.GaveUp()) {
        body(phase, slice, count);
    }
    const ProcessFigures end = SettledFigures(start.threads, std::chrono::seconds(5));
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();

    // Under a sanitizer the runtime maps and holds memory of its own as it
    // goes (the allocator's regions and quarantine, shadow memory, per-thread
    // state kept after a join), so mappings and resident memory are checked
    // only in plain builds. Threads and descriptors are checked everywhere.
    const bool plain = std::string(kSanitizer).empty();
    if (end.threads != start.threads || end.threads != ref.threads) {
        phase.Fail("threads not back: " + std::to_string(start.threads) + " at the start, " +
                   std::to_string(end.threads) + " at the end");
    }
    if (end.fds != start.fds || end.fds != ref.fds) {
        phase.Fail("descriptors not back: " + std::to_string(start.fds) + " at the start, " +
                   std::to_string(end.fds) + " at the end");
    }
    if (plain && end.mappings != ref.mappings) {
        phase.Fail("mappings not back: " + std::to_string(ref.mappings) +
                   " after the first slice, " + std::to_string(end.mappings) + " at the end");
    }
    if (plain && end.rssKiB > ref.rssKiB + kRssSlackKiB) {
        phase.Fail("resident memory grew from " + MiB(ref.rssKiB) + " to " + MiB(end.rssKiB) +
                   " MiB");
    }
    const kr7host::Counts tally = phase.Totals();
    if (tally.starts != tally.stops) {
        phase.Fail(std::to_string(tally.starts) + " start callbacks but " +
                   std::to_string(tally.stops) + " stop callbacks");
    }
    if (tally.late > 0) {
        phase.Fail(std::to_string(tally.late) + " callbacks after StopCapture returned");
    }
    if (tally.strays > 0) {
        phase.Fail(std::to_string(tally.strays) +
                   " callbacks with a wrong round, channel, context, result type or image");
    }
    if (phase.Unpaired() > 0) {
        phase.Fail(std::to_string(phase.Unpaired()) +
                   " captures whose start and stop callbacks did not pair up");
    }
    if (tally.warnings > 0) {
        phase.Fail(std::to_string(tally.warnings) + " warnings");
    }
#if defined(KR7_SOAK_LSAN)
    // Everything is torn down: whatever is still allocated and unreachable
    // leaked. (LeakSanitizer also runs at exit.)
    if (__lsan_do_recoverable_leak_check() != 0) {
        phase.Fail("LeakSanitizer found leaks (report above)");
    }
#endif

    const auto figure = [&](const char* what, long a, long b, long c, bool checked) {
        std::ostringstream out;
        out << "  " << what << " " << a << "|" << b << "->" << c << (checked ? "" : " (unchecked)");
        return out.str();
    };
    std::ostringstream line;
    char head[96];
    std::snprintf(head, sizeof head, "%-11s %7ld %-8s %8.1f s", settings->name, count,
                  settings->unit, seconds);
    line << head << figure("threads", start.threads, ref.threads, end.threads, true)
         << figure("fds", start.fds, ref.fds, end.fds, true)
         << figure("maps", start.mappings, ref.mappings, end.mappings, plain) << "  rss "
         << MiB(start.rssKiB) << "|" << MiB(ref.rssKiB) << "->" << MiB(end.rssKiB) << " MiB"
         << (plain ? "" : " (unchecked)") << "  callbacks: " << tally.starts << " start "
         << tally.stops << " stop " << tally.images << " image " << tally.results << " result "
         << tally.errors << " error " << tally.late << " late"
         << (phase.FailureCount() == 0 ? "  PASS" : "  FAIL") << "\n";
    for (const auto& entry : phase.ledger().ErrorTexts()) {
        line << "    error callback x" << entry.second << ": " << Quote(entry.first) << "\n";
    }
    if (!phase.Figures().empty()) {
        line << "   ";
        for (const auto& figure : phase.Figures()) {
            line << " " << figure.first << " " << figure.second
                 << (&figure == &phase.Figures().back() ? "\n" : ",");
        }
    }
    for (const std::string& note : phase.Notes()) {
        line << "    " << note << "\n";
    }
    for (const std::string& failure : phase.Failures()) {
        line << "    FAILED: " << failure << "\n";
    }
    if (phase.FailureCount() > static_cast<long>(phase.Failures().size())) {
        line << "    ... " << phase.FailureCount() - static_cast<long>(phase.Failures().size())
             << " more failures\n";
    }
    std::fputs(line.str().c_str(), stdout);
    std::fflush(stdout);
    return phase.FailureCount() == 0 ? 0 : 1;
}

}  // namespace soak
