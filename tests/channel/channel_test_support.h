// Test doubles for the capture channel: a device SDK that plays a script
// call by call and records what it is asked, a host that records its
// callbacks, and a detector that answers from a script.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <deque>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "channel/channel.h"
#include "detection/image_detection.h"
#include "support/eventually.h"

namespace kr7test {

using Nvk::utilities::ClSimpleBitmap;

// Expects `call` to throw the host's error `number` with `text`.
template <class Call>
void ExpectVCError(Call&& call, int number, const char* text) {
    try {
        call();
        ADD_FAILURE() << "no exception";
    } catch (const vc::ClVCException& e) {
        EXPECT_EQ(e.GetErrorNumber(), number);
        EXPECT_STREQ(e.What(), text);
    }
}

// An 8-bit grey frame of one value.
inline void MakeFrame(ClSimpleBitmap& bitmap, long width, long height, unsigned char fill) {
    bitmap.Create(width, height, 8);
    std::memset(bitmap.Pixel(), fill, static_cast<std::size_t>(bitmap.PixelSize()));
}

// clang-format off
enum class Op { InitializeSDK, UninitializeSDK, SetActiveChannel, GetLiveBitmap, WaitForPlainFinger,
    StartLiveCapturing, StopLiveCapturing, IsDirty, HasSelfDetection, Lock, UnLock, TriggerImage };
// clang-format on

constexpr const char* kFaultText = "Capture frame failed.";

// What one call of an operation does. Frame fills the operation's bitmap (if
// it has one) with `fill` and returns true; Gate does so once
// ScriptedSDK::Release() lets it, even through a stop (as a device busy with
// a frame); Pause is a Frame that then pauses the channel; Empty clears the
// bitmap and returns true; No returns false; Park waits until the channel
// stops; the others throw kFaultText (NoText and StdNoText throw no text).
struct Action {
    enum Kind { Frame, Gate, Pause, Empty, No, Park, Warning, Error, NoText, StdError, StdNoText };
    Kind kind = Frame;
    unsigned char fill = 200;
    long width = 160;
    long height = 120;
};
inline Action Image(unsigned char fill, long width = 160, long height = 120) {
    return {Action::Frame, fill, width, height};
}
inline Action Do(Action::Kind kind, unsigned char fill = 200) {
    return {kind, fill};
}

struct TextlessError : Nvk::ClNorvakException {
    const char* What() const noexcept override { return nullptr; }
};
struct TextlessStdError : std::exception {
    const char* what() const noexcept override { return nullptr; }
};

// The channels' device SDK while it lives. Each operation takes the next
// action of its queue, or its default: No for IsDirty and HasSelfDetection,
// a Frame of 200 for the others.
class ScriptedSDK : public vc::ClFramegrabberSDK {
public:
    ScriptedSDK() { vc::ClFrameGrabberChannel::m_pFramegrabberSDK = this; }
    ~ScriptedSDK() override { vc::ClFrameGrabberChannel::m_pFramegrabberSDK = nullptr; }

    void Add(Op op, Action action, int times = 1) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Script[op].insert(m_Script[op].end(), times, action);
    }
    void SetDefault(Op op, Action action) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Defaults[op] = action;
    }
    void Release() { ++m_nReleases; }  // lets one Gate action go
    std::vector<Op> Calls() const {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Calls;
    }
    int Count(Op op) const {
        const std::vector<Op> calls = Calls();
        return static_cast<int>(std::count(calls.begin(), calls.end(), op));
    }
    // Until a Gate or Park action waits.
    bool WaitUntilWaiting() const {
        return Eventually([&] { return m_bWaiting.load(); });
    }
    // A Lock while locked or an UnLock while unlocked shows as a depth
    // outside 0..1 at some point; the lock must end released.
    bool LockBalanced() const { return !m_bLockMisused && m_nLockDepth == 0; }
    bool Locked() const { return m_nLockDepth.load() > 0; }

    using Channel = vc::ClFrameGrabberChannel;
    void InitializeSDK(Channel& c) override { Play(Op::InitializeSDK, &c); }
    void UninitializeSDK(Channel& c) override { Play(Op::UninitializeSDK, &c); }
    void SetActiveChannel(Channel& c, ClSimpleBitmap& b) override {
        Play(Op::SetActiveChannel, &c, &b);
    }
    void GetLiveBitmap(Channel& c, ClSimpleBitmap& b) override { Play(Op::GetLiveBitmap, &c, &b); }
    bool WaitForPlainFinger(Channel& c, ClSimpleBitmap& b) override {
        return Play(Op::WaitForPlainFinger, &c, &b);
    }
    void StartLiveCapturing(Channel& c) override { Play(Op::StartLiveCapturing, &c); }
    void StopLiveCapturing(Channel& c) override { Play(Op::StopLiveCapturing, &c); }
    bool IsDirty(Channel& c) override { return Play(Op::IsDirty, &c); }
    bool HasSelfDetection(Channel& c) override { return Play(Op::HasSelfDetection, &c); }
    bool Lock() override {
        const bool result = Play(Op::Lock, nullptr);  // a throwing Lock takes nothing
        m_bLockMisused = m_bLockMisused || m_nLockDepth.fetch_add(1) != 0;
        return result;
    }
    void UnLock() override {
        // The lock is gone even when UnLock throws.
        m_bLockMisused = m_bLockMisused || m_nLockDepth.fetch_sub(1) != 1;
        Play(Op::UnLock, nullptr);
    }
    void TriggerImage(Channel& c, ClSimpleBitmap& b) override { Play(Op::TriggerImage, &c, &b); }

private:
    // Lock and UnLock name no channel (and are never scripted to park or pause).
    bool Play(Op op, Channel* channel, ClSimpleBitmap* bitmap = nullptr) {
        Action action =
            Do(op == Op::IsDirty || op == Op::HasSelfDetection ? Action::No : Action::Frame);
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_Calls.push_back(op);
            std::deque<Action>& queue = m_Script[op];
            if (!queue.empty()) {
                action = queue.front();
                queue.pop_front();
            } else if (m_Defaults.count(op) != 0) {
                action = m_Defaults[op];
            }
        }
        m_bWaiting = action.kind == Action::Gate || action.kind == Action::Park;
        if (action.kind == Action::Gate) {
            Eventually([&] { return m_nReleases > 0; });
            --m_nReleases;
        } else if (action.kind == Action::Park) {
            Eventually([&] { return !channel->IsRunning(); });
        }
        m_bWaiting = false;
        switch (action.kind) {
            case Action::No:
            case Action::Park:
                return false;
            case Action::Warning:
                throw vc::ClVCWarning(kFaultText, 5);
            case Action::Error:
                throw vc::ClVCException(kFaultText, 31);
            case Action::NoText:
                throw kr7test::TextlessError();
            case Action::StdError:
                throw std::runtime_error(kFaultText);
            case Action::StdNoText:
                throw TextlessStdError();
            case Action::Pause:
                channel->SetPaused(true);
                break;
            case Action::Empty:
                bitmap->Clear();
                return true;
            default:
                break;
        }
        if (bitmap != nullptr) {
            MakeFrame(*bitmap, action.width, action.height, action.fill);
        }
        return true;
    }

    mutable std::mutex m_Mutex;
    std::map<Op, std::deque<Action>> m_Script;
    std::map<Op, Action> m_Defaults;
    std::vector<Op> m_Calls;
    std::atomic<int> m_nReleases{0};
    std::atomic<bool> m_bWaiting{false};
    std::atomic<int> m_nLockDepth{0};
    std::atomic<bool> m_bLockMisused{false};
};

// One host callback as received; `middle` is the image's middle pixel.
struct Event {
    enum Kind { Start, Stop, Image, Result, Error, Warning };
    Kind kind;
    int handle;
    unsigned int tag;
    int result;
    std::string text;
    unsigned char middle;
    std::thread::id thread;
};

// The host. Its callbacks record into the Host passed as context.
class Host {
public:
    // Starts `channel` with all six callbacks of this host.
    bool Start(vc::ClFrameGrabberChannel& channel, vc::eCaptureModeIDs mode, int handle = 7) {
        channel.SetCallbacks([](int h, unsigned int t, void* u) { Record(u, Event::Start, h, t); },
                             [](int h, unsigned int t, void* u) { Record(u, Event::Stop, h, t); });
        return channel.StartCapture(
            handle, mode,
            [](int h, unsigned int t, unsigned char* image, void* u) {
                Record(u, Event::Image, h, t, 0, "", image);
            },
            [](int h, unsigned int t, int result, unsigned char* image, void* u) {
                Record(u, Event::Result, h, t, result, "", image);
            },
            [](int h, unsigned int t, const char* text, void* u) {
                Record(u, Event::Error, h, t, 0, text);
            },
            [](int h, unsigned int t, const char* text, void* u) {
                Record(u, Event::Warning, h, t, 0, text);
            },
            this);
    }
    // The events of one kind (all of them without a kind).
    std::vector<Event> Events(int kind = -1) const {
        std::lock_guard<std::mutex> lock(m_Mutex);
        std::vector<Event> selected;
        std::copy_if(m_Events.begin(), m_Events.end(), std::back_inserter(selected),
                     [&](const Event& e) { return kind < 0 || e.kind == kind; });
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
    bool CalledUnderDeviceLock() const { return m_bCalledUnderLock.load(); }
    bool WaitFor(Event::Kind kind, int n) const {
        return Eventually([&] { return Count(kind) >= n; });
    }

private:
    static void Record(void* user, Event::Kind kind, int h, unsigned int t, int result = 0,
                       const char* text = "", const unsigned char* image = nullptr) {
        unsigned char middle = 0;
        if (image != nullptr) {
            const auto* header = reinterpret_cast<const tagBITMAPINFOHEADER*>(image);
            middle = ClSimpleBitmap::Pixel(
                header)[ClSimpleBitmap::BPRow(header->biWidth, 8) * (header->biHeight / 2) +
                        header->biWidth / 2];
        }
        Host& self = *static_cast<Host*>(user);
        // The host may call back into the plug-in: never under the device lock.
        const auto* sdk =
            dynamic_cast<const ScriptedSDK*>(vc::ClFrameGrabberChannel::m_pFramegrabberSDK.load());
        if (sdk != nullptr && sdk->Locked()) {
            self.m_bCalledUnderLock = true;
        }
        std::lock_guard<std::mutex> lock(self.m_Mutex);
        self.m_Events.push_back(
            {kind, h, t, result, text ? text : "(null)", middle, std::this_thread::get_id()});
    }

    mutable std::mutex m_Mutex;
    std::vector<Event> m_Events;
    std::atomic<bool> m_bCalledUnderLock{false};
};

// Each Detect takes the next (result, output fill, output width) answer; a
// width of 0 leaves the output empty.
class ScriptedDetection : public vc::ClImageDetection {
public:
    using Answer = std::tuple<bool, unsigned char, long>;
    ScriptedDetection(vc::eCaptureModeIDs type, std::deque<Answer> answers)
        : m_eType(type), m_Answers(std::move(answers)) {}
    bool Detect(ClSimpleBitmap&, ClSimpleBitmap& output) override {
        if (m_Answers.empty()) {
            return false;
        }
        const auto [result, fill, width] = m_Answers.front();
        m_Answers.pop_front();
        if (width > 0) {
            MakeFrame(output, width, 40, fill);
        }
        return result;
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
    // Set when a thread is started while the previous one is still unjoined.
    bool startedOverUnjoined = false;

    bool Start() override {
        startedOverUnjoined = startedOverUnjoined || this->IsJoinable();
        if (failStart) {
            return false;
        }
        if (nextDetector) {
            Nvk::CXLock lock(this->m_DetectionMutex);
            this->m_pDetection = std::move(nextDetector);
        }
        return Base::Start();
    }
    // Only while no worker runs.
    const ClSimpleBitmap& Background() const { return this->m_Background; }
    bool ProcessingDirty() const { return this->m_bProcessingDirty; }
    vc::ClImageMacroProcessor& Chain() { return this->m_Processor; }
};

}  // namespace kr7test
