// Capture channel: the host's settings, the processor chain built from them
// and the delivery of each frame to the host's callbacks.
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "channel/channel.h"
#include "detection/image_detection.h"
#include "image/image_filter.h"

namespace vc {

namespace {

[[noreturn]] void ThrowNoStorage() {
    throw ClVCException(err::kNoStorageText, vc::FGERR_OUT_OF_MEMORY);
}

// A new object; running out of memory is the host's error 51, whether the
// allocator says so or an object whose own block could not be had.
template <class T, class... Args>
std::unique_ptr<T> MakeOr51(Args&&... args) {
    try {
        return std::unique_ptr<T>(new T(std::forward<Args>(args)...));
    } catch (const std::bad_alloc&) {
        ThrowNoStorage();
    } catch (const Nvk::CXMemoryAllocException&) {
        ThrowNoStorage();
    }
}

// Appends `processor` to `chain`, which owns it from then on (also when
// appending fails).
template <class T>
void AddTo(ClImageMacroProcessor& chain, std::unique_ptr<T> processor) {
    try {
        chain.Add(processor.release());
    } catch (const Nvk::CXMemoryAllocException&) {
        ThrowNoStorage();
    } catch (const std::bad_alloc&) {
        ThrowNoStorage();
    }
}

}  // namespace

// ---- setters --------------------------------------------------------------

void ClFrameGrabberChannel::SetFilter(eFilterIDs filter) {
    if (m_bRunning && m_eColorMode != eColorGray8 && filter != eFilterNone) {
        throw ClVCException(err::kFilterNotApplicableText, vc::FGERR_FILTER_NOT_APPLICABLE);
    }
    m_eFilter = filter;
    m_bRefreshBackground = true;
    m_bProcessingDirty = true;
}

void ClFrameGrabberChannel::SetCamera(eCameraIDs camera, eColorModeIDs mode) {
    if (mode != eColorGray8 && m_eFilter != eFilterNone) {
        throw ClVCException(err::kFilterNotApplicableText, vc::FGERR_FILTER_NOT_APPLICABLE);
    }
    const ClVCCamera record = ClVCCamera::Create(camera);
    {
        Nvk::CXLock lock(m_SettingsMutex);
        m_Camera = record;
    }
    m_eColorMode = mode;
    m_bProcessingDirty = true;
}

void ClFrameGrabberChannel::SetAspectRatio(double x, double y) {
    // Written so that a NaN is refused as well.
    if (!(x >= 1.0) || !(y >= 1.0)) {
        throw ClVCException(err::kBadAspectRatioText, vc::FGERR_BAD_ASPECT_RATIO);
    }
    {
        Nvk::CXLock lock(m_SettingsMutex);
        m_dAspectRatioX = x;
        m_dAspectRatioY = y;
    }
    m_bProcessingDirty = true;
    m_bRefreshBackground = true;
}

void ClFrameGrabberChannel::SetResolution(const ClImageResolution& resolution) {
    {
        Nvk::CXLock lock(m_SettingsMutex);
        m_Resolution = resolution;
    }
    m_bProcessingDirty = true;
    m_bRefreshBackground = true;
}

void ClFrameGrabberChannel::SetDetection(eCaptureModeIDs mode) {
    // Made outside the mutex; the old detector is deleted outside it too.
    std::unique_ptr<ClImageDetection> detection;
    try {
        detection.reset(ClImageDetection::Create(mode));
    } catch (const std::bad_alloc&) {
        ThrowNoStorage();
    } catch (const Nvk::CXMemoryAllocException&) {
        ThrowNoStorage();
    }
    const bool none = !detection;
    {
        Nvk::CXLock lock(m_DetectionMutex);
        m_pDetection.swap(detection);
    }
    if (none) {
        ThrowNoStorage();
    }
}

void ClFrameGrabberChannel::RefreshBackGround(ClFramegrabber& grabber) {
    if (m_bRunning) {
        m_bRefreshBackground = true;
        return;
    }
    const eFilterIDs filter = m_eFilter;
    SetFilter(eFilterNone);

    unsigned char* image = nullptr;
    const unsigned int rc = grabber.GetImage(m_nChannelIndex, &image);
    if (rc != 0) {
        unsigned long size = 0;
        grabber.GetLastError(nullptr, size);
        std::vector<char> text(size + 1, '\0');
        grabber.GetLastError(text.data(), size);
        text.back() = '\0';  // the getter may have cut the text without a terminator
        throw ClVCException(text.data(), static_cast<int>(rc));
    }

    // The temporary only lends its block to the copy: the image goes back
    // to the grabber, which allocated it. A capture started meanwhile by
    // another host thread takes its own background.
    Nvk::utilities::ClSimpleBitmap snapped;
    snapped.Attach(reinterpret_cast<tagBITMAPINFOHEADER*>(image));
    try {
        Nvk::CXLock lock(m_ChainMutex);
        if (!ChainBelongsToWorker()) {
            m_Background = snapped;
        }
    } catch (...) {
        snapped.Detach();
        grabber.FreeImage(image);
        throw;
    }
    snapped.Detach();
    grabber.FreeImage(image);
    SetFilter(filter);
}

// ---- the processor chain --------------------------------------------------

bool ClFrameGrabberChannel::ChainBelongsToWorker() const {
    return m_bWorkerActive && !IsWorkerThread();
}

void ClFrameGrabberChannel::InitializeImageProcessing(bool force) {
    Nvk::CXLock lock(m_ChainMutex);
    if (ChainBelongsToWorker()) {
        if (force) {
            m_bProcessingDirty = true;
        }
        return;
    }
    RebuildChain(force);
}

void ClFrameGrabberChannel::RebuildChain(bool force) {
    // Cleared before the settings are read, so that a setter that runs while
    // the chain is being built leaves it dirty for the next frame.
    if (!m_bProcessingDirty.exchange(false) && !force) {
        return;
    }
    try {
        m_Processor.RemoveAll();
        // A chain whose steps leave the output alone (a flip or rescale on
        // its own) must deliver nothing, as with a new bitmap each frame, not
        // a frame an earlier chain left in the reused one.
        m_Processed.Clear();

        const eFilterIDs filter = m_eFilter;
        if (filter != eFilterNone) {
            std::unique_ptr<ClVCImageFilter> object;
            try {
                object.reset(ClVCImageFilter::Create(filter));
            } catch (const std::bad_alloc&) {
                ThrowNoStorage();
            } catch (const Nvk::CXMemoryAllocException&) {
                ThrowNoStorage();
            }
            if (!object) {
                throw ClVCException(err::kBadFilterText, vc::FGERR_FILTER_NOT_SUPPORTED);
            }
            auto processor = MakeOr51<ClImageFilterProcessor>(object.get(), &m_Background);
            object.release();
            AddTo(m_Processor, std::move(processor));
        }

        AddFlipProcessing();

        ClVCCamera camera;
        ClImageResolution resolution;
        double x = 1.0;
        double y = 1.0;
        {
            Nvk::CXLock lock(m_SettingsMutex);
            camera = m_Camera;
            resolution = m_Resolution;
            x = m_dAspectRatioX;
            y = m_dAspectRatioY;
        }
        if (x != 1.0 || y != 1.0) {
            AddTo(m_Processor, MakeOr51<ClImageAspectRatioProcessor>(x, y));
        }
        if (resolution.X() != 0 && resolution.Y() != 0 && camera.X() != 0 && camera.Y() != 0) {
            AddTo(m_Processor, MakeOr51<ClImageRescaleProcessor>(resolution));
        }

        AddSpecificImageProcessing();
    } catch (...) {
        m_bProcessingDirty = true;
        throw;
    }
}

void ClFrameGrabberChannel::SetImageFlipPrecessing() {
    Nvk::CXLock lock(m_ChainMutex);
    if (ChainBelongsToWorker()) {
        m_bProcessingDirty = true;
        return;
    }
    AddFlipProcessing();
}

void ClFrameGrabberChannel::AddFlipProcessing() {
    bool flip1 = false;
    bool flip2 = false;
    {
        Nvk::CXLock lock(m_SettingsMutex);
        flip1 = m_Camera.m_bFlip1;
        flip2 = m_Camera.m_bFlip2;
    }
    if (flip1 || flip2) {
        AddTo(m_Processor, MakeOr51<ClImageFlipProcessor>(flip1, flip2));
    }
}

void ClFrameGrabberChannel::AddSpecificImageProcessing() {}

// ---- delivery -------------------------------------------------------------

bool DetectionResultVisible(const Nvk::utilities::ClSimpleBitmap& image) {
    const long width = image.Width();
    const long height = image.Height();
    if (width < 101 || height <= 0) {
        return false;
    }
    const unsigned char* row = image.Pixel();
    if (row == nullptr) {
        return false;
    }
    row += image.BPRow() * (height / 2);
    // Columns are bytes of the row; a row of fewer bytes than pixels (below
    // 8 bits per pixel) is searched only as far as it goes.
    long last = width - 51;
    if (last > image.BPRow() - 1) {
        last = image.BPRow() - 1;
    }
    for (long column = 50; column <= last; ++column) {
        if (row[column] != 0) {
            return true;
        }
    }
    return false;
}

void ClFrameGrabberChannel::SendBitmapToClient(Nvk::utilities::ClSimpleBitmap& frame, bool detect) {
    const eCaptureModeIDs type = GetCaptureMode();
    if (!DoImageProcessing()) {
        Deliver(frame, detect, type);
        return;
    }
    Nvk::utilities::ClSimpleBitmap* processed = nullptr;
    {
        Nvk::CXLock lock(m_ChainMutex);
        if (m_bRefreshBackground.exchange(false)) {
            m_Background = frame;
        }
        RebuildChain(false);
        m_Processor.Execute(frame, m_Processed);
        processed = &m_Processed;
    }
    // The host gets the processed frame after the mutex is released: host
    // threads leave the chain and its buffers to this worker.
    Deliver(*processed, detect, type);
}

void ClFrameGrabberChannel::Deliver(Nvk::utilities::ClSimpleBitmap& image, bool detect,
                                    eCaptureModeIDs type) {
    const int captureId = m_nCaptureID;
    const unsigned int channelIndex = m_nChannelIndex;
    void* const context = m_pContext;
    const FGImageCallback imageCallback = m_fpImageCallback;
    const FGResultCallback detectionCallback = m_fpDetectionCallback;

    // An empty bitmap (a device that delivered nothing) is not handed out:
    // the host would get a null image.
    if (type != eCaptureRolledFinger && imageCallback != nullptr && !image.Empty()) {
        imageCallback(captureId, channelIndex, image.Data(), context);
    }
    if (type == eCaptureLive || type == eCapturePreview) {
        return;
    }
    if (!detect) {
        if (detectionCallback != nullptr && DetectionResultVisible(image)) {
            detectionCallback(captureId, channelIndex, type, image.Data(), context);
        }
        return;
    }
    // A detector that assigns its output whole gets the worker's result
    // buffer, whose block then serves every frame; any other gets an empty
    // bitmap, so that nothing of an earlier frame shows through.
    Nvk::utilities::ClSimpleBitmap fresh;
    bool detected = false;
    Nvk::utilities::ClSimpleBitmap* output = &fresh;
    {
        Nvk::CXLock lock(m_DetectionMutex);
        if (m_pDetection) {
            if (m_pDetection->AssignsOutput()) {
                output = &m_Result;
            }
            detected = m_pDetection->Detect(image, *output);
        }
    }
    Nvk::utilities::ClSimpleBitmap& result = *output;
    if (detected) {
        if (detectionCallback != nullptr && DetectionResultVisible(result)) {
            detectionCallback(captureId, channelIndex, type, result.Data(), context);
        }
    } else if (imageCallback != nullptr && !result.Empty()) {
        imageCallback(captureId, channelIndex, result.Data(), context);
    }
}

}  // namespace vc
