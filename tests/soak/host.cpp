#include "host.h"

#include <dlfcn.h>

#include <cstdint>
#include <cstring>

namespace soak {

// ---- the plug-in ------------------------------------------------------------

Plugin::~Plugin() {
    std::string ignored;
    Unload(ignored);
}

bool Plugin::Load(std::string& error) {
    m_hLibrary = dlopen(m_strPath.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (m_hLibrary == nullptr) {
        error = dlerror();
        return false;
    }
    m_fpGet = reinterpret_cast<FGGetFrameGrabberFn>(dlsym(m_hLibrary, "GetFrameGrabber"));
    m_fpDestroy =
        reinterpret_cast<FGDestroyFrameGrabberFn>(dlsym(m_hLibrary, "DestroyFrameGrabber"));
    m_ppObject = static_cast<vc::ClFramegrabber**>(dlsym(m_hLibrary, "m_pFrameGrabber"));
    if (m_fpGet == nullptr || m_fpDestroy == nullptr || m_ppObject == nullptr) {
        error = "an entry point is missing in " + m_strPath;
        std::string ignored;
        Unload(ignored);
        return false;
    }
    return true;
}

bool Plugin::Unload(std::string& error) {
    if (m_hLibrary == nullptr) {
        return true;
    }
    const int closed = dlclose(m_hLibrary);
    m_hLibrary = nullptr;
    m_fpGet = nullptr;
    m_fpDestroy = nullptr;
    m_ppObject = nullptr;
    if (closed != 0) {
        const char* text = dlerror();
        error = text != nullptr ? text : "dlclose failed";
        return false;
    }
    return true;
}

// ---- images -------------------------------------------------------------------

bool PlausibleBitmap(const unsigned char* image) {
    if (image == nullptr) {
        return false;
    }
    std::int32_t header = 0;
    std::int32_t width = 0;
    std::int32_t height = 0;
    std::uint16_t bits = 0;
    std::memcpy(&header, image, 4);
    std::memcpy(&width, image + 4, 4);
    std::memcpy(&height, image + 8, 4);
    std::memcpy(&bits, image + 14, 2);
    return header == 40 && width > 100 && width < 10000 && height > 100 && height < 10000 &&
           bits == 8;
}

// ---- the ledger -----------------------------------------------------------------

namespace {
// The one ledger of the process; callbacks whose context is anything else
// are strays, counted here.
std::atomic<Ledger*> g_pLedger{nullptr};
}  // namespace

Ledger::Ledger() {
    g_pLedger = this;
}

Ledger::~Ledger() {
    g_pLedger = nullptr;
}

class Ledger::Visit {
public:
    Visit(void* user, int handle, unsigned int tag) : m_rLedger(*g_pLedger.load()) {
        if (user != &m_rLedger) {
            m_rLedger.m_nStrays.fetch_add(1);
        }
        // Entered first, checked second: Close stores the closed round
        // first and reads the count second, so of a callback racing with
        // the return of StopCapture one of the two sees the other.
        m_rLedger.m_nInside.fetch_add(1);
        if (handle <= m_rLedger.m_nClosedThrough.load()) {
            m_rLedger.m_nLate.fetch_add(1);
        }
        if (handle != m_rLedger.m_nOpenRound.load() || tag != 1) {
            m_rLedger.m_nStrays.fetch_add(1);
        }
    }
    ~Visit() {
        m_rLedger.m_nInside.fetch_sub(1);
        m_rLedger.Notify();
    }
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;

    Ledger& ledger() { return m_rLedger; }

private:
    Ledger& m_rLedger;
};

void Ledger::Notify() {
    { std::lock_guard<std::mutex> lock(m_WaitMutex); }
    m_Changed.notify_all();
}

void Ledger::Open(int round) {
    m_nRoundStarts = 0;
    m_nRoundStops = 0;
    m_nRoundImages = 0;
    m_nRoundResults = 0;
    m_nRoundErrors = 0;
    {
        std::lock_guard<std::mutex> lock(m_TextMutex);
        m_strRoundError.clear();
    }
    m_nOpenRound = round;
}

void Ledger::Close(int round) {
    m_nClosedThrough = round;
    if (m_nInside.load() != 0) {
        ++m_nLate;
    }
    const long starts = m_nRoundStarts.load();
    if (starts > 1 || starts != m_nRoundStops.load()) {
        ++m_nUnpaired;
    }
}

Tally Ledger::Totals() const {
    Tally tally;
    tally.starts = m_nStarts;
    tally.stops = m_nStops;
    tally.images = m_nImages;
    tally.results = m_nResults;
    tally.errors = m_nErrors;
    tally.warnings = m_nWarnings;
    tally.late = m_nLate;
    tally.strays = m_nStrays;
    tally.unpaired = m_nUnpaired;
    return tally;
}

std::map<std::string, long> Ledger::ErrorTexts() const {
    std::lock_guard<std::mutex> lock(m_TextMutex);
    return m_ErrorTexts;
}

std::string Ledger::RoundError() const {
    std::lock_guard<std::mutex> lock(m_TextMutex);
    return m_strRoundError;
}

void Ledger::OnImage(int handle, unsigned int tag, unsigned char* image, void* user) {
    Visit visit(user, handle, tag);
    Ledger& self = visit.ledger();
    if (!PlausibleBitmap(image)) {
        ++self.m_nStrays;
    }
    ++self.m_nImages;
    ++self.m_nRoundImages;
}

void Ledger::OnResult(int handle, unsigned int tag, int result, unsigned char* image, void* user) {
    Visit visit(user, handle, tag);
    Ledger& self = visit.ledger();
    if (result != vc::eCapturePlainFinger || !PlausibleBitmap(image)) {
        ++self.m_nStrays;
    }
    ++self.m_nResults;
    ++self.m_nRoundResults;
    const std::int64_t now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                 std::chrono::steady_clock::now().time_since_epoch())
                                 .count();
    const std::int64_t previous = self.m_nLastResultNs.exchange(now);
    if (previous == 0 || now - previous > std::chrono::nanoseconds(kEpisodeGap).count()) {
        ++self.m_nEpisodes;
    }
}

void Ledger::OnError(int handle, unsigned int tag, const char* text, void* user) {
    Visit visit(user, handle, tag);
    Ledger& self = visit.ledger();
    const std::string message = text != nullptr ? text : "(null)";
    {
        std::lock_guard<std::mutex> lock(self.m_TextMutex);
        ++self.m_ErrorTexts[message];
        if (self.m_strRoundError.empty()) {
            self.m_strRoundError = message;
        }
    }
    ++self.m_nErrors;
    ++self.m_nRoundErrors;
}

void Ledger::OnWarning(int handle, unsigned int tag, const char*, void* user) {
    Visit visit(user, handle, tag);
    ++visit.ledger().m_nWarnings;
}

void Ledger::OnStart(int handle, unsigned int tag, void* user) {
    Visit visit(user, handle, tag);
    ++visit.ledger().m_nStarts;
    ++visit.ledger().m_nRoundStarts;
}

void Ledger::OnStop(int handle, unsigned int tag, void* user) {
    Visit visit(user, handle, tag);
    ++visit.ledger().m_nStops;
    ++visit.ledger().m_nRoundStops;
}

unsigned int Ledger::Start(vc::ClFramegrabber& grabber, int round) {
    Open(round);
    return grabber.StartCapture(round, 1, vc::eCapturePlainFinger, &OnImage, &OnResult, &OnError,
                                &OnWarning, this);
}

}  // namespace soak
