// Calibration data for the calibration stand-in: the unit's optics record.
// Each input is tried as it is and, so that the search gets past the CRC,
// with the CRC made right. The record parser and CalibrateSetData must agree;
// an accepted record must serialize to the same bytes, and frames of its
// size, in blocks of exactly their size, must calibrate without a sample
// outside the frame.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "closed/norvakcalibratesdk.h"
#include "common/optics.h"
#include "fuzz_support.h"

using kr7fuzz::Check;
using kr7fuzz::Put32;

namespace {

// Larger frames only slow the search down: every output pixel costs a tap.
constexpr unsigned int kMaxPixels = 256 * 256;

// An 8-bit frame block of the record's size with `colours` table entries.
std::vector<std::uint8_t> Frame(const kr7sim::Optics& optics, unsigned int colours,
                                std::uint8_t seed) {
    const std::size_t stride = (optics.width + 3u) & ~3u;
    const std::size_t table = 4 * (colours != 0 ? colours : 256);
    std::vector<std::uint8_t> block(40 + table + stride * optics.height);
    Put32(&block[0], 40);
    Put32(&block[4], optics.width);
    Put32(&block[8], optics.height);
    block[12] = 1;
    block[14] = 8;
    Put32(&block[32], colours);
    for (std::size_t i = 40 + table; i < block.size(); ++i) {
        block[i] = static_cast<std::uint8_t>(i * seed >> 3);
    }
    return block;
}

void Calibrate(void* handle, const kr7sim::Optics& optics, std::uint8_t seed) {
    for (unsigned int colours : {0u, 1u + seed % 255}) {
        std::vector<std::uint8_t> frame = Frame(optics, colours, seed);
        auto* input = reinterpret_cast<tagBITMAPINFOHEADER*>(frame.data());
        const auto size = static_cast<unsigned int>(frame.size());
        unsigned int needed = 0;
        Check(::Calibrate(handle, input, size, nullptr, &needed) == NVK_CAL_OUTPUT_SIZE);
        unsigned int shortNeeded = 0;
        Check(::Calibrate(handle, input, size - 1, nullptr, &shortNeeded) == NVK_CAL_INPUT_SHORT);
        std::vector<std::uint8_t> out(needed);
        unsigned int written = needed;
        Check(::Calibrate(handle, input, size, reinterpret_cast<tagBITMAPINFOHEADER*>(out.data()),
                          &written) == NVK_CAL_OK);
        Check(written == needed);
        double dirt = -1;
        Check(ContaminationDetection(handle, input, size, &dirt) == NVK_CAL_OK);
        Check(dirt >= 0 && dirt <= 1);
    }
}

void Try(const std::uint8_t* data, std::size_t size) {
    kr7sim::Optics optics;
    const bool parsed = kr7sim::Parse(data, size, optics);
    if (parsed) {
        Check(kr7sim::IsValid(optics));
        const std::vector<std::uint8_t> bytes = kr7sim::Serialize(optics);
        Check(std::memcmp(bytes.data(), data, bytes.size()) == 0);
    }
    // Width and height as the record states them, valid or not.
    if (size >= 12 &&
        unsigned(data[8] | data[9] << 8) * unsigned(data[10] | data[11] << 8) > kMaxPixels) {
        return;
    }
    void* handle = CalibrateCreate();
    Check(handle != nullptr);
    const std::int32_t code = CalibrateSetData(handle, data, static_cast<unsigned int>(size));
    Check(code == (parsed ? NVK_CAL_OK : NVK_CAL_BAD_DATA));
    if (parsed) {
        Calibrate(handle, optics, size > kr7sim::kOpticsRecordSize ? data[56] : 7);
    }
    CalibrateDelete(&handle);
    Check(handle == nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // The stand-in refuses a null record; an empty input is one.
    Try(size > 0 ? data : nullptr, size);
    if (size >= kr7sim::kOpticsRecordSize) {
        std::vector<std::uint8_t> fixed(data, data + size);
        Put32(&fixed[kr7sim::kOpticsRecordSize - 4],
              kr7sim::Crc32(fixed.data(), kr7sim::kOpticsRecordSize - 4));
        Try(fixed.data(), fixed.size());
    }
    return 0;
}
