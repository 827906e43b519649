/* C interface of the logging library, libnorvaklf.so. The plug-in resolves
 * these entries by name at run time and never links the library; the
 * stand-in under sim/logging defines them from this same declaration.
 *
 * The stand-in's output goes to standard error, or to the file named by KR7_LOG_FILE; only
 * messages whose level is at or below KR7_LOG_LEVEL are written (see
 * README.md). Both variables are read once, at the first message. Every call
 * is thread-safe; each message is written as one whole line. */
#ifndef NORVAK_LF_H
#define NORVAK_LF_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define NVK_LF_API __attribute__((visibility("default")))
#define NVK_LF_PRINTF(f, a) __attribute__((format(printf, f, a)))
#else
#define NVK_LF_API
#define NVK_LF_PRINTF(f, a)
#endif

/* Message levels, most severe first. */
typedef enum NvkLFLogLevels {
    NvkLFEmergency = 0,
    NvkLFAlert = 1,
    NvkLFCritical = 2,
    NvkLFError = 3,
    NvkLFWarning = 4,
    NvkLFNotice = 5,
    NvkLFInfo = 6,
    NvkLFTrace = 7
} NvkLFLogLevels;

/* Outcome of one NvkLFLog call, returned by value (fits in registers). */
typedef struct NvkLFResult {
    int32_t status; /* 1 written, 0 filtered out by the level, -1 failed */
    int32_t length; /* bytes written, line end included */
} NvkLFResult;

/* Events the library reports to a registered callback. The data block of an
 * event holds a zero-terminated log file name at byte 256 and the 16-bit
 * level at byte 768. */
typedef enum NvkLFCBEvents {
    NvkLFCBEnable = 0,
    NvkLFCBDisable = 1,
    NvkLFCBFlush = 2,
    NvkLFCBLevel = 3
} NvkLFCBEvents;

/* Formats a printf-style message and writes it as one line:
 *   "YYYY-MM-DD HH:MM:SS.uuuuuu [tid N] LEVEL: message" */
NVK_LF_API NvkLFResult NvkLFLog(NvkLFLogLevels level, const char* format, ...) NVK_LF_PRINTF(2, 3);

/* Pushes written lines to the storage device (a log file is synced). */
NVK_LF_API void NvkLFFlush(void);

#ifdef __cplusplus
}
#endif

#endif
