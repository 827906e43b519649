// How the facade turns an exception into the (number, text) pair it keeps as
// the last error and reports to the host.
#pragma once

#include <string>

#include "base/errors.h"

namespace vc {

// The (number, text) pair a caught exception becomes.
struct FGError {
    int number = 0;
    std::string text;
};

// Which handlers a guarded call runs: all three, or only the family and
// standard handlers (the list copies never raise ClVCException, so there a
// ClVCException is treated like any other family member).
enum class eHandlers { All, FamilyAndStd };

// Translation of the exception currently being handled, for use inside a
// catch block; rethrows anything that is not a std::exception.
FGError TranslateCurrentException(eHandlers handlers = eHandlers::All);

// Runs `call`; returns true when it completed, otherwise stores the
// translated error in `error` and returns false. Objects outside the
// standard exception family are not caught.
template <class Call>
bool GuardedCall(Call&& call, FGError& error, eHandlers handlers = eHandlers::All) {
    try {
        call();
        return true;
    } catch (const std::exception&) {
        error = TranslateCurrentException(handlers);
        return false;
    }
}

}  // namespace vc
