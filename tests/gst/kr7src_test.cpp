// kr7src, the GStreamer source element, against the virtual scanner: through
// GstHarness (gstreamer-check) and through pipelines ending in appsink, with
// the element found in the build tree by GStreamer's registry
// (GST_PLUGIN_PATH and GST_REGISTRY are set by CTest). Each case runs as a
// CTest test of its own: the virtual scanner reads its settings once per
// process.
#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "handover.h"
#include "kr7host/capture.h"
#include "kr7host/image.h"
#include "kr7host/plugin.h"
#include "process_state.h"

#if defined(KR7_TEST_LSAN)
#include <sanitizer/lsan_interface.h>
#endif

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// The element on the virtual scanner of this build, with the plug-in of
// this build.
const std::string kSource = std::string("kr7src virtual=true plugin=") + KR7_PLUGIN_PATH;

// Three placements of three fingers, then an empty platen for good.
constexpr const char* kThreePlacements =
    "empty 0.3s; place; hold 1s; lift 0.5s; place finger=2; hold 1s; lift 0.5s; "
    "place finger=3; hold 1s; lift 0.5s; empty 600s";

// The virtual scanner's settings for this process: read at its first call.
void Scanner(const std::string& scenario, bool realtime = false) {
    setenv("KR7SIM_SCENARIO", scenario.c_str(), 1);
    setenv("KR7_SIM_DIR", KR7_SIM_LIB, 1);
    if (realtime) {
        setenv("KR7SIM_REALTIME", "1", 1);
    } else {
        unsetenv("KR7SIM_REALTIME");
    }
    for (const char* name : {"KR7SIM_UNITS", "KR7SIM_FAULTS", "KR7SIM_FIXED_FRAME",
                             "KR7SIM_CAL_COPY", "KR7SIM_JOURNAL"}) {
        unsetenv(name);
    }
}

kr7host::Options HostFiles() {
    kr7host::Options files;
    files.plugin = KR7_PLUGIN_PATH;
    files.virtualScanner = true;
    files.simFolder = KR7_SIM_LIB;
    return files;
}

// ---- GStreamer helpers -------------------------------------------------------------

template <class T>
struct Unref {
    void operator()(T* object) const { gst_object_unref(object); }
};
using ElementPtr = std::unique_ptr<GstElement, Unref<GstElement>>;

struct MessageUnref {
    void operator()(GstMessage* message) const { gst_message_unref(message); }
};
using MessagePtr = std::unique_ptr<GstMessage, MessageUnref>;

struct SampleUnref {
    void operator()(GstSample* sample) const { gst_sample_unref(sample); }
};
using SamplePtr = std::unique_ptr<GstSample, SampleUnref>;

// A frame as a buffer carries it: rows copied without their padding.
struct Frame {
    int width = 0;
    int height = 0;
    GstClockTime pts = GST_CLOCK_TIME_NONE;
    guint64 offset = GST_BUFFER_OFFSET_NONE;
    std::vector<std::uint8_t> pixels;

    bool Same(const kr7host::Image& image) const {
        return image.width == width && image.height == height && image.pixels == pixels;
    }
};

// A reader in this (perhaps instrumented) program: GStreamer hands the
// buffer over where ThreadSanitizer does not see it (gst/handover.h).
Frame Read(GstBuffer* buffer, int width, int height) {
    kr7gst::Acquire(buffer);
    struct Done {
        GstBuffer* buffer;
        ~Done() { kr7gst::Release(buffer); }
    } done{buffer};
    Frame frame;
    frame.width = width;
    frame.height = height;
    frame.pts = GST_BUFFER_PTS(buffer);
    frame.offset = GST_BUFFER_OFFSET(buffer);
    const std::size_t stride = GST_ROUND_UP_4(static_cast<std::size_t>(width));
    GstMapInfo map;
    if (!gst_buffer_map(buffer, &map, GST_MAP_READ)) {
        ADD_FAILURE() << "buffer not readable";
        return frame;
    }
    EXPECT_EQ(stride * static_cast<std::size_t>(height), map.size);
    if (map.size >= stride * static_cast<std::size_t>(height)) {
        for (int y = 0; y < height; ++y) {
            const guint8* row = map.data + stride * static_cast<std::size_t>(y);
            frame.pixels.insert(frame.pixels.end(), row, row + width);
        }
    }
    gst_buffer_unmap(buffer, &map);
    return frame;
}

// A buffer's offset and timestamp, read as Read reads the rest.
std::pair<guint64, GstClockTime> Stamp(GstBuffer* buffer) {
    kr7gst::Acquire(buffer);
    const std::pair<guint64, GstClockTime> stamp(GST_BUFFER_OFFSET(buffer), GST_BUFFER_PTS(buffer));
    kr7gst::Release(buffer);
    return stamp;
}

struct Size {
    int width = 0;
    int height = 0;
};

Size SizeOf(const GstCaps* caps) {
    Size size;
    const GstStructure* s = gst_caps_get_structure(caps, 0);
    gst_structure_get_int(s, "width", &size.width);
    gst_structure_get_int(s, "height", &size.height);
    return size;
}

Frame Read(GstSample* sample) {
    const Size size = SizeOf(gst_sample_get_caps(sample));
    return Read(gst_sample_get_buffer(sample), size.width, size.height);
}

class Pipeline {
public:
    explicit Pipeline(const std::string& description) {
        GError* error = nullptr;
        m_pPipeline = gst_parse_launch(description.c_str(), &error);
        if (error != nullptr || m_pPipeline == nullptr) {
            const std::string why = error != nullptr ? error->message : "no pipeline";
            g_clear_error(&error);
            if (m_pPipeline != nullptr) {
                gst_object_unref(m_pPipeline);
            }
            // Ends the case (gtest reports it): nothing can run without it.
            throw std::runtime_error(description + ": " + why);
        }
        m_pBus = gst_element_get_bus(m_pPipeline);
    }
    ~Pipeline() {
        if (m_pPipeline != nullptr) {
            gst_element_set_state(m_pPipeline, GST_STATE_NULL);
            gst_object_unref(m_pBus);
            gst_object_unref(m_pPipeline);
        }
    }
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    GstElement* Get() const { return m_pPipeline; }
    ElementPtr Element(const char* name) const {
        return ElementPtr(gst_bin_get_by_name(GST_BIN(m_pPipeline), name));
    }
    // Sets the state and waits until it is reached (live: at once).
    GstStateChangeReturn Set(GstState state) const {
        const GstStateChangeReturn result = gst_element_set_state(m_pPipeline, state);
        if (result == GST_STATE_CHANGE_ASYNC) {
            return gst_element_get_state(m_pPipeline, nullptr, nullptr, 60 * GST_SECOND);
        }
        return result;
    }
    MessagePtr Pop(GstMessageType types, GstClockTime timeout = 0) const {
        return MessagePtr(gst_bus_timed_pop_filtered(m_pBus, timeout, types));
    }

private:
    GstElement* m_pPipeline = nullptr;
    GstBus* m_pBus = nullptr;
};

SamplePtr Pull(const ElementPtr& sink, GstClockTime timeout = 60 * GST_SECOND) {
    GstSample* sample = nullptr;
    g_signal_emit_by_name(sink.get(), "try-pull-sample", timeout, &sample);
    return SamplePtr(sample);
}

std::string ErrorOf(GstMessage* message, std::string* debug = nullptr) {
    GError* error = nullptr;
    gchar* details = nullptr;
    gst_message_parse_error(message, &error, &details);
    const std::string text = error != nullptr ? error->message : "";
    if (debug != nullptr) {
        *debug = details != nullptr ? details : "";
    }
    g_clear_error(&error);
    g_free(details);
    return text;
}

// A kr7-result message, as the test keeps it.
struct Result {
    unsigned int number = 0;
    std::string mode;
    guint64 frame = 0;
    double area = 0;
    double contrast = 0;
    Frame image;
};

bool IsResult(GstMessage* message) {
    const GstStructure* s = gst_message_get_structure(message);
    return GST_MESSAGE_TYPE(message) == GST_MESSAGE_ELEMENT && s != nullptr &&
           gst_structure_has_name(s, "kr7-result");
}

Result ReadResult(GstMessage* message) {
    const GstStructure* s = gst_message_get_structure(message);
    Result result;
    EXPECT_TRUE(gst_structure_get_uint(s, "number", &result.number));
    const gchar* mode = gst_structure_get_string(s, "mode");
    result.mode = mode != nullptr ? mode : "";
    EXPECT_TRUE(gst_structure_get_uint64(s, "frame", &result.frame));
    EXPECT_TRUE(gst_structure_get_double(s, "area", &result.area));
    EXPECT_TRUE(gst_structure_get_double(s, "contrast", &result.contrast));
    GstSample* sample = nullptr;
    EXPECT_TRUE(gst_structure_get(s, "sample", GST_TYPE_SAMPLE, &sample, nullptr));
    if (sample != nullptr) {
        result.image = Read(sample);
        gst_sample_unref(sample);
    }
    return result;
}

// Every kr7-result message waiting on the bus; errors fail the test unless
// `errors` keeps them.
void TakeResults(const Pipeline& pipeline, std::vector<Result>& results,
                 std::vector<std::string>* errors = nullptr) {
    while (MessagePtr message =
               pipeline.Pop(static_cast<GstMessageType>(GST_MESSAGE_ELEMENT | GST_MESSAGE_ERROR))) {
        if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR) {
            if (errors != nullptr) {
                errors->push_back(ErrorOf(message.get()));
                continue;
            }
            ADD_FAILURE() << "error: " << ErrorOf(message.get());
        } else if (IsResult(message.get())) {
            results.push_back(ReadResult(message.get()));
        }
    }
}

// The size of the plug-in's frames, as kr7host reads a GetImage image.
Size HostFrameSize() {
    kr7host::Plugin plugin(HostFiles());
    const kr7host::Image image = plugin.Snap();
    return {image.width, image.height};
}

// ---- the cases ------------------------------------------------------------------

// Run first (a CTest fixture): the registry of this build is written, with
// every plug-in GStreamer finds scanned, and holds kr7src.
TEST(Registry, HoldsTheElement) {
    GstElementFactory* factory = gst_element_factory_find("kr7src");
    ASSERT_NE(nullptr, factory) << "kr7src is not in the registry (GST_PLUGIN_PATH "
                                << (g_getenv("GST_PLUGIN_PATH") ? g_getenv("GST_PLUGIN_PATH") : "")
                                << ")";
    GstPlugin* plugin = gst_plugin_feature_get_plugin(GST_PLUGIN_FEATURE(factory));
    ASSERT_NE(nullptr, plugin);
    EXPECT_STREQ("kr7", gst_plugin_get_name(plugin));
    EXPECT_STREQ("Proprietary", gst_plugin_get_license(plugin));
    gst_object_unref(plugin);
    gst_object_unref(factory);
    for (const char* needed : {"appsink", "fakesink"}) {
        GstElementFactory* other = gst_element_factory_find(needed);
        EXPECT_NE(nullptr, other) << needed << " is missing (Debian: gstreamer1.0-plugins-base)";
        if (other != nullptr) {
            gst_object_unref(other);
        }
    }
}

TEST(Kr7Src, CapsAreTheFrameSizeAndTimestampsAndOffsetsIncrease) {
    Scanner("empty 0.5s; place; hold 600s");
    const Size frame = HostFrameSize();
    ASSERT_GT(frame.width, 100);

    GstHarness* harness = gst_harness_new("kr7src");
    ASSERT_NE(nullptr, harness);
    g_object_set(harness->element, "virtual", TRUE, "plugin", KR7_PLUGIN_PATH, "num-buffers", 50,
                 nullptr);
    gst_harness_use_systemclock(harness);
    gst_harness_play(harness);
    GstClockTime lastPts = 0;
    guint64 lastOffset = 0;
    for (int i = 0; i < 50; ++i) {
        GstBuffer* buffer = gst_harness_pull(harness);
        ASSERT_NE(nullptr, buffer) << "buffer " << i;
        kr7gst::Acquire(buffer);
        ASSERT_TRUE(GST_BUFFER_PTS_IS_VALID(buffer));
        ASSERT_NE(GST_BUFFER_OFFSET_NONE, GST_BUFFER_OFFSET(buffer));
        if (i > 0) {
            EXPECT_GT(GST_BUFFER_PTS(buffer), lastPts) << "buffer " << i;
            EXPECT_GT(GST_BUFFER_OFFSET(buffer), lastOffset) << "buffer " << i;
        }
        EXPECT_EQ(GST_BUFFER_OFFSET(buffer) + 1, GST_BUFFER_OFFSET_END(buffer));
        lastPts = GST_BUFFER_PTS(buffer);
        lastOffset = GST_BUFFER_OFFSET(buffer);
        kr7gst::Release(buffer);
        gst_buffer_unref(buffer);
    }
    GstCaps* caps = gst_pad_get_current_caps(harness->sinkpad);
    ASSERT_NE(nullptr, caps);
    GstCaps* expected = gst_caps_from_string(
        ("video/x-raw, format=GRAY8, width=" + std::to_string(frame.width) +
         ", height=" + std::to_string(frame.height) + ", framerate=0/1, pixel-aspect-ratio=1/1")
            .c_str());
    EXPECT_TRUE(gst_caps_is_equal(caps, expected)) << gst_caps_to_string(caps);
    gst_caps_unref(expected);
    gst_caps_unref(caps);
    // num-buffers: then EOS.
    bool eos = false;
    for (int i = 0; i < 20 && !eos; ++i) {
        GstEvent* event = gst_harness_pull_event(harness);
        ASSERT_NE(nullptr, event);
        eos = GST_EVENT_TYPE(event) == GST_EVENT_EOS;
        gst_event_unref(event);
    }
    EXPECT_TRUE(eos);
    EXPECT_EQ(0u, gst_harness_buffers_in_queue(harness));
    gst_harness_teardown(harness);
}

// Frames of random grey noise, distinct from each other, in the raw form the
// scanner's API delivers (handed to the plug-in unchanged).
void WriteNoiseFrames(const fs::path& folder, int count) {
    fs::create_directories(folder);
    std::mt19937 random(7);
    for (int i = 0; i < count; ++i) {
        kr7host::Image image(320, 480, 0);
        for (std::uint8_t& p : image.pixels) {
            p = static_cast<std::uint8_t>(random() & 0xFF);
        }
        char name[32];
        std::snprintf(name, sizeof name, "frame-%02d.pgm", i);
        kr7host::WritePgm(image, (folder / name).string());
    }
}

TEST(Kr7Src, FramesAreTheHostLayersRowsRightWayUp) {
    char pattern[] = "/tmp/kr7src_test_XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern));
    const fs::path folder = pattern;
    WriteNoiseFrames(folder, 6);
    Scanner("replay " + folder.string() + " as=raw; repeat");

    // The host layer: every distinct frame of the loop, as kr7host copies
    // the plug-in's block (its rows turned top-down).
    std::vector<kr7host::Image> host;
    {
        kr7host::Plugin plugin(HostFiles());
        kr7host::Capture capture(plugin, {1, vc::eCaptureLive, 64});
        capture.Start();
        const auto deadline = Clock::now() + std::chrono::minutes(2);
        int images = 0;
        while (images < 18 && Clock::now() < deadline) {
            std::optional<kr7host::Event> event = capture.Next(std::chrono::milliseconds(100));
            if (!event || event->kind != kr7host::Kind::Image) {
                continue;
            }
            ++images;
            const bool known = std::any_of(host.begin(), host.end(), [&](const kr7host::Image& i) {
                return i.pixels == event->image.pixels;
            });
            if (!known) {
                host.push_back(std::move(event->image));
            }
        }
        capture.Stop();
    }
    ASSERT_EQ(6u, host.size()) << "the replay's six frames, each distinct";

    Pipeline pipeline(kSource + " num-buffers=12 ! appsink name=sink sync=false");
    const ElementPtr sink = pipeline.Element("sink");
    ASSERT_NE(GST_STATE_CHANGE_FAILURE, pipeline.Set(GST_STATE_PLAYING));
    std::vector<bool> seen(host.size(), false);
    for (int i = 0; i < 12; ++i) {
        const SamplePtr sample = Pull(sink);
        ASSERT_TRUE(sample) << "frame " << i;
        const Frame frame = Read(sample.get());
        const auto match = std::find_if(host.begin(), host.end(), [&](const kr7host::Image& image) {
            return frame.Same(image);
        });
        EXPECT_NE(host.end(), match) << "frame " << i << " (offset " << frame.offset
                                     << ") is none of the host layer's frames";
        if (match != host.end()) {
            seen[static_cast<std::size_t>(match - host.begin())] = true;
        }
    }
    EXPECT_EQ(6, std::count(seen.begin(), seen.end(), true));
    std::error_code ignored;
    fs::remove_all(folder, ignored);
}

// Runs a plain capture of kThreePlacements until three results have come
// and the scanner is well past them; `take` sees every sample pushed.
std::vector<Result> PlainCapture(const std::string& options,
                                 const std::function<void(GstSample*)>& take) {
    Pipeline pipeline(kSource + " mode=plain " + options +
                      " ! appsink name=sink sync=false max-buffers=4 drop=true");
    const ElementPtr sink = pipeline.Element("sink");
    EXPECT_NE(GST_STATE_CHANGE_FAILURE, pipeline.Set(GST_STATE_PLAYING));
    std::vector<Result> results;
    const auto deadline = Clock::now() + std::chrono::minutes(4);
    Clock::time_point third;
    while (Clock::now() < deadline) {
        if (const SamplePtr sample = Pull(sink, 100 * GST_MSECOND)) {
            take(sample.get());
        }
        TakeResults(pipeline, results);
        if (results.size() >= 3 && third == Clock::time_point()) {
            third = Clock::now();
        }
        // A second more: a fourth result would have come by then.
        if (third != Clock::time_point() && Clock::now() - third > std::chrono::seconds(2)) {
            break;
        }
    }
    EXPECT_NE(Clock::time_point(), third) << "three results did not come";
    pipeline.Set(GST_STATE_READY);
    // The platen is empty at the stop: no result is still open.
    TakeResults(pipeline, results);
    return results;
}

void CheckThreeResults(const std::vector<Result>& results, Size frame) {
    ASSERT_EQ(3u, results.size());
    for (std::size_t i = 0; i < results.size(); ++i) {
        const Result& result = results[i];
        EXPECT_EQ(i + 1, result.number);
        EXPECT_EQ("plain", result.mode);
        EXPECT_GT(result.area, 0.2) << "result " << i + 1;
        EXPECT_GT(result.contrast, 0.2) << "result " << i + 1;
        EXPECT_EQ(frame.width, result.image.width);
        EXPECT_EQ(frame.height, result.image.height);
        EXPECT_EQ(result.frame, result.image.offset);
        if (i > 0) {
            // Held a second, gone half a second: a placement apart.
            EXPECT_GT(result.frame, results[i - 1].frame + 20);
        }
    }
}

TEST(Kr7Src, PlainModePostsOneResultPerPlacement) {
    Scanner(kThreePlacements);
    const Size frame = HostFrameSize();
    guint64 frames = 0;
    guint64 lastOffset = 0;
    const std::vector<Result> results = PlainCapture("", [&](GstSample* sample) {
        const guint64 offset = Stamp(gst_sample_get_buffer(sample)).first;
        if (frames > 0) {
            EXPECT_GT(offset, lastOffset);
        }
        lastOffset = offset;
        ++frames;
    });
    CheckThreeResults(results, frame);
    // Frames flow as well, past the last result.
    EXPECT_GT(frames, 10u);
    if (!results.empty()) {
        EXPECT_GT(lastOffset, results.back().frame);
    }
}

TEST(Kr7Src, ResultsOnlyPushesExactlyTheResults) {
    Scanner(kThreePlacements);
    const Size frame = HostFrameSize();
    std::vector<Frame> pushed;
    const std::vector<Result> results = PlainCapture(
        "results-only=true", [&](GstSample* sample) { pushed.push_back(Read(sample)); });
    CheckThreeResults(results, frame);
    ASSERT_EQ(results.size(), pushed.size());
    for (std::size_t i = 0; i < pushed.size(); ++i) {
        EXPECT_EQ(results[i].image.offset, pushed[i].offset) << "result " << i + 1;
        EXPECT_EQ(results[i].image.pts, pushed[i].pts) << "result " << i + 1;
        EXPECT_TRUE(results[i].image.pixels == pushed[i].pixels) << "result " << i + 1;
    }
}

TEST(Kr7Src, UnpluggingPostsTheScannersError) {
    Scanner("empty 0.3s; place; hold 0.5s; unplug 5s; empty 5s");
    Pipeline pipeline(kSource + " mode=plain ! fakesink sync=false");
    ASSERT_NE(GST_STATE_CHANGE_FAILURE, pipeline.Set(GST_STATE_PLAYING));
    const MessagePtr error = pipeline.Pop(GST_MESSAGE_ERROR, 120 * GST_SECOND);
    ASSERT_TRUE(error) << "no error";
    std::string debug;
    EXPECT_EQ("The scanner is disconnected.", ErrorOf(error.get(), &debug));
    EXPECT_NE(std::string::npos, debug.find("plug-in error 31 (0x1000001f)")) << debug;
    // The finger placed before the unplug is kept: its result comes when
    // the capture is stopped (READY: a pipeline going to NULL flushes its bus).
    pipeline.Set(GST_STATE_READY);
    std::vector<Result> results;
    // GstBaseSrc may add its own "Internal data stream error" when the
    // streaming thread stops on the capture's end: nothing else.
    std::vector<std::string> errors;
    TakeResults(pipeline, results, &errors);
    EXPECT_EQ(1u, results.size());
    for (const std::string& other : errors) {
        EXPECT_EQ("Internal data stream error.", other);
    }
}

TEST(Kr7Src, MissingFilesFailTheStateChangeNamingTheFile) {
    Scanner("empty 600s;");
    const std::string missing = "/nowhere/kr7/libnorvakkr7fg.so.1";
    Pipeline pipeline("kr7src plugin=" + missing + " ! fakesink");
    EXPECT_EQ(GST_STATE_CHANGE_FAILURE, pipeline.Set(GST_STATE_READY));
    const MessagePtr error = pipeline.Pop(GST_MESSAGE_ERROR, 10 * GST_SECOND);
    ASSERT_TRUE(error);
    std::string debug;
    const std::string text = ErrorOf(error.get(), &debug);
    EXPECT_NE(std::string::npos, text.find("cannot load the plug-in " + missing)) << text;
    EXPECT_NE(std::string::npos, text.find("No such file or directory")) << text;
    EXPECT_NE(std::string::npos, debug.find(missing)) << debug;

    // A virtual scanner's library that is not there, the same way.
    setenv("KR7_SIM_DIR", "/nowhere/kr7/sim", 1);
    Pipeline virtualScanner(kSource + " ! fakesink");
    EXPECT_EQ(GST_STATE_CHANGE_FAILURE, virtualScanner.Set(GST_STATE_PLAYING));
    const MessagePtr second = virtualScanner.Pop(GST_MESSAGE_ERROR, 10 * GST_SECOND);
    ASSERT_TRUE(second);
    const std::string why = ErrorOf(second.get());
    EXPECT_NE(std::string::npos,
              why.find("cannot load the virtual scanner's library /nowhere/kr7/sim/libnorvaklf.so"))
        << why;
}

TEST(Kr7Src, DeviceSelectsTheScannerWhoseSerialReads) {
    Scanner("empty 600s;");
    setenv("KR7SIM_UNITS", "if=0,serial=KR7FIRST;if=2,serial=KR7OTHER", 1);
    for (const auto& [device, serial] :
         std::vector<std::pair<int, std::string>>{{-1, "KR7FIRST"}, {2, "KR7OTHER"}}) {
        Pipeline pipeline(kSource + " name=src device=" + std::to_string(device) +
                          " ! appsink name=sink sync=false");
        const ElementPtr source = pipeline.Element("src");
        gchar* before = nullptr;
        g_object_get(source.get(), "serial", &before, nullptr);
        EXPECT_EQ(nullptr, before);
        g_free(before);
        ASSERT_NE(GST_STATE_CHANGE_FAILURE, pipeline.Set(GST_STATE_PLAYING));
        gchar* read = nullptr;
        g_object_get(source.get(), "serial", &read, nullptr);
        EXPECT_STREQ(serial.c_str(), read) << "device " << device;
        g_free(read);
        EXPECT_TRUE(Pull(pipeline.Element("sink"))) << "device " << device;
    }
    // An interface without a scanner: the plug-in's error, at READY.
    Pipeline pipeline(kSource + " device=5 ! fakesink");
    EXPECT_EQ(GST_STATE_CHANGE_FAILURE, pipeline.Set(GST_STATE_READY));
    const MessagePtr error = pipeline.Pop(GST_MESSAGE_ERROR, 10 * GST_SECOND);
    ASSERT_TRUE(error);
    std::string debug;
    ErrorOf(error.get(), &debug);
    EXPECT_NE(std::string::npos, debug.find("SetActiveDevice failed: error 27")) << debug;
}

TEST(Kr7Src, PauseAndEosWorkAsForAnySource) {
    Scanner("empty 600s;", true);
    Pipeline pipeline(kSource + " ! appsink name=sink sync=false");
    const ElementPtr sink = pipeline.Element("sink");
    ASSERT_NE(GST_STATE_CHANGE_FAILURE, pipeline.Set(GST_STATE_PLAYING));
    GstClockTime last = 0;
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 5; ++i) {
            const SamplePtr sample = Pull(sink);
            ASSERT_TRUE(sample) << "round " << round << ", frame " << i;
            const GstClockTime pts = Stamp(gst_sample_get_buffer(sample.get())).second;
            EXPECT_GT(pts, last) << "round " << round << ", frame " << i;
            last = pts;
        }
        ASSERT_NE(GST_STATE_CHANGE_FAILURE, pipeline.Set(GST_STATE_PAUSED));
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        ASSERT_NE(GST_STATE_CHANGE_FAILURE, pipeline.Set(GST_STATE_PLAYING));
    }
    gst_element_send_event(pipeline.Get(), gst_event_new_eos());
    // appsink hands on the EOS once what it holds is taken.
    for (int i = 0; i < 1000 && Pull(sink, 10 * GST_SECOND); ++i) {
    }
    const MessagePtr message = pipeline.Pop(
        static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR), 30 * GST_SECOND);
    ASSERT_TRUE(message);
    EXPECT_EQ(GST_MESSAGE_EOS, GST_MESSAGE_TYPE(message.get()));
}

TEST(Kr7Src, PreviewModeTakesStills) {
    Scanner("empty 0.3s; place; hold 600s");
    const Size frame = HostFrameSize();
    Pipeline pipeline(kSource + " mode=preview num-buffers=3 ! appsink name=sink sync=false");
    const ElementPtr sink = pipeline.Element("sink");
    ASSERT_NE(GST_STATE_CHANGE_FAILURE, pipeline.Set(GST_STATE_PLAYING));
    for (int i = 0; i < 3; ++i) {
        const SamplePtr sample = Pull(sink);
        ASSERT_TRUE(sample);
        const Frame still = Read(sample.get());
        EXPECT_EQ(frame.width, still.width);
        EXPECT_EQ(frame.height, still.height);
        EXPECT_EQ(static_cast<guint64>(i), still.offset);
    }
    const MessagePtr eos = pipeline.Pop(
        static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR), 30 * GST_SECOND);
    ASSERT_TRUE(eos);
    EXPECT_EQ(GST_MESSAGE_EOS, GST_MESSAGE_TYPE(eos.get()));
}

// ---- state cycles ----------------------------------------------------------------

// The leaks tracer, when GST_TRACERS has it.
GstTracer* LeaksTracer() {
    GstTracer* found = nullptr;
    GList* tracers = gst_tracing_get_active_tracers();
    for (GList* it = tracers; it != nullptr; it = it->next) {
        if (std::strcmp(G_OBJECT_TYPE_NAME(it->data), "GstLeaksTracer") == 0) {
            found = GST_TRACER(gst_object_ref(it->data));
        }
    }
    g_list_free_full(tracers, gst_object_unref);
    return found;
}

// GStreamer objects made since the tracer's last checkpoint and still
// alive, by type; starts the next checkpoint. (The leaks tracer's
// get-live-objects hands out objects it holds no reference to.)
std::map<std::string, int> ObjectsSinceCheckpoint(GstTracer* tracer) {
    GstStructure* info = nullptr;
    g_signal_emit_by_name(tracer, "activity-get-checkpoint", &info);
    if (info == nullptr) {
        return {};
    }
    // Made and not since freed, by address.
    std::map<std::string, std::string> alive;
    const auto each = [info](const char* field, auto&& visit) {
        const GValue* list = gst_structure_get_value(info, field);
        for (guint i = 0; list != nullptr && i < gst_value_list_get_size(list); ++i) {
            const GstStructure* object = gst_value_get_structure(gst_value_list_get_value(list, i));
            const gchar* type = gst_structure_get_string(object, "type-name");
            const gchar* address = gst_structure_get_string(object, "address");
            visit(address != nullptr ? address : "?", type != nullptr ? type : "?");
        }
    };
    each("objects-created-list",
         [&](const std::string& address, const std::string& type) { alive[address] = type; });
    each("objects-removed-list",
         [&](const std::string& address, const std::string&) { alive.erase(address); });
    gst_structure_free(info);
    std::map<std::string, int> counts;
    for (const auto& [address, type] : alive) {
        ++counts[type];
    }
    return counts;
}

TEST(Kr7Src, StateCyclesLeaveNoThreadDescriptorOrObjectBehind) {
    Scanner("empty 600s;");
    Pipeline pipeline(kSource + " ! appsink name=sink sync=false max-buffers=1 drop=true");
    const ElementPtr sink = pipeline.Element("sink");
    const auto cycle = [&](int i) {
        switch (i % 4) {
            case 0:  // a frame through, then down
                ASSERT_NE(GST_STATE_CHANGE_FAILURE, pipeline.Set(GST_STATE_PLAYING));
                ASSERT_TRUE(Pull(sink)) << "cycle " << i;
                break;
            case 1:  // playing, paused and back
                ASSERT_NE(GST_STATE_CHANGE_FAILURE, pipeline.Set(GST_STATE_PLAYING));
                ASSERT_NE(GST_STATE_CHANGE_FAILURE, pipeline.Set(GST_STATE_PAUSED));
                ASSERT_NE(GST_STATE_CHANGE_FAILURE, pipeline.Set(GST_STATE_PLAYING));
                break;
            case 2:  // straight up and down
                ASSERT_NE(GST_STATE_CHANGE_FAILURE, pipeline.Set(GST_STATE_PLAYING));
                break;
            default:  // paused only
                ASSERT_NE(GST_STATE_CHANGE_FAILURE, pipeline.Set(GST_STATE_PAUSED));
                break;
        }
        ASSERT_EQ(GST_STATE_CHANGE_SUCCESS, pipeline.Set(GST_STATE_NULL)) << "cycle " << i;
        // The bus keeps what nobody reads.
        while (MessagePtr message = pipeline.Pop(GST_MESSAGE_ANY)) {
            ASSERT_NE(GST_MESSAGE_ERROR, GST_MESSAGE_TYPE(message.get()))
                << "cycle " << i << ": " << ErrorOf(message.get());
        }
    };
    GstTracer* tracer = LeaksTracer();
    // Warm-up: GStreamer's own threads and caches come with the first cycles.
    for (int i = 0; i < 8; ++i) {
        cycle(i);
    }
    const soak::ProcessFigures before = soak::SettledFigures(0, std::chrono::milliseconds(0));
    if (tracer != nullptr) {
        g_signal_emit_by_name(tracer, "activity-start-tracking");
    }
    for (int i = 0; i < 200; ++i) {
        cycle(i);
        if (HasFatalFailure()) {
            break;
        }
    }
    const soak::ProcessFigures after =
        soak::SettledFigures(before.threads, std::chrono::milliseconds(10000));
    EXPECT_LE(after.threads, before.threads);
    EXPECT_LE(after.fds, before.fds);
    if (tracer != nullptr) {
        for (const auto& [type, count] : ObjectsSinceCheckpoint(tracer)) {
            ADD_FAILURE() << count << " " << type << " made during the cycles still alive";
        }
        g_signal_emit_by_name(tracer, "activity-stop-tracking");
        gst_object_unref(tracer);
    } else {
        std::printf("note: GST_TRACERS has no leaks tracer; GStreamer objects not counted\n");
    }
#if defined(KR7_TEST_LSAN)
    EXPECT_EQ(0, __lsan_do_recoverable_leak_check()) << "LeakSanitizer found leaks (above)";
#endif
}

// ---- a slow pipeline ---------------------------------------------------------------

struct Rate {
    double framesPerSecond = 0;  // from the offsets (the scanner's frames) over the timestamps
    guint64 gaps = 0;            // frames missing between the buffers pushed
    int buffers = 0;
};

Rate RateOf(const std::vector<std::pair<guint64, GstClockTime>>& seen) {
    Rate rate;
    rate.buffers = static_cast<int>(seen.size());
    if (seen.size() < 2) {
        return rate;
    }
    for (std::size_t i = 1; i < seen.size(); ++i) {
        rate.gaps += seen[i].first - seen[i - 1].first - 1;
    }
    const double seconds =
        static_cast<double>(seen.back().second - seen.front().second) / GST_SECOND;
    rate.framesPerSecond = static_cast<double>(seen.back().first - seen.front().first) / seconds;
    return rate;
}

struct SlowSink {
    std::mutex mutex;
    std::vector<std::pair<guint64, GstClockTime>> seen;  // offset, pts
    std::chrono::milliseconds nap{0};
};

GstFlowReturn OnSample(GstElement* sink, gpointer user) {
    auto* slow = static_cast<SlowSink*>(user);
    GstSample* sample = nullptr;
    g_signal_emit_by_name(sink, "pull-sample", &sample);
    if (sample == nullptr) {
        return GST_FLOW_EOS;
    }
    const std::pair<guint64, GstClockTime> stamp = Stamp(gst_sample_get_buffer(sample));
    {
        std::lock_guard<std::mutex> lock(slow->mutex);
        slow->seen.push_back(stamp);
    }
    gst_sample_unref(sample);
    std::this_thread::sleep_for(slow->nap);
    return GST_FLOW_OK;
}

// The scanner at its own pace for `seconds`, the sink sleeping `nap` in
// every buffer; frames-dropped as the capture stopped.
Rate Capture(std::chrono::milliseconds nap, double seconds, guint64& dropped) {
    SlowSink slow;
    slow.nap = nap;
    Pipeline pipeline(kSource +
                      " name=src ! appsink name=sink sync=false emit-signals=true max-buffers=1 "
                      "drop=false");
    const ElementPtr sink = pipeline.Element("sink");
    g_signal_connect(sink.get(), "new-sample", G_CALLBACK(OnSample), &slow);
    EXPECT_NE(GST_STATE_CHANGE_FAILURE, pipeline.Set(GST_STATE_PLAYING));
    // Past the scanner's start before measuring.
    for (int i = 0; i < 6000; ++i) {
        {
            std::lock_guard<std::mutex> lock(slow.mutex);
            if (!slow.seen.empty()) {
                break;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    // Stopped first, so that every buffer the sink saw came before the count
    // is read (it stays until the next start).
    pipeline.Set(GST_STATE_READY);
    const ElementPtr source = pipeline.Element("src");
    g_object_get(source.get(), "frames-dropped", &dropped, nullptr);
    std::lock_guard<std::mutex> lock(slow.mutex);
    return RateOf(slow.seen);
}

TEST(Kr7Src, SlowSinkHasLiveFramesDroppedAtTheScannersOwnRate) {
    Scanner("empty 600s;", true);
    guint64 droppedFast = 0, droppedSlow = 0;
    const Rate fast = Capture(std::chrono::milliseconds(0), 3.0, droppedFast);
    const Rate slow = Capture(std::chrono::milliseconds(200), 4.0, droppedSlow);
    std::printf(
        "fast sink: %d buffers, %.1f frames/s, %lu dropped; slow sink: %d buffers, "
        "%.1f frames/s, %lu dropped (%lu missing between buffers)\n",
        fast.buffers, fast.framesPerSecond, static_cast<unsigned long>(droppedFast), slow.buffers,
        slow.framesPerSecond, static_cast<unsigned long>(droppedSlow),
        static_cast<unsigned long>(slow.gaps));
    EXPECT_EQ(0u, fast.gaps);
    EXPECT_GT(slow.gaps, 0u);
    EXPECT_GT(droppedSlow, 0u);
    // Every frame missing between two buffers was counted (and perhaps a
    // few more after the last one).
    EXPECT_LE(slow.gaps, droppedSlow);
    // The plug-in's worker never waits for the pipeline: its rate stays.
    ASSERT_GT(fast.framesPerSecond, 0);
    EXPECT_NEAR(fast.framesPerSecond, slow.framesPerSecond, 0.15 * fast.framesPerSecond);
}

}  // namespace

int main(int argc, char** argv) {
    gst_init(&argc, &argv);
    ::testing::InitGoogleTest(&argc, argv);
    const int status = RUN_ALL_TESTS();
    gst_deinit();
    return status;
}
