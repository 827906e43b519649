#include "framegrabber/error_translation.h"

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
        return {vc::FGERR_FAILED, TextOrEmpty(e.What())};
    } catch (const Nvk::ClNorvakException& e) {
        return {vc::FGERR_FAILED, TextOrEmpty(e.What())};
    } catch (const std::exception& e) {
        return {vc::FGERR_FAILED, TextOrEmpty(e.what())};
    }
}

}  // namespace vc
