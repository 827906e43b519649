// Renders an FVC-style database of plain impressions through the scanner
// engine: FINGERS fingers (seeds FIRST .. FIRST+FINGERS-1) times IMPRESSIONS
// placements each, one 8-bit binary PGM per impression named
// <finger>_<impression>.pgm (both counted from 1), taken at full pressure.
// measure_matcher.py beside this file drives it.
//
// Usage: kr7sim_database OUTPUT_DIR FINGERS IMPRESSIONS [--first N] [--easy]
//   --easy   today's easy placements (normal skin, firm press, mild pose)
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "print/scan_engine.h"

namespace {

bool ParseCount(const char* text, unsigned long long& out) {
    char* end = nullptr;
    out = std::strtoull(text, &end, 10);
    return end != text && *end == '\0' && out > 0 && out < 100000;
}

int Usage() {
    std::fprintf(stderr,
                 "usage: kr7sim_database OUTPUT_DIR FINGERS IMPRESSIONS [--first N] [--easy]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    using namespace kr7sim;
    std::vector<const char*> positional;
    unsigned long long first = 1;
    bool easy = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--easy") == 0) {
            easy = true;
        } else if (std::strcmp(argv[i], "--first") == 0 && i + 1 < argc) {
            if (!ParseCount(argv[++i], first))
                return Usage();
        } else {
            positional.push_back(argv[i]);
        }
    }
    unsigned long long fingers = 0, impressions = 0;
    if (positional.size() != 3 || !ParseCount(positional[1], fingers) ||
        !ParseCount(positional[2], impressions))
        return Usage();
    const std::string dir = positional[0];

    ScanEngine unit(SensorConfig{});
    std::vector<uint8_t> frame(static_cast<size_t>(unit.width()) * unit.height());
    double render_seconds = 0;
    for (unsigned long long f = 0; f < fingers; ++f) {
        for (unsigned long long k = 0; k < impressions; ++k) {
            ImpressionParams p;
            p.finger_seed = first + f;
            p.impression = static_cast<uint32_t>(k);
            if (easy)
                p.variation = Variation::Easy;
            const auto start = std::chrono::steady_clock::now();
            auto impression = unit.CreateImpression(p);
            unit.Render(impression.get(), FrameRequest{p.press_frames + 12, kNominalDose},
                        frame.data());
            render_seconds +=
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            const std::string path =
                dir + "/" + std::to_string(f + 1) + "_" + std::to_string(k + 1) + ".pgm";
            FILE* out = std::fopen(path.c_str(), "wb");
            if (out == nullptr) {
                std::fprintf(stderr, "cannot write %s\n", path.c_str());
                return 1;
            }
            std::fprintf(out, "P5\n%d %d\n255\n", unit.width(), unit.height());
            const bool ok = std::fwrite(frame.data(), 1, frame.size(), out) == frame.size();
            if (std::fclose(out) != 0 || !ok) {
                std::fprintf(stderr, "cannot write %s\n", path.c_str());
                return 1;
            }
        }
    }
    std::printf("rendered %llu impressions in %.2f s (masters included)\n", fingers * impressions,
                render_seconds);
    return 0;
}
