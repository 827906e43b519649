// Calibration library stand-in: undoes a simulated unit's prism optics
// (keystone and uneven illumination) described by its optics record.
//
// CalibrateSetData turns the record into one tap per output pixel: the offset
// of the 2 x 2 input neighbourhood, the bilinear weights in 1/256 and the
// flat-field gain in 1/65536. Calibrate is then a single pass over the taps.
//
// Injected failures (KR7SIM_CAL_FAULTS) and the call journal
// (KR7SIM_CAL_JOURNAL) use the scanner stand-in's rules and journal; see
// README.md beside this file.
#include <dlfcn.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "closed/norvakcalibratesdk.h"
#include "common/optics.h"
#include "scanner/faults.h"

namespace {

constexpr unsigned int kHeaderSize = 40;
constexpr unsigned int kGreyPaletteEntries = 256;

struct Tap {
    std::uint32_t offset;  // row * stride + column of the top-left neighbour
    std::uint16_t fx;      // horizontal weight of the right neighbours, 0..256
    std::uint16_t fy;      // vertical weight of the lower neighbours, 0..256
    std::uint32_t gain;    // 16.16 fixed point
};

struct Instance {
    bool hasData = false;
    kr7sim::Optics optics;
    unsigned int inputStride = 0;
    unsigned int outputStride = 0;
    std::vector<Tap> taps;  // OutputWidth() * OutputHeight(), row by row
};

unsigned int Stride(unsigned int width) {
    return (width + 3u) & ~3u;
}

std::uint32_t Get32(const unsigned char* p) {
    return std::uint32_t(p[0]) | std::uint32_t(p[1]) << 8 | std::uint32_t(p[2]) << 16 |
           std::uint32_t(p[3]) << 24;
}
std::uint16_t Get16(const unsigned char* p) {
    return std::uint16_t(p[0] | p[1] << 8);
}
void Put32(unsigned char* p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<unsigned char>(v >> (8 * i));
    }
}
void Put16(unsigned char* p, std::uint16_t v) {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
}

unsigned int OutputSize(const Instance& instance) {
    return kHeaderSize + 4 * kGreyPaletteEntries +
           instance.outputStride * unsigned(instance.optics.OutputHeight());
}

// Checks a frame block against the calibration data and returns its pixels.
int32_t LocatePixels(const Instance& instance, const void* block, unsigned int size,
                     const unsigned char*& pixels) {
    if (size < kHeaderSize) {
        return NVK_CAL_INPUT_SHORT;
    }
    const auto* h = static_cast<const unsigned char*>(block);
    const std::uint32_t headerSize = Get32(h);
    const std::int32_t width = std::int32_t(Get32(h + 4));
    const std::int32_t height = std::int32_t(Get32(h + 8));
    const std::uint16_t bitCount = Get16(h + 14);
    const std::uint32_t compression = Get32(h + 16);
    const std::uint32_t colours = Get32(h + 32);
    if (headerSize < kHeaderSize || bitCount != 8 || compression != 0 ||
        colours > kGreyPaletteEntries) {
        return NVK_CAL_BAD_FORMAT;
    }
    if (width != instance.optics.width || height != instance.optics.height) {
        return NVK_CAL_SIZE_MISMATCH;
    }
    const std::uint64_t pixelOffset =
        std::uint64_t(headerSize) + 4ull * (colours != 0 ? colours : kGreyPaletteEntries);
    const std::uint64_t needed = pixelOffset + std::uint64_t(instance.inputStride) * height;
    if (needed > size) {
        return NVK_CAL_INPUT_SHORT;
    }
    pixels = h + pixelOffset;
    return NVK_CAL_OK;
}

// Corrected value of one tap, 0..255.
inline unsigned int Sample(const unsigned char* pixels, unsigned int stride, const Tap& tap) {
    const unsigned char* p = pixels + tap.offset;
    const unsigned int top = p[0] * (256u - tap.fx) + p[1] * tap.fx;
    const unsigned int bottom = p[stride] * (256u - tap.fx) + p[stride + 1] * tap.fx;
    const std::uint64_t value = std::uint64_t(top * (256u - tap.fy) + bottom * tap.fy) * tap.gain;
    const std::uint64_t rounded = (value + (1ull << 31)) >> 32;
    return rounded > 255 ? 255u : unsigned(rounded);
}

// Builds the taps of a valid record.
std::vector<Tap> BuildTaps(const kr7sim::Optics& optics, unsigned int inputStride) {
    const int outW = optics.OutputWidth(), outH = optics.OutputHeight();
    const double level = double(optics.targetLevel) / optics.flatLevel;
    std::vector<Tap> taps(std::size_t(outW) * outH);
    Tap* tap = taps.data();
    for (int v = 0; v < outH; ++v) {
        for (int u = 0; u < outW; ++u, ++tap) {
            double x = 0, y = 0;
            kr7sim::CorrectedToUncorrected(optics, u, v, x, y);
            // A valid record keeps every sample inside the frame.
            x = std::clamp(x, 0.0, optics.width - 1.0);
            y = std::clamp(y, 0.0, optics.height - 1.0);
            const int x0 = std::min(int(x), optics.width - 2);
            const int y0 = std::min(int(y), optics.height - 2);
            tap->offset = std::uint32_t(y0) * inputStride + std::uint32_t(x0);
            tap->fx = std::uint16_t(std::lround((x - x0) * 256.0));
            tap->fy = std::uint16_t(std::lround((y - y0) * 256.0));
            const double gain = level / kr7sim::Illumination(optics, x, y);
            tap->gain = std::uint32_t(std::lround(gain * 65536.0));
        }
    }
    return taps;
}

void WriteHeader(const Instance& instance, const unsigned char* input, unsigned char* out) {
    const kr7sim::Optics& o = instance.optics;
    std::memset(out, 0, kHeaderSize);
    Put32(out, kHeaderSize);
    Put32(out + 4, std::uint32_t(o.OutputWidth()));
    Put32(out + 8, std::uint32_t(o.OutputHeight()));
    Put16(out + 12, 1);
    Put16(out + 14, 8);
    Put32(out + 20, instance.outputStride * std::uint32_t(o.OutputHeight()));
    std::memcpy(out + 24, input + 24, 8);  // resolution of the input
    unsigned char* palette = out + kHeaderSize;
    for (unsigned int i = 0; i < kGreyPaletteEntries; ++i) {
        palette[4 * i] = palette[4 * i + 1] = palette[4 * i + 2] = static_cast<unsigned char>(i);
        palette[4 * i + 3] = 0;
    }
}

// KR7SIM_CAL_COPY set and not 0: Calibrate copies the frame's rows instead
// of correcting them, so that a benchmark sees the cost of its callers only.
// Read once, at the first call.
bool CopyMode() {
    static const bool copy = [] {
        const char* value = std::getenv("KR7SIM_CAL_COPY");
        return value != nullptr && value[0] != '\0' && std::strcmp(value, "0") != 0;
    }();
    return copy;
}

// ---- injected failures and the journal ----------------------------------

enum Entry : size_t {
    kCreate,
    kCalibrate,
    kDelete,
    kSetData,
    kErrorDescription,
    kContamination,
    kEntryCount
};
constexpr const char* kEntryNames[kEntryCount] = {"CalibrateCreate",
                                                  "Calibrate",
                                                  "CalibrateDelete",
                                                  "CalibrateSetData",
                                                  "CalibrateGetErrorDescription",
                                                  "ContaminationDetection"};

// Read at the first call after the library is loaded.
struct Library {
    Library() {
        std::string error;
        const char* faults = std::getenv("KR7SIM_CAL_FAULTS");
        if (!rules.Parse(faults != nullptr ? faults : "", error)) {
            Refuse("KR7SIM_CAL_FAULTS: " + error);
        } else if (faults != nullptr && faults[0] != '\0') {
            StayLoaded();
        }
        const char* journalPath = std::getenv("KR7SIM_CAL_JOURNAL");
        if (journalPath != nullptr && journalPath[0] != '\0' && !journal.Open(journalPath, error)) {
            Refuse("KR7SIM_CAL_JOURNAL: " + error);
        }
    }
    // Instances whose release was refused live on until the library goes.
    ~Library() {
        for (Instance* instance : kept) {
            delete instance;
        }
    }
    // A host may unload the library and load it again (the plug-in does
    // when building its first calibration fails). Calls are counted over
    // the life of the process, so with rules in force the library stays
    // loaded, its counts with it, until the process ends.
    static void StayLoaded() {
        static const int anchor = 0;
        Dl_info self;
        if (dladdr(&anchor, &self) == 0 || self.dli_fname == nullptr ||
            dlopen(self.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE) == nullptr) {
            std::fprintf(stderr,
                         "kr7sim calibration: cannot stay loaded; calls are counted "
                         "from each load\n");
        }
    }
    void Refuse(const std::string& message) {
        std::fprintf(stderr, "kr7sim calibration: %s\n", message.c_str());
        unusable = true;
    }

    kr7sim::scanner::FaultRules rules{kEntryNames, kEntryCount, true};
    kr7sim::scanner::Journal journal;
    bool unusable = false;  // a bad configuration: no instance is created
    std::mutex keptMutex;
    std::vector<Instance*> kept;
};

Library& Lib() {
    static Library library;
    return library;
}

// One call in progress: counts it against the rules and journals its result.
class Call {
public:
    explicit Call(Entry entry) : entry_(entry), fault_(Lib().rules.OnCall(entry)) {}
    std::int32_t fault() const { return static_cast<std::int32_t>(fault_); }

    std::int32_t Done(std::int32_t code) {
        Log(std::to_string(code));
        return code;
    }
    void Log(const std::string& result) {
        if (Lib().journal.enabled()) {
            Lib().journal.Write(std::string(kEntryNames[entry_]) + " -> " + result +
                                (fault_ != 0 ? " (injected)" : ""));
        }
    }

private:
    Entry entry_;
    std::uint32_t fault_;
};

int32_t SetData(void* handle, const unsigned char* data, unsigned int size) {
    if (handle == nullptr) {
        return NVK_CAL_BAD_HANDLE;
    }
    if (data == nullptr && size != 0) {
        return NVK_CAL_BAD_PARAMETER;
    }
    kr7sim::Optics optics;
    if (data == nullptr || !kr7sim::Parse(data, size, optics)) {
        return NVK_CAL_BAD_DATA;
    }
    auto& instance = *static_cast<Instance*>(handle);
    try {
        const unsigned int inputStride = Stride(optics.width);
        std::vector<Tap> taps = BuildTaps(optics, inputStride);
        instance.taps.swap(taps);
        instance.optics = optics;
        instance.inputStride = inputStride;
        instance.outputStride = Stride(unsigned(optics.OutputWidth()));
        instance.hasData = true;
    } catch (const std::bad_alloc&) {
        return NVK_CAL_NO_MEMORY;
    }
    return NVK_CAL_OK;
}

int32_t CalibrateFrame(void* handle, const struct tagBITMAPINFOHEADER* input,
                       unsigned int inputSize, struct tagBITMAPINFOHEADER* output,
                       unsigned int* outputSize) {
    if (handle == nullptr) {
        return NVK_CAL_BAD_HANDLE;
    }
    const auto& instance = *static_cast<const Instance*>(handle);
    if (input == nullptr || outputSize == nullptr) {
        return NVK_CAL_BAD_PARAMETER;
    }
    if (!instance.hasData) {
        return NVK_CAL_NO_DATA;
    }
    const unsigned char* pixels = nullptr;
    if (const int32_t code = LocatePixels(instance, input, inputSize, pixels); code != 0) {
        return code;
    }
    const unsigned int needed = OutputSize(instance);
    if (output == nullptr || *outputSize < needed) {
        *outputSize = needed;
        return NVK_CAL_OUTPUT_SIZE;
    }

    auto* out = reinterpret_cast<unsigned char*>(output);
    WriteHeader(instance, reinterpret_cast<const unsigned char*>(input), out);
    const int outW = instance.optics.OutputWidth(), outH = instance.optics.OutputHeight();
    const unsigned int stride = instance.inputStride;
    const Tap* tap = instance.taps.data();
    unsigned char* row = out + kHeaderSize + 4 * kGreyPaletteEntries;
    if (CopyMode()) {
        // The corner of the frame, row by row, in place of the correction.
        for (int v = 0; v < outH; ++v, row += instance.outputStride) {
            std::memcpy(row, pixels + std::size_t(v) * stride, unsigned(outW));
            std::memset(row + outW, 0, instance.outputStride - unsigned(outW));
        }
        *outputSize = needed;
        return NVK_CAL_OK;
    }
    for (int v = 0; v < outH; ++v, row += instance.outputStride) {
        for (int u = 0; u < outW; ++u, ++tap) {
            row[u] = static_cast<unsigned char>(Sample(pixels, stride, *tap));
        }
        std::memset(row + outW, 0, instance.outputStride - unsigned(outW));
    }
    *outputSize = needed;
    return NVK_CAL_OK;
}

const char* Describe(int32_t code) {
    switch (code) {
        case NVK_CAL_OK:
            return "No error.";
        case NVK_CAL_BAD_HANDLE:
            return "Invalid calibration handle.";
        case NVK_CAL_BAD_PARAMETER:
            return "Invalid parameter.";
        case NVK_CAL_NO_MEMORY:
            return "Not enough memory for the calibration.";
        case NVK_CAL_NO_DATA:
            return "No calibration data has been set.";
        case NVK_CAL_BAD_DATA:
            return "The calibration data is malformed.";
        case NVK_CAL_BAD_FORMAT:
            return "The image format is not supported; an 8-bit uncompressed bitmap is required.";
        case NVK_CAL_OUTPUT_SIZE:
            return "The output bitmap is missing or too small.";
        case NVK_CAL_SIZE_MISMATCH:
            return "The image size does not match the calibration data.";
        case NVK_CAL_INPUT_SHORT:
            return "The image buffer is smaller than the bitmap it describes.";
        default:
            return "Unknown calibration error.";
    }
}

#ifndef KR7_CALIBRATE_WITHOUT_CONTAMINATION
int32_t Contamination(void* handle, const struct tagBITMAPINFOHEADER* image, unsigned int imageSize,
                      double* result) {
    if (handle == nullptr) {
        return NVK_CAL_BAD_HANDLE;
    }
    const auto& instance = *static_cast<const Instance*>(handle);
    if (image == nullptr || result == nullptr) {
        return NVK_CAL_BAD_PARAMETER;
    }
    if (!instance.hasData) {
        return NVK_CAL_NO_DATA;
    }
    const unsigned char* pixels = nullptr;
    if (const int32_t code = LocatePixels(instance, image, imageSize, pixels); code != 0) {
        return code;
    }
    // The clean platen is the 90th percentile of the flattened image; a pixel
    // counts as dirty when it is darker than that by an eighth (at least 16
    // levels), far beyond the sensor's noise.
    unsigned int histogram[256] = {};
    for (const Tap& tap : instance.taps) {
        ++histogram[Sample(pixels, instance.inputStride, tap)];
    }
    const std::size_t total = instance.taps.size();
    std::size_t below = 0;
    unsigned int reference = 0;
    while (reference < 255 && (below + histogram[reference]) * 10 < total * 9) {
        below += histogram[reference++];
    }
    const unsigned int margin = std::max(16u, reference / 8);
    std::size_t dirty = 0;
    for (unsigned int level = 0; level + margin < reference; ++level) {
        dirty += histogram[level];
    }
    *result = total != 0 ? double(dirty) / double(total) : 0.0;
    return NVK_CAL_OK;
}
#endif

}  // namespace

extern "C" {

void* CalibrateCreate(void) {
    Call call(kCreate);
    Instance* instance =
        call.fault() != 0 || Lib().unusable ? nullptr : new (std::nothrow) Instance;
    call.Log(instance != nullptr ? "instance" : "null");
    return instance;
}

void CalibrateDelete(void** handle) {
    Call call(kDelete);
    auto* instance = handle != nullptr ? static_cast<Instance*>(*handle) : nullptr;
    call.Log(instance == nullptr ? "nothing" : call.fault() != 0 ? "kept" : "released");
    if (instance == nullptr) {
        return;
    }
    Library& library = Lib();
    std::lock_guard<std::mutex> lock(library.keptMutex);
    const auto kept = std::find(library.kept.begin(), library.kept.end(), instance);
    if (call.fault() != 0) {
        // Refused: the caller's handle stays valid and may be released later.
        if (kept == library.kept.end()) {
            library.kept.push_back(instance);
        }
        return;
    }
    if (kept != library.kept.end()) {
        library.kept.erase(kept);
    }
    delete instance;
    *handle = nullptr;
}

int32_t CalibrateSetData(void* handle, const unsigned char* data, unsigned int size) {
    Call call(kSetData);
    if (call.fault() != 0) {
        return call.Done(call.fault());
    }
    return call.Done(SetData(handle, data, size));
}

int32_t Calibrate(void* handle, const struct tagBITMAPINFOHEADER* input, unsigned int inputSize,
                  struct tagBITMAPINFOHEADER* output, unsigned int* outputSize) {
    Call call(kCalibrate);
    if (call.fault() != 0) {
        return call.Done(call.fault());
    }
    return call.Done(CalibrateFrame(handle, input, inputSize, output, outputSize));
}

const char* CalibrateGetErrorDescription(int32_t code) {
    Call call(kErrorDescription);
    // Faulted: the text of the rule's code instead of the one asked for.
    const char* text = Describe(call.fault() != 0 ? call.fault() : code);
    call.Log(text);
    return text;
}

#ifndef KR7_CALIBRATE_WITHOUT_CONTAMINATION
int32_t ContaminationDetection(void* handle, const struct tagBITMAPINFOHEADER* image,
                               unsigned int imageSize, double* result) {
    Call call(kContamination);
    if (call.fault() != 0) {
        return call.Done(call.fault());
    }
    return call.Done(Contamination(handle, image, imageSize, result));
}
#endif

}  // extern "C"
