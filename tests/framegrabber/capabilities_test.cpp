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

TEST(ClVCCamera, ResolutionsInPelsOrDpi) {
    // Camera 2's resolution is stored as given, camera 7's converted from dpi.
    EXPECT_EQ(vc::ClImageResolution(20305, 19850), vc::ClVCCamera::Create(vc::eCameraType2));
    const vc::ClVCCamera c = vc::ClVCCamera::Create(vc::eCameraType7);
    EXPECT_EQ(vc::ClImageResolution(19684, 19684), c);
    EXPECT_EQ(640u, c.m_nWidth);
}

TEST(ClVCCamera, KR7AndUnknownCamerasLeaveTheRecordAlone) {
    vc::ClVCCamera kr7 = vc::ClVCCamera::Create(vc::eCameraKR7);
    EXPECT_EQ(0u, kr7.m_nWidth);
    EXPECT_EQ(vc::ClImageResolution(), kr7);
    EXPECT_EQ(0, kr7.m_eCameraID);

    vc::ClVCCamera c = vc::ClVCCamera::Create(vc::eCameraType9);
    for (int id : {0, 8, 10, 1000, -3}) {
        vc::ClVCCamera copy = c;
        vc::ClVCCamera::SetCameraParam(copy, static_cast<vc::eCameraIDs>(id));
        EXPECT_EQ(c.m_eCameraID, copy.m_eCameraID) << id;
        EXPECT_EQ(c.m_nWidth, copy.m_nWidth) << id;
    }
    // Camera 1 only records its identifier.
    vc::ClVCCamera::SetCameraParam(c, vc::eCameraType1);
    EXPECT_EQ(vc::eCameraType1, c.m_eCameraID);
    EXPECT_EQ(640u, c.m_nWidth);
    EXPECT_TRUE(c.m_bFlip2);
}

}  // namespace
