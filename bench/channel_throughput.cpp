// Throughput of a capture channel with a device that has every frame ready
// at once, so that what is measured is the channel's own cost per frame:
// the device lock calls, the dirty check, the delivery, the detector and
// (for the processing channel) the processor chain.
//
// Reported per benchmark:
// - items_per_second: frames taken from the device per second;
// - allocs_per_frame: heap allocations of the whole program per frame in
//   steady state, counted by the replaced global operator new below (the
//   host thread only waits while they are counted);
// - BM_Deliver*: SendBitmapToClient alone, called on the benchmark thread;
// - BM_StopLatency: the time StopCapture takes to return while frames flow.
//
// The worker yields with Sleep(0) (a zero-length nanosleep) after every
// pass; with the kernel's default timer slack that alone takes some tens of
// microseconds and caps the frame rate of a device that is never busy.

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <thread>

#include "channel/channel.h"
#include "support/allocation_count.h"

namespace {

using Nvk::utilities::ClSimpleBitmap;

constexpr long kWidth = 800;
constexpr long kHeight = 750;

// A device whose frames are always there: the channel's bitmap is shaped
// once and each frame only changes its first pixel.
class InstantSDK : public vc::ClFramegrabberSDK {
public:
    explicit InstantSDK(unsigned char fill) : m_nFill(fill) {}

    void SetActiveChannel(vc::ClFrameGrabberChannel&, ClSimpleBitmap& bitmap) override {
        bitmap.Create(kWidth, kHeight, 8);
        std::memset(bitmap.Pixel(), m_nFill, static_cast<std::size_t>(bitmap.PixelSize()));
    }
    void GetLiveBitmap(vc::ClFrameGrabberChannel&, ClSimpleBitmap& bitmap) override {
        bitmap.Pixel()[0] = static_cast<unsigned char>(m_nFrames.fetch_add(1));
    }
    bool IsDirty(vc::ClFrameGrabberChannel&) override { return false; }

    unsigned long long Frames() const { return m_nFrames.load(); }

private:
    unsigned char m_nFill;
    std::atomic<unsigned long long> m_nFrames{0};
};

std::atomic<unsigned long long> g_nImages{0};
std::atomic<unsigned long long> g_nResults{0};

void OnImage(int, unsigned int, unsigned char* image, void*) {
    benchmark::DoNotOptimize(image);
    g_nImages.fetch_add(1, std::memory_order_relaxed);
}

void OnResult(int, unsigned int, int, unsigned char* image, void*) {
    benchmark::DoNotOptimize(image);
    g_nResults.fetch_add(1, std::memory_order_relaxed);
}

void WaitForFrames(const InstantSDK& sdk, unsigned long long target) {
    while (sdk.Frames() < target) {
        std::this_thread::yield();
    }
}

// Frames per second through `Channel` in `mode`; `fill` is the grey value
// of the frames (255: empty platen, 100: a finger everywhere).
template <class Channel>
void RunThroughput(benchmark::State& state, vc::eCaptureModeIDs mode, unsigned char fill,
                   vc::eFilterIDs filter) {
    InstantSDK sdk(fill);
    vc::ClFrameGrabberChannel::m_pFramegrabberSDK = &sdk;
    Channel channel;
    channel.SetFilter(filter);
    g_nImages = 0;
    g_nResults = 0;
    if (!channel.StartCapture(1, mode, &OnImage, &OnResult, nullptr, nullptr, nullptr)) {
        state.SkipWithError("the worker did not start");
        return;
    }
    WaitForFrames(sdk, 1000);  // warm-up: set-up done, buffers sized

    constexpr unsigned long long kBatch = 2000;
    const unsigned long long frames0 = sdk.Frames();
    const unsigned long long allocations0 = kr7bench::AllocationCount();
    for (auto _ : state) {
        WaitForFrames(sdk, sdk.Frames() + kBatch);
    }
    const unsigned long long allocations1 = kr7bench::AllocationCount();
    const unsigned long long frames1 = sdk.Frames();
    channel.StopCapture();
    vc::ClFrameGrabberChannel::m_pFramegrabberSDK = nullptr;

    const double frames = static_cast<double>(frames1 - frames0);
    state.SetItemsProcessed(static_cast<int64_t>(frames1 - frames0));
    state.counters["allocs_per_frame"] = static_cast<double>(allocations1 - allocations0) / frames;
    state.counters["results_per_frame"] =
        static_cast<double>(g_nResults.load()) / static_cast<double>(sdk.Frames());
}

void BM_LiveScannerChannel(benchmark::State& state) {
    RunThroughput<vc::ClNorvakKR7Channel>(state, vc::eCaptureLive, 255, vc::eFilterNone);
}
BENCHMARK(BM_LiveScannerChannel)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_PlainFingerScannerChannel_NoFinger(benchmark::State& state) {
    RunThroughput<vc::ClNorvakKR7Channel>(state, vc::eCapturePlainFinger, 255, vc::eFilterNone);
}
BENCHMARK(BM_PlainFingerScannerChannel_NoFinger)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_PlainFingerScannerChannel_Finger(benchmark::State& state) {
    RunThroughput<vc::ClNorvakKR7Channel>(state, vc::eCapturePlainFinger, 100, vc::eFilterNone);
}
BENCHMARK(BM_PlainFingerScannerChannel_Finger)->UseRealTime()->Unit(benchmark::kMicrosecond);

// The base channel runs every frame through its processor chain.
void BM_LiveProcessingChannel_NoFilter(benchmark::State& state) {
    RunThroughput<vc::ClFrameGrabberChannel>(state, vc::eCaptureLive, 255, vc::eFilterNone);
}
BENCHMARK(BM_LiveProcessingChannel_NoFilter)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_LiveProcessingChannel_SubtractBackground(benchmark::State& state) {
    RunThroughput<vc::ClFrameGrabberChannel>(state, vc::eCaptureLive, 255,
                                             vc::eFilterSubtractBackground);
}
BENCHMARK(BM_LiveProcessingChannel_SubtractBackground)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

// The channel's cost per frame without the worker's pass around it (device
// lock, dirty check and the Sleep(0) yield after each pass): the frame is
// handed to SendBitmapToClient directly while the worker sits paused.
template <class Channel>
void RunDelivery(benchmark::State& state, vc::eCaptureModeIDs mode, unsigned char fill) {
    InstantSDK sdk(fill);
    vc::ClFrameGrabberChannel::m_pFramegrabberSDK = &sdk;
    Channel channel;
    channel.SetPaused(true);
    if (!channel.StartCapture(1, mode, &OnImage, &OnResult, nullptr, nullptr, nullptr)) {
        state.SkipWithError("the worker did not start");
        return;
    }
    ClSimpleBitmap frame;
    sdk.SetActiveChannel(channel, frame);
    for (int i = 0; i < 100; ++i) {
        channel.SendBitmapToClient(frame, true);
    }
    const unsigned long long allocations0 = kr7bench::AllocationCount();
    for (auto _ : state) {
        sdk.GetLiveBitmap(channel, frame);
        channel.SendBitmapToClient(frame, true);
    }
    const unsigned long long allocations1 = kr7bench::AllocationCount();
    channel.StopCapture();
    vc::ClFrameGrabberChannel::m_pFramegrabberSDK = nullptr;
    state.SetItemsProcessed(state.iterations());
    state.counters["allocs_per_frame"] =
        static_cast<double>(allocations1 - allocations0) / static_cast<double>(state.iterations());
}

void BM_DeliverLive(benchmark::State& state) {
    RunDelivery<vc::ClNorvakKR7Channel>(state, vc::eCaptureLive, 255);
}
BENCHMARK(BM_DeliverLive);

void BM_DeliverPlainFinger_NoFinger(benchmark::State& state) {
    RunDelivery<vc::ClNorvakKR7Channel>(state, vc::eCapturePlainFinger, 255);
}
BENCHMARK(BM_DeliverPlainFinger_NoFinger);

void BM_DeliverPlainFinger_Finger(benchmark::State& state) {
    RunDelivery<vc::ClNorvakKR7Channel>(state, vc::eCapturePlainFinger, 100);
}
BENCHMARK(BM_DeliverPlainFinger_Finger);

// From the call of StopCapture to its return while frames flow.
void BM_StopLatency(benchmark::State& state) {
    InstantSDK sdk(255);
    vc::ClFrameGrabberChannel::m_pFramegrabberSDK = &sdk;
    vc::ClNorvakKR7Channel channel;
    for (auto _ : state) {
        if (!channel.StartCapture(1, vc::eCaptureLive, &OnImage, &OnResult, nullptr, nullptr,
                                  nullptr)) {
            state.SkipWithError("the worker did not start");
            break;
        }
        WaitForFrames(sdk, sdk.Frames() + 100);
        const auto start = std::chrono::steady_clock::now();
        channel.StopCapture();
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(elapsed.count());
    }
    vc::ClFrameGrabberChannel::m_pFramegrabberSDK = nullptr;
}
BENCHMARK(BM_StopLatency)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(300);

}  // namespace
