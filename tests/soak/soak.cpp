// kr7_soak: days of a host's use of the plug-in, pressed into minutes, through
// the path a host takes (kr7host: dlopen of the built plug-in, GetFrameGrabber
// and the public header only) against the virtual scanner at full speed.
//
// Each phase runs in a child process of its own (this program again, with
// --run-phase). The virtual scanner reads its settings once per process and
// each phase needs its own: fixed frames for the start/stop storm, real
// frames and an unplugging script for the disconnects, the scanner's pace
// for the real-time run. A child also gives each phase a clean process to
// measure (threads, descriptors, mappings, resident memory, leaks at exit),
// and a phase that crashes or hangs is reported as that phase's failure: the
// parent kills a child that outlives its time limit, after printing its
// threads' stacks.
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "phases.h"
#include "process_state.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    std::string plugin = KR7_SOAK_PLUGIN;
    std::string simLib = KR7_SOAK_SIM_LIB;
    long starts = 10000;
    long disconnects = 1000;
    long rounds = 1000;
    long reloads = 100;
    long realtimeSeconds = 300;
    long phaseTimeout = 3600;  // seconds, beyond a real-time phase's own length
    std::string runPhase;      // in a child: the phase to run
    long count = 0;            // in a child: its count
};

const char kUsage[] =
    "usage: kr7_soak [--short] [--starts N] [--disconnects N] [--rounds N] [--reloads N]\n"
    "                [--realtime-seconds N] [--plugin PATH] [--sim-lib DIR]\n"
    "                [--phase-timeout SECONDS]\n"
    "Runs the plug-in through its loading path against the virtual scanner, phase by\n"
    "phase, and checks that threads, descriptors, mappings and memory come back and that\n"
    "every callback is accounted for. A count of 0 skips its phase. Without --short:\n"
    "10000 starts, 1000 disconnects, 1000 rounds, 100 reloads, 300 real-time seconds.\n"
    "--short: 200 starts, 10 disconnects, 20 rounds, 10 reloads, no real-time run.\n"
    "Exit status: 0 every phase passed, 1 a phase failed, 2 bad usage.\n";

bool ParseCount(const char* text, long& value) {
    char* end = nullptr;
    const long parsed = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || parsed < 0) {
        return false;
    }
    value = parsed;
    return true;
}

bool Parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--short") {
            options.starts = 200;
            options.disconnects = 10;
            options.rounds = 20;
            options.reloads = 10;
            options.realtimeSeconds = 0;
            options.phaseTimeout = 300;
            continue;
        }
        if (i + 1 >= argc) {
            return false;
        }
        const char* value = argv[++i];
        bool ok = true;
        if (arg == "--starts") {
            ok = ParseCount(value, options.starts);
        } else if (arg == "--disconnects") {
            ok = ParseCount(value, options.disconnects);
        } else if (arg == "--rounds") {
            ok = ParseCount(value, options.rounds);
        } else if (arg == "--reloads") {
            ok = ParseCount(value, options.reloads);
        } else if (arg == "--realtime-seconds") {
            ok = ParseCount(value, options.realtimeSeconds);
        } else if (arg == "--phase-timeout") {
            ok = ParseCount(value, options.phaseTimeout) && options.phaseTimeout > 0;
        } else if (arg == "--plugin") {
            options.plugin = value;
        } else if (arg == "--sim-lib") {
            options.simLib = value;
        } else if (arg == "--run-phase") {
            options.runPhase = value;
        } else if (arg == "--count") {
            ok = ParseCount(value, options.count);
        } else {
            ok = false;
        }
        if (!ok) {
            return false;
        }
    }
    return true;
}

// The child's environment: this one without any KR7SIM_ setting, plus the
// phase's settings and the stand-ins' folder first on the search path.
std::vector<std::string> ChildEnvironment(const soak::PhaseSettings& phase,
                                          const Options& options) {
    std::vector<std::string> environment;
    std::string searchPath = options.simLib;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        if (text.compare(0, 7, "KR7SIM_") == 0) {
            continue;
        }
        if (text.compare(0, 16, "LD_LIBRARY_PATH=") == 0) {
            if (text.size() > 16) {
                searchPath += ":" + text.substr(16);
            }
            continue;
        }
        environment.push_back(text);
    }
    environment.push_back("LD_LIBRARY_PATH=" + searchPath);
    for (const auto& setting : phase.environment) {
        environment.push_back(std::string(setting.first) + "=" + setting.second);
    }
    return environment;
}

// Prints the stacks of a child that hangs (gdb, when there is one), then
// the kernel's view of its threads.
void DescribeHang(pid_t child) {
    std::fprintf(stdout, "    threads of the hanging process %d:\n%s", static_cast<int>(child),
                 soak::DescribeThreads(child).c_str());
    std::fflush(stdout);
    const std::string gdb = "gdb -batch -nx -p " + std::to_string(child) +
                            " -ex 'set print frame-arguments none' -ex 'thread apply all bt' "
                            "</dev/null 2>/dev/null | grep '^#\\|^Thread'";
    if (std::system("command -v gdb >/dev/null 2>&1") == 0) {
        if (std::system(gdb.c_str()) != 0) {
            std::fprintf(stdout, "    (gdb could not attach)\n");
        }
    }
}

// Runs one phase in a child; true when it passed.
bool RunChild(const soak::PhaseSettings& phase, long count, const Options& options) {
    const std::string self = "/proc/self/exe";
    std::vector<std::string> args = {"kr7_soak",    "--run-phase",         phase.name,
                                     "--count",     std::to_string(count), "--plugin",
                                     options.plugin};
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(&arg[0]);
    }
    argv.push_back(nullptr);
    std::vector<std::string> environment = ChildEnvironment(phase, options);
    std::vector<char*> envp;
    for (std::string& entry : environment) {
        envp.push_back(&entry[0]);
    }
    envp.push_back(nullptr);

    std::fflush(stdout);
    pid_t child = 0;
    const int spawned =
        posix_spawn(&child, self.c_str(), nullptr, nullptr, argv.data(), envp.data());
    if (spawned != 0) {
        std::printf("%-11s cannot start its process: %s  FAIL\n", phase.name,
                    std::strerror(spawned));
        return false;
    }
    long limit = options.phaseTimeout;
    if (std::string(phase.name) == "realtime") {
        limit += count;
    }
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(limit);
    int status = 0;
    for (;;) {
        const pid_t done = waitpid(child, &status, WNOHANG);
        if (done == child) {
            break;
        }
        if (done < 0) {
            std::printf("%-11s lost its process: %s  FAIL\n", phase.name, std::strerror(errno));
            return false;
        }
        if (Clock::now() > deadline) {
            std::printf("%-11s still running after %ld s: a hang  FAIL\n", phase.name, limit);
            DescribeHang(child);
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (WIFSIGNALED(status)) {
        std::printf("%-11s process killed by signal %d (%s)  FAIL\n", phase.name, WTERMSIG(status),
                    strsignal(WTERMSIG(status)));
        return false;
    }
    if (WEXITSTATUS(status) != 0) {
        // A failed phase has printed its line; any other status (a sanitizer's
        // report at exit) is named here.
        if (WEXITSTATUS(status) != 1) {
            std::printf("%-11s process exited with status %d  FAIL\n", phase.name,
                        WEXITSTATUS(status));
        }
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (!Parse(argc, argv, options)) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    if (!options.runPhase.empty()) {
        if (soak::FindPhase(options.runPhase) == nullptr) {
            std::fputs(kUsage, stderr);
            return 2;
        }
        return soak::RunPhase(options.runPhase, options.count, options.plugin);
    }

    const long counts[] = {options.starts, options.disconnects, options.rounds, options.reloads,
                           options.realtimeSeconds};
    std::printf("kr7_soak: %s\n", options.plugin.c_str());
    std::printf(
        "figures: at the phase's start | after its first slice -> at its end; rss in MiB\n");
    const Clock::time_point begin = Clock::now();
    bool passed = true;
    for (std::size_t i = 0; i < soak::Phases().size(); ++i) {
        if (counts[i] > 0) {
            passed = RunChild(soak::Phases()[i], counts[i], options) && passed;
        }
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    std::printf("%s in %.1f s\n", passed ? "PASS" : "FAIL", seconds);
    return passed ? 0 : 1;
}
