// The plug-in end to end, loaded the way a host loads it, through kr7host:
// dlopen of the built libnorvakkr7fg.so.1, GetFrameGrabber, Initizalize and
// a kr7host::Capture whose handler runs on the worker thread, on the image as
// the plug-in lent it. kr7host preloads the stand-ins by their full build
// paths (RTLD_NOW | RTLD_GLOBAL), so that the plug-in's loads by bare name
// reuse them. The scanner hands out one pre-rendered frame per call
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
// - total_us: the interval between two frames at the host's image handler
//   while the plug-in captures at full speed (steady state);
// - plugin_us = total_us - device_us - calibration_us, and its ratio to
//   memcpy_us (all medians over the samples);
// - allocs_per_frame: heap allocations of the whole process per frame in
//   the steady state (counted by the replaced operator new of
//   support/allocation_count.cpp; the plug-in and the stand-ins use it too);
// - first_frame_ms and stop_ms: StartCapture to the first image handler call,
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
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <norvakkr7fg/framegrabber.h>

#include "kr7host/capture.h"
#include "kr7host/plugin.h"
#include "support/allocation_count.h"
#include "support/in_child.h"

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

// A function of a stand-in, which kr7host has loaded into the global scope.
template <class Fn>
Fn Symbol(const char* name) {
    void* symbol = dlsym(RTLD_DEFAULT, name);
    if (symbol == nullptr) {
        throw std::runtime_error(std::string("missing symbol ") + name);
    }
    return reinterpret_cast<Fn>(symbol);
}

// The stand-ins from the build tree, then the built plug-in or the one
// KR7_BENCH_PLUGIN names.
kr7host::Options Files() {
    kr7host::Options files;
    files.virtualScanner = true;
    files.simFolder = KR7_BENCH_SIM_DIR;
    const char* other = std::getenv("KR7_BENCH_PLUGIN");
    files.plugin = other != nullptr ? other : KR7_PLUGIN_PATH;
    return files;
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

// One capture and what its handler sees, on the worker thread. A frame
// starts at the image that lies where the capture's first one lay (in
// plain-finger mode a second image per frame carries the detector's result).
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

    // Last, so that it is destroyed first.
    kr7host::Capture capture;

    Host(kr7host::Grabber& grabber, vc::eCaptureModeIDs mode)
        : capture(grabber, {1, mode}, [this](const kr7host::Delivery& d) { Deliver(d); }) {}

    // StartCapture; a mode the plug-in does not list (rolled) captures all
    // the same.
    void Start() {
        started = Clock::now();
        capture.Start();
    }
    // StopCapture; its duration in seconds.
    double Stop() {
        const auto t0 = Clock::now();
        capture.Stop();
        return Seconds(t0, Clock::now());
    }

    void Deliver(const kr7host::Delivery& delivery) {
        switch (delivery.kind) {
            case kr7host::Kind::Image:
                if (delivery.image.Valid()) {
                    OnImage(delivery.image.Row(0));
                } else {
                    std::fprintf(stderr, "plug-in image is no 8-bit bitmap\n");
                    failed = true;
                }
                break;
            case kr7host::Kind::Result:
                ++results;
                break;
            case kr7host::Kind::Error:
                std::fprintf(stderr, "plug-in error: %s\n",
                             delivery.text ? delivery.text : "(null)");
                failed = true;
                break;
            case kr7host::Kind::Warning:
                std::fprintf(stderr, "plug-in warning: %s\n",
                             delivery.text ? delivery.text : "(null)");
                break;
            default:
                break;
        }
    }

    // `top` is the image's top row: the same place in the frame's first image.
    void OnImage(const unsigned char* top) {
        const unsigned char* expected = nullptr;
        if (!first.compare_exchange_strong(expected, top) && expected != top) {
            return;  // not the frame's first image
        }
        const long long now =
            std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - started).count();
        const long frame = frames.load(std::memory_order_relaxed);
        if (frame == 0) {
            firstFrameNs = now;
            workerTid = static_cast<pid_t>(syscall(SYS_gettid));
            if (!haveClock && pthread_getcpuclockid(pthread_self(), &workerClock) == 0) {
                haveClock = true;
            }
        }
        const long from = recordFrom.load();
        if (from >= 0 && frame >= from) {
            const auto index = static_cast<std::size_t>(frame - from);
            if (index < stamps.size()) {
                stamps[index] = now;
                if (index == 0) {
                    allocsAtFirst = kr7bench::AllocationCount();
                }
                if (index + 1 == stamps.size()) {
                    allocsAtLast = kr7bench::AllocationCount();
                }
            }
        }
        frames.store(frame + 1);
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

// ---- one configuration ----------------------------------------------------

// Everything of one configuration, as a JSON object whose keys keep their
// order.
using kr7bench::Field;
using kr7bench::Report;

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
void MeasureStandIns(const Mode& mode, Size size, Report& report) {
    const auto open = Symbol<OpenFn>("ftrScanOpenDevice");
    const auto close = Symbol<CloseFn>("ftrScanCloseDevice");
    const auto dose = Symbol<DoseFn>("ftrScanGetImageByVariableDose");
    const auto present = Symbol<PresentFn>("ftrScanIsFingerPresent");
    const auto extSize = Symbol<ExtSizeFn>("ftrScanGetExtMemorySize");
    const auto extRead = Symbol<ExtReadFn>("ftrScanRestoreExtMemory");
    const auto calCreate = Symbol<CalCreateFn>("CalibrateCreate");
    const auto calDelete = Symbol<CalDeleteFn>("CalibrateDelete");
    const auto calSet = Symbol<CalSetFn>("CalibrateSetData");
    const auto calibrate = Symbol<CalFn>("Calibrate");

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

    report["device_us"] = Percentile(device_s, 0.5) * 1e6;
    report["calibration_us"] = Percentile(calibration_s, 0.5) * 1e6;
    report["memcpy_us"] = Percentile(copies, 0.5) * 1e6;
    report["memcpy_mean_us"] = Mean(copies) * 1e6;
}

// Steady state at full speed: per-frame intervals and allocations.
void MeasureSteady(kr7host::Grabber& grabber, const Mode& mode, long frames, Report& report,
                   std::vector<double>& intervals) {
    Host host(grabber, mode.id);
    host.stamps.assign(static_cast<std::size_t>(frames) + 1, 0);
    host.Start();
    const long warmup = 100;
    host.recordFrom = warmup;
    WaitForFrames(host, warmup + frames + 1, 120.0);
    const double stop = host.Stop();
    for (std::size_t i = 1; i < host.stamps.size(); ++i) {
        intervals.push_back(static_cast<double>(host.stamps[i] - host.stamps[i - 1]) * 1e-3);
    }
    report["total_us"] = Percentile(intervals, 0.5);
    report["total_mean_us"] = Mean(intervals);
    report["total_p99_us"] = Percentile(intervals, 0.99);
    report["allocs_per_frame"] =
        static_cast<double>(host.allocsAtLast - host.allocsAtFirst) / static_cast<double>(frames);
    report["results_per_frame"] =
        static_cast<double>(host.results) / static_cast<double>(host.frames);
    report["stop_fast_ms"] = stop * 1e3;
}

// Start to first frame, and stop while frames flow, over several cycles.
void MeasureLatencies(kr7host::Grabber& grabber, const Mode& mode, int cycles, bool paced,
                      Report& report) {
    std::vector<double> first;
    std::vector<double> stop;
    for (int i = 0; i < cycles; ++i) {
        Host host(grabber, mode.id);
        host.Start();
        WaitForFrames(host, paced ? 3 : 50, 30.0);
        first.push_back(static_cast<double>(host.firstFrameNs) * 1e-6);
        if (paced) {
            // Stops at different points of the frame period.
            std::this_thread::sleep_for(std::chrono::microseconds(4000 * (i % 10) + 1000));
        }
        stop.push_back(host.Stop() * 1e3);
    }
    report["first_frame_ms"] = Mean(first);
    report["first_frame_max_ms"] = *std::max_element(first.begin(), first.end());
    report["stop_ms"] = Mean(stop);
    report["stop_max_ms"] = *std::max_element(stop.begin(), stop.end());
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
void MeasurePaced(kr7host::Grabber& grabber, const Mode& mode, Report& report) {
    Host host(grabber, mode.id);
    host.Start();
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
    host.Stop();
    const double clock = static_cast<double>(c1.tv_sec - c0.tv_sec) +
                         static_cast<double>(c1.tv_nsec - c0.tv_nsec) * 1e-9;
    report["fps"] = static_cast<double>(frames1 - frames0) / wall;
    report["worker_cpu_percent_stat"] = (t1.statSeconds - t0.statSeconds) / wall * 100;
    report["worker_cpu_percent_schedstat"] = (t1.schedSeconds - t0.schedSeconds) / wall * 100;
    report["worker_cpu_percent_clock"] = clock / wall * 100;
    report["host_cpu_percent"] = (process1 - process0) / wall * 100;
}

Report RunConfiguration(const Mode& mode, Size size, bool paced, const Options& options) {
    SetEnvironment(mode, size, paced);
    const kr7host::Library files(Files());
    Report report;
    report["mode"] = mode.name;
    report["size"] = std::to_string(size.width) + "x" + std::to_string(size.height);
    report["paced"] = paced ? 1 : 0;
    if (!options.steadyOnly) {
        MeasureStandIns(mode, size, report);
    }
    kr7host::Grabber grabber(files);
    if (paced) {
        MeasurePaced(grabber, mode, report);
        MeasureLatencies(grabber, mode, 20, true, report);
        return report;
    }
    std::vector<double> intervals;
    MeasureSteady(grabber, mode, options.frames, report, intervals);
    if (!options.steadyOnly) {
        MeasureLatencies(grabber, mode, 10, false, report);
        report["frame_us"] = intervals;
    }
    return report;
}

// Runs a configuration in a child process; returns its JSON object.
Report InChild(const Mode& mode, Size size, bool paced, const Options& options) {
    const std::string label = std::string(mode.name) + " " + std::to_string(size.width) + "x" +
                              std::to_string(size.height);
    return kr7bench::InChild(label, [&] { return RunConfiguration(mode, size, paced, options); });
}

void PrintSteady(const Report& json, const Mode& mode, Size size) {
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
            const Report json =
                RunConfiguration(*options.onlyMode, options.onlySize, false, options);
            std::printf("%s\n", options.steadyOnly ? json.dump().c_str() : "");
            if (!options.steadyOnly) {
                PrintSteady(json, *options.onlyMode, options.onlySize);
            }
            return 0;
        }
        Report all = {{"build_type", KR7_BUILD_TYPE}, {"configurations", Report::array()}};
        for (const Size size : kSizes) {
            for (const Mode& mode : kModes) {
                Report json = InChild(mode, size, false, options);
                PrintSteady(json, mode, size);
                all["configurations"].push_back(std::move(json));
            }
        }
        if (options.realtime) {
            Report json = InChild(kModes[0], kSizes[0], true, options);
            std::printf(
                "live at 25 fps (%.1f fps): worker %.3f %% of a core (/proc stat %.1f %%, "
                "schedstat %.3f %%), process %.3f %%; first frame %.2f ms (max %.2f), "
                "stop %.2f ms (max %.2f)\n",
                Field(json, "fps"), Field(json, "worker_cpu_percent_clock"),
                Field(json, "worker_cpu_percent_stat"), Field(json, "worker_cpu_percent_schedstat"),
                Field(json, "host_cpu_percent"), Field(json, "first_frame_ms"),
                Field(json, "first_frame_max_ms"), Field(json, "stop_ms"),
                Field(json, "stop_max_ms"));
            all["configurations"].push_back(std::move(json));
        }
        if (!options.out.empty() && !kr7bench::WriteReport(options.out, all)) {
            return 1;
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_plugin_end_to_end: %s\n", e.what());
        return 1;
    }
    return 0;
}
