#include "scanner/config.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "print/rng.h"

namespace kr7sim {
namespace scanner {
namespace {

constexpr const char* kUnitCount = "KR7SIM_UNITS: the number of units must be 1 to 128";

std::string Env(const char* name) {
    const char* v = std::getenv(name);
    return v != nullptr ? std::string(v) : std::string();
}

bool ParseU64(const std::string& text, uint64_t& value) {
    if (text.empty() || !std::isdigit(static_cast<unsigned char>(text[0])))
        return false;
    char* end = nullptr;
    errno = 0;
    value = std::strtoull(text.c_str(), &end, 10);
    return errno == 0 && *end == '\0';
}

bool ParseSize(const std::string& text, int& width, int& height) {
    unsigned w = 0, h = 0;
    char tail = 0;
    if (std::sscanf(text.c_str(), "%ux%u%c", &w, &h, &tail) != 2 || w < 64 || h < 64 || w > 4096 ||
        h > 4096)
        return false;
    width = int(w);
    height = int(h);
    return true;
}

bool ParseVersion(const std::string& text, FTRSCAN_VERSION& v) {
    uint16_t parts[4] = {65535, 65535, 65535, 65535};
    size_t pos = 0;
    for (int i = 0; i < 4 && pos <= text.size(); ++i) {
        size_t dot = text.find('.', pos);
        if (dot == std::string::npos)
            dot = text.size();
        uint64_t n = 0;
        if (!ParseU64(text.substr(pos, dot - pos), n) || n > 65535)
            return false;
        parts[i] = uint16_t(n);
        pos = dot + 1;
        if (dot == text.size())
            break;
    }
    if (pos < text.size())
        return false;
    v = FTRSCAN_VERSION{parts[0], parts[1], parts[2], parts[3]};
    return true;
}

bool ParseUnit(const std::string& entry, int index, uint64_t seed, UnitConfig& unit,
               std::string& error) {
    unit = UnitConfig{};
    unit.interface_number = index;
    bool seeded = false;
    size_t pos = 0;
    while (pos <= entry.size()) {
        size_t end = entry.find(',', pos);
        if (end == std::string::npos)
            end = entry.size();
        const std::string item = entry.substr(pos, end - pos);
        pos = end + 1;
        if (item.empty())
            continue;
        const size_t eq = item.find('=');
        const std::string key = item.substr(0, eq);
        const std::string value = eq == std::string::npos ? std::string() : item.substr(eq + 1);
        uint64_t n = 0;
        bool ok = eq != std::string::npos;
        if (!ok) {
        } else if (key == "if") {
            ok = ParseU64(value, n) && n < FTR_MAX_INTERFACE_NUMBER;
            unit.interface_number = int(n);
        } else if (key == "size") {
            ok = ParseSize(value, unit.width, unit.height);
        } else if (key == "long") {
            unit.long_supported = value != "none";
            ok = !unit.long_supported || ParseSize(value, unit.long_width, unit.long_height);
        } else if (key == "serial") {
            ok = value.size() == 8;
            unit.serial = value;
        } else if (key == "seed") {
            ok = ParseU64(value, unit.seed);
            seeded = true;
        } else if (key == "hw") {
            ok = ParseVersion(value, unit.hardware_version);
        } else if (key == "fw") {
            ok = ParseVersion(value, unit.firmware_version);
        } else if (key == "dirt") {
            ok = ParseU64(value, n) && n <= 50;
            unit.dirt = int(n);
        } else if (key == "calibration") {
            ok = value == "yes" || value == "no";
            unit.calibration = value == "yes";
        } else if (key == "extsize") {
            ok = ParseU64(value, n) && n <= 1024 * 1024;
            unit.ext_memory_size = int(n);
        } else if (key == "scenario") {
            ok = !value.empty();
            unit.scenario_path = value;
        } else {
            error = "KR7SIM_UNITS: unknown key '" + key + "' in '" + entry + "'";
            return false;
        }
        if (!ok) {
            error = "KR7SIM_UNITS: bad setting '" + item + "'";
            return false;
        }
    }
    if (!seeded)
        unit.seed = HashWords(seed, uint64_t(unit.interface_number));
    return true;
}

bool ReadText(const std::string& path, std::string& text, std::string& error) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) {
        error = "cannot open the scenario " + path + ": " + std::strerror(errno);
        return false;
    }
    char chunk[4096];
    size_t n = 0;
    text.clear();
    while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0 && text.size() < (1u << 20))
        text.append(chunk, n);
    std::fclose(f);
    return true;
}

std::shared_ptr<const Scenario> LoadScenario(const std::string& source, bool inline_text,
                                             uint64_t seed, std::string& error) {
    if (inline_text)
        return Scenario::Parse(source, "KR7SIM_SCENARIO", seed, error);
    std::string text;
    if (!ReadText(source, text, error))
        return nullptr;
    return Scenario::Parse(text, source, seed, error);
}

}  // namespace

bool ParseUnits(const std::string& text, uint64_t seed, std::vector<UnitConfig>& units,
                std::string& error) {
    units.clear();
    uint64_t count = 0;
    if (text.empty() ||
        (ParseU64(text, count) && text.find_first_not_of("0123456789") == std::string::npos)) {
        if (text.empty())
            count = 1;
        if (count < 1 || count > FTR_MAX_INTERFACE_NUMBER) {
            error = kUnitCount;
            return false;
        }
        for (uint64_t i = 0; i < count; ++i) {
            UnitConfig unit;
            if (!ParseUnit("", int(i), seed, unit, error))
                return false;
            units.push_back(unit);
        }
        return true;
    }
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t end = text.find(';', pos);
        if (end == std::string::npos)
            end = text.size();
        const std::string entry = text.substr(pos, end - pos);
        pos = end + 1;
        if (entry.empty())
            continue;
        // 128 units take every interface: a further one has none left, and
        // its default interface number would be past the last.
        if (units.size() == FTR_MAX_INTERFACE_NUMBER) {
            error = kUnitCount;
            return false;
        }
        UnitConfig unit;
        if (!ParseUnit(entry, int(units.size()), seed, unit, error))
            return false;
        for (const UnitConfig& other : units) {
            if (other.interface_number == unit.interface_number) {
                error =
                    "KR7SIM_UNITS: two units on interface " + std::to_string(unit.interface_number);
                return false;
            }
        }
        units.push_back(unit);
    }
    if (units.empty()) {  // separators only
        error = kUnitCount;
        return false;
    }
    std::sort(units.begin(), units.end(), [](const UnitConfig& a, const UnitConfig& b) {
        return a.interface_number < b.interface_number;
    });
    return true;
}

void Configure(Library& library) {
    std::string error;
    const std::string journal = Env("KR7SIM_JOURNAL");
    if (!journal.empty() && !library.journal.Open(journal, error)) {
        library.error = error;
        return;
    }
    const std::string realtime = Env("KR7SIM_REALTIME");
    library.realtime = !realtime.empty() && realtime != "0";
    const std::string fixed = Env("KR7SIM_FIXED_FRAME");
    library.fixed_frame = !fixed.empty() && fixed != "0";
    uint64_t seed = 1;
    if (const std::string s = Env("KR7SIM_SEED"); !s.empty() && !ParseU64(s, seed)) {
        library.error = "KR7SIM_SEED: not a number: '" + s + "'";
        return;
    }
    if (!library.faults.Parse(Env("KR7SIM_FAULTS"), error)) {
        library.error = "KR7SIM_FAULTS: " + error;
        return;
    }
    std::vector<UnitConfig> configs;
    if (!ParseUnits(Env("KR7SIM_UNITS"), seed, configs, error)) {
        library.error = error;
        return;
    }
    const std::string source = Env("KR7SIM_SCENARIO");
    std::shared_ptr<const Scenario> shared =
        source.empty()
            ? Scenario::Parse(Scenario::DefaultScript(), "default scenario", seed, error)
            : LoadScenario(source, source.find_first_of(";\n") != std::string::npos, seed, error);
    if (!shared) {
        library.error = error;
        return;
    }
    std::vector<std::unique_ptr<Unit>> units;
    for (const UnitConfig& config : configs) {
        std::shared_ptr<const Scenario> scenario = shared;
        if (!config.scenario_path.empty()) {
            scenario = LoadScenario(config.scenario_path, false, seed, error);
            if (!scenario) {
                library.error = error;
                return;
            }
        }
        units.push_back(
            std::make_unique<Unit>(config, scenario, library.realtime, library.fixed_frame));
    }
    library.units.swap(units);
}

}  // namespace scanner
}  // namespace kr7sim
