// Frames per second through ftrScanGetFrame at the default frame size, one
// thread, for an empty platen and for a finger held on it.
#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <cstdlib>
#include <vector>

#include "closed/ftrscan.h"

namespace {

struct Api {
    decltype(&::ftrScanOpenDevice) open = nullptr;
    decltype(&::ftrScanCloseDevice) close = nullptr;
    decltype(&::ftrScanGetImageSize) size = nullptr;
    decltype(&::ftrScanGetFrame) frame = nullptr;
};

// Each scenario gets its own copy of the library, configured on first use.
void Frames(benchmark::State& state, const char* scenario) {
    setenv("KR7SIM_SCENARIO", scenario, 1);
    unsetenv("KR7SIM_REALTIME");
    unsetenv("KR7SIM_JOURNAL");
    void* lib = dlopen(KR7_SCANNER_PATH, RTLD_NOW | RTLD_LOCAL);
    if (lib == nullptr) {
        state.SkipWithError(dlerror());
        return;
    }
    Api api;
    api.open = reinterpret_cast<decltype(api.open)>(dlsym(lib, "ftrScanOpenDevice"));
    api.close = reinterpret_cast<decltype(api.close)>(dlsym(lib, "ftrScanCloseDevice"));
    api.size = reinterpret_cast<decltype(api.size)>(dlsym(lib, "ftrScanGetImageSize"));
    api.frame = reinterpret_cast<decltype(api.frame)>(dlsym(lib, "ftrScanGetFrame"));
    FTRHANDLE h = api.open();
    FTRSCAN_IMAGE_SIZE size{0, 0, 0};
    if (h == nullptr || !api.size(h, &size)) {
        state.SkipWithError("cannot open the simulated scanner");
        dlclose(lib);
        return;
    }
    std::vector<unsigned char> buffer(static_cast<size_t>(size.nImageSize));
    for (int i = 0; i < 10; ++i)  // the finger's master print and placement
        api.frame(h, buffer.data(), nullptr);
    for (auto _ : state) {
        if (!api.frame(h, buffer.data(), nullptr)) {
            state.SkipWithError("capture failed");
            break;
        }
        benchmark::DoNotOptimize(buffer.data());
    }
    state.SetItemsProcessed(state.iterations());
    state.SetLabel(std::to_string(size.nWidth) + "x" + std::to_string(size.nHeight));
    api.close(h);
    dlclose(lib);
}

void BM_GetFrameEmptyPlaten(benchmark::State& state) {
    Frames(state, "empty;");
}
void BM_GetFrameFingerHeld(benchmark::State& state) {
    Frames(state, "place 4f press=2f; hold 100000s");
}

BENCHMARK(BM_GetFrameEmptyPlaten)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_GetFrameFingerHeld)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
