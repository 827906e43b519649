#include <gtest/gtest.h>

#include <type_traits>

#include "base/framegrabber.h"

namespace {

TEST(ClImageResolution, DpiConversionTruncates) {
    vc::ClImageResolution r;
    r.put_DPI(500, 1000);
    EXPECT_EQ(vc::ClImageResolution(19684, 39369), r);
}

TEST(HostContract, EnumerationValues) {
    EXPECT_EQ(8, vc::eCameraKR7);
    EXPECT_EQ(0, vc::eColorGray8);
    EXPECT_EQ(0, vc::eCaptureLive);
    EXPECT_EQ(4, vc::eCapturePreview);
    EXPECT_EQ(1, vc::eFilterSubtractBackground);
    EXPECT_EQ(8u, vc::ePropGreenLED);
    EXPECT_EQ(19, vc::eFGKR7);
    EXPECT_EQ(0, vc::eKR7EventFakeFinger);
    static_assert(sizeof(vc::eCaptureModeIDs) == 4 && sizeof(vc::ePropertyIDs) == 4);
    static_assert(std::is_abstract_v<vc::ClFramegrabber>);
}

}  // namespace
