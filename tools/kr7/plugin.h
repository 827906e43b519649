// The plug-in as kr7 uses it: loaded at run time like any host loads it,
// driven through its public header only.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "base/framegrabber.h"

namespace kr7 {

// Exit statuses.
enum Status : int {
    kSuccess = 0,
    kPluginError = 1,  // the plug-in reported an error
    kBadUsage = 2,
    kLoadError = 3,  // the plug-in or one of its libraries could not be loaded
    kInterrupted = 130,
};

// Why kr7 stops, with the status to exit with. The message is printed
// as it is, behind "kr7: ".
class Failure : public std::runtime_error {
public:
    Failure(int status, const std::string& message)
        : std::runtime_error(message), m_nStatus(status) {}
    int Status() const { return m_nStatus; }

private:
    int m_nStatus;
};

struct LoadOptions {
    bool virtualScanner = false;  // load the virtual scanner's libraries first
    std::string plugin;           // the plug-in file; empty: the usual one
};

// The folder of the virtual scanner's libraries: KR7_SIM_DIR, else the
// installed folder beside kr7's own (../lib/norvakkr7fg/sim from its bin/),
// else the one under the configured install prefix, else the build tree's.
std::string VirtualScannerFolder();

// The three libraries the plug-in loads by name, in the order kr7 preloads them.
extern const char* const kScannerLibraries[3];

// A loaded, initialised plug-in and its frame grabber. The destructor calls
// Uninitialize and DestroyFrameGrabber and unloads everything.
class Plugin {
public:
    // Throws Failure: kLoadError when a file cannot be loaded or is no
    // frame-grabber plug-in, kPluginError when Initizalize fails.
    explicit Plugin(const LoadOptions& options);
    ~Plugin();
    Plugin(const Plugin&) = delete;
    Plugin& operator=(const Plugin&) = delete;

    vc::ClFramegrabber& Grabber() { return *m_pGrabber; }
    const std::string& File() const { return m_strFile; }

    // Nothing when `result` is 0; otherwise throws a Failure naming the
    // operation, the error number and the plug-in's last-error text. A
    // library the plug-in could not load (error 23) gives kLoadError.
    void Check(const char* operation, unsigned int result);
    // The Failure Check would throw.
    Failure Error(const char* operation, unsigned int result);

    std::string LastError();
    std::string Version();
    // The texts of GetInfo: product, serial, hardware, firmware, calibration.
    std::vector<std::string> Info();
    std::vector<vc::DeviceInfo> Devices();
    std::vector<int> Cameras();
    std::vector<int> ColourModes();
    std::vector<int> CaptureModes();
    std::vector<int> Filters();
    std::vector<int> Properties();

private:
    template <class Id, class Call>
    std::vector<int> List(const char* operation, Call call);

    bool m_bVirtual;
    std::string m_strFile;
    std::vector<void*> m_vLibraries;  // the scanner's libraries, then the plug-in
    FGDestroyFrameGrabberFn m_fpDestroy = nullptr;
    vc::ClFramegrabber* m_pGrabber = nullptr;
};

}  // namespace kr7
