// Arbitrary bytes as a settings file, through every parser of the settings
// code. Loading never fails; what it yields must save and load again, and the
// entries whose names, keys and values hold none of the format's special
// characters must come back unchanged.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "fuzz_support.h"
#include "util/config_file.h"

namespace {

// Survives Save and Load as it is: none of "#[]\n\r" (nor "=" in a name or
// key), no blank or tab at either end.
bool Plain(const std::string& s, bool key) {
    if (s.find_first_of(key ? "#[]\n\r=" : "#[]\n\r") != std::string::npos) {
        return false;
    }
    return s.empty() ||
           (s.front() != ' ' && s.front() != '\t' && s.back() != ' ' && s.back() != '\t');
}

std::string Saved(const Nvk::CXConfigFile& file) {
    std::ostringstream out;
    file.Save(out);
    return out.str();
}

Nvk::CXConfigFile Loaded(const std::string& text) {
    Nvk::CXConfigFile file;
    std::istringstream in(text);
    file.Load(in);
    return file;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const Nvk::CXConfigFile file = Loaded(text);

    Nvk::CXConfigSection section;
    std::istringstream sectionIn(text);
    section.Load(sectionIn);
    std::ostringstream sectionOut;
    section.Save(sectionOut);
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        section.ParseString(line);
        section.ParseString1(line);
    }

    Loaded(Saved(file));

    Nvk::CXConfigFile plain;
    for (const auto& [name, entries] : file) {
        if (!Plain(name, true)) {
            continue;
        }
        Nvk::CXConfigSection& kept = plain[name];
        for (const auto& [key, value] : entries) {
            if (Plain(key, true) && Plain(value, false)) {
                kept[key] = value;
            }
        }
    }
    const std::string saved = Saved(plain);
    kr7fuzz::Check(Saved(Loaded(saved)) == saved);
    return 0;
}
