// Times a step against the floor of a memcpy of the same frame, both in each
// iteration, so that the two means come from the same moments of a shared
// machine. Report sets the counters memcpy_ns and x_memcpy.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <vector>

namespace kr7bench {

struct MemcpyRatio {
    double stepSeconds = 0;
    double memcpySeconds = 0;

    void Report(benchmark::State& state) const {
        const double iterations = static_cast<double>(state.iterations());
        state.counters["memcpy_ns"] = memcpySeconds * 1e9 / iterations;
        state.counters["x_memcpy"] = stepSeconds / memcpySeconds;
    }
};

// `prepare` runs untimed before each step; `started`, when given, once just
// before the first iteration, after the helper's own buffer exists.
inline MemcpyRatio TimeAgainstMemcpy(benchmark::State& state, const void* frame, std::size_t size,
                                     const std::function<void()>& prepare,
                                     const std::function<void()>& step,
                                     const std::function<void()>& started = nullptr) {
    using Clock = std::chrono::steady_clock;
    std::vector<unsigned char> target(size);
    double stepTotal = 0;
    double memcpyTotal = 0;
    if (started) {
        started();
    }
    for (auto _ : state) {
        if (prepare) {
            prepare();
        }
        const auto t0 = Clock::now();
        std::memcpy(target.data(), frame, size);
        benchmark::ClobberMemory();
        const auto t1 = Clock::now();
        step();
        benchmark::ClobberMemory();
        const auto t2 = Clock::now();
        const double seconds = std::chrono::duration<double>(t2 - t1).count();
        state.SetIterationTime(seconds);
        stepTotal += seconds;
        memcpyTotal += std::chrono::duration<double>(t1 - t0).count();
    }
    return {stepTotal, memcpyTotal};
}

}  // namespace kr7bench
