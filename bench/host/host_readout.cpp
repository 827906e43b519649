// The read-out of a finger frame (area and contrast over 16×16 tiles) and
// the mean grey level alone, next to a memcpy of the same frame: what the
// viewer and kr7src pay on the interface or streaming thread while a finger
// is on the platen. Counters: memcpy_ns and x_memcpy (support/memcpy_ratio.h).
#include <benchmark/benchmark.h>

#include "kr7host/image.h"
#include "kr7host/quality.h"
#include "support/memcpy_ratio.h"

namespace {

// Dark ridges, four pixels apart, in an oval on a white platen, with a
// little noise: about half the tiles covered, as a placed finger.
kr7host::Image Finger(int width, int height) {
    kr7host::Image image(width, height, 0);
    unsigned state = 1;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            state = state * 1103515245u + 12345u;
            const int noise = static_cast<int>(state >> 28);
            const double dx = (x - width / 2.0) / (width * 0.35);
            const double dy = (y - height / 2.0) / (height * 0.4);
            const int level = dx * dx + dy * dy > 1 ? 240 : (x + y) / 4 % 2 == 0 ? 50 : 220;
            image.At(x, y) = static_cast<std::uint8_t>(level + noise);
        }
    }
    return image;
}

template <class Step>
void Run(benchmark::State& state, Step step) {
    const kr7host::Image frame =
        Finger(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    kr7bench::TimeAgainstMemcpy(state, frame.pixels.data(), frame.pixels.size(), nullptr, [&] {
        benchmark::DoNotOptimize(step(frame));
    }).Report(state);
}

void BM_Measure(benchmark::State& state) {
    Run(state, [](const kr7host::Image& frame) { return kr7host::Measure(frame).contrast; });
}

void BM_MeanGrey(benchmark::State& state) {
    Run(state, [](const kr7host::Image& frame) { return kr7host::MeanGrey(frame); });
}

}  // namespace

BENCHMARK(BM_Measure)->Args({314, 472})->Args({640, 480})->UseManualTime();
BENCHMARK(BM_MeanGrey)->Args({314, 472})->Args({640, 480})->UseManualTime();
