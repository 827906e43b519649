#include "kr7host/plugin.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <stdexcept>

namespace kr7host {

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

bool SizeAnswer(unsigned int result) {
    return result == 0 || result == vc::FGERR_MORE_DATA ||
           result == (vc::FGERR_FLAG | vc::FGERR_MORE_DATA);
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
    // An installed program takes the stand-ins installed with it, wherever
    // the installation sits.
    const std::string program = ProgramFolder();
    if (!program.empty()) {
        char* beside = realpath((program + "/" + KR7_INSTALL_SIM_FROM_BIN).c_str(), nullptr);
        const std::string found = beside != nullptr ? beside : "";
        std::free(beside);
        if (!found.empty() && IsFolder(found)) {
            return found;
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

std::string DefaultPlugin(bool virtualScanner) {
    return DefaultPlugin(virtualScanner, ProgramFolder());
}

std::string DefaultPlugin(bool virtualScanner, const std::string& folder) {
#if defined(KR7_BUILD_PLUGIN) && defined(KR7_BUILD_DIR)
    const std::string tree = KR7_BUILD_DIR "/";
    if (virtualScanner && (folder + "/").compare(0, tree.size(), tree) == 0 &&
        IsFile(KR7_BUILD_PLUGIN)) {
        return KR7_BUILD_PLUGIN;
    }
#else
    (void)virtualScanner;
    (void)folder;
#endif
    return kPluginName;
}

std::string FolderOf(const void* address) {
    Dl_info info;
    if (dladdr(address, &info) == 0 || info.dli_fname == nullptr) {
        return "";
    }
    char* full = realpath(info.dli_fname, nullptr);
    const std::string file = full != nullptr ? full : info.dli_fname;
    std::free(full);
    const std::size_t slash = file.rfind('/');
    return slash == std::string::npos ? "." : file.substr(0, slash);
}

// ---- the files ----------------------------------------------------------------

Library::Library(const Options& options)
    : m_strFile(options.plugin.empty() ? DefaultPlugin(options.virtualScanner) : options.plugin),
      m_bVirtual(options.virtualScanner) {
    try {
        if (m_bVirtual) {
            const std::string folder =
                options.simFolder.empty() ? VirtualScannerFolder() : options.simFolder;
            for (const char* name : kScannerLibraries) {
                const std::string path = folder + "/" + name;
                void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL);
                if (handle == nullptr) {
                    throw LoadError(LoadError::Kind::VirtualScanner, path, LoaderError());
                }
                m_vHandles.push_back(handle);
            }
        }
        void* plugin = dlopen(m_strFile.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (plugin == nullptr) {
            throw LoadError(LoadError::Kind::Plugin, m_strFile, LoaderError());
        }
        m_vHandles.push_back(plugin);
        m_fpGet = reinterpret_cast<FGGetFrameGrabberFn>(dlsym(plugin, "GetFrameGrabber"));
        m_fpDestroy =
            reinterpret_cast<FGDestroyFrameGrabberFn>(dlsym(plugin, "DestroyFrameGrabber"));
        m_ppObject = static_cast<vc::ClFramegrabber**>(dlsym(plugin, "m_pFrameGrabber"));
        if (m_fpGet == nullptr || m_fpDestroy == nullptr || m_ppObject == nullptr) {
            throw LoadError(LoadError::Kind::NotAPlugin, m_strFile,
                            "no GetFrameGrabber/DestroyFrameGrabber/m_pFrameGrabber");
        }
    } catch (...) {
        for (auto it = m_vHandles.rbegin(); it != m_vHandles.rend(); ++it) {
            dlclose(*it);
        }
        throw;
    }
}

vc::ClFramegrabber* Library::GetFrameGrabber() const {
    if (m_fpGet == nullptr) {
        throw std::logic_error("GetFrameGrabber of a closed library");
    }
    return m_fpGet();
}

void Library::DestroyFrameGrabber() const {
    if (m_fpDestroy != nullptr) {
        m_fpDestroy();
    }
}

vc::ClFramegrabber* Library::Current() const {
    return m_ppObject != nullptr ? *m_ppObject : nullptr;
}

Library::~Library() {
    try {
        Close();
    } catch (const std::exception&) {
        // Nothing more can be done about a failing dlclose here.
    }
}

void Library::Close() {
    m_fpGet = nullptr;
    m_fpDestroy = nullptr;
    m_ppObject = nullptr;
    std::string failure;
    while (!m_vHandles.empty()) {
        if (dlclose(m_vHandles.back()) != 0 && failure.empty()) {
            failure = LoaderError();
        }
        m_vHandles.pop_back();
    }
    if (!failure.empty()) {
        throw std::runtime_error("dlclose failed: " + failure);
    }
}

// ---- the frame grabber ------------------------------------------------------------

Grabber::Grabber(const Library& library, bool initialize) : m_rLibrary(library) {
    try {
        m_pGrabber = library.GetFrameGrabber();
    } catch (const std::exception& e) {
        throw std::runtime_error(std::string("GetFrameGrabber failed: ") + e.what());
    }
    if (m_pGrabber == nullptr) {
        throw std::runtime_error("GetFrameGrabber gave no frame grabber");
    }
    if (initialize) {
        const unsigned int result = m_pGrabber->Initizalize(nullptr);
        if (result != 0) {
            const Error error = Failure("Initizalize", result);
            library.DestroyFrameGrabber();
            throw error;
        }
        m_bInitialized = true;
    }
}

Grabber::~Grabber() {
    if (m_bInitialized) {
        m_pGrabber->Uninitialize();
    }
    m_rLibrary.DestroyFrameGrabber();
}

void Grabber::Shutdown() {
    if (m_bInitialized) {
        m_bInitialized = false;
        Check("Uninitialize", m_pGrabber->Uninitialize());
    }
}

Error Grabber::Failure(const char* operation, unsigned int result) {
    return Error(operation, result, LastError());
}

void Grabber::Check(const char* operation, unsigned int result) {
    if (result != 0) {
        throw Failure(operation, result);
    }
}

// A text by the getters' rule: the size asked first, then the copy, into
// two zeros more than asked for so that it ends however the copy is cut.
// Throws for a failed call when `operation` names it.
std::string Grabber::Text(unsigned int (vc::ClFramegrabber::*get)(char*, unsigned long&),
                          const char* operation) {
    unsigned long size = 0;
    const unsigned int query = (m_pGrabber->*get)(nullptr, size);
    if (operation != nullptr && !SizeAnswer(query)) {
        throw Failure(operation, query);
    }
    std::string text(size + 2, '\0');
    const unsigned int result = (m_pGrabber->*get)(&text[0], size);
    if (operation != nullptr) {
        Check(operation, result);
    }
    return result == 0 ? text : std::string();
}

std::string Grabber::LastError() {
    return Text(&vc::ClFramegrabber::GetLastError, nullptr).c_str();
}

std::string Grabber::Version() {
    return Text(&vc::ClFramegrabber::GetVersion, "GetVersion").c_str();
}

std::vector<std::string> Grabber::Info() {
    const std::string packed = Text(&vc::ClFramegrabber::GetInfo, "GetInfo");
    // Zero-terminated texts, the list ended by an empty one.
    std::vector<std::string> texts;
    for (std::size_t at = 0; at < packed.size() && packed[at] != '\0';) {
        texts.emplace_back(packed.c_str() + at);
        at += texts.back().size() + 1;
    }
    return texts;
}

std::vector<vc::DeviceInfo> Grabber::Devices() {
    std::vector<vc::DeviceInfo> devices =
        List("AvailableDevices", &vc::ClFramegrabber::AvailableDevices);
    for (vc::DeviceInfo& device : devices) {
        device.SerialNumber[sizeof device.SerialNumber - 1] = '\0';
        device.Description[sizeof device.Description - 1] = '\0';
    }
    return devices;
}

void Grabber::SelectDevice(unsigned long index) {
    Check("SetActiveDevice", m_pGrabber->SetActiveDevice(index));
}

unsigned long Grabber::ActiveDevice() {
    unsigned long index = 0;
    Check("GetActiveDevice", m_pGrabber->GetActiveDevice(index));
    return index;
}

template <class Id>
std::vector<Id> Grabber::List(const char* operation,
                              unsigned int (vc::ClFramegrabber::*copy)(Id*, unsigned long&)) {
    for (int attempt = 0;; ++attempt) {
        unsigned long count = 0;
        const unsigned int query = (m_pGrabber->*copy)(nullptr, count);
        if (!SizeAnswer(query)) {
            throw Failure(operation, query);
        }
        std::vector<Id> list(count);
        if (count == 0) {
            return list;
        }
        const unsigned int result = (m_pGrabber->*copy)(list.data(), count);
        // The list grew between the two calls (a scanner plugged in): ask again.
        if (result == (vc::FGERR_FLAG | vc::FGERR_MORE_DATA) && attempt < 3) {
            continue;
        }
        Check(operation, result);
        list.resize(count < list.size() ? count : list.size());
        return list;
    }
}

std::vector<vc::eCameraIDs> Grabber::Cameras() {
    return List("AvailableCameras", &vc::ClFramegrabber::AvailableCameras);
}

std::vector<vc::eColorModeIDs> Grabber::ColorModes() {
    return List("AvailableColorModes", &vc::ClFramegrabber::AvailableColorModes);
}

std::vector<vc::eCaptureModeIDs> Grabber::CaptureModes() {
    return List("AvailableDetections", &vc::ClFramegrabber::AvailableDetections);
}

std::vector<vc::eFilterIDs> Grabber::Filters() {
    return List("AvailableFilters", &vc::ClFramegrabber::AvailableFilters);
}

std::vector<vc::ePropertyIDs> Grabber::Properties() {
    return List("AvailableProperties", &vc::ClFramegrabber::AvailableProperties);
}

Image Grabber::Snap(unsigned int channel) {
    unsigned char* block = nullptr;
    const unsigned int result = m_pGrabber->GetImage(channel, &block);
    if (result != 0) {
        throw Failure("GetImage", result);
    }
    Image image;
    const bool understood = image.Assign(BitmapView(block), kScannerPpi);
    m_pGrabber->FreeImage(block);
    if (!understood) {
        throw std::runtime_error("GetImage gave an image that is no 8-bit bitmap");
    }
    return image;
}

double Grabber::Contamination(unsigned int channel) {
    double share = 0;
    Check("ContaminationDetection", m_pGrabber->ContaminationDetection(channel, &share));
    return share;
}

unsigned int Grabber::Property(vc::ePropertyIDs property) {
    unsigned int value = 0;
    Check("GetFGProperty", m_pGrabber->GetFGProperty(property, value));
    return value;
}

void Grabber::SetProperty(vc::ePropertyIDs property, unsigned int value) {
    Check("SetFGProperty", m_pGrabber->SetFGProperty(property, value));
}

void Grabber::OnEvent(EventHandler handler, unsigned int channel) {
    {
        std::lock_guard<std::mutex> lock(m_EventMutex);
        m_pEventHandler =
            handler ? std::make_shared<const EventHandler>(std::move(handler)) : nullptr;
    }
    Check("EnableEvents", m_pGrabber->EnableEvents(0, channel, &Grabber::Event, this));
}

void Grabber::Event(int, unsigned int channel, vc::eFGs, unsigned int type, void* user) {
    auto& self = *static_cast<Grabber*>(user);
    std::shared_ptr<const EventHandler> handler;
    {
        std::lock_guard<std::mutex> lock(self.m_EventMutex);
        handler = self.m_pEventHandler;
    }
    if (handler) {
        (*handler)(channel, type);
    }
}

}  // namespace kr7host
