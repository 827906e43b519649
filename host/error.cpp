#include "kr7host/error.h"

#include <cstdio>

#include <norvakkr7fg/framegrabber.h>

namespace kr7host {

namespace {

std::string Describe(const std::string& operation, unsigned int result, const std::string& text) {
    char head[64];
    std::snprintf(head, sizeof head, " failed: error %u (0x%08x)", result & ~vc::FGERR_FLAG,
                  result);
    return operation + head + (text.empty() ? "" : ": " + text);
}

std::string Describe(LoadError::Kind kind, const std::string& file, const std::string& reason) {
    switch (kind) {
        case LoadError::Kind::Plugin:
            return "cannot load the plug-in " + file + ": " + reason;
        case LoadError::Kind::NotAPlugin:
            return file + " is not a frame-grabber plug-in (" + reason + ")";
        case LoadError::Kind::VirtualScanner:
            break;
    }
    return "cannot load the virtual scanner's library " + file + ": " + reason +
           " (set KR7_SIM_DIR to the folder holding it)";
}

// The plug-in's texts of the numbers in the public header's eFGErrors.
struct Known {
    unsigned int number;
    const char* text;
};
constexpr Known kKnownTexts[] = {
    {vc::FGERR_CAMERA_NOT_SUPPORTED,
     "The camera ID is unknown or is not supported by frame grabber"},
    {vc::FGERR_BAD_CHANNEL, "Incorrect channel number for frame grabber"},
    {vc::FGERR_COLOR_MODE_NOT_SUPPORTED, "The frame grabber does not support this color mode"},
    {vc::FGERR_DETECTION_NOT_SUPPORTED,
     "The detection ID bad or frame grabber does not support this detection"},
    {vc::FGERR_FILTER_NOT_SUPPORTED, "The filter ID bad or framegrabber does not support"},
    {vc::FGERR_PROPERTY_NOT_SUPPORTED, "Incorrect property or frame grabber does not support"},
    {vc::FGERR_MORE_DATA, "More data are available"},
    {vc::FGERR_PROPERTY_READ_ONLY, "The property is read only"},
    {vc::FGERR_FILTER_NOT_APPLICABLE, "The filter can not be applied"},
    {vc::FGERR_HARDWARE_NOT_SUPPORTED, "The QV2-scanner hardware version is not supported"},
    {vc::FGERR_BAD_ASPECT_RATIO, "The aspect ratio is incorrect. It can be set 1.. "},
    {vc::FGERR_BAD_DEVICE_INDEX,
     "The device index out of range or is not supported by frame grabber"},
    {vc::FGERR_DISCONNECTED, "The scanner is disconnected."},
    {vc::FGERR_CALIBRATION_CORRUPT, "The calibration data is corrupt."},
    {vc::FGERR_API_VERSION_NOT_SUPPORTED, "The QV2 API version isn't more supported"},
    {vc::FGERR_OUT_OF_MEMORY, "Not enough storage is available to complete this operation"},
    {vc::FGERR_USER_CANCELED, "The user canceled the action"},
    {vc::FGERR_HARDWARE_INCOMPATIBLE, "The hardware is incompatible"},
    {vc::FGERR_FIRMWARE_INCOMPATIBLE, "The firmware is incompatible"},
};

}  // namespace

unsigned int NumberOfText(const std::string& text) {
    for (const Known& known : kKnownTexts) {
        if (text == known.text) {
            return known.number;
        }
    }
    return 0;
}

Error::Error(const std::string& operation, unsigned int result, const std::string& text)
    : std::runtime_error(Describe(operation, result, text)),
      m_strOperation(operation),
      m_nResult(result),
      m_strText(text) {}

unsigned int Error::Number() const {
    return m_nResult & ~vc::FGERR_FLAG;
}

bool Error::LibraryMissing() const {
    return Number() == vc::FGERR_LIBRARY_NOT_LOADED && m_strText.find(".so") != std::string::npos;
}

LoadError::LoadError(Kind kind, const std::string& file, const std::string& reason)
    : std::runtime_error(Describe(kind, file, reason)),
      m_eKind(kind),
      m_strFile(file),
      m_strReason(reason) {}

}  // namespace kr7host
