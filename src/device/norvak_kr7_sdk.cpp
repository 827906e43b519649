// The KR7 device SDK: scanner lifecycle, channel activation, live frames,
// snaps and the forwarding of host operations to the channels.
#include "device/norvak_kr7_sdk.h"

#include <cstring>
#include <new>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "base/errors.h"
#include "device/calibration_binding.h"
#include "device/device_lock.h"
#include "device/events.h"
#include "device/settings.h"
#include "util/logging_client.h"

namespace vc {

using Nvk::utilities::ClSimpleBitmap;
using Nvk::utilities::Log;

Nvk::CXMutex ClNorvakKR7SDK::m_cCBMutex;
ClNorvakKR7SDK* ClNorvakKR7SDK::m_pCBData = nullptr;

namespace {

// Set by the first StartCapture; nothing else reads the camera choice.
std::atomic<bool> g_bDefaultCameraSet{false};

// Scanner frames larger than this in either direction are refused: no
// fingerprint scanner delivers them, and they would size absurd buffers.
constexpr int kMaxFrameSide = 8192;

constexpr unsigned int kErrorLongImage = 0x20000004u;

// The geometry the SDK gives a channel it activates.
class ClKR7ChannelGeometry : public ClFrameGrabberChannelSDKData {
public:
    ClKR7ChannelGeometry(long width, long height) : m_nWidth(width), m_nHeight(height) {
        m_Resolution.put_DPI(500, 500);
    }
    long m_nWidth;
    long m_nHeight;
    long m_nX = 0;
    long m_nY = 0;
    unsigned int m_nFlags = 0;
    ClImageResolution m_Resolution;
};

}  // namespace

// ---- construction -------------------------------------------------------

ClNorvakKR7SDK::ClNorvakKR7SDK(void*)
    : m_pScanner(new ClFutronicBaseSDK()),
      m_pSetting(new CXSetting()),
      m_pEvents(new ClXEvents()),
      m_vChannels(1) {
    m_vChannels.front().SetChannelIndex(1);
    RegisterLFCallbacks();
    Nvk::CXLock lock(m_cCBMutex);
    m_pCBData = this;
}

ClNorvakKR7SDK::~ClNorvakKR7SDK() {
    StopChannelsForTeardown();
    UnregisterLFCallbacks();
    Nvk::CXLock lock(m_cCBMutex);
    if (m_pCBData == this) {
        m_pCBData = nullptr;
    }
}

void ClNorvakKR7SDK::StopChannelsForTeardown() {
    StopAllChannel();
    ClFramegrabberSDK* self = this;
    ClFrameGrabberChannel::m_pFramegrabberSDK.compare_exchange_strong(self, nullptr);
}

// ---- the device lock ----------------------------------------------------

bool ClNorvakKR7SDK::Lock() {
    m_DeviceMutex.Lock();
    if (m_nLockDepth++ == 0) {
        m_LockOwner.store(std::this_thread::get_id());
    }
    return true;
}

void ClNorvakKR7SDK::UnLock() {
    bool deliver = false;
    if (--m_nLockDepth == 0) {
        deliver = m_bFakeFingerPending;
        m_bFakeFingerPending = false;
        m_LockOwner.store(std::thread::id());
    }
    m_DeviceMutex.Unlock();
    if (deliver) {
        m_pEvents->Fire(m_nCurrentChannel.load(), eKR7EventFakeFinger);
    }
}

bool ClNorvakKR7SDK::HoldsDeviceLock() const {
    return m_LockOwner.load() == std::this_thread::get_id();
}

bool ClNorvakKR7SDK::IsScannerInitialized() {
    CXDeviceLock lock(*this);
    return m_bScannerInitialized;
}

// ---- scanner lifecycle --------------------------------------------------

void ClNorvakKR7SDK::InitializeScanner() {
    CXDeviceLock lock(*this);
    if (m_bScannerInitialized && m_pScanner->IsOpen()) {
        return;
    }
    // Reading another interface's serial number leaves the scanner closed
    // behind the SDK's back: start again from the beginning then.
    m_bScannerInitialized = false;
    m_pSetting->LoadFromFile(kSettingsPath);
    if (!m_pScanner->Initialize()) {
        throw ClVCException("QV2 scanner. The scanner couldn't be initialized.",
                            static_cast<int>(m_pScanner->GetLastError()));
    }
    if (!m_pScanner->SetLongImage()) {
        const unsigned long code = m_pScanner->GetLastError();
        if (code != kErrorLongImage) {
            throw ClVCException("QV2 scanner. Set camara resolution failed.",
                                static_cast<int>(code));
        }
    }
    if (!m_pScanner->HasExtendedAPI()) {
        Log(7,
            "QV2 scanner. The base version of API was detected. The extended memory couldn't "
            "be used.");
        throw ClVCException(err::kApiVersionText, vc::FGERR_API_VERSION_NOT_SUPPORTED);
    }
    Log(7, "QV2 scanner. The extended memory was detected.");
    try {
        m_pCalibration.reset(new CXCalibration(*m_pScanner));
    } catch (const Nvk::ClHeaderFormatException& e) {
        Log(3, "QV2 scanner. HeaderFormatException: %s", e.GetDescription());
        throw ClVCException(e.GetDescription(), vc::FGERR_CALIBRATION_CORRUPT);
    }
    m_bScannerInitialized = true;
}

void ClNorvakKR7SDK::UninitializeScanner() {
    CXDeviceLock lock(*this);
    if (m_bScannerInitialized) {
        m_pScanner->Unitialize();
        m_bScannerInitialized = false;
    }
}

void ClNorvakKR7SDK::FreeSDK() {
    StopAllChannel();
    UninitializeScanner();
}

void ClNorvakKR7SDK::InitializeSDK(ClFrameGrabberChannel&) {
    InitializeScanner();
}

void ClNorvakKR7SDK::UninitializeSDK(ClFrameGrabberChannel&) {}
void ClNorvakKR7SDK::StartLiveCapturing(ClFrameGrabberChannel&) {}
void ClNorvakKR7SDK::StopLiveCapturing(ClFrameGrabberChannel&) {}

bool ClNorvakKR7SDK::IsDirty(ClFrameGrabberChannel& channel) {
    return channel.GetChannelIndex() != m_nActiveChannel.load();
}

// ---- channel activation ---------------------------------------------------

FTRSCAN_IMAGE_SIZE ClNorvakKR7SDK::ReadImageSize() {
    FTRSCAN_IMAGE_SIZE size{};
    if (!m_pScanner->GetImageSize(&size)) {
        ThrowScannerError(m_pScanner->GetLastError(), "Couldn't read the image size of scanner.");
    }
    // A size no frame buffer can be made from: refused before anything is
    // sized from it.
    const long long pixels = static_cast<long long>(size.nWidth) * size.nHeight;
    if (size.nWidth <= 0 || size.nHeight <= 0 || size.nWidth > kMaxFrameSide ||
        size.nHeight > kMaxFrameSide || size.nImageSize <= 0 ||
        size.nImageSize > ClSimpleBitmap::BPRow(size.nWidth, 8) * size.nHeight ||
        size.nImageSize < pixels) {
        throw ClVCException("Couldn't read the image size of scanner.", vc::FGERR_FAILED);
    }
    return size;
}

void ClNorvakKR7SDK::SetActiveChannel(ClFrameGrabberChannel& channel, ClSimpleBitmap& bitmap) {
    CXDeviceLock lock(*this);
    InitializeScanner();
    if (bitmap.Empty()) {
        m_nActiveChannel = kNoChannel;
    }
    const unsigned int number = channel.GetChannelIndex();
    if (number == m_nActiveChannel.load()) {
        return;
    }
    Log(7, "QV2 scanner. Calling SetActiveChannel function. Channel number: %d", number);
    const FTRSCAN_IMAGE_SIZE size = ReadImageSize();
    Log(7, "QV2 scanner. The image width: %d, height: %d", size.nWidth, size.nHeight);
    channel.SetSDKData(new ClKR7ChannelGeometry(size.nWidth, size.nHeight));

    Log(7, "QV2 scanner. Preparation of calibration");
    m_RawBitmap.Create(size.nWidth, size.nHeight, 8);
    FuzzyImage(m_RawBitmap.Pixel());
    const unsigned int rawSize = static_cast<unsigned int>(m_RawBitmap.FullSize());
    const unsigned int calibrated = m_pCalibration->ResultImageSize(m_RawBitmap.Header(), rawSize);
    m_nCalibratedImageSize = calibrated;
    Log(7, "QV2 scanner. Calibrated image size: %d", calibrated);

    // The library's answer must describe a block that holds at least its
    // own header before a buffer is sized from it.
    if (calibrated < sizeof(tagBITMAPINFOHEADER) ||
        calibrated > static_cast<unsigned long long>(Nvk::bitmap::kMaxBlockSize)) {
        throw ClVCException("The Calibrate methode return the output bitmap size 0", -1);
    }
    std::unique_ptr<unsigned char[]> buffer(new (std::nothrow) unsigned char[calibrated]);
    if (!buffer) {
        throw Nvk::CXMemoryAllocException();
    }
    std::memset(buffer.get(), 0, calibrated);
    auto* header = reinterpret_cast<tagBITMAPINFOHEADER*>(buffer.get());
    unsigned int written = calibrated;
    m_pCalibration->CalibrateBitmap(m_RawBitmap.Header(), rawSize, header, &written);
    const long full = ClSimpleBitmap::FullSize(header);
    if (full <= 0 || static_cast<unsigned long long>(full) > calibrated) {
        throw ClVCException("The Calibrate methode return the output bitmap size 0", -1);
    }
    bitmap.Attach(reinterpret_cast<tagBITMAPINFOHEADER*>(buffer.release()));
    bitmap.SetWhite();
    m_nActiveChannel = number;
    m_nCurrentChannel = number;
    ApplyFakeFingerOption();
}

void ClNorvakKR7SDK::ApplyFakeFingerOption() {
    const char* failure;
    bool enable;
    if (!m_pFakeFingerOverride) {
        enable = m_pSetting->m_bFakeFingerDetection;
        if (enable) {
            Log(6, "QV2 scanner. Enable fake finger detection.");
        }
        failure = enable ? "Could not set the fake detection option"
                         : "Could not disable fake finger detetion";
    } else {
        enable = *m_pFakeFingerOverride != 0;
        Log(6, enable ? "QV2 scanner. Enable fake finger detection."
                      : "QV2 scanner. Disable fake finger detection.");
        failure = enable ? "Could not set option for fake finger detection"
                         : "Could not disable the fake finger detection.";
    }
    if (!m_pScanner->SetOptions(1, enable ? 1 : 0)) {
        ThrowScannerError(m_pScanner->GetLastError(), failure);
    }
}

void ClNorvakKR7SDK::ThrowScannerError(unsigned long code, const char* text) {
    if (code == static_cast<unsigned long>(vc::FGERR_DISCONNECTED)) {
        CheckScannerError(code);
    }
    throw ClVCException(text, static_cast<int>(code));
}

// ---- frames -------------------------------------------------------------

void ClNorvakKR7SDK::FuzzyImage(unsigned char* buffer) {
    if (!m_pScanner->GetImageByDose(buffer, static_cast<int>(m_pSetting->m_nContaminationDose))) {
        const unsigned long code = m_pScanner->GetLastError();
        Log(3, "QV2 scanner. CaptureFuzzyImage function failed. Error number: 0x%x",
            static_cast<unsigned int>(code));
        ThrowScannerError(code, "Capture raw image failed.");
    }
}

void ClNorvakKR7SDK::GetLiveBitmap(ClFrameGrabberChannel& channel, ClSimpleBitmap& bitmap) {
    CXDeviceLock lock(*this);
    // A host operation between two frames may have closed the scanner or
    // selected another one (scanner list, selection): open it again and
    // shape the channel anew, as after a first start.
    if (!m_bScannerInitialized || !m_pScanner->IsOpen()) {
        m_nActiveChannel = kNoChannel;
    }
    if (m_nActiveChannel.load() != channel.GetChannelIndex() || m_pCalibration == nullptr ||
        m_RawBitmap.Empty() || bitmap.Empty()) {
        SetActiveChannel(channel, bitmap);
    }
    const bool byDose = !m_pFakeFingerOverride || *m_pFakeFingerOverride == 0;
    const bool taken =
        byDose ? m_pScanner->GetImageByDose(m_RawBitmap.Pixel(),
                                            static_cast<int>(m_pSetting->m_nContaminationDose))
               : m_pScanner->CaptureImage(m_RawBitmap.Pixel(), 0);
    if (taken) {
        PrepareImage(m_RawBitmap);
        Log(7, "QV2 scanner. CalibrateBitmap.");
        // The calibration writes no further than the bitmap's own block.
        const unsigned long long held = static_cast<unsigned long long>(bitmap.FullSize());
        unsigned int size = held < m_nCalibratedImageSize ? static_cast<unsigned int>(held)
                                                          : m_nCalibratedImageSize;
        m_pCalibration->CalibrateBitmap(m_RawBitmap.Header(),
                                        static_cast<unsigned int>(m_RawBitmap.FullSize()),
                                        bitmap.Header(), &size);
        return;
    }
    const unsigned long code = m_pScanner->GetLastError();
    Log(7, "QV2 scanner. CaptureFrame: %d", static_cast<int>(code));
    if (CheckScannerError(code)) {
        bitmap.SetWhite();
    }
}

void ClNorvakKR7SDK::PrepareImage(ClSimpleBitmap& bitmap) {
    Log(7, "QV2 scanner. Calling PrepareImage function");
    if (bitmap.Empty() || bitmap.BitCount() != 8 || bitmap.Width() <= 0 || bitmap.Height() <= 0) {
        return;
    }
    const long width = bitmap.Width();
    const long height = bitmap.Height();
    const long stride = bitmap.BPRow();
    unsigned char* pixels = bitmap.Pixel();
    // 255 - v is ~v on a byte: 16 bytes at a time where the machine has
    // SSE2 (every x86-64 does), whole 64-bit words elsewhere, the rest
    // bytewise.
    for (long i = 0; i < height / 2; ++i) {
        unsigned char* top = pixels + i * stride;
        unsigned char* bottom = pixels + (height - 1 - i) * stride;
        long x = 0;
#if defined(__SSE2__)
        const __m128i ones = _mm_set1_epi8(-1);
        for (; x + 16 <= width; x += 16) {
            const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(top + x));
            const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bottom + x));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(top + x), _mm_xor_si128(b, ones));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(bottom + x), _mm_xor_si128(a, ones));
        }
#endif
        for (; x + 8 <= width; x += 8) {
            std::uint64_t a;
            std::uint64_t b;
            std::memcpy(&a, top + x, 8);
            std::memcpy(&b, bottom + x, 8);
            a = ~a;
            b = ~b;
            std::memcpy(top + x, &b, 8);
            std::memcpy(bottom + x, &a, 8);
        }
        for (; x < width; ++x) {
            const unsigned char a = top[x];
            top[x] = static_cast<unsigned char>(255 - bottom[x]);
            bottom[x] = static_cast<unsigned char>(255 - a);
        }
    }
    if (height % 2 != 0) {
        unsigned char* middle = pixels + (height / 2) * stride;
        for (long x = 0; x < width; ++x) {
            middle[x] = static_cast<unsigned char>(255 - middle[x]);
        }
    }
}

void ClNorvakKR7SDK::Snap(unsigned int ch, unsigned char** image) {
    Log(7, "QV2 scanner. Calling Snap function. Channel number: %d", ch);
    ClNorvakKR7Channel& channel = Channel(ch);
    if (image == nullptr) {
        throw ClVCException("The image pointer is null.", vc::FGERR_FAILED);
    }
    channel.StopCapture();
    CXDeviceLock lock(*this);
    InitializeScanner();
    SetDefaultCamera(ch);
    ClSimpleBitmap bitmap;
    SetActiveChannel(channel, bitmap);
    GetLiveBitmap(channel, bitmap);
    *image = reinterpret_cast<unsigned char*>(bitmap.Detach());
}

// ---- forwarding to the channels -------------------------------------------

ClNorvakKR7Channel& ClNorvakKR7SDK::Channel(unsigned int ch) {
    // Channels are numbered from 1; 0 wraps to an index no vector has.
    return get_item(m_vChannels, static_cast<std::size_t>(ch) - 1);
}

void ClNorvakKR7SDK::StartCapture(int handle, unsigned int ch, eCaptureModeIDs mode,
                                  FGImageCallback image, FGResultCallback result,
                                  FGErrorCallback error, FGWarningCallback warning, void* user) {
    Log(7,
        "QV2 scanner. Calling StartCapture. Framegrabber handle: %d, channel number: %d, capture "
        "mode ID: %d",
        handle, ch, static_cast<int>(mode));
    ClFrameGrabberChannel::m_pFramegrabberSDK = this;
    SetDefaultCamera(ch);
    if (!Channel(ch).StartCapture(handle, mode, image, result, error, warning, user)) {
        throw Nvk::CXSystemException(EAGAIN);  // no worker thread could be had
    }
}

void ClNorvakKR7SDK::StopCapture(unsigned int ch) {
    Log(7, "QV2 scanner. Calling StopCapture function. Channel number: %d", ch);
    Channel(ch).StopCapture();
    m_nActiveChannel = kNoChannel;
}

void ClNorvakKR7SDK::SetFilter(unsigned int ch, eFilterIDs filter) {
    Log(7, "QV2 scanner. Calling SetFilter function. Channel number: %d, filter ID: %d", ch,
        static_cast<int>(filter));
    Channel(ch).SetFilter(filter);
}

void ClNorvakKR7SDK::SetResolution(unsigned int ch, const ClImageResolution& resolution) {
    Log(7, "QV scanner. Calling SetResolution function. Channel number: %d, X: %d, Y: %d", ch,
        resolution.X(), resolution.Y());
    Channel(ch).SetResolution(resolution);
}

void ClNorvakKR7SDK::Freeze(unsigned int ch, bool enable) {
    Log(7, "QV2 scanner. Calling Freeze function. Channel number: %d, enable: %d", ch,
        static_cast<int>(enable));
    Channel(ch).SetPaused(enable);
}

void ClNorvakKR7SDK::SetAspectRatio(unsigned int ch, double x, double y) {
    Log(7, "QV2 scanner. SetAspectRatio. nChannelNo: %d, X: %4.1f, Y: %4.1f", ch, x, y);
    Channel(ch).SetAspectRatio(x, y);
}

void ClNorvakKR7SDK::SetCallbacks(unsigned int ch, FGStartCallback start, FGStopCallback stop) {
    Log(7, "QV2 scanner Setting of start and stop callbacks");
    Channel(ch).SetCallbacks(start, stop);
}

void ClNorvakKR7SDK::SetCamera(unsigned int ch, eCameraIDs camera, eColorModeIDs colorMode) {
    Log(7, "QV2 scanner. SetCamera. Channel number: %d, camera ID: %d, color mode: %d", ch,
        static_cast<int>(camera), static_cast<int>(colorMode));
    if (colorMode != eColorGray8) {
        throw ClVCException(err::kBadColorModeText, vc::FGERR_COLOR_MODE_NOT_SUPPORTED);
    }
    Channel(ch).SetCamera(camera, eColorGray8);
}

void ClNorvakKR7SDK::RefreshBackGround(unsigned int, ClFramegrabber&) {}

void ClNorvakKR7SDK::StopAllChannel() {
    for (ClNorvakKR7Channel& channel : m_vChannels) {
        channel.StopCapture();
    }
}

void ClNorvakKR7SDK::SetDefaultCamera(unsigned int) {
    g_bDefaultCameraSet.store(true);
}

}  // namespace vc
