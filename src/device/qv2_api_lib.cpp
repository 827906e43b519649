#include "device/qv2_api_lib.h"

#include "base/errors.h"

// The base group in the order the table is resolved. A library that lacks
// any of them is not a usable scanner API.
// clang-format off
#define KR7_QV2_BASE_ENTRIES(X)                                                              \
    X(ftrScanOpenDevice) X(ftrScanCloseDevice) X(ftrScanSetOptions) X(ftrScanGetOptions)     \
    X(ftrScanGetImageSize) X(ftrScanGetFrame) X(ftrScanGetBacklightImage)                    \
    X(ftrScanGetDarkImage) X(ftrScanGetImage) X(ftrScanIsFingerPresent) X(ftrScanSave7Bytes) \
    X(ftrScanRestore7ControlBytes) X(ftrScanGetDiodesStatus) X(ftrScanSetDiodesStatus)       \
    X(ftrScanGetInterfaces) X(ftrSetBaseInterface) X(ftrGetBaseInterfaceNumber)              \
    X(ftrScanSaveSerialNumber) X(ftrScanGetImageByVariableDose) X(ftrScanGetImage2)          \
    X(ftrScanGetLastError) X(ftrScanSetLastError)

#define KR7_QV2_EXTENDED_ENTRIES(X)                                                     \
    X(ftrScanGetExtMemorySize) X(ftrScanSaveExtMemory) X(ftrScanRestoreExtMemory)      \
    X(ftrScanGetSerialNumber) X(ftrScanGetVersion)
// clang-format on

namespace vc {

namespace {

// Looks `name` up and stores it in `entry`; throws as GetSymbol does.
template <class Fn>
void Resolve(Nvk::CXDynamicLibrary& library, Fn& entry, const char* name) {
    entry = reinterpret_cast<Fn>(library.GetSymbol(name));
}

}  // namespace

ClQV2APILib::ClQV2APILib() {
    try {
        Initialize();
    } catch (...) {
        Close();
        throw;
    }
}

ClQV2APILib::~ClQV2APILib() {
    Close();
}

void ClQV2APILib::Initialize() {
    // Entries of a library loaded before point into code that Open unloads.
#define KR7_QV2_CLEAR(name) name = nullptr;
    KR7_QV2_BASE_ENTRIES(KR7_QV2_CLEAR)
    KR7_QV2_EXTENDED_ENTRIES(KR7_QV2_CLEAR)
#undef KR7_QV2_CLEAR
    m_nExtendedLevel = 0;

    Open("libQV2ScanAPI.so");

#define KR7_QV2_RESOLVE(name) Resolve(*this, name, #name);
    KR7_QV2_BASE_ENTRIES(KR7_QV2_RESOLVE)
#undef KR7_QV2_RESOLVE

    // Older libraries stop somewhere in the extended group; then only the
    // base API is used, although the entries found before the gap stay set.
    try {
        Resolve(*this, ftrScanGetExtMemorySize, "ftrScanGetExtMemorySize");
        Resolve(*this, ftrScanSaveExtMemory, "ftrScanSaveExtMemory");
        Resolve(*this, ftrScanRestoreExtMemory, "ftrScanRestoreExtMemory");
        Resolve(*this, ftrScanGetSerialNumber, "ftrScanGetSerialNumber");
        decltype(ftrScanGetVersion) getVersion = nullptr;
        Resolve(*this, getVersion, "ftrScanGetVersion");
        ftrScanGetVersion = getVersion;
        m_nExtendedLevel = 1;
    } catch (const Nvk::CXOtherException&) {
    }
}

}  // namespace vc
