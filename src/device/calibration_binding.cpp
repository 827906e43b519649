#include "device/calibration_binding.h"

#include <new>
#include <vector>

#include "base/errors.h"
#include "calibration/calibration_header.h"
#include "calibration/read_binary.h"
#include "image/simple_bitmap.h"
#include "util/logging_client.h"

namespace vc {

using Nvk::utilities::Log;

namespace {
// The header of a calibration file, skipped unread.
constexpr std::size_t kFileHeaderSize = 100;
}  // namespace

// ---- the library ------------------------------------------------------------

ClNorvakKR7SDK::CXCalDynamicLib::CXCalDynamicLib() {
    try {
        Initialize();
    } catch (...) {
        Close();
        throw;
    }
}

ClNorvakKR7SDK::CXCalDynamicLib::~CXCalDynamicLib() {
    Close();
}

void ClNorvakKR7SDK::CXCalDynamicLib::Initialize() {
    Log(7, "QV2 scanner. Load NorvakCalibrateSDK.dll");
    Open("libnorvakcalibratesdk.so");
    create = reinterpret_cast<decltype(create)>(GetSymbol("CalibrateCreate"));
    calibrate = reinterpret_cast<decltype(calibrate)>(GetSymbol("Calibrate"));
    destroy = reinterpret_cast<decltype(destroy)>(GetSymbol("CalibrateDelete"));
    setData = reinterpret_cast<decltype(setData)>(GetSymbol("CalibrateSetData"));
    errorText = reinterpret_cast<decltype(errorText)>(GetSymbol("CalibrateGetErrorDescription"));
    contamination = reinterpret_cast<decltype(contamination)>(GetSymbol("ContaminationDetection"));
}

// ---- one instance -----------------------------------------------------------

ClNorvakKR7SDK::CXCalibrationHandle::CXCalibrationHandle(CXCalDynamicLib& library)
    : m_rLibrary(library), m_pHandle(library.create()) {
    if (m_pHandle == nullptr) {
        throw std::bad_alloc();
    }
}

ClNorvakKR7SDK::CXCalibrationHandle::~CXCalibrationHandle() {
    if (m_pHandle != nullptr) {
        m_rLibrary.destroy(&m_pHandle);
    }
}

// ---- calibration ------------------------------------------------------------

ClNorvakKR7SDK::CXCalibration::CXCalibration(ClFutronicBaseSDK& scanner)
    : m_pLibrary(new CXCalDynamicLib()) {
    Log(7, "Reading of the calibration data from QV2 scanner.");
    std::unique_ptr<CXCalibrationHandle> handle(new CXCalibrationHandle(*m_pLibrary));

    Nvk::ClQV2CalibrationHeader header;
    int memorySize = 0;
    if (!scanner.GetEPROMSize(&memorySize)) {
        const unsigned long code = scanner.GetLastError();
        Log(3, "Reading of the QV2 scanner memory failed. Error number: 0x%x",
            static_cast<unsigned int>(code));
        throw ClVCException("Read the scanner memory size failed.", static_cast<int>(code));
    }
    unsigned char* data = nullptr;
    unsigned int dataSize = 0;
    header.ReadFromStream(&scanner, static_cast<unsigned int>(memorySize < 0 ? 0 : memorySize),
                          &data, dataSize);
    m_strRevision = header.RevisionString();
    if (data == nullptr || dataSize == 0) {
        Log(3, "The calibration data is corrupt.");
        throw ClVCException(err::kCalibrationCorruptText, vc::FGERR_CALIBRATION_CORRUPT);
    }
    CheckCalibrateError(m_pLibrary->setData(handle->Get(), data, dataSize));
    m_pHandle = std::move(handle);
}

ClNorvakKR7SDK::CXCalibration::CXCalibration(const char* path) : m_pLibrary(new CXCalDynamicLib()) {
    std::unique_ptr<CXCalibrationHandle> handle(new CXCalibrationHandle(*m_pLibrary));
    std::vector<unsigned char> file;
    Nvk::file::ReadBinary(path, file);
    // A file without its whole header holds no data block at all.
    if (file.size() < kFileHeaderSize) {
        throw ClVCException(err::kCalibrationCorruptText, vc::FGERR_CALIBRATION_CORRUPT);
    }
    CheckCalibrateError(
        m_pLibrary->setData(handle->Get(), file.data() + kFileHeaderSize,
                            static_cast<unsigned int>(file.size() - kFileHeaderSize)));
    m_pHandle = std::move(handle);
}

ClNorvakKR7SDK::CXCalibration::~CXCalibration() {
    m_pHandle.reset();
    m_pLibrary.reset();
}

void ClNorvakKR7SDK::CXCalibration::CalibrateBitmap(tagBITMAPINFOHEADER* input,
                                                    unsigned int inputSize,
                                                    tagBITMAPINFOHEADER* output,
                                                    unsigned int* outputSize) {
    Log(7, "QV2 scanner. Calibrate, a image size: %d", inputSize);
    CheckCalibrateError(
        m_pLibrary->calibrate(m_pHandle->Get(), input, inputSize, output, outputSize));
}

unsigned int ClNorvakKR7SDK::CXCalibration::ResultImageSize(tagBITMAPINFOHEADER* input,
                                                            unsigned int inputSize) {
    unsigned int outSize = 0;
    const int32_t code =
        m_pLibrary->calibrate(m_pHandle->Get(), input, inputSize, nullptr, &outSize);
    if (code != 0 && code != NVK_CAL_OUTPUT_SIZE) {
        CheckCalibrateError(code);
    }
    if (outSize == 0) {
        Log(3, "QV2 scanner. The calibrate methode returns bitmap size zero.");
        throw ClVCException("The Calibrate methode return the output bitmap size 0", -1);
    }
    return outSize;
}

double ClNorvakKR7SDK::CXCalibration::ContaminationDetection(tagBITMAPINFOHEADER* image) {
    double result = 0.0;
    const long size = Nvk::utilities::ClSimpleBitmap::FullSize(image);
    CheckCalibrateError(m_pLibrary->contamination(
        m_pHandle->Get(), image, static_cast<unsigned int>(size < 0 ? 0 : size), &result));
    return result;
}

void ClNorvakKR7SDK::CXCalibration::CheckCalibrateError(long code) {
    if (code == 0) {
        return;
    }
    const char* text = m_pLibrary->errorText(static_cast<int32_t>(code));
    Log(3, "QV2 scanner. Calibration error. Number: 0x%x, Description: %s ",
        static_cast<unsigned int>(code), text ? text : "");
    throw ClVCException(text, static_cast<int>(code));
}

}  // namespace vc
