// Loads the scanner API stand-in the way a host does (dlopen, dlsym) with a
// fresh environment, so that every test sees a newly configured library.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "scanner/ftrscan.h"

namespace scantest {

using Env = std::map<std::string, std::string>;
using Frame = std::vector<uint8_t>;

#define KR7_SCAN_ENTRIES(X)                                                                      \
    X(ftrScanOpenDevice)                                                                         \
    X(ftrScanCloseDevice)                                                                        \
    X(ftrScanSetOptions)                                                                         \
    X(ftrScanGetOptions) X(ftrScanGetImageSize) X(ftrScanGetFrame) X(ftrScanGetBacklightImage)   \
        X(ftrScanGetDarkImage) X(ftrScanGetImage) X(ftrScanIsFingerPresent) X(ftrScanSave7Bytes) \
            X(ftrScanRestore7ControlBytes) X(ftrScanGetDiodesStatus) X(ftrScanSetDiodesStatus)   \
                X(ftrScanGetInterfaces) X(ftrSetBaseInterface) X(ftrGetBaseInterfaceNumber)      \
                    X(ftrScanSaveSerialNumber) X(ftrScanGetImageByVariableDose)                  \
                        X(ftrScanGetImage2) X(ftrScanGetLastError) X(ftrScanSetLastError)        \
                            X(ftrScanGetExtMemorySize) X(ftrScanSaveExtMemory)                   \
                                X(ftrScanRestoreExtMemory) X(ftrScanGetSerialNumber)             \
                                    X(ftrScanGetVersion)

struct Scanner {
    explicit Scanner(const Env& env = {}, const char* path = KR7_SCANNER_PATH) {
        for (const char* name : {"KR7SIM_SEED", "KR7SIM_UNITS", "KR7SIM_SCENARIO",
                                 "KR7SIM_REALTIME", "KR7SIM_FAULTS", "KR7SIM_JOURNAL"})
            unsetenv(name);
        for (const auto& [key, value] : env)
            setenv(key.c_str(), value.c_str(), 1);
        lib = dlopen(path, RTLD_NOW | RTLD_LOCAL);
        if (lib == nullptr)
            ADD_FAILURE() << dlerror();
#define KR7_RESOLVE(name) \
    name = lib ? reinterpret_cast<decltype(&::name)>(dlsym(lib, #name)) : nullptr;
        KR7_SCAN_ENTRIES(KR7_RESOLVE)
#undef KR7_RESOLVE
    }
    ~Scanner() {
        if (lib != nullptr)
            dlclose(lib);
    }
    Scanner(const Scanner&) = delete;
    Scanner& operator=(const Scanner&) = delete;

    // Opens the device on the base interface; fails the test if it cannot.
    FTRHANDLE Open() {
        FTRHANDLE h = ftrScanOpenDevice();
        EXPECT_NE(h, nullptr) << "error " << ftrScanGetLastError();
        if (h != nullptr)
            frame_bytes = size_t(Size(h).nImageSize);
        return h;
    }
    FTRSCAN_IMAGE_SIZE Size(FTRHANDLE h) {
        FTRSCAN_IMAGE_SIZE size{0, 0, 0};
        EXPECT_TRUE(ftrScanGetImageSize(h, &size));
        return size;
    }
    // Result code of one GetFrame: 0 or the last error. Frames have the size
    // of the last successful Open, so that no other call comes between.
    uint32_t Grab(FTRHANDLE h, Frame& frame) {
        frame.resize(frame_bytes);
        return ftrScanGetFrame(h, frame.data(), nullptr) ? 0 : ftrScanGetLastError();
    }
    uint32_t ByDose(FTRHANDLE h, int dose, Frame& frame) {
        frame.resize(frame_bytes);
        return ftrScanGetImageByVariableDose(h, dose, frame.data()) ? 0 : ftrScanGetLastError();
    }
    std::vector<uint8_t> ExtMemory(FTRHANDLE h) {
        int size = 0;
        EXPECT_TRUE(ftrScanGetExtMemorySize(h, &size));
        std::vector<uint8_t> bytes(size_t(size > 0 ? size : 0));
        EXPECT_TRUE(ftrScanRestoreExtMemory(h, bytes.data(), 0, size));
        return bytes;
    }

    void* lib = nullptr;
    size_t frame_bytes = 0;
#define KR7_DECLARE(name) decltype(&::name) name = nullptr;
    KR7_SCAN_ENTRIES(KR7_DECLARE)
#undef KR7_DECLARE
};

// Runs `body` with standard error going to a file; returns what was written.
template <class F>
std::string CaptureStderr(F&& body) {
    char path[] = "/tmp/kr7scan_stderr_XXXXXX";
    const int fd = mkstemp(path);
    std::fflush(stderr);
    const int saved = dup(2);
    dup2(fd, 2);
    body();
    std::fflush(stderr);
    dup2(saved, 2);
    close(saved);
    close(fd);
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    unlink(path);
    return text.str();
}

inline std::string ReadText(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// A fresh temporary folder, removed with its files at the end of the scope.
struct TempDir {
    TempDir() {
        char templ[] = "/tmp/kr7scan_XXXXXX";
        path = mkdtemp(templ);
    }
    ~TempDir() {
        if (!path.empty())
            std::system(("rm -rf '" + path + "'").c_str());
    }
    std::string Write(const std::string& name, const std::string& content) const {
        const std::string file = path + "/" + name;
        std::ofstream(file, std::ios::binary) << content;
        return file;
    }
    std::string path;
};

// The plug-in's view of a raw frame: rows turned upside down and inverted.
inline Frame FlipInvert(const Frame& raw, int width, int height) {
    Frame out(raw.size());
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            out[size_t(y) * width + x] = uint8_t(255 - raw[size_t(height - 1 - y) * width + x]);
    return out;
}

inline double Mean(const Frame& f) {
    double sum = 0;
    for (uint8_t v : f)
        sum += v;
    return f.empty() ? 0 : sum / double(f.size());
}

}  // namespace scantest
