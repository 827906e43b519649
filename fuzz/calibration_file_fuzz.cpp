// A calibration file as the device layer reads it from disk: the input is
// written to a scratch file whose path goes to CXCalibration. The file reader
// hands the bytes after the file header to the calibration library, so the
// library must be there: our stand-in is loaded by full path at start-up, and
// the device layer's dlopen of the bare name then finds it.
//
// The file must be accepted exactly when the library accepts the bytes after
// the 100-byte header; shorter files are refused as corrupt.
#include <dlfcn.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "base/errors.h"
#include "device/calibration_binding.h"
#include "fuzz_support.h"

using kr7fuzz::Check;

namespace {

std::string g_path;
decltype(&::CalibrateCreate) g_create = nullptr;
decltype(&::CalibrateSetData) g_setData = nullptr;
decltype(&::CalibrateDelete) g_delete = nullptr;

// What the library itself says of the data.
bool LibraryAccepts(const std::uint8_t* data, std::size_t size) {
    void* handle = g_create();
    Check(handle != nullptr);
    const bool accepted = g_setData(handle, data, static_cast<unsigned int>(size)) == 0;
    g_delete(&handle);
    return accepted;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    void* library = dlopen(KR7_CALIBRATE_SDK_PATH, RTLD_NOW | RTLD_GLOBAL);
    if (library == nullptr) {
        std::fprintf(stderr, "calibration_file_fuzz: %s\n", dlerror());
        std::exit(1);
    }
    g_create = reinterpret_cast<decltype(g_create)>(dlsym(library, "CalibrateCreate"));
    g_setData = reinterpret_cast<decltype(g_setData)>(dlsym(library, "CalibrateSetData"));
    g_delete = reinterpret_cast<decltype(g_delete)>(dlsym(library, "CalibrateDelete"));
    Check(g_create && g_setData && g_delete);

    g_path = kr7fuzz::ScratchPath("calibration_fuzz") + ".bin";
    std::atexit([] { std::remove(g_path.c_str()); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kr7fuzz::WriteFile(g_path, data, size);
    int error = 0;
    try {
        vc::ClNorvakKR7SDK::CXCalibration calibration(g_path.c_str());
        Check(calibration.Revision().empty());
    } catch (const vc::ClVCException& e) {
        error = e.GetErrorNumber();
        Check(error != 0);
    }
    if (size < 100) {
        Check(error == vc::FGERR_CALIBRATION_CORRUPT);
    } else {
        Check((error == 0) == LibraryAccepts(data + 100, size - 100));
    }
    return 0;
}
