// The plug-in end to end, loaded the way a host loads it: dlopen of the built
// libnorvakkr7fg.so.1, GetFrameGrabber, Initizalize, StartCapture and the
// host's callbacks. The stand-ins are preloaded by their full build paths
// (RTLD_NOW | RTLD_GLOBAL), so that the plug-in's loads by bare name reuse
// them. The scanner hands out one pre-rendered frame per call
// (KR7SIM_FIXED_FRAME=1) and the calibration copies rows instead of
// correcting them (KR7SIM_CAL_COPY=1): what is left of a frame's time is the
// plug-in's own share.
//
// Each configuration (capture mode x frame size) runs in a child process of
// its own, because the scanner stand-in reads its settings once per process.
// A child measures, in this order and in the same run:
// - memcpy_us: a memcpy of the raw frame (width x height bytes), timed
//   between the device and calibration calls below; the floor of the ratios;
// - device_us: ftrScanGetImageByVariableDose on a handle of its own;
// - calibration_us: Calibrate on the unit's calibration data;
// - total_us: the interval between two frames at the host's image callback
//   while the plug-in captures at full speed (steady state);
// - plugin_us = total_us - device_us - calibration_us, and its ratio to
//   memcpy_us (all medians over the samples);
// - allocs_per_frame: heap allocations of the whole process per frame in
//   the steady state (counted by the replaced operator new of
//   support/allocation_count.cpp; the plug-in and the stand-ins use it too);
// - first_frame_ms and stop_ms: StartCapture to the first image callback,
//   and StopCapture's duration while frames flow, over several cycles.
// One more child captures at 25 frames per second (KR7SIM_REALTIME=1) and
// reports the worker thread's and the whole process's CPU time per second,
// and the same latencies at that pace.
//
// Usage:
//   bench_plugin_end_to_end [--out=FILE] [--frames=N] [--only=MODE@WxH]
//                           [--steady-only] [--no-realtime]
// MODE is live, plain, plain-finger or rolled. --only runs one configuration
// in this process (for valgrind); --steady-only then skips everything but
// the steady-state capture. --out writes a JSON document with the figures
// and the per-frame samples (read by plot_frame_times.py). KR7_BENCH_PLUGIN
// names another plug-in file to load instead of the built one (to compare
// with an earlier build).

#include <dlfcn.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "base/framegrabber.h"
#include "support/allocation_count.h"

namespace {

using Clock = std::chrono::steady_clock;

// ---- configurations -------------------------------------------------------

struct Mode {
    const char* name;
    vc::eCaptureModeIDs id;
    const char* scenario;
    bool finger;  // the finger is pressed in before the first frame
};

const Mode kModes[] = {
    {"live", vc::eCaptureLive, "empty 1s; repeat", false},
    {"plain", vc::eCapturePlainFinger, "empty 1s; repeat", false},
    {"plain-finger", vc::eCapturePlainFinger, "place 0.2s; hold 3600s", true},
    {"rolled", vc::eCaptureRolledFinger, "empty 1s; repeat", false},
};

struct Size {
    int width;
    int height;
};

const Size kSizes[] = {{320, 480}, {640, 480}};

struct Options {
    std::string out;
    long frames = 3000;
    bool steadyOnly = false;
    bool realtime = true;
    const Mode* onlyMode = nullptr;
    Size onlySize{320, 480};
};

// ---- the stand-ins' entry points the benchmark calls itself ---------------

using OpenFn = void* (*)();
using CloseFn = int (*)(void*);
using DoseFn = int (*)(void*, int, void*);
using PresentFn = int (*)(void*, void*);
using ExtSizeFn = int (*)(void*, int*);
using ExtReadFn = int (*)(void*, void*, int, int);
using CalCreateFn = void* (*)();
using CalDeleteFn = void (*)(void**);
using CalSetFn = std::int32_t (*)(void*, const unsigned char*, unsigned int);
using CalFn = std::int32_t (*)(void*, const void*, unsigned int, void*, unsigned int*);

template <class Fn>
Fn Symbol(void* library, const char* name) {
    void* symbol = dlsym(library, name);
    if (symbol == nullptr) {
        throw std::runtime_error(std::string("missing symbol ") + name);
    }
    return reinterpret_cast<Fn>(symbol);
}

struct StandIns {
    void* scanner = nullptr;
    void* calibration = nullptr;
};

StandIns LoadStandIns() {
    StandIns s;
    void* handles[3] = {};
    const char* paths[3] = {KR7_LOGGING_PATH, KR7_CALIBRATE_PATH, KR7_SCANNER_PATH};
    for (int i = 0; i < 3; ++i) {
        handles[i] = dlopen(paths[i], RTLD_NOW | RTLD_GLOBAL);
        if (handles[i] == nullptr) {
            throw std::runtime_error(dlerror());
        }
    }
    s.calibration = handles[1];
    s.scanner = handles[2];
    return s;
}

// ---- timing helpers -------------------------------------------------------

double Seconds(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double>(b - a).count();
}

double Mean(const std::vector<double>& v) {
    double sum = 0;
    for (double x : v) {
        sum += x;
    }
    return v.empty() ? 0 : sum / static_cast<double>(v.size());
}

double Percentile(std::vector<double> v, double p) {
    if (v.empty()) {
        return 0;
    }
    std::sort(v.begin(), v.end());
    const auto index = static_cast<std::size_t>(p * static_cast<double>(v.size() - 1) + 0.5);
    return v[index];
}

// Keeps the optimiser from dropping a copy.
void Touch(const void* p) {
    asm volatile("" : : "r"(p) : "memory");
}

// Times `step` `count` times, each followed by a memcpy of `bytes` bytes;
// appends the step's and the copy's durations (seconds).
template <class Step>
void TimeWithFloor(int count, std::size_t bytes, Step&& step, std::vector<double>& steps,
                   std::vector<double>& copies) {
    std::vector<unsigned char> from(bytes, 0x5A);
    std::vector<unsigned char> to(bytes);
    for (int i = 0; i < count; ++i) {
        const auto t0 = Clock::now();
        step();
        const auto t1 = Clock::now();
        std::memcpy(to.data(), from.data(), bytes);
        Touch(to.data());
        const auto t2 = Clock::now();
        steps.push_back(Seconds(t0, t1));
        copies.push_back(Seconds(t1, t2));
    }
}

// ---- the host -------------------------------------------------------------

// What the callbacks see. A frame starts at the image callback that carries
// the same block as the capture's first one (in plain-finger mode a second
// image callback per frame carries the detector's result).
struct Host {
    std::atomic<const unsigned char*> first{nullptr};
    std::atomic<long> frames{0};
    std::atomic<long long> firstFrameNs{-1};
    std::atomic<bool> failed{false};
    std::atomic<long> results{0};
    std::atomic<pid_t> workerTid{0};
    std::atomic<bool> haveClock{false};
    clockid_t workerClock{};
    Clock::time_point started;

    // Steady-state recording: frame numbers [from, from + stamps.size()).
    std::atomic<long> recordFrom{-1};
    std::vector<long long> stamps;  // ns since `started`
    std::atomic<unsigned long long> allocsAtFirst{0};
    std::atomic<unsigned long long> allocsAtLast{0};

    void Reset() {
        first = nullptr;
        frames = 0;
        firstFrameNs = -1;
        recordFrom = -1;
        started = Clock::now();
    }

    static void OnImage(int, unsigned int, unsigned char* image, void* user) {
        Host& host = *static_cast<Host*>(user);
        const unsigned char* expected = nullptr;
        if (!host.first.compare_exchange_strong(expected, image) && expected != image) {
            return;  // not the frame's first callback
        }
        const long long now =
            std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - host.started)
                .count();
        const long frame = host.frames.load(std::memory_order_relaxed);
        if (frame == 0) {
            host.firstFrameNs = now;
            host.workerTid = static_cast<pid_t>(syscall(SYS_gettid));
            if (!host.haveClock && pthread_getcpuclockid(pthread_self(), &host.workerClock) == 0) {
                host.haveClock = true;
            }
        }
        const long from = host.recordFrom.load();
        if (from >= 0 && frame >= from) {
            const auto index = static_cast<std::size_t>(frame - from);
            if (index < host.stamps.size()) {
                host.stamps[index] = now;
                if (index == 0) {
                    host.allocsAtFirst = kr7bench::AllocationCount();
                }
                if (index + 1 == host.stamps.size()) {
                    host.allocsAtLast = kr7bench::AllocationCount();
                }
            }
        }
        host.frames.store(frame + 1);
    }
    static void OnResult(int, unsigned int, int, unsigned char*, void* user) {
        ++static_cast<Host*>(user)->results;
    }
    static void OnError(int, unsigned int, const char* text, void* user) {
        std::fprintf(stderr, "plug-in error: %s\n", text ? text : "(null)");
        static_cast<Host*>(user)->failed = true;
    }
    static void OnWarning(int, unsigned int, const char* text, void*) {
        std::fprintf(stderr, "plug-in warning: %s\n", text ? text : "(null)");
    }
};

void WaitForFrames(Host& host, long count, double timeoutSeconds) {
    const auto deadline = Clock::now() + std::chrono::duration<double>(timeoutSeconds);
    while (host.frames.load() < count) {
        if (host.failed || Clock::now() > deadline) {
            throw std::runtime_error("frames do not come");
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

struct Plugin {
    void* library = nullptr;
    vc::ClFramegrabber* grabber = nullptr;
    FGDestroyFrameGrabberFn destroy = nullptr;

    Plugin() {
        const char* other = std::getenv("KR7_BENCH_PLUGIN");
        library = dlopen(other != nullptr ? other : KR7_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr) {
            throw std::runtime_error(dlerror());
        }
        auto get = Symbol<FGGetFrameGrabberFn>(library, "GetFrameGrabber");
        destroy = Symbol<FGDestroyFrameGrabberFn>(library, "DestroyFrameGrabber");
        grabber = get();
        if (grabber == nullptr || grabber->Initizalize(nullptr) != 0) {
            throw std::runtime_error("the plug-in does not initialise");
        }
    }
    ~Plugin() {
        grabber->Uninitialize();
        destroy();
        dlclose(library);
    }
    void Start(Host& host, vc::eCaptureModeIDs mode) {
        host.Reset();
        const unsigned int rc = grabber->StartCapture(1, 1, mode, &Host::OnImage, &Host::OnResult,
                                                      &Host::OnError, &Host::OnWarning, &host);
        // A mode the plug-in does not list (rolled) captures all the same.
        if (rc != 0 && rc != (vc::FGERR_FLAG | vc::FGERR_DETECTION_NOT_SUPPORTED)) {
            throw std::runtime_error("StartCapture failed: " + std::to_string(rc));
        }
    }
    double Stop() {
        const auto t0 = Clock::now();
        grabber->StopCapture(1);
        return Seconds(t0, Clock::now());
    }
};

// ---- one configuration ----------------------------------------------------

std::string Number(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.6g", value);
    return text;
}

// Everything of one configuration, as a JSON object.
struct Report {
    std::string json = "{";
    void Add(const char* key, double value) { Field(key, Number(value)); }
    void Add(const char* key, const std::string& text) { Field(key, "\"" + text + "\""); }
    void AddArray(const char* key, const std::vector<double>& values) {
        std::string list = "[";
        for (std::size_t i = 0; i < values.size(); ++i) {
            list += (i ? "," : "") + Number(values[i]);
        }
        Field(key, list + "]");
    }
    void Field(const char* key, const std::string& value) {
        json += (json.size() > 1 ? "," : "") + std::string("\"") + key + "\":" + value;
    }
    std::string Done() const { return json + "}"; }
};

void SetEnvironment(const Mode& mode, Size size, bool realtime) {
    setenv("KR7SIM_SCENARIO", mode.scenario, 1);
    setenv("KR7SIM_UNITS",
           ("size=" + std::to_string(size.width) + "x" + std::to_string(size.height)).c_str(), 1);
    setenv("KR7SIM_FIXED_FRAME", "1", 1);
    setenv("KR7SIM_CAL_COPY", "1", 1);
    if (realtime) {
        setenv("KR7SIM_REALTIME", "1", 1);
    } else {
        unsetenv("KR7SIM_REALTIME");
    }
    unsetenv("KR7SIM_JOURNAL");
    unsetenv("KR7SIM_FAULTS");
}

// The device's and the calibration's own time per frame, with the floor.
void MeasureStandIns(const StandIns& s, const Mode& mode, Size size, Report& report) {
    const auto open = Symbol<OpenFn>(s.scanner, "ftrScanOpenDevice");
    const auto close = Symbol<CloseFn>(s.scanner, "ftrScanCloseDevice");
    const auto dose = Symbol<DoseFn>(s.scanner, "ftrScanGetImageByVariableDose");
    const auto present = Symbol<PresentFn>(s.scanner, "ftrScanIsFingerPresent");
    const auto extSize = Symbol<ExtSizeFn>(s.scanner, "ftrScanGetExtMemorySize");
    const auto extRead = Symbol<ExtReadFn>(s.scanner, "ftrScanRestoreExtMemory");
    const auto calCreate = Symbol<CalCreateFn>(s.calibration, "CalibrateCreate");
    const auto calDelete = Symbol<CalDeleteFn>(s.calibration, "CalibrateDelete");
    const auto calSet = Symbol<CalSetFn>(s.calibration, "CalibrateSetData");
    const auto calibrate = Symbol<CalFn>(s.calibration, "Calibrate");

    void* device = open();
    if (device == nullptr) {
        throw std::runtime_error("ftrScanOpenDevice failed");
    }
    if (mode.finger) {
        for (int i = 0; i < 10; ++i) {  // past the press: the frames show the held finger
            present(device, nullptr);
        }
    }
    const std::size_t pixels = static_cast<std::size_t>(size.width) * size.height;
    const unsigned int stride = (static_cast<unsigned int>(size.width) + 3u) & ~3u;
    const std::size_t header = 40 + 4 * 256;
    std::vector<unsigned char> input(header + stride * static_cast<std::size_t>(size.height));
    unsigned char* raw = input.data() + header;

    std::vector<double> device_s;
    std::vector<double> copies;
    dose(device, 60, raw);  // renders the frame that is then repeated
    TimeWithFloor(
        300, pixels,
        [&] {
            if (dose(device, 60, raw) == 0) {
                throw std::runtime_error("ftrScanGetImageByVariableDose failed");
            }
        },
        device_s, copies);

    int memory = 0;
    if (extSize(device, &memory) == 0 || memory <= 25) {
        throw std::runtime_error("no extended memory");
    }
    std::vector<unsigned char> ext(static_cast<std::size_t>(memory));
    if (extRead(device, ext.data(), 0, memory) == 0) {
        throw std::runtime_error("extended memory unreadable");
    }
    close(device);
    // The calibration block: its description, then the payload's size and
    // the payload.
    const std::size_t n = ext[20];
    std::uint32_t payloadSize = 0;
    std::memcpy(&payloadSize, ext.data() + 21 + n, 4);
    if (25 + n + payloadSize > ext.size()) {
        throw std::runtime_error("no calibration data");
    }
    void* cal = calCreate();
    if (calSet(cal, ext.data() + 25 + n, payloadSize) != 0) {
        throw std::runtime_error("CalibrateSetData failed");
    }
    auto put32 = [&](std::size_t at, std::uint32_t v) { std::memcpy(&input[at], &v, 4); };
    put32(0, 40);
    put32(4, static_cast<std::uint32_t>(size.width));
    put32(8, static_cast<std::uint32_t>(size.height));
    input[12] = 1;
    input[14] = 8;
    unsigned int outSize = 0;
    calibrate(cal, input.data(), static_cast<unsigned int>(input.size()), nullptr, &outSize);
    std::vector<unsigned char> output(outSize);
    std::vector<double> calibration_s;
    TimeWithFloor(
        300, pixels,
        [&] {
            unsigned int held = outSize;
            if (calibrate(cal, input.data(), static_cast<unsigned int>(input.size()), output.data(),
                          &held) != 0) {
                throw std::runtime_error("Calibrate failed");
            }
        },
        calibration_s, copies);
    calDelete(&cal);

    report.Add("device_us", Percentile(device_s, 0.5) * 1e6);
    report.Add("calibration_us", Percentile(calibration_s, 0.5) * 1e6);
    report.Add("memcpy_us", Percentile(copies, 0.5) * 1e6);
    report.Add("memcpy_mean_us", Mean(copies) * 1e6);
}

// Steady state at full speed: per-frame intervals and allocations.
void MeasureSteady(Plugin& plugin, const Mode& mode, long frames, Report& report,
                   std::vector<double>& intervals) {
    Host host;
    host.stamps.assign(static_cast<std::size_t>(frames) + 1, 0);
    plugin.Start(host, mode.id);
    const long warmup = 100;
    host.recordFrom = warmup;
    WaitForFrames(host, warmup + frames + 1, 120.0);
    const double stop = plugin.Stop();
    for (std::size_t i = 1; i < host.stamps.size(); ++i) {
        intervals.push_back(static_cast<double>(host.stamps[i] - host.stamps[i - 1]) * 1e-3);
    }
    report.Add("total_us", Percentile(intervals, 0.5));
    report.Add("total_mean_us", Mean(intervals));
    report.Add("total_p99_us", Percentile(intervals, 0.99));
    report.Add("allocs_per_frame", static_cast<double>(host.allocsAtLast - host.allocsAtFirst) /
                                       static_cast<double>(frames));
    report.Add("results_per_frame",
               static_cast<double>(host.results) / static_cast<double>(host.frames));
    report.Add("stop_fast_ms", stop * 1e3);
}

// Start to first frame, and stop while frames flow, over several cycles.
void MeasureLatencies(Plugin& plugin, const Mode& mode, int cycles, bool paced, Report& report) {
    std::vector<double> first;
    std::vector<double> stop;
    for (int i = 0; i < cycles; ++i) {
        Host host;
        plugin.Start(host, mode.id);
        WaitForFrames(host, paced ? 3 : 50, 30.0);
        first.push_back(static_cast<double>(host.firstFrameNs) * 1e-6);
        if (paced) {
            // Stops at different points of the frame period.
            std::this_thread::sleep_for(std::chrono::microseconds(4000 * (i % 10) + 1000));
        }
        stop.push_back(plugin.Stop() * 1e3);
    }
    report.Add("first_frame_ms", Mean(first));
    report.Add("first_frame_max_ms", *std::max_element(first.begin(), first.end()));
    report.Add("stop_ms", Mean(stop));
    report.Add("stop_max_ms", *std::max_element(stop.begin(), stop.end()));
}

struct ThreadTimes {
    double statSeconds = 0;   // utime + stime of /proc/self/task/<tid>/stat
    double schedSeconds = 0;  // time on a processor, /proc/self/task/<tid>/schedstat
};

ThreadTimes ReadThreadTimes(pid_t tid) {
    ThreadTimes times;
    const std::string base = "/proc/self/task/" + std::to_string(tid);
    if (FILE* file = std::fopen((base + "/stat").c_str(), "r")) {
        char line[1024] = {};
        if (std::fgets(line, sizeof line, file) != nullptr) {
            // Fields after the command's closing parenthesis: state is the
            // 3rd field of the line; utime and stime are the 14th and 15th.
            const char* p = std::strrchr(line, ')');
            unsigned long utime = 0;
            unsigned long stime = 0;
            if (p != nullptr &&
                std::sscanf(p + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &utime,
                            &stime) == 2) {
                times.statSeconds =
                    static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
            }
        }
        std::fclose(file);
    }
    if (FILE* file = std::fopen((base + "/schedstat").c_str(), "r")) {
        unsigned long long ns = 0;
        if (std::fscanf(file, "%llu", &ns) == 1) {
            times.schedSeconds = static_cast<double>(ns) * 1e-9;
        }
        std::fclose(file);
    }
    return times;
}

double ProcessCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto s = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6;
    };
    return s(usage.ru_utime) + s(usage.ru_stime);
}

// 25 frames per second: CPU time of the worker and of the whole process.
void MeasurePaced(Plugin& plugin, const Mode& mode, Report& report) {
    Host host;
    plugin.Start(host, mode.id);
    WaitForFrames(host, 25, 10.0);  // a second of warm-up
    const pid_t tid = host.workerTid;
    const ThreadTimes t0 = ReadThreadTimes(tid);
    const double process0 = ProcessCpuSeconds();
    timespec c0{};
    clock_gettime(host.workerClock, &c0);
    const long frames0 = host.frames;
    const auto w0 = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(10));
    const ThreadTimes t1 = ReadThreadTimes(tid);
    const double process1 = ProcessCpuSeconds();
    timespec c1{};
    clock_gettime(host.workerClock, &c1);
    const long frames1 = host.frames;
    const double wall = Seconds(w0, Clock::now());
    plugin.Stop();
    const double clock = static_cast<double>(c1.tv_sec - c0.tv_sec) +
                         static_cast<double>(c1.tv_nsec - c0.tv_nsec) * 1e-9;
    report.Add("fps", static_cast<double>(frames1 - frames0) / wall);
    report.Add("worker_cpu_percent_stat", (t1.statSeconds - t0.statSeconds) / wall * 100);
    report.Add("worker_cpu_percent_schedstat", (t1.schedSeconds - t0.schedSeconds) / wall * 100);
    report.Add("worker_cpu_percent_clock", clock / wall * 100);
    report.Add("host_cpu_percent", (process1 - process0) / wall * 100);
}

std::string RunConfiguration(const Mode& mode, Size size, bool paced, const Options& options) {
    SetEnvironment(mode, size, paced);
    const StandIns standIns = LoadStandIns();
    Report report;
    report.Add("mode", std::string(mode.name));
    report.Add("size", std::to_string(size.width) + "x" + std::to_string(size.height));
    report.Add("paced", paced ? 1.0 : 0.0);
    if (!options.steadyOnly) {
        MeasureStandIns(standIns, mode, size, report);
    }
    Plugin plugin;
    if (paced) {
        MeasurePaced(plugin, mode, report);
        MeasureLatencies(plugin, mode, 20, true, report);
        return report.Done();
    }
    std::vector<double> intervals;
    MeasureSteady(plugin, mode, options.frames, report, intervals);
    if (!options.steadyOnly) {
        MeasureLatencies(plugin, mode, 10, false, report);
        report.AddArray("frame_us", intervals);
    }
    return report.Done();
}

// Runs a configuration in a child process; returns its JSON object.
std::string InChild(const Mode& mode, Size size, bool paced, const Options& options) {
    int pipeEnds[2];
    if (pipe(pipeEnds) != 0) {
        throw std::runtime_error("pipe failed");
    }
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        close(pipeEnds[0]);
        int code = 0;
        std::string json;
        try {
            json = RunConfiguration(mode, size, paced, options);
        } catch (const std::exception& e) {
            std::fprintf(stderr, "%s %dx%d: %s\n", mode.name, size.width, size.height, e.what());
            code = 1;
        }
        std::size_t written = 0;
        while (written < json.size()) {
            const ssize_t n = write(pipeEnds[1], json.data() + written, json.size() - written);
            if (n <= 0) {
                break;
            }
            written += static_cast<std::size_t>(n);
        }
        close(pipeEnds[1]);
        std::fflush(nullptr);
        _exit(code);
    }
    close(pipeEnds[1]);
    std::string json;
    char buffer[65536];
    ssize_t n = 0;
    while ((n = read(pipeEnds[0], buffer, sizeof buffer)) > 0) {
        json.append(buffer, static_cast<std::size_t>(n));
    }
    close(pipeEnds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || json.empty()) {
        throw std::runtime_error(std::string("configuration failed: ") + mode.name);
    }
    return json;
}

// A number of a flat JSON object written by Report.
double Field(const std::string& json, const char* key) {
    const std::string needle = std::string("\"") + key + "\":";
    const std::size_t at = json.find(needle);
    return at == std::string::npos ? -1 : std::atof(json.c_str() + at + needle.size());
}

void PrintSteady(const std::string& json, const Mode& mode, Size size) {
    const double memcpyUs = Field(json, "memcpy_us");
    const double plugin =
        Field(json, "total_us") - Field(json, "device_us") - Field(json, "calibration_us");
    std::printf(
        "%-13s %4dx%-4d memcpy %5.2f us  device %5.2f  calibration %5.2f  total %6.2f  "
        "plug-in %6.2f us = %5.2f x memcpy  "
        "allocs/frame %.3f  first frame %.2f ms  stop %.3f ms (max %.3f)\n",
        mode.name, size.width, size.height, memcpyUs, Field(json, "device_us"),
        Field(json, "calibration_us"), Field(json, "total_us"), plugin, plugin / memcpyUs,
        Field(json, "allocs_per_frame"), Field(json, "first_frame_ms"), Field(json, "stop_ms"),
        Field(json, "stop_max_ms"));
}

bool Parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](const char* prefix) -> const char* {
            const std::size_t n = std::strlen(prefix);
            return arg.compare(0, n, prefix) == 0 ? argv[i] + n : nullptr;
        };
        if (const char* v = value("--out=")) {
            options.out = v;
        } else if (const char* f = value("--frames=")) {
            options.frames = std::max(10L, std::atol(f));
        } else if (arg == "--steady-only") {
            options.steadyOnly = true;
        } else if (arg == "--no-realtime") {
            options.realtime = false;
        } else if (const char* only = value("--only=")) {
            const std::string text = only;
            const std::size_t at = text.find('@');
            const std::string name = text.substr(0, at);
            for (const Mode& mode : kModes) {
                if (name == mode.name) {
                    options.onlyMode = &mode;
                }
            }
            if (options.onlyMode == nullptr ||
                (at != std::string::npos &&
                 std::sscanf(text.c_str() + at + 1, "%dx%d", &options.onlySize.width,
                             &options.onlySize.height) != 2)) {
                return false;
            }
        } else {
            return false;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!Parse(argc, argv, options)) {
        std::fprintf(stderr,
                     "usage: %s [--out=FILE] [--frames=N] [--only=MODE@WxH] [--steady-only] "
                     "[--no-realtime]\n",
                     argv[0]);
        return 2;
    }
    try {
        if (options.onlyMode != nullptr) {
            const std::string json =
                RunConfiguration(*options.onlyMode, options.onlySize, false, options);
            std::printf("%s\n", options.steadyOnly ? json.c_str() : "");
            if (!options.steadyOnly) {
                PrintSteady(json, *options.onlyMode, options.onlySize);
            }
            return 0;
        }
        std::string all = "{\"build_type\":\"" KR7_BUILD_TYPE "\",\"configurations\":[";
        bool firstEntry = true;
        for (const Size size : kSizes) {
            for (const Mode& mode : kModes) {
                const std::string json = InChild(mode, size, false, options);
                PrintSteady(json, mode, size);
                all += (firstEntry ? "" : ",") + json;
                firstEntry = false;
            }
        }
        if (options.realtime) {
            const std::string json = InChild(kModes[0], kSizes[0], true, options);
            std::printf(
                "live at 25 fps (%.1f fps): worker %.3f %% of a core (/proc stat %.1f %%, "
                "schedstat %.3f %%), process %.3f %%; first frame %.2f ms (max %.2f), "
                "stop %.2f ms (max %.2f)\n",
                Field(json, "fps"), Field(json, "worker_cpu_percent_clock"),
                Field(json, "worker_cpu_percent_stat"), Field(json, "worker_cpu_percent_schedstat"),
                Field(json, "host_cpu_percent"), Field(json, "first_frame_ms"),
                Field(json, "first_frame_max_ms"), Field(json, "stop_ms"),
                Field(json, "stop_max_ms"));
            all += "," + json;
        }
        all += "]}\n";
        if (!options.out.empty()) {
            FILE* file = std::fopen(options.out.c_str(), "w");
            if (file == nullptr) {
                std::perror(options.out.c_str());
                return 1;
            }
            std::fputs(all.c_str(), file);
            std::fclose(file);
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_plugin_end_to_end: %s\n", e.what());
        return 1;
    }
    return 0;
}
