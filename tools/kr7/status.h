// How kr7 ends: its exit statuses and the failure that carries one.
#pragma once

#include <stdexcept>
#include <string>

#include "kr7host/error.h"

namespace kr7 {

enum Status : int {
    kSuccess = 0,
    kPluginError = 1,  // the plug-in reported an error, or a file could not be written
    kBadUsage = 2,
    kLoadError = 3,  // the plug-in or one of the scanner's libraries could not be loaded
    kInterrupted = 130,
};

// Why kr7 stops, with the status to exit with. The message is printed as it
// is, behind "kr7: ".
class Failure : public std::runtime_error {
public:
    Failure(int status, const std::string& message)
        : std::runtime_error(message), m_nStatus(status) {}
    int Status() const { return m_nStatus; }

private:
    int m_nStatus;
};

// What kr7 says of a failed call of the plug-in: kLoadError with a hint when
// the plug-in could not load a scanner library, else kPluginError.
Failure FromPlugin(const kr7host::Error& error, bool virtualScanner);

// How much kr7 prints.
struct Output {
    bool json = false;
    bool quiet = false;
    bool Human() const { return !json && !quiet; }
};

}  // namespace kr7
