#include "framegrabber/norvak_kr7_framegrabber.h"

#include <climits>
#include <cstring>
#include <string>
#include <type_traits>

#include "util/logging_client.h"

namespace vc {

namespace {

unsigned int Flagged(unsigned int number) {
    return number | FGERR_FLAG;
}

}  // namespace

ClNorvakKR7Framegrabber::ClNorvakKR7Framegrabber(void* context)
    : ClFramegrabber(), ClFramegrabberImpl(), ClNorvakKR7SDK(context) {
    m_vCameras.push_back(eCameraKR7);
    m_vColorModes.push_back(eColorGray8);
    m_vCaptureModes.push_back(eCaptureLive);
    m_vCaptureModes.push_back(eCapturePlainFinger);
    m_vFilters.push_back(eFilterNone);
    m_vProperties.push_back(ePropFixedOne);
    m_vProperties.push_back(ePropFakeFingerDetection);
    m_vProperties.push_back(ePropRedLED);
    m_vProperties.push_back(ePropGreenLED);
}

ClNorvakKR7Framegrabber::~ClNorvakKR7Framegrabber() {
    // Channels do not stop their workers when destroyed. Stop them here,
    // while the whole object is still intact: a worker calls into the SDK
    // part through its virtual functions until it has been joined.
    try {
        StopChannelsForTeardown();
    } catch (...) {
        // Nothing can be reported from a destructor; the parts go anyway.
    }
}

unsigned int ClNorvakKR7Framegrabber::Check(bool passed, int number, const char* text) {
    if (passed) {
        return 0;
    }
    SetLastFGError(static_cast<unsigned long>(number), text);
    return Flagged(static_cast<unsigned int>(number));
}

template <class Call>
unsigned int ClNorvakKR7Framegrabber::Guarded(unsigned int checked, Call&& call,
                                              eHandlers handlers) {
    unsigned int code = 0;
    FGError error;
    const bool completed = GuardedCall(
        [&] {
            if constexpr (std::is_void_v<decltype(call())>) {
                call();
            } else {
                code = call();
            }
        },
        error, handlers);
    if (!completed) {
        SetLastFGError(static_cast<unsigned long>(error.number), error.text);
        return Flagged(static_cast<unsigned int>(error.number));
    }
    return code != 0 ? Flagged(code) : checked;
}

// ---- text getters and images ----------------------------------------------

unsigned int ClNorvakKR7Framegrabber::GetInfo(char* buffer, unsigned long& size) {
    return Guarded(0, [&] { GetSDKInfo(buffer, size); });
}

unsigned int ClNorvakKR7Framegrabber::GetVersion(char* buffer, unsigned long& size) {
    return Guarded(0, [&] { return m_Version.Version(buffer, size); });
}

unsigned int ClNorvakKR7Framegrabber::FreeImage(unsigned char* image) {
    // Images come from Snap, allocated with new[].
    delete[] image;
    return 0;
}

unsigned int ClNorvakKR7Framegrabber::GetLastError(char* buffer, unsigned long& size) {
    // Reads a copy of the record only: no device lock, no new last error.
    try {
        unsigned long code = 0;
        std::string text;
        GetLastFGError(code, text);
        const unsigned long needed = static_cast<unsigned long>(text.size()) + 1;
        if (buffer == nullptr) {
            size = needed;
            return Flagged(vc::FGERR_MORE_DATA);
        }
        std::memcpy(buffer, text.c_str(), size < needed ? size : needed);
        size = needed;
        return 0;
    } catch (const std::exception&) {
        return Flagged(vc::FGERR_FAILED);
    }
}

unsigned int ClNorvakKR7Framegrabber::GetImage(unsigned int ch, unsigned char** image) {
    return Guarded(0, [&] { Snap(ch, image); });
}

// ---- capture ----------------------------------------------------------------

unsigned int ClNorvakKR7Framegrabber::SetCamera(unsigned int ch, eCameraIDs camera,
                                                eColorModeIDs colorMode) {
    const unsigned int checked =
        Check(CameraCheck(camera), vc::FGERR_CAMERA_NOT_SUPPORTED, err::kCameraUnknownText);
    return Guarded(checked, [&] { ClNorvakKR7SDK::SetCamera(ch, camera, colorMode); });
}

unsigned int ClNorvakKR7Framegrabber::StartCapture(int handle, unsigned int ch,
                                                   eCaptureModeIDs mode, FGImageCallback image,
                                                   FGResultCallback result, FGErrorCallback error,
                                                   FGWarningCallback warning, void* user) {
    const unsigned int checked =
        Check(DetectionCheck(mode), vc::FGERR_DETECTION_NOT_SUPPORTED, err::kBadDetectionText);
    return Guarded(checked, [&] {
        ClNorvakKR7SDK::StartCapture(handle, ch, mode, image, result, error, warning, user);
    });
}

unsigned int ClNorvakKR7Framegrabber::StopCapture(unsigned int ch) {
    return Guarded(0, [&] { ClNorvakKR7SDK::StopCapture(ch); });
}

unsigned int ClNorvakKR7Framegrabber::SetFilter(unsigned int ch, eFilterIDs filter) {
    const unsigned int checked =
        Check(FilterCheck(filter), vc::FGERR_FILTER_NOT_SUPPORTED, err::kBadFilterText);
    return Guarded(checked, [&] { ClNorvakKR7SDK::SetFilter(ch, filter); });
}

unsigned int ClNorvakKR7Framegrabber::RefreshBackGround(unsigned int ch) {
    return Guarded(0, [&] { ClNorvakKR7SDK::RefreshBackGround(ch, *this); });
}

unsigned int ClNorvakKR7Framegrabber::SetResolution(unsigned int ch,
                                                    const ClImageResolution& resolution) {
    return Guarded(0, [&] { ClNorvakKR7SDK::SetResolution(ch, resolution); });
}

unsigned int ClNorvakKR7Framegrabber::Freeze(unsigned int ch, bool freeze) {
    return Guarded(0, [&] { ClNorvakKR7SDK::Freeze(ch, freeze); });
}

unsigned int ClNorvakKR7Framegrabber::SetAspectRatio(unsigned int ch, double x, double y) {
    return Guarded(0, [&] { ClNorvakKR7SDK::SetAspectRatio(ch, x, y); });
}

unsigned int ClNorvakKR7Framegrabber::SetCallbacks(unsigned int ch, FGStartCallback start,
                                                   FGStopCallback stop) {
    return Guarded(0, [&] { ClNorvakKR7SDK::SetCallbacks(ch, start, stop); });
}

unsigned int ClNorvakKR7Framegrabber::ContaminationDetection(unsigned long ch, double* result) {
    // A number beyond the SDK's range stays out of range instead of wrapping
    // round onto a valid channel.
    const unsigned int channel = ch > UINT_MAX ? UINT_MAX : static_cast<unsigned int>(ch);
    return Guarded(0, [&] { ClNorvakKR7SDK::ContaminationDetection(channel, result); });
}

// ---- properties, events, devices ----------------------------------------------

unsigned int ClNorvakKR7Framegrabber::SetFGProperty(ePropertyIDs property, unsigned int value) {
    return Guarded(0, [&] { SetProperty(property, value); });
}

unsigned int ClNorvakKR7Framegrabber::GetFGProperty(ePropertyIDs property, unsigned int& value) {
    return Guarded(0, [&] { GetProperty(property, value); });
}

unsigned int ClNorvakKR7Framegrabber::EnableEvents(int handle, unsigned int ch,
                                                   FGEventCallback callback, void* user) {
    return Guarded(0, [&] { ClNorvakKR7SDK::EnableEvents(handle, ch, callback, user); });
}

unsigned int ClNorvakKR7Framegrabber::AvailableDevices(DeviceInfo* list, unsigned long& count) {
    return Guarded(0, [&] { AvailableScanners(list, count); });
}

unsigned int ClNorvakKR7Framegrabber::SetActiveDevice(unsigned long index) {
    return Guarded(0, [&] { SetActiveScanner(index); });
}

unsigned int ClNorvakKR7Framegrabber::GetActiveDevice(unsigned long& index) {
    return Guarded(0, [&] { GetActiveScanner(index); });
}

// ---- capability lists -------------------------------------------------------
// A list copy raises none of the plug-in's own errors; a list that does not
// fit is the flagged 17 without a last error.

unsigned int ClNorvakKR7Framegrabber::AvailableCameras(eCameraIDs* list, unsigned long& count) {
    return Guarded(
        0, [&] { return ClFramegrabberImpl::AvailableCameras(list, count); },
        eHandlers::FamilyAndStd);
}

unsigned int ClNorvakKR7Framegrabber::AvailableColorModes(eColorModeIDs* list,
                                                          unsigned long& count) {
    return Guarded(
        0, [&] { return ClFramegrabberImpl::AvailableColorModes(list, count); },
        eHandlers::FamilyAndStd);
}

unsigned int ClNorvakKR7Framegrabber::AvailableDetections(eCaptureModeIDs* list,
                                                          unsigned long& count) {
    return Guarded(
        0, [&] { return ClFramegrabberImpl::AvailableDetections(list, count); },
        eHandlers::FamilyAndStd);
}

unsigned int ClNorvakKR7Framegrabber::AvailableFilters(eFilterIDs* list, unsigned long& count) {
    return Guarded(
        0, [&] { return ClFramegrabberImpl::AvailableFilters(list, count); },
        eHandlers::FamilyAndStd);
}

unsigned int ClNorvakKR7Framegrabber::AvailableProperties(ePropertyIDs* list,
                                                          unsigned long& count) {
    return Guarded(
        0, [&] { return ClFramegrabberImpl::AvailableProperties(list, count); },
        eHandlers::FamilyAndStd);
}

// ---- not supported by this frame grabber ----------------------------------------

unsigned int ClNorvakKR7Framegrabber::WriteEEPROM(const unsigned char*, unsigned long&) {
    return vc::FGERR_EEPROM_NOT_SUPPORTED;
}

unsigned int ClNorvakKR7Framegrabber::ReadEEPROM(unsigned char*, unsigned long&) {
    return vc::FGERR_EEPROM_NOT_SUPPORTED;
}

unsigned int ClNorvakKR7Framegrabber::ShowDialog(eDlgIDs, unsigned long) {
    return vc::FGERR_NOT_SUPPORTED;
}

unsigned int ClNorvakKR7Framegrabber::SaveSetting(unsigned int, unsigned long) {
    return vc::FGERR_NOT_SUPPORTED;
}

unsigned int ClNorvakKR7Framegrabber::AvailableDialogs(unsigned long, eDlgIDs*, unsigned long&) {
    return vc::FGERR_NOT_SUPPORTED;
}

unsigned int ClNorvakKR7Framegrabber::SetFGPropertyEx(unsigned int, ePropertyIDs, unsigned long) {
    return vc::FGERR_NOT_SUPPORTED;
}

unsigned int ClNorvakKR7Framegrabber::GetFGPropertyEx(unsigned int, ePropertyIDs, unsigned long&) {
    return vc::FGERR_NOT_SUPPORTED;
}

unsigned int ClNorvakKR7Framegrabber::AvailablePropertiesEx(ePropertyIDs*, unsigned long&) {
    return vc::FGERR_NOT_SUPPORTED;
}

// ---- life cycle -------------------------------------------------------------

unsigned int ClNorvakKR7Framegrabber::Initizalize(ClVCFactory*) {
    try {
        Nvk::utilities::ClLoggingFacilityClient::Create();
    } catch (const std::exception&) {
        // Without the logging library the plug-in works, silently.
    }
    return 0;
}

unsigned int ClNorvakKR7Framegrabber::Uninitialize() {
    return Guarded(0, [&] {
        FreeSDK();
        Nvk::utilities::ClLoggingFacilityClient::Destroy();
    });
}

}  // namespace vc
