// KR7SIM_UNITS values. A list that parses must give units on distinct
// interfaces in ascending order with every setting in its range. The first
// unit, when its frames are small enough to build quickly, is built: its
// extended memory must hold a calibration block whose payload is a valid
// optics record of the unit's frame size, or no block when it has none.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "calibration/calibration_header.h"
#include "common/optics.h"
#include "fuzz_support.h"
#include "scanner/config.h"

using kr7fuzz::Check;
using kr7sim::scanner::UnitConfig;

namespace {

std::shared_ptr<const kr7sim::scanner::Scenario> g_scenario;

class MemoryStream : public Nvk::CXStream {
public:
    explicit MemoryStream(const std::vector<std::uint8_t>& bytes) : m_bytes(bytes) {}
    bool WriteRaw(const void*, unsigned int) override { return false; }
    bool ReadRaw(void* out, unsigned int size) override {
        Check(size <= m_bytes.size());
        std::memcpy(out, m_bytes.data(), size);
        return true;
    }

private:
    const std::vector<std::uint8_t>& m_bytes;
};

bool SizeInRange(int width, int height) {
    return width >= 64 && width <= 4096 && height >= 64 && height <= 4096;
}

void Build(const UnitConfig& config) {
    const bool longFrame = config.long_supported && config.long_width > 0;
    const int width = longFrame ? config.long_width : config.width;
    const int height = longFrame ? config.long_height : config.height;
    if (width * height > 160 * 160) {
        return;
    }
    kr7sim::scanner::Unit unit(config, g_scenario, false);
    std::uint64_t epoch = 0;
    int size = -1;
    Check(unit.Open(epoch) == 0 && unit.GetExtMemorySize(epoch, size) == 0);
    Check(size == config.ext_memory_size);
    std::vector<std::uint8_t> memory(static_cast<std::size_t>(size));
    Check(unit.ReadExtMemory(epoch, memory.data(), 0, size) == 0);
    if (!config.calibration) {
        Check(std::all_of(memory.begin(), memory.end(), [](std::uint8_t b) { return b == 0xFF; }));
        return;
    }
    if (size == 0) {
        return;
    }
    Nvk::ClQV2CalibrationHeader header;
    MemoryStream stream(memory);
    unsigned char* payload = nullptr;
    unsigned int payloadSize = 0;
    header.ReadFromStream(&stream, static_cast<unsigned int>(size), &payload, payloadSize);
    if (payloadSize == 0) {
        // Only a memory too small for the block (at most 255 bytes of
        // description) loses the payload.
        Check(std::size_t(size) < 25 + 255 + kr7sim::kOpticsRecordSize);
        return;
    }
    kr7sim::Optics optics;
    Check(kr7sim::Parse(payload, payloadSize, optics));
    Check(optics.width == width && optics.height == height);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    std::string error;
    g_scenario = kr7sim::scanner::Scenario::Parse(kr7sim::scanner::Scenario::DefaultScript(),
                                                  "default", 1, error);
    Check(g_scenario != nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<UnitConfig> units;
    std::string error;
    if (!kr7sim::scanner::ParseUnits(text, 1, units, error)) {
        Check(error.compare(0, 13, "KR7SIM_UNITS:") == 0);
        return 0;
    }
    Check(!units.empty() && units.size() <= 128);
    int previous = -1;
    for (const UnitConfig& unit : units) {
        Check(unit.interface_number > previous && unit.interface_number < 128);
        previous = unit.interface_number;
        Check(SizeInRange(unit.width, unit.height));
        Check(!unit.long_supported || unit.long_width == 0 ||
              SizeInRange(unit.long_width, unit.long_height));
        Check(unit.serial.empty() || unit.serial.size() == 8);
        Check(unit.dirt >= 0 && unit.dirt <= 50);
        Check(unit.ext_memory_size >= 0 && unit.ext_memory_size <= 1024 * 1024);
    }
    Build(units.front());
    return 0;
}
