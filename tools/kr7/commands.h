// kr7's commands other than capture, each printing text or one JSON
// document.
#pragma once

#include "capture.h"
#include "cli.h"
#include "kr7host/plugin.h"

namespace kr7 {

// The scanner the commands work with: --device, else the first connected.
Scanner SelectScanner(kr7host::Plugin& plugin, const Arguments& args);

int List(kr7host::Plugin& plugin, const Arguments& args);
int Info(kr7host::Plugin& plugin, const Arguments& args);
int Snap(kr7host::Plugin& plugin, const Arguments& args);
int Contamination(kr7host::Plugin& plugin, const Arguments& args);
int Led(kr7host::Plugin& plugin, const Arguments& args);
int Property(kr7host::Plugin& plugin, const Arguments& args);

}  // namespace kr7
