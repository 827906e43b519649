// kr7 capture: results or live frames into files, with a status line for a
// person at a terminal and a summary for scripts.
#pragma once

#include <csignal>
#include <string>

#include <norvakkr7fg/framegrabber.h>

#include "kr7host/plugin.h"
#include "kr7host/quality.h"
#include "status.h"

namespace kr7 {

// Set by the SIGINT/SIGTERM handler; a running capture stops cleanly.
extern volatile std::sig_atomic_t g_interrupted;

struct CaptureOptions {
    vc::eCaptureModeIDs mode = vc::eCapturePlainFinger;
    int count = 3;        // results to take (finger modes)
    int frames = 25;      // frames to take (live, preview)
    double timeout = 30;  // seconds
    std::string folder = ".";
    std::string pattern;  // file names; holds the image number
    std::string sheet;    // the result sheet; empty: none
};

// The scanner a capture runs on, as the output names it.
struct Scanner {
    unsigned int index = 0;
    std::string serial;
};

// The capture mode's name on the command line ("plain", ...) and back.
using kr7host::ModeFromName;
using kr7host::ModeName;

// The file name for image `number`: `pattern` holds exactly one decimal
// conversion (%d, %3d, %03d; %% is a percent sign). False when it does not.
bool FormatName(const std::string& pattern, int number, std::string& name);

// Runs one capture on channel 1 of the active scanner and returns the exit
// status. Images written are kept whatever ends the capture.
int Capture(kr7host::Plugin& plugin, const CaptureOptions& options, const Output& output,
            const Scanner& scanner);

}  // namespace kr7
