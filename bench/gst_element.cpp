// kr7src, the GStreamer source element, against the plug-in alone: what the
// element adds to each frame, and what it costs at the scanner's pace.
//
// Each configuration (capture mode x frame size) runs in a child process of
// its own (the scanner stand-in reads its settings once per process), with
// KR7SIM_FIXED_FRAME=1 and KR7SIM_CAL_COPY=1 as in bench_plugin_end_to_end,
// so that the plug-in captures at full speed. In the same run, twice each,
// interleaved:
// - plugin: the plug-in alone, loaded through kr7host, a kr7host::Capture
//   whose handler only notes the time of each frame (its first image) on
//   the worker thread: the interval between frames (median) and the
//   process's CPU time and heap allocations per frame;
// - element: "kr7src ! fakesink sync=false" with the same plug-in and
//   stand-ins; the interval between frames from the buffers' timestamps
//   (the arrival of the frame on the worker, so the element's work on the
//   worker thread is in it) over consecutive offsets, and the process's CPU
//   time (the streaming thread and fakesink included) and allocations per
//   frame, read in a probe on the element's pad;
// - memcpy: a memcpy of the element's frame (width x height bytes of the
//   calibrated frame), timed between the runs, the floor of the ratios.
// The element's own cost per frame is element - plugin, on the worker (the
// interval) and in all (CPU time), each also as a ratio to the memcpy.
// Allocations are counted by replacing malloc and its kin for the whole
// process (support/malloc_count.cpp) with G_SLICE=always-malloc, so that
// GLib's and GStreamer's allocations count too.
//
// One more child runs live 320x480 at the scanner's pace (KR7SIM_REALTIME=1)
// for 10 s each: the plug-in alone, then through kr7src ! fakesink; the
// process's CPU time and that of the element's streaming thread (the task
// of its pad, named "src:src" after the element), as a share of one core.
//
// Usage: bench_gst_element [--out=FILE] [--frames=N] [--no-realtime]
#include <gst/gst.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <dirent.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <norvakkr7fg/framegrabber.h>

#include "kr7host/capture.h"
#include "kr7host/plugin.h"
#include "support/in_child.h"
#include "support/malloc_count.h"

namespace {

using Clock = std::chrono::steady_clock;
using kr7bench::Field;
using kr7bench::InChild;
using kr7bench::Report;

struct Mode {
    const char* name;  // as kr7src's mode property takes it, or "plain-finger"
    const char* property;
    vc::eCaptureModeIDs id;
    const char* scenario;
};

const Mode kModes[] = {
    {"live", "live", vc::eCaptureLive, "empty 1s; repeat"},
    {"plain", "plain", vc::eCapturePlainFinger, "empty 1s; repeat"},
    {"plain-finger", "plain", vc::eCapturePlainFinger, "place 0.2s; hold 3600s"},
};

struct Size {
    int width;
    int height;
};

const Size kSizes[] = {{320, 480}, {640, 480}};

struct Options {
    std::string out;
    long frames = 3000;
    bool realtime = true;
};

constexpr long kWarmup = 100;

double Percentile(std::vector<double> v, double p) {
    if (v.empty()) {
        return 0;
    }
    std::sort(v.begin(), v.end());
    return v[static_cast<std::size_t>(p * static_cast<double>(v.size() - 1) + 0.5)];
}

double ProcessCpu() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

double MonotonicNow() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

void Touch(const void* p) {
    asm volatile("" : : "r"(p) : "memory");
}

// Median time of a memcpy of `bytes` bytes, in µs.
double MemcpyUs(std::size_t bytes) {
    std::vector<unsigned char> from(bytes, 0x5A), to(bytes);
    std::vector<double> times;
    for (int i = 0; i < 300; ++i) {
        const double t0 = MonotonicNow();
        std::memcpy(to.data(), from.data(), bytes);
        Touch(to.data());
        times.push_back((MonotonicNow() - t0) * 1e6);
    }
    return Percentile(times, 0.5);
}

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
    setenv("KR7_SIM_DIR", KR7_BENCH_SIM_DIR, 1);
    // GStreamer: the element of this build, a registry of its own, and
    // GLib's slices from malloc so that they are counted.
    setenv("GST_PLUGIN_PATH", KR7_BENCH_ELEMENT_DIR, 1);
    setenv("GST_REGISTRY", KR7_BENCH_REGISTRY, 1);
    setenv("G_SLICE", "always-malloc", 1);
}

// What one steady run measured.
struct Steady {
    std::vector<double> intervalsUs;
    double cpuPerFrameUs = 0;
    double allocsPerFrame = 0;
    long dropped = 0;
    int width = 0;
    int height = 0;
};

// ---- the plug-in alone ----------------------------------------------------------

struct Host {
    std::atomic<const unsigned char*> first{nullptr};
    std::atomic<long> frames{0};
    std::atomic<bool> failed{false};
    std::vector<double> stamps;  // s, frames [kWarmup, kWarmup + stamps.size())
    double cpu0 = 0, cpu1 = 0;
    unsigned long long allocs0 = 0, allocs1 = 0;
    int width = 0, height = 0;
    kr7host::Capture capture;

    Host(kr7host::Grabber& grabber, vc::eCaptureModeIDs mode)
        : capture(grabber, {1, mode}, [this](const kr7host::Delivery& d) { Deliver(d); }) {}

    void Deliver(const kr7host::Delivery& d) {
        if (d.kind == kr7host::Kind::Error) {
            std::fprintf(stderr, "plug-in error: %s\n", d.text != nullptr ? d.text : "");
            failed = true;
            return;
        }
        if (d.kind != kr7host::Kind::Image || !d.image.Valid()) {
            return;
        }
        const unsigned char* top = d.image.Row(0);
        const unsigned char* expected = nullptr;
        if (!first.compare_exchange_strong(expected, top) && expected != top) {
            return;  // not the frame's first image
        }
        const long frame = frames.load();
        if (frame == 0) {
            width = d.image.Width();
            height = d.image.Height();
        }
        const long index = frame - kWarmup;
        if (index >= 0 && index < static_cast<long>(stamps.size())) {
            stamps[static_cast<std::size_t>(index)] = MonotonicNow();
            if (index == 0) {
                cpu0 = ProcessCpu();
                allocs0 = kr7bench::MallocCount();
            } else if (index + 1 == static_cast<long>(stamps.size())) {
                cpu1 = ProcessCpu();
                allocs1 = kr7bench::MallocCount();
            }
        }
        frames.store(frame + 1);
    }
};

kr7host::Options Files() {
    kr7host::Options files;
    files.virtualScanner = true;
    files.simFolder = KR7_BENCH_SIM_DIR;
    files.plugin = KR7_PLUGIN_PATH;
    return files;
}

Steady PluginAlone(const Mode& mode, long frames) {
    const kr7host::Library files(Files());
    kr7host::Grabber grabber(files);
    Steady steady;
    {
        Host host(grabber, mode.id);
        host.stamps.assign(static_cast<std::size_t>(frames) + 1, 0);
        host.capture.Start();
        const auto deadline = Clock::now() + std::chrono::minutes(2);
        while (host.frames.load() < kWarmup + frames + 1) {
            if (host.failed || Clock::now() > deadline) {
                throw std::runtime_error("the plug-in's frames do not come");
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        host.capture.Stop();
        for (std::size_t i = 1; i < host.stamps.size(); ++i) {
            steady.intervalsUs.push_back((host.stamps[i] - host.stamps[i - 1]) * 1e6);
        }
        steady.cpuPerFrameUs = (host.cpu1 - host.cpu0) / static_cast<double>(frames) * 1e6;
        steady.allocsPerFrame =
            static_cast<double>(host.allocs1 - host.allocs0) / static_cast<double>(frames);
        steady.width = host.width;
        steady.height = host.height;
    }
    return steady;
}

// ---- through the element ------------------------------------------------------------

struct Probe {
    long frames = 0;  // wanted after the warm-up
    long seen = 0;
    std::vector<std::pair<guint64, GstClockTime>> stamps;  // offset, pts
    double cpu0 = 0, cpu1 = 0;
    unsigned long long allocs0 = 0, allocs1 = 0;
};

GstPadProbeReturn OnBuffer(GstPad*, GstPadProbeInfo* info, gpointer user) {
    auto* probe = static_cast<Probe*>(user);
    const GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
    const long index = probe->seen++ - kWarmup;
    if (index >= 0 && index <= probe->frames) {
        probe->stamps.emplace_back(GST_BUFFER_OFFSET(buffer), GST_BUFFER_PTS(buffer));
        if (index == 0) {
            probe->cpu0 = ProcessCpu();
            probe->allocs0 = kr7bench::MallocCount();
        } else if (index == probe->frames) {
            probe->cpu1 = ProcessCpu();
            probe->allocs1 = kr7bench::MallocCount();
        }
    }
    return GST_PAD_PROBE_OK;
}

std::string Pipeline(const Mode& mode, long buffers) {
    return std::string("kr7src name=src virtual=true plugin=") + KR7_PLUGIN_PATH +
           " mode=" + mode.property + " num-buffers=" + std::to_string(buffers) +
           " ! fakesink sync=false";
}

// Plays `pipeline` until EOS (an error throws), then stops it.
void Run(GstElement* pipeline) {
    if (gst_element_set_state(pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        throw std::runtime_error("kr7src does not start");
    }
    GstBus* bus = gst_element_get_bus(pipeline);
    const GstClockTime timeout = 300 * GST_SECOND;
    GstMessage* message = gst_bus_timed_pop_filtered(
        bus, timeout, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    std::string failure;
    if (message != nullptr && GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
        GError* error = nullptr;
        gst_message_parse_error(message, &error, nullptr);
        failure = error != nullptr ? error->message : "error";
        g_clear_error(&error);
    } else if (message == nullptr) {
        failure = "no EOS";
    }
    if (message != nullptr) {
        gst_message_unref(message);
    }
    gst_object_unref(bus);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    if (!failure.empty()) {
        throw std::runtime_error("kr7src: " + failure);
    }
}

Steady Element(const Mode& mode, long frames) {
    GError* error = nullptr;
    GstElement* pipeline = gst_parse_launch(Pipeline(mode, kWarmup + frames + 1).c_str(), &error);
    if (error != nullptr) {
        const std::string text = error->message;
        g_error_free(error);
        throw std::runtime_error(text);
    }
    Probe probe;
    probe.frames = frames;
    probe.stamps.reserve(static_cast<std::size_t>(frames) + 1);
    GstElement* source = gst_bin_get_by_name(GST_BIN(pipeline), "src");
    GstPad* pad = gst_element_get_static_pad(source, "src");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, OnBuffer, &probe, nullptr);
    Run(pipeline);
    Steady steady;
    guint64 dropped = 0;
    g_object_get(source, "frames-dropped", &dropped, nullptr);
    steady.dropped = static_cast<long>(dropped);
    gst_object_unref(pad);
    gst_object_unref(source);
    gst_object_unref(pipeline);
    // Intervals between frames that followed each other (a frame dropped
    // leaves a gap in the offsets).
    for (std::size_t i = 1; i < probe.stamps.size(); ++i) {
        if (probe.stamps[i].first == probe.stamps[i - 1].first + 1) {
            steady.intervalsUs.push_back(
                static_cast<double>(probe.stamps[i].second - probe.stamps[i - 1].second) / 1e3);
        }
    }
    steady.cpuPerFrameUs = (probe.cpu1 - probe.cpu0) / static_cast<double>(frames) * 1e6;
    steady.allocsPerFrame =
        static_cast<double>(probe.allocs1 - probe.allocs0) / static_cast<double>(frames);
    return steady;
}

Report RunConfiguration(const Mode& mode, Size size, long frames) {
    SetEnvironment(mode, size, false);
    gst_init(nullptr, nullptr);
    Report report;
    report["mode"] = mode.name;
    report["size"] = std::to_string(size.width) + "x" + std::to_string(size.height);
    std::vector<double> plugin, element, copies;
    double pluginCpu = 1e300, elementCpu = 1e300, pluginAllocs = 0, elementAllocs = 0;
    long dropped = 0;
    int width = 0, height = 0;
    for (int round = 0; round < 2; ++round) {
        Steady alone = PluginAlone(mode, frames);
        width = alone.width;
        height = alone.height;
        copies.push_back(MemcpyUs(static_cast<std::size_t>(width) * height));
        Steady through = Element(mode, frames);
        copies.push_back(MemcpyUs(static_cast<std::size_t>(width) * height));
        plugin.insert(plugin.end(), alone.intervalsUs.begin(), alone.intervalsUs.end());
        element.insert(element.end(), through.intervalsUs.begin(), through.intervalsUs.end());
        // The lower of the two runs: the machine's noise only adds.
        pluginCpu = std::min(pluginCpu, alone.cpuPerFrameUs);
        elementCpu = std::min(elementCpu, through.cpuPerFrameUs);
        pluginAllocs = std::max(pluginAllocs, alone.allocsPerFrame);
        elementAllocs = std::max(elementAllocs, through.allocsPerFrame);
        dropped += through.dropped;
    }
    const double memcpyUs = Percentile(copies, 0.5);
    const double pluginUs = Percentile(plugin, 0.5);
    const double elementUs = Percentile(element, 0.5);
    report["frame"] = std::to_string(width) + "x" + std::to_string(height);
    report["memcpy_us"] = memcpyUs;
    report["plugin_us"] = pluginUs;
    report["element_us"] = elementUs;
    report["extra_us"] = elementUs - pluginUs;
    report["extra_x_memcpy"] = (elementUs - pluginUs) / memcpyUs;
    report["plugin_p90_us"] = Percentile(plugin, 0.9);
    report["element_p90_us"] = Percentile(element, 0.9);
    report["plugin_cpu_us"] = pluginCpu;
    report["element_cpu_us"] = elementCpu;
    report["extra_cpu_us"] = elementCpu - pluginCpu;
    report["extra_cpu_x_memcpy"] = (elementCpu - pluginCpu) / memcpyUs;
    report["plugin_allocs_per_frame"] = pluginAllocs;
    report["element_allocs_per_frame"] = elementAllocs;
    report["dropped"] = dropped;
    return report;
}

// ---- at the scanner's pace --------------------------------------------------------------

// CPU seconds of this process's thread named `name`; 0 when none is.
double ThreadCpu(const char* name) {
    double seconds = 0;
    DIR* dir = opendir("/proc/self/task");
    if (dir == nullptr) {
        return 0;
    }
    while (const dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        const std::string base = std::string("/proc/self/task/") + entry->d_name;
        std::ifstream comm(base + "/comm");
        std::string line;
        std::getline(comm, line);
        if (line != name) {
            continue;
        }
        std::ifstream schedstat(base + "/schedstat");
        unsigned long long ns = 0;
        if (schedstat >> ns) {
            seconds += static_cast<double>(ns) * 1e-9;
        }
    }
    closedir(dir);
    return seconds;
}

Report RunPaced() {
    const Mode& mode = kModes[0];
    SetEnvironment(mode, kSizes[0], true);
    gst_init(nullptr, nullptr);
    constexpr double kSeconds = 10;
    Report report;
    report["mode"] = "live";
    report["size"] = "320x480";
    report["paced"] = 1;
    {
        const kr7host::Library files(Files());
        kr7host::Grabber grabber(files);
        Host host(grabber, mode.id);
        host.capture.Start();
        std::this_thread::sleep_for(std::chrono::seconds(1));
        const long frames0 = host.frames;
        const double cpu0 = ProcessCpu(), wall0 = MonotonicNow();
        std::this_thread::sleep_for(std::chrono::duration<double>(kSeconds));
        const double cpu1 = ProcessCpu(), wall1 = MonotonicNow();
        const long frames1 = host.frames;
        host.capture.Stop();
        report["plugin_fps"] = static_cast<double>(frames1 - frames0) / (wall1 - wall0);
        report["plugin_cpu_percent"] = (cpu1 - cpu0) / (wall1 - wall0) * 100;
    }
    GError* error = nullptr;
    GstElement* pipeline = gst_parse_launch(Pipeline(mode, -1).c_str(), &error);
    if (error != nullptr) {
        g_error_free(error);
        throw std::runtime_error("pipeline");
    }
    Probe probe;
    probe.frames = 1 << 20;
    probe.stamps.reserve(1000);
    GstElement* source = gst_bin_get_by_name(GST_BIN(pipeline), "src");
    GstPad* pad = gst_element_get_static_pad(source, "src");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, OnBuffer, &probe, nullptr);
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const double cpu0 = ProcessCpu(), wall0 = MonotonicNow(), thread0 = ThreadCpu("src:src");
    const long seen0 = probe.seen;
    std::this_thread::sleep_for(std::chrono::duration<double>(kSeconds));
    const double cpu1 = ProcessCpu(), wall1 = MonotonicNow(), thread1 = ThreadCpu("src:src");
    const long seen1 = probe.seen;
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pad);
    gst_object_unref(source);
    gst_object_unref(pipeline);
    const double wall = wall1 - wall0;
    report["element_fps"] = static_cast<double>(seen1 - seen0) / wall;
    report["element_cpu_percent"] = (cpu1 - cpu0) / wall * 100;
    report["streaming_thread_cpu_percent"] = (thread1 - thread0) / wall * 100;
    report["extra_cpu_percent"] =
        report["element_cpu_percent"].get<double>() - report["plugin_cpu_percent"].get<double>();
    return report;
}

bool Parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.rfind("--out=", 0) == 0) {
            options.out = arg.substr(6);
        } else if (arg.rfind("--frames=", 0) == 0) {
            options.frames = std::max(10L, std::atol(arg.c_str() + 9));
        } else if (arg == "--no-realtime") {
            options.realtime = false;
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
        std::fprintf(stderr, "usage: %s [--out=FILE] [--frames=N] [--no-realtime]\n", argv[0]);
        return 2;
    }
    try {
        Report all = {{"build_type", KR7_BUILD_TYPE}, {"configurations", Report::array()}};
        for (const Size size : kSizes) {
            for (const Mode& mode : kModes) {
                const std::string label = std::string(mode.name) + "@" +
                                          std::to_string(size.width) + "x" +
                                          std::to_string(size.height);
                Report json =
                    InChild(label, [&] { return RunConfiguration(mode, size, options.frames); });
                std::printf(
                    "%-13s %4dx%-4d memcpy %5.2f us  plug-in %6.2f us/frame, through kr7src "
                    "%6.2f: +%5.2f us = %5.2f x memcpy on the worker; CPU/frame %6.2f -> %6.2f "
                    "us: +%6.2f = %5.2f x memcpy; allocs/frame %.3f -> %.3f; dropped %ld\n",
                    mode.name, size.width, size.height, Field(json, "memcpy_us"),
                    Field(json, "plugin_us"), Field(json, "element_us"), Field(json, "extra_us"),
                    Field(json, "extra_x_memcpy"), Field(json, "plugin_cpu_us"),
                    Field(json, "element_cpu_us"), Field(json, "extra_cpu_us"),
                    Field(json, "extra_cpu_x_memcpy"), Field(json, "plugin_allocs_per_frame"),
                    Field(json, "element_allocs_per_frame"), json.value("dropped", -1L));
                std::fflush(stdout);
                all["configurations"].push_back(std::move(json));
            }
        }
        if (options.realtime) {
            Report json = InChild("paced", [] { return RunPaced(); });
            std::printf(
                "live at 25 fps: plug-in alone %.1f fps, process %.3f %% of a core; through "
                "kr7src %.1f fps, process %.3f %% (streaming thread %.3f %%): +%.3f %%\n",
                Field(json, "plugin_fps"), Field(json, "plugin_cpu_percent"),
                Field(json, "element_fps"), Field(json, "element_cpu_percent"),
                Field(json, "streaming_thread_cpu_percent"), Field(json, "extra_cpu_percent"));
            all["configurations"].push_back(std::move(json));
        }
        if (!options.out.empty() && !kr7bench::WriteReport(options.out, all)) {
            return 1;
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bench_gst_element: %s\n", e.what());
        return 1;
    }
    return 0;
}
