// A host's capture on channel 1 of a frame grabber: counts what its
// callbacks receive and checks the header of every image; its image callback
// may once take an image of its own.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>

#include "base/framegrabber.h"
#include "support/eventually.h"

namespace kr7test {

// Header of a block handed out by GetImage or a callback.
inline void ExpectBitmap(const unsigned char* image) {
    ASSERT_NE(nullptr, image);
    std::int32_t fields[3] = {};  // header size, width, height
    std::uint16_t bits = 0;
    std::memcpy(fields, image, sizeof fields);
    std::memcpy(&bits, image + 14, 2);
    EXPECT_EQ(40, fields[0]);
    EXPECT_GT(fields[1], 100);
    EXPECT_GT(fields[2], 100);
    EXPECT_EQ(8, bits);
}

struct Capture {
    explicit Capture(vc::ClFramegrabber& grabber) : fg(grabber) {}

    vc::ClFramegrabber& fg;
    bool snap = false;  // set while no capture runs
    std::atomic<int> images{0};
    std::atomic<int> errors{0};
    std::atomic<int> starts{0};
    std::atomic<int> stops{0};
    std::atomic<bool> snapped{false};
    std::atomic<unsigned int> snapResult{0xFFFFFFFFu};

    static Capture& Of(void* user) { return *static_cast<Capture*>(user); }
    static void OnImage(int, unsigned int, unsigned char* image, void* user) {
        Capture& self = Of(user);
        ++self.images;
        ExpectBitmap(image);
        if (!self.snap || self.snapped.exchange(true)) {
            return;
        }
        unsigned char* own = nullptr;
        self.snapResult = self.fg.GetImage(1, &own);
        ExpectBitmap(own);
        self.fg.FreeImage(own);
    }
    static void OnError(int, unsigned int, const char*, void* user) { ++Of(user).errors; }
    static void OnStart(int, unsigned int, void* user) { ++Of(user).starts; }
    static void OnStop(int, unsigned int, void* user) { ++Of(user).stops; }

    unsigned int Start(vc::eCaptureModeIDs mode = vc::eCaptureLive) {
        fg.SetCallbacks(1, &OnStart, &OnStop);
        return fg.StartCapture(3, 1, mode, &OnImage, nullptr, &OnError, nullptr, this);
    }
    // Until two more images have come.
    bool FramesFlow() const {
        const int before = images;
        return Eventually([&] { return images.load() > before + 1; });
    }
};

}  // namespace kr7test
