#include "commands.h"

#include <cstdio>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace kr7 {

namespace {

using Json = nlohmann::ordered_json;

void Print(const Json& json) {
    std::printf("%s\n", json.dump().c_str());
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

// A capability list of the plug-in with a name for each entry.
struct Capability {
    const char* key;    // in JSON
    const char* label;  // in text
    std::vector<int> ids;
    std::string (*name)(int);
};

template <class Id>
std::vector<int> Ids(const std::vector<Id>& list) {
    return std::vector<int>(list.begin(), list.end());
}

std::vector<Capability> Capabilities(kr7host::Plugin& plugin) {
    return {
        {"cameras", "cameras", Ids(plugin.Cameras()),
         [](int id) {
             return NameOf(id, {{vc::eCameraKR7, "KR7"}});
         }},
        {"colour_modes", "colour modes", Ids(plugin.ColorModes()),
         [](int id) {
             return NameOf(id, {{vc::eColorGray8, "grey 8-bit"}});
         }},
        {"capture_modes", "capture modes", Ids(plugin.CaptureModes()),
         [](int id) { return std::string(ModeName(static_cast<vc::eCaptureModeIDs>(id))); }},
        {"filters", "filters", Ids(plugin.Filters()),
         [](int id) {
             return NameOf(id, {{vc::eFilterNone, "none"},
                                {vc::eFilterSubtractBackground, "subtract background"}});
         }},
        {"properties", "properties", Ids(plugin.Properties()),
         [](int id) {
             return NameOf(id, {{vc::ePropFixedOne, "fixed one"},
                                {vc::ePropFakeFingerDetection, "fake-finger detection"},
                                {vc::ePropRedLED, "red LED"},
                                {vc::ePropGreenLED, "green LED"}});
         }},
    };
}

// The five texts of GetInfo, with their JSON keys and text labels.
constexpr const char* kInfoKeys[5] = {"product", "serial", "hardware", "firmware", "calibration"};
constexpr const char* kInfoLabels[5] = {"scanner", "serial number", "hardware version",
                                        "firmware version", "calibration"};

}  // namespace

Scanner SelectScanner(kr7host::Plugin& plugin, const Arguments& args) {
    const std::vector<vc::DeviceInfo> devices = plugin.Devices();
    if (devices.empty()) {
        throw Failure(kPluginError, "no scanner connected");
    }
    Scanner scanner{devices.front().Index, devices.front().SerialNumber};
    if (args.device) {
        plugin.SelectDevice(*args.device);
        for (const vc::DeviceInfo& device : devices) {
            if (device.Index == *args.device) {
                scanner = {device.Index, device.SerialNumber};
            }
        }
    }
    return scanner;
}

int List(kr7host::Plugin& plugin, const Arguments& args) {
    const std::vector<vc::DeviceInfo> devices = plugin.Devices();
    unsigned long active = devices.empty() ? 0 : devices.front().Index;
    if (args.device) {
        plugin.SelectDevice(*args.device);
        active = *args.device;
    }
    if (args.output.json) {
        Json scanners = Json::array();
        for (const vc::DeviceInfo& device : devices) {
            scanners.push_back({{"interface", device.Index},
                                {"serial", device.SerialNumber},
                                {"active", device.Index == active}});
        }
        Print({{"scanners", scanners}});
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

int Info(kr7host::Plugin& plugin, const Arguments& args) {
    const Scanner scanner = SelectScanner(plugin, args);
    const std::string version = plugin.Version();
    std::vector<std::string> info = plugin.Info();
    info.resize(std::max<std::size_t>(5, info.size()));
    const std::vector<Capability> lists = Capabilities(plugin);
    if (args.output.json) {
        Json json = {{"plugin", {{"version", version}, {"file", plugin.File()}}}};
        Json& about = json["scanner"] = {{"interface", scanner.index}};
        for (std::size_t i = 0; i < 5; ++i) {
            about[kInfoKeys[i]] = info[i];
        }
        for (const Capability& list : lists) {
            Json& entries = json[list.key] = Json::array();
            for (int id : list.ids) {
                entries.push_back({{"id", id}, {"name", list.name(id)}});
            }
        }
        Print(json);
    } else if (!args.output.quiet) {
        std::printf("%-18s %s (%s)\n", "plug-in", version.c_str(), plugin.File().c_str());
        std::printf("%-18s %u\n", "interface", scanner.index);
        for (std::size_t i = 0; i < 5; ++i) {
            std::printf("%-18s %s\n", kInfoLabels[i], info[i].c_str());
        }
        for (const Capability& list : lists) {
            std::string line;
            for (int id : list.ids) {
                line +=
                    (line.empty() ? "" : ", ") + list.name(id) + " (" + std::to_string(id) + ")";
            }
            std::printf("%-18s %s\n", list.label, line.empty() ? "none" : line.c_str());
        }
    }
    return kSuccess;
}

int Snap(kr7host::Plugin& plugin, const Arguments& args) {
    SelectScanner(plugin, args);
    const kr7host::Image image = plugin.Snap();
    try {
        kr7host::WriteImage(image, args.file);
    } catch (const std::runtime_error& e) {
        throw Failure(kPluginError, e.what());
    }
    if (args.output.json) {
        Print({{"file", args.file}, {"width", image.width}, {"height", image.height}});
    } else if (!args.output.quiet) {
        std::printf("%s: %dx%d\n", args.file.c_str(), image.width, image.height);
    }
    return kSuccess;
}

int Contamination(kr7host::Plugin& plugin, const Arguments& args) {
    SelectScanner(plugin, args);
    const double share = plugin.Contamination();
    if (args.output.json) {
        Print({{"contamination", share}});
    } else if (!args.output.quiet) {
        std::printf("contamination %.4f (%.2f%% of the platen)\n", share, share * 100.0);
    }
    return kSuccess;
}

int Led(kr7host::Plugin& plugin, const Arguments& args) {
    SelectScanner(plugin, args);
    plugin.SetProperty(args.red ? vc::ePropRedLED : vc::ePropGreenLED, args.on ? 100 : 0);
    if (args.output.Human()) {
        std::printf("%s LED %s\n", args.red ? "red" : "green", args.on ? "on" : "off");
    }
    return kSuccess;
}

int Property(kr7host::Plugin& plugin, const Arguments& args) {
    SelectScanner(plugin, args);
    const auto property = static_cast<vc::ePropertyIDs>(args.id);
    if (args.set) {
        plugin.SetProperty(property, args.value);
    }
    const unsigned int value = plugin.Property(property);
    if (args.output.json) {
        Print({{"property", args.id}, {"value", value}});
    } else if (!args.output.quiet) {
        std::printf("%u\n", value);
    }
    return kSuccess;
}

}  // namespace kr7
