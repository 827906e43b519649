#include "channel_test_support.h"

namespace kr7test {

const char* OpName(Op op) {
    switch (op) {
        case Op::InitializeSDK:
            return "InitializeSDK";
        case Op::UninitializeSDK:
            return "UninitializeSDK";
        case Op::SetActiveChannel:
            return "SetActiveChannel";
        case Op::GetLiveBitmap:
            return "GetLiveBitmap";
        case Op::WaitForPlainFinger:
            return "WaitForPlainFinger";
        case Op::StartLiveCapturing:
            return "StartLiveCapturing";
        case Op::StopLiveCapturing:
            return "StopLiveCapturing";
        case Op::IsDirty:
            return "IsDirty";
        case Op::HasSelfDetection:
            return "HasSelfDetection";
        case Op::Lock:
            return "Lock";
        case Op::UnLock:
            return "UnLock";
        case Op::TriggerImage:
            return "TriggerImage";
    }
    return "?";
}

Action ScriptedSDK::Default(Op op) const {
    const auto found = m_Defaults.find(op);
    if (found != m_Defaults.end()) {
        return found->second;
    }
    switch (op) {
        case Op::IsDirty:
        case Op::HasSelfDetection:
            return Action::Returns(false);
        case Op::SetActiveChannel:
            return Action::Image(255);
        default:
            return Action::Image(200);
    }
}

bool ScriptedSDK::Play(Op op, vc::ClFrameGrabberChannel* channel, ClSimpleBitmap* bitmap) {
    Action action;
    unsigned char stamp = 0;
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        m_Calls.push_back(op);
        m_CallThreads.push_back(std::this_thread::get_id());
        m_Changed.notify_all();
        std::deque<Action>& queue = m_Script[op];
        if (!queue.empty()) {
            action = queue.front();
            queue.pop_front();
        } else {
            action = Default(op);
        }
        // A gate holds even through a stop of the channel (as a device busy
        // with a frame would); a test that fails half-way is let go after a
        // while all the same. A park ends with the stop.
        const auto stopped = [&] { return channel != nullptr && !channel->IsRunning(); };
        if (action.gated) {
            m_bWaiting = true;
            m_Changed.notify_all();
            const auto deadline = std::chrono::steady_clock::now() + kPatience;
            while (m_nReleases == 0 && std::chrono::steady_clock::now() < deadline) {
                m_Changed.wait_for(lock, std::chrono::milliseconds(1));
            }
            if (m_nReleases > 0) {
                --m_nReleases;
            }
            m_bWaiting = false;
        }
        if (action.kind == Action::Park) {
            m_bWaiting = true;
            m_Changed.notify_all();
            const auto deadline = std::chrono::steady_clock::now() + kPatience;
            while (!m_bUnparked && !stopped() && std::chrono::steady_clock::now() < deadline) {
                m_Changed.wait_for(lock, std::chrono::milliseconds(1));
            }
            m_bWaiting = false;
            return false;
        }
        stamp = ++m_nStamp;
    }
    switch (action.kind) {
        case Action::Frame:
        case Action::Pause:
            if (bitmap != nullptr) {
                MakeFrame(*bitmap, action.width, action.height, action.fill, stamp);
            }
            if (action.kind == Action::Pause && channel != nullptr) {
                channel->SetPaused(true);
            }
            return action.value;
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
            break;
    }
    return false;
}

// ---- Host -------------------------------------------------------------------

void Host::Record(Event event, const unsigned char* image) {
    event.thread = std::this_thread::get_id();
    if (image != nullptr) {
        const auto* header = reinterpret_cast<const tagBITMAPINFOHEADER*>(image);
        const unsigned char* pixels = ClSimpleBitmap::Pixel(header);
        event.width = header->biWidth;
        event.height = header->biHeight;
        event.stamp = pixels[0];
        event.middle = pixels[ClSimpleBitmap::BPRow(header->biWidth, header->biBitCount) *
                                  (header->biHeight / 2) +
                              header->biWidth / 2];
    } else if (event.kind == Event::Image || event.kind == Event::Result) {
        event.nullImage = true;
    }
    std::function<void(const Event&)> hook;
    std::function<void()> thrower;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Events.push_back(event);
        m_Changed.notify_all();
        if (event.kind == Event::Image) {
            hook = m_ImageHook;
            thrower = m_ImageThrower;
        }
    }
    if (hook) {
        hook(event);
    }
    if (thrower) {
        thrower();
    }
}

std::vector<Event> Host::Events(Event::Kind kind) const {
    std::vector<Event> selected;
    for (const Event& event : Events()) {
        if (event.kind == kind) {
            selected.push_back(event);
        }
    }
    return selected;
}

bool Host::WaitFor(Event::Kind kind, int n) {
    std::unique_lock<std::mutex> lock(m_Mutex);
    return m_Changed.wait_for(lock, kPatience, [&] {
        int count = 0;
        for (const Event& event : m_Events) {
            count += event.kind == kind ? 1 : 0;
        }
        return count >= n;
    });
}

void Host::OnImage(int handle, unsigned int tag, unsigned char* image, void* user) {
    Event event(Event::Image);
    event.handle = handle;
    event.tag = tag;
    event.user = user;
    static_cast<Host*>(user)->Record(event, image);
}

void Host::OnResult(int handle, unsigned int tag, int result, unsigned char* image, void* user) {
    Event event(Event::Result);
    event.handle = handle;
    event.tag = tag;
    event.result = result;
    event.user = user;
    static_cast<Host*>(user)->Record(event, image);
}

void Host::OnError(int handle, unsigned int tag, const char* text, void* user) {
    Event event(Event::Error);
    event.handle = handle;
    event.tag = tag;
    event.nullText = text == nullptr;
    event.text = text ? text : "";
    event.user = user;
    static_cast<Host*>(user)->Record(event, nullptr);
}

void Host::OnWarning(int handle, unsigned int tag, const char* text, void* user) {
    Event event(Event::Warning);
    event.handle = handle;
    event.tag = tag;
    event.nullText = text == nullptr;
    event.text = text ? text : "";
    event.user = user;
    static_cast<Host*>(user)->Record(event, nullptr);
}

void Host::OnStart(int handle, unsigned int tag, void* user) {
    Event event(Event::Start);
    event.handle = handle;
    event.tag = tag;
    event.user = user;
    static_cast<Host*>(user)->Record(event, nullptr);
}

void Host::OnStop(int handle, unsigned int tag, void* user) {
    Event event(Event::Stop);
    event.handle = handle;
    event.tag = tag;
    event.user = user;
    static_cast<Host*>(user)->Record(event, nullptr);
}

}  // namespace kr7test
