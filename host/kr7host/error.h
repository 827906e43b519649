// Failures as a host of the plug-in meets them, as exceptions.
#pragma once

#include <stdexcept>
#include <string>

namespace kr7host {

// A call of the plug-in failed. what() reads
//   "GetImage failed: error 31 (0x1000001f): The scanner is disconnected."
class Error : public std::runtime_error {
public:
    // `result` is what the call returned; `text` the plug-in's last error.
    Error(const std::string& operation, unsigned int result, const std::string& text);

    const std::string& Operation() const { return m_strOperation; }
    // As the call returned it, FGERR_FLAG included when the plug-in set it.
    unsigned int Result() const { return m_nResult; }
    // The error number, without FGERR_FLAG.
    unsigned int Number() const;
    const std::string& Text() const { return m_strText; }
    // The plug-in could not load one of the scanner's libraries, or found a
    // symbol missing in one: the text is the loader's and names the file.
    bool LibraryMissing() const;

private:
    std::string m_strOperation;
    unsigned int m_nResult;
    std::string m_strText;
};

// The error number behind one of the plug-in's fixed error texts ("The
// scanner is disconnected." is 31, vc::FGERR_DISCONNECTED), for a failure
// the plug-in reports by text alone, as its capture's error callback does;
// 0 for any other text (a scanner's own failure, "Capture frame failed.",
// carries the scanner's number, which the text does not tell).
unsigned int ErrorNumberOf(const std::string& text);

// A file could not be loaded: the plug-in itself, a file that is no
// frame-grabber plug-in, or one of the virtual scanner's libraries.
class LoadError : public std::runtime_error {
public:
    enum class Kind { Plugin, NotAPlugin, VirtualScanner };

    LoadError(Kind kind, const std::string& file, const std::string& reason);

    Kind What() const { return m_eKind; }
    const std::string& File() const { return m_strFile; }
    // The dynamic loader's reason.
    const std::string& Reason() const { return m_strReason; }

private:
    Kind m_eKind;
    std::string m_strFile;
    std::string m_strReason;
};

}  // namespace kr7host
