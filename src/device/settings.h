// Device settings of the KR7 SDK, read from the settings file at the
// scanner's first initialisation.
#pragma once

#include <cstdint>
#include <string>

#include "device/norvak_kr7_sdk.h"

namespace Nvk {
namespace cfg {
// "/etc/" + name + ".cfg".
std::string CfgFileName(const char* name);
}  // namespace cfg
}  // namespace Nvk

namespace vc {

class ClNorvakKR7SDK::CXSetting {
public:
    // Dose of the frames the SDK takes: live frames and contamination.
    static constexpr std::uint32_t kDefaultDose = 60;

    CXSetting() = default;

    // Reads the file only when it could not be opened: an existing settings
    // file is never parsed, so the fake-finger flag stays as it is. That
    // behaviour is settled and kept; the parsing of an unopened stream yields
    // no sections. Never throws, never logs.
    void LoadFromFile(const char* path);

    // Section SDK, key LFD = "Y": switch the scanner's fake-finger check on.
    bool m_bFakeFingerDetection = false;
    std::uint32_t m_nContaminationDose = kDefaultDose;
};

}  // namespace vc
