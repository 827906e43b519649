// Scenario scripts of the virtual scanner, and the recorded frames a script
// replays. An input that starts like a frame file ("P5" or "BM") is decoded
// as one; anything else is compiled as a script read from a file in a
// scratch folder, whose "frames" folder holds two small recorded frames for
// relative replay steps.
//
// A compiled scenario must cover its cycle with contiguous segments whose
// finger and replay indices exist, and every frame must map to a segment
// that contains it.
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_support.h"
#include "scanner/grey_image.h"
#include "scanner/scenario.h"

using kr7fuzz::Check;
using kr7fuzz::WriteFile;
using kr7sim::scanner::Scenario;

namespace {

std::string g_dir;

void Frame(const std::uint8_t* data, std::size_t size) {
    const std::string path = g_dir + "/input";
    WriteFile(path, data, size);
    kr7sim::scanner::GreyImage image;
    std::string error;
    if (kr7sim::scanner::LoadGreyImage(path, image, error)) {
        Check(image.width >= 1 && image.width <= 4096 && image.height >= 1 && image.height <= 4096);
        Check(image.pixels.size() == std::size_t(image.width) * std::size_t(image.height));
    } else {
        Check(error.compare(0, path.size(), path) == 0);
    }
}

void Script(const std::string& text) {
    const std::string source = g_dir + "/scenario.txt";
    std::string error;
    const auto scenario = Scenario::Parse(text, source, 7, error);
    if (!scenario) {
        Check(error.compare(0, source.size(), source) == 0);
        return;
    }
    std::uint32_t next = 0;
    for (const kr7sim::scanner::Segment& s : scenario->segments()) {
        Check(s.start == next && s.end > s.start);
        Check(s.finger < int(scenario->fingers().size()) && s.finger >= -1);
        Check(s.replay < int(scenario->replays().size()) && s.replay >= -1);
        next = s.end;
    }
    Check(scenario->cycle_frames() == next);

    const std::uint64_t cycle = scenario->cycle_frames();
    const std::uint64_t total = cycle * scenario->repeats();
    const std::uint64_t frames[] = {0,         1,         cycle / 2, cycle - 1, cycle,
                                    cycle + 1, total - 1, total,     total + 1, ~0ull >> 8};
    std::uint64_t unplugs = 0, last = 0;
    for (std::uint64_t frame : frames) {
        const Scenario::State state = scenario->At(frame);
        Check(state.segment != nullptr);
        if (cycle > 0 && (scenario->repeats() == 0 || frame < total)) {
            Check(state.local == frame % cycle);
            Check(state.segment->start <= state.local && state.local < state.segment->end);
            Check(state.start == frame - state.local + state.segment->start);
        }
        if (frame >= last) {
            const std::uint64_t now = scenario->UnplugsUpTo(frame);
            Check(now >= unplugs);
            unplugs = now;
            last = frame;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    std::string pattern = kr7fuzz::ScratchPath("scenario_fuzz") + "_XXXXXX";
    Check(mkdtemp(&pattern[0]) != nullptr);
    g_dir = pattern;
    Check(mkdir((g_dir + "/frames").c_str(), 0700) == 0);
    const char pgm[] = "P5\n4 3\n255\nABCDEFGHIJKL";
    WriteFile(g_dir + "/frames/a.pgm", pgm, sizeof pgm - 1);
    // 2 x 1, 24 bits: the file header, the 40-byte header, one padded row.
    std::uint8_t bmp[62] = {'B', 'M'};
    kr7fuzz::Put32(bmp + 2, sizeof bmp);  // file size
    kr7fuzz::Put32(bmp + 10, 54);         // offset of the pixels
    kr7fuzz::Put32(bmp + 14, 40);         // header size
    kr7fuzz::Put32(bmp + 18, 2);          // width
    kr7fuzz::Put32(bmp + 22, 1);          // height
    bmp[26] = 1;                          // planes
    bmp[28] = 24;                         // bits per pixel
    std::memcpy(bmp + 54, "\x0a\x14\x1e\x28\x32\x3c", 6);
    WriteFile(g_dir + "/frames/b.bmp", bmp, sizeof bmp);
    std::atexit([] {
        for (const char* name : {"/frames/a.pgm", "/frames/b.bmp", "/input", "/frames", ""}) {
            std::remove((g_dir + name).c_str());
        }
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size >= 2 && ((data[0] == 'P' && data[1] == '5') || (data[0] == 'B' && data[1] == 'M'))) {
        Frame(data, size);
    } else {
        Script(std::string(reinterpret_cast<const char*>(data), size));
    }
    return 0;
}
