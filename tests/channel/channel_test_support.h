// Test doubles for the capture channel: a device SDK that plays a script
// frame by frame and records the calls it gets, a host that records its
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
#include "framegrabber/errors.h"
#include "image/simple_bitmap.h"

namespace kr7test {

using Nvk::utilities::ClSimpleBitmap;

constexpr std::chrono::seconds kPatience{20};

// An 8-bit grey frame of one value; its first pixel carries `stamp`.
inline void MakeFrame(ClSimpleBitmap& bitmap, long width, long height, unsigned char fill,
                      unsigned char stamp) {
    if (bitmap.Width() != width || bitmap.Height() != height || bitmap.BitCount() != 8) {
        bitmap.Create(width, height, 8);
    }
    std::memset(bitmap.Pixel(), fill, static_cast<std::size_t>(bitmap.PixelSize()));
    bitmap.Pixel()[0] = stamp;
}

// A family error whose What() has no text.
class TextlessError : public Nvk::ClNorvakException {
public:
    const char* What() const noexcept override { return nullptr; }
};

// A standard exception whose what() has no text.
class TextlessStdError : public std::exception {
public:
    const char* what() const noexcept override { return nullptr; }
};

enum class Op {
    InitializeSDK,
    UninitializeSDK,
    SetActiveChannel,
    GetLiveBitmap,
    WaitForPlainFinger,
    StartLiveCapturing,
    StopLiveCapturing,
    IsDirty,
    HasSelfDetection,
    Lock,
    UnLock,
    TriggerImage,
};

const char* OpName(Op op);
inline void PrintTo(Op op, std::ostream* os) {
    *os << OpName(op);
}

// What one call of an operation does.
struct Action {
    enum Kind {
        Frame,          // image operations: fill the bitmap; bool operations: return `value`
        Warning,        // throw vc::ClVCWarning(text)
        Error,          // throw vc::ClVCException(text)
        TextlessError,  // throw a family error without text
        StdError,       // throw std::runtime_error(text)
        TextlessStd,    // throw a standard exception without text
        Park,           // wait until the channel stops running, then return
        Pause,          // fill as Frame, then pause the channel
    };
    Kind kind = Frame;
    std::string text;
    unsigned char fill = 200;
    long width = 160;
    long height = 120;
    bool value = true;
    bool gated = false;  // wait for ScriptedSDK::Release() before acting

    static Action Image(unsigned char fill, long width = 160, long height = 120) {
        Action a;
        a.fill = fill;
        a.width = width;
        a.height = height;
        return a;
    }
    static Action Gated(unsigned char fill) {
        Action a = Image(fill);
        a.gated = true;
        return a;
    }
    static Action Returns(bool value) {
        Action a;
        a.value = value;
        return a;
    }
    static Action Throws(Kind kind, std::string text = std::string()) {
        Action a;
        a.kind = kind;
        a.text = std::move(text);
        return a;
    }
    static Action ParkUntilStopped() {
        Action a;
        a.kind = Park;
        return a;
    }
};

// A device that plays a script: each operation takes the next action from
// its queue, or its default when the queue is empty. Records every call.
class ScriptedSDK : public vc::ClFramegrabberSDK {
public:
    ScriptedSDK() = default;

    // Script and defaults are set up before the capture starts.
    void Add(Op op, Action action) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Script[op].push_back(std::move(action));
    }
    void Add(Op op, int times, const Action& action) {
        for (int i = 0; i < times; ++i) {
            Add(op, action);
        }
    }
    void SetDefault(Op op, Action action) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Defaults[op] = std::move(action);
    }
    // Lets one gated action go.
    void Release() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        ++m_nReleases;
        m_Changed.notify_all();
    }
    // Ends a Park at once (as well as a stop of the channel does).
    void Unpark() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_bUnparked = true;
        m_Changed.notify_all();
    }

    std::vector<Op> Calls() const {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Calls;
    }
    int Count(Op op) const {
        std::lock_guard<std::mutex> lock(m_Mutex);
        int n = 0;
        for (Op call : m_Calls) {
            n += call == op ? 1 : 0;
        }
        return n;
    }
    // Waits until `op` has been called at least `n` times.
    bool WaitForCalls(Op op, int n) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Changed.wait_for(lock, kPatience, [&] {
            int count = 0;
            for (Op call : m_Calls) {
                count += call == op ? 1 : 0;
            }
            return count >= n;
        });
    }
    // Waits until a gated or parked action is waiting.
    bool WaitUntilWaiting() {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Changed.wait_for(lock, kPatience, [&] { return m_bWaiting; });
    }
    int LockDepth() const { return m_nLockDepth.load(); }
    // A Lock while locked or an UnLock while unlocked was seen.
    bool LockMisused() const { return m_bLockMisused.load(); }
    // The thread of each recorded call.
    std::vector<std::thread::id> CallThreads() const {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_CallThreads;
    }

    void InitializeSDK(vc::ClFrameGrabberChannel& channel) override {
        Play(Op::InitializeSDK, channel, nullptr);
    }
    void UninitializeSDK(vc::ClFrameGrabberChannel& channel) override {
        Play(Op::UninitializeSDK, channel, nullptr);
    }
    void SetActiveChannel(vc::ClFrameGrabberChannel& channel, ClSimpleBitmap& bitmap) override {
        Play(Op::SetActiveChannel, channel, &bitmap);
    }
    void GetLiveBitmap(vc::ClFrameGrabberChannel& channel, ClSimpleBitmap& bitmap) override {
        Play(Op::GetLiveBitmap, channel, &bitmap);
    }
    bool WaitForPlainFinger(vc::ClFrameGrabberChannel& channel, ClSimpleBitmap& bitmap) override {
        return Play(Op::WaitForPlainFinger, channel, &bitmap);
    }
    void StartLiveCapturing(vc::ClFrameGrabberChannel& channel) override {
        Play(Op::StartLiveCapturing, channel, nullptr);
    }
    void StopLiveCapturing(vc::ClFrameGrabberChannel& channel) override {
        Play(Op::StopLiveCapturing, channel, nullptr);
    }
    bool IsDirty(vc::ClFrameGrabberChannel& channel) override {
        return Play(Op::IsDirty, channel, nullptr);
    }
    bool HasSelfDetection(vc::ClFrameGrabberChannel& channel) override {
        return Play(Op::HasSelfDetection, channel, nullptr);
    }
    bool Lock() override {
        // A Lock that throws takes no lock.
        const bool result = Play(Op::Lock, nullptr, nullptr);
        if (m_nLockDepth.fetch_add(1) != 0) {
            m_bLockMisused = true;
        }
        return result;
    }
    void UnLock() override {
        // The lock is gone even when UnLock throws.
        if (m_nLockDepth.fetch_sub(1) != 1) {
            m_bLockMisused = true;
        }
        Play(Op::UnLock, nullptr, nullptr);
    }
    void TriggerImage(vc::ClFrameGrabberChannel& channel, ClSimpleBitmap& bitmap) override {
        Play(Op::TriggerImage, channel, &bitmap);
    }

private:
    bool Play(Op op, vc::ClFrameGrabberChannel& channel, ClSimpleBitmap* bitmap) {
        return Play(op, &channel, bitmap);
    }
    bool Play(Op op, vc::ClFrameGrabberChannel* channel, ClSimpleBitmap* bitmap);
    Action Default(Op op) const;

    mutable std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::map<Op, std::deque<Action>> m_Script;
    std::map<Op, Action> m_Defaults;
    std::vector<Op> m_Calls;
    std::vector<std::thread::id> m_CallThreads;
    int m_nReleases = 0;
    bool m_bWaiting = false;
    bool m_bUnparked = false;
    unsigned char m_nStamp = 0;
    std::atomic<int> m_nLockDepth{0};
    std::atomic<bool> m_bLockMisused{false};
};

// One host callback as received.
struct Event {
    enum Kind { Start, Stop, Image, Result, Error, Warning };
    explicit Event(Kind k) : kind(k) {}
    Kind kind;
    int handle = 0;
    unsigned int tag = 0;
    int result = 0;
    std::string text;
    bool nullText = false;
    bool nullImage = false;
    long width = 0;
    long height = 0;
    unsigned char stamp = 0;   // first pixel
    unsigned char middle = 0;  // a pixel in the middle of the image
    void* user = nullptr;
    std::thread::id thread;
};

// The host: its callbacks record into the Host given as user pointer.
class Host {
public:
    static void OnImage(int handle, unsigned int tag, unsigned char* image, void* user);
    static void OnResult(int handle, unsigned int tag, int result, unsigned char* image,
                         void* user);
    static void OnError(int handle, unsigned int tag, const char* text, void* user);
    static void OnWarning(int handle, unsigned int tag, const char* text, void* user);
    static void OnStart(int handle, unsigned int tag, void* user);
    static void OnStop(int handle, unsigned int tag, void* user);

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
    std::vector<Event> Events(Event::Kind kind) const;
    int Count(Event::Kind kind) const { return static_cast<int>(Events(kind).size()); }
    bool WaitFor(Event::Kind kind, int n);
    // Called inside the image callback (on the worker) before it returns.
    void OnEveryImage(std::function<void(const Event&)> hook) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_ImageHook = std::move(hook);
    }
    // The image callback throws this after recording.
    void ThrowFromImage(std::function<void()> thrower) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_ImageThrower = std::move(thrower);
    }

private:
    void Record(Event event, const unsigned char* image);

    mutable std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::vector<Event> m_Events;
    std::function<void(const Event&)> m_ImageHook;
    std::function<void()> m_ImageThrower;
};

// A detector that answers from a script: each Detect takes the next
// (result, output) pair; the output is a frame of the given width and fill
// (width 0 leaves the output empty).
class ScriptedDetection : public vc::ClImageDetection {
public:
    struct Answer {
        bool result;
        unsigned char fill;
        long width;
    };
    ScriptedDetection(vc::eCaptureModeIDs type, std::vector<Answer> answers)
        : m_eType(type), m_Answers(answers.begin(), answers.end()) {}

    bool Detect(ClSimpleBitmap& input, ClSimpleBitmap& output) override {
        ++m_nCalls;
        if (m_Answers.empty()) {
            return false;
        }
        const Answer answer = m_Answers.front();
        m_Answers.pop_front();
        if (answer.width > 0) {
            MakeFrame(output, answer.width, 40, answer.fill, input.Pixel()[0]);
        }
        return answer.result;
    }
    vc::eCaptureModeIDs Type() const override { return m_eType; }
    int Calls() const { return m_nCalls; }

private:
    vc::eCaptureModeIDs m_eType;
    std::deque<Answer> m_Answers;
    std::atomic<int> m_nCalls{0};
};

// A channel whose detector can be replaced by a scripted one just before its
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
    bool RefreshPending() const { return this->m_bRefreshBackground; }
    vc::ClImageMacroProcessor& Chain() { return this->m_Processor; }
};

// A second host thread. It gets a small stack of its own: a thread with the
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
    HostThread(const HostThread&) = delete;
    HostThread& operator=(const HostThread&) = delete;

    void Join() {
        if (m_bStarted) {
            pthread_join(m_Thread, nullptr);
            m_bStarted = false;
        }
    }
    bool Done() const { return m_bDone.load(); }

private:
    static void* Run(void* self) {
        auto* thread = static_cast<HostThread*>(self);
        thread->m_Body();
        thread->m_bDone = true;
        return nullptr;
    }

    std::function<void()> m_Body;
    pthread_t m_Thread{};
    bool m_bStarted = false;
    std::atomic<bool> m_bDone{false};
};

// Installs `sdk` as the channels' device SDK for the lifetime of the object.
class SDKScope {
public:
    explicit SDKScope(vc::ClFramegrabberSDK* sdk) {
        vc::ClFrameGrabberChannel::m_pFramegrabberSDK = sdk;
    }
    ~SDKScope() { vc::ClFrameGrabberChannel::m_pFramegrabberSDK = nullptr; }
};

}  // namespace kr7test
