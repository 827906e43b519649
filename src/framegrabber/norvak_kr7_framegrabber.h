// The KR7 frame grabber as the host sees it: the ClFramegrabber interface
// on top of the device SDK. Every operation runs the check that applies to
// it against the capability lists, forwards to the device SDK and turns
// what the SDK throws into the flagged result and the last error.
#pragma once

#include "base/framegrabber.h"
#include "device/norvak_kr7_sdk.h"
#include "framegrabber/capabilities.h"
#include "framegrabber/error_translation.h"

namespace vc {

class ClNorvakKR7Framegrabber : public ClFramegrabber,
                                public ClFramegrabberImpl,
                                public ClNorvakKR7SDK {
public:
    // `context` goes to the device SDK, which keeps it for its channels.
    explicit ClNorvakKR7Framegrabber(void* context);
    // Stops every capture before any part of the object goes away.
    ~ClNorvakKR7Framegrabber() override;
    ClNorvakKR7Framegrabber(const ClNorvakKR7Framegrabber&) = delete;
    ClNorvakKR7Framegrabber& operator=(const ClNorvakKR7Framegrabber&) = delete;

    unsigned int GetInfo(char* buffer, unsigned long& size) override;
    unsigned int GetVersion(char* buffer, unsigned long& size) override;
    unsigned int FreeImage(unsigned char* image) override;
    unsigned int GetLastError(char* buffer, unsigned long& size) override;
    unsigned int SetCamera(unsigned int ch, eCameraIDs camera, eColorModeIDs colorMode) override;
    unsigned int GetImage(unsigned int ch, unsigned char** image) override;
    unsigned int StartCapture(int handle, unsigned int ch, eCaptureModeIDs mode,
                              FGImageCallback image, FGResultCallback result, FGErrorCallback error,
                              FGWarningCallback warning, void* user) override;
    unsigned int StopCapture(unsigned int ch) override;
    unsigned int SetFilter(unsigned int ch, eFilterIDs filter) override;
    unsigned int RefreshBackGround(unsigned int ch) override;
    unsigned int SetResolution(unsigned int ch, const ClImageResolution& resolution) override;
    unsigned int SetFGProperty(ePropertyIDs property, unsigned int value) override;
    unsigned int GetFGProperty(ePropertyIDs property, unsigned int& value) override;
    unsigned int Freeze(unsigned int ch, bool freeze) override;
    unsigned int AvailableCameras(eCameraIDs* list, unsigned long& count) override;
    unsigned int AvailableColorModes(eColorModeIDs* list, unsigned long& count) override;
    unsigned int AvailableDetections(eCaptureModeIDs* list, unsigned long& count) override;
    unsigned int AvailableFilters(eFilterIDs* list, unsigned long& count) override;
    unsigned int AvailableProperties(ePropertyIDs* list, unsigned long& count) override;
    unsigned int EnableEvents(int handle, unsigned int ch, FGEventCallback callback,
                              void* user) override;
    unsigned int WriteEEPROM(const unsigned char* data, unsigned long& size) override;
    unsigned int ReadEEPROM(unsigned char* data, unsigned long& size) override;
    unsigned int SetAspectRatio(unsigned int ch, double x, double y) override;
    unsigned int AvailableDevices(DeviceInfo* list, unsigned long& count) override;
    unsigned int SetActiveDevice(unsigned long index) override;
    unsigned int GetActiveDevice(unsigned long& index) override;
    unsigned int ShowDialog(eDlgIDs dialog, unsigned long param) override;
    unsigned int SaveSetting(unsigned int setting, unsigned long value) override;
    unsigned int AvailableDialogs(unsigned long param, eDlgIDs* list,
                                  unsigned long& count) override;
    unsigned int SetFGPropertyEx(unsigned int ch, ePropertyIDs property,
                                 unsigned long value) override;
    unsigned int GetFGPropertyEx(unsigned int ch, ePropertyIDs property,
                                 unsigned long& value) override;
    unsigned int AvailablePropertiesEx(ePropertyIDs* list, unsigned long& count) override;
    unsigned int SetCallbacks(unsigned int ch, FGStartCallback start, FGStopCallback stop) override;
    unsigned int ContaminationDetection(unsigned long ch, double* result) override;

    // Switches logging on when the logging library is there; always 0.
    unsigned int Initizalize(ClVCFactory* factory) override;
    // Stops every capture, closes the scanner and switches logging off.
    unsigned int Uninitialize() override;

private:
    // The outcome of a check against the lists: 0 when it passed; otherwise
    // the error is stored as the last error and its flagged number returned.
    unsigned int Check(bool passed, int number, const char* text);

    // Runs `call` (a forward to the device SDK or a list copy) after a check
    // whose outcome is `checked`. A call that returns normally gives a
    // non-zero code it returned, flagged, or else `checked`. A call that
    // throws a std::exception gives the flagged number of its translation,
    // which is stored as the last error; anything else passes through.
    template <class Call>
    unsigned int Guarded(unsigned int checked, Call&& call, eHandlers handlers = eHandlers::All);

    ClVersion m_Version{1, 13, 38, 0};
};

}  // namespace vc
