// A minimal host of the KR7 frame-grabber plug-in: loads the installed
// plug-in, lists the scanners, captures one plain finger on channel 1 and
// writes it to a BMP file.
//
//   kr7host [FILE.bmp]        (default finger.bmp)
//
// The plug-in's path comes from the build (KR7_PLUGIN, see CMakeLists.txt and
// Makefile beside this file); without it the loader looks for
// libnorvakkr7fg.so.1 on its search path.
#include <dlfcn.h>

#include <norvakkr7fg/framegrabber.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#ifndef KR7_PLUGIN
#define KR7_PLUGIN "libnorvakkr7fg.so.1"
#endif

namespace {

// What the result callback hands over to the main thread.
struct Capture {
    std::mutex mutex;
    std::condition_variable done;
    std::vector<unsigned char> bitmap;  // packed bitmap, copied in the callback
    std::string error;
};

// Size of the packed bitmap: header, palette and rows padded to 4 bytes.
std::size_t BitmapSize(const unsigned char* image) {
    std::int32_t header = 0, width = 0, height = 0;
    std::uint16_t bits = 0;
    std::uint32_t colours = 0;
    std::memcpy(&header, image, 4);
    std::memcpy(&width, image + 4, 4);
    std::memcpy(&height, image + 8, 4);
    std::memcpy(&bits, image + 14, 2);
    std::memcpy(&colours, image + 32, 4);
    if (colours == 0 && bits <= 8) {
        colours = 1u << bits;
    }
    const std::size_t row = (static_cast<std::size_t>(width) * bits + 31) / 32 * 4;
    return static_cast<std::size_t>(header) + 4 * colours + row * static_cast<std::size_t>(height);
}

// Called on the plug-in's capture thread; `image` is valid only until we return.
void OnResult(int, unsigned int, int, unsigned char* image, void* user) {
    auto& capture = *static_cast<Capture*>(user);
    std::lock_guard<std::mutex> lock(capture.mutex);
    if (capture.bitmap.empty() && image != nullptr) {
        capture.bitmap.assign(image, image + BitmapSize(image));
        capture.done.notify_one();
    }
}

void OnError(int, unsigned int, const char* text, void* user) {
    auto& capture = *static_cast<Capture*>(user);
    std::lock_guard<std::mutex> lock(capture.mutex);
    capture.error = text != nullptr ? text : "unknown error";
    capture.done.notify_one();
}

void OnWarning(int, unsigned int, const char* text, void*) {
    std::fprintf(stderr, "warning: %s\n", text != nullptr ? text : "");
}

// Prints the failed call with the plug-in's last-error text; true when `result` is 0.
bool Ok(vc::ClFramegrabber& fg, const char* call, unsigned int result) {
    if (result == 0) {
        return true;
    }
    char text[512] = "";
    unsigned long size = sizeof text;
    fg.GetLastError(text, size);
    text[sizeof text - 1] = '\0';
    std::fprintf(stderr, "%s failed (0x%08x): %s\n", call, result, text);
    return false;
}

// A BMP file is the packed bitmap behind a 14-byte file header.
bool WriteBmp(const char* file, const std::vector<unsigned char>& bitmap) {
    std::uint32_t header = 0, colours = 0;
    std::memcpy(&header, bitmap.data(), 4);
    std::memcpy(&colours, bitmap.data() + 32, 4);
    const std::uint32_t offset = 14 + header + 4 * (colours != 0 ? colours : 256);
    const std::uint32_t total = static_cast<std::uint32_t>(14 + bitmap.size());
    unsigned char head[14] = {'B', 'M'};
    std::memcpy(head + 2, &total, 4);
    std::memcpy(head + 10, &offset, 4);
    std::FILE* out = std::fopen(file, "wb");
    if (out == nullptr) {
        return false;
    }
    const bool written = std::fwrite(head, 1, sizeof head, out) == sizeof head &&
                         std::fwrite(bitmap.data(), 1, bitmap.size(), out) == bitmap.size();
    return std::fclose(out) == 0 && written;
}

// Lists the scanners and captures one plain finger on channel 1 into `file`.
bool CaptureOne(vc::ClFramegrabber& fg, const char* file) {
    // A size query: count becomes the number of scanners, the code says "more data".
    unsigned long count = 0;
    const unsigned int query = fg.AvailableDevices(nullptr, count);
    if (query != (vc::FGERR_FLAG | vc::FGERR_MORE_DATA) && !Ok(fg, "AvailableDevices", query)) {
        return false;
    }
    std::vector<vc::DeviceInfo> devices(count);
    if (count == 0 || !Ok(fg, "AvailableDevices", fg.AvailableDevices(devices.data(), count))) {
        std::fprintf(stderr, "no scanner found\n");
        return false;
    }
    for (const vc::DeviceInfo& device : devices) {
        std::printf("scanner %u: serial %.100s\n", device.Index, device.SerialNumber);
    }

    Capture capture;
    if (!Ok(fg, "StartCapture",
            fg.StartCapture(1, 1, vc::eCapturePlainFinger, nullptr, &OnResult, &OnError, &OnWarning,
                            &capture))) {
        return false;
    }
    std::printf("place a finger on the scanner\n");
    std::unique_lock<std::mutex> lock(capture.mutex);
    capture.done.wait_for(lock, std::chrono::seconds(30),
                          [&] { return !capture.bitmap.empty() || !capture.error.empty(); });
    lock.unlock();  // StopCapture waits for the capture thread, which takes this lock
    const bool stopped = Ok(fg, "StopCapture", fg.StopCapture(1));

    if (!capture.error.empty() || capture.bitmap.empty()) {
        std::fprintf(stderr, "no finger: %s\n",
                     capture.error.empty() ? "timed out" : capture.error.c_str());
        return false;
    }
    if (!WriteBmp(file, capture.bitmap)) {
        std::fprintf(stderr, "cannot write %s\n", file);
        return false;
    }
    std::printf("finger written to %s\n", file);
    return stopped;
}

}  // namespace

int main(int argc, char** argv) {
    const char* file = argc > 1 ? argv[1] : "finger.bmp";
    void* plugin = dlopen(KR7_PLUGIN, RTLD_NOW | RTLD_LOCAL);
    if (plugin == nullptr) {
        std::fprintf(stderr, "cannot load %s: %s\n", KR7_PLUGIN, dlerror());
        return 1;
    }
    auto get = reinterpret_cast<FGGetFrameGrabberFn>(dlsym(plugin, "GetFrameGrabber"));
    auto destroy = reinterpret_cast<FGDestroyFrameGrabberFn>(dlsym(plugin, "DestroyFrameGrabber"));
    vc::ClFramegrabber* fg = get != nullptr && destroy != nullptr ? get() : nullptr;
    if (fg == nullptr) {
        std::fprintf(stderr, "%s is no frame-grabber plug-in\n", KR7_PLUGIN);
        return 1;
    }

    bool ok = Ok(*fg, "Initizalize", fg->Initizalize(nullptr)) && CaptureOne(*fg, file);
    ok = Ok(*fg, "Uninitialize", fg->Uninitialize()) && ok;
    destroy();
    dlclose(plugin);
    return ok ? 0 : 1;
}
