// Test doubles for the capture channel: a device SDK that plays a script
// call by call and records what it is asked, a host that records its
// callbacks, and a detector that answers from a script.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "channel/channel.h"
#include "detection/image_detection.h"

namespace kr7test {

using Nvk::utilities::ClSimpleBitmap;

constexpr std::chrono::seconds kPatience{20};

// Waits on `cv` until `done()` or kPatience has passed; polls too, for
// conditions that change without a notification.
template <class Done>
bool Await(std::unique_lock<std::mutex>& lock, std::condition_variable& cv, Done done) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!done() && std::chrono::steady_clock::now() < deadline) {
        cv.wait_for(lock, std::chrono::milliseconds(1));
    }
    return done();
}

// An 8-bit grey frame of one value; its first pixel carries `stamp`.
inline void MakeFrame(ClSimpleBitmap& bitmap, long width, long height, unsigned char fill,
                      unsigned char stamp) {
    bitmap.Create(width, height, 8);
    std::memset(bitmap.Pixel(), fill, static_cast<std::size_t>(bitmap.PixelSize()));
    bitmap.Pixel()[0] = stamp;
}

struct TextlessError : Nvk::ClNorvakException {
    const char* What() const noexcept override { return nullptr; }
};
struct TextlessStdError : std::exception {
    const char* what() const noexcept override { return nullptr; }
};

// clang-format off
#define KR7_OPS(X)                                                                     \
    X(InitializeSDK) X(UninitializeSDK) X(SetActiveChannel) X(GetLiveBitmap)           \
    X(WaitForPlainFinger) X(StartLiveCapturing) X(StopLiveCapturing) X(IsDirty)        \
    X(HasSelfDetection) X(Lock) X(UnLock) X(TriggerImage)
// clang-format on
#define KR7_ENUM(name) name,
#define KR7_NAME(name) #name,
enum class Op { KR7_OPS(KR7_ENUM) };
inline const char* OpName(Op op) {
    static const char* const names[] = {KR7_OPS(KR7_NAME)};
    return names[static_cast<int>(op)];
}
inline void PrintTo(Op op, std::ostream* os) {
    *os << OpName(op);
}

// What one call of an operation does. Frame fills the bitmap (if the
// operation has one) with a frame of `fill` and returns `value`; Park waits
// until the channel stops; Pause is a Frame that then pauses the channel;
// the others throw. A gated action first waits for ScriptedSDK::Release(),
// even through a stop of the channel (as a device busy with a frame would).
struct Action {
    enum Kind { Frame, Warning, Error, TextlessError, StdError, TextlessStd, Park, Pause };
    Kind kind = Frame;
    unsigned char fill = 200;
    long width = 160;
    long height = 120;
    bool value = true;
    bool gated = false;
    std::string text;

    static Action Image(unsigned char f, long w = 160, long h = 120) {
        return {Frame, f, w, h, true, false, ""};
    }
    static Action Gated(unsigned char f) { return {Frame, f, 160, 120, true, true, ""}; }
    static Action Returns(bool v) { return {Frame, 200, 160, 120, v, false, ""}; }
    static Action Do(Kind k, std::string t = "") { return {k, 200, 160, 120, true, false, t}; }
};

// Each operation takes the next action of its queue, or its default.
class ScriptedSDK : public vc::ClFramegrabberSDK {
public:
    void Add(Op op, Action action, int times = 1) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Script[op].insert(m_Script[op].end(), times, action);
    }
    void SetDefault(Op op, Action action) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Defaults[op] = std::move(action);
    }
    void Release() {  // lets one gated action go
        std::lock_guard<std::mutex> lock(m_Mutex);
        ++m_nReleases;
    }
    std::vector<Op> Calls() const {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Calls;
    }
    std::vector<std::thread::id> CallThreads() const {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Threads;
    }
    int Count(Op op) const {
        const std::vector<Op> calls = Calls();
        return static_cast<int>(std::count(calls.begin(), calls.end(), op));
    }
    bool WaitForCalls(Op op, int n) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return Await(lock, m_Changed,
                     [&] { return std::count(m_Calls.begin(), m_Calls.end(), op) >= n; });
    }
    // Until a gated or parked action waits.
    bool WaitUntilWaiting() {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return Await(lock, m_Changed, [&] { return m_bWaiting; });
    }
    // A Lock while locked or an UnLock while unlocked shows as a depth
    // outside 0..1 at some point; the lock must end released.
    bool LockBalanced() const { return !m_bLockMisused && m_nLockDepth == 0; }

    using Channel = vc::ClFrameGrabberChannel;
    void InitializeSDK(Channel& c) override { Play(Op::InitializeSDK, &c, nullptr); }
    void UninitializeSDK(Channel& c) override { Play(Op::UninitializeSDK, &c, nullptr); }
    void SetActiveChannel(Channel& c, ClSimpleBitmap& b) override {
        Play(Op::SetActiveChannel, &c, &b);
    }
    void GetLiveBitmap(Channel& c, ClSimpleBitmap& b) override { Play(Op::GetLiveBitmap, &c, &b); }
    bool WaitForPlainFinger(Channel& c, ClSimpleBitmap& b) override {
        return Play(Op::WaitForPlainFinger, &c, &b);
    }
    void StartLiveCapturing(Channel& c) override { Play(Op::StartLiveCapturing, &c, nullptr); }
    void StopLiveCapturing(Channel& c) override { Play(Op::StopLiveCapturing, &c, nullptr); }
    bool IsDirty(Channel& c) override { return Play(Op::IsDirty, &c, nullptr); }
    bool HasSelfDetection(Channel& c) override { return Play(Op::HasSelfDetection, &c, nullptr); }
    bool Lock() override {
        const bool result = Play(Op::Lock, nullptr, nullptr);  // a throwing Lock takes nothing
        m_bLockMisused = m_bLockMisused || m_nLockDepth.fetch_add(1) != 0;
        return result;
    }
    void UnLock() override {
        // The lock is gone even when UnLock throws.
        m_bLockMisused = m_bLockMisused || m_nLockDepth.fetch_sub(1) != 1;
        Play(Op::UnLock, nullptr, nullptr);
    }
    void TriggerImage(Channel& c, ClSimpleBitmap& b) override { Play(Op::TriggerImage, &c, &b); }

private:
    bool Play(Op op, Channel* channel, ClSimpleBitmap* bitmap) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        m_Calls.push_back(op);
        m_Threads.push_back(std::this_thread::get_id());
        std::deque<Action>& queue = m_Script[op];
        Action action = queue.empty() ? Default(op) : queue.front();
        if (!queue.empty()) {
            queue.pop_front();
        }
        if (action.gated || action.kind == Action::Park) {
            m_bWaiting = true;
            m_Changed.notify_all();
            if (action.gated) {
                Await(lock, m_Changed, [&] { return m_nReleases > 0; });
                m_nReleases -= m_nReleases > 0 ? 1 : 0;
            } else {
                Await(lock, m_Changed, [&] { return !channel->IsRunning(); });
            }
            m_bWaiting = false;
        }
        m_Changed.notify_all();
        const unsigned char stamp = ++m_nStamp;
        lock.unlock();
        switch (action.kind) {
            case Action::Warning:
                throw vc::ClVCWarning(action.text, 5);
            case Action::Error:
                throw vc::ClVCException(action.text, 31);
            case Action::TextlessError:
                throw kr7test::TextlessError();
            case Action::StdError:
                throw std::runtime_error(action.text);
            case Action::TextlessStd:
                throw TextlessStdError();
            case Action::Park:
                return false;
            default:
                break;
        }
        if (bitmap != nullptr) {
            MakeFrame(*bitmap, action.width, action.height, action.fill, stamp);
        }
        if (action.kind == Action::Pause) {
            channel->SetPaused(true);
        }
        return action.value;
    }
    Action Default(Op op) const {
        const auto found = m_Defaults.find(op);
        if (found != m_Defaults.end()) {
            return found->second;
        }
        if (op == Op::IsDirty || op == Op::HasSelfDetection) {
            return Action::Returns(false);
        }
        return Action::Image(op == Op::SetActiveChannel ? 255 : 200);
    }

    mutable std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::map<Op, std::deque<Action>> m_Script;
    std::map<Op, Action> m_Defaults;
    std::vector<Op> m_Calls;
    std::vector<std::thread::id> m_Threads;
    int m_nReleases = 0;
    bool m_bWaiting = false;
    unsigned char m_nStamp = 0;
    std::atomic<int> m_nLockDepth{0};
    std::atomic<bool> m_bLockMisused{false};
};

// One host callback as received; images are read during the call.
struct Event {
    enum Kind { Start, Stop, Image, Result, Error, Warning };
    Event(Kind k, int h, unsigned int t, int r = 0, std::string x = "")
        : kind(k), handle(h), tag(t), result(r), text(std::move(x)) {}
    Kind kind;
    int handle;
    unsigned int tag;
    int result;
    std::string text;
    long width = 0;
    unsigned char middle = 0;  // the pixel in the middle of the image
    void* user = nullptr;
    std::thread::id thread = std::this_thread::get_id();
};

// The host. Its callbacks record into the Host passed as user pointer.
class Host {
public:
    static void OnImage(int h, unsigned int t, unsigned char* image, void* user) {
        Self(user).Record({Event::Image, h, t}, image, user);
    }
    static void OnResult(int h, unsigned int t, int result, unsigned char* image, void* user) {
        Self(user).Record({Event::Result, h, t, result}, image, user);
    }
    static void OnError(int h, unsigned int t, const char* text, void* user) {
        Self(user).Record({Event::Error, h, t, 0, text ? text : "(null)"}, nullptr, user);
    }
    static void OnWarning(int h, unsigned int t, const char* text, void* user) {
        Self(user).Record({Event::Warning, h, t, 0, text ? text : "(null)"}, nullptr, user);
    }
    static void OnStart(int h, unsigned int t, void* user) {
        Self(user).Record({Event::Start, h, t}, nullptr, user);
    }
    static void OnStop(int h, unsigned int t, void* user) {
        Self(user).Record({Event::Stop, h, t}, nullptr, user);
    }

    // Starts `channel` with all six callbacks of this host.
    bool Start(vc::ClFrameGrabberChannel& channel, vc::eCaptureModeIDs mode, int handle = 7) {
        channel.SetCallbacks(&Host::OnStart, &Host::OnStop);
        return channel.StartCapture(handle, mode, &Host::OnImage, &Host::OnResult, &Host::OnError,
                                    &Host::OnWarning, this);
    }
    std::vector<Event> Events() const {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Events;
    }
    std::vector<Event> Events(Event::Kind kind) const {
        std::vector<Event> selected;
        for (const Event& event : Events()) {
            if (event.kind == kind) {
                selected.push_back(event);
            }
        }
        return selected;
    }
    std::vector<Event::Kind> Kinds() const {
        std::vector<Event::Kind> kinds;
        for (const Event& event : Events()) {
            kinds.push_back(event.kind);
        }
        return kinds;
    }
    int Count(Event::Kind kind) const { return static_cast<int>(Events(kind).size()); }
    bool WaitFor(Event::Kind kind, int n) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return Await(lock, m_Changed, [&] {
            return std::count_if(m_Events.begin(), m_Events.end(),
                                 [&](const Event& e) { return e.kind == kind; }) >= n;
        });
    }
    std::function<void()> throwFromImage;  // set before the capture starts

private:
    static Host& Self(void* user) { return *static_cast<Host*>(user); }
    void Record(Event event, const unsigned char* image, void* user) {
        event.user = user;
        if (image != nullptr) {
            const auto* header = reinterpret_cast<const tagBITMAPINFOHEADER*>(image);
            event.width = header->biWidth;
            event.middle = ClSimpleBitmap::Pixel(
                header)[ClSimpleBitmap::BPRow(header->biWidth, 8) * (header->biHeight / 2) +
                        header->biWidth / 2];
        }
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_Events.push_back(event);
            m_Changed.notify_all();
        }
        if (event.kind == Event::Image && throwFromImage) {
            throwFromImage();
        }
    }

    mutable std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::vector<Event> m_Events;
};

// Each Detect takes the next (result, output fill, output width) answer; a
// width of 0 leaves the output empty.
class ScriptedDetection : public vc::ClImageDetection {
public:
    struct Answer {
        bool result;
        unsigned char fill;
        long width;
    };
    ScriptedDetection(vc::eCaptureModeIDs type, std::deque<Answer> answers)
        : m_eType(type), m_Answers(std::move(answers)) {}
    bool Detect(ClSimpleBitmap&, ClSimpleBitmap& output) override {
        if (m_Answers.empty()) {
            return false;
        }
        const Answer answer = m_Answers.front();
        m_Answers.pop_front();
        if (answer.width > 0) {
            MakeFrame(output, answer.width, 40, answer.fill, 0);
        }
        return answer.result;
    }
    vc::eCaptureModeIDs Type() const override { return m_eType; }

private:
    vc::eCaptureModeIDs m_eType;
    std::deque<Answer> m_Answers;
};

// A channel whose detector is swapped for `nextDetector` just before its
// thread starts, and whose thread start can be made to fail.
template <class Base>
class ProbeChannel : public Base {
public:
    std::unique_ptr<vc::ClImageDetection> nextDetector;
    bool failStart = false;

    bool Start() override {
        if (failStart) {
            return false;
        }
        if (nextDetector) {
            this->m_pDetection = std::move(nextDetector);
        }
        return Base::Start();
    }
    // Only while no worker runs.
    const ClSimpleBitmap& Background() const { return this->m_Background; }
    bool ProcessingDirty() const { return this->m_bProcessingDirty; }
    vc::ClImageMacroProcessor& Chain() { return this->m_Processor; }
};

// A second host thread with a small stack of its own: a thread with the
// library's default stack would go into the C library's stack cache and be
// handed to later threads that ask for less (the worker-thread tests look
// at the stack size they get).
class HostThread {
public:
    explicit HostThread(std::function<void()> body) : m_Body(std::move(body)) {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, 256 * 1024);
        m_bStarted = pthread_create(&m_Thread, &attributes, &HostThread::Run, this) == 0;
        pthread_attr_destroy(&attributes);
    }
    ~HostThread() { Join(); }
    void Join() {
        if (m_bStarted) {
            pthread_join(m_Thread, nullptr);
            m_bStarted = false;
        }
    }
    bool Done() const { return m_bDone; }

private:
    static void* Run(void* self) {
        static_cast<HostThread*>(self)->m_Body();
        static_cast<HostThread*>(self)->m_bDone = true;
        return nullptr;
    }
    std::function<void()> m_Body;
    pthread_t m_Thread{};
    bool m_bStarted = false;
    std::atomic<bool> m_bDone{false};
};

// Installs `sdk` as the channels' device SDK while the object lives.
struct SDKScope {
    explicit SDKScope(vc::ClFramegrabberSDK* sdk) {
        vc::ClFrameGrabberChannel::m_pFramegrabberSDK = sdk;
    }
    ~SDKScope() { vc::ClFrameGrabberChannel::m_pFramegrabberSDK = nullptr; }
};

}  // namespace kr7test
