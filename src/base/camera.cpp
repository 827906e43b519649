#include "base/camera.h"

namespace vc {

namespace {

struct CameraRow {
    std::uint32_t width, height;
    bool dpi;  // resolution given in dots per inch, else in pixels per metre
    std::uint32_t resX, resY;
    std::uint32_t modeFlag, rate;
    bool flip1, flip2;
};

// Cameras 2..9; the KR7 row (index 6) is absent on purpose.
constexpr CameraRow kRows[] = {
    {610, 480, false, 20305, 19850, 0, 30, false, true},  // 2
    {768, 526, false, 0, 0, 1, 50, false, true},          // 3
    {640, 480, true, 860, 533, 0, 0, true, false},        // 4
    {610, 480, false, 19685, 19685, 0, 0, true, false},   // 5
    {768, 576, true, 995, 606, 1, 0, true, true},         // 6
    {640, 480, true, 500, 500, 0, 0, false, false},       // 7
    {0, 0, false, 0, 0, 0, 0, false, false},              // 8: no row
    {640, 480, true, 500, 500, 0, 0, false, true},        // 9
};

}  // namespace

ClVCCamera ClVCCamera::Create(eCameraIDs id) {
    ClVCCamera camera;
    SetCameraParam(camera, id);
    return camera;
}

void ClVCCamera::SetCameraParam(ClVCCamera& camera, eCameraIDs id) {
    const int n = static_cast<int>(id);
    if (n == 1) {
        camera.m_eCameraID = id;
        return;
    }
    if (n < 2 || n > 9 || n == 8) {
        return;
    }
    const CameraRow& row = kRows[n - 2];
    camera.m_eCameraID = id;
    camera.m_nWidth = row.width;
    camera.m_nHeight = row.height;
    if (row.dpi) {
        camera.put_DPI(row.resX, row.resY);
    } else {
        static_cast<ClImageResolution&>(camera) = ClImageResolution(row.resX, row.resY);
    }
    camera.m_nModeFlag = row.modeFlag;
    camera.m_nRate = row.rate;
    camera.m_nReserved = 0;
    camera.m_bFlip1 = row.flip1;
    camera.m_bFlip2 = row.flip2;
}

}  // namespace vc
