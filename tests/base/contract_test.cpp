#include <gtest/gtest.h>

#include <cstring>
#include <type_traits>

#include "base/framegrabber.h"

namespace {

TEST(ClVersion, TextGetterProtocol) {
    vc::ClVersion v(1, 13, 38, 0);
    EXPECT_EQ("", vc::ClVersion().Text());
    unsigned long size = 0;
    EXPECT_EQ(17u, v.Version(nullptr, size));
    EXPECT_EQ(10u, size);

    char small[8];
    std::memset(small, '#', sizeof small);
    size = 4;
    EXPECT_EQ(0u, v.Version(small, size));
    EXPECT_EQ(10u, size);
    EXPECT_EQ(0, std::memcmp(small, "1.13####", 8));  // cut, no terminator

    char exact[10];
    size = sizeof exact;
    EXPECT_EQ(0u, v.Version(exact, size));
    EXPECT_STREQ("1.13.38.0", exact);

    char big[32];
    std::memset(big, '#', sizeof big);
    size = sizeof big;
    EXPECT_EQ(0u, v.Version(big, size));
    EXPECT_EQ(10u, size);
    EXPECT_STREQ("1.13.38.0", big);
    EXPECT_EQ('#', big[10]);  // nothing written past the text

    size = 0;
    EXPECT_EQ(0u, v.Version(big, size));
    EXPECT_EQ(10u, size);
}

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
