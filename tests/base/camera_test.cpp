#include "base/camera.h"

#include <gtest/gtest.h>

namespace {

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
