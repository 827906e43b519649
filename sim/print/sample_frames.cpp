// Writes sample frames of the virtual scanner as binary PGM files, for
// looking at the engine's output (convert with pgm_to_png.py beside this
// file).
//
// Usage: kr7sim_samples [OUTPUT_DIR] [FINGER_SEED]
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "print/scan_engine.h"

namespace {

bool WritePgm(const std::string& path, int w, int h, const uint8_t* pixels) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr)
        return false;
    std::fprintf(f, "P5\n%d %d\n255\n", w, h);
    const size_t n = static_cast<size_t>(w) * h;
    const bool ok = std::fwrite(pixels, 1, n, f) == n;
    return std::fclose(f) == 0 && ok;
}

}  // namespace

int main(int argc, char** argv) {
    using namespace kr7sim;
    const std::string dir = argc > 1 ? argv[1] : ".";
    const uint64_t seed = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 7;
    int failures = 0;
    auto save = [&](const std::string& name, int w, int h, const uint8_t* px) {
        const std::string path = dir + "/" + name + ".pgm";
        if (!WritePgm(path, w, h, px)) {
            std::fprintf(stderr, "cannot write %s\n", path.c_str());
            ++failures;
        } else {
            std::printf("%s\n", path.c_str());
        }
    };

    // The master print itself, ridges dark.
    MasterRequest mreq;
    mreq.seed = seed;
    auto master = GetMasterPrint(mreq);
    std::vector<uint8_t> mimg(master->ridge.size());
    for (size_t i = 0; i < mimg.size(); ++i) {
        mimg[i] = static_cast<uint8_t>(std::clamp(127.5 - 127.5 * master->ridge[i], 0.0, 255.0));
    }
    std::printf("finger %llu: %s, period %.2f px, %d passes\n",
                static_cast<unsigned long long>(seed), FingerClassName(master->finger_class),
                master->mean_period, master->growth.passes);
    save("master", master->width, master->height, mimg.data());

    ScanEngine plain(SensorConfig{});
    std::vector<uint8_t> frame(static_cast<size_t>(plain.width()) * plain.height());
    plain.Render(nullptr, FrameRequest{}, frame.data());
    save("empty", plain.width(), plain.height(), frame.data());

    struct Variant {
        const char* name;
        Skin skin;
        double pressure;
        uint32_t frame;
    };
    const Variant variants[] = {{"normal", Skin::Normal, 1.0, 20},
                                {"first_touch", Skin::Normal, 1.0, 0},
                                {"hard", Skin::Normal, 1.6, 20},
                                {"dry", Skin::Dry, 1.0, 20},
                                {"wet", Skin::Wet, 1.0, 20}};
    uint32_t index = 0;
    for (const Variant& v : variants) {
        ImpressionParams p;
        p.finger_seed = seed;
        p.impression = index++;
        p.variation = Variation::Easy;  // the documented samples: one effect at a time
        p.skin = v.skin;
        p.pressure = v.pressure;
        auto imp = plain.CreateImpression(p);
        plain.Render(imp.get(), FrameRequest{v.frame, kNominalDose}, frame.data());
        save(std::string("plain_") + v.name, plain.width(), plain.height(), frame.data());
    }

    // A rolled print: a few frames of the sequence and the darkest-pixel
    // composite, which is what a rolled-print capture assembles.
    SensorConfig rolled_config;
    rolled_config.width = kRolledFrameWidth;
    ScanEngine rolled(rolled_config);
    ImpressionParams rp;
    rp.kind = ImpressionKind::Rolled;
    rp.finger_seed = seed;
    auto roll = rolled.CreateImpression(rp);
    std::vector<uint8_t> rf(static_cast<size_t>(rolled.width()) * rolled.height());
    std::vector<uint8_t> composite(rf.size(), 255);
    const uint32_t last = rp.press_frames + rp.roll_frames;
    for (uint32_t f = 0; f <= last; ++f) {
        rolled.Render(roll.get(), FrameRequest{f, kNominalDose}, rf.data());
        for (size_t i = 0; i < rf.size(); ++i)
            composite[i] = std::min(composite[i], rf[i]);
        if (f == rp.press_frames || f == rp.press_frames + rp.roll_frames / 2) {
            save("rolled_frame" + std::to_string(f), rolled.width(), rolled.height(), rf.data());
        }
    }
    save("rolled_composite", rolled.width(), rolled.height(), composite.data());
    return failures == 0 ? 0 : 1;
}
