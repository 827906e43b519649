// kr7scan_capture: takes frames from libQV2ScanAPI.so the way a host does and
// writes them as binary PGM files: the raw frame as the API delivers it and,
// when libnorvakcalibratesdk.so can be loaded, the corrected frame (turned
// upside down, inverted and calibrated with the unit's own data). Both
// libraries are opened by name, so LD_LIBRARY_PATH chooses them.
//
// Usage: kr7scan_capture OUTPUT_DIR [COUNT [EVERY]]
//   takes COUNT frames (default 1), keeping every EVERY-th (default 1).
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "calibration/calibration_header.h"
#include "calibration/norvakcalibratesdk.h"
#include "scanner/ftrscan.h"

namespace {

template <class T>
T Symbol(void* lib, const char* name) {
    return lib != nullptr ? reinterpret_cast<T>(dlsym(lib, name)) : nullptr;
}

bool WritePgm(const std::string& path, int w, int h, int stride, const uint8_t* p) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr)
        return false;
    std::fprintf(f, "P5\n%d %d\n255\n", w, h);
    bool ok = true;
    for (int y = 0; y < h && ok; ++y)
        ok = std::fwrite(p + size_t(y) * stride, 1, size_t(w), f) == size_t(w);
    return std::fclose(f) == 0 && ok;
}

struct ExtStream : Nvk::CXStream {
    FTRHANDLE h;
    decltype(&::ftrScanRestoreExtMemory) read;
    bool WriteRaw(const void*, unsigned int) override { return false; }
    bool ReadRaw(void* data, unsigned int size) override {
        return read != nullptr && read(h, data, 0, int(size));
    }
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s OUTPUT_DIR [COUNT [EVERY]]\n", argv[0]);
        return 2;
    }
    const std::string dir = argv[1];
    const int count = argc > 2 ? std::atoi(argv[2]) : 1;
    const int every = argc > 3 ? std::max(1, std::atoi(argv[3])) : 1;
    void* scan = dlopen("libQV2ScanAPI.so", RTLD_NOW);
    if (scan == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    auto open = Symbol<decltype(&::ftrScanOpenDevice)>(scan, "ftrScanOpenDevice");
    auto size = Symbol<decltype(&::ftrScanGetImageSize)>(scan, "ftrScanGetImageSize");
    auto options = Symbol<decltype(&::ftrScanSetOptions)>(scan, "ftrScanSetOptions");
    auto dose =
        Symbol<decltype(&::ftrScanGetImageByVariableDose)>(scan, "ftrScanGetImageByVariableDose");
    auto error = Symbol<decltype(&::ftrScanGetLastError)>(scan, "ftrScanGetLastError");
    auto ext_size = Symbol<decltype(&::ftrScanGetExtMemorySize)>(scan, "ftrScanGetExtMemorySize");
    ExtStream stream;
    stream.read = Symbol<decltype(&::ftrScanRestoreExtMemory)>(scan, "ftrScanRestoreExtMemory");
    if (!open || !size || !options || !dose || !error) {
        std::fprintf(stderr, "libQV2ScanAPI.so lacks an entry point\n");
        return 1;
    }
    FTRHANDLE h = open();
    FTRSCAN_IMAGE_SIZE frame{0, 0, 0};
    if (h == nullptr ||
        !options(h, FTR_OPTIONS_RECEIVE_LONG_IMAGE, FTR_OPTIONS_RECEIVE_LONG_IMAGE) ||
        !size(h, &frame)) {
        std::fprintf(stderr, "cannot open the scanner: error %u\n", error());
        return 1;
    }
    const int w = frame.nWidth, hgt = frame.nHeight;

    // The calibration, when both the library and the unit's data are there.
    void* cal = dlopen("libnorvakcalibratesdk.so", RTLD_NOW);
    auto create = Symbol<decltype(&::CalibrateCreate)>(cal, "CalibrateCreate");
    auto set = Symbol<decltype(&::CalibrateSetData)>(cal, "CalibrateSetData");
    auto calibrate = Symbol<decltype(&::Calibrate)>(cal, "Calibrate");
    void* instance = nullptr;
    Nvk::ClQV2CalibrationHeader header;
    int memory = 0;
    if (create && set && calibrate && ext_size && ext_size(h, &memory) && memory > 0) {
        stream.h = h;
        unsigned char* payload = nullptr;
        unsigned int payload_size = 0;
        try {
            header.ReadFromStream(&stream, unsigned(memory), &payload, payload_size);
            instance = create();
            if (set(instance, payload, payload_size) != 0)
                instance = nullptr;
        } catch (const std::exception&) {
            instance = nullptr;
        }
    }
    if (instance == nullptr)
        std::fprintf(stderr, "no calibration: writing raw frames only\n");

    const int stride = (w + 3) & ~3;
    std::vector<uint8_t> raw(size_t(w) * hgt), dib(1064 + size_t(stride) * hgt, 0);
    std::vector<uint8_t> out(dib.size());
    int written = 0;
    for (int i = 0; i < count; ++i) {
        if (!dose(h, 60, raw.data())) {
            std::printf("frame %d: error %u\n", i, error());
            continue;
        }
        if (i % every != 0)
            continue;
        char name[64];
        std::snprintf(name, sizeof name, "/frame%04d", i);
        written += WritePgm(dir + name + "_raw.pgm", w, hgt, w, raw.data()) ? 1 : 0;
        if (instance == nullptr)
            continue;
        // The plug-in's view: upside down and inverted, then calibrated.
        const int32_t head[] = {40, w, hgt};
        std::memcpy(dib.data(), head, sizeof head);
        dib[12] = 1;
        dib[14] = 8;
        for (int y = 0; y < hgt; ++y)
            for (int x = 0; x < w; ++x)
                dib[1064 + size_t(y) * stride + x] =
                    uint8_t(255 - raw[size_t(hgt - 1 - y) * w + x]);
        unsigned int out_size = unsigned(out.size());
        if (calibrate(instance, reinterpret_cast<tagBITMAPINFOHEADER*>(dib.data()),
                      unsigned(dib.size()), reinterpret_cast<tagBITMAPINFOHEADER*>(out.data()),
                      &out_size) == 0) {
            int32_t ow = 0, oh = 0;
            std::memcpy(&ow, out.data() + 4, 4);
            std::memcpy(&oh, out.data() + 8, 4);
            written +=
                WritePgm(dir + name + "_corrected.pgm", ow, oh, (ow + 3) & ~3, out.data() + 1064)
                    ? 1
                    : 0;
        }
    }
    std::printf("%d files written to %s\n", written, dir.c_str());
    return 0;
}
