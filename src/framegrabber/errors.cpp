#include "framegrabber/errors.h"

#include <cstring>

namespace Nvk {

const char* CXSystemException::GetDescription() const {
    return std::strerror(m_nErrorNumber);
}

CXOtherException::CXOtherException(const char* text, int errorNumber)
    : m_nErrorNumber(errorNumber) {
    // strncpy pads with zeros and leaves no terminator when the text fills
    // the whole buffer; m_cGuard stops readers in that case.
    std::strncpy(m_szText, text ? text : "", kTextSize);
}

}  // namespace Nvk

namespace vc {

namespace {
std::string TextOrEmpty(const char* text) {
    return text ? std::string(text) : std::string();
}
}  // namespace

FGError TranslateCurrentException(eHandlers handlers) {
    try {
        throw;
    } catch (const ClVCException& e) {
        if (handlers == eHandlers::All) {
            return {e.GetErrorNumber(), TextOrEmpty(e.GetDescription())};
        }
        return {err::kOther, TextOrEmpty(e.What())};
    } catch (const Nvk::ClNorvakException& e) {
        return {err::kOther, TextOrEmpty(e.What())};
    } catch (const std::exception& e) {
        return {err::kOther, TextOrEmpty(e.what())};
    }
}

}  // namespace vc
