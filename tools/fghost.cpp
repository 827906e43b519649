// fghost: a minimal host of the frame-grabber plug-in. It loads
// libnorvakkr7fg.so.1 at run time, as imaging applications do, captures
// through GetFrameGrabber's object and writes what the plug-in delivers (live
// frames and finger results) as BMP files.
//
// Only the public header of the plug-in is used. The plug-in opens the
// scanner's libraries by name, so LD_LIBRARY_PATH picks them (the virtual
// scanner's stand-ins, for instance).
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <mutex>
#include <string>
#include <vector>

#include "base/framegrabber.h"

namespace {

// Set in the result of a failed call (FGERR_FLAG of the host contract).
constexpr unsigned int kErrorFlag = 0x10000000u;

void Usage(const char* self) {
    std::fprintf(stderr,
                 "usage: %s [-l PLUGIN] [-m plain|live] [-n FRAMES] [-e EVERY] [-o DIR] [-t SEC]\n"
                 "  -l  the plug-in (default: libnorvakkr7fg.so.1 next to this program)\n"
                 "  -m  capture mode: plain finger results (default) or live frames only\n"
                 "  -n  live frames to take before stopping (default 150)\n"
                 "  -e  keep every EVERY-th live frame as live_NNNN.bmp (default 25; 0: none)\n"
                 "  -o  output folder (default .)\n"
                 "  -t  give up after SEC seconds without enough frames (default 120)\n",
                 self);
}

std::string NextToThisProgram(const char* name) {
    std::vector<char> path(4096, '\0');
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size() - 1);
    if (length <= 0) {
        return name;
    }
    std::string self(path.data(), static_cast<std::size_t>(length));
    const std::size_t slash = self.rfind('/');
    return slash == std::string::npos ? std::string(name) : self.substr(0, slash + 1) + name;
}

// ---- BMP files ----------------------------------------------------------------

std::uint32_t Read32(const unsigned char* p) {
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

std::uint16_t Read16(const unsigned char* p) {
    return static_cast<std::uint16_t>(p[0] | p[1] << 8);
}

void Put32(unsigned char* p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<unsigned char>(v >> (8 * i));
    }
}

// Bytes of a packed bitmap (BITMAPINFOHEADER, palette, rows) and where its
// rows start; 0 for a header this program does not understand.
struct Layout {
    std::uint32_t block = 0;
    std::uint32_t pixels = 0;  // offset of the first row
    std::uint32_t stride = 0;
    std::uint32_t rows = 0;
    std::int32_t width = 0;
};

Layout LayoutOf(const unsigned char* image) {
    Layout layout;
    if (image == nullptr) {
        return layout;
    }
    const std::uint32_t headerSize = Read32(image);
    const std::int32_t width = static_cast<std::int32_t>(Read32(image + 4));
    const std::int32_t height = static_cast<std::int32_t>(Read32(image + 8));
    const std::uint16_t bits = Read16(image + 14);
    const std::uint32_t colours = Read32(image + 32);
    if (headerSize < 40 || width <= 0 || height == 0 || (bits != 8 && bits != 24 && bits != 32)) {
        return layout;
    }
    layout.width = width;
    layout.rows = static_cast<std::uint32_t>(height < 0 ? -height : height);
    layout.stride = (static_cast<std::uint32_t>(width) * bits + 31) / 32 * 4;
    layout.pixels = headerSize + 4 * (colours != 0 ? colours : (bits == 8 ? 256 : 0));
    layout.block = layout.pixels + layout.stride * layout.rows;
    return layout;
}

// Writes a packed bitmap behind a 14-byte BITMAPFILEHEADER. False for a
// header this program does not understand or a file that cannot be written.
bool WriteBmp(const std::string& path, const unsigned char* image) {
    const Layout layout = LayoutOf(image);
    if (layout.block == 0) {
        return false;
    }
    unsigned char file[14] = {'B', 'M'};
    Put32(file + 2, 14 + layout.block);
    Put32(file + 10, 14 + layout.pixels);
    std::FILE* out = std::fopen(path.c_str(), "wb");
    if (out == nullptr) {
        return false;
    }
    const bool written = std::fwrite(file, 1, sizeof file, out) == sizeof file &&
                         std::fwrite(image, 1, layout.block, out) == layout.block;
    return std::fclose(out) == 0 && written;
}

// Mean of the middle row's first `width` bytes: lower for a darker print.
unsigned MiddleRowMean(const unsigned char* image) {
    const Layout layout = LayoutOf(image);
    if (layout.block == 0 || layout.rows == 0) {
        return 0;
    }
    const unsigned char* row = image + layout.pixels + layout.stride * (layout.rows / 2);
    unsigned long sum = 0;
    for (std::int32_t x = 0; x < layout.width; ++x) {
        sum += row[x];
    }
    return static_cast<unsigned>(sum / static_cast<unsigned long>(layout.width));
}

std::string FileName(const std::string& dir, const char* kind, int number) {
    char name[32];
    std::snprintf(name, sizeof name, "/%s_%04d.bmp", kind, number);
    return dir + name;
}

// ---- the capture ----------------------------------------------------------------

// What the callbacks share with the main thread. They run on the plug-in's
// capture thread; images are valid only during the call. The detector
// reports a finger on every frame while it lies still: of each placement
// only the darkest result is kept, written when the finger goes.
struct Capture {
    std::string dir;
    int frames = 150;
    int every = 25;

    std::mutex mutex;
    std::condition_variable changed;
    int images = 0;        // under mutex
    int results = 0;       // under mutex: placements written
    int saved = 0;         // under mutex
    bool failed = false;   // under mutex: the capture ended with an error
    bool stopped = false;  // under mutex: the capture thread has ended
    // The best result of the current placement; only the capture thread
    // touches it until the capture has stopped.
    std::vector<unsigned char> best;
    unsigned bestMean = 0;
    int bestFrame = -1;
    int lastResultFrame = -1;

    static Capture& Of(void* user) { return *static_cast<Capture*>(user); }

    // Writes the kept result, if any, and forgets it.
    void WriteBest() {
        if (best.empty()) {
            return;
        }
        const std::string file = FileName(dir, "result", bestFrame);
        if (WriteBmp(file, best.data())) {
            std::printf("frame %4d: finger result, middle row mean %u -> %s\n", bestFrame, bestMean,
                        file.c_str());
            std::lock_guard<std::mutex> lock(mutex);
            ++results;
        } else {
            std::fprintf(stderr, "frame %4d: could not write %s\n", bestFrame, file.c_str());
        }
        best.clear();
    }

    static void OnImage(int, unsigned int, unsigned char* image, void* user) {
        Capture& self = Of(user);
        std::unique_lock<std::mutex> lock(self.mutex);
        const int number = self.images++;
        const bool keep = self.every > 0 && number % self.every == 0 && number < self.frames;
        lock.unlock();
        if (self.lastResultFrame + 1 < number) {
            self.WriteBest();  // the previous frame had no finger: the placement ended
        }
        if (keep) {
            const bool ok = WriteBmp(FileName(self.dir, "live", number), image);
            lock.lock();
            self.saved += ok ? 1 : 0;
            lock.unlock();
            if (!ok) {
                std::fprintf(stderr, "frame %4d: could not write live_%04d.bmp\n", number, number);
            }
        }
        self.changed.notify_all();
    }

    static void OnResult(int, unsigned int, int, unsigned char* image, void* user) {
        Capture& self = Of(user);
        std::unique_lock<std::mutex> lock(self.mutex);
        const int frame = self.images - 1;
        lock.unlock();
        self.lastResultFrame = frame;
        const Layout layout = LayoutOf(image);
        const unsigned mean = MiddleRowMean(image);
        if (layout.block != 0 && (self.best.empty() || mean < self.bestMean)) {
            self.best.assign(image, image + layout.block);
            self.bestMean = mean;
            self.bestFrame = frame;
        }
    }

    static void OnError(int, unsigned int, const char* text, void* user) {
        Capture& self = Of(user);
        std::fprintf(stderr, "capture error: %s\n", text ? text : "(no text)");
        std::lock_guard<std::mutex> lock(self.mutex);
        self.failed = true;
        self.changed.notify_all();
    }

    static void OnWarning(int, unsigned int, const char* text, void*) {
        std::fprintf(stderr, "capture warning: %s\n", text ? text : "(no text)");
    }

    static void OnStop(int, unsigned int, void* user) {
        Capture& self = Of(user);
        std::lock_guard<std::mutex> lock(self.mutex);
        self.stopped = true;
        self.changed.notify_all();
    }
};

// The plug-in's last error text.
std::string LastError(vc::ClFramegrabber& fg) {
    unsigned long size = 0;
    fg.GetLastError(nullptr, size);
    std::string text(size + 1, '\0');
    if (fg.GetLastError(&text[0], size) != 0) {
        return "(no text)";
    }
    return text.c_str();
}

// True when `result` is 0; otherwise tells what failed.
bool Succeeded(vc::ClFramegrabber& fg, const char* what, unsigned int result) {
    if (result == 0) {
        return true;
    }
    if ((result & kErrorFlag) != 0) {
        std::fprintf(stderr, "%s failed: error %u (0x%08x): %s\n", what, result & ~kErrorFlag,
                     result, LastError(fg).c_str());
    } else {
        std::fprintf(stderr, "%s failed: %u\n", what, result);
    }
    return false;
}

bool ListScanners(vc::ClFramegrabber& fg) {
    unsigned long count = 0;
    // A size query: "more data" is the expected answer.
    const unsigned int query = fg.AvailableDevices(nullptr, count);
    if (query != (kErrorFlag | 17u) && !Succeeded(fg, "AvailableDevices", query)) {
        return false;
    }
    if (count == 0) {
        std::fprintf(stderr, "no scanner connected\n");
        return false;
    }
    std::vector<vc::DeviceInfo> devices(count);
    if (!Succeeded(fg, "AvailableDevices", fg.AvailableDevices(devices.data(), count))) {
        return false;
    }
    for (unsigned long i = 0; i < count && i < devices.size(); ++i) {
        std::printf("scanner %lu: serial %.8s on interface %u\n", i, devices[i].SerialNumber,
                    devices[i].Index);
    }
    return true;
}

// Initialises, captures until enough frames came (or an error or the
// timeout), stops and uninitialises. True when everything succeeded.
bool Run(vc::ClFramegrabber& fg, vc::eCaptureModeIDs mode, Capture& capture, int seconds) {
    if (!Succeeded(fg, "Initizalize", fg.Initizalize(nullptr))) {
        return false;
    }
    bool ok = ListScanners(fg);
    char version[32] = {};
    unsigned long size = sizeof version - 1;
    ok = ok && Succeeded(fg, "GetVersion", fg.GetVersion(version, size));
    ok = ok && Succeeded(fg, "SetCallbacks", fg.SetCallbacks(1, nullptr, &Capture::OnStop));
    if (ok) {
        std::printf("plug-in %s, capture mode %s\n", version,
                    mode == vc::eCaptureLive ? "live" : "plain finger");
        ok = Succeeded(fg, "StartCapture",
                       fg.StartCapture(1, 1, mode, &Capture::OnImage, &Capture::OnResult,
                                       &Capture::OnError, &Capture::OnWarning, &capture));
    }
    if (ok) {
        std::unique_lock<std::mutex> lock(capture.mutex);
        const bool done = capture.changed.wait_for(lock, std::chrono::seconds(seconds), [&] {
            return capture.images >= capture.frames || capture.failed || capture.stopped;
        });
        if (!done) {
            std::fprintf(stderr, "only %d frames in %d seconds\n", capture.images, seconds);
        }
        ok = done && !capture.failed && !capture.stopped;
        // No lock while the plug-in stops its thread: the callbacks take it.
        lock.unlock();
        ok = Succeeded(fg, "StopCapture", fg.StopCapture(1)) && ok;
        capture.WriteBest();  // a finger still on the platen at the end
    }
    return Succeeded(fg, "Uninitialize", fg.Uninitialize()) && ok;
}

}  // namespace

int main(int argc, char** argv) {
    std::string plugin;
    std::string modeName = "plain";
    int seconds = 120;
    Capture capture;
    capture.dir = ".";
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (i + 1 >= argc) {
            Usage(argv[0]);
            return 2;
        }
        const char* value = argv[++i];
        if (arg == "-l") {
            plugin = value;
        } else if (arg == "-m") {
            modeName = value;
        } else if (arg == "-n") {
            capture.frames = std::atoi(value);
        } else if (arg == "-e") {
            capture.every = std::atoi(value);
        } else if (arg == "-o") {
            capture.dir = value;
        } else if (arg == "-t") {
            seconds = std::atoi(value);
        } else {
            Usage(argv[0]);
            return 2;
        }
    }
    if ((modeName != "plain" && modeName != "live") || capture.frames <= 0 || capture.every < 0 ||
        seconds <= 0) {
        Usage(argv[0]);
        return 2;
    }
    const vc::eCaptureModeIDs mode =
        modeName == "live" ? vc::eCaptureLive : vc::eCapturePlainFinger;
    if (mkdir(capture.dir.c_str(), 0777) != 0 && errno != EEXIST) {
        std::fprintf(stderr, "cannot create %s: %s\n", capture.dir.c_str(), std::strerror(errno));
        return 1;
    }
    if (plugin.empty()) {
        plugin = NextToThisProgram("libnorvakkr7fg.so.1");
    }

    void* library = dlopen(plugin.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* why = dlerror();
        std::fprintf(stderr, "cannot load %s: %s\n", plugin.c_str(), why ? why : "");
        return 1;
    }
    auto getFrameGrabber = reinterpret_cast<FGGetFrameGrabberFn>(dlsym(library, "GetFrameGrabber"));
    auto destroyFrameGrabber =
        reinterpret_cast<FGDestroyFrameGrabberFn>(dlsym(library, "DestroyFrameGrabber"));
    if (getFrameGrabber == nullptr || destroyFrameGrabber == nullptr) {
        std::fprintf(stderr, "%s is not a frame-grabber plug-in\n", plugin.c_str());
        dlclose(library);
        return 1;
    }

    vc::ClFramegrabber* fg = nullptr;
    try {
        fg = getFrameGrabber();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "GetFrameGrabber failed: %s\n", e.what());
    }
    const bool ok = fg != nullptr && Run(*fg, mode, capture, seconds);
    destroyFrameGrabber();
    dlclose(library);

    std::lock_guard<std::mutex> lock(capture.mutex);
    std::printf("%d frames, %d live images and %d results written to %s\n", capture.images,
                capture.saved, capture.results, capture.dir.c_str());
    return ok ? 0 : 1;
}
