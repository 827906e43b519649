/* C interface of the scanner API, libQV2ScanAPI.so. The plug-in resolves
 * these entries by name at run time and never links the library; the
 * stand-in under sim/scanner defines them from this same declaration.
 *
 * Binary-compatible with the closed scanner library on Linux x86-64: plain C
 * functions, default calling convention, byte-packed structures. BOOL results
 * are int, nonzero for success; after a failure ftrScanGetLastError on the
 * same thread gives the reason (FTR_ERROR_* below). */
#ifndef KR7SIM_FTRSCAN_H
#define KR7SIM_FTRSCAN_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define FTR_API __attribute__((visibility("default")))
#else
#define FTR_API
#endif

typedef int FTR_BOOL;
typedef void* FTRHANDLE;

#define FTR_MAX_INTERFACE_NUMBER 128

/* Option bits of ftrScanSetOptions / ftrScanGetOptions. */
#define FTR_OPTIONS_CHECK_FAKE_REPLICA 0x01u
#define FTR_OPTIONS_FAST_FINGER_DETECT_METHOD 0x02u
#define FTR_OPTIONS_RECEIVE_LONG_IMAGE 0x04u
#define FTR_OPTIONS_INVERT_IMAGE 0x40u

/* Error codes of ftrScanGetLastError. */
#define FTR_ERROR_SUCCESS 0u
#define FTR_ERROR_NOT_ENOUGH_MEMORY 8u
#define FTR_ERROR_NOT_READY 21u
#define FTR_ERROR_DEVICE_NOT_FUNCTIONING 31u
#define FTR_ERROR_NOT_SUPPORTED 50u
#define FTR_ERROR_INVALID_PARAMETER 87u
#define FTR_ERROR_CALL_NOT_IMPLEMENTED 120u
#define FTR_ERROR_NO_MORE_ITEMS 259u
#define FTR_ERROR_TIMEOUT 1460u
#define FTR_ERROR_EMPTY_FRAME 4306u
#define FTR_ERROR_MOVABLE_FINGER 0x20000001u
#define FTR_ERROR_NO_FRAME 0x20000002u
#define FTR_ERROR_USER_CANCELED 0x20000003u
#define FTR_ERROR_HARDWARE_INCOMPATIBLE 0x20000004u
#define FTR_ERROR_FIRMWARE_INCOMPATIBLE 0x20000005u

#pragma pack(push, 1)

typedef struct {
    int nWidth;
    int nHeight;
    int nImageSize; /* bytes of one 8-bit frame */
} FTRSCAN_IMAGE_SIZE;

typedef struct {
    int InterfaceStatus[FTR_MAX_INTERFACE_NUMBER]; /* 0 = a scanner is connected */
} FTRSCAN_INTERFACES_LIST;

typedef struct {
    uint16_t wMajorVersionHi;
    uint16_t wMajorVersionLo;
    uint16_t wMinorVersionHi;
    uint16_t wMinorVersionLo; /* 0xFFFF = unknown */
} FTRSCAN_VERSION;

typedef struct {
    uint32_t dwVersionInfoSize; /* set by the caller to sizeof(FTRSCAN_VERSION_INFO) */
    FTRSCAN_VERSION APIVersion;
    FTRSCAN_VERSION HardwareVersion;
    FTRSCAN_VERSION FirmwareVersion;
} FTRSCAN_VERSION_INFO;

#pragma pack(pop)

/* Opaque to callers; always passed as null. */
typedef struct FTRSCAN_FRAME_PARAMETERS FTRSCAN_FRAME_PARAMETERS;

/* Base group. */
FTR_API FTRHANDLE ftrScanOpenDevice(void);
FTR_API FTR_BOOL ftrScanCloseDevice(FTRHANDLE handle);
FTR_API FTR_BOOL ftrScanSetOptions(FTRHANDLE handle, uint32_t mask, uint32_t flags);
FTR_API FTR_BOOL ftrScanGetOptions(FTRHANDLE handle, uint32_t* flags);
FTR_API FTR_BOOL ftrScanGetImageSize(FTRHANDLE handle, FTRSCAN_IMAGE_SIZE* size);
FTR_API FTR_BOOL ftrScanGetFrame(FTRHANDLE handle, void* buffer, FTRSCAN_FRAME_PARAMETERS* params);
FTR_API FTR_BOOL ftrScanGetBacklightImage(FTRHANDLE handle, void* buffer);
FTR_API FTR_BOOL ftrScanGetDarkImage(FTRHANDLE handle, void* buffer);
FTR_API FTR_BOOL ftrScanGetImage(FTRHANDLE handle, int dose, void* buffer);
FTR_API FTR_BOOL ftrScanIsFingerPresent(FTRHANDLE handle, FTRSCAN_FRAME_PARAMETERS* params);
FTR_API FTR_BOOL ftrScanSave7Bytes(FTRHANDLE handle, void* sevenBytes);
FTR_API FTR_BOOL ftrScanRestore7ControlBytes(FTRHANDLE handle, void* sevenBytes);
FTR_API FTR_BOOL ftrScanGetDiodesStatus(FTRHANDLE handle, FTR_BOOL* greenOn, FTR_BOOL* redOn);
FTR_API FTR_BOOL ftrScanSetDiodesStatus(FTRHANDLE handle, uint8_t green, uint8_t red);
FTR_API FTR_BOOL ftrScanGetInterfaces(FTRSCAN_INTERFACES_LIST* list);
FTR_API FTR_BOOL ftrSetBaseInterface(int interfaceNumber);
FTR_API int ftrGetBaseInterfaceNumber(void);
FTR_API FTR_BOOL ftrScanSaveSerialNumber(FTRHANDLE handle, void* block);
FTR_API FTR_BOOL ftrScanGetImageByVariableDose(FTRHANDLE handle, int dose, void* buffer);
FTR_API FTR_BOOL ftrScanGetImage2(FTRHANDLE handle, int dose, void* buffer);
FTR_API uint32_t ftrScanGetLastError(void);
FTR_API void ftrScanSetLastError(uint32_t code);

/* Extended group. */
FTR_API FTR_BOOL ftrScanGetExtMemorySize(FTRHANDLE handle, int* size);
FTR_API FTR_BOOL ftrScanSaveExtMemory(FTRHANDLE handle, void* data, int offset, int count);
FTR_API FTR_BOOL ftrScanRestoreExtMemory(FTRHANDLE handle, void* data, int offset, int count);
FTR_API FTR_BOOL ftrScanGetSerialNumber(FTRHANDLE handle, void* eightBytes);
FTR_API FTR_BOOL ftrScanGetVersion(FTRHANDLE handle, FTRSCAN_VERSION_INFO* info);

#ifdef __cplusplus
}
#endif

#endif
