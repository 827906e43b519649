// Host contract of the KR7 frame-grabber plug-in (libnorvakkr7fg.so.1).
//
// A host loads the library, calls GetFrameGrabber() to obtain the single
// vc::ClFramegrabber object, calls Initizalize (which switches the plug-in's
// logging on), drives it through the operations below, calls Uninitialize
// (every capture stopped, scanner closed, logging off) and finally
// DestroyFrameGrabber(). Operations still work after Uninitialize: the
// scanner is opened again when needed. This header is self-contained: it
// needs only the C++ standard library.
//
// Results: every operation returns an unsigned 32-bit code, 0 on success. A
// failed call returns its error number with FGERR_FLAG (0x10000000) set and
// keeps number and text as the last error (GetLastError). A few operations
// return a bare number: 14 for the EEPROM calls, 22 for the dialog, setting
// and extended-property calls, 17 for list copies that do not fit.
//
// Text getters (GetInfo, GetVersion, GetLastError) take a buffer and its size
// by reference. A null buffer asks for the size: size becomes length + 1.
// Otherwise min(needed, size) bytes are copied, without a terminating zero
// when the buffer is too small, and size becomes the needed size.
//
// Images. Every image the plug-in hands out is one packed 8-bit bitmap: a
// 40-byte BITMAPINFOHEADER (height positive, so the rows run bottom-up), a
// palette of 256 four-byte grey entries, then the rows, each padded to a
// multiple of 4 bytes. Behind a 14-byte BITMAPFILEHEADER it is a BMP file.
// Who owns it:
//   - An image passed to a callback belongs to the plug-in and is valid only
//     until the callback returns. Copy what you keep; never free it.
//   - An image from GetImage belongs to the host until the host hands it
//     back to FreeImage of the same frame grabber, before
//     DestroyFrameGrabber. Never release it with free or delete.
//
// Threads. The host may call the operations from any of its threads, also
// from several at once. A capturing channel has a worker thread of its own,
// and all of that channel's callbacks come on it, one at a time: start,
// image, result, error, warning and stop. The event callback (EnableEvents,
// a fake finger) comes on the thread that took the frame that showed it:
// the channel's worker during a capture, the host's own thread inside
// GetImage. No lock is held while a callback runs, so a callback may call
// the plug-in (a slow one delays that channel's next frame), with these
// exceptions: StartCapture of its own channel fails; StopCapture there only
// asks the capture to end (the worker is joined by the channel's next
// StartCapture or StopCapture from another thread); Uninitialize and
// DestroyFrameGrabber never. The plug-in's threads and locks are described
// in docs/threads.md of its source repository.
//
// Calls out of order and values out of range. An operation before
// Initizalize works, only without logging; Initizalize a second time changes
// nothing and returns 0; StopCapture with nothing capturing returns 0.
// Values outside an enumeration or range fail with the list's number: 3
// camera, 9 colour mode, 10 capture mode not listed (51 when no detector
// exists for it, as for any value outside the enumeration), 11 filter, 12
// property, 18 read-only property, 25 aspect ratio below 1 or not a number,
// 4 any channel but 1, 23 a null pointer where the plug-in must write.
//
// Callbacks that throw. Nothing a callback throws leaves the plug-in's
// worker thread. An exception from an image or result callback (or from the
// start callback) ends that capture as a device error would: the error
// callback gets its what() text, or "Framegrabber Unknown error" for
// something that is no std::exception, then the stop callback comes. What
// the error, warning or stop callback throws is dropped. The channel reads
// as capturing until the host calls StopCapture, and starts again normally.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "image_resolution.h"

namespace vc {

class ClVCFactory;  // the host's own factory type; opaque to the plug-in

// Results. A failed call returns its error number with FGERR_FLAG set:
//   if (result != 0) number = result & ~vc::FGERR_FLAG;
// and GetLastError then holds the number's text.
constexpr unsigned int FGERR_FLAG = 0x10000000u;

// The error numbers a host can receive, in results (with FGERR_FLAG) and as
// the last error. Failures of the scanner itself carry the scanner's own
// number (for example 21 not ready, 1460 timeout) with a text naming what
// failed ("Capture frame failed.").
enum eFGErrors : unsigned int {
    FGERR_CAMERA_NOT_SUPPORTED = 3,
    FGERR_BAD_CHANNEL = 4,  // every channel but 1
    FGERR_COLOR_MODE_NOT_SUPPORTED = 9,
    FGERR_DETECTION_NOT_SUPPORTED = 10,  // a capture mode not listed; it runs all the same
    FGERR_FILTER_NOT_SUPPORTED = 11,
    FGERR_PROPERTY_NOT_SUPPORTED = 12,
    FGERR_EEPROM_NOT_SUPPORTED = 14,  // returned bare, without FGERR_FLAG
    FGERR_MORE_DATA = 17,             // the answer to a size query, or a list that does not fit
    FGERR_PROPERTY_READ_ONLY = 18,
    FGERR_FILTER_NOT_APPLICABLE = 21,
    FGERR_NOT_SUPPORTED = 22,  // dialogs, settings, extended properties: bare
    FGERR_HARDWARE_NOT_SUPPORTED = 22,
    // Any other failure. A scanner library the plug-in could not load (or a
    // symbol missing in one) is reported so, with the loader's text, which
    // names the file; so are failed system calls and null pointers.
    FGERR_FAILED = 23,
    FGERR_LIBRARY_NOT_LOADED = 23,
    FGERR_BAD_ASPECT_RATIO = 25,
    FGERR_BAD_DEVICE_INDEX = 27,
    FGERR_DISCONNECTED = 31,
    FGERR_CALIBRATION_CORRUPT = 37,
    FGERR_API_VERSION_NOT_SUPPORTED = 40,
    FGERR_OUT_OF_MEMORY = 51,  // also a capture mode without a detector
    FGERR_USER_CANCELED = 0x20000003,
    FGERR_HARDWARE_INCOMPATIBLE = 0x20000004,
    FGERR_FIRMWARE_INCOMPATIBLE = 0x20000005,
};

// Camera types. Only eCameraKR7 is listed and accepted by this plug-in; the
// other values belong to other frame grabbers of the host framework.
enum eCameraIDs : int {
    eCameraType1 = 1,
    eCameraType2 = 2,
    eCameraType3 = 3,
    eCameraType4 = 4,
    eCameraType5 = 5,
    eCameraType6 = 6,
    eCameraType7 = 7,
    eCameraKR7 = 8,
    eCameraType9 = 9,
};

enum eColorModeIDs : int {
    eColorGray8 = 0,  // 8-bit grey, the only colour mode
};

// Detection stage run on a capturing channel.
enum eCaptureModeIDs : int {
    eCaptureLive = 0,             // every frame is delivered
    eCapturePlainFinger = 1,      // a result when a plain finger is settled
    eCaptureRolledFinger = 2,     // a result when a roll is complete
    eCaptureFastPlainFinger = 3,  // plain finger, shorter decision
    eCapturePreview = 4,          // a result on the host's trigger
};

enum eFilterIDs : int {
    eFilterNone = 0,
    eFilterSubtractBackground = 1,
};

enum ePropertyIDs : std::uint32_t {
    ePropFixedOne = 3,             // read only, always 1
    ePropFakeFingerDetection = 6,  // 100 when on, 0 when off
    ePropRedLED = 7,               // 100 when lit, 0 when dark
    ePropGreenLED = 8,             // 100 when lit, 0 when dark
};

// Dialog identifiers; this plug-in has no dialogs.
enum eDlgIDs : int {};

// Kind of frame grabber that reports an event.
enum eFGs : int {
    eFGKR7 = 19,
};

// Device events of this plug-in.
enum eFG_KR7_Events : int {
    eKR7EventFakeFinger = 0,  // a fake finger was put on the scanner
};

// One connected scanner, as AvailableDevices fills it.
struct DeviceInfo {
    char SerialNumber[100];  // zero-terminated, rest zero
    char Description[100];   // empty
    std::uint32_t Index;     // interface number; pass it to SetActiveDevice
};
static_assert(sizeof(DeviceInfo) == 204, "DeviceInfo must be 204 bytes");
static_assert(offsetof(DeviceInfo, SerialNumber) == 0, "DeviceInfo layout");
static_assert(offsetof(DeviceInfo, Description) == 100, "DeviceInfo layout");
static_assert(offsetof(DeviceInfo, Index) == 200, "DeviceInfo layout");

// Callback signatures. `handle` is the value the host passed to StartCapture
// (EnableEvents for events); `tag` is the channel's callback tag; `user` is
// the pointer given at registration.
typedef void (*FGImageCallback)(int handle, unsigned int tag, unsigned char* image, void* user);
typedef void (*FGResultCallback)(int handle, unsigned int tag, int result, unsigned char* image,
                                 void* user);
typedef void (*FGErrorCallback)(int handle, unsigned int tag, const char* text, void* user);
typedef void (*FGWarningCallback)(int handle, unsigned int tag, const char* text, void* user);
typedef void (*FGStartCallback)(int handle, unsigned int tag, void* user);
typedef void (*FGStopCallback)(int handle, unsigned int tag, void* user);
typedef void (*FGEventCallback)(int handle, unsigned int channel, eFGs kind, unsigned int eventType,
                                void* user);

// The frame-grabber interface. The order of the operations is the binary
// contract with the host and must not change.
class ClFramegrabber {
public:
    virtual ~ClFramegrabber() {}

    /*  1 */ virtual unsigned int GetInfo(char* buffer, unsigned long& size) = 0;
    /*  2 */ virtual unsigned int GetVersion(char* buffer, unsigned long& size) = 0;
    /*  3 */ virtual unsigned int FreeImage(unsigned char* image) = 0;
    /*  4 */ virtual unsigned int GetLastError(char* buffer, unsigned long& size) = 0;
    /*  5 */ virtual unsigned int SetCamera(unsigned int ch, eCameraIDs camera,
                                            eColorModeIDs colorMode) = 0;
    /*  6 */ virtual unsigned int GetImage(unsigned int ch, unsigned char** image) = 0;
    /*  7 */ virtual unsigned int StartCapture(int handle, unsigned int ch, eCaptureModeIDs mode,
                                               FGImageCallback image, FGResultCallback result,
                                               FGErrorCallback error, FGWarningCallback warning,
                                               void* user) = 0;
    /*  8 */ virtual unsigned int StopCapture(unsigned int ch) = 0;
    /*  9 */ virtual unsigned int SetFilter(unsigned int ch, eFilterIDs filter) = 0;
    /* 10 */ virtual unsigned int RefreshBackGround(unsigned int ch) = 0;
    /* 11 */ virtual unsigned int SetResolution(unsigned int ch,
                                                const ClImageResolution& resolution) = 0;
    /* 12 */ virtual unsigned int SetFGProperty(ePropertyIDs property, unsigned int value) = 0;
    /* 13 */ virtual unsigned int GetFGProperty(ePropertyIDs property, unsigned int& value) = 0;
    /* 14 */ virtual unsigned int Freeze(unsigned int ch, bool freeze) = 0;
    /* 15 */ virtual unsigned int AvailableCameras(eCameraIDs* list, unsigned long& count) = 0;
    /* 16 */ virtual unsigned int AvailableColorModes(eColorModeIDs* list,
                                                      unsigned long& count) = 0;
    /* 17 */ virtual unsigned int AvailableDetections(eCaptureModeIDs* list,
                                                      unsigned long& count) = 0;
    /* 18 */ virtual unsigned int AvailableFilters(eFilterIDs* list, unsigned long& count) = 0;
    /* 19 */ virtual unsigned int AvailableProperties(ePropertyIDs* list, unsigned long& count) = 0;
    /* 20 */ virtual unsigned int EnableEvents(int handle, unsigned int ch,
                                               FGEventCallback callback, void* user) = 0;
    /* 21 */ virtual unsigned int WriteEEPROM(const unsigned char* data, unsigned long& size) = 0;
    /* 22 */ virtual unsigned int ReadEEPROM(unsigned char* data, unsigned long& size) = 0;
    /* 23 */ virtual unsigned int SetAspectRatio(unsigned int ch, double x, double y) = 0;
    /* 24 */ virtual unsigned int AvailableDevices(DeviceInfo* list, unsigned long& count) = 0;
    /* 25 */ virtual unsigned int SetActiveDevice(unsigned long index) = 0;
    /* 26 */ virtual unsigned int GetActiveDevice(unsigned long& index) = 0;
    /* 27 */ virtual unsigned int ShowDialog(eDlgIDs dialog, unsigned long param) = 0;
    /* 28 */ virtual unsigned int SaveSetting(unsigned int setting, unsigned long value) = 0;
    /* 29 */ virtual unsigned int AvailableDialogs(unsigned long param, eDlgIDs* list,
                                                   unsigned long& count) = 0;
    /* 30 */ virtual unsigned int SetFGPropertyEx(unsigned int ch, ePropertyIDs property,
                                                  unsigned long value) = 0;
    /* 31 */ virtual unsigned int GetFGPropertyEx(unsigned int ch, ePropertyIDs property,
                                                  unsigned long& value) = 0;
    /* 32 */ virtual unsigned int AvailablePropertiesEx(ePropertyIDs* list,
                                                        unsigned long& count) = 0;
    /* 33 */ virtual unsigned int SetCallbacks(unsigned int ch, FGStartCallback start,
                                               FGStopCallback stop) = 0;
    /* 34 */ virtual unsigned int ContaminationDetection(unsigned long ch, double* result) = 0;
    // The host's factory is not used; always 0.
    /* 35 */ virtual unsigned int Initizalize(ClVCFactory* factory) = 0;
    /* 36 */ virtual unsigned int Uninitialize() = 0;
};

// Version of the plug-in ("major.minor.build.revision") with the text-getter
// protocol described at the top of this header.
class ClVersion {
public:
    ClVersion() = default;
    ClVersion(int major, int minor, int build, int revision)
        : m_nMajor(major),
          m_nMinor(minor),
          m_nBuild(build),
          m_nRevision(revision),
          m_strText(std::to_string(major) + "." + std::to_string(minor) + "." +
                    std::to_string(build) + "." + std::to_string(revision)) {}
    ClVersion(const ClVersion&) = default;
    ClVersion& operator=(const ClVersion&) = default;
    virtual ~ClVersion() = default;

    // Null buffer: size = needed, returns 17. Otherwise copies
    // min(needed, size) bytes, size = needed, returns 0.
    unsigned int Version(char* buffer, unsigned long& size) const {
        const unsigned long needed = static_cast<unsigned long>(m_strText.size()) + 1;
        if (buffer == nullptr) {
            size = needed;
            return 17;
        }
        // c_str() holds the text and its terminating zero: `needed` bytes.
        std::memcpy(buffer, m_strText.c_str(), size < needed ? size : needed);
        size = needed;
        return 0;
    }

    int Major() const { return m_nMajor; }
    int Minor() const { return m_nMinor; }
    int Build() const { return m_nBuild; }
    int Revision() const { return m_nRevision; }
    const std::string& Text() const { return m_strText; }

private:
    int m_nMajor = 0;
    int m_nMinor = 0;
    int m_nBuild = 0;
    int m_nRevision = 0;
    std::string m_strText;
};

}  // namespace vc

// Entry points exported by the plug-in under these plain names. A host that
// loads the library at run time resolves them with dlsym and casts to the
// pointer types; a host linked against the library calls them directly.
//   GetFrameGrabber      the process's one frame grabber, created at the first
//                        call (an exception of the construction reaches the
//                        caller, and the next call tries again)
//   DestroyFrameGrabber  deletes it; harmless when there is none
//   m_pFrameGrabber      the object, or null
#if defined(__GNUC__)
#define KR7FG_ENTRY_POINT __attribute__((visibility("default")))
#else
#define KR7FG_ENTRY_POINT
#endif
extern "C" {
typedef vc::ClFramegrabber* (*FGGetFrameGrabberFn)();
typedef void (*FGDestroyFrameGrabberFn)();

KR7FG_ENTRY_POINT vc::ClFramegrabber* GetFrameGrabber();
KR7FG_ENTRY_POINT void DestroyFrameGrabber();
KR7FG_ENTRY_POINT extern vc::ClFramegrabber* m_pFrameGrabber;
}
