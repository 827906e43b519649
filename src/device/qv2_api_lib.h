// The scanner API, libQV2ScanAPI.so, loaded at run time: its entry points
// resolved by name into a table. The base group must be complete; the
// extended group (memory, serial number, versions) counts only as a whole.
#pragma once

#include <cstdint>

#include "closed/ftrscan.h"
#include "util/dynamic_library.h"

namespace vc {

class ClQV2APILib : public Nvk::CXDynamicLibrary {
public:
    // Loads the library (see Initialize); throws as Initialize does.
    ClQV2APILib();
    ~ClQV2APILib() override;

    // Opens libQV2ScanAPI.so by its bare name, closing a library already
    // held, and resolves the 22 base entries in table order: a failing open
    // throws CXOtherException kErrLibraryLoad, a missing base entry
    // kErrSymbolResolve, each with the loader's text. Then the five extended
    // entries: only when all five resolve is ftrScanGetVersion stored and
    // the level set to 1; a missing one is swallowed, leaving the entries
    // resolved before it.
    void Initialize();

    // 0: base API only; 1: the extended group as well.
    std::uint8_t m_nExtendedLevel = 0;

    // Base group, in resolution order.
    decltype(&::ftrScanOpenDevice) ftrScanOpenDevice = nullptr;
    decltype(&::ftrScanCloseDevice) ftrScanCloseDevice = nullptr;
    decltype(&::ftrScanSetOptions) ftrScanSetOptions = nullptr;
    decltype(&::ftrScanGetOptions) ftrScanGetOptions = nullptr;
    decltype(&::ftrScanGetImageSize) ftrScanGetImageSize = nullptr;
    decltype(&::ftrScanGetFrame) ftrScanGetFrame = nullptr;
    decltype(&::ftrScanGetBacklightImage) ftrScanGetBacklightImage = nullptr;
    decltype(&::ftrScanGetDarkImage) ftrScanGetDarkImage = nullptr;
    decltype(&::ftrScanGetImage) ftrScanGetImage = nullptr;  // resolved, never called
    decltype(&::ftrScanIsFingerPresent) ftrScanIsFingerPresent = nullptr;
    decltype(&::ftrScanSave7Bytes) ftrScanSave7Bytes = nullptr;
    decltype(&::ftrScanRestore7ControlBytes) ftrScanRestore7ControlBytes = nullptr;
    decltype(&::ftrScanGetDiodesStatus) ftrScanGetDiodesStatus = nullptr;  // never called
    decltype(&::ftrScanSetDiodesStatus) ftrScanSetDiodesStatus = nullptr;
    decltype(&::ftrScanGetInterfaces) ftrScanGetInterfaces = nullptr;
    decltype(&::ftrSetBaseInterface) ftrSetBaseInterface = nullptr;
    decltype(&::ftrGetBaseInterfaceNumber) ftrGetBaseInterfaceNumber = nullptr;
    decltype(&::ftrScanSaveSerialNumber) ftrScanSaveSerialNumber = nullptr;
    decltype(&::ftrScanGetImageByVariableDose) ftrScanGetImageByVariableDose = nullptr;
    decltype(&::ftrScanGetImage2) ftrScanGetImage2 = nullptr;  // resolved, never called
    decltype(&::ftrScanGetLastError) ftrScanGetLastError = nullptr;
    decltype(&::ftrScanSetLastError) ftrScanSetLastError = nullptr;

    // Extended group.
    decltype(&::ftrScanGetExtMemorySize) ftrScanGetExtMemorySize = nullptr;
    decltype(&::ftrScanSaveExtMemory) ftrScanSaveExtMemory = nullptr;
    decltype(&::ftrScanRestoreExtMemory) ftrScanRestoreExtMemory = nullptr;
    decltype(&::ftrScanGetSerialNumber) ftrScanGetSerialNumber = nullptr;
    decltype(&::ftrScanGetVersion) ftrScanGetVersion = nullptr;
};

}  // namespace vc
