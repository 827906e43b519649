#include "framegrabber/capabilities.h"

#include <gtest/gtest.h>

namespace {

// The lists as the KR7 frame grabber fills them.
class KR7Lists : public vc::ClFramegrabberImpl {
public:
    KR7Lists() {
        m_vCameras = {vc::eCameraKR7};
        m_vColorModes = {vc::eColorGray8};
        m_vCaptureModes = {vc::eCaptureLive, vc::eCapturePlainFinger};
        m_vFilters = {vc::eFilterNone};
        m_vProperties = {vc::ePropFixedOne, vc::ePropFakeFingerDetection, vc::ePropRedLED,
                         vc::ePropGreenLED};
    }
};

TEST(ClFramegrabberImpl, ChecksAndListCopyProtocol) {
    KR7Lists lists;
    EXPECT_TRUE(lists.CameraCheck(vc::eCameraKR7));
    EXPECT_FALSE(lists.CameraCheck(vc::eCameraType5));
    EXPECT_TRUE(lists.DetectionCheck(vc::eCapturePlainFinger));
    EXPECT_FALSE(lists.DetectionCheck(vc::eCaptureRolledFinger));
    EXPECT_FALSE(lists.FilterCheck(vc::eFilterSubtractBackground));

    unsigned long count = 99;
    EXPECT_EQ(17u, lists.AvailableCameras(nullptr, count));
    EXPECT_EQ(1u, count);

    vc::ePropertyIDs props[4] = {};
    count = 2;  // too small: the first two are copied
    EXPECT_EQ(17u, lists.AvailableProperties(props, count));
    EXPECT_EQ(4u, count);
    EXPECT_EQ(vc::ePropFixedOne, props[0]);
    EXPECT_EQ(vc::ePropFakeFingerDetection, props[1]);
    EXPECT_EQ(0u, props[2]);  // untouched

    count = 4;
    EXPECT_EQ(0u, lists.AvailableProperties(props, count));
    EXPECT_EQ(vc::ePropGreenLED, props[3]);

    vc::eCaptureModeIDs modes[8];
    count = 8;  // larger than needed: count shrinks to the length
    EXPECT_EQ(0u, lists.AvailableDetections(modes, count));
    EXPECT_EQ(2u, count);
    EXPECT_EQ(vc::eCapturePlainFinger, modes[1]);

    count = 0;  // the empty extended list always fits
    EXPECT_EQ(0u, lists.AvailablePropertiesEx(props, count));
    EXPECT_EQ(0u, count);
    count = 0;
    EXPECT_EQ(17u, lists.AvailableFilters(reinterpret_cast<vc::eFilterIDs*>(modes), count));
    EXPECT_EQ(1u, count);
}

}  // namespace
