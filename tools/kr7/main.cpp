// kr7: the command-line tool for KR7 fingerprint scanners. It loads the
// capture plug-in libnorvakkr7fg.so.1 at run time, as imaging applications
// do, and drives it through its public header only: lists the scanners,
// shows what they are and what the plug-in offers, takes images and
// captures, switches the LEDs and reads and sets properties. With --virtual
// it runs against the virtual scanner.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "capture.h"
#include "image.h"
#include "json.h"
#include "plugin.h"

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

const char* HelpOf(const std::string& command) {
    for (const CommandHelp& help : kCommandHelp) {
        if (command == help.name) {
            return help.text;
        }
    }
    return nullptr;
}

Failure BadUsage(const std::string& what) {
    return Failure(kBadUsage, what + "\n" + kUsage + "(kr7 --help for more)");
}

bool ParseNumber(const std::string& text, long long low, long long high, long long& value) {
    if (text.empty()) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    const long long parsed = std::strtoll(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0' || parsed < low || parsed > high) {
        return false;
    }
    value = parsed;
    return true;
}

long long NumberArgument(const std::string& option, const std::string& text, long long low,
                         long long high) {
    long long value = 0;
    if (!ParseNumber(text, low, high, value)) {
        throw BadUsage(option + " wants a number from " + std::to_string(low) + " to " +
                       std::to_string(high) + ", not '" + text + "'");
    }
    return value;
}

struct Arguments {
    LoadOptions load;
    Output output;
    bool device = false;
    unsigned long deviceIndex = 0;
    std::string command;
    std::vector<std::string> rest;  // the command's arguments
};

// Global options may stand before or after the command; "--" ends options.
Arguments Parse(int argc, char** argv) {
    Arguments args;
    bool options = true;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        std::string value;
        bool inlineValue = false;
        if (options && arg.rfind("--", 0) == 0) {
            const std::size_t equals = arg.find('=');
            if (equals != std::string::npos) {
                value = arg.substr(equals + 1);
                arg.resize(equals);
                inlineValue = true;
            }
        }
        const auto next = [&]() -> std::string {
            if (inlineValue) {
                return value;
            }
            if (i + 1 >= argc) {
                throw BadUsage(arg + " wants a value");
            }
            return argv[++i];
        };
        if (!options) {
            (args.command.empty() ? args.command : args.rest.emplace_back()) = arg;
        } else if (arg == "--") {
            options = false;
        } else if (arg == "--virtual") {
            args.load.virtualScanner = true;
        } else if (arg == "--plugin") {
            args.load.plugin = next();
        } else if (arg == "--device") {
            args.device = true;
            args.deviceIndex = static_cast<unsigned long>(NumberArgument(arg, next(), 0, 127));
        } else if (arg == "--json") {
            args.output.json = true;
        } else if (arg == "--quiet" || arg == "-q") {
            args.output.quiet = true;
        } else if (args.command.empty()) {
            if (arg == "-h" || arg == "--help" || arg == "help") {
                args.command = "help";
            } else if (!arg.empty() && arg[0] == '-') {
                throw BadUsage("unknown option " + arg);
            } else {
                args.command = arg;
            }
        } else {
            args.rest.push_back(inlineValue ? arg + "=" + value : arg);
        }
    }
    return args;
}

// The command's own options: name and value pairs, in order.
struct CommandOption {
    std::string name;
    std::string value;
};

std::vector<CommandOption> CommandOptions(const std::vector<std::string>& rest,
                                          const std::vector<std::string>& withValue,
                                          std::vector<std::string>& operands) {
    std::vector<CommandOption> found;
    for (std::size_t i = 0; i < rest.size(); ++i) {
        std::string name = rest[i];
        if (name.size() < 2 || name[0] != '-') {
            operands.push_back(name);
            continue;
        }
        std::string value;
        bool inlineValue = false;
        const std::size_t equals = name.find('=');
        if (name.rfind("--", 0) == 0 && equals != std::string::npos) {
            value = name.substr(equals + 1);
            name.resize(equals);
            inlineValue = true;
        }
        bool known = false;
        for (const std::string& option : withValue) {
            known = known || option == name;
        }
        if (!known) {
            throw BadUsage("unknown option " + name);
        }
        if (!inlineValue) {
            if (i + 1 >= rest.size()) {
                throw BadUsage(name + " wants a value");
            }
            value = rest[++i];
        }
        found.push_back({name, value});
    }
    return found;
}

void NoOperands(const std::string& command, const std::vector<std::string>& operands) {
    if (!operands.empty()) {
        throw BadUsage("kr7 " + command + " takes no argument '" + operands.front() + "'");
    }
}

// ---- the commands ---------------------------------------------------------------

// The scanner the commands work with: --device, else the first connected.
struct Scanner {
    unsigned int index = 0;
    std::string serial;
};

Scanner SelectScanner(Plugin& plugin, const Arguments& args) {
    const std::vector<vc::DeviceInfo> devices = plugin.Devices();
    if (devices.empty()) {
        throw Failure(kPluginError, "no scanner connected");
    }
    Scanner scanner{devices.front().Index, devices.front().SerialNumber};
    if (args.device) {
        plugin.Check("SetActiveDevice", plugin.Grabber().SetActiveDevice(args.deviceIndex));
        for (const vc::DeviceInfo& device : devices) {
            if (device.Index == args.deviceIndex) {
                scanner = {device.Index, device.SerialNumber};
            }
        }
    }
    return scanner;
}

int List(Plugin& plugin, const Arguments& args) {
    const std::vector<vc::DeviceInfo> devices = plugin.Devices();
    unsigned long active = devices.empty() ? 0 : devices.front().Index;
    if (args.device) {
        plugin.Check("SetActiveDevice", plugin.Grabber().SetActiveDevice(args.deviceIndex));
        active = args.deviceIndex;
    }
    if (args.output.json) {
        JsonWriter json;
        json.BeginObject().Key("scanners").BeginArray();
        for (const vc::DeviceInfo& device : devices) {
            json.BeginObject().Key("interface").Integer(device.Index);
            json.Key("serial").String(device.SerialNumber);
            json.Key("active").Bool(device.Index == active).EndObject();
        }
        std::printf("%s\n", json.EndArray().EndObject().Text().c_str());
    } else if (!args.output.quiet) {
        if (devices.empty()) {
            std::printf("no scanner connected\n");
        }
        for (const vc::DeviceInfo& device : devices) {
            std::printf("%c interface %u: serial %s\n", device.Index == active ? '*' : ' ',
                        device.Index, device.SerialNumber);
        }
    }
    return kSuccess;
}

struct Named {
    int id;
    const char* name;
};

std::string NameOf(int id, std::initializer_list<Named> names) {
    for (const Named& named : names) {
        if (named.id == id) {
            return named.name;
        }
    }
    return "unknown";
}

std::string CameraName(int id) {
    return NameOf(id, {{vc::eCameraKR7, "KR7"}});
}
std::string ColourModeName(int id) {
    return NameOf(id, {{vc::eColorGray8, "grey 8-bit"}});
}
std::string CaptureModeName(int id) {
    return ModeName(static_cast<vc::eCaptureModeIDs>(id));
}
std::string FilterName(int id) {
    return NameOf(
        id, {{vc::eFilterNone, "none"}, {vc::eFilterSubtractBackground, "subtract background"}});
}
std::string PropertyName(int id) {
    return NameOf(id, {{vc::ePropFixedOne, "fixed one"},
                       {vc::ePropFakeFingerDetection, "fake-finger detection"},
                       {vc::ePropRedLED, "red LED"},
                       {vc::ePropGreenLED, "green LED"}});
}

int Info(Plugin& plugin, const Arguments& args) {
    const Scanner scanner = SelectScanner(plugin, args);
    const std::string version = plugin.Version();
    std::vector<std::string> info = plugin.Info();
    info.resize(5 > info.size() ? 5 : info.size());
    struct Capability {
        const char* key;
        const char* label;
        std::vector<int> ids;
        std::string (*name)(int);
    };
    const Capability lists[] = {
        {"cameras", "cameras", plugin.Cameras(), &CameraName},
        {"colour_modes", "colour modes", plugin.ColourModes(), &ColourModeName},
        {"capture_modes", "capture modes", plugin.CaptureModes(), &CaptureModeName},
        {"filters", "filters", plugin.Filters(), &FilterName},
        {"properties", "properties", plugin.Properties(), &PropertyName},
    };
    const char* const keys[5] = {"product", "serial", "hardware", "firmware", "calibration"};
    const char* const labels[5] = {"scanner", "serial number", "hardware version",
                                   "firmware version", "calibration"};
    if (args.output.json) {
        JsonWriter json;
        json.BeginObject().Key("plugin").BeginObject().Key("version").String(version);
        json.Key("file").String(plugin.File()).EndObject();
        json.Key("scanner").BeginObject().Key("interface").Integer(scanner.index);
        for (int i = 0; i < 5; ++i) {
            json.Key(keys[i]).String(info[static_cast<std::size_t>(i)]);
        }
        json.EndObject();
        for (const Capability& list : lists) {
            json.Key(list.key).BeginArray();
            for (int id : list.ids) {
                json.BeginObject()
                    .Key("id")
                    .Integer(id)
                    .Key("name")
                    .String(list.name(id))
                    .EndObject();
            }
            json.EndArray();
        }
        std::printf("%s\n", json.EndObject().Text().c_str());
        return kSuccess;
    }
    if (args.output.quiet) {
        return kSuccess;
    }
    std::printf("%-18s %s (%s)\n", "plug-in", version.c_str(), plugin.File().c_str());
    std::printf("%-18s %u\n", "interface", scanner.index);
    for (int i = 0; i < 5; ++i) {
        std::printf("%-18s %s\n", labels[i], info[static_cast<std::size_t>(i)].c_str());
    }
    for (const Capability& list : lists) {
        std::string line;
        for (int id : list.ids) {
            line += (line.empty() ? "" : ", ") + list.name(id) + " (" + std::to_string(id) + ")";
        }
        std::printf("%-18s %s\n", list.label, line.empty() ? "none" : line.c_str());
    }
    return kSuccess;
}

int Snap(Plugin& plugin, const Arguments& args, const std::string& file) {
    SelectScanner(plugin, args);
    unsigned char* block = nullptr;
    plugin.Check("GetImage", plugin.Grabber().GetImage(1, &block));
    Gray image;
    const bool understood = FromPackedBitmap(block, image);
    plugin.Grabber().FreeImage(block);
    if (!understood) {
        throw Failure(kPluginError, "GetImage gave an image kr7 does not understand");
    }
    WriteImage(image, file);
    if (args.output.json) {
        JsonWriter json;
        json.BeginObject().Key("file").String(file).Key("width").Integer(image.width);
        std::printf("%s\n", json.Key("height").Integer(image.height).EndObject().Text().c_str());
    } else if (!args.output.quiet) {
        std::printf("%s: %dx%d\n", file.c_str(), image.width, image.height);
    }
    return kSuccess;
}

int Contamination(Plugin& plugin, const Arguments& args) {
    SelectScanner(plugin, args);
    double value = 0;
    plugin.Check("ContaminationDetection", plugin.Grabber().ContaminationDetection(1, &value));
    if (args.output.json) {
        JsonWriter json;
        std::printf(
            "%s\n",
            json.BeginObject().Key("contamination").Number(value).EndObject().Text().c_str());
    } else if (!args.output.quiet) {
        std::printf("contamination %.4f (%.2f%% of the platen)\n", value, value * 100.0);
    }
    return kSuccess;
}

int Property(Plugin& plugin, const Arguments& args, bool set, unsigned int id, unsigned int value) {
    SelectScanner(plugin, args);
    const auto property = static_cast<vc::ePropertyIDs>(id);
    if (set) {
        plugin.Check("SetFGProperty", plugin.Grabber().SetFGProperty(property, value));
    }
    plugin.Check("GetFGProperty", plugin.Grabber().GetFGProperty(property, value));
    if (args.output.json) {
        JsonWriter json;
        json.BeginObject().Key("property").Integer(id).Key("value").Integer(value);
        std::printf("%s\n", json.EndObject().Text().c_str());
    } else if (!args.output.quiet) {
        std::printf("%u\n", value);
    }
    return kSuccess;
}

int Led(Plugin& plugin, const Arguments& args, bool red, bool on) {
    SelectScanner(plugin, args);
    plugin.Check("SetFGProperty", plugin.Grabber().SetFGProperty(
                                      red ? vc::ePropRedLED : vc::ePropGreenLED, on ? 100 : 0));
    if (!args.output.quiet && !args.output.json) {
        std::printf("%s LED %s\n", red ? "red" : "green", on ? "on" : "off");
    }
    return kSuccess;
}

CaptureOptions CaptureArguments(const std::vector<std::string>& rest) {
    CaptureOptions options;
    std::vector<std::string> operands;
    for (const CommandOption& option : CommandOptions(
             rest, {"--mode", "--count", "--frames", "--timeout", "--out", "--name", "--sheet"},
             operands)) {
        if (option.name == "--mode") {
            if (!ModeFromName(option.value, options.mode)) {
                throw BadUsage("--mode wants live, plain, fastplain, rolled or preview, not '" +
                               option.value + "'");
            }
        } else if (option.name == "--count") {
            options.count = static_cast<int>(NumberArgument(option.name, option.value, 1, 100000));
        } else if (option.name == "--frames") {
            options.frames = static_cast<int>(NumberArgument(option.name, option.value, 1, 100000));
        } else if (option.name == "--timeout") {
            char* end = nullptr;
            options.timeout = std::strtod(option.value.c_str(), &end);
            if (option.value.empty() || *end != '\0' || !(options.timeout > 0) ||
                options.timeout > 86400) {
                throw BadUsage("--timeout wants seconds, more than 0, not '" + option.value + "'");
            }
        } else if (option.name == "--out") {
            options.folder = option.value.empty() ? "." : option.value;
        } else if (option.name == "--name") {
            options.pattern = option.value;
        } else if (option.name == "--sheet") {
            options.sheet = option.value;
        }
    }
    NoOperands("capture", operands);
    const bool frames = options.mode == vc::eCaptureLive || options.mode == vc::eCapturePreview;
    if (options.pattern.empty()) {
        options.pattern = frames ? "frame-%03d.png" : "result-%03d.png";
    }
    std::string name;
    if (!FormatName(options.pattern, 1, name)) {
        throw BadUsage(
            "--name must hold the image number once, as %d, %3d or %03d (e.g. "
            "result-%03d.png), not '" +
            options.pattern + "'");
    }
    if (FormatOf(name) == Format::Unknown) {
        throw BadUsage("--name must end in .png, .bmp or .pgm, not '" + options.pattern + "'");
    }
    if (!options.sheet.empty() && FormatOf(options.sheet) == Format::Unknown) {
        throw BadUsage("--sheet must end in .png, .bmp or .pgm, not '" + options.sheet + "'");
    }
    return options;
}

bool WantsHelp(const std::vector<std::string>& rest) {
    for (const std::string& arg : rest) {
        if (arg == "-h" || arg == "--help") {
            return true;
        }
    }
    return false;
}

void OnSignal(int) {
    g_interrupted = 1;
}

int Run(int argc, char** argv) {
    const Arguments args = Parse(argc, argv);
    if (args.command == "help" || args.command.empty()) {
        const char* help = args.rest.empty() ? nullptr : HelpOf(args.rest.front());
        if (args.command.empty()) {
            throw BadUsage("no command given");
        }
        std::fputs(help != nullptr ? help : (std::string(kUsage) + kHelp).c_str(), stdout);
        return kSuccess;
    }
    const char* help = HelpOf(args.command);
    if (help == nullptr) {
        throw BadUsage("unknown command '" + args.command + "'");
    }
    if (WantsHelp(args.rest)) {
        std::fputs(help, stdout);
        return kSuccess;
    }

    // Everything about the command line is checked before the plug-in loads.
    const std::string& command = args.command;
    std::vector<std::string> operands;
    std::string snapFile;
    CaptureOptions capture;
    bool set = false, red = false, on = false;
    unsigned int id = 0, value = 0;
    if (command == "snap") {
        for (const CommandOption& option :
             CommandOptions(args.rest, {"-o", "--output"}, operands)) {
            snapFile = option.value;
        }
        NoOperands(command, operands);
        if (snapFile.empty()) {
            throw BadUsage("kr7 snap wants -o FILE");
        }
        if (FormatOf(snapFile) == Format::Unknown) {
            throw BadUsage("-o FILE must end in .png, .bmp or .pgm, not '" + snapFile + "'");
        }
    } else if (command == "capture") {
        capture = CaptureArguments(args.rest);
    } else if (command == "led") {
        CommandOptions(args.rest, {}, operands);
        if (operands.size() != 2 || (operands[0] != "red" && operands[0] != "green") ||
            (operands[1] != "on" && operands[1] != "off")) {
            throw BadUsage("kr7 led wants red|green on|off");
        }
        red = operands[0] == "red";
        on = operands[1] == "on";
    } else if (command == "prop") {
        CommandOptions(args.rest, {}, operands);
        set = !operands.empty() && operands[0] == "set";
        if (operands.empty() || (operands[0] != "get" && !set) ||
            operands.size() != (set ? 3u : 2u)) {
            throw BadUsage("kr7 prop wants get ID or set ID VALUE");
        }
        id = static_cast<unsigned int>(NumberArgument("ID", operands[1], 0, 0xFFFFFFFFLL));
        if (set) {
            value =
                static_cast<unsigned int>(NumberArgument("VALUE", operands[2], 0, 0xFFFFFFFFLL));
        }
    } else {
        CommandOptions(args.rest, {}, operands);
        NoOperands(command, operands);
    }

    Plugin plugin(args.load);
    if (command == "list") {
        return List(plugin, args);
    }
    if (command == "info") {
        return Info(plugin, args);
    }
    if (command == "snap") {
        return Snap(plugin, args, snapFile);
    }
    if (command == "contamination") {
        return Contamination(plugin, args);
    }
    if (command == "led") {
        return Led(plugin, args, red, on);
    }
    if (command == "prop") {
        return Property(plugin, args, set, id, value);
    }
    const Scanner scanner = SelectScanner(plugin, args);
    return Capture(plugin, capture, args.output, scanner.serial, scanner.index);
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
