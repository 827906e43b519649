// The soak's phases, each run in a child process of its own (see soak.cpp):
//   starts       StartCapture/StopCapture cycles in plain-finger mode
//   disconnects  a finger placed and lifted, the scanner unplugged and back,
//                again and again; the host restarts its capture each time
//   rounds       GetFrameGrabber, Initizalize, a capture to its first
//                frame, Uninitialize, DestroyFrameGrabber
//   reloads      the same with dlopen and dlclose of the plug-in around it
//   realtime     one capture at the scanner's own pace, `count` seconds
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace soak {

struct PhaseSettings {
    const char* name;
    const char* unit;  // what `count` counts, for the report
    // The virtual scanner's settings for the phase's process.
    std::vector<std::pair<const char*, const char*>> environment;
};

const std::vector<PhaseSettings>& Phases();
const PhaseSettings* FindPhase(const std::string& name);

// Runs phase `name` `count` times in this process against the plug-in at
// `plugin`, prints its report line and returns the exit status (0 passed).
int RunPhase(const std::string& name, long count, const std::string& plugin);

}  // namespace soak
