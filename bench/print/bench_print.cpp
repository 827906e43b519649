// Frame rate of the compositor and cost of growing master prints.
#include <benchmark/benchmark.h>

#include <vector>

#include "print/scan_engine.h"

namespace {

using namespace kr7sim;

// One core, one 8-bit frame per iteration; items per second = frames per second.
void RenderFrames(benchmark::State& state, ImpressionKind kind, int width) {
    SensorConfig config;
    config.width = width;
    const ScanEngine engine(config);
    ImpressionParams params;
    params.kind = kind;
    params.finger_seed = 3;
    const auto impression = engine.CreateImpression(params);
    std::vector<uint8_t> frame(static_cast<size_t>(engine.width()) * engine.height());
    uint32_t index = params.press_frames;
    for (auto _ : state) {
        engine.Render(impression.get(), FrameRequest{index, kNominalDose}, frame.data());
        benchmark::DoNotOptimize(frame.data());
        index = params.press_frames + (index + 1) % params.roll_frames;
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_PlainFrame320x480(benchmark::State& state) {
    RenderFrames(state, ImpressionKind::Plain, 320);
}
void BM_RolledFrame640x480(benchmark::State& state) {
    RenderFrames(state, ImpressionKind::Rolled, 640);
}

void BM_EmptyPlatenFrame320x480(benchmark::State& state) {
    const ScanEngine engine{SensorConfig{}};
    std::vector<uint8_t> frame(static_cast<size_t>(engine.width()) * engine.height());
    uint32_t index = 0;
    for (auto _ : state) {
        engine.Render(nullptr, FrameRequest{index++, kNominalDose}, frame.data());
        benchmark::DoNotOptimize(frame.data());
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_CreateImpression320x480(benchmark::State& state) {
    const ScanEngine engine{SensorConfig{}};
    ImpressionParams params;
    params.finger_seed = 3;
    engine.CreateImpression(params);  // warm the master cache
    for (auto _ : state) {
        auto impression = engine.CreateImpression(params);
        benchmark::DoNotOptimize(impression.get());
        ++params.impression;
    }
}

// Uncached generation, one seed per iteration.
void BM_MasterPrint(benchmark::State& state) {
    MasterRequest request;
    request.rolled = state.range(0) != 0;
    request.seed = 100;
    double passes = 0;
    for (auto _ : state) {
        const MasterPrint print = GenerateMasterPrint(request);
        passes += print.growth.passes;
        benchmark::DoNotOptimize(print.ridge.data());
        ++request.seed;
    }
    state.counters["passes"] = passes / state.iterations();
}

BENCHMARK(BM_PlainFrame320x480);
BENCHMARK(BM_RolledFrame640x480);
BENCHMARK(BM_EmptyPlatenFrame320x480);
BENCHMARK(BM_CreateImpression320x480)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MasterPrint)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace
