// Feeds arbitrary bytes to the settings parser: loading must never throw or
// read outside a line, and what Save writes must load again.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>

#include "util/config_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);

    Nvk::CXConfigFile file;
    std::istringstream in(text);
    file.Load(in);

    Nvk::CXConfigSection section;
    std::istringstream sectionIn(text);
    section.Load(sectionIn);
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        section.ParseString(line);
        section.ParseString1(line);
    }

    std::ostringstream out;
    file.Save(out);
    std::istringstream back(out.str());
    Nvk::CXConfigFile reloaded;
    reloaded.Load(back);
    return 0;
}
