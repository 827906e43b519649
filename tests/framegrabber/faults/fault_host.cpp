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
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>

#include "kr7host/capture.h"
#include "kr7host/plugin.h"

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

// A call's result, with the last error's text when it failed.
Outcome Called(kr7host::Grabber& fg, unsigned int result) {
    Outcome outcome;
    outcome.result = result;
    if (result != 0) {
        outcome.text = fg.LastError();
    }
    return outcome;
}

// Captures on channel 1 until the capture ends by itself or has delivered
// kFrames images, then stops it. The text is the error callback's first.
Outcome RunCapture(kr7host::Grabber& fg, vc::eCaptureModeIDs mode) {
    Outcome outcome;
    kr7host::Capture capture(fg, {1, mode, 64});
    try {
        capture.Start(7);
    } catch (const kr7host::Error& e) {
        outcome.result = e.Result();
        outcome.text = e.Text();
        return outcome;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!capture.Stopped() && capture.Totals().images < kFrames &&
           std::chrono::steady_clock::now() < deadline) {
        const std::optional<kr7host::Event> event = capture.Next(std::chrono::milliseconds(2));
        if (event && event->kind == kr7host::Kind::Error && outcome.text.empty()) {
            outcome.text = event->text;
        }
    }
    try {
        capture.Stop();
    } catch (const kr7host::Error& e) {
        std::printf("%s\n", e.what());
    }
    for (std::optional<kr7host::Event> event;
         (event = capture.Next(std::chrono::milliseconds(0)));) {
        if (event->kind == kr7host::Kind::Error && outcome.text.empty()) {
            outcome.text = event->text;
        }
    }
    outcome.images = static_cast<int>(capture.Totals().images);
    return outcome;
}

Outcome Snap(kr7host::Grabber& fg) {
    unsigned char* image = nullptr;
    Outcome outcome = Called(fg, fg->GetImage(1, &image));
    if (image != nullptr) {
        outcome.images = 1;
        fg->FreeImage(image);
    }
    return outcome;
}

// Sets a property, then reads it back.
Outcome SetProperty(kr7host::Grabber& fg, vc::ePropertyIDs id) {
    Outcome outcome = Called(fg, fg->SetFGProperty(id, 100));
    fg->GetFGProperty(id, outcome.value);
    return outcome;
}

Outcome GetProperty(kr7host::Grabber& fg, vc::ePropertyIDs id) {
    unsigned int value = 0;
    Outcome outcome = Called(fg, fg->GetFGProperty(id, value));
    outcome.value = value;
    return outcome;
}

struct Operation {
    const char* name;
    Outcome (*run)(kr7host::Grabber& fg);
    void (*prepare)(kr7host::Grabber& fg) = nullptr;  // once, before the first run
};

void FakeFingerOn(kr7host::Grabber& fg) {
    fg->SetFGProperty(vc::ePropFakeFingerDetection, 100);
}

void RedLEDOn(kr7host::Grabber& fg) {
    fg->SetFGProperty(vc::ePropRedLED, 100);
}

const Operation kOperations[] = {
    {"initialize", [](kr7host::Grabber& fg) { return Called(fg, fg->Initizalize(nullptr)); }},
    {"info",
     [](kr7host::Grabber& fg) {
         char buffer[512] = {};
         unsigned long size = sizeof buffer;
         return Called(fg, fg->GetInfo(buffer, size));
     }},
    {"snap", Snap},
    {"contamination",
     [](kr7host::Grabber& fg) {
         double share = -1;
         Outcome outcome = Called(fg, fg->ContaminationDetection(1, &share));
         if (outcome.result == 0 && !(share >= 0 && share <= 1)) {
             outcome.text = "contamination out of range";
         }
         return outcome;
     }},
    {"live", [](kr7host::Grabber& fg) { return RunCapture(fg, vc::eCaptureLive); }},
    {"plain", [](kr7host::Grabber& fg) { return RunCapture(fg, vc::eCapturePlainFinger); }},
    {"red-set", [](kr7host::Grabber& fg) { return SetProperty(fg, vc::ePropRedLED); }},
    {"green-set", [](kr7host::Grabber& fg) { return SetProperty(fg, vc::ePropGreenLED); }},
    {"red-get", [](kr7host::Grabber& fg) { return GetProperty(fg, vc::ePropRedLED); }},
    {"green-get", [](kr7host::Grabber& fg) { return GetProperty(fg, vc::ePropGreenLED); }},
    {"fake-set",
     [](kr7host::Grabber& fg) { return SetProperty(fg, vc::ePropFakeFingerDetection); }},
    {"fake-get",
     [](kr7host::Grabber& fg) { return GetProperty(fg, vc::ePropFakeFingerDetection); }},
    // With fake-finger detection on, frames come from a different entry.
    {"fake-snap", Snap, FakeFingerOn},
    {"fake-live", [](kr7host::Grabber& fg) { return RunCapture(fg, vc::eCaptureLive); },
     FakeFingerOn},
    // With an LED lit, the plug-in switches it on again after every frame.
    {"lit-live", [](kr7host::Grabber& fg) { return RunCapture(fg, vc::eCaptureLive); }, RedLEDOn},
    {"list",
     [](kr7host::Grabber& fg) {
         vc::DeviceInfo devices[4] = {};
         unsigned long count = 4;
         Outcome outcome = Called(fg, fg->AvailableDevices(devices, count));
         unsigned long active = 99;
         fg->GetActiveDevice(active);
         outcome.value = static_cast<unsigned int>(active);
         return outcome;
     }},
    {"count",
     [](kr7host::Grabber& fg) {
         unsigned long count = 0;
         Outcome outcome = Called(fg, fg->AvailableDevices(nullptr, count));
         outcome.value = static_cast<unsigned int>(count);
         return outcome;
     }},
    {"select", [](kr7host::Grabber& fg) { return Called(fg, fg->SetActiveDevice(1)); }},
    {"active",
     [](kr7host::Grabber& fg) {
         unsigned long index = 99;
         Outcome outcome = Called(fg, fg->GetActiveDevice(index));
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
    return std::count(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>(), '\n');
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
        std::fprintf(stderr, "usage: kr7_fault_host OPERATION [WARM-UP] (see kOperations)\n");
        return 2;
    }
    // An empty platen on two scanners unless the caller says otherwise.
    setenv("KR7SIM_SCENARIO", "empty;", 0);
    setenv("KR7SIM_UNITS", "if=0;if=1", 0);
    unsetenv("KR7SIM_REALTIME");

    kr7host::Options options;
    options.plugin = KR7_PLUGIN_PATH;
    std::optional<kr7host::Library> library;
    try {
        library.emplace(options);
    } catch (const kr7host::LoadError& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 3;
    }
    {
        kr7host::Grabber fg(*library, false);
        if (const unsigned int result = fg->Initizalize(nullptr); result != 0) {
            std::printf("Initizalize failed: 0x%x\n", result);
        }
        fg.OnEvent([](unsigned int, unsigned int) { ++g_events; });
        if (operation->prepare != nullptr) {
            operation->prepare(fg);
        }
        if (warmUp != nullptr) {
            warmUp->run(fg);
            g_events = 0;
        }
        Print("first", operation->run(fg));
        Print("second", operation->run(fg));
        if (std::getenv("KR7SIM_JOURNAL") != nullptr ||
            std::getenv("KR7SIM_CAL_JOURNAL") != nullptr) {
            std::printf("journal scanner=%ld calibration=%ld\n", JournalLines("KR7SIM_JOURNAL"),
                        JournalLines("KR7SIM_CAL_JOURNAL"));
        }
        std::printf("uninitialize result=0x%x\n", fg->Uninitialize());
    }
    try {
        library->Close();
    } catch (const std::exception& e) {
        std::printf("%s\n", e.what());
    }
    std::printf("done\n");
    return 0;
}
