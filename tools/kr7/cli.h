// kr7's command line: global options, the command and its own options,
// checked before the plug-in is loaded.
#pragma once

#include <optional>
#include <string>

#include "capture.h"
#include "kr7host/plugin.h"
#include "status.h"

namespace kr7 {

enum class Command { Help, List, Info, Snap, Capture, Contamination, Led, Property };

struct Arguments {
    kr7host::Options load;
    Output output;
    std::optional<unsigned long> device;  // --device
    Command command = Command::Help;
    std::string help;  // Help: the text to print
    std::string file;  // snap -o
    CaptureOptions capture;
    bool red = false;  // led
    bool on = false;
    bool set = false;  // prop set, else get
    unsigned int id = 0;
    unsigned int value = 0;
};

// Throws Failure with kBadUsage, the reason and the usage line.
Arguments Parse(int argc, char** argv);

}  // namespace kr7
