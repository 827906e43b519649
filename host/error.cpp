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

}  // namespace

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

unsigned int ErrorNumberOf(const std::string& text) {
    // The texts the plug-in gives these numbers, word for word.
    static const struct {
        const char* text;
        unsigned int number;
    } kTexts[] = {
        {"The scanner is disconnected.", vc::FGERR_DISCONNECTED},
        {"The calibration data is corrupt.", vc::FGERR_CALIBRATION_CORRUPT},
        {"The QV2 API version isn't more supported", vc::FGERR_API_VERSION_NOT_SUPPORTED},
        {"Not enough storage is available to complete this operation", vc::FGERR_OUT_OF_MEMORY},
        {"The user canceled the action", vc::FGERR_USER_CANCELED},
        {"The hardware is incompatible", vc::FGERR_HARDWARE_INCOMPATIBLE},
        {"The firmware is incompatible", vc::FGERR_FIRMWARE_INCOMPATIBLE},
    };
    for (const auto& known : kTexts) {
        if (text == known.text) {
            return known.number;
        }
    }
    return 0;
}

LoadError::LoadError(Kind kind, const std::string& file, const std::string& reason)
    : std::runtime_error(Describe(kind, file, reason)),
      m_eKind(kind),
      m_strFile(file),
      m_strReason(reason) {}

}  // namespace kr7host
