// One live frame of the device SDK (GetLiveBitmap) against the scanner API
// and calibration stand-ins, the platen empty, split into its steps:
// - BM_Capture: the scanner's GetImageByDose into the raw frame;
// - BM_PrepareImage: the frame turned upside down and inverted;
// - BM_Calibration: the calibration library's CalibrateBitmap;
// - BM_GetLiveBitmap: the whole call, device lock included.
//
// Every benchmark times its step alone (manual time) and reports
// - x_memcpy: the step's mean time over that of a memcpy of the raw frame
//   block, timed in the same iterations;
// - allocs_per_frame: heap allocations of the whole program per step,
//   counted by the replaced global operator new below. The stand-ins take
//   their operator new from this program too, so BM_Capture shows the
//   scanner stand-in's own share, which GetLiveBitmap includes.
//
// The stand-ins are preloaded from their build paths; the SDK then opens
// them by their bare names and is given the same libraries (same soname).
// The scanner runs as fast as it can (KR7SIM_REALTIME unset).

#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "channel/channel.h"
#include "device/calibration_binding.h"
#include "device/device_lock.h"
#include "device/norvak_kr7_sdk.h"
#include "support/allocation_count.h"
#include "support/memcpy_ratio.h"

namespace {

using Nvk::utilities::ClSimpleBitmap;

// The SDK with an activated channel, a raw frame of the scanner's size and
// a block for its calibrated image; built once, at the first benchmark.
struct Device {
    Device() {
        for (const char* path : {KR7_SCANNER_PATH, KR7_CALIBRATE_PATH}) {
            if (dlopen(path, RTLD_NOW | RTLD_GLOBAL) == nullptr) {
                throw std::runtime_error(dlerror());
            }
        }
        // Read by the scanner stand-in at its first call.
        setenv("KR7SIM_SCENARIO", "empty 1s; repeat", 1);
        for (const char* name :
             {"KR7SIM_REALTIME", "KR7SIM_JOURNAL", "KR7SIM_FAULTS", "KR7SIM_UNITS"}) {
            unsetenv(name);
        }
        sdk.reset(new vc::ClNorvakKR7SDK(nullptr));
        sdk->SetActiveChannel(channel, live);  // opens, reads the calibration, shapes `live`
        const vc::CXDeviceLock lock(*sdk);
        FTRSCAN_IMAGE_SIZE size{};
        if (!sdk->Scanner().GetImageSize(&size)) {
            throw std::runtime_error("no image size");
        }
        raw.Create(size.nWidth, size.nHeight, 8);
        raw.SetResolution(500, 500);
        if (!sdk->Scanner().GetImageByDose(raw.Pixel(), 60)) {
            throw std::runtime_error("no frame");
        }
        calibrated.resize(sdk->Calibration()->ResultImageSize(raw.Header(), RawSize()));
    }
    unsigned int RawSize() const { return static_cast<unsigned int>(raw.FullSize()); }

    std::unique_ptr<vc::ClNorvakKR7SDK> sdk;
    vc::ClNorvakKR7Channel channel;
    ClSimpleBitmap live;
    ClSimpleBitmap raw;
    std::vector<unsigned char> calibrated;
};

Device& TheDevice() {
    static Device device;
    return device;
}

// Runs `step` once per iteration and times it; each iteration also times a
// memcpy of the raw frame block, so that both means come from the same
// moments of a shared machine.
void TimeSteps(benchmark::State& state, const std::function<void()>& step) {
    Device* device = nullptr;
    try {
        device = &TheDevice();
    } catch (const std::exception& e) {
        state.SkipWithError(e.what());
        return;
    }
    const std::size_t size = device->RawSize();
    for (int i = 0; i < 10; ++i) {  // warm-up: buffers sized, pages touched
        step();
    }
    unsigned long long allocations0 = 0;
    const kr7bench::MemcpyRatio ratio =
        kr7bench::TimeAgainstMemcpy(state, device->raw.Data(), size, nullptr, step,
                                    [&] { allocations0 = kr7bench::AllocationCount(); });
    const unsigned long long allocations = kr7bench::AllocationCount() - allocations0;
    ratio.Report(state);
    state.counters["allocs_per_frame"] =
        static_cast<double>(allocations) / static_cast<double>(state.iterations());
    state.SetLabel(std::to_string(device->raw.Width()) + "x" +
                   std::to_string(device->raw.Height()));
}

void BM_Capture(benchmark::State& state) {
    TimeSteps(state, [] {
        Device& d = TheDevice();
        const vc::CXDeviceLock lock(*d.sdk);
        benchmark::DoNotOptimize(d.sdk->Scanner().GetImageByDose(d.raw.Pixel(), 60));
    });
}

void BM_PrepareImage(benchmark::State& state) {
    TimeSteps(state, [] { vc::ClNorvakKR7SDK::PrepareImage(TheDevice().raw); });
}

void BM_Calibration(benchmark::State& state) {
    TimeSteps(state, [] {
        Device& d = TheDevice();
        unsigned int size = static_cast<unsigned int>(d.calibrated.size());
        const vc::CXDeviceLock lock(*d.sdk);
        d.sdk->Calibration()->CalibrateBitmap(
            d.raw.Header(), d.RawSize(),
            reinterpret_cast<tagBITMAPINFOHEADER*>(d.calibrated.data()), &size);
    });
}

void BM_GetLiveBitmap(benchmark::State& state) {
    TimeSteps(state, [] {
        Device& d = TheDevice();
        d.sdk->GetLiveBitmap(d.channel, d.live);
    });
}

BENCHMARK(BM_Capture)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PrepareImage)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Calibration)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_GetLiveBitmap)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace
