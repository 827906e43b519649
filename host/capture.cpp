#include "kr7host/capture.h"

#include <algorithm>
#include <thread>
#include <vector>

namespace kr7host {

namespace {

// Every capture of the process, so that a callback's context is checked
// before it is used: a callback for a capture that is gone, or a context
// that was never one, is counted and dropped instead of followed.
struct Registry {
    std::mutex mutex;
    std::vector<const void*> captures;  // under mutex
    std::atomic<long> unclaimed{0};
};

Registry& Captures() {
    static Registry registry;
    return registry;
}

// The capture whose callback the current thread is in, if any.
thread_local const void* t_pInside = nullptr;

}  // namespace

// Entry and exit of every callback: finds the capture, counts the callback
// as under way (Stop and the destructor wait for it) and checks it.
class Capture::Visit {
public:
    Visit(void* user, int handle, unsigned int tag) {
        Registry& registry = Captures();
        {
            std::lock_guard<std::mutex> lock(registry.mutex);
            const auto& all = registry.captures;
            if (std::find(all.begin(), all.end(), user) != all.end()) {
                m_pCapture = static_cast<Capture*>(user);
                // Entered first, checked second: Stop marks the capture
                // closed first and counts what is under way second, so of a
                // callback racing with Stop's return one sees the other.
                m_pCapture->m_nInside.fetch_add(1);
            }
        }
        if (m_pCapture == nullptr) {
            registry.unclaimed.fetch_add(1);
            return;
        }
        m_pOuter = t_pInside;
        t_pInside = m_pCapture;
        if (m_pCapture->m_bClosed.load()) {
            m_pCapture->m_nLate.fetch_add(1);
        }
        if (handle != m_pCapture->m_nHandle.load() || tag != m_pCapture->m_Options.channel) {
            m_pCapture->m_nStrays.fetch_add(1);
        }
    }
    ~Visit() {
        if (m_pCapture != nullptr) {
            t_pInside = m_pOuter;
            m_pCapture->m_nInside.fetch_sub(1);
        }
    }
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;

    Capture* Target() const { return m_pCapture; }

private:
    Capture* m_pCapture = nullptr;
    const void* m_pOuter = nullptr;
};

Capture::Capture(Grabber& grabber, const Options& options, Handler handler)
    : m_rGrabber(grabber), m_Options(options), m_Handler(std::move(handler)) {
    Registry& registry = Captures();
    std::lock_guard<std::mutex> lock(registry.mutex);
    registry.captures.push_back(this);
}

Capture::~Capture() {
    if (m_bStarted) {
        try {
            Stop();
        } catch (const std::exception&) {
            // The plug-in keeps the failure as its last error.
        }
    }
    Registry& registry = Captures();
    {
        std::lock_guard<std::mutex> lock(registry.mutex);
        auto& all = registry.captures;
        all.erase(std::remove(all.begin(), all.end(), this), all.end());
    }
    // No callback finds this capture any more; let those under way finish
    // (but the one this thread may be in).
    while (m_nInside.load() > (t_pInside == this ? 1 : 0)) {
        std::this_thread::yield();
    }
}

long Capture::Unclaimed() {
    return Captures().unclaimed.load();
}

unsigned int Capture::Start(int handle) {
    const unsigned int channel = m_Options.channel;
    m_rGrabber.Check("SetCallbacks",
                     m_rGrabber->SetCallbacks(channel, &Capture::OnStart, &Capture::OnStop));
    m_nHandle.store(handle);
    m_nFrame.store(0);
    m_bFramePending.store(false);
    m_bStopped.store(false);
    m_bClosed.store(false);
    const unsigned int result =
        m_rGrabber->StartCapture(handle, channel, m_Options.mode, &Capture::OnImage,
                                 &Capture::OnResult, &Capture::OnError, &Capture::OnWarning, this);
    if (result != 0 && result != (vc::FGERR_FLAG | vc::FGERR_DETECTION_NOT_SUPPORTED)) {
        // A capture the plug-in did not start; nothing of it may come.
        m_rGrabber->StopCapture(channel);
        m_bClosed.store(true);
        throw m_rGrabber.Failure("StartCapture", result);
    }
    m_bStarted = true;
    return result;
}

void Capture::Stop() {
    const unsigned int result = m_rGrabber->StopCapture(m_Options.channel);
    if (t_pInside != this) {
        m_bStarted = false;
        m_bClosed.store(true);
        if (m_nInside.load() != 0) {
            m_nLate.fetch_add(1);
        }
    }
    m_rGrabber.Check("StopCapture", result);
}

Counts Capture::Totals() const {
    const auto of = [this](Kind kind) { return m_nByKind[static_cast<int>(kind)].load(); };
    Counts counts;
    counts.starts = of(Kind::Start);
    counts.stops = of(Kind::Stop);
    counts.images = of(Kind::Image);
    counts.results = of(Kind::Result);
    counts.errors = of(Kind::Error);
    counts.warnings = of(Kind::Warning);
    counts.dropped = m_nDropped.load();
    counts.strays = m_nStrays.load();
    counts.late = m_nLate.load();
    return counts;
}

std::optional<Event> Capture::Next(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(m_QueueMutex);
    if (!m_QueueChanged.wait_for(lock, timeout, [this] { return !m_Queue.empty(); })) {
        return std::nullopt;
    }
    Event event = std::move(m_Queue.front());
    m_Queue.pop_front();
    if (event.kind == Kind::Image) {
        --m_nQueuedImages;
    }
    return event;
}

// ---- the callbacks ------------------------------------------------------------

template <class Fill>
void Capture::Arrive(void* user, Kind kind, int handle, unsigned int tag, Fill fill) {
    Visit visit(user, handle, tag);
    Capture* self = visit.Target();
    if (self == nullptr) {
        return;
    }
    Delivery delivery;
    delivery.kind = kind;
    delivery.handle = handle;
    delivery.tag = tag;
    fill(*self, delivery);
    self->m_nByKind[static_cast<int>(kind)].fetch_add(1);
    self->Deliver(delivery);
    if (kind == Kind::Stop) {
        self->m_bStopped.store(true);
    }
}

void Capture::OnImage(int handle, unsigned int tag, unsigned char* image, void* user) {
    Arrive(user, Kind::Image, handle, tag, [image](Capture& self, Delivery& delivery) {
        delivery.frame = self.m_nFrame.fetch_add(1);
        delivery.image = BitmapView(image);
        const vc::eCaptureModeIDs mode = self.m_Options.mode;
        if (mode == vc::eCapturePlainFinger || mode == vc::eCaptureFastPlainFinger) {
            // Callbacks come one at a time, from the plug-in's worker.
            const bool pending = self.m_bFramePending.load();
            self.m_bFramePending.store(!pending);
            delivery.copy = pending;
        }
    });
}

void Capture::OnResult(int handle, unsigned int tag, int result, unsigned char* image, void* user) {
    Arrive(user, Kind::Result, handle, tag, [result, image](Capture& self, Delivery& delivery) {
        delivery.result = result;
        delivery.frame = self.m_nFrame.load() - 1;
        delivery.image = BitmapView(image);
        self.m_bFramePending.store(false);
        if (result != self.m_Options.mode) {
            self.m_nStrays.fetch_add(1);
        }
    });
}

void Capture::OnError(int handle, unsigned int tag, const char* text, void* user) {
    Arrive(user, Kind::Error, handle, tag,
           [text](Capture&, Delivery& delivery) { delivery.text = text; });
}

void Capture::OnWarning(int handle, unsigned int tag, const char* text, void* user) {
    Arrive(user, Kind::Warning, handle, tag,
           [text](Capture&, Delivery& delivery) { delivery.text = text; });
}

void Capture::OnStart(int handle, unsigned int tag, void* user) {
    Arrive(user, Kind::Start, handle, tag, [](Capture&, Delivery&) {});
}

void Capture::OnStop(int handle, unsigned int tag, void* user) {
    Arrive(user, Kind::Stop, handle, tag, [](Capture&, Delivery&) {});
}

void Capture::Deliver(const Delivery& delivery) {
    if ((delivery.kind == Kind::Image || delivery.kind == Kind::Result) &&
        !delivery.image.Valid()) {
        m_nStrays.fetch_add(1);
    }
    if (m_Handler) {
        m_Handler(delivery);
    } else {
        Queue(delivery);
    }
}

void Capture::Queue(const Delivery& delivery) {
    Event event;
    static_cast<Call&>(event) = delivery;
    if (delivery.text != nullptr) {
        event.text = delivery.text;
    }
    const bool live = delivery.kind == Kind::Image;
    if (live) {
        // The buffer of a frame dropped before, if there is one.
        std::lock_guard<std::mutex> lock(m_QueueMutex);
        std::swap(event.image, m_Spare);
    }
    // The one copy, outside the lock: the host thread is never kept waiting.
    event.image.Assign(delivery.image, kScannerPpi);
    {
        std::lock_guard<std::mutex> lock(m_QueueMutex);
        if (live && m_nQueuedImages >= std::max<std::size_t>(m_Options.liveFrames, 1)) {
            const auto oldest = std::find_if(m_Queue.begin(), m_Queue.end(),
                                             [](const Event& e) { return e.kind == Kind::Image; });
            m_Spare = std::move(oldest->image);
            m_Queue.erase(oldest);
            --m_nQueuedImages;
            m_nDropped.fetch_add(1);
        }
        m_nQueuedImages += live ? 1 : 0;
        m_Queue.push_back(std::move(event));
    }
    m_QueueChanged.notify_one();
}

}  // namespace kr7host
