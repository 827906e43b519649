#include "plugin.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>

namespace kr7 {

namespace {

bool IsFolder(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool IsFile(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

std::string LoaderError() {
    const char* text = dlerror();
    return text != nullptr ? text : "unknown reason";
}

// The folder of the running program.
std::string ProgramFolder() {
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0) {
        return "";
    }
    const std::string self(path, static_cast<std::size_t>(length));
    return self.substr(0, self.rfind('/'));
}

// The usual plug-in: with the virtual scanner, when kr7 runs from the build
// tree, the plug-in built beside it; otherwise the installed one, which the
// loader finds.
std::string DefaultPlugin(bool virtualScanner) {
#if defined(KR7_BUILD_PLUGIN) && defined(KR7_BUILD_TOOL_DIR)
    if (virtualScanner && ProgramFolder() == KR7_BUILD_TOOL_DIR && IsFile(KR7_BUILD_PLUGIN)) {
        return KR7_BUILD_PLUGIN;
    }
#else
    (void)virtualScanner;
#endif
    return "libnorvakkr7fg.so.1";
}

}  // namespace

const char* const kScannerLibraries[3] = {"libnorvaklf.so", "libnorvakcalibratesdk.so",
                                          "libQV2ScanAPI.so"};

std::string VirtualScannerFolder() {
    const char* folder = std::getenv("KR7_SIM_DIR");
    if (folder != nullptr && *folder != '\0') {
        return folder;
    }
#ifdef KR7_INSTALL_SIM_FROM_BIN
    // An installed kr7 takes the stand-ins installed with it, wherever the
    // installation sits.
    const std::string program = ProgramFolder();
    if (!program.empty()) {
        char* beside = realpath((program + "/" + KR7_INSTALL_SIM_FROM_BIN).c_str(), nullptr);
        const std::string folder = beside != nullptr ? beside : "";
        std::free(beside);
        if (!folder.empty() && IsFolder(folder)) {
            return folder;
        }
    }
#endif
#ifdef KR7_INSTALL_SIM_DIR
    if (IsFolder(KR7_INSTALL_SIM_DIR)) {
        return KR7_INSTALL_SIM_DIR;
    }
#endif
#ifdef KR7_BUILD_SIM_DIR
    return KR7_BUILD_SIM_DIR;
#else
    return ".";
#endif
}

Plugin::Plugin(const LoadOptions& options)
    : m_bVirtual(options.virtualScanner),
      m_strFile(options.plugin.empty() ? DefaultPlugin(options.virtualScanner) : options.plugin) {
    try {
        if (m_bVirtual) {
            // Loaded by full path and globally before the plug-in: when it
            // asks for the bare names the loader hands out these, matched by
            // their sonames, and the system's libraries stay untouched.
            const std::string folder = VirtualScannerFolder();
            for (const char* name : kScannerLibraries) {
                const std::string path = folder + "/" + name;
                void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL);
                if (library == nullptr) {
                    throw Failure(kLoadError, "cannot load the virtual scanner's library " + path +
                                                  ": " + LoaderError() +
                                                  " (set KR7_SIM_DIR to the folder holding it)");
                }
                m_vLibraries.push_back(library);
            }
        }
        void* plugin = dlopen(m_strFile.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (plugin == nullptr) {
            std::string message = "cannot load the plug-in " + m_strFile + ": " + LoaderError();
            if (options.plugin.empty()) {
                message += m_bVirtual ? "\n  is it installed? Name one with --plugin PATH"
                                      : "\n  is it installed? Name one with --plugin PATH, or try "
                                        "--virtual to use the virtual scanner";
            }
            throw Failure(kLoadError, message);
        }
        m_vLibraries.push_back(plugin);
        auto get = reinterpret_cast<FGGetFrameGrabberFn>(dlsym(plugin, "GetFrameGrabber"));
        m_fpDestroy =
            reinterpret_cast<FGDestroyFrameGrabberFn>(dlsym(plugin, "DestroyFrameGrabber"));
        if (get == nullptr || m_fpDestroy == nullptr) {
            throw Failure(kLoadError, m_strFile +
                                          " is not a frame-grabber plug-in (no "
                                          "GetFrameGrabber/DestroyFrameGrabber)");
        }
        try {
            m_pGrabber = get();
        } catch (const std::exception& e) {
            throw Failure(kPluginError, std::string("GetFrameGrabber failed: ") + e.what());
        }
        if (m_pGrabber == nullptr) {
            throw Failure(kPluginError, "GetFrameGrabber gave no frame grabber");
        }
        Check("Initizalize", m_pGrabber->Initizalize(nullptr));
    } catch (...) {
        if (m_fpDestroy != nullptr) {
            m_fpDestroy();
        }
        for (auto it = m_vLibraries.rbegin(); it != m_vLibraries.rend(); ++it) {
            dlclose(*it);
        }
        throw;
    }
}

Plugin::~Plugin() {
    const unsigned int result = m_pGrabber->Uninitialize();
    if (result != 0) {
        std::fprintf(stderr, "kr7: %s\n", Error("Uninitialize", result).what());
    }
    m_fpDestroy();
    for (auto it = m_vLibraries.rbegin(); it != m_vLibraries.rend(); ++it) {
        dlclose(*it);
    }
}

std::string Plugin::LastError() {
    unsigned long size = 0;
    m_pGrabber->GetLastError(nullptr, size);
    if (size == 0) {
        return "";
    }
    std::string text(size, '\0');
    if (m_pGrabber->GetLastError(&text[0], size) != 0) {
        return "";
    }
    return text.c_str();
}

Failure Plugin::Error(const char* operation, unsigned int result) {
    const unsigned int number = result & ~vc::FGERR_FLAG;
    char head[160];
    std::snprintf(head, sizeof head, "%s failed: error %u (0x%08x)", operation, number, result);
    const std::string text = LastError();
    std::string message = head;
    if (!text.empty()) {
        message += ": " + text;
    }
    if (number == vc::FGERR_LIBRARY_NOT_LOADED && text.find(".so") != std::string::npos) {
        if (!m_bVirtual) {
            message +=
                "\n  the scanner's libraries are not installed? Try --virtual to use the "
                "virtual scanner";
        }
        return Failure(kLoadError, message);
    }
    return Failure(kPluginError, message);
}

void Plugin::Check(const char* operation, unsigned int result) {
    if (result != 0) {
        throw Error(operation, result);
    }
}

std::string Plugin::Version() {
    unsigned long size = 0;
    m_pGrabber->GetVersion(nullptr, size);
    std::string text(size + 1, '\0');
    Check("GetVersion", m_pGrabber->GetVersion(&text[0], size));
    return text.c_str();
}

std::vector<std::string> Plugin::Info() {
    unsigned long size = 0;
    const unsigned int query = m_pGrabber->GetInfo(nullptr, size);
    if (query != vc::FGERR_MORE_DATA && query != (vc::FGERR_FLAG | vc::FGERR_MORE_DATA)) {
        Check("GetInfo", query);
    }
    std::string packed(size + 2, '\0');
    Check("GetInfo", m_pGrabber->GetInfo(&packed[0], size));
    // Zero-terminated texts, the list ended by an empty one.
    std::vector<std::string> texts;
    for (std::size_t at = 0; at < packed.size() && packed[at] != '\0';) {
        texts.emplace_back(packed.c_str() + at);
        at += texts.back().size() + 1;
    }
    return texts;
}

std::vector<vc::DeviceInfo> Plugin::Devices() {
    unsigned long count = 0;
    const unsigned int query = m_pGrabber->AvailableDevices(nullptr, count);
    if (query != (vc::FGERR_FLAG | vc::FGERR_MORE_DATA)) {
        Check("AvailableDevices", query);
    }
    std::vector<vc::DeviceInfo> devices(count);
    if (count > 0) {
        Check("AvailableDevices", m_pGrabber->AvailableDevices(devices.data(), count));
        devices.resize(count < devices.size() ? count : devices.size());
    }
    for (vc::DeviceInfo& device : devices) {
        device.SerialNumber[sizeof device.SerialNumber - 1] = '\0';
        device.Description[sizeof device.Description - 1] = '\0';
    }
    return devices;
}

template <class Id, class Call>
std::vector<int> Plugin::List(const char* operation, Call call) {
    unsigned long count = 0;
    const unsigned int query = call(static_cast<Id*>(nullptr), count);
    if (query != vc::FGERR_MORE_DATA && query != (vc::FGERR_FLAG | vc::FGERR_MORE_DATA)) {
        Check(operation, query);
    }
    std::vector<Id> list(count);
    if (count > 0) {
        Check(operation, call(list.data(), count));
    }
    std::vector<int> ids;
    for (unsigned long i = 0; i < count && i < list.size(); ++i) {
        ids.push_back(static_cast<int>(list[i]));
    }
    return ids;
}

std::vector<int> Plugin::Cameras() {
    return List<vc::eCameraIDs>("AvailableCameras", [this](vc::eCameraIDs* l, unsigned long& n) {
        return m_pGrabber->AvailableCameras(l, n);
    });
}

std::vector<int> Plugin::ColourModes() {
    return List<vc::eColorModeIDs>("AvailableColorModes",
                                   [this](vc::eColorModeIDs* l, unsigned long& n) {
                                       return m_pGrabber->AvailableColorModes(l, n);
                                   });
}

std::vector<int> Plugin::CaptureModes() {
    return List<vc::eCaptureModeIDs>("AvailableDetections",
                                     [this](vc::eCaptureModeIDs* l, unsigned long& n) {
                                         return m_pGrabber->AvailableDetections(l, n);
                                     });
}

std::vector<int> Plugin::Filters() {
    return List<vc::eFilterIDs>("AvailableFilters", [this](vc::eFilterIDs* l, unsigned long& n) {
        return m_pGrabber->AvailableFilters(l, n);
    });
}

std::vector<int> Plugin::Properties() {
    return List<vc::ePropertyIDs>("AvailableProperties",
                                  [this](vc::ePropertyIDs* l, unsigned long& n) {
                                      return m_pGrabber->AvailableProperties(l, n);
                                  });
}

}  // namespace kr7
