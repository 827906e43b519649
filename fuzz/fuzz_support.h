// What the fuzz targets share: the check that turns a property that does not
// hold into a crash (libFuzzer keeps the input), scratch files, and
// little-endian words.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace kr7fuzz {

inline void Check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

// `name` and the process id in TMPDIR (fuzz/run.sh gives each target its
// own) or else in /tmp.
inline std::string ScratchPath(const std::string& name) {
    const char* tmp = std::getenv("TMPDIR");
    return std::string(tmp && *tmp ? tmp : "/tmp") + "/kr7_" + name + "_" +
           std::to_string(::getpid());
}

inline void WriteFile(const std::string& path, const void* data, std::size_t size) {
    std::FILE* file = std::fopen(path.c_str(), "wb");
    Check(file != nullptr);
    Check(std::fwrite(data, 1, size, file) == size);
    Check(std::fclose(file) == 0);
}

inline void Put32(std::uint8_t* p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<std::uint8_t>(v >> (8 * i));
    }
}

}  // namespace kr7fuzz
