#include "base/errors.h"

#include <cstring>

namespace Nvk {

const char* CXSystemException::GetDescription() const {
    return std::strerror(m_nErrorNumber);
}

CXOtherException::CXOtherException(const char* text, int errorNumber)
    : m_nErrorNumber(errorNumber) {
    std::strncpy(m_szText, text ? text : "", kTextSize);
    m_szText[kTextSize] = '\0';
}

}  // namespace Nvk
