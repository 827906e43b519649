#include "capture.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kr7host/capture.h"
#include "kr7host/quality.h"
#include "sheet.h"

namespace kr7 {

volatile std::sig_atomic_t g_interrupted = 0;

namespace {

using Clock = std::chrono::steady_clock;
using kr7host::Image;
using kr7host::IsFingerMode;
using kr7host::Measured;
using kr7host::Placements;
using kr7host::Quality;
using kr7host::Shot;

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

// Why a capture ended.
enum class Stop { None, Count, Frames, Timeout, Interrupted, Error };

const char* StopName(Stop stop) {
    switch (stop) {
        case Stop::Count:
            return "count";
        case Stop::Frames:
            return "frames";
        case Stop::Timeout:
            return "timeout";
        case Stop::Interrupted:
            return "interrupted";
        case Stop::Error:
            return "error";
        case Stop::None:
            break;
    }
    return "running";
}

struct Written {
    int number;
    std::string file;
    std::int64_t frame;
    int width, height;
    Quality quality;
};

// One run of kr7 capture: start, wait and collect, finish, report.
class Run {
public:
    Run(kr7host::Plugin& plugin, const CaptureOptions& options, const Output& output,
        const Scanner& scanner)
        : m_rPlugin(plugin),
          m_Options(options),
          m_Output(output),
          m_Scanner(scanner),
          m_bFingers(IsFingerMode(options.mode)),
          m_nWanted(m_bFingers ? options.count : options.frames),
          m_Noun(m_bFingers ? "result" : "frame"),
          m_bTerminal(!output.quiet && isatty(STDERR_FILENO) == 1),
          m_nKept(m_nWanted <= 16 ? 1 : 2),
          m_Placements(options.mode, m_nWanted),
          m_Capture(plugin, {1, options.mode, 8}) {}

    void Start();
    void Collect();
    void Finish();
    int Report();

private:
    void Take(kr7host::Event&& event);
    void TakeStill();
    void WriteReady();
    void Write(Shot& shot);
    Stop Check();
    void Fail(const std::string& error, int status = kPluginError);
    void DrawStatus();
    void ClearStatus();

    kr7host::Plugin& m_rPlugin;
    const CaptureOptions& m_Options;
    const Output& m_Output;
    const Scanner& m_Scanner;
    const bool m_bFingers;
    const int m_nWanted;
    const char* const m_Noun;
    const bool m_bTerminal;
    // The sheet shows smaller copies when there are many images; they are
    // kept at half size when there may be many.
    const int m_nKept;
    Placements m_Placements;
    kr7host::Capture m_Capture;

    Clock::time_point m_Start;
    Stop m_eStop = Stop::None;
    std::string m_strError;
    int m_nErrorStatus = kPluginError;
    std::string m_strCallbackError;  // the first text of the error callback
    bool m_bEnded = false;           // the plug-in's stop callback came
    std::int64_t m_nStills = 0;
    std::vector<Written> m_vWritten;
    std::vector<SheetEntry> m_vSheet;
    double m_dSeconds = 0;
    Clock::time_point m_Drawn, m_RateSince;
    int m_nRateFrames = 0;
    double m_dRate = 0;
};

void Run::Start() {
    MakeFolder(m_Options.folder);
    m_Start = m_RateSince = Clock::now();
    const unsigned int started = m_Capture.Start(1);
    if (started != 0 && !m_Output.quiet) {
        std::fprintf(stderr,
                     "kr7: note: the plug-in does not list %s capture; it runs it anyway "
                     "(StartCapture: 0x%08x)\n",
                     ModeName(m_Options.mode), started);
    }
    if (m_Options.mode == vc::eCapturePreview && !m_Output.quiet) {
        std::fprintf(stderr,
                     "kr7: note: preview images come only on a trigger the host interface does "
                     "not offer; taking stills with GetImage instead\n");
    }
    if (m_Output.Human()) {
        std::printf("capturing %s %s on scanner %s (interface %u): %d %s%s, at most %g s\n",
                    ModeName(m_Options.mode), m_bFingers ? "fingers" : "frames",
                    m_Scanner.serial.c_str(), m_Scanner.index, m_nWanted, m_Noun,
                    m_nWanted == 1 ? "" : "s", m_Options.timeout);
        std::fflush(stdout);
    }
}

// Until enough images are written, or an error, the timeout or a signal.
void Run::Collect() {
    const bool preview = m_Options.mode == vc::eCapturePreview;
    while (m_eStop == Stop::None) {
        if (preview) {
            TakeStill();
        }
        if (std::optional<kr7host::Event> event =
                m_Capture.Next(std::chrono::milliseconds(preview ? 0 : 50))) {
            Take(std::move(*event));
        }
        WriteReady();
        if (m_eStop == Stop::None) {
            m_eStop = Check();
        }
        if (m_eStop == Stop::None) {
            DrawStatus();
        }
    }
    ClearStatus();
}

// Stops the capture and writes what is left, then the sheet.
void Run::Finish() {
    try {
        m_Capture.Stop();
    } catch (const kr7host::Error& e) {
        const Failure failure = FromPlugin(e, m_rPlugin.Files().Virtual());
        Fail(failure.what(), failure.Status());
    }
    m_dSeconds = Seconds(Clock::now() - m_Start);
    while (std::optional<kr7host::Event> event = m_Capture.Next(std::chrono::milliseconds(0))) {
        Take(std::move(*event));
    }
    // A finger still on the platen when the capture ended.
    m_Placements.Close();
    WriteReady();
    if (m_Options.sheet.empty()) {
        return;
    }
    const std::size_t n = m_vSheet.size();
    const int shown = n <= 16 ? 1 : n <= 64 ? 2 : 4;
    for (SheetEntry& entry : m_vSheet) {
        entry.image = Shrink(entry.image, shown / m_nKept);
    }
    try {
        kr7host::WriteImage(MakeSheet(m_vSheet), m_Options.sheet);
    } catch (const std::exception& e) {
        Fail(e.what());
    }
}

void Run::Take(kr7host::Event&& event) {
    const bool image = event.kind == kr7host::Kind::Image || event.kind == kr7host::Kind::Result;
    if (image && event.image.Empty()) {
        return;  // not an 8-bit bitmap: nothing to keep
    }
    switch (event.kind) {
        case kr7host::Kind::Image:
            m_Placements.Frame(Measured(std::move(event.image), event.frame));
            break;
        case kr7host::Kind::Result:
            m_Placements.Result(Measured(std::move(event.image), event.frame));
            break;
        case kr7host::Kind::Error:
            if (m_strCallbackError.empty()) {
                m_strCallbackError = event.text.empty() ? "unknown capture error" : event.text;
            }
            break;
        case kr7host::Kind::Warning:
            if (!m_Output.quiet) {
                ClearStatus();
                std::fprintf(stderr, "kr7: warning: %s\n", event.text.c_str());
            }
            break;
        case kr7host::Kind::Stop:
            m_bEnded = true;
            break;
        case kr7host::Kind::Start:
            break;
    }
}

// A preview capture's image: a still from GetImage.
void Run::TakeStill() {
    try {
        m_Placements.Frame(Measured(m_rPlugin.Snap(), m_nStills++));
    } catch (const kr7host::Error& e) {
        const Failure failure = FromPlugin(e, m_rPlugin.Files().Virtual());
        Fail(failure.what(), failure.Status());
    }
}

void Run::WriteReady() {
    try {
        for (Shot& shot : m_Placements.TakeReady()) {
            Write(shot);
        }
    } catch (const std::exception& e) {
        Fail(e.what());
    }
}

void Run::Write(Shot& shot) {
    const int number = static_cast<int>(m_vWritten.size()) + 1;
    std::string name;
    FormatName(m_Options.pattern, number, name);
    const std::string file = m_Options.folder == "." ? name : m_Options.folder + "/" + name;
    kr7host::WriteImage(shot.image, file);
    m_vWritten.push_back(
        {number, file, shot.frame, shot.image.width, shot.image.height, shot.quality});
    if (!m_Options.sheet.empty()) {
        m_vSheet.push_back({number, Shrink(shot.image, m_nKept), shot.quality});
    }
    // One line a result; frames come too many for that.
    if (m_Output.Human() && m_bFingers) {
        ClearStatus();
        std::printf("%s %d: %s  %dx%d  area %d%%  contrast %d%%\n", m_Noun, number, file.c_str(),
                    shot.image.width, shot.image.height, Percent(shot.quality.area),
                    Percent(shot.quality.contrast));
        std::fflush(stdout);
    }
}

// Whether the capture is over, and why.
Stop Run::Check() {
    if (static_cast<int>(m_vWritten.size()) >= m_nWanted) {
        return m_bFingers ? Stop::Count : Stop::Frames;
    }
    if (!m_strCallbackError.empty()) {
        Fail(m_strCallbackError);
    } else if (m_bEnded) {
        Fail("the plug-in ended the capture");
    } else if (g_interrupted != 0) {
        return Stop::Interrupted;
    } else if (Seconds(Clock::now() - m_Start) >= m_Options.timeout) {
        return Stop::Timeout;
    }
    return m_eStop;
}

// The first error ends the capture and is the one reported.
void Run::Fail(const std::string& error, int status) {
    if (m_strError.empty()) {
        m_strError = error;
        m_nErrorStatus = status;
    }
    m_eStop = Stop::Error;
}

void Run::ClearStatus() {
    if (m_bTerminal) {
        std::fputs("\r\033[K", stderr);
        std::fflush(stderr);
    }
}

// The status line: frames per second over the last second or so.
void Run::DrawStatus() {
    if (!m_bTerminal || Clock::now() - m_Drawn < std::chrono::milliseconds(100)) {
        return;
    }
    const int frames = static_cast<int>(m_Capture.Totals().images + m_nStills);
    m_Drawn = Clock::now();
    const double span = Seconds(m_Drawn - m_RateSince);
    if (span >= 1.0 || m_RateSince == m_Start) {
        m_dRate = span > 0 ? (frames - m_nRateFrames) / span : 0.0;
    }
    if (span >= 1.0) {
        m_RateSince = m_Drawn;
        m_nRateFrames = frames;
    }
    std::fprintf(stderr, "\r\033[K%s  %d frames  %.1f/s  finger %s  %ss %d/%d   %s",
                 ModeName(m_Options.mode), frames, m_dRate, m_Placements.Finger() ? "yes" : "no ",
                 m_Noun, static_cast<int>(m_vWritten.size()), m_nWanted, m_Placements.Prompt());
    std::fflush(stderr);
}

int Run::Report() {
    const int count = static_cast<int>(m_vWritten.size());
    const long frames = m_Capture.Totals().images + static_cast<long>(m_nStills);
    if (m_Output.json) {
        nlohmann::ordered_json json = {{"mode", ModeName(m_Options.mode)},
                                       {"serial", m_Scanner.serial},
                                       {"interface", m_Scanner.index},
                                       {"stopped", StopName(m_eStop)},
                                       {"complete", count >= m_nWanted}};
        if (!m_strError.empty()) {
            json["error"] = m_strError;
        }
        json["frames"] = frames;
        json["seconds"] = m_dSeconds;
        nlohmann::ordered_json& images = json["images"] = nlohmann::ordered_json::array();
        for (const Written& w : m_vWritten) {
            images.push_back({{"number", w.number},
                              {"file", w.file},
                              {"frame", w.frame},
                              {"width", w.width},
                              {"height", w.height},
                              {"area", w.quality.area},
                              {"contrast", w.quality.contrast}});
        }
        json["sheet"] = m_Options.sheet.empty() ? nlohmann::ordered_json(nullptr)
                                                : nlohmann::ordered_json(m_Options.sheet);
        std::printf("%s\n", json.dump().c_str());
    } else if (m_Output.Human()) {
        std::printf("%d %s%s in %.1f s (%ld frames, %.1f frames/s)\n", count, m_Noun,
                    count == 1 ? "" : "s", m_dSeconds, frames,
                    m_dSeconds > 0 ? frames / m_dSeconds : 0.0);
        if (!m_bFingers && count > 0) {
            std::printf("files: %s%s%s\n", m_vWritten.front().file.c_str(), count > 1 ? " to " : "",
                        count > 1 ? m_vWritten.back().file.c_str() : "");
        }
        if (!m_Options.sheet.empty()) {
            std::printf("sheet: %s\n", m_Options.sheet.c_str());
        }
    }
    std::fflush(stdout);
    if (m_eStop == Stop::Timeout && !m_Output.quiet) {
        std::fprintf(stderr, "kr7: note: timed out after %g s with %d of %d %ss\n",
                     m_Options.timeout, count, m_nWanted, m_Noun);
    }
    if (!m_strError.empty()) {
        std::fprintf(stderr, "kr7: capture failed: %s\n", m_strError.c_str());
        return m_nErrorStatus;
    }
    if (m_eStop == Stop::Interrupted) {
        if (!m_Output.quiet) {
            std::fprintf(stderr, "kr7: interrupted; %d %s%s kept\n", count, m_Noun,
                         count == 1 ? "" : "s");
        }
        return kInterrupted;
    }
    return kSuccess;
}

}  // namespace

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

int Capture(kr7host::Plugin& plugin, const CaptureOptions& options, const Output& output,
            const Scanner& scanner) {
    Run run(plugin, options, output, scanner);
    run.Start();
    run.Collect();
    run.Finish();
    return run.Report();
}

}  // namespace kr7
