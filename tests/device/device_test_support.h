// Helpers shared by the device-layer tests.
#pragma once

#include <string>

#include "base/errors.h"

namespace kr7test {

// "number: text" of what `call` throws, "system error" for a failed system
// call, empty when it throws nothing.
template <class Call>
std::string Thrown(Call&& call) {
    try {
        call();
    } catch (const vc::ClVCException& e) {
        return std::to_string(e.GetErrorNumber()) + ": " + e.GetDescription();
    } catch (const Nvk::CXOtherException& e) {
        return std::to_string(e.GetErrorNumber()) + ": " + e.GetDescription();
    } catch (const Nvk::CXSystemException&) {
        return "system error";
    }
    return "";
}

}  // namespace kr7test
