// Calibration library stand-in: undoes a simulated unit's prism optics
// (keystone and uneven illumination) described by its optics record.
//
// CalibrateSetData turns the record into one tap per output pixel: the offset
// of the 2 x 2 input neighbourhood, the bilinear weights in 1/256 and the
// flat-field gain in 1/65536. Calibrate is then a single pass over the taps.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "closed/norvakcalibratesdk.h"
#include "common/optics.h"

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

}  // namespace

extern "C" {

void* CalibrateCreate(void) {
    return new (std::nothrow) Instance;
}

void CalibrateDelete(void** handle) {
    if (handle == nullptr) {
        return;
    }
    delete static_cast<Instance*>(*handle);
    *handle = nullptr;
}

int32_t CalibrateSetData(void* handle, const unsigned char* data, unsigned int size) {
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

int32_t Calibrate(void* handle, const struct tagBITMAPINFOHEADER* input, unsigned int inputSize,
                  struct tagBITMAPINFOHEADER* output, unsigned int* outputSize) {
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

const char* CalibrateGetErrorDescription(int32_t code) {
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
int32_t ContaminationDetection(void* handle, const struct tagBITMAPINFOHEADER* image,
                               unsigned int imageSize, double* result) {
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

}  // extern "C"
