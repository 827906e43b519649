// Image parameters of the camera types a host may name.
#pragma once

#include <cstdint>

#include "base/framegrabber.h"
#include "base/image_resolution.h"

namespace vc {

// Image parameters of one camera type.
class ClVCCamera : public ClImageResolution {
public:
    ClVCCamera() = default;
    ClVCCamera(const ClVCCamera&) = default;
    ClVCCamera& operator=(const ClVCCamera&) = default;

    // A default record filled for `id`.
    static ClVCCamera Create(eCameraIDs id);
    // Fills `camera` from the parameter table. The KR7 (8) has no row, since
    // its size and resolution come from the scanner itself; 0 and values
    // above 9 are ignored.
    static void SetCameraParam(ClVCCamera& camera, eCameraIDs id);

    eCameraIDs m_eCameraID = static_cast<eCameraIDs>(0);
    std::uint32_t m_nModeFlag = 0;
    std::uint32_t m_nRate = 0;
    std::uint32_t m_nReserved = 0;
    std::uint32_t m_nWidth = 0;
    std::uint32_t m_nHeight = 0;
    bool m_bFlip1 = false;
    bool m_bFlip2 = false;
};

}  // namespace vc
