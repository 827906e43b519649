// Logging library stand-in. Lines are formatted in full on the caller's
// thread and written with a single write(2) under a mutex, so lines of
// different threads never mix.
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <strings.h>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

#include "closed/norvaklf.h"

namespace {

constexpr int kDefaultThreshold = NvkLFWarning;

struct Sink {
    int fd = STDERR_FILENO;
    bool ownsFd = false;
    int threshold = kDefaultThreshold;
};

const char* const kLevelNames[] = {"EMERGENCY", "ALERT",  "CRITICAL", "ERROR",
                                   "WARNING",   "NOTICE", "INFO",     "TRACE"};

// A number 0..7 or a level name (case-insensitive; "debug" is "trace").
int ParseThreshold(const char* text) {
    if (text == nullptr || *text == '\0') {
        return kDefaultThreshold;
    }
    char* end = nullptr;
    const long number = std::strtol(text, &end, 10);
    if (*end == '\0' && number >= 0 && number <= NvkLFTrace) {
        return int(number);
    }
    for (int level = 0; level <= NvkLFTrace; ++level) {
        if (strcasecmp(text, kLevelNames[level]) == 0) {
            return level;
        }
    }
    if (strcasecmp(text, "debug") == 0) {
        return NvkLFTrace;
    }
    if (strcasecmp(text, "none") == 0 || strcasecmp(text, "off") == 0) {
        return INT_MIN;
    }
    return kDefaultThreshold;
}

bool WriteAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        data += n;
        size -= std::size_t(n);
    }
    return true;
}

std::mutex g_writeMutex;

Sink& TheSink() {
    // Configured once, at the first message, from the environment.
    static Sink sink = [] {
        Sink s;
        s.threshold = ParseThreshold(std::getenv("KR7_LOG_LEVEL"));
        const char* path = std::getenv("KR7_LOG_FILE");
        if (path != nullptr && *path != '\0') {
            const int fd = ::open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
            if (fd >= 0) {
                s.fd = fd;
                s.ownsFd = true;
            } else {
                const std::string note = std::string("libnorvaklf: cannot open log file ") + path +
                                         ": " + std::strerror(errno) +
                                         "; logging to standard error\n";
                WriteAll(STDERR_FILENO, note.data(), note.size());
            }
        }
        return s;
    }();
    return sink;
}

void AppendPrefix(std::string& line, int level) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    std::tm local{};
    localtime_r(&now.tv_sec, &local);
    char stamp[64];
    const std::size_t n = std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    line.append(stamp, n);
    char rest[96];
    const long tid = long(::syscall(SYS_gettid));
    if (level >= 0 && level <= NvkLFTrace) {
        std::snprintf(rest, sizeof rest, ".%06ld [tid %ld] %s: ", long(now.tv_nsec / 1000), tid,
                      kLevelNames[level]);
    } else {
        std::snprintf(rest, sizeof rest, ".%06ld [tid %ld] LEVEL%d: ", long(now.tv_nsec / 1000),
                      tid, level);
    }
    line += rest;
}

}  // namespace

extern "C" {

NvkLFResult NvkLFLog(NvkLFLogLevels level, const char* format, ...) {
    NvkLFResult result{0, 0};
    const Sink& sink = TheSink();
    if (int(level) > sink.threshold) {
        return result;
    }
    if (format == nullptr) {
        result.status = -1;
        return result;
    }
    std::string line;
    AppendPrefix(line, int(level));
    const std::size_t prefix = line.size();

    char small[512];
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    const int needed = std::vsnprintf(small, sizeof small, format, args);
    va_end(args);
    if (needed < 0) {
        va_end(copy);
        result.status = -1;
        return result;
    }
    if (std::size_t(needed) < sizeof small) {
        line.append(small, std::size_t(needed));
    } else {
        line.resize(prefix + std::size_t(needed) + 1);
        std::vsnprintf(&line[prefix], std::size_t(needed) + 1, format, copy);
        line.resize(prefix + std::size_t(needed));
    }
    va_end(copy);
    while (line.size() > prefix && (line.back() == '\n' || line.back() == '\r')) {
        line.pop_back();
    }
    line += '\n';

    std::lock_guard<std::mutex> lock(g_writeMutex);
    if (!WriteAll(sink.fd, line.data(), line.size())) {
        result.status = -1;
        return result;
    }
    result.status = 1;
    result.length = std::int32_t(line.size());
    return result;
}

#ifndef KR7_LF_WITHOUT_FLUSH
void NvkLFFlush(void) {
    const Sink& sink = TheSink();
    std::lock_guard<std::mutex> lock(g_writeMutex);
    if (sink.ownsFd) {
        ::fdatasync(sink.fd);
    }
}
#endif

}  // extern "C"
