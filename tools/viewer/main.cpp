// kr7-viewer: a window on a KR7 scanner for people installing one. It loads
// the capture plug-in at run time through kr7host, like any imaging
// application, and shows the live image, the finger's state, the results,
// the scanner's information and its device controls. With --virtual it
// runs against the virtual scanner.
#include <CLI/CLI.hpp>
#include <QApplication>
#include <cstdio>
#include <map>
#include <string>

#include "window.h"

namespace {

constexpr const char* kUsage =
    "usage: kr7-viewer [--virtual] [--plugin PATH] [--device N] [--mode MODE]\n"
    "                  [--screenshot FILE] [Qt options]\n"
    "\n"
    "Shows a KR7 fingerprint scanner at work: the live image, whether a finger lies\n"
    "well on the platen, the results with their area and contrast, the scanner's\n"
    "information, its LEDs, fake-finger detection, contamination and snapshots.\n"
    "\n"
    "  --virtual          use the virtual scanner instead of the installed scanner libraries\n"
    "  --plugin PATH      load this plug-in file (default: libnorvakkr7fg.so.1, as installed)\n"
    "  --device N         use the scanner on interface N\n"
    "  --mode MODE        capture mode to start in: live, plain, fast or rolled\n"
    "                     (default: the one used last)\n"
    "  --screenshot FILE  save a picture of the window as PNG after the first result, then\n"
    "                     quit (works on the offscreen platform: QT_QPA_PLATFORM=offscreen)\n"
    "  -h, --help         show this text\n"
    "\n"
    "Keys: Ctrl+R start or stop, Ctrl+T snapshot, Ctrl+S save the selected result,\n"
    "Ctrl+Shift+S save all results, Ctrl+Q quit.\n"
    "\n"
    "example:\n"
    "  KR7SIM_REALTIME=1 kr7-viewer --virtual --mode plain\n";

struct Arguments {
    kr7viewer::Window::Options window;
    std::string mode;
};

}  // namespace

int main(int argc, char** argv) {
    Arguments args;
    std::string screenshot;
    unsigned long device = 0;
    CLI::App app("kr7-viewer", "kr7-viewer");
    app.set_help_flag();
    bool help = false;
    app.add_flag("-h,--help", help);
    app.add_flag("--virtual", args.window.session.load.virtualScanner);
    app.add_option("--plugin", args.window.session.load.plugin);
    CLI::Option* deviceOption = app.add_option("--device", device)->check(CLI::Range(0, 127));
    app.add_option("--mode", args.mode)->check(CLI::IsMember({"live", "plain", "fast", "rolled"}));
    app.add_option("--screenshot", screenshot);
    // Qt's own options (-platform, -style, ...) are left to QApplication.
    app.allow_extras();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        std::fprintf(stderr, "kr7-viewer: %s\n%s", e.what(), kUsage);
        return 2;
    }
    if (help) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (deviceOption->count() > 0) {
        args.window.session.device = device;
    }

    QApplication application(argc, argv);
    QApplication::setOrganizationName("Norvak");
    QApplication::setApplicationName("kr7-viewer");
    args.window.screenshot = QString::fromStdString(screenshot);
    kr7viewer::Window window(args.window);
    if (!args.mode.empty()) {
        const std::map<std::string, vc::eCaptureModeIDs> modes = {
            {"live", vc::eCaptureLive},
            {"plain", vc::eCapturePlainFinger},
            {"fast", vc::eCaptureFastPlainFinger},
            {"rolled", vc::eCaptureRolledFinger}};
        window.SetMode(modes.at(args.mode));
    }
    window.show();
    return QApplication::exec();
}
