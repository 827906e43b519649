// Per-frame cost of the channel's processor chain on 8-bit frames, next to a
// plain memcpy of the same pixel rows.
//
// Each chain benchmark also times memcpy of the frame in the same run and
// reports the ratio as the counter `x_memcpy` (chain time / memcpy time).

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <vector>

#include "image/image_processor.h"

using Nvk::utilities::ClSimpleBitmap;

namespace {

ClSimpleBitmap MakeFrame(long width, long height, unsigned seed) {
    ClSimpleBitmap bmp;
    bmp.Create(width, height, 8);
    unsigned state = seed;
    for (long i = 0; i < bmp.PixelSize(); ++i) {
        state = state * 1103515245u + 12345u;
        bmp.Pixel()[i] = static_cast<unsigned char>(state >> 24);
    }
    return bmp;
}

// Seconds per memcpy of `bytes`, measured over `rounds` copies.
double MemcpySeconds(const unsigned char* source, long bytes, long rounds) {
    std::vector<unsigned char> target(static_cast<size_t>(bytes));
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < rounds; ++i) {
        std::memcpy(target.data(), source, static_cast<size_t>(bytes));
        benchmark::ClobberMemory();
    }
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    benchmark::DoNotOptimize(target.data());
    return elapsed.count() / static_cast<double>(rounds);
}

enum ChainKind { kFilter = 0, kFilterAspect = 1, kFilterFlip = 2 };

void BM_Chain(benchmark::State& state) {
    const long width = state.range(0);
    const long height = state.range(1);
    const auto kind = static_cast<ChainKind>(state.range(2));
    ClSimpleBitmap frame = MakeFrame(width, height, 1);
    ClSimpleBitmap background = MakeFrame(width, height, 2);
    ClSimpleBitmap out;

    vc::ClImageMacroProcessor chain;
    chain.Add(new vc::ClImageFilterProcessor(
        vc::ClVCImageFilter::Create(vc::eFilterSubtractBackground), &background));
    if (kind == kFilterAspect) {
        chain.Add(new vc::ClImageAspectRatioProcessor(1.5, 1.0));
    } else if (kind == kFilterFlip) {
        chain.Add(new vc::ClImageFlipProcessor(false, true));
    }

    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        chain.Execute(frame, out);
        benchmark::DoNotOptimize(out.Pixel());
        benchmark::ClobberMemory();
    }
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    const double chainSeconds = elapsed.count() / static_cast<double>(state.iterations());
    const double copySeconds = MemcpySeconds(frame.Pixel(), frame.PixelSize(), 2000);
    state.counters["x_memcpy"] = chainSeconds / copySeconds;
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * frame.PixelSize());
}

void BM_Memcpy(benchmark::State& state) {
    ClSimpleBitmap frame = MakeFrame(state.range(0), state.range(1), 1);
    std::vector<unsigned char> target(static_cast<size_t>(frame.PixelSize()));
    for (auto _ : state) {
        std::memcpy(target.data(), frame.Pixel(), target.size());
        benchmark::ClobberMemory();
    }
    benchmark::DoNotOptimize(target.data());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * frame.PixelSize());
}

}  // namespace

BENCHMARK(BM_Memcpy)->Args({320, 480})->Args({640, 480});
BENCHMARK(BM_Chain)
    ->ArgNames({"w", "h", "chain"})
    ->Args({320, 480, kFilter})
    ->Args({640, 480, kFilter})
    ->Args({320, 480, kFilterAspect})
    ->Args({640, 480, kFilterAspect})
    ->Args({640, 480, kFilterFlip});
