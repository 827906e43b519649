// Per-frame cost of each finger detector in its steady states, next to a
// memcpy of the same frame block measured in the same run.
//
// Every detector benchmark times the Detect call alone (manual time; any
// state preparation between frames is outside the timing) and reports
// x_memcpy: its mean time per frame over the mean time of a memcpy of the
// whole frame block, timed in the same iterations.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "detection/image_detection.h"
#include "detection/rolled_finger.h"
#include "support/memcpy_ratio.h"

namespace {

using Bitmap = Nvk::utilities::ClSimpleBitmap;

// A bright platen (250) with columns [x0, x1) at `value` (a finger).
Bitmap Frame(long width, long height, long x0 = 0, long x1 = 0, unsigned char value = 250) {
    Bitmap image;
    image.Create(width, height, 8, 0);
    image.SetResolution(500, 500);
    for (long y = 0; y < height; ++y) {
        unsigned char* row = image.Pixel() + y * image.BPRow();
        std::memset(row, 250, static_cast<std::size_t>(image.BPRow()));
        // A little texture so that sums are not trivially uniform.
        for (long x = y % 7; x < width; x += 7) {
            row[x] = 235;
        }
        if (x1 > x0) {
            std::memset(row + x0, value, static_cast<std::size_t>(x1 - x0));
        }
    }
    return image;
}

// Runs `step` once per iteration and times it; `prepare` runs untimed before
// each step. Each iteration also times one memcpy of the reference frame's
// block, so that both means come from the same moments of a shared machine.
void TimeFrames(benchmark::State& state, const Bitmap& reference,
                const std::function<void()>& prepare, const std::function<void()>& step) {
    kr7bench::TimeAgainstMemcpy(state, reference.Data(),
                                static_cast<std::size_t>(reference.FullSize()), prepare, step)
        .Report(state);
}

void Nothing() {}

long W(const benchmark::State& state) {
    return state.range(0);
}
long H(const benchmark::State& state) {
    return state.range(1);
}

void BM_Memcpy(benchmark::State& state) {
    const Bitmap frame = Frame(W(state), H(state));
    const std::size_t size = static_cast<std::size_t>(frame.FullSize());
    std::vector<unsigned char> target(size);
    for (auto _ : state) {
        std::memcpy(target.data(), frame.Data(), size);
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<long>(size));
}

// Same frame every time: live, preview and plain detectors are stateless.
template <class Detector>
void StatelessSteady(benchmark::State& state, Detector detector, const Bitmap& frame) {
    Bitmap input = frame;
    Bitmap output;
    detector.Detect(input, output);
    TimeFrames(state, frame, Nothing,
               [&] { benchmark::DoNotOptimize(detector.Detect(input, output)); });
}

void BM_Live(benchmark::State& state) {
    StatelessSteady(state, vc::ClLiveDetection(), Frame(W(state), H(state)));
}

void BM_Preview(benchmark::State& state) {
    StatelessSteady(state, vc::ClPreviewDetection(), Frame(W(state), H(state)));
}

void BM_Plain_NoFinger(benchmark::State& state) {
    StatelessSteady(state, vc::ClPlainFingerDetection(240), Frame(W(state), H(state)));
}

void BM_Plain_Finger(benchmark::State& state) {
    StatelessSteady(state, vc::ClPlainFingerDetection(240),
                    Frame(W(state), H(state), W(state) / 4, 3 * W(state) / 4, 90));
}

// Fast plain finger ---------------------------------------------------------

struct FastPlain {
    vc::ClFastPlainFingerDetection detector;
    Bitmap bright, finger, output;
    FastPlain(long width, long height)
        : bright(Frame(width, height)), finger(Frame(width, height, width / 4, 3 * width / 4, 90)) {
        detector.Detect(bright, output);  // reference
    }
};

void BM_FastPlain_NoFinger(benchmark::State& state) {
    FastPlain f(W(state), H(state));
    TimeFrames(state, f.bright, Nothing, [&] { f.detector.Detect(f.bright, f.output); });
}

// Finger resting: no frame darker than the best one kept.
void BM_FastPlain_FingerSteady(benchmark::State& state) {
    FastPlain f(W(state), H(state));
    f.detector.Detect(f.finger, f.output);
    TimeFrames(state, f.bright, Nothing, [&] { f.detector.Detect(f.finger, f.output); });
}

// Finger pressed harder: every frame is the new best and is kept.
void BM_FastPlain_FingerImproving(benchmark::State& state) {
    FastPlain f(W(state), H(state));
    f.detector.Detect(f.finger, f.output);
    TimeFrames(
        state, f.bright, [&] { f.detector.Reset(); },
        [&] { f.detector.Detect(f.finger, f.output); });
}

// Finger lifted: the best frame is delivered.
void BM_FastPlain_Delivery(benchmark::State& state) {
    FastPlain f(W(state), H(state));
    TimeFrames(
        state, f.bright, [&] { f.detector.Detect(f.finger, f.output); },
        [&] { f.detector.Detect(f.bright, f.output); });
}

// Rolled finger (column composing) ------------------------------------------

struct Roll {
    long width;
    Bitmap bright, dim, onset, output;
    std::vector<Bitmap> steps;  // a finger band moving across the platen
    Roll(long w, long h)
        : width(w),
          bright(Frame(w, h)),
          dim(Frame(w, h, 0, w, 200)),
          onset(Frame(w, h, 0, w / 3, 80)) {
        for (int i = 0; i < 4; ++i) {
            const long x0 = i * w / 6;
            steps.push_back(Frame(w, h, x0, x0 + w / 3, static_cast<unsigned char>(70 - 10 * i)));
        }
    }
};

void BM_RolledVC1_WaitingForBackground(benchmark::State& state) {
    Roll r(W(state), H(state));
    vc::ClRolledFingerVC1 detector;
    TimeFrames(state, r.bright, Nothing, [&] { detector.Detect(r.dim, r.output); });
}

void BM_RolledVC1_NoFinger(benchmark::State& state) {
    Roll r(W(state), H(state));
    vc::ClRolledFingerVC1 detector;
    detector.Detect(r.bright, r.output);
    TimeFrames(state, r.bright, Nothing, [&] { detector.Detect(r.bright, r.output); });
}

// Rolling, each frame darkening a third of the columns (the roll advancing).
void BM_RolledVC1_Rolling(benchmark::State& state) {
    Roll r(W(state), H(state));
    vc::ClRolledFingerVC1 start;
    start.Detect(r.bright, r.output);
    start.Detect(r.onset, r.output);
    std::unique_ptr<vc::ClRolledFingerVC1> detector;
    std::size_t next = 0;
    TimeFrames(
        state, r.bright,
        [&] {
            if (next % r.steps.size() == 0) {
                detector.reset(start.clone());
            }
        },
        [&] { detector->Detect(r.steps[next++ % r.steps.size()], r.output); });
}

// Rolling with the finger resting: no column is darker than before.
void BM_RolledVC1_RollingResting(benchmark::State& state) {
    Roll r(W(state), H(state));
    vc::ClRolledFingerVC1 detector;
    detector.Detect(r.bright, r.output);
    detector.Detect(r.onset, r.output);
    detector.Detect(r.steps[0], r.output);
    TimeFrames(state, r.bright, Nothing, [&] { detector.Detect(r.steps[0], r.output); });
}

void BM_RolledVC1_Delivery(benchmark::State& state) {
    Roll r(W(state), H(state));
    vc::ClRolledFingerVC1 detector;
    TimeFrames(
        state, r.bright,
        [&] {
            detector.Detect(r.bright, r.output);
            detector.Detect(r.onset, r.output);
            detector.Detect(r.steps[0], r.output);
        },
        [&] { detector.Detect(r.bright, r.output); });
}

// Rolled finger (border following) ------------------------------------------

void BM_RolledBorder_NoFinger(benchmark::State& state) {
    Roll r(W(state), H(state));
    vc::ClRolledFinger detector;
    r.output = r.bright;
    detector.Detect(r.bright, r.output);
    TimeFrames(state, r.bright, Nothing, [&] { detector.Detect(r.bright, r.output); });
}

void BM_RolledBorder_Rolling(benchmark::State& state) {
    Roll r(W(state), H(state));
    vc::ClRolledFinger detector;
    r.output = r.bright;
    detector.Detect(r.bright, r.output);
    detector.Detect(r.onset, r.output);
    std::size_t next = 0;
    TimeFrames(state, r.bright, Nothing,
               [&] { detector.Detect(r.steps[next++ % r.steps.size()], r.output); });
}

void BM_RolledBorder_Delivery(benchmark::State& state) {
    Roll r(W(state), H(state));
    vc::ClRolledFinger detector;
    r.output = r.bright;
    TimeFrames(
        state, r.bright,
        [&] {
            detector.Detect(r.bright, r.output);
            detector.Detect(r.onset, r.output);
            detector.Detect(r.steps[1], r.output);
        },
        [&] { detector.Detect(r.bright, r.output); });
}

void Sizes(benchmark::internal::Benchmark* b) {
    b->Args({320, 480})->Args({640, 480});
}
void Timed(benchmark::internal::Benchmark* b) {
    Sizes(b->UseManualTime());
}

BENCHMARK(BM_Memcpy)->Apply(Sizes);
BENCHMARK(BM_Live)->Apply(Timed);
BENCHMARK(BM_Preview)->Apply(Timed);
BENCHMARK(BM_Plain_NoFinger)->Apply(Timed);
BENCHMARK(BM_Plain_Finger)->Apply(Timed);
BENCHMARK(BM_FastPlain_NoFinger)->Apply(Timed);
BENCHMARK(BM_FastPlain_FingerSteady)->Apply(Timed);
BENCHMARK(BM_FastPlain_FingerImproving)->Apply(Timed);
BENCHMARK(BM_FastPlain_Delivery)->Apply(Timed);
BENCHMARK(BM_RolledVC1_WaitingForBackground)->Apply(Timed);
BENCHMARK(BM_RolledVC1_NoFinger)->Apply(Timed);
BENCHMARK(BM_RolledVC1_Rolling)->Apply(Timed);
BENCHMARK(BM_RolledVC1_RollingResting)->Apply(Timed);
BENCHMARK(BM_RolledVC1_Delivery)->Apply(Timed);
BENCHMARK(BM_RolledBorder_NoFinger)->Apply(Timed);
BENCHMARK(BM_RolledBorder_Rolling)->Apply(Timed);
BENCHMARK(BM_RolledBorder_Delivery)->Apply(Timed);

}  // namespace
