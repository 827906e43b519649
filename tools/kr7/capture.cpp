#include "capture.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "image.h"
#include "json.h"
#include "sheet.h"

namespace kr7 {

volatile std::sig_atomic_t g_interrupted = 0;

namespace {

using Clock = std::chrono::steady_clock;

bool IsFingerMode(vc::eCaptureModeIDs mode) {
    return mode == vc::eCapturePlainFinger || mode == vc::eCaptureFastPlainFinger ||
           mode == vc::eCaptureRolledFinger;
}

double Seconds(Clock::duration duration) {
    return std::chrono::duration<double>(duration).count();
}

int Percent(double share) {
    return static_cast<int>(std::lround(share * 100.0));
}

// mkdir -p.
void MakeFolder(const std::string& folder) {
    for (std::size_t at = 1; at <= folder.size(); ++at) {
        if (at != folder.size() && folder[at] != '/') {
            continue;
        }
        const std::string part = folder.substr(0, at);
        if (mkdir(part.c_str(), 0777) != 0 && errno != EEXIST) {
            throw Failure(kPluginError, "cannot create " + part + ": " + std::strerror(errno));
        }
    }
}

struct Shot {
    Gray image;
    Quality quality;
    int frame = 0;  // live frames before it
};

// What the plug-in's callbacks, which run on its capture thread, share with
// the main thread. In finger modes the detector reports a result on every
// frame while a finger lies still: of each placement only the darkest result
// is kept, handed on when the finger has gone (a rolled print is complete
// in one result).
class Session {
public:
    Session(vc::eCaptureModeIDs mode, int wanted) : m_eMode(mode), m_nWanted(wanted) {}

    struct Snapshot {
        int frames = 0;
        bool finger = false;  // on the platen in the last frame
        bool taken = false;   // the placement on the platen has given a result
        Clock::time_point lastResult;
        std::vector<Shot> shots;  // ready to be written, in order
        std::vector<std::string> warnings;
        std::optional<std::string> error;
        bool stopped = false;  // the capture thread has ended
    };

    // Waits up to `wait` for a shot, an error or the end of the capture and
    // hands over what there is.
    Snapshot Take(std::chrono::milliseconds wait) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, wait, [this] { return m_bNews; });
        m_bNews = false;
        Snapshot snapshot;
        snapshot.frames = m_nFrames;
        snapshot.finger = m_bFinger;
        snapshot.taken = m_Best.has_value();
        snapshot.lastResult = m_LastResult;
        snapshot.shots.swap(m_vReady);
        snapshot.warnings.swap(m_vWarnings);
        snapshot.error = m_Error;
        snapshot.stopped = m_bStopped;
        return snapshot;
    }

    // A live frame; also the stills taken in preview mode.
    void Frame(const unsigned char* block) {
        Shot shot;
        if (!FromPackedBitmap(block, shot.image)) {
            return;
        }
        shot.quality = Measure(shot.image);
        const bool finger = shot.quality.area >= kFingerArea;
        std::lock_guard<std::mutex> lock(m_mutex);
        shot.frame = m_nFrames++;
        m_bFinger = finger;
        if (!IsFingerMode(m_eMode)) {
            Hand(std::move(shot));
        } else if (m_eMode != vc::eCaptureRolledFinger && m_Best && !finger &&
                   m_nLastResultFrame < shot.frame - 1) {
            // No result on the previous frame and no finger on this one.
            ClosePlacement();
        }
    }

    // Called after the capture has stopped: the placement still open.
    void Flush() {
        std::lock_guard<std::mutex> lock(m_mutex);
        ClosePlacement();
    }

    static void OnImage(int, unsigned int, unsigned char* image, void* user) {
        static_cast<Session*>(user)->Frame(image);
    }

    static void OnResult(int, unsigned int, int, unsigned char* image, void* user) {
        Session& self = *static_cast<Session*>(user);
        Shot shot;
        if (!FromPackedBitmap(image, shot.image)) {
            return;
        }
        shot.quality = Measure(shot.image);
        std::lock_guard<std::mutex> lock(self.m_mutex);
        shot.frame = self.m_nFrames > 0 ? self.m_nFrames - 1 : 0;
        self.m_nLastResultFrame = shot.frame;
        self.m_LastResult = Clock::now();
        if (self.m_eMode == vc::eCaptureRolledFinger) {
            self.Hand(std::move(shot));
        } else if (!self.m_Best || shot.quality.mean < self.m_Best->quality.mean) {
            self.m_Best = std::move(shot);
        }
    }

    static void OnError(int, unsigned int, const char* text, void* user) {
        Session& self = *static_cast<Session*>(user);
        std::lock_guard<std::mutex> lock(self.m_mutex);
        if (!self.m_Error) {
            self.m_Error = text != nullptr && *text != '\0' ? text : "unknown capture error";
        }
        self.Notify();
    }

    static void OnWarning(int, unsigned int, const char* text, void* user) {
        Session& self = *static_cast<Session*>(user);
        std::lock_guard<std::mutex> lock(self.m_mutex);
        self.m_vWarnings.emplace_back(text != nullptr ? text : "");
        self.Notify();
    }

    static void OnStop(int, unsigned int, void* user) {
        Session& self = *static_cast<Session*>(user);
        std::lock_guard<std::mutex> lock(self.m_mutex);
        self.m_bStopped = true;
        self.Notify();
    }

private:
    // The rest under m_mutex.
    void Notify() {
        m_bNews = true;
        m_changed.notify_all();
    }

    void Hand(Shot&& shot) {
        if (m_nHanded < m_nWanted) {
            ++m_nHanded;
            m_vReady.push_back(std::move(shot));
            Notify();
        }
    }

    void ClosePlacement() {
        if (m_Best) {
            Hand(std::move(*m_Best));
            m_Best.reset();
        }
    }

    const vc::eCaptureModeIDs m_eMode;
    const int m_nWanted;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_bNews = false;
    int m_nHanded = 0;
    int m_nFrames = 0;
    bool m_bFinger = false;
    std::optional<Shot> m_Best;  // of the placement on the platen
    int m_nLastResultFrame = -2;
    Clock::time_point m_LastResult;
    std::vector<Shot> m_vReady;
    std::vector<std::string> m_vWarnings;
    std::optional<std::string> m_Error;
    bool m_bStopped = false;
};

// What a person at a terminal is asked to do.
const char* Prompt(vc::eCaptureModeIDs mode, const Session::Snapshot& now) {
    switch (mode) {
        case vc::eCaptureRolledFinger:
            return now.lastResult != Clock::time_point() &&
                           Clock::now() - now.lastResult < std::chrono::milliseconds(1500)
                       ? "Lift the finger"
                       : "Roll the finger from one nail edge to the other";
        case vc::eCapturePlainFinger:
        case vc::eCaptureFastPlainFinger:
            if (!now.finger) {
                return "Place a finger on the platen";
            }
            return now.taken ? "Lift the finger" : "Hold the finger still";
        default:
            return "Taking frames";
    }
}

struct Written {
    int number;
    std::string file;
    int frame;
    int width, height;
    Quality quality;
};

}  // namespace

const char* ModeName(vc::eCaptureModeIDs mode) {
    switch (mode) {
        case vc::eCaptureLive:
            return "live";
        case vc::eCapturePlainFinger:
            return "plain";
        case vc::eCaptureRolledFinger:
            return "rolled";
        case vc::eCaptureFastPlainFinger:
            return "fastplain";
        case vc::eCapturePreview:
            return "preview";
    }
    return "unknown";
}

bool ModeFromName(const std::string& name, vc::eCaptureModeIDs& mode) {
    for (vc::eCaptureModeIDs candidate :
         {vc::eCaptureLive, vc::eCapturePlainFinger, vc::eCaptureRolledFinger,
          vc::eCaptureFastPlainFinger, vc::eCapturePreview}) {
        if (name == ModeName(candidate)) {
            mode = candidate;
            return true;
        }
    }
    return false;
}

bool FormatName(const std::string& pattern, int number, std::string& name) {
    std::string out;
    int conversions = 0;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] != '%') {
            out += pattern[i];
            continue;
        }
        if (++i < pattern.size() && pattern[i] == '%') {
            out += '%';
            continue;
        }
        const bool zeros = i < pattern.size() && pattern[i] == '0';
        i += zeros ? 1 : 0;
        std::size_t width = 0;
        for (; i < pattern.size() && std::isdigit(static_cast<unsigned char>(pattern[i])); ++i) {
            width = width * 10 + static_cast<std::size_t>(pattern[i] - '0');
            if (width > 20) {
                return false;
            }
        }
        if (i >= pattern.size() || pattern[i] != 'd') {
            return false;
        }
        std::string digits = std::to_string(number);
        if (digits.size() < width) {
            digits.insert(0, width - digits.size(), zeros ? '0' : ' ');
        }
        out += digits;
        ++conversions;
    }
    if (conversions != 1) {
        return false;
    }
    name = out;
    return true;
}

int Capture(Plugin& plugin, const CaptureOptions& options, const Output& output,
            const std::string& serial, unsigned int interface) {
    vc::ClFramegrabber& fg = plugin.Grabber();
    const vc::eCaptureModeIDs mode = options.mode;
    const bool fingers = IsFingerMode(mode);
    const int wanted = fingers ? options.count : options.frames;
    const char* noun = fingers ? "result" : "frame";
    const bool human = !output.json && !output.quiet;
    const bool terminal = !output.quiet && isatty(STDERR_FILENO) == 1;
    // The sheet shows smaller copies when there are many images; they are
    // kept at half size when there may be many.
    const int kept = wanted <= 16 ? 1 : 2;

    MakeFolder(options.folder);
    Session session(mode, wanted);
    plugin.Check("SetCallbacks", fg.SetCallbacks(1, nullptr, &Session::OnStop));
    const Clock::time_point start = Clock::now();
    const unsigned int started = fg.StartCapture(1, 1, mode, &Session::OnImage, &Session::OnResult,
                                                 &Session::OnError, &Session::OnWarning, &session);
    if (started == (vc::FGERR_FLAG | vc::FGERR_DETECTION_NOT_SUPPORTED)) {
        if (!output.quiet) {
            std::fprintf(stderr,
                         "kr7: note: the plug-in does not list %s capture; it runs it anyway "
                         "(StartCapture: 0x%08x)\n",
                         ModeName(mode), started);
        }
    } else if (started != 0) {
        fg.StopCapture(1);
        throw plugin.Error("StartCapture", started);
    }
    if (mode == vc::eCapturePreview && !output.quiet) {
        std::fprintf(stderr,
                     "kr7: note: preview images come only on a trigger the host interface does "
                     "not offer; taking stills with GetImage instead\n");
    }
    if (human) {
        std::printf("capturing %s %s on scanner %s (interface %u): %d %s%s, at most %g s\n",
                    ModeName(mode), fingers ? "fingers" : "frames", serial.c_str(), interface,
                    wanted, noun, wanted == 1 ? "" : "s", options.timeout);
        std::fflush(stdout);
    }

    std::vector<Written> written;
    std::vector<SheetEntry> sheet;
    std::string stopped, error;
    int errorStatus = kPluginError;
    int frames = 0;
    Clock::time_point drawn, rateSince = start;
    int rateFrames = 0;
    double recentRate = 0;
    const auto clearStatus = [&] {
        if (terminal) {
            std::fputs("\r\033[K", stderr);
            std::fflush(stderr);
        }
    };
    const auto write = [&](Shot& shot) {
        const int number = static_cast<int>(written.size()) + 1;
        std::string name;
        FormatName(options.pattern, number, name);
        const std::string file = options.folder == "." ? name : options.folder + "/" + name;
        WriteImage(shot.image, file);
        written.push_back(
            {number, file, shot.frame, shot.image.width, shot.image.height, shot.quality});
        if (!options.sheet.empty()) {
            sheet.push_back({number, Shrink(shot.image, kept), shot.quality});
        }
        // One line a result; frames come too many for that.
        if (human && fingers) {
            clearStatus();
            std::printf("%s %d: %s  %dx%d  area %d%%  contrast %d%%\n", noun, number, file.c_str(),
                        shot.image.width, shot.image.height, Percent(shot.quality.area),
                        Percent(shot.quality.contrast));
            std::fflush(stdout);
        }
    };

    // Until enough images are written, or an error, the timeout or a signal.
    while (stopped.empty()) {
        if (mode == vc::eCapturePreview) {
            unsigned char* image = nullptr;
            const unsigned int result = fg.GetImage(1, &image);
            if (result != 0) {
                const Failure failure = plugin.Error("GetImage", result);
                error = failure.what();
                errorStatus = failure.Status();
                stopped = "error";
                break;
            }
            session.Frame(image);
            fg.FreeImage(image);
        }
        Session::Snapshot now =
            session.Take(std::chrono::milliseconds(mode == vc::eCapturePreview ? 0 : 50));
        frames = now.frames;
        for (const std::string& warning : now.warnings) {
            if (!output.quiet) {
                clearStatus();
                std::fprintf(stderr, "kr7: warning: %s\n", warning.c_str());
            }
        }
        try {
            for (Shot& shot : now.shots) {
                write(shot);
            }
        } catch (const std::exception& e) {
            error = e.what();
            stopped = "error";
            break;
        }
        const Clock::duration elapsed = Clock::now() - start;
        if (static_cast<int>(written.size()) >= wanted) {
            stopped = fingers ? "count" : "frames";
        } else if (now.error) {
            error = *now.error;
            stopped = "error";
        } else if (now.stopped) {
            error = "the plug-in ended the capture";
            stopped = "error";
        } else if (g_interrupted != 0) {
            stopped = "interrupted";
        } else if (Seconds(elapsed) >= options.timeout) {
            stopped = "timeout";
        } else if (terminal && Clock::now() - drawn >= std::chrono::milliseconds(100)) {
            // Frames per second over the last second or so.
            drawn = Clock::now();
            const double span = Seconds(drawn - rateSince);
            if (span >= 1.0 || rateSince == start) {
                recentRate = span > 0 ? (frames - rateFrames) / span : 0.0;
            }
            if (span >= 1.0) {
                rateSince = drawn;
                rateFrames = frames;
            }
            std::fprintf(stderr, "\r\033[K%s  %d frames  %.1f/s  finger %s  %ss %d/%d   %s",
                         ModeName(mode), frames, recentRate, now.finger ? "yes" : "no ", noun,
                         static_cast<int>(written.size()), wanted, Prompt(mode, now));
            std::fflush(stderr);
        }
    }
    clearStatus();

    const unsigned int result = fg.StopCapture(1);
    if (result != 0 && error.empty()) {
        const Failure failure = plugin.Error("StopCapture", result);
        error = failure.what();
        errorStatus = failure.Status();
        stopped = "error";
    }
    const double seconds = Seconds(Clock::now() - start);
    // A finger still on the platen when the capture ended.
    session.Flush();
    try {
        for (Shot& shot : session.Take(std::chrono::milliseconds(0)).shots) {
            write(shot);
        }
        if (!options.sheet.empty()) {
            const std::size_t n = sheet.size();
            const int shown = n <= 16 ? 1 : n <= 64 ? 2 : 4;
            for (SheetEntry& entry : sheet) {
                entry.image = Shrink(entry.image, shown / kept);
            }
            WriteImage(MakeSheet(sheet), options.sheet);
        }
    } catch (const std::exception& e) {
        if (error.empty()) {
            error = e.what();
            errorStatus = kPluginError;
        }
    }

    const int count = static_cast<int>(written.size());
    const double rate = seconds > 0 ? frames / seconds : 0.0;
    if (output.json) {
        JsonWriter json;
        json.BeginObject().Key("mode").String(ModeName(mode)).Key("serial").String(serial);
        json.Key("interface").Integer(interface);
        json.Key("stopped").String(stopped).Key("complete").Bool(count >= wanted);
        if (!error.empty()) {
            json.Key("error").String(error);
        }
        json.Key("frames").Integer(frames).Key("seconds").Number(seconds);
        json.Key("images").BeginArray();
        for (const Written& w : written) {
            json.BeginObject().Key("number").Integer(w.number).Key("file").String(w.file);
            json.Key("frame").Integer(w.frame).Key("width").Integer(w.width);
            json.Key("height").Integer(w.height).Key("area").Number(w.quality.area);
            json.Key("contrast").Number(w.quality.contrast).EndObject();
        }
        json.EndArray().Key("sheet");
        if (options.sheet.empty()) {
            json.Null();
        } else {
            json.String(options.sheet);
        }
        std::printf("%s\n", json.EndObject().Text().c_str());
    } else if (human) {
        std::printf("%d %s%s in %.1f s (%d frames, %.1f frames/s)\n", count, noun,
                    count == 1 ? "" : "s", seconds, frames, rate);
        if (!fingers && count > 0) {
            std::printf("files: %s%s%s\n", written.front().file.c_str(), count > 1 ? " to " : "",
                        count > 1 ? written.back().file.c_str() : "");
        }
        if (!options.sheet.empty()) {
            std::printf("sheet: %s\n", options.sheet.c_str());
        }
    }
    std::fflush(stdout);
    if (stopped == "timeout" && !output.quiet) {
        std::fprintf(stderr, "kr7: note: timed out after %g s with %d of %d %ss\n", options.timeout,
                     count, wanted, noun);
    }
    if (!error.empty()) {
        std::fprintf(stderr, "kr7: capture failed: %s\n", error.c_str());
        return errorStatus;
    }
    if (stopped == "interrupted") {
        if (!output.quiet) {
            std::fprintf(stderr, "kr7: interrupted; %d %s%s kept\n", count, noun,
                         count == 1 ? "" : "s");
        }
        return kInterrupted;
    }
    return kSuccess;
}

}  // namespace kr7
