#include "session.h"

#include <QMetaObject>
#include <utility>

namespace kr7viewer {

namespace {

// While the scanner is away a capture is tried again this often.
constexpr std::chrono::milliseconds kRetryPeriod(250);

}  // namespace

Session::Session(const Options& options, QObject* parent)
    : QObject(parent), m_Options(options), m_Thread([this] { Loop(); }) {}

Session::~Session() {
    {
        std::lock_guard<std::mutex> lock(m_JobMutex);
        m_bQuit = true;
    }
    m_JobsChanged.notify_all();
    m_Thread.join();
}

template <class F>
void Session::Later(F f) {
    // Runs on the interface thread; dropped when the session is gone.
    bool first = false;
    {
        std::lock_guard<std::mutex> lock(m_LaterMutex);
        first = m_vLater.empty();
        m_vLater.emplace_back(std::move(f));
    }
    if (first) {
        QMetaObject::invokeMethod(this, "RunLater", Qt::QueuedConnection);
    }
}

void Session::RunLater() {
    std::vector<Job> calls;
    {
        std::lock_guard<std::mutex> lock(m_LaterMutex);
        calls.swap(m_vLater);
    }
    for (Job& call : calls) {
        call();
    }
}

void Session::Post(Job job) {
    {
        std::lock_guard<std::mutex> lock(m_JobMutex);
        m_Jobs.push_back(std::move(job));
    }
    m_JobsChanged.notify_all();
}

void Session::Loop() {
    std::unique_lock<std::mutex> lock(m_JobMutex);
    for (;;) {
        if (m_bQuit) {
            break;
        }
        if (!m_Jobs.empty()) {
            Job job = std::move(m_Jobs.front());
            m_Jobs.pop_front();
            lock.unlock();
            job();
            lock.lock();
        } else if (m_Retry && Clock::now() >= *m_Retry) {
            m_Retry.reset();
            lock.unlock();
            DoRefresh();
            lock.lock();
        } else if (m_Retry) {
            m_JobsChanged.wait_until(lock, *m_Retry);
        } else {
            m_JobsChanged.wait(lock);
        }
    }
    lock.unlock();
    // The capture's worker is joined here, with no lock held.
    m_pCapture.reset();
    m_pPlugin.reset();
}

void Session::Open() {
    Post([this] { DoOpen(); });
}
void Session::Refresh() {
    Post([this] { DoRefresh(); });
}
void Session::Select(unsigned long interfaceNumber) {
    Post([this, interfaceNumber] {
        if (!m_pPlugin) {
            return;
        }
        const bool resume = m_pCapture != nullptr;
        DoStop();
        try {
            m_pPlugin->SelectDevice(interfaceNumber);
        } catch (const std::exception& e) {
            Fail(e);
        }
        DoRefresh();
        if (resume && !m_pCapture) {
            DoStart();
        }
    });
}

void Session::Start(vc::eCaptureModeIDs mode) {
    m_bWanted = true;
    Post([this, mode] {
        m_eMode = mode;
        DoStop();
        DoStart();
    });
}

void Session::Stop() {
    m_bWanted = false;
    Post([this] {
        {
            std::lock_guard<std::mutex> lock(m_JobMutex);
            m_Retry.reset();
        }
        DoStop();
    });
}

void Session::Snapshot() {
    Post([this] {
        Paused([this] {
            kr7host::Image image = m_pPlugin->Snap();
            Later([this, image] { emit snapshot(image); });
        });
    });
}

void Session::Contamination() {
    Post([this] {
        Paused([this] {
            const double value = m_pPlugin->Contamination();
            Later([this, value] { emit contamination(value); });
        });
    });
}

void Session::SetProperty(vc::ePropertyIDs property, bool on) {
    Post([this, property, on] {
        if (!m_pPlugin) {
            return;
        }
        try {
            m_pPlugin->SetProperty(property, on ? 100 : 0);
            if (property == vc::ePropFakeFingerDetection && m_pCapture) {
                // The plug-in applies it when a capture starts.
                DoStop();
                DoStart();
            }
        } catch (const std::exception& e) {
            Fail(e);
        }
    });
}

bool Session::Take(Frame& into, std::vector<Result>& results) {
    std::lock_guard<std::mutex> lock(m_FrameMutex);
    m_bNotified = false;
    for (Result& result : m_vResults) {
        results.push_back(std::move(result));
    }
    m_vResults.clear();
    if (!m_bFresh) {
        return false;
    }
    std::swap(into, m_Latest);
    m_bFresh = false;
    return true;
}

void Session::DoOpen() {
    DoStop();
    m_pPlugin.reset();
    try {
        m_pPlugin = std::make_unique<kr7host::Plugin>(m_Options.load);
        m_pPlugin->OnEvent([this](unsigned int, unsigned int type) {
            Later([this, type] { emit deviceEvent(type); });
        });
        if (m_Options.device) {
            m_pPlugin->SelectDevice(*m_Options.device);
        }
    } catch (const kr7host::LoadError& e) {
        std::string text = e.what();
        if (e.What() != kr7host::LoadError::Kind::VirtualScanner) {
            text += m_Options.load.virtualScanner
                        ? "\nName the plug-in file with --plugin PATH."
                        : "\nName the plug-in file with --plugin PATH, or start with --virtual "
                          "for the virtual scanner.";
        }
        m_pPlugin.reset();
        Later([this, text] { emit loadFailed(QString::fromStdString(text)); });
        return;
    } catch (const kr7host::Error& e) {
        std::string text = e.what();
        if (e.LibraryMissing() && !m_Options.load.virtualScanner) {
            text +=
                "\nThe scanner's libraries are not installed? Start with --virtual for the "
                "virtual scanner.";
        }
        m_pPlugin.reset();
        Later([this, text] { emit loadFailed(QString::fromStdString(text)); });
        return;
    } catch (const std::exception& e) {
        m_pPlugin.reset();
        Fail(e);
        return;
    }
    DoRefresh();
}

void Session::DoRefresh() {
    if (!m_pPlugin) {
        DoOpen();
        return;
    }
    ScannerInfo info;
    try {
        info.pluginFile = QString::fromStdString(m_pPlugin->File());
        info.pluginVersion = QString::fromStdString(m_pPlugin->Version());
        for (const vc::DeviceInfo& device : m_pPlugin->Devices()) {
            info.scanners << QStringLiteral("interface %1: %2")
                                 .arg(device.Index)
                                 .arg(QString::fromLatin1(device.SerialNumber));
            info.interfaces.push_back(device.Index);
        }
        if (!info.interfaces.empty()) {
            info.active = m_pPlugin->ActiveDevice();
            for (const std::string& text : m_pPlugin->Info()) {
                info.details << QString::fromStdString(text);
            }
        }
    } catch (const std::exception&) {
        // Unplugged while listing: the scanner counts as absent.
        info.interfaces.clear();
        info.scanners.clear();
    }
    Later([this, info] { emit opened(info); });
    if (info.interfaces.empty()) {
        if (m_bWanted) {
            std::lock_guard<std::mutex> lock(m_JobMutex);
            m_Retry = Clock::now() + kRetryPeriod;
        }
        return;
    }
    if (m_bWanted && !m_pCapture) {
        DoStart();
    }
}

void Session::DoStart() {
    if (!m_pPlugin || !m_bWanted) {
        return;
    }
    const long generation = ++m_nGeneration;
    const vc::eCaptureModeIDs mode = m_eMode;
    m_pCapture = std::make_unique<kr7host::Capture>(
        *m_pPlugin, kr7host::Capture::Options{1, mode, 1},
        [this](const kr7host::Delivery& delivery) { OnDelivery(delivery); });
    try {
        m_pCapture->Start(static_cast<int>(generation));
    } catch (const std::exception& e) {
        m_pCapture.reset();
        Fail(e, generation);
        std::lock_guard<std::mutex> lock(m_JobMutex);
        m_Retry = Clock::now() + kRetryPeriod;
        return;
    }
    Later([this, mode] { emit capturing(true, mode); });
}

void Session::DoStop() {
    if (!m_pCapture) {
        return;
    }
    const int mode = m_eMode;
    // StopCapture joins the plug-in's worker: no lock is held here.
    m_pCapture.reset();
    Later([this, mode] { emit capturing(false, mode); });
}

void Session::Ended(long generation) {
    // Only the capture still current; a later start has replaced an older one.
    if (!m_pCapture || generation != m_nGeneration) {
        return;
    }
    DoStop();
    if (m_bWanted) {
        std::lock_guard<std::mutex> lock(m_JobMutex);
        m_Retry = Clock::now() + kRetryPeriod;
    }
}

void Session::Fail(const std::exception& error, long generation) {
    const auto* plugin = dynamic_cast<const kr7host::Error*>(&error);
    const QString text = QString::fromStdString(plugin ? plugin->Text() : error.what());
    Later([this, text, generation] { emit failed(text, generation); });
}

void Session::Paused(const std::function<void()>& call) {
    if (!m_pPlugin) {
        return;
    }
    // The plug-in's calls must not run beside a capture.
    const bool resume = m_pCapture != nullptr;
    DoStop();
    try {
        call();
    } catch (const std::exception& e) {
        Fail(e);
    }
    if (resume) {
        DoStart();
    }
}

void Session::OnDelivery(const kr7host::Delivery& delivery) {
    // The plug-in's worker: copy, hand over, post; never wait for the view.
    const long generation = delivery.handle;
    switch (delivery.kind) {
        case kr7host::Kind::Image: {
            if (delivery.copy) {
                // The detector's copy of a frame without a finger: the view's
                // rate and drops are the scanner's frames.
                return;
            }
            ++m_nDelivered;
            if (!m_Incoming.Assign(delivery.image, kr7host::kScannerPpi)) {
                return;
            }
            bool notify = false;
            {
                std::lock_guard<std::mutex> lock(m_FrameMutex);
                if (m_bFresh) {
                    ++m_nDropped;
                }
                std::swap(m_Latest.image, m_Incoming);
                m_Latest.number = delivery.frame;
                m_Latest.generation = generation;
                m_bFresh = true;
                notify = !std::exchange(m_bNotified, true);
            }
            if (notify) {
                Later([this] { emit framesReady(); });
            }
            break;
        }
        case kr7host::Kind::Result: {
            Result result{kr7host::Image(delivery.image, kr7host::kScannerPpi), delivery.frame};
            bool notify = false;
            {
                std::lock_guard<std::mutex> lock(m_FrameMutex);
                m_vResults.push_back(std::move(result));
                notify = !std::exchange(m_bNotified, true);
            }
            if (notify) {
                Later([this] { emit framesReady(); });
            }
            break;
        }
        case kr7host::Kind::Error: {
            const QString text = QString::fromUtf8(delivery.text ? delivery.text : "");
            Later([this, text, generation] { emit failed(text, generation); });
            break;
        }
        case kr7host::Kind::Warning: {
            const QString text = QString::fromUtf8(delivery.text ? delivery.text : "");
            Later([this, text] { emit warning(text); });
            break;
        }
        case kr7host::Kind::Stop:
            // Ended by the plug-in (an error) or by us: the control thread
            // sorts it out; the capture cannot be stopped from here.
            Post([this, generation] { Ended(generation); });
            break;
        case kr7host::Kind::Start:
            break;
    }
}

}  // namespace kr7viewer
