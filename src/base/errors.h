// Exception family of the plug-in and the rule that turns an exception into
// the (number, text) pair reported to the host.
#pragma once

#include <cstddef>
#include <exception>
#include <string>

#include "base/framegrabber.h"

namespace Nvk {

// Root of every exception the plug-in raises itself.
class ClNorvakException : public std::exception {
public:
    ~ClNorvakException() override = default;
    virtual const char* What() const noexcept = 0;
};

class CXException : public ClNorvakException {
public:
    ~CXException() override = default;
    const char* what() const noexcept override { return GetDescription(); }
    const char* What() const noexcept override { return GetDescription(); }
    virtual const char* GetDescription() const = 0;
};

// A failed system call; the description is the system's message for errno.
class CXSystemException : public CXException {
public:
    explicit CXSystemException(int errorNumber) : m_nErrorNumber(errorNumber) {}
    const char* GetDescription() const override;
    virtual int GetErrorNumber() const { return m_nErrorNumber; }

private:
    int m_nErrorNumber;
};

class CXMemoryAllocException : public CXException {
public:
    const char* GetDescription() const override { return "memory allocation failed"; }
};

// Text plus number, for loader and calibration-header failures. At most
// kTextSize characters of the text are kept; a longer text is cut there, and
// the array has room for the terminating zero after a text of full length.
class CXOtherException : public CXException {
public:
    static constexpr std::size_t kTextSize = 1024;

    CXOtherException(const char* text, int errorNumber);
    const char* GetDescription() const override { return m_szText; }
    virtual int GetErrorNumber() const { return m_nErrorNumber; }

private:
    char m_szText[kTextSize + 1];
    int m_nErrorNumber;
};

class ClHeaderFormatException : public CXOtherException {
public:
    ClHeaderFormatException() : CXOtherException("The header version is wrong.", -1) {}
};

class ClCHeaderDesrcTooLongException : public CXOtherException {
public:
    ClCHeaderDesrcTooLongException() : CXOtherException("The description is too long.", -1) {}
};

// Error numbers of CXOtherException.
constexpr int kErrLibraryLoad = -201;
constexpr int kErrSymbolResolve = -202;
constexpr int kErrCalibrationHeader = -1;

}  // namespace Nvk

namespace vc {

// A reportable error: an exact text and the number the host sees.
class ClVCException : public Nvk::CXException {
public:
    ClVCException(std::string text, int errorNumber)
        : m_strText(std::move(text)), m_nErrorNumber(errorNumber) {}
    // A null text is stored as an empty one.
    ClVCException(const char* text, int errorNumber)
        : m_strText(text ? text : ""), m_nErrorNumber(errorNumber) {}
    const char* GetDescription() const override { return m_strText.c_str(); }
    int GetErrorNumber() const { return m_nErrorNumber; }

private:
    std::string m_strText;
    int m_nErrorNumber;
};

// Reported through the warning callback; capture goes on.
class ClVCWarning : public ClVCException {
public:
    using ClVCException::ClVCException;
};

// The connected scanner's hardware is not supported.
class ClQV2NOTImplException : public ClVCException {
public:
    using ClVCException::ClVCException;
};

// The exact texts of the error numbers the host receives (eFGErrors in the
// public header).
namespace err {
constexpr const char* kCameraUnknownText =
    "The camera ID is unknown or is not supported by frame grabber";
constexpr const char* kBadChannelText = "Incorrect channel number for frame grabber";
constexpr const char* kBadColorModeText = "The frame grabber does not support this color mode";
constexpr const char* kBadDetectionText =
    "The detection ID bad or frame grabber does not support this detection";
constexpr const char* kBadFilterText = "The filter ID bad or framegrabber does not support";
constexpr const char* kBadPropertyText = "Incorrect property or frame grabber does not support";
constexpr const char* kMoreDataText = "More data are available";
constexpr const char* kReadOnlyPropertyText = "The property is read only";
constexpr const char* kFilterNotApplicableText = "The filter can not be applied";
constexpr const char* kHardwareNotSupportedText =
    "The QV2-scanner hardware version is not supported";
constexpr const char* kBadAspectRatioText = "The aspect ratio is incorrect. It can be set 1.. ";
constexpr const char* kBadDeviceIndexText =
    "The device index out of range or is not supported by frame grabber";
constexpr const char* kDisconnectedText = "The scanner is disconnected.";
constexpr const char* kCalibrationCorruptText = "The calibration data is corrupt.";
constexpr const char* kApiVersionText = "The QV2 API version isn't more supported";
constexpr const char* kNoStorageText = "Not enough storage is available to complete this operation";
}  // namespace err

}  // namespace vc
