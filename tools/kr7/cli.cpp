#include "cli.h"

#include <CLI/CLI.hpp>

#include <cstring>
#include <map>
#include <vector>

#include "kr7host/image.h"

namespace kr7 {

namespace {

const char* const kUsage =
    "usage: kr7 [--virtual] [--plugin PATH] [--device N] [--json] [--quiet] COMMAND [ARGS]\n";

const char* const kHelp =
    "Takes fingerprints with a KR7 scanner through its capture plug-in.\n"
    "\n"
    "commands:\n"
    "  list                     scanners by interface, with serial numbers\n"
    "  info                     plug-in version, scanner identity, capability lists\n"
    "  snap -o FILE             one calibrated image (.png, .bmp or .pgm)\n"
    "  capture [OPTIONS]        finger results or live frames into files\n"
    "  contamination            how dirty the platen is\n"
    "  led red|green on|off     switch an LED\n"
    "  prop get ID              read a property\n"
    "  prop set ID VALUE        set a property\n"
    "\n"
    "options:\n"
    "  --virtual        use the virtual scanner instead of the installed scanner libraries\n"
    "  --plugin PATH    load this plug-in file (default: libnorvakkr7fg.so.1, as installed)\n"
    "  --device N       use the scanner on interface N\n"
    "  --json           print one JSON document (list, info, snap, capture, contamination, prop)\n"
    "  --quiet          print errors only (and the JSON document with --json)\n"
    "  -h, --help       this help; 'kr7 COMMAND --help' for a command\n"
    "\n"
    "examples:\n"
    "  kr7 --virtual list\n"
    "  kr7 --virtual capture --count 3 --out prints --sheet prints/sheet.png\n"
    "  kr7 --device 2 snap -o finger.png\n"
    "\n"
    "exit status: 0 success, 1 the plug-in reported an error (or a file could not be\n"
    "written), 2 bad usage, 3 the plug-in or a scanner library could not be loaded,\n"
    "130 interrupted.\n";

struct CommandHelp {
    const char* name;
    const char* text;
};

const CommandHelp kCommandHelp[] = {
    {"list",
     "usage: kr7 list\n"
     "Lists the connected scanners: interface number and serial number; the one in use\n"
     "(--device, else the first) is marked.\n"
     "\n"
     "examples:\n"
     "  kr7 list\n"
     "  kr7 --virtual --json list\n"},
    {"info",
     "usage: kr7 info\n"
     "Shows the plug-in's version and file; the scanner's product, serial number, hardware\n"
     "and firmware versions and calibration revision; the cameras, colour modes, capture\n"
     "modes, filters and properties the plug-in lists.\n"
     "\n"
     "examples:\n"
     "  kr7 --device 2 info\n"
     "  kr7 --virtual --json info\n"},
    {"snap",
     "usage: kr7 snap -o FILE\n"
     "Takes one calibrated image and writes it; the format follows the extension\n"
     "(.png, .bmp, .pgm).\n"
     "\n"
     "examples:\n"
     "  kr7 snap -o platen.png\n"
     "  kr7 --virtual snap -o platen.pgm\n"},
    {"capture",
     "usage: kr7 capture [--mode live|plain|fastplain|rolled|preview] [--count N] [--frames N]\n"
     "                   [--timeout SECONDS] [--out DIR] [--name PATTERN] [--sheet FILE]\n"
     "Captures finger results (plain, fastplain, rolled: one per placement of the finger,\n"
     "the darkest of it) or frames (live; preview takes stills) into files in DIR.\n"
     "\n"
     "  --mode M          capture mode (default plain)\n"
     "  --count N         results to take in a finger mode (default 3)\n"
     "  --frames N        frames to take in live or preview mode (default 25)\n"
     "  --timeout S       stop after S seconds (default 30); what was taken is kept and\n"
     "                    the exit status is 0, with a note\n"
     "  --out DIR         folder of the images (default .; made when missing)\n"
     "  --name PATTERN    file names, with the image number as %d, %3d or %03d (default\n"
     "                    result-%03d.png, frame-%03d.png for frames); the extension\n"
     "                    chooses the format: .png, .bmp or .pgm\n"
     "  --sheet FILE      also one picture of all images in a grid, each captioned with\n"
     "                    its number, the share of the platen the finger covers and the\n"
     "                    ridge contrast\n"
     "\n"
     "On a terminal a status line shows frames, frames per second, whether a finger is on\n"
     "the platen, the results so far and what to do next. Ctrl-C stops cleanly (exit 130).\n"
     "Modes the plug-in does not list (fastplain, rolled, preview) run with a note.\n"
     "\n"
     "examples:\n"
     "  kr7 capture --count 5 --out prints --sheet prints/sheet.png\n"
     "  kr7 capture --mode rolled --count 1 --name roll-%02d.bmp\n"
     "  kr7 capture --mode live --frames 50 --name frame-%04d.pgm\n"
     "  KR7SIM_SCENARIO='empty 1s; roll; empty 1s; repeat' kr7 --virtual capture --mode rolled\n"},
    {"contamination",
     "usage: kr7 contamination\n"
     "Measures the platen's contamination: the share of it covered by dirt (0 clean, 1\n"
     "all dirty). Measure with no finger on the platen.\n"
     "\n"
     "examples:\n"
     "  kr7 contamination\n"
     "  KR7SIM_UNITS=dirt=20 kr7 --virtual --json contamination\n"},
    {"led",
     "usage: kr7 led red|green on|off\n"
     "Switches the red or green LED (properties 7 and 8). A capture switches both off.\n"
     "\n"
     "examples:\n"
     "  kr7 led green on\n"},
    {"prop",
     "usage: kr7 prop get ID | kr7 prop set ID VALUE\n"
     "Reads or sets a plug-in property: 3 fixed (always 1), 6 fake-finger detection,\n"
     "7 red LED, 8 green LED (100 on, 0 off).\n"
     "\n"
     "examples:\n"
     "  kr7 prop get 6\n"
     "  kr7 prop set 6 100\n"},
};

Failure BadUsage(const std::string& what) {
    return Failure(kBadUsage, what + "\n" + kUsage + "(kr7 --help for more)");
}

std::string HelpOf(const std::string& command) {
    for (const CommandHelp& help : kCommandHelp) {
        if (command == help.name) {
            return help.text;
        }
    }
    return std::string(kUsage) + kHelp;
}

// Seconds, more than none and at most a day.
const CLI::Validator kSeconds(
    [](std::string& text) -> std::string {
        double seconds = 0;
        if (!CLI::detail::lexical_cast(text, seconds) || !(seconds > 0) || seconds > 86400) {
            return "wants seconds, more than 0, not '" + text + "'";
        }
        return "";
    },
    "SECONDS");

// An image file name, by its extension.
const CLI::Validator kImageFile(
    [](std::string& name) -> std::string {
        return kr7host::FormatOf(name) == kr7host::Format::Unknown
                   ? "must end in .png, .bmp or .pgm, not '" + name + "'"
                   : "";
    },
    "FILE");

// The command's options beyond what CLI11 checks by itself.
void CheckCapture(CaptureOptions& capture, const std::string& mode) {
    if (!ModeFromName(mode, capture.mode)) {
        throw BadUsage("--mode wants live, plain, fastplain, rolled or preview, not '" + mode +
                       "'");
    }
    if (capture.folder.empty()) {
        capture.folder = ".";
    }
    const bool frames = capture.mode == vc::eCaptureLive || capture.mode == vc::eCapturePreview;
    if (capture.pattern.empty()) {
        capture.pattern = frames ? "frame-%03d.png" : "result-%03d.png";
    }
    std::string name;
    if (!FormatName(capture.pattern, 1, name)) {
        throw BadUsage(
            "--name must hold the image number once, as %d, %3d or %03d (e.g. "
            "result-%03d.png), not '" +
            capture.pattern + "'");
    }
    if (kr7host::FormatOf(name) == kr7host::Format::Unknown) {
        throw BadUsage("--name must end in .png, .bmp or .pgm, not '" + capture.pattern + "'");
    }
}

}  // namespace

Arguments Parse(int argc, char** argv) {
    Arguments args;
    bool help = false;
    unsigned long device = 0;
    std::string mode = "plain", colour, state, topic;

    CLI::App app("Takes fingerprints with a KR7 scanner through its capture plug-in.", "kr7");
    // kr7 prints its own help texts; global options may also follow the
    // command.
    app.set_help_flag();
    app.fallthrough();
    app.add_flag("--virtual", args.load.virtualScanner);
    app.add_option("--plugin", args.load.plugin);
    CLI::Option* deviceOption = app.add_option("--device", device)->check(CLI::Range(0, 127));
    app.add_flag("--json", args.output.json);
    app.add_flag("-q,--quiet", args.output.quiet);
    app.add_flag("-h,--help", help);

    std::map<Command, CLI::App*> commands;
    const auto command = [&](Command which, const char* name) {
        CLI::App* sub = app.add_subcommand(name);
        sub->add_flag("-h,--help", help);
        commands[which] = sub;
        return sub;
    };
    CLI::App* helpCommand = app.add_subcommand("help");
    helpCommand->add_option("command", topic);
    command(Command::List, "list");
    command(Command::Info, "info");
    command(Command::Snap, "snap")->add_option("-o,--output", args.file)->check(kImageFile);
    CLI::App* capture = command(Command::Capture, "capture");
    CaptureOptions& c = args.capture;
    capture->add_option("--mode", mode);
    capture->add_option("--count", c.count)->check(CLI::Range(1, 100000));
    capture->add_option("--frames", c.frames)->check(CLI::Range(1, 100000));
    capture->add_option("--timeout", c.timeout)->check(kSeconds);
    capture->add_option("--out", c.folder);
    capture->add_option("--name", c.pattern);
    capture->add_option("--sheet", c.sheet)->check(kImageFile);
    command(Command::Contamination, "contamination");
    CLI::App* led = command(Command::Led, "led");
    led->add_option("colour", colour)->required()->check(CLI::IsMember({"red", "green"}));
    led->add_option("state", state)->required()->check(CLI::IsMember({"on", "off"}));
    CLI::App* prop = command(Command::Property, "prop");
    prop->require_subcommand(1);
    CLI::App* get = prop->add_subcommand("get");
    get->add_option("ID", args.id)->required();
    CLI::App* set = prop->add_subcommand("set");
    set->add_option("ID", args.id)->required();
    set->add_option("VALUE", args.value)->required();
    app.require_subcommand(0, 1);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // Asking for help wins over what else is wrong on the line.
        if (!help) {
            throw BadUsage(e.what());
        }
    }
    std::string chosen;
    for (const auto& [which, sub] : commands) {
        if (sub->parsed()) {
            args.command = which;
            chosen = sub->get_name();
        }
    }
    if (helpCommand->parsed() || help) {
        args.command = Command::Help;
        args.help = HelpOf(helpCommand->parsed() ? topic : chosen);
        return args;
    }
    if (chosen.empty()) {
        throw BadUsage("no command given");
    }
    if (deviceOption->count() > 0) {
        args.device = device;
    }
    args.red = colour == "red";
    args.on = state == "on";
    args.set = set->parsed();
    if (args.command == Command::Snap && args.file.empty()) {
        throw BadUsage("kr7 snap wants -o FILE");
    }
    if (args.command == Command::Capture) {
        CheckCapture(args.capture, mode);
    }
    return args;
}

}  // namespace kr7
