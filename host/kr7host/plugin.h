// The plug-in loaded and driven the way a host does it: dlopen of the
// library (and, for the virtual scanner, of its three stand-ins first),
// GetFrameGrabber, the calls of the public header with failures as
// exceptions, DestroyFrameGrabber and dlclose.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <norvakkr7fg/framegrabber.h>

#include "kr7host/error.h"
#include "kr7host/image.h"

namespace kr7host {

// The installed plug-in, as the loader finds it.
constexpr const char* kPluginName = "libnorvakkr7fg.so.1";

// The three libraries the plug-in opens by their bare names, in the order
// the virtual scanner's stand-ins are loaded.
extern const char* const kScannerLibraries[3];

struct Options {
    // The plug-in file; empty: DefaultPlugin(virtualScanner).
    std::string plugin;
    // Load the virtual scanner's stand-ins by full path first: when the
    // plug-in then opens the bare names, the loader hands out these (matched
    // by soname) and the system's libraries stay untouched.
    bool virtualScanner = false;
    // Their folder; empty: VirtualScannerFolder().
    std::string simFolder;
};

// The folder of the virtual scanner's libraries: KR7_SIM_DIR when set, else
// the installed <libdir>/norvakkr7fg/sim beside the running program's bin/
// folder (wherever the installation sits), else the one under the
// configured install prefix, else the build tree's.
std::string VirtualScannerFolder();

// The plug-in to load when none is named: with the virtual scanner, from a
// program inside the build tree, the plug-in built there; otherwise the
// installed one (kPluginName).
std::string DefaultPlugin(bool virtualScanner);
// The same for code whose file lies in `folder` (a library such as kr7src,
// loaded into a program from anywhere): the build tree's plug-in when that
// folder is inside the build tree.
std::string DefaultPlugin(bool virtualScanner, const std::string& folder);

// The folder of the file (program or library) holding `address`, a
// function or object of that file; empty when the loader does not know.
std::string FolderOf(const void* address);

// The loaded files. The destructor unloads them, the plug-in first.
class Library {
public:
    // Throws LoadError naming the file and the loader's reason.
    explicit Library(const Options& options = Options());
    ~Library();
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    const std::string& File() const { return m_strFile; }
    bool Virtual() const { return m_bVirtual; }

    // The entry points. GetFrameGrabber passes on what the plug-in throws,
    // and throws std::logic_error once the library is closed.
    vc::ClFramegrabber* GetFrameGrabber() const;
    void DestroyFrameGrabber() const;
    // The exported object pointer: null once DestroyFrameGrabber has run,
    // and once the library is closed.
    vc::ClFramegrabber* Current() const;

    // Unloads everything now; throws std::runtime_error when dlclose fails.
    // The entry points are gone afterwards.
    void Close();

private:
    std::string m_strFile;
    bool m_bVirtual;
    std::vector<void*> m_vHandles;  // the stand-ins, then the plug-in
    FGGetFrameGrabberFn m_fpGet = nullptr;
    FGDestroyFrameGrabberFn m_fpDestroy = nullptr;
    vc::ClFramegrabber** m_ppObject = nullptr;
};

// The frame grabber, from GetFrameGrabber to DestroyFrameGrabber, and the
// host's calls on it. The library must outlive it.
class Grabber {
public:
    // GetFrameGrabber, then Initizalize unless `initialize` is false.
    // Throws Error when Initizalize fails, std::runtime_error when
    // GetFrameGrabber throws or gives nothing.
    explicit Grabber(const Library& library, bool initialize = true);
    // Uninitialize (unless Shutdown ran), DestroyFrameGrabber.
    ~Grabber();
    Grabber(const Grabber&) = delete;
    Grabber& operator=(const Grabber&) = delete;

    vc::ClFramegrabber& Raw() { return *m_pGrabber; }
    vc::ClFramegrabber* operator->() { return m_pGrabber; }

    // Uninitialize now; throws Error when it fails. Nothing more is called
    // on the object but DestroyFrameGrabber.
    void Shutdown();

    // Nothing when `result` is 0; otherwise throws Failure(operation, result).
    void Check(const char* operation, unsigned int result);
    // `result` of `operation` with the plug-in's last-error text.
    Error Failure(const char* operation, unsigned int result);
    std::string LastError();

    std::string Version();
    // GetInfo's texts: product, serial number, hardware, firmware, calibration.
    std::vector<std::string> Info();
    std::vector<vc::DeviceInfo> Devices();
    void SelectDevice(unsigned long index);
    unsigned long ActiveDevice();
    std::vector<vc::eCameraIDs> Cameras();
    std::vector<vc::eColorModeIDs> ColorModes();
    std::vector<vc::eCaptureModeIDs> CaptureModes();
    std::vector<vc::eFilterIDs> Filters();
    std::vector<vc::ePropertyIDs> Properties();

    // One image (GetImage), copied; the block goes back with FreeImage.
    Image Snap(unsigned int channel = 1);
    double Contamination(unsigned int channel = 1);
    unsigned int Property(vc::ePropertyIDs property);
    void SetProperty(vc::ePropertyIDs property, unsigned int value);

    // Device events (a fake finger) of `channel` go to `handler`, on the
    // thread that met them: a capture's worker, or the host's own inside
    // GetImage. An empty handler switches them off.
    using EventHandler = std::function<void(unsigned int channel, unsigned int type)>;
    void OnEvent(EventHandler handler, unsigned int channel = 1);

private:
    std::string Text(unsigned int (vc::ClFramegrabber::*get)(char*, unsigned long&),
                     const char* operation);
    template <class Id>
    std::vector<Id> List(const char* operation,
                         unsigned int (vc::ClFramegrabber::*copy)(Id*, unsigned long&));
    static void Event(int handle, unsigned int channel, vc::eFGs kind, unsigned int type,
                      void* user);

    const Library& m_rLibrary;
    vc::ClFramegrabber* m_pGrabber = nullptr;
    bool m_bInitialized = false;
    std::mutex m_EventMutex;
    std::shared_ptr<const EventHandler> m_pEventHandler;  // under m_EventMutex
};

namespace detail {
// Holds the library so that it is made before, and unloaded after, the
// grabber of a Plugin.
struct LibraryHolder {
    explicit LibraryHolder(const Options& options) : m_Library(options) {}
    Library m_Library;
};
}  // namespace detail

// The usual host: the files loaded, the frame grabber obtained and
// initialised; everything released in the destructor.
class Plugin : private detail::LibraryHolder, public Grabber {
public:
    explicit Plugin(const Options& options = Options())
        : detail::LibraryHolder(options), Grabber(m_Library) {}

    const Library& Files() const { return m_Library; }
    const std::string& File() const { return m_Library.File(); }
};

}  // namespace kr7host
