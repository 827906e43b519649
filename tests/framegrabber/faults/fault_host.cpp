// A host that loads the plug-in with dlopen, as an imaging application does,
// and runs one operation twice: the first time into whatever failure the
// stand-ins' fault rules (KR7SIM_FAULTS, KR7SIM_CAL_FAULTS) inject, the second
// time after it. It prints what a host can see of each run, one line per
// run, then Uninitialize's result and "done" once the plug-in is unloaded:
//
//   first result=0x10000015 images=0 events=0 value=0 text=<last error>
//   second result=0x0 images=6 events=0 value=100 text=
//   uninitialize result=0x0
//   done
//
// For a capture, result is StartCapture's, text is the first text of the
// error callback and images what arrived before the capture stopped (or was
// stopped after enough images). Otherwise text is the last error's text after
// a failed call. value is what the operation reads back: the property it sets
// or gets, the active scanner after a scanner list, the active scanner from
// GetActiveDevice, the number of scanners a size query gives. events counts
// fake-finger events.
//
// With the stand-ins' journals on (KR7SIM_JOURNAL, KR7SIM_CAL_JOURNAL), the
// line "journal scanner=N calibration=M" before Uninitialize tells how many
// lines of each the two runs wrote.
//
//   kr7_fault_host OPERATION [WARM-UP]    (operations: see kOperations)
//
// WARM-UP, another operation, runs once before the first run, unreported.
#include <dlfcn.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>

#include "base/framegrabber.h"

namespace {

// Live frames a capture must deliver to count as working.
constexpr int kFrames = 6;

// What one run of an operation showed the host.
struct Outcome {
    unsigned int result = 0;
    int images = 0;
    unsigned int value = 0;
    std::string text;
};

std::atomic<int> g_events{0};

void OnEvent(int, unsigned int, vc::eFGs, unsigned int, void*) {
    ++g_events;
}

std::string LastError(vc::ClFramegrabber& fg) {
    char text[512] = {};
    unsigned long size = sizeof text - 1;
    fg.GetLastError(text, size);
    return text;
}

// A call's result, with the last error's text when it failed.
Outcome Called(vc::ClFramegrabber& fg, unsigned int result) {
    Outcome outcome;
    outcome.result = result;
    if (result != 0) {
        outcome.text = LastError(fg);
    }
    return outcome;
}

// The callbacks of one capture.
struct Capture {
    std::atomic<int> images{0};
    std::atomic<bool> stopped{false};
    std::mutex mutex;
    std::string error;

    static void OnImage(int, unsigned int, unsigned char*, void* user) {
        ++static_cast<Capture*>(user)->images;
    }
    static void OnResult(int, unsigned int, int, unsigned char*, void*) {}
    static void OnError(int, unsigned int, const char* text, void* user) {
        auto& self = *static_cast<Capture*>(user);
        std::lock_guard<std::mutex> lock(self.mutex);
        if (self.error.empty()) {
            self.error = text != nullptr ? text : "(null)";
        }
    }
    static void OnStop(int, unsigned int, void* user) {
        static_cast<Capture*>(user)->stopped = true;
    }
};

// Captures on channel 1 until the capture ends by itself or has delivered
// kFrames images, then stops it.
Outcome RunCapture(vc::ClFramegrabber& fg, vc::eCaptureModeIDs mode) {
    Capture capture;
    Outcome outcome;
    fg.SetCallbacks(1, nullptr, &Capture::OnStop);
    outcome.result = fg.StartCapture(7, 1, mode, &Capture::OnImage, &Capture::OnResult,
                                     &Capture::OnError, nullptr, &capture);
    if (outcome.result != 0) {
        outcome.text = LastError(fg);
        return outcome;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!capture.stopped && capture.images < kFrames &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    if (fg.StopCapture(1) != 0) {
        std::printf("StopCapture failed: %s\n", LastError(fg).c_str());
    }
    outcome.images = capture.images;
    std::lock_guard<std::mutex> lock(capture.mutex);
    outcome.text = capture.error;
    return outcome;
}

Outcome Snap(vc::ClFramegrabber& fg) {
    unsigned char* image = nullptr;
    Outcome outcome = Called(fg, fg.GetImage(1, &image));
    if (image != nullptr) {
        outcome.images = 1;
        fg.FreeImage(image);
    }
    return outcome;
}

// Sets a property, then reads it back.
Outcome SetProperty(vc::ClFramegrabber& fg, vc::ePropertyIDs id) {
    Outcome outcome = Called(fg, fg.SetFGProperty(id, 100));
    fg.GetFGProperty(id, outcome.value);
    return outcome;
}

Outcome GetProperty(vc::ClFramegrabber& fg, vc::ePropertyIDs id) {
    unsigned int value = 0;
    Outcome outcome = Called(fg, fg.GetFGProperty(id, value));
    outcome.value = value;
    return outcome;
}

struct Operation {
    const char* name;
    Outcome (*run)(vc::ClFramegrabber& fg);
    void (*prepare)(vc::ClFramegrabber& fg) = nullptr;  // once, before the first run
};

void FakeFingerOn(vc::ClFramegrabber& fg) {
    fg.SetFGProperty(vc::ePropFakeFingerDetection, 100);
}

void RedLEDOn(vc::ClFramegrabber& fg) {
    fg.SetFGProperty(vc::ePropRedLED, 100);
}

const Operation kOperations[] = {
    {"initialize", [](vc::ClFramegrabber& fg) { return Called(fg, fg.Initizalize(nullptr)); }},
    {"info",
     [](vc::ClFramegrabber& fg) {
         char buffer[512] = {};
         unsigned long size = sizeof buffer;
         return Called(fg, fg.GetInfo(buffer, size));
     }},
    {"snap", Snap},
    {"contamination",
     [](vc::ClFramegrabber& fg) {
         double share = -1;
         Outcome outcome = Called(fg, fg.ContaminationDetection(1, &share));
         if (outcome.result == 0 && !(share >= 0 && share <= 1)) {
             outcome.text = "contamination out of range";
         }
         return outcome;
     }},
    {"live", [](vc::ClFramegrabber& fg) { return RunCapture(fg, vc::eCaptureLive); }},
    {"plain", [](vc::ClFramegrabber& fg) { return RunCapture(fg, vc::eCapturePlainFinger); }},
    {"red-set", [](vc::ClFramegrabber& fg) { return SetProperty(fg, vc::ePropRedLED); }},
    {"green-set", [](vc::ClFramegrabber& fg) { return SetProperty(fg, vc::ePropGreenLED); }},
    {"red-get", [](vc::ClFramegrabber& fg) { return GetProperty(fg, vc::ePropRedLED); }},
    {"green-get", [](vc::ClFramegrabber& fg) { return GetProperty(fg, vc::ePropGreenLED); }},
    {"fake-set",
     [](vc::ClFramegrabber& fg) { return SetProperty(fg, vc::ePropFakeFingerDetection); }},
    {"fake-get",
     [](vc::ClFramegrabber& fg) { return GetProperty(fg, vc::ePropFakeFingerDetection); }},
    // With fake-finger detection on, frames come from a different entry.
    {"fake-snap", Snap, FakeFingerOn},
    {"fake-live", [](vc::ClFramegrabber& fg) { return RunCapture(fg, vc::eCaptureLive); },
     FakeFingerOn},
    // With an LED lit, the plug-in switches it on again after every frame.
    {"lit-live", [](vc::ClFramegrabber& fg) { return RunCapture(fg, vc::eCaptureLive); }, RedLEDOn},
    {"list",
     [](vc::ClFramegrabber& fg) {
         vc::DeviceInfo devices[4] = {};
         unsigned long count = 4;
         Outcome outcome = Called(fg, fg.AvailableDevices(devices, count));
         unsigned long active = 99;
         fg.GetActiveDevice(active);
         outcome.value = static_cast<unsigned int>(active);
         return outcome;
     }},
    {"count",
     [](vc::ClFramegrabber& fg) {
         unsigned long count = 0;
         Outcome outcome = Called(fg, fg.AvailableDevices(nullptr, count));
         outcome.value = static_cast<unsigned int>(count);
         return outcome;
     }},
    {"select", [](vc::ClFramegrabber& fg) { return Called(fg, fg.SetActiveDevice(1)); }},
    {"active",
     [](vc::ClFramegrabber& fg) {
         unsigned long index = 99;
         Outcome outcome = Called(fg, fg.GetActiveDevice(index));
         outcome.value = static_cast<unsigned int>(index);
         return outcome;
     }},
};

const Operation* Find(const char* name) {
    for (const Operation& candidate : kOperations) {
        if (std::strcmp(name, candidate.name) == 0) {
            return &candidate;
        }
    }
    return nullptr;
}

// Lines in the file the variable `name` names; 0 without one.
long JournalLines(const char* name) {
    const char* path = std::getenv(name);
    std::ifstream in(path != nullptr ? path : "");
    long lines = 0;
    for (std::string line; std::getline(in, line);) {
        ++lines;
    }
    return lines;
}

void Print(const char* run, const Outcome& outcome) {
    std::printf("%s result=0x%x images=%d events=%d value=%u text=%s\n", run, outcome.result,
                outcome.images, g_events.exchange(0), outcome.value, outcome.text.c_str());
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    const Operation* operation = argc >= 2 && argc <= 3 ? Find(argv[1]) : nullptr;
    const Operation* warmUp = argc == 3 ? Find(argv[2]) : nullptr;
    if (operation == nullptr || (argc == 3 && warmUp == nullptr)) {
        std::fprintf(stderr, "usage: kr7_fault_host OPERATION [WARM-UP]\noperations:");
        for (const Operation& candidate : kOperations) {
            std::fprintf(stderr, " %s", candidate.name);
        }
        std::fprintf(stderr, "\n");
        return 2;
    }
    // An empty platen on two scanners unless the caller says otherwise.
    setenv("KR7SIM_SCENARIO", "empty;", 0);
    setenv("KR7SIM_UNITS", "if=0;if=1", 0);
    unsetenv("KR7SIM_REALTIME");

    void* plugin = dlopen(KR7_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
    if (plugin == nullptr) {
        std::fprintf(stderr, "cannot load the plug-in: %s\n", dlerror());
        return 3;
    }
    auto get = reinterpret_cast<FGGetFrameGrabberFn>(dlsym(plugin, "GetFrameGrabber"));
    auto destroy = reinterpret_cast<FGDestroyFrameGrabberFn>(dlsym(plugin, "DestroyFrameGrabber"));
    vc::ClFramegrabber* fg = get != nullptr && destroy != nullptr ? get() : nullptr;
    if (fg == nullptr) {
        std::fprintf(stderr, "no frame grabber\n");
        return 3;
    }
    if (const unsigned int result = fg->Initizalize(nullptr); result != 0) {
        std::printf("Initizalize failed: 0x%x\n", result);
    }
    fg->EnableEvents(0, 1, &OnEvent, nullptr);
    if (operation->prepare != nullptr) {
        operation->prepare(*fg);
    }
    if (warmUp != nullptr) {
        warmUp->run(*fg);
        g_events = 0;
    }
    Print("first", operation->run(*fg));
    Print("second", operation->run(*fg));
    if (std::getenv("KR7SIM_JOURNAL") != nullptr || std::getenv("KR7SIM_CAL_JOURNAL") != nullptr) {
        std::printf("journal scanner=%ld calibration=%ld\n", JournalLines("KR7SIM_JOURNAL"),
                    JournalLines("KR7SIM_CAL_JOURNAL"));
    }
    std::printf("uninitialize result=0x%x\n", fg->Uninitialize());
    destroy();
    if (dlclose(plugin) != 0) {
        std::printf("dlclose failed: %s\n", dlerror());
    }
    std::printf("done\n");
    return 0;
}
