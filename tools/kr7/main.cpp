// kr7: the command-line tool for KR7 fingerprint scanners. It loads the
// capture plug-in libnorvakkr7fg.so.1 at run time, as imaging applications
// do, and drives it through its public header only: lists the scanners,
// shows what they are and what the plug-in offers, takes images and
// captures, switches the LEDs and reads and sets properties. With --virtual
// it runs against the virtual scanner.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>

#include "capture.h"
#include "cli.h"
#include "commands.h"
#include "kr7host/plugin.h"
#include "status.h"

namespace kr7 {

Failure FromPlugin(const kr7host::Error& error, bool virtualScanner) {
    if (!error.LibraryMissing()) {
        return Failure(kPluginError, error.what());
    }
    return Failure(kLoadError,
                   std::string(error.what()) +
                       (virtualScanner ? ""
                                       : "\n  the scanner's libraries are not installed? Try "
                                         "--virtual to use the virtual scanner"));
}

namespace {

// A file that cannot be loaded, with advice when kr7 chose it.
Failure FromLoader(const kr7host::LoadError& error, const Arguments& args) {
    std::string message = error.what();
    if (error.What() == kr7host::LoadError::Kind::Plugin && args.load.plugin.empty()) {
        message += args.load.virtualScanner
                       ? "\n  is it installed? Name one with --plugin PATH"
                       : "\n  is it installed? Name one with --plugin PATH, or try --virtual to "
                         "use the virtual scanner";
    }
    return Failure(kLoadError, message);
}

int Dispatch(kr7host::Plugin& plugin, const Arguments& args) {
    switch (args.command) {
        case Command::List:
            return List(plugin, args);
        case Command::Info:
            return Info(plugin, args);
        case Command::Snap:
            return Snap(plugin, args);
        case Command::Contamination:
            return Contamination(plugin, args);
        case Command::Led:
            return Led(plugin, args);
        case Command::Property:
            return Property(plugin, args);
        case Command::Capture:
            return Capture(plugin, args.capture, args.output, SelectScanner(plugin, args));
        case Command::Help:
            break;
    }
    return kSuccess;
}

int Run(int argc, char** argv) {
    // Everything about the command line is checked before the plug-in loads.
    const Arguments args = Parse(argc, argv);
    if (args.command == Command::Help) {
        std::fputs(args.help.c_str(), stdout);
        return kSuccess;
    }
    try {
        kr7host::Plugin plugin(args.load);
        const int status = Dispatch(plugin, args);
        try {
            plugin.Shutdown();
        } catch (const kr7host::Error& e) {
            // Said, but what the command did stands.
            std::fprintf(stderr, "kr7: %s\n", e.what());
        }
        return status;
    } catch (const kr7host::LoadError& e) {
        throw FromLoader(e, args);
    } catch (const kr7host::Error& e) {
        throw FromPlugin(e, args.load.virtualScanner);
    }
}

void OnSignal(int) {
    g_interrupted = 1;
}

}  // namespace
}  // namespace kr7

int main(int argc, char** argv) {
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = &kr7::OnSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    try {
        const int status = kr7::Run(argc, argv);
        return kr7::g_interrupted != 0 && status == kr7::kSuccess ? kr7::kInterrupted : status;
    } catch (const kr7::Failure& failure) {
        std::fprintf(stderr, "kr7: %s\n", failure.what());
        return failure.Status();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "kr7: %s\n", e.what());
        return kr7::kPluginError;
    }
}
