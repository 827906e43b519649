#include "session.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <system_error>

namespace kr7py {

namespace {

using Clock = std::chrono::steady_clock;

bool IsFolder(const std::string& path) {
    std::error_code error;
    return std::filesystem::is_directory(path, error);
}

bool IsFile(const std::string& path) {
    std::error_code error;
    return std::filesystem::is_regular_file(path, error);
}

std::string Resolved(const std::string& path) {
    char* real = realpath(path.c_str(), nullptr);
    const std::string resolved = real != nullptr ? real : path;
    std::free(real);
    return resolved;
}

// The open sessions by plug-in file: the plug-in has one frame grabber per
// process, which a second session would destroy under the first.
struct Registry {
    std::mutex mutex;
    std::map<std::string, std::weak_ptr<Session>> open;  // under mutex
};

Registry& Sessions() {
    static Registry* registry = new Registry;  // outlives every session
    return *registry;
}

kr7host::Options LoadOptions(const Defaults& defaults, const OpenOptions& options) {
    kr7host::Options load;
    load.virtualScanner = options.virtualScanner;
    load.plugin = options.plugin;
    if (load.plugin.empty()) {
        load.plugin = options.virtualScanner && !defaults.plugin.empty()
                          ? defaults.plugin
                          : kr7host::DefaultPlugin(options.virtualScanner);
    }
    const char* folder = std::getenv("KR7_SIM_DIR");
    if (options.virtualScanner && (folder == nullptr || *folder == '\0')) {
        load.simFolder = defaults.simFolder;  // empty: kr7host's search
    }
    return load;
}

// The registry's key of a plug-in file: a path resolved, a bare name as it is.
std::string KeyOf(const std::string& file) {
    return file.find('/') == std::string::npos ? file : Resolved(file);
}

}  // namespace

Defaults FindDefaults() {
    Defaults defaults;
    defaults.moduleFolder = kr7host::FolderOf(reinterpret_cast<const void*>(&FindDefaults));
    const std::string& here = defaults.moduleFolder;
#if defined(KR7_BUILD_MODULE_DIR) && defined(KR7_BUILD_PLUGIN) && defined(KR7_BUILD_SIM_DIR)
    // The module where the build put it takes the plug-in and stand-ins
    // built there (an installation staged inside the build tree does not).
    if (!here.empty() && here == Resolved(KR7_BUILD_MODULE_DIR)) {
        if (IsFile(KR7_BUILD_PLUGIN)) {
            defaults.plugin = KR7_BUILD_PLUGIN;
        }
        if (IsFolder(KR7_BUILD_SIM_DIR)) {
            defaults.simFolder = KR7_BUILD_SIM_DIR;
        }
        return defaults;
    }
#endif
#ifdef KR7_SIM_FROM_MODULE
    // An installed module takes the stand-ins installed with it, wherever
    // the installation sits.
    if (!here.empty() && IsFolder(here + "/" + KR7_SIM_FROM_MODULE)) {
        defaults.simFolder = Resolved(here + "/" + KR7_SIM_FROM_MODULE);
    }
#endif
    return defaults;
}

namespace pool {

namespace {
constexpr std::size_t kKept = 8;
std::mutex g_Mutex;
std::vector<std::vector<std::uint8_t>>* g_pKept =
    new std::vector<std::vector<std::uint8_t>>;  // under g_Mutex; outlives every array
}  // namespace

std::vector<std::uint8_t> Take() {
    std::lock_guard<std::mutex> lock(g_Mutex);
    if (g_pKept->empty()) {
        return {};
    }
    std::vector<std::uint8_t> pixels = std::move(g_pKept->back());
    g_pKept->pop_back();
    return pixels;
}

void Give(std::vector<std::uint8_t>&& pixels) {
    if (pixels.capacity() == 0) {
        return;
    }
    std::vector<std::uint8_t> dropped;  // freed outside the lock when not kept
    std::lock_guard<std::mutex> lock(g_Mutex);
    if (g_pKept->size() < kKept) {
        g_pKept->push_back(std::move(pixels));
    } else {
        dropped = std::move(pixels);
    }
}

}  // namespace pool

void CloseAll() {
    std::vector<std::shared_ptr<Session>> open;
    {
        Registry& registry = Sessions();
        std::lock_guard<std::mutex> lock(registry.mutex);
        for (const auto& entry : registry.open) {
            if (std::shared_ptr<Session> session = entry.second.lock()) {
                open.push_back(std::move(session));
            }
        }
    }
    for (const std::shared_ptr<Session>& session : open) {
        session->Close();
    }
}

// ---- the session ----------------------------------------------------------------

Session::Session(const std::string& key, const OpenOptions& options, const kr7host::Options& load)
    : m_strKey(key), m_bVirtual(options.virtualScanner) {
    m_pLibrary = std::make_unique<kr7host::Library>(load);
    m_strFile = m_pLibrary->File();
    m_pGrabber = std::make_unique<kr7host::Grabber>(*m_pLibrary);
    if (options.device) {
        m_pGrabber->SelectDevice(*options.device);
    }
}

std::shared_ptr<Session> Session::Open(const Defaults& defaults, const OpenOptions& options) {
    const kr7host::Options load = LoadOptions(defaults, options);
    const std::string key = KeyOf(load.plugin);
    Registry& registry = Sessions();
    std::lock_guard<std::mutex> lock(registry.mutex);
    const auto found = registry.open.find(key);
    if (found != registry.open.end()) {
        const std::shared_ptr<Session> other = found->second.lock();
        if (other && !other->Closed()) {
            throw Refused("the plug-in " + load.plugin +
                          " is open already in this process (one kr7.open at a time: the "
                          "plug-in has one frame grabber); close that scanner first");
        }
        registry.open.erase(found);
    }
    std::shared_ptr<Session> session(new Session(key, options, load));
    registry.open[key] = session;
    return session;
}

std::shared_ptr<Session> Session::Find(const Defaults& defaults, const OpenOptions& options) {
    const std::string key = KeyOf(LoadOptions(defaults, options).plugin);
    Registry& registry = Sessions();
    std::lock_guard<std::mutex> lock(registry.mutex);
    const auto found = registry.open.find(key);
    if (found == registry.open.end()) {
        return nullptr;
    }
    std::shared_ptr<Session> session = found->second.lock();
    return session && !session->Closed() ? session : nullptr;
}

Session::~Session() {
    Close();
}

bool Session::Closed() const {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return !m_pGrabber;
}

void Session::Close() {
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        if (!m_pGrabber) {
            return;
        }
        if (m_pActive != nullptr) {
            try {
                m_pActive->Halt("closed");
            } catch (const std::exception&) {
                // Closing goes on: Uninitialize stops every capture.
            }
        }
        m_pGrabber.reset();  // Uninitialize, DestroyFrameGrabber
        m_pLibrary.reset();  // dlclose, the plug-in first
    }
    Registry& registry = Sessions();
    std::lock_guard<std::mutex> lock(registry.mutex);
    const auto found = registry.open.find(m_strKey);
    if (found != registry.open.end()) {
        const std::shared_ptr<Session> current = found->second.lock();
        if (!current || current.get() == this) {
            registry.open.erase(found);
        }
    }
}

std::vector<DeviceEntry> Session::Devices() {
    return Run([](kr7host::Grabber& grabber) {
        const std::vector<vc::DeviceInfo> devices = grabber.Devices();
        const unsigned long active = devices.empty() ? 0 : grabber.ActiveDevice();
        std::vector<DeviceEntry> entries;
        for (const vc::DeviceInfo& device : devices) {
            entries.push_back({device.Index, device.SerialNumber, device.Index == active});
        }
        return entries;
    });
}

// ---- the capture ------------------------------------------------------------------

Stream::Stream(std::shared_ptr<Session> session, const Options& options)
    : m_pSession(std::move(session)),
      m_Options(options),
      m_Placements(options.mode, options.count < 0 || options.count > INT_MAX
                                     ? INT_MAX
                                     : static_cast<int>(options.count)) {}

Stream::~Stream() {
    try {
        Stop("closed");
    } catch (const std::exception&) {
        // The plug-in keeps the failure as its last error.
    }
    std::lock_guard<std::mutex> lock(m_pSession->m_Mutex);
    if (m_pSession->m_pActive == this) {
        m_pSession->m_pActive = nullptr;
    }
}

std::string Stream::Stopped() const {
    std::lock_guard<std::mutex> lock(m_StateMutex);
    return m_strStopped;
}

long Stream::Frames() const {
    return m_pCapture ? m_pCapture->Totals().images : 0;
}

long Stream::Dropped() const {
    return m_nDropped.load();
}

void Stream::Start() {
    Session& session = *m_pSession;
    std::lock_guard<std::mutex> lock(session.m_Mutex);
    if (!session.m_pGrabber) {
        throw Refused("the scanner is closed");
    }
    if (session.m_pActive != nullptr) {
        throw Refused(
            "a capture is running on this scanner; close its generator (or let it finish) "
            "before starting another");
    }
    kr7host::Capture::Options options;
    options.mode = m_Options.mode;
    options.liveFrames = m_Options.keep;
    m_pCapture = std::make_unique<kr7host::Capture>(
        *session.m_pGrabber, options,
        [this](const kr7host::Delivery& delivery) { OnDelivery(delivery); });
    m_Start = Clock::now();
    m_pCapture->Start(1);  // a mode the plug-in does not list runs all the same
    m_bStarted = true;
    session.m_pActive = this;
}

void Stream::Halt(const char* why) {
    {
        std::lock_guard<std::mutex> lock(m_StateMutex);
        if (m_strStopped.empty()) {
            m_strStopped = why;
        }
    }
    if (m_pSession->m_pActive != this) {
        return;
    }
    m_pSession->m_pActive = nullptr;
    m_bHalted.store(true);
    // When this returns the plug-in calls back no more for this capture.
    m_pCapture->Stop();
}

void Stream::Stop(const char* why) {
    {
        std::lock_guard<std::mutex> lock(m_pSession->m_Mutex);
        Halt(why);
    }
    if (m_bStarted && !m_bOver) {
        Drain();
    }
    const std::string reason = why;
    if (reason == "closed" || reason == "interrupted") {
        m_Pending.clear();  // a closed generator hands over nothing more
    }
    m_bOver = true;
}

bool Stream::TimedOut() const {
    return m_Options.timeout >= 0 &&
           Clock::now() - m_Start >= std::chrono::duration<double>(m_Options.timeout);
}

void Stream::Drain() {
    std::lock_guard<std::mutex> lock(m_ReadyMutex);
    for (Item& item : m_Ready) {
        m_Pending.push_back(std::move(item));
    }
    m_Ready.clear();
    m_nReadyFrames = 0;
    if (m_Options.kind == Kind::Results) {
        // The placement still on the platen when the capture ended (no
        // callback runs any more).
        m_Placements.Close();
        for (kr7host::Shot& shot : m_Placements.TakeReady()) {
            Item item;
            item.what = Item::What::Result;
            item.image = std::move(shot.image);
            item.quality = shot.quality;
            item.frame = shot.frame;
            m_Pending.push_back(std::move(item));
        }
    }
}

Item Stream::Wait(std::chrono::milliseconds slice) {
    if (!m_bStarted && !m_bOver) {
        if (m_Options.count == 0) {
            m_bOver = true;
            std::lock_guard<std::mutex> lock(m_StateMutex);
            m_strStopped = "count";
        } else {
            try {
                Start();
            } catch (...) {
                m_bOver = true;  // a generator that failed to start is finished
                throw;
            }
        }
    }
    for (;;) {
        const long long limit = m_Options.count < 0 ? LLONG_MAX : m_Options.count;
        if (!m_Pending.empty() && m_nHanded < limit) {
            Item item = std::move(m_Pending.front());
            m_Pending.pop_front();
            if (item.what == Item::What::Result || item.what == Item::What::Frame) {
                ++m_nHanded;
                if (item.what == Item::What::Result) {
                    item.number = m_nHanded;
                }
                if (m_nHanded == limit && !m_bOver) {
                    // The last one wanted: the capture stops before it is handed over.
                    try {
                        Stop("count");
                    } catch (const kr7host::Error& e) {
                        m_StopFailure = e;
                    }
                }
            }
            return item;
        }
        m_Pending.clear();
        if (m_bOver) {
            if (m_StopFailure) {
                const kr7host::Error failure = *m_StopFailure;
                m_StopFailure.reset();
                throw failure;
            }
            if (m_Failure) {
                const CaptureFailed failure = *m_Failure;
                m_Failure.reset();
                throw failure;
            }
            Item end;
            end.what = Item::What::End;
            return end;
        }
        if (m_bHalted.load()) {
            // Stopped from outside (the session closed): what came before
            // the stop is not handed over.
            Stop("closed");
            m_Pending.clear();
            continue;
        }
        if (m_Options.count >= 0 && m_nHanded >= m_Options.count) {
            Stop("count");
            m_Pending.clear();
            continue;
        }
        Item item = Take(slice);
        if (item.what != Item::What::Nothing) {
            m_Pending.push_back(std::move(item));
            continue;
        }
        std::string error;
        bool ended = false;
        {
            std::lock_guard<std::mutex> lock(m_ReadyMutex);
            error = m_strError;
            ended = m_bEnded;
        }
        if (!error.empty() || ended) {
            Stop(error.empty() ? "ended" : "error");
            m_Failure = error.empty() ? CaptureFailed(0, "the plug-in ended the capture")
                                      : CaptureFailed(kr7host::NumberOfText(error), error);
            continue;
        }
        if (TimedOut()) {
            Stop("timeout");
            continue;
        }
        return Item();
    }
}

// One item from the capture, waiting up to `slice`.
Item Stream::Take(std::chrono::milliseconds slice) {
    Item item;
    std::unique_lock<std::mutex> lock(m_ReadyMutex);
    m_ReadyChanged.wait_for(lock, slice, [this] {
        return !m_Ready.empty() || !m_strError.empty() || m_bEnded || m_bHalted.load();
    });
    if (!m_Ready.empty()) {
        item = std::move(m_Ready.front());
        m_Ready.pop_front();
        m_nReadyFrames -= item.what == Item::What::Frame ? 1 : 0;
    }
    return item;
}

// A frame beyond `keep` pushes the oldest one out.
void Stream::Push(Item&& item) {
    if (item.what == Item::What::Frame) {
        if (m_nReadyFrames >= m_Options.keep) {
            const auto oldest = std::find_if(m_Ready.begin(), m_Ready.end(), [](const Item& i) {
                return i.what == Item::What::Frame;
            });
            pool::Give(std::move(oldest->image.pixels));
            m_Ready.erase(oldest);
            --m_nReadyFrames;
            m_nDropped.fetch_add(1);
        }
        ++m_nReadyFrames;
    }
    m_Ready.push_back(std::move(item));
}

// Every callback, on the plug-in's worker thread.
void Stream::OnDelivery(const kr7host::Delivery& delivery) {
    if (m_Options.kind == Kind::Frames && delivery.kind == kr7host::Kind::Image) {
        Item item;
        item.what = Item::What::Frame;
        item.number = delivery.frame + 1;
        // The one copy, into a buffer of an earlier frame when one is free.
        item.image.pixels = pool::Take();
        if (!item.image.Assign(delivery.image, kr7host::kScannerPpi)) {
            return;
        }
        {
            std::lock_guard<std::mutex> lock(m_ReadyMutex);
            Push(std::move(item));
        }
        m_ReadyChanged.notify_one();
        return;
    }
    switch (delivery.kind) {
        case kr7host::Kind::Image:
            // The detector's copy of a frame has the frame's measure.
            if (m_Options.kind == Kind::Results &&
                (delivery.copy || m_Scratch.Assign(delivery.image, kr7host::kScannerPpi))) {
                if (!delivery.copy) {
                    m_FrameQuality = kr7host::Measure(m_Scratch);
                }
                kr7host::Shot shot;
                shot.quality = m_FrameQuality;
                shot.frame = delivery.frame;
                m_Placements.Frame(std::move(shot));
            }
            break;
        case kr7host::Kind::Result: {
            kr7host::Image image(delivery.image, kr7host::kScannerPpi);
            if (!image.Empty()) {
                m_Placements.Result(kr7host::Measured(std::move(image), delivery.frame));
            }
            break;
        }
        case kr7host::Kind::Error: {
            std::lock_guard<std::mutex> lock(m_ReadyMutex);
            if (m_strError.empty()) {
                m_strError = delivery.text != nullptr && *delivery.text != '\0'
                                 ? delivery.text
                                 : "unknown capture error";
            }
            break;
        }
        case kr7host::Kind::Warning: {
            Item item;
            item.what = Item::What::Warning;
            item.text = delivery.text != nullptr ? delivery.text : "";
            std::lock_guard<std::mutex> lock(m_ReadyMutex);
            Push(std::move(item));
            break;
        }
        case kr7host::Kind::Stop: {
            std::lock_guard<std::mutex> lock(m_ReadyMutex);
            m_bEnded = true;
            break;
        }
        case kr7host::Kind::Start:
            return;
    }
    if (m_Options.kind != Kind::Results) {
        m_ReadyChanged.notify_one();
        return;
    }
    std::vector<kr7host::Shot> ready = m_Placements.TakeReady();
    {
        std::lock_guard<std::mutex> lock(m_ReadyMutex);
        for (kr7host::Shot& shot : ready) {
            Item item;
            item.what = Item::What::Result;
            item.image = std::move(shot.image);
            item.quality = shot.quality;
            item.frame = shot.frame;
            Push(std::move(item));
        }
    }
    m_ReadyChanged.notify_one();
}

}  // namespace kr7py
