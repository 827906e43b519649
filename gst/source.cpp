#include "source.h"

#include <gst/video/video.h>
#include <sys/stat.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <utility>

#include "handover.h"
#include "kr7host/error.h"
#include "kr7host/image.h"

#define GST_CAT_DEFAULT gst_kr7_src_debug

namespace kr7gst {

namespace {

// The plug-in keeps one frame grabber per process: one element at a time
// may hold it.
std::mutex g_OwnerMutex;
const void* g_pOwner = nullptr;  // under g_OwnerMutex

bool IsFolder(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// The folder libgstkr7.so lies in.
std::string ElementFolder() {
    static const std::string folder = kr7host::FolderOf(reinterpret_cast<const void*>(&FrameCaps));
    return folder;
}

std::string Format(const char* format, ...) G_GNUC_PRINTF(1, 2);
std::string Format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    gchar* text = g_strdup_vprintf(format, args);
    va_end(args);
    std::string result = text;
    g_free(text);
    return result;
}

}  // namespace

GstCaps* FrameCaps(int width, int height) {
    return gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "GRAY8", "width", G_TYPE_INT,
                               width, "height", G_TYPE_INT, height, "framerate", GST_TYPE_FRACTION,
                               0, 1, "pixel-aspect-ratio", GST_TYPE_FRACTION, 1, 1, nullptr);
}

std::size_t RowStride(int width) {
    GstVideoInfo info;
    gst_video_info_init(&info);
    if (!gst_video_info_set_format(&info, GST_VIDEO_FORMAT_GRAY8, static_cast<guint>(width), 1)) {
        return GST_ROUND_UP_4(static_cast<std::size_t>(width));
    }
    return static_cast<std::size_t>(GST_VIDEO_INFO_PLANE_STRIDE(&info, 0));
}

Source::Source(GstBaseSrc* element) : m_pElement(element) {
    m_vItems.reserve(4 * kLiveFrames);
}

Source::~Source() {
    // The element is disposed in NULL: nothing runs any more.
    ReleaseQueue();
    if (m_pPool != nullptr) {
        gst_object_unref(m_pPool);
    }
}

Settings Source::Current() const {
    std::lock_guard<std::mutex> lock(m_SettingsMutex);
    return m_Settings;
}

std::string Source::Serial() const {
    std::lock_guard<std::mutex> lock(m_SettingsMutex);
    return m_strSerial;
}

GstClockTime Source::RunningTime() const {
    GstClock* clock = gst_element_get_clock(Element());
    if (clock == nullptr) {
        return GST_CLOCK_TIME_NONE;
    }
    const GstClockTime now = gst_clock_get_time(clock);
    gst_object_unref(clock);
    const GstClockTime base = gst_element_get_base_time(Element());
    return now >= base ? now - base : GST_CLOCK_TIME_NONE;
}

// ---- loading ----------------------------------------------------------------

bool Source::Open() {
    const Settings settings = Current();
    {
        std::lock_guard<std::mutex> lock(g_OwnerMutex);
        if (g_pOwner != nullptr && g_pOwner != this) {
            GST_ELEMENT_ERROR(m_pElement, RESOURCE, BUSY,
                              ("Another kr7src of this process holds the frame grabber."),
                              ("the plug-in keeps one frame grabber per process; set the other "
                               "element to NULL first"));
            return false;
        }
        g_pOwner = this;
    }
    kr7host::Options options;
    options.virtualScanner = settings.virtualScanner;
    options.plugin = settings.plugin.empty() || settings.plugin == kr7host::kPluginName
                         ? kr7host::DefaultPlugin(settings.virtualScanner, ElementFolder())
                         : settings.plugin;
    const char* simDir = std::getenv("KR7_SIM_DIR");
    if (settings.virtualScanner && (simDir == nullptr || *simDir == '\0')) {
        // Installed: lib/gstreamer-1.0/libgstkr7.so beside lib/norvakkr7fg/sim.
        char* beside = realpath((ElementFolder() + "/../norvakkr7fg/sim").c_str(), nullptr);
        if (beside != nullptr && IsFolder(beside)) {
            options.simFolder = beside;
        }
        std::free(beside);
    }
    std::string failure, debug;
    GQuark domain = GST_RESOURCE_ERROR;
    gint code = GST_RESOURCE_ERROR_OPEN_READ;
    try {
        m_pPlugin = std::make_unique<kr7host::Plugin>(options);
        const std::vector<vc::DeviceInfo> devices = m_pPlugin->Devices();
        if (devices.empty()) {
            throw std::runtime_error("No scanner is connected.");
        }
        const unsigned long index = settings.device < 0
                                        ? devices.front().Index
                                        : static_cast<unsigned long>(settings.device);
        m_pPlugin->SelectDevice(index);
        std::string serial;
        for (const vc::DeviceInfo& device : devices) {
            if (device.Index == index) {
                serial = device.SerialNumber;
            }
        }
        m_strDescription =
            Format("interface %lu, serial %s, plug-in %s", index,
                   serial.empty() ? "unknown" : serial.c_str(), m_pPlugin->File().c_str());
        std::lock_guard<std::mutex> lock(m_SettingsMutex);
        m_strSerial = serial;
    } catch (const kr7host::LoadError& e) {
        failure = e.what();
        debug = "file " + e.File() + ": " + e.Reason();
        code = GST_RESOURCE_ERROR_NOT_FOUND;
    } catch (const kr7host::Error& e) {
        failure = e.Text().empty() ? e.what() : e.Text();
        debug = e.what();
        if (e.LibraryMissing() && !settings.virtualScanner) {
            debug +=
                "; the scanner's libraries are not installed? virtual=true uses the virtual "
                "scanner";
        }
    } catch (const std::exception& e) {
        failure = e.what();
        debug = "loading " + options.plugin;
    }
    if (failure.empty()) {
        m_bLoaded = true;
        GST_INFO_OBJECT(m_pElement, "loaded: %s", m_strDescription.c_str());
        return true;
    }
    m_pPlugin.reset();
    {
        std::lock_guard<std::mutex> lock(g_OwnerMutex);
        g_pOwner = nullptr;
    }
    gst_element_message_full(Element(), GST_MESSAGE_ERROR, domain, code, g_strdup(failure.c_str()),
                             g_strdup(debug.c_str()), __FILE__, GST_FUNCTION, __LINE__);
    return false;
}

void Source::Close() {
    m_bLoaded = false;
    try {
        m_pPlugin.reset();
    } catch (const std::exception& e) {
        GST_WARNING_OBJECT(m_pElement, "unloading: %s", e.what());
    }
    {
        std::lock_guard<std::mutex> lock(m_SettingsMutex);
        m_strSerial.clear();
    }
    std::lock_guard<std::mutex> lock(g_OwnerMutex);
    if (g_pOwner == this) {
        g_pOwner = nullptr;
    }
}

// ---- the capture ------------------------------------------------------------

bool Source::Start() {
    if (!m_pPlugin) {
        GST_ELEMENT_ERROR(m_pElement, CORE, STATE_CHANGE, ("The plug-in is not loaded."), (NULL));
        return false;
    }
    const Settings settings = Current();
    m_eMode = settings.mode;
    m_bResultsOnly = settings.resultsOnly && kr7host::IsFingerMode(m_eMode);
    m_pPlacements = std::make_unique<kr7host::Placements>(m_eMode);
    m_nFrames = 0;
    m_nLastIndex = -1;
    m_nLastArrival = GST_CLOCK_TIME_NONE;
    m_LastQuality = kr7host::Quality();
    m_bLastMeasured = false;
    m_nResults = 0;
    m_bFailed = false;
    m_nDropped = 0;
    m_bStopping = false;
    m_nCapsWidth = m_nCapsHeight = m_nNextWidth = m_nNextHeight = 0;
    ReleaseQueue();
    {
        // Released last: the streaming thread takes this mutex first.
        std::lock_guard<std::mutex> lock(m_QueueMutex);
        m_nWidth = m_nHeight = 0;
    }
    if (settings.resultsOnly && !m_bResultsOnly) {
        GST_ELEMENT_WARNING(m_pElement, RESOURCE, SETTINGS,
                            ("results-only has no effect in %s mode.", ModeName(m_eMode)),
                            ("only the finger modes have results"));
    }
    if (m_eMode == vc::eCapturePreview) {
        // A preview capture delivers images only on a trigger the host
        // interface does not offer: the frames are stills from GetImage,
        // taken as create() asks for them.
        return true;
    }
    kr7host::Capture::Options options;
    options.channel = 1;
    options.mode = m_eMode;
    options.liveFrames = kLiveFrames;
    m_pCapture = std::make_unique<kr7host::Capture>(
        *m_pPlugin, options, [this](const kr7host::Delivery& delivery) { Deliver(delivery); });
    try {
        const unsigned int started = m_pCapture->Start(1);
        if (started != 0) {
            GST_INFO_OBJECT(m_pElement,
                            "the plug-in does not list %s capture; it runs it anyway "
                            "(StartCapture: 0x%08x)",
                            ModeName(m_eMode), started);
        }
    } catch (const kr7host::Error& e) {
        m_pCapture.reset();
        GST_ELEMENT_ERROR(m_pElement, RESOURCE, OPEN_READ, ("%s", e.Text().c_str()),
                          ("%s; %s", e.what(), m_strDescription.c_str()));
        return false;
    }
    return true;
}

void Source::Stop() {
    m_bStopping = true;
    if (m_pCapture) {
        // No lock of ours is held: StopCapture joins the worker.
        try {
            m_pCapture->Stop();
        } catch (const kr7host::Error& e) {
            GST_WARNING_OBJECT(m_pElement, "%s", e.what());
        }
        m_pCapture.reset();
    }
    if (m_pPlacements) {
        // A finger still on the platen when the capture ended: its result
        // is posted, as kr7 keeps it.
        m_pPlacements->Close();
        PublishReady(false);
        m_pPlacements.reset();
    }
    ReleaseQueue();
    if (m_pPool != nullptr) {
        gst_buffer_pool_set_active(m_pPool, FALSE);
        gst_object_unref(m_pPool);
        m_pPool = nullptr;
        m_nPoolWidth = m_nPoolHeight = 0;
    }
}

void Source::SetPlaying(bool playing) {
    m_bPlaying = playing;
    if (playing) {
        return;
    }
    // Frames queued while playing would come late after a pause.
    std::vector<GstBuffer*> stale;
    {
        std::lock_guard<std::mutex> lock(m_QueueMutex);
        while (GstBuffer* buffer = TakeOldestFrameLocked()) {
            stale.push_back(buffer);
        }
    }
    for (GstBuffer* buffer : stale) {
        gst_buffer_unref(buffer);
    }
}

void Source::Unlock() {
    {
        std::lock_guard<std::mutex> lock(m_QueueMutex);
        m_bFlushing = true;
    }
    m_QueueChanged.notify_all();
}

void Source::UnlockStop() {
    std::lock_guard<std::mutex> lock(m_QueueMutex);
    m_bFlushing = false;
}

// ---- the queue ----------------------------------------------------------------

GstBuffer* Source::TakeOldestFrameLocked() {
    for (auto it = m_vItems.begin(); it != m_vItems.end(); ++it) {
        if (it->kind == Item::Kind::Frame) {
            GstBuffer* buffer = it->buffer;
            m_vItems.erase(it);
            --m_nQueuedFrames;
            return buffer;
        }
    }
    return nullptr;
}

void Source::Enqueue(Item item) {
    GstBuffer* dropped = nullptr;
    bool waiting = false;
    {
        std::lock_guard<std::mutex> lock(m_QueueMutex);
        waiting = m_bWaiting;
        if (item.kind == Item::Kind::Frame) {
            if (m_nQueuedFrames >= kLiveFrames) {
                dropped = TakeOldestFrameLocked();
                m_nDropped.fetch_add(1);
            }
            ++m_nQueuedFrames;
        }
        m_vItems.push_back(item);
    }
    if (waiting) {
        m_QueueChanged.notify_one();
    }
    if (dropped != nullptr) {
        gst_buffer_unref(dropped);
    }
}

void Source::ReleaseQueue() {
    std::vector<Item> items;
    {
        std::lock_guard<std::mutex> lock(m_QueueMutex);
        items.swap(m_vItems);
        m_vItems.reserve(4 * kLiveFrames);
        m_nQueuedFrames = 0;
    }
    for (Item& item : items) {
        if (item.buffer != nullptr) {
            gst_buffer_unref(item.buffer);
        }
    }
}

// ---- on the worker ----------------------------------------------------------------

void Source::Deliver(const kr7host::Delivery& delivery) {
    switch (delivery.kind) {
        case kr7host::Kind::Image:
            OnImage(delivery);
            break;
        case kr7host::Kind::Result:
            OnResult(delivery);
            break;
        case kr7host::Kind::Error:
            OnError(delivery.text != nullptr ? delivery.text : "");
            break;
        case kr7host::Kind::Warning:
            GST_ELEMENT_WARNING(m_pElement, RESOURCE, READ,
                                ("%s", delivery.text != nullptr ? delivery.text : ""),
                                ("the capture's warning callback; %s", m_strDescription.c_str()));
            break;
        case kr7host::Kind::Stop:
            if (!m_bStopping.load() && !m_bFailed) {
                Fail("The plug-in ended the capture.",
                     "the capture's stop callback came without an error and without "
                     "StopCapture; " +
                         m_strDescription);
            }
            break;
        case kr7host::Kind::Start:
            break;
    }
}

bool Source::FrameSize(int width, int height) {
    if (m_pPool != nullptr && width == m_nPoolWidth && height == m_nPoolHeight) {
        return true;
    }
    if (m_pPool != nullptr) {
        gst_buffer_pool_set_active(m_pPool, FALSE);
        gst_object_unref(m_pPool);
        m_pPool = nullptr;
    }
    const std::size_t stride = RowStride(width);
    GstBufferPool* pool = gst_buffer_pool_new();
    GstStructure* config = gst_buffer_pool_get_config(pool);
    GstCaps* caps = FrameCaps(width, height);
    // The queue's frames, the one being filled and one downstream; more are
    // made when a pipeline holds more, and then kept.
    gst_buffer_pool_config_set_params(config, caps, static_cast<guint>(stride * height),
                                      static_cast<guint>(kLiveFrames + 2), 0);
    gst_caps_unref(caps);
    if (!gst_buffer_pool_set_config(pool, config) || !gst_buffer_pool_set_active(pool, TRUE)) {
        gst_object_unref(pool);
        GST_ERROR_OBJECT(m_pElement, "cannot set up a buffer pool for %dx%d", width, height);
        return false;
    }
    m_pPool = pool;
    m_nStride = stride;
    m_nPoolWidth = width;
    m_nPoolHeight = height;
    {
        std::lock_guard<std::mutex> lock(m_QueueMutex);
        m_nWidth = width;
        m_nHeight = height;
    }
    GST_INFO_OBJECT(m_pElement, "frames of %dx%d", width, height);
    return true;
}

void Source::OnImage(const kr7host::Delivery& delivery) {
    const kr7host::BitmapView& view = delivery.image;
    if (!view.Valid()) {
        GST_WARNING_OBJECT(m_pElement, "an image that is no 8-bit bitmap");
        return;
    }
    const bool finger = kr7host::IsFingerMode(m_eMode);
    // The detector's copy of a frame without a finger is not pushed.
    const bool frame = !delivery.copy;
    if (frame) {
        m_nLastArrival = RunningTime();
        m_nLastIndex = m_nFrames++;
        m_bLastMeasured = false;
        if (FrameSize(view.Width(), view.Height()) && !m_bResultsOnly) {
            PushFrame(view, m_nLastArrival, m_nLastIndex);
        }
    }
    if (finger) {
        kr7host::Shot shot;
        shot.frame = delivery.frame;
        // The quality tells when a finger has gone: needed only while a
        // placement is open and the detector stopped finding it. The
        // detector's copy of a frame has the frame's quality.
        if (m_pPlacements->NeedsQuality(delivery.frame)) {
            if (frame || !m_bLastMeasured) {
                m_LastQuality = kr7host::Measure(view);
                m_bLastMeasured = true;
            }
            shot.quality = m_LastQuality;
        }
        m_pPlacements->Frame(std::move(shot));
        PublishReady(true);
    }
}

void Source::PushFrame(const kr7host::BitmapView& view, GstClockTime time, std::int64_t index) {
    if (!m_bPlaying.load()) {
        return;  // a live source hands out frames while playing only
    }
    const gsize size = m_nStride * static_cast<gsize>(view.Height());
    GstBuffer* buffer = nullptr;
    {
        // The queue is full: its oldest frame goes, and its buffer takes
        // this one.
        std::lock_guard<std::mutex> lock(m_QueueMutex);
        if (m_nQueuedFrames >= kLiveFrames) {
            buffer = TakeOldestFrameLocked();
            m_nDropped.fetch_add(1);
        }
    }
    if (buffer != nullptr && gst_buffer_get_size(buffer) != size) {
        gst_buffer_unref(buffer);
        buffer = nullptr;
    }
    if (buffer == nullptr) {
        GstBufferPoolAcquireParams params = {};
        params.flags = GST_BUFFER_POOL_ACQUIRE_FLAG_DONTWAIT;
        if (gst_buffer_pool_acquire_buffer(m_pPool, &buffer, &params) != GST_FLOW_OK) {
            GST_WARNING_OBJECT(m_pElement, "no buffer for frame %" G_GINT64_FORMAT, index);
            m_nDropped.fetch_add(1);
            return;
        }
        Acquire(buffer);  // back from downstream
    }
    GstMapInfo map;
    if (!gst_buffer_map(buffer, &map, GST_MAP_WRITE)) {
        gst_buffer_unref(buffer);
        return;
    }
    // The one copy: the block's bottom-up rows into the buffer top-down.
    view.CopyTo(map.data, m_nStride);
    gst_buffer_unmap(buffer, &map);
    GST_BUFFER_PTS(buffer) = time;
    GST_BUFFER_DTS(buffer) = GST_CLOCK_TIME_NONE;
    GST_BUFFER_DURATION(buffer) = GST_CLOCK_TIME_NONE;
    GST_BUFFER_OFFSET(buffer) = static_cast<guint64>(index);
    GST_BUFFER_OFFSET_END(buffer) = static_cast<guint64>(index + 1);
    Item item;
    item.kind = Item::Kind::Frame;
    item.buffer = buffer;
    item.width = view.Width();
    item.height = view.Height();
    Enqueue(item);
}

void Source::OnResult(const kr7host::Delivery& delivery) {
    const kr7host::BitmapView& view = delivery.image;
    if (!kr7host::IsFingerMode(m_eMode) || !view.Valid()) {
        return;
    }
    if (m_eMode == vc::eCaptureRolledFinger) {
        // A rolled print comes in place of its frame's image.
        m_nLastArrival = RunningTime();
        m_nLastIndex = m_nFrames++;
        FrameSize(view.Width(), view.Height());
    }
    kr7host::Shot shot;
    // The darkest result of a placement is the one handed on: its mean
    // decides, the rest of its quality is worked out when it is handed.
    shot.quality.mean = kr7host::MeanGrey(view);
    shot.frame = delivery.frame;
    shot.time = m_nLastArrival;
    shot.index = m_nLastIndex;
    // A result is copied only when it may be the one handed on, into the
    // buffer of one that no longer may.
    if (m_pPlacements->Keeps(shot.quality)) {
        shot.image = m_pPlacements->TakeSpare();
        shot.image.Assign(view, kr7host::kScannerPpi);
    }
    m_pPlacements->Result(std::move(shot));
    PublishReady(true);
}

void Source::OnError(const std::string& text) {
    const unsigned int number = kr7host::NumberOfText(text);
    const std::string debug =
        number != 0 ? Format("plug-in error %u (0x%08x) from the capture's error callback; %s",
                             number, number | vc::FGERR_FLAG, m_strDescription.c_str())
                    : "plug-in error of unknown number (the capture's error callback gives the "
                      "text alone); " +
                          m_strDescription;
    if (m_bFailed) {
        GST_WARNING_OBJECT(m_pElement, "a further error: %s (%s)", text.c_str(), debug.c_str());
        return;
    }
    Fail(text.empty() ? "The plug-in reported an error without a text." : text, debug);
}

void Source::Fail(const std::string& text, const std::string& debug) {
    m_bFailed = true;
    gst_element_message_full(Element(), GST_MESSAGE_ERROR, GST_RESOURCE_ERROR,
                             GST_RESOURCE_ERROR_READ, g_strdup(text.c_str()),
                             g_strdup(debug.c_str()), __FILE__, GST_FUNCTION, __LINE__);
    Item item;
    item.kind = Item::Kind::Failure;
    Enqueue(item);
}

void Source::PublishReady(bool queue) {
    if (!m_pPlacements) {
        return;
    }
    for (const kr7host::Shot& shot : m_pPlacements->TakeReady()) {
        Publish(shot, queue);
    }
}

void Source::Publish(const kr7host::Shot& shot, bool queue) {
    const kr7host::Image& image = shot.image;
    if (image.Empty()) {
        return;
    }
    const unsigned int number = ++m_nResults;
    const kr7host::Quality quality = kr7host::Measure(image);
    const std::size_t stride = RowStride(image.width);
    GstBuffer* buffer =
        gst_buffer_new_allocate(nullptr, stride * static_cast<std::size_t>(image.height), nullptr);
    GstMapInfo map;
    if (!gst_buffer_map(buffer, &map, GST_MAP_WRITE)) {
        gst_buffer_unref(buffer);
        return;
    }
    for (int y = 0; y < image.height; ++y) {
        guint8* row = map.data + stride * static_cast<std::size_t>(y);
        std::memcpy(row, image.Row(y), static_cast<std::size_t>(image.width));
        std::memset(row + image.width, 0, stride - static_cast<std::size_t>(image.width));
    }
    gst_buffer_unmap(buffer, &map);
    GST_BUFFER_PTS(buffer) = shot.time;
    GST_BUFFER_OFFSET(buffer) = static_cast<guint64>(shot.index);
    GST_BUFFER_OFFSET_END(buffer) = static_cast<guint64>(shot.index + 1);
    GstCaps* caps = FrameCaps(image.width, image.height);
    GstSample* sample = gst_sample_new(buffer, caps, nullptr, nullptr);
    GstStructure* structure = gst_structure_new(
        "kr7-result", "number", G_TYPE_UINT, number, "mode", G_TYPE_STRING, ModeName(m_eMode),
        "frame", G_TYPE_UINT64, static_cast<guint64>(shot.index), "timestamp", G_TYPE_UINT64,
        static_cast<guint64>(shot.time), "area", G_TYPE_DOUBLE, quality.area, "contrast",
        G_TYPE_DOUBLE, quality.contrast, "mean", G_TYPE_DOUBLE, quality.mean, "sample",
        GST_TYPE_SAMPLE, sample, nullptr);
    GST_INFO_OBJECT(m_pElement, "result %u: frame %" G_GINT64_FORMAT ", area %.2f, contrast %.2f",
                    number, shot.index, quality.area, quality.contrast);
    Release(buffer);  // read by whoever takes the message
    gst_element_post_message(Element(),
                             gst_message_new_element(GST_OBJECT_CAST(m_pElement), structure));
    if (queue && m_bResultsOnly) {
        // A buffer of its own (the same memory) for the stream: finger
        // results are never dropped.
        Item item;
        item.kind = Item::Kind::Result;
        item.buffer = gst_buffer_copy(buffer);
        item.width = image.width;
        item.height = image.height;
        Enqueue(item);
    }
    gst_sample_unref(sample);
    gst_caps_unref(caps);
    gst_buffer_unref(buffer);
}

// ---- the streaming thread ----------------------------------------------------------

GstFlowReturn Source::Create(GstBuffer** out) {
    Item item;
    bool preview = false;
    {
        // Taken first also to see what Start wrote (it releases this mutex
        // last).
        std::unique_lock<std::mutex> lock(m_QueueMutex);
        preview = m_eMode == vc::eCapturePreview;
        if (!preview) {
            m_bWaiting = true;
            m_QueueChanged.wait(lock, [this] { return m_bFlushing || !m_vItems.empty(); });
            m_bWaiting = false;
        }
        if (m_bFlushing) {
            return GST_FLOW_FLUSHING;
        }
        if (!preview) {
            item = m_vItems.front();
            m_vItems.erase(m_vItems.begin());
            if (item.kind == Item::Kind::Frame) {
                --m_nQueuedFrames;
            }
        }
    }
    if (preview) {
        const GstFlowReturn snapped = Snap(&item.buffer);
        if (snapped != GST_FLOW_OK) {
            return snapped;
        }
        item.width = m_nPoolWidth;
        item.height = m_nPoolHeight;
    }
    if (item.kind == Item::Kind::Failure) {
        return GST_FLOW_ERROR;  // posted when it happened
    }
    if (item.width != m_nCapsWidth || item.height != m_nCapsHeight) {
        m_nNextWidth = item.width;
        m_nNextHeight = item.height;
        gst_pad_mark_reconfigure(GST_BASE_SRC_PAD(m_pElement));
        if (!gst_base_src_negotiate(m_pElement)) {
            gst_buffer_unref(item.buffer);
            return GST_PAD_IS_FLUSHING(GST_BASE_SRC_PAD(m_pElement)) ? GST_FLOW_FLUSHING
                                                                     : GST_FLOW_NOT_NEGOTIATED;
        }
    }
    Release(item.buffer);  // downstream's now
    *out = item.buffer;
    return GST_FLOW_OK;
}

gboolean Source::Negotiate() {
    {
        // Called before the first create(): to see what Start wrote.
        std::lock_guard<std::mutex> lock(m_QueueMutex);
    }
    if (m_nNextWidth <= 0 || m_nNextHeight <= 0) {
        // No frame yet: the caps come with the first one.
        return TRUE;
    }
    GstCaps* caps = FrameCaps(m_nNextWidth, m_nNextHeight);
    GstCaps* peer = gst_pad_peer_query_caps(GST_BASE_SRC_PAD(m_pElement), caps);
    const bool accepted = peer == nullptr || !gst_caps_is_empty(peer);
    if (peer != nullptr) {
        gst_caps_unref(peer);
    }
    gboolean result = FALSE;
    if (accepted) {
        result = gst_base_src_set_caps(m_pElement, caps);
    } else {
        GST_ELEMENT_ERROR(m_pElement, STREAM, FORMAT,
                          ("Downstream does not accept the scanner's frames of %dx%d.",
                           m_nNextWidth, m_nNextHeight),
                          ("%" GST_PTR_FORMAT, caps));
    }
    if (result) {
        m_nCapsWidth = m_nNextWidth;
        m_nCapsHeight = m_nNextHeight;
    }
    gst_caps_unref(caps);
    return result;
}

GstCaps* Source::Caps(GstCaps* filter) {
    int width = 0, height = 0;
    {
        std::lock_guard<std::mutex> lock(m_QueueMutex);
        width = m_nWidth;
        height = m_nHeight;
    }
    GstCaps* caps = width > 0 ? FrameCaps(width, height)
                              : gst_pad_get_pad_template_caps(GST_BASE_SRC_PAD(m_pElement));
    if (filter != nullptr) {
        GstCaps* both = gst_caps_intersect_full(filter, caps, GST_CAPS_INTERSECT_FIRST);
        gst_caps_unref(caps);
        caps = both;
    }
    return caps;
}

GstFlowReturn Source::Snap(GstBuffer** out) {
    unsigned char* block = nullptr;
    const unsigned int result = m_pPlugin->Raw().GetImage(1, &block);
    if (result != 0) {
        const kr7host::Error error = m_pPlugin->Failure("GetImage", result);
        GST_ELEMENT_ERROR(m_pElement, RESOURCE, READ, ("%s", error.Text().c_str()),
                          ("%s; %s", error.what(), m_strDescription.c_str()));
        return GST_FLOW_ERROR;
    }
    const GstClockTime time = RunningTime();
    const kr7host::BitmapView view(block);
    GstFlowReturn flow = GST_FLOW_ERROR;
    GstBuffer* buffer = nullptr;
    if (!view.Valid()) {
        GST_ELEMENT_ERROR(m_pElement, STREAM, DECODE,
                          ("GetImage gave an image that is no 8-bit bitmap."), (NULL));
    } else if (FrameSize(view.Width(), view.Height())) {
        flow = gst_buffer_pool_acquire_buffer(m_pPool, &buffer, nullptr);
        if (flow == GST_FLOW_OK) {
            Acquire(buffer);  // back from downstream
        }
        GstMapInfo map;
        if (flow == GST_FLOW_OK && gst_buffer_map(buffer, &map, GST_MAP_WRITE)) {
            view.CopyTo(map.data, m_nStride);
            gst_buffer_unmap(buffer, &map);
            const std::int64_t index = m_nFrames++;
            GST_BUFFER_PTS(buffer) = time;
            GST_BUFFER_OFFSET(buffer) = static_cast<guint64>(index);
            GST_BUFFER_OFFSET_END(buffer) = static_cast<guint64>(index + 1);
            *out = buffer;
        } else if (flow == GST_FLOW_OK) {
            gst_buffer_unref(buffer);
            flow = GST_FLOW_ERROR;
        }
    }
    m_pPlugin->Raw().FreeImage(block);
    {
        // What this thread wrote becomes Stop's through the mutex.
        std::lock_guard<std::mutex> lock(m_QueueMutex);
    }
    return flow;
}

}  // namespace kr7gst
