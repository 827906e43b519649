// The calibration library, libnorvakcalibratesdk.so, loaded at run time:
// its entry points, one calibration instance inside it, and the object the
// device SDK holds to correct frames with the unit's calibration data.
//
// No lock of its own: the device SDK calls it from one thread at a time.
#pragma once

#include <string>

#include "closed/norvakcalibratesdk.h"
#include "device/norvak_kr7_sdk.h"
#include "image/bitmap_info.h"
#include "util/dynamic_library.h"

namespace vc {

class ClNorvakKR7SDK::CXCalDynamicLib : public Nvk::CXDynamicLibrary {
public:
    // Loads the library; throws CXOtherException kErrLibraryLoad or
    // kErrSymbolResolve with the loader's text, the library closed again.
    CXCalDynamicLib();
    ~CXCalDynamicLib() override;

    void Initialize();

    decltype(&::CalibrateCreate) create = nullptr;
    decltype(&::Calibrate) calibrate = nullptr;
    decltype(&::CalibrateDelete) destroy = nullptr;
    decltype(&::CalibrateSetData) setData = nullptr;
    decltype(&::CalibrateGetErrorDescription) errorText = nullptr;
    decltype(&::ContaminationDetection) contamination = nullptr;
};

// One calibration instance; never null once constructed.
class ClNorvakKR7SDK::CXCalibrationHandle {
public:
    // Throws std::bad_alloc when the library gives no instance.
    explicit CXCalibrationHandle(CXCalDynamicLib& library);
    ~CXCalibrationHandle();
    CXCalibrationHandle(const CXCalibrationHandle&) = delete;
    CXCalibrationHandle& operator=(const CXCalibrationHandle&) = delete;

    void* Get() const { return m_pHandle; }

private:
    CXCalDynamicLib& m_rLibrary;
    void* m_pHandle = nullptr;
};

class ClNorvakKR7SDK::CXCalibration {
public:
    // Calibration data from the calibration block in the scanner's extended
    // memory. Throws ClVCException for an unreadable memory size, a corrupt
    // block (37) or data the library refuses; ClHeaderFormatException for a
    // block of another version.
    explicit CXCalibration(ClFutronicBaseSDK& scanner);
    // Calibration data from a file whose first 100 bytes are skipped. A file
    // shorter than that is refused as corrupt (37).
    explicit CXCalibration(const char* path);
    ~CXCalibration();
    CXCalibration(const CXCalibration&) = delete;
    CXCalibration& operator=(const CXCalibration&) = delete;

    // Corrects one packed 8-bit image into `output` (capacity in
    // `*outputSize` on entry, bytes written on return).
    void CalibrateBitmap(tagBITMAPINFOHEADER* input, unsigned int inputSize,
                         tagBITMAPINFOHEADER* output, unsigned int* outputSize);
    // Bytes of the corrected image of an input of this format; never 0.
    unsigned int ResultImageSize(tagBITMAPINFOHEADER* input, unsigned int inputSize);
    // The library's contamination measure of a raw-format image.
    double ContaminationDetection(tagBITMAPINFOHEADER* image);
    // Throws ClVCException with the library's text for a non-zero code.
    void CheckCalibrateError(long code);

    // The 16 bytes of the block's revision field; empty for file data.
    const std::string& Revision() const { return m_strRevision; }

private:
    std::string m_strRevision;
    std::unique_ptr<CXCalDynamicLib> m_pLibrary;
    std::unique_ptr<CXCalibrationHandle> m_pHandle;
};

}  // namespace vc
