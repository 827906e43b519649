#include "base/camera.h"

#include <gtest/gtest.h>

namespace {

TEST(ClVCCamera, KR7AndUnknownCamerasLeaveTheRecordAlone) {
    vc::ClVCCamera kr7 = vc::ClVCCamera::Create(vc::eCameraKR7);
    EXPECT_EQ(0u, kr7.m_nWidth);
    EXPECT_EQ(vc::ClImageResolution(), kr7);
    EXPECT_EQ(0, kr7.m_eCameraID);

    const vc::ClVCCamera c = vc::ClVCCamera::Create(vc::eCameraType9);
    for (int id : {0, 8, 10, 1000, -3}) {
        vc::ClVCCamera copy = c;
        vc::ClVCCamera::SetCameraParam(copy, static_cast<vc::eCameraIDs>(id));
        EXPECT_EQ(c.m_eCameraID, copy.m_eCameraID) << id;
        EXPECT_EQ(c.m_nWidth, copy.m_nWidth) << id;
    }
}

}  // namespace
