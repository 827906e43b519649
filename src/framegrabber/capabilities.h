// What a frame grabber offers: the identifier lists the host can query and
// the checks run against them.
#pragma once

#include <cstdint>
#include <vector>

#include "base/framegrabber.h"

namespace vc {

class ClFramegrabberImpl {
public:
    ClFramegrabberImpl() = default;
    virtual ~ClFramegrabberImpl() = default;

    bool CameraCheck(eCameraIDs id) const { return Contains(m_vCameras, id); }
    bool DetectionCheck(eCaptureModeIDs id) const { return Contains(m_vCaptureModes, id); }
    bool FilterCheck(eFilterIDs id) const { return Contains(m_vFilters, id); }

    // List copies: count is the array's capacity on entry and the list's
    // length on return; 17 when the array is null or too small, else 0.
    unsigned int AvailableCameras(eCameraIDs* list, unsigned long& count) const {
        return CopyList(m_vCameras, list, count);
    }
    unsigned int AvailableColorModes(eColorModeIDs* list, unsigned long& count) const {
        return CopyList(m_vColorModes, list, count);
    }
    unsigned int AvailableDetections(eCaptureModeIDs* list, unsigned long& count) const {
        return CopyList(m_vCaptureModes, list, count);
    }
    unsigned int AvailableFilters(eFilterIDs* list, unsigned long& count) const {
        return CopyList(m_vFilters, list, count);
    }
    unsigned int AvailableProperties(ePropertyIDs* list, unsigned long& count) const {
        return CopyList(m_vProperties, list, count);
    }
    unsigned int AvailablePropertiesEx(ePropertyIDs* list, unsigned long& count) const {
        return CopyList(m_vPropertiesEx, list, count);
    }

protected:
    template <class Id>
    static bool Contains(const std::vector<Id>& list, Id id) {
        for (Id entry : list) {
            if (entry == id) {
                return true;
            }
        }
        return false;
    }

    template <class Id>
    static unsigned int CopyList(const std::vector<Id>& source, Id* list, unsigned long& count) {
        const unsigned long n = source.size();
        if (list == nullptr) {
            count = n;
            return 17;
        }
        const unsigned long copied = n < count ? n : count;
        for (unsigned long i = 0; i < copied; ++i) {
            list[i] = source[i];
        }
        const bool fits = n <= count;
        count = n;
        return fits ? 0 : 17;
    }

    // Filled by the concrete frame grabber, in the order they are reported.
    std::vector<eCameraIDs> m_vCameras;
    std::vector<eColorModeIDs> m_vColorModes;
    std::vector<eCaptureModeIDs> m_vCaptureModes;
    std::vector<eFilterIDs> m_vFilters;
    std::vector<ePropertyIDs> m_vProperties;
    std::vector<ePropertyIDs> m_vPropertiesEx;
    std::vector<std::uint32_t> m_vReserved;  // no operation fills or reads it
};

}  // namespace vc
