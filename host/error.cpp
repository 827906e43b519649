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

LoadError::LoadError(Kind kind, const std::string& file, const std::string& reason)
    : std::runtime_error(Describe(kind, file, reason)),
      m_eKind(kind),
      m_strFile(file),
      m_strReason(reason) {}

}  // namespace kr7host
