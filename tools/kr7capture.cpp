// kr7capture: takes frames from a KR7 scanner (or the virtual one) the way the
// plug-in does and writes what a host would receive.
//
// Each frame is captured by dose through libQV2ScanAPI.so, turned upside down
// and inverted, corrected with the unit's own calibration data through
// libnorvakcalibratesdk.so, and passed to the finger detector of the chosen
// capture mode. Live frames and detector results are written as 8-bit BMP
// files. Both libraries are opened by name, so LD_LIBRARY_PATH picks them.
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "calibration/calibration_header.h"
#include "closed/ftrscan.h"
#include "closed/norvakcalibratesdk.h"
#include "detection/image_detection.h"
#include "image/simple_bitmap.h"

namespace {

using Nvk::utilities::ClSimpleBitmap;

constexpr int kDose = 60;

void Usage(const char* self) {
    std::fprintf(stderr,
                 "usage: %s [-n FRAMES] [-m live|plain|fastplain|rolled] [-e EVERY] [-o DIR]\n"
                 "  -n  frames to capture (default 150, six seconds of scanner time)\n"
                 "  -m  capture mode whose detector runs on every frame (default plain)\n"
                 "  -e  keep every EVERY-th live frame as live_NNNN.bmp (default 25; 0: none)\n"
                 "  -o  output folder, created beforehand (default .)\n",
                 self);
}

bool ParseMode(const std::string& name, vc::eCaptureModeIDs& mode) {
    static const struct {
        const char* name;
        vc::eCaptureModeIDs mode;
    } kModes[] = {{"live", vc::eCaptureLive},
                  {"plain", vc::eCapturePlainFinger},
                  {"fastplain", vc::eCaptureFastPlainFinger},
                  {"rolled", vc::eCaptureRolledFinger}};
    for (const auto& m : kModes) {
        if (name == m.name) {
            mode = m.mode;
            return true;
        }
    }
    return false;
}

// The scanner API entry points this program calls.
struct ScannerApi {
    void* lib = nullptr;
    decltype(&::ftrScanOpenDevice) open = nullptr;
    decltype(&::ftrScanCloseDevice) close = nullptr;
    decltype(&::ftrScanSetOptions) setOptions = nullptr;
    decltype(&::ftrScanGetImageSize) imageSize = nullptr;
    decltype(&::ftrScanGetImageByVariableDose) imageByDose = nullptr;
    decltype(&::ftrScanGetLastError) lastError = nullptr;
    decltype(&::ftrScanGetExtMemorySize) extSize = nullptr;
    decltype(&::ftrScanRestoreExtMemory) extRead = nullptr;

    template <class F>
    void Resolve(F& fn, const char* name) {
        fn = reinterpret_cast<F>(dlsym(lib, name));
    }
    bool Load() {
        lib = dlopen("libQV2ScanAPI.so", RTLD_NOW);
        if (lib == nullptr) {
            const char* why = dlerror();
            std::fprintf(stderr, "cannot load libQV2ScanAPI.so: %s\n", why ? why : "");
            return false;
        }
        Resolve(open, "ftrScanOpenDevice");
        Resolve(close, "ftrScanCloseDevice");
        Resolve(setOptions, "ftrScanSetOptions");
        Resolve(imageSize, "ftrScanGetImageSize");
        Resolve(imageByDose, "ftrScanGetImageByVariableDose");
        Resolve(lastError, "ftrScanGetLastError");
        Resolve(extSize, "ftrScanGetExtMemorySize");  // optional
        Resolve(extRead, "ftrScanRestoreExtMemory");  // optional
        if (!open || !close || !setOptions || !imageSize || !imageByDose || !lastError) {
            std::fprintf(stderr, "libQV2ScanAPI.so lacks a base entry point\n");
            return false;
        }
        return true;
    }
};

// The scanner's extended memory as a byte stream for the calibration header.
class ExtMemoryStream : public Nvk::CXStream {
public:
    ExtMemoryStream(const ScannerApi& api, FTRHANDLE device) : m_api(api), m_device(device) {}
    bool WriteRaw(const void*, unsigned int) override { return false; }
    bool ReadRaw(void* data, unsigned int size) override {
        return m_api.extRead(m_device, data, 0, static_cast<int>(size)) != 0;
    }

private:
    const ScannerApi& m_api;
    FTRHANDLE m_device;
};

// One calibration instance fed with the unit's data; empty when either the
// library or the data is missing.
class Calibration {
public:
    ~Calibration() {
        if (m_instance != nullptr) {
            m_delete(&m_instance);
        }
        if (m_lib != nullptr) {
            dlclose(m_lib);
        }
    }

    bool Load(const ScannerApi& api, FTRHANDLE device) {
        m_lib = dlopen("libnorvakcalibratesdk.so", RTLD_NOW);
        if (m_lib == nullptr) {
            std::fprintf(stderr, "no calibration library: frames stay uncorrected\n");
            return false;
        }
        auto create =
            reinterpret_cast<decltype(&::CalibrateCreate)>(dlsym(m_lib, "CalibrateCreate"));
        auto setData =
            reinterpret_cast<decltype(&::CalibrateSetData)>(dlsym(m_lib, "CalibrateSetData"));
        m_calibrate = reinterpret_cast<decltype(&::Calibrate)>(dlsym(m_lib, "Calibrate"));
        m_delete = reinterpret_cast<decltype(&::CalibrateDelete)>(dlsym(m_lib, "CalibrateDelete"));
        int memorySize = 0;
        if (!create || !setData || !m_calibrate || !m_delete || !api.extSize || !api.extRead ||
            !api.extSize(device, &memorySize) || memorySize <= 0) {
            std::fprintf(stderr, "no calibration data: frames stay uncorrected\n");
            return false;
        }
        ExtMemoryStream stream(api, device);
        Nvk::ClQV2CalibrationHeader header;
        unsigned char* payload = nullptr;
        unsigned int payloadSize = 0;
        try {
            header.ReadFromStream(&stream, static_cast<unsigned int>(memorySize), &payload,
                                  payloadSize);
        } catch (const std::exception& e) {
            std::fprintf(stderr, "calibration block unreadable: %s\n", e.what());
            return false;
        }
        m_instance = create();
        if (m_instance == nullptr || payload == nullptr ||
            setData(m_instance, payload, payloadSize) != 0) {
            std::fprintf(stderr, "calibration data refused: frames stay uncorrected\n");
            return false;
        }
        std::printf("calibration: revision \"%.16s\", written %s, %s\n",
                    header.RevisionString().c_str(), header.Date().c_str(),
                    header.Description().c_str());
        return true;
    }

    bool Ready() const { return m_instance != nullptr; }

    // Corrects `in` into `out`. The output block is allocated once, sized
    // for the input, which the corrected image never exceeds; Calibrate then
    // writes the smaller corrected header into it.
    bool Apply(ClSimpleBitmap& in, ClSimpleBitmap& out) {
        if (out.Empty()) {
            out.Create(in.Width(), in.Height(), 8);
        }
        const auto size = static_cast<unsigned int>(in.FullSize());
        unsigned int outSize = size;
        const int32_t rc = m_calibrate(m_instance, in.Header(), size, out.Header(), &outSize);
        return rc == 0;
    }

private:
    void* m_lib = nullptr;
    void* m_instance = nullptr;
    decltype(&::Calibrate) m_calibrate = nullptr;
    decltype(&::CalibrateDelete) m_delete = nullptr;
};

std::string FileName(const std::string& dir, const char* kind, int frame) {
    char name[32];
    std::snprintf(name, sizeof name, "/%s_%04d.bmp", kind, frame);
    return dir + name;
}

unsigned MiddleRowMean(const ClSimpleBitmap& image) {
    const long w = image.Width();
    if (w <= 0 || image.Height() <= 0) {
        return 0;
    }
    const unsigned char* row = image.Pixel() + image.BPRow() * (image.Height() / 2);
    unsigned long sum = 0;
    for (long x = 0; x < w; ++x) {
        sum += row[x];
    }
    return static_cast<unsigned>(sum / static_cast<unsigned long>(w));
}

}  // namespace

int main(int argc, char** argv) {
    int frames = 150;
    int every = 25;
    std::string dir = ".";
    std::string modeName = "plain";
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (i + 1 >= argc) {
            Usage(argv[0]);
            return 2;
        }
        const char* value = argv[++i];
        if (arg == "-n") {
            frames = std::atoi(value);
        } else if (arg == "-e") {
            every = std::atoi(value);
        } else if (arg == "-o") {
            dir = value;
        } else if (arg == "-m") {
            modeName = value;
        } else {
            Usage(argv[0]);
            return 2;
        }
    }
    vc::eCaptureModeIDs mode = vc::eCaptureLive;
    if (frames < 0 || every < 0 || !ParseMode(modeName, mode)) {
        Usage(argv[0]);
        return 2;
    }

    ScannerApi api;
    if (!api.Load()) {
        return 1;
    }
    FTRHANDLE device = api.open();
    FTRSCAN_IMAGE_SIZE size{0, 0, 0};
    if (device == nullptr) {
        std::fprintf(stderr, "no scanner: error %u\n", api.lastError());
        return 1;
    }
    // The plug-in always asks for the long image.
    api.setOptions(device, FTR_OPTIONS_RECEIVE_LONG_IMAGE, FTR_OPTIONS_RECEIVE_LONG_IMAGE);
    if (!api.imageSize(device, &size) || size.nWidth <= 0 || size.nHeight <= 0) {
        std::fprintf(stderr, "cannot read the frame size: error %u\n", api.lastError());
        return 1;
    }
    std::printf("scanner: %dx%d frames, capture mode %s\n", size.nWidth, size.nHeight,
                modeName.c_str());

    Calibration calibration;
    calibration.Load(api, device);
    std::unique_ptr<vc::ClImageDetection> detector(vc::ClImageDetection::Create(mode));

    std::vector<unsigned char> raw(static_cast<std::size_t>(size.nImageSize));
    ClSimpleBitmap frame, corrected, result, best;
    unsigned bestMean = 0;
    int bestFrame = 0;
    frame.Create(size.nWidth, size.nHeight, 8);
    frame.SetResolution(500, 500);
    int results = 0, failures = 0, saved = 0;
    for (int i = 0; i < frames; ++i) {
        if (!api.imageByDose(device, kDose, raw.data())) {
            std::printf("frame %4d: capture failed, error 0x%x\n", i, api.lastError());
            ++failures;
            continue;
        }
        // Raw frames come upside down and inverted.
        for (int y = 0; y < size.nHeight; ++y) {
            std::memcpy(frame.Pixel() + frame.BPRow() * y, &raw[std::size_t(y) * size.nWidth],
                        static_cast<std::size_t>(size.nWidth));
        }
        frame.FlipY();
        frame.Invert();
        ClSimpleBitmap& image =
            calibration.Ready() && calibration.Apply(frame, corrected) ? corrected : frame;

        if (every > 0 && i % every == 0) {
            image.Save(FileName(dir, "live", i));
            ++saved;
        }
        // A detector may report the same finger on many frames; keep the
        // darkest result of each placement and write it when the finger goes.
        const bool found = detector && detector->Detect(image, result) && mode != vc::eCaptureLive;
        if (found) {
            const unsigned mean = MiddleRowMean(result);
            if (best.Empty() || mean < bestMean) {
                best = result;
                bestMean = mean;
                bestFrame = i;
            }
        }
        if (!found || i + 1 == frames) {
            if (!best.Empty()) {
                best.Save(FileName(dir, "result", bestFrame));
                std::printf("frame %4d: finger result, middle row mean %u -> result_%04d.bmp\n",
                            bestFrame, bestMean, bestFrame);
                ++results;
                best.Clear();
            }
        }
    }
    api.close(device);
    std::printf("%d frames, %d capture failures, %d live images and %d results written to %s\n",
                frames, failures, saved, results, dir.c_str());
    return 0;
}
