// The facade against the virtual scanner, driven the way careless hosts
// drive it: calls out of order and from two threads at once.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "capture.h"
#include "framegrabber/norvak_kr7_framegrabber.h"

namespace {

using vc::ClNorvakKR7Framegrabber;

using kr7test::Capture;

class Virtual_HostileHost : public ::testing::Test {
protected:
    ClNorvakKR7Framegrabber fg{nullptr};
    Capture counter{fg};  // any capture is ended by TearDown

    void TearDown() override {
        fg.StopCapture(1);
        fg.Uninitialize();
    }
};

TEST_F(Virtual_HostileHost, CallsOutOfOrder) {
    // A capture before Initizalize runs; Initizalize during it changes
    // nothing for the capture, nor does a second one. (That Initizalize
    // switches logging on and Uninitialize off is test_fghost's logging case.)
    ASSERT_EQ(0u, counter.Start());
    ASSERT_TRUE(counter.FramesFlow());
    EXPECT_EQ(0u, fg.Initizalize(nullptr));
    EXPECT_EQ(0u, fg.Initizalize(nullptr));
    ASSERT_TRUE(counter.FramesFlow());
    EXPECT_EQ(0, counter.errors.load());

    // Uninitialize ends the capture (its stop callback has come when it
    // returns) and closes the scanner; stopping afterwards is harmless, and
    // everything works again (the scanner opened again), also a second
    // Uninitialize.
    EXPECT_EQ(0u, fg.Uninitialize());
    EXPECT_EQ(counter.starts.load(), counter.stops.load());
    EXPECT_FALSE(fg.IsScannerInitialized());
    EXPECT_EQ(0u, fg.StopCapture(1));
    EXPECT_EQ(0u, fg.StopCapture(1));
    unsigned int value = 0;
    EXPECT_EQ(0u, fg.SetFGProperty(vc::ePropRedLED, 1));
    EXPECT_EQ(0u, fg.GetFGProperty(vc::ePropRedLED, value));
    EXPECT_EQ(100u, value);
    ASSERT_EQ(0u, counter.Start(vc::eCapturePlainFinger));
    ASSERT_TRUE(counter.FramesFlow());
    EXPECT_EQ(0u, fg.Uninitialize());
    EXPECT_EQ(0u, fg.Uninitialize());
    EXPECT_EQ(0, counter.errors.load());
    EXPECT_EQ(2, counter.stops.load());

    // An aspect ratio that is no number or infinitely small is refused and
    // leaves the frame grabber as it was (values outside the enumerations
    // are rows of the facade's result table).
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(vc::FGERR_FLAG | vc::FGERR_BAD_ASPECT_RATIO, fg.SetAspectRatio(1, nan, 1.0));
    EXPECT_EQ(vc::FGERR_FLAG | vc::FGERR_BAD_ASPECT_RATIO, fg.SetAspectRatio(1, 1.0, -INFINITY));
    ASSERT_EQ(0u, counter.Start());
    ASSERT_TRUE(counter.FramesFlow());
}

TEST_F(Virtual_HostileHost, TwoHostThreadsCallAtOnce) {
    std::atomic<bool> done{false};
    std::atomic<int> unexpected{0};
    const auto expect = [&](unsigned int result, unsigned int allowed = 0) {
        if (result != 0 && result != allowed) {
            ++unexpected;
        }
    };

    // One thread starts and stops captures in both modes; the other sets,
    // reads and asks for the last error meanwhile.
    std::thread starter([&] {
        for (int i = 0; i < 600; ++i) {
            expect(counter.Start(i % 2 ? vc::eCapturePlainFinger : vc::eCaptureLive));
            if (i % 100 == 0) {
                counter.FramesFlow();
            }
            expect(fg.StopCapture(1));
        }
        done = true;
    });
    int rounds = 0;
    while (!done) {
        unsigned int value = 0;
        unsigned long size = 0;
        expect(fg.SetCamera(1, vc::eCameraKR7, vc::eColorGray8));
        expect(fg.SetFilter(1, vc::eFilterNone));
        expect(fg.SetResolution(1, vc::ClImageResolution(500, 500)));
        expect(fg.SetAspectRatio(1, 1.0, 1.0));
        expect(fg.Freeze(1, false));
        expect(fg.SetFGProperty(vc::ePropGreenLED, static_cast<unsigned int>(rounds % 2)));
        expect(fg.GetFGProperty(vc::ePropRedLED, value));
        expect(fg.SetFGProperty(static_cast<vc::ePropertyIDs>(99), 1),
               vc::FGERR_FLAG | vc::FGERR_PROPERTY_NOT_SUPPORTED);
        expect(fg.GetLastError(nullptr, size), vc::FGERR_FLAG | vc::FGERR_MORE_DATA);
        std::string text(size, '\0');
        expect(fg.GetLastError(&text[0], size));
        expect(fg.GetInfo(nullptr, size), vc::FGERR_FLAG | vc::FGERR_MORE_DATA);
        ++rounds;
    }
    starter.join();
    EXPECT_GT(rounds, 0);
    EXPECT_EQ(0, unexpected.load());
    EXPECT_EQ(0, counter.errors.load());
    EXPECT_EQ(counter.starts.load(), counter.stops.load());

    // Both threads are done: the frame grabber still captures.
    ASSERT_EQ(0u, counter.Start());
    EXPECT_TRUE(counter.FramesFlow());
}

}  // namespace
