/* C interface of the calibration library, libnorvakcalibratesdk.so. The
 * plug-in resolves these entries by name at run time and never links the
 * library; the stand-in under sim/calibration defines them from this same
 * declaration.
 *
 * Images are packed 8-bit DIBs: a 40-byte BITMAPINFOHEADER, the colour table
 * (biClrUsed entries, or 256 when it is 0) and the rows, each padded to a
 * multiple of 4 bytes, row 0 first. Pixel values are taken as grey levels; the
 * colour table is not consulted. Sizes are those of the whole block.
 *
 * The calibration data (CalibrateSetData) is the unit's optics record; see
 * sim/common/optics.h. Every function returns 0 on success or one of the
 * negative codes below; CalibrateGetErrorDescription gives its text. */
#ifndef NORVAK_CALIBRATE_SDK_H
#define NORVAK_CALIBRATE_SDK_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define NVK_CAL_API __attribute__((visibility("default")))
#else
#define NVK_CAL_API
#endif

struct tagBITMAPINFOHEADER;

enum {
    NVK_CAL_OK = 0,
    NVK_CAL_BAD_HANDLE = -1,     /* null instance handle */
    NVK_CAL_BAD_PARAMETER = -2,  /* a required pointer is null */
    NVK_CAL_NO_MEMORY = -3,      /* allocation failed */
    NVK_CAL_NO_DATA = -10,       /* no calibration data accepted yet */
    NVK_CAL_BAD_DATA = -11,      /* calibration data malformed or truncated */
    NVK_CAL_BAD_FORMAT = -20,    /* input is not an uncompressed 8-bit DIB */
    NVK_CAL_OUTPUT_SIZE = -21,   /* output missing or too small; size reported */
    NVK_CAL_SIZE_MISMATCH = -22, /* frame size differs from the calibration data */
    NVK_CAL_INPUT_SHORT = -23    /* block smaller than the image it describes */
};

/* A new instance without calibration data; null when out of memory. */
NVK_CAL_API void* CalibrateCreate(void);

/* Corrects one frame: undoes the keystone, flattens the illumination and crops
 * the unit's margins. `*outputSize` is the capacity of `output` on entry and
 * the size written on return. A null `output` or a capacity below the
 * result's size returns NVK_CAL_OUTPUT_SIZE with the needed size in
 * `*outputSize`. */
NVK_CAL_API int32_t Calibrate(void* handle, const struct tagBITMAPINFOHEADER* input,
                              unsigned int inputSize, struct tagBITMAPINFOHEADER* output,
                              unsigned int* outputSize);

/* Releases the instance `*handle` and sets it to null; a null pointer or null
 * handle is ignored. */
NVK_CAL_API void CalibrateDelete(void** handle);

/* Accepts the unit's calibration data. Malformed data returns NVK_CAL_BAD_DATA
 * and leaves data accepted earlier in place. */
NVK_CAL_API int32_t CalibrateSetData(void* handle, const unsigned char* data, unsigned int size);

/* Text of an error code; never null, owned by the library. */
NVK_CAL_API const char* CalibrateGetErrorDescription(int32_t code);

/* Contamination of the platen in an uncorrected frame (same format as the
 * input of Calibrate): the fraction (0..1) of the corrected platen area that
 * is noticeably darker than the clean platen. 0 for a clean platen. */
NVK_CAL_API int32_t ContaminationDetection(void* handle, const struct tagBITMAPINFOHEADER* image,
                                           unsigned int imageSize, double* result);

#ifdef __cplusplus
}
#endif

#endif
