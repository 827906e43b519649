// Device faults as a host sees them. Each row of the table below makes one
// scanner API or calibration library call fail (the stand-ins' fault rules)
// under one host operation, and states what the host must see: the result
// number and the last error's text, or for a capture the text of the error
// callback. The rule fires once, so the operation run again right after must
// work as usual; the process must survive, unload the plug-in and not hang.
//
// Fault rules are read once per process and counts run over its life, so
// every row runs kr7_fault_host (fault_host.cpp) in a process of its own.
// Rows run two at a time while the suite is set up; each row is then a test
// of its own that checks its record.
//
// A last test runs every operation without faults, with the stand-ins'
// journals on, and requires a row for each entry the operation called.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <norvakkr7fg/framegrabber.h>

extern char** environ;

namespace {

// The failure is reported through the capture's error callback, which
// carries only a text.
constexpr long kCallback = LONG_MIN;
// A value not checked.
constexpr long kAny = LONG_MIN;
// Live frames a working capture delivers before the host stops it.
constexpr int kFrames = 6;

constexpr const char* kInitFailed = "QV2 scanner. The scanner couldn't be initialized.";
constexpr const char* kLongImageFailed = "QV2 scanner. Set camara resolution failed.";
constexpr const char* kMemorySizeFailed = "Read the scanner memory size failed.";
constexpr const char* kNotSupported = "The QV2-scanner hardware version is not supported";
constexpr const char* kNoInstance = "std::bad_alloc";
constexpr const char* kMalformed = "The calibration data is malformed.";
constexpr const char* kSizeFailed = "Couldn't read the image size of scanner.";
constexpr const char* kRawFailed = "Capture raw image failed.";
constexpr const char* kFrameFailed = "Capture frame failed.";
constexpr const char* kDisconnected = "The scanner is disconnected.";
constexpr const char* kListFailed = "Get scanner list failed.";
constexpr const char* kLEDFailed = "Switch the LED failed";

struct Row {
    const char* operation;  // kr7_fault_host's operation
    const char* faults;     // ftr* rules go to KR7SIM_FAULTS, the others to KR7SIM_CAL_FAULTS
    long number;            // 0: the operation works as usual
    const char* text;       // part of the error's text ("" any)
    long value = kAny;      // what the first run reads back
    bool event = false;     // a fake-finger event reaches the host
};

// clang-format off
const Row kRows[] = {
    // Initizalize touches no device.
    {"initialize", "ftrScanOpenDevice@1+=21; CalibrateCreate@1+=1", 0, ""},

    // GetInfo: opening, long image, calibration from the extended memory
    // (the scanner's set-up, the same for every operation: its failures are
    // checked here, and for the other operations reporting through results
    // only the open's), serial number, versions; the teardown's calls on the
    // way out.
    {"info", "ftrScanOpenDevice@1=21", 21, kInitFailed},
    {"info", "ftrScanOpenDevice@1=21; ftrScanGetLastError@1=87", 87, kInitFailed},
    {"info", "ftrScanSetOptions@1=31", 31, kLongImageFailed},
    {"info", "ftrScanSetOptions@1=0x20000004", 0, ""},  // no long image: tolerated
    {"info", "ftrScanGetExtMemorySize@1=31", 31, kMemorySizeFailed},
    {"info", "ftrScanRestoreExtMemory@1=8", 22, kNotSupported},
    {"info", "ftrScanRestoreExtMemory@1=21", 23, ""},  // the system's text for errno
    {"info", "CalibrateCreate@1=1", 23, kNoInstance},
    {"info", "CalibrateSetData@1=-11", -11, kMalformed},
    {"info", "CalibrateSetData@1=-3; CalibrateGetErrorDescription@1=-10", -3,
     "No calibration data has been set."},  // the library's text
    {"info", "ftrScanGetSerialNumber@1=21", 21, "Could not read the serial number of the scanner."},
    {"info", "ftrScanGetSerialNumber@1=31", 31, kDisconnected},
    {"info", "ftrScanGetVersion@1=31", 0, ""},  // versions left out
    {"info", "ftrScanSetDiodesStatus@1-2=31", 0, ""},
    {"info", "ftrScanCloseDevice@1=31", 0, ""},
    {"info", "CalibrateDelete@1=1", 0, ""},

    // GetImage: the scanner set up as for GetInfo, the channel shaped by one
    // raw frame and the calibration's size query, then one frame.
    {"snap", "ftrScanOpenDevice@1=21", 21, kInitFailed},
    {"snap", "ftrScanGetImageSize@1=21", 21, kSizeFailed},
    {"snap", "ftrScanGetImageByVariableDose@1=87", 87, kRawFailed},
    {"snap", "Calibrate@1=-20", -20, "an 8-bit uncompressed bitmap is required"},
    {"snap", "Calibrate@1=-21", -1, "The Calibrate methode return the output bitmap size 0"},
    {"snap", "Calibrate@2=-22", -22, "The image size does not match the calibration data."},
    {"snap", "ftrScanSetOptions@2=21", 21, "Could not disable fake finger detetion"},
    {"snap", "ftrScanGetImageByVariableDose@2=31", 31, kDisconnected},
    {"snap", "ftrScanGetImageByVariableDose@2=87", 87, kFrameFailed},
    {"snap", "ftrScanGetImageByVariableDose@2=0x20000003", 0x20000003, "The user canceled the action"},
    {"snap", "ftrScanGetImageByVariableDose@2=0x20000004", 0x20000004, "The hardware is incompatible"},
    {"snap", "ftrScanGetImageByVariableDose@2=4306", 0, ""},        // empty frame: a white image
    {"snap", "ftrScanGetImageByVariableDose@2=0x20000001", 0, ""},  // moving finger
    {"snap", "ftrScanGetImageByVariableDose@2=0x20000002", 0, "", kAny, true},  // fake finger
    {"snap", "Calibrate@3=-23", -23, "The image buffer is smaller than the bitmap it describes."},
    // With fake-finger detection on (property 6), the option is set and the
    // frame taken by ftrScanGetFrame.
    {"fake-snap", "ftrScanSetOptions@2=21", 21, "Could not set option for fake finger detection"},
    {"fake-snap", "ftrScanGetFrame@1=31", 31, kDisconnected},
    {"fake-snap", "ftrScanGetFrame@1=87", 87, kFrameFailed},
    {"fake-snap", "ftrScanGetFrame@1=0x20000002", 0, "", kAny, true},

    // ContaminationDetection on a raw frame.
    {"contamination", "ftrScanOpenDevice@1=21", 21, kInitFailed},
    {"contamination", "ftrScanGetImageSize@1=21", 21, kSizeFailed},
    {"contamination", "ftrScanGetImageSize@1=31", 31, kDisconnected},
    {"contamination", "ftrScanGetImageByVariableDose@1=87", 87, "Capture image failed."},
    {"contamination", "ftrScanGetImageByVariableDose@1=31", 31, kDisconnected},
    {"contamination", "ContaminationDetection@1=-22", -22,
     "The image size does not match the calibration data."},

    // Live capture: the worker sets the scanner and the channel up, then
    // takes frames; empty frames, a moving and a fake finger do not end it.
    {"live", "ftrScanOpenDevice@1=21", kCallback, kInitFailed},
    {"live", "ftrScanSetOptions@1=21", kCallback, kLongImageFailed},
    {"live", "ftrScanGetExtMemorySize@1=21", kCallback, kMemorySizeFailed},
    {"live", "ftrScanRestoreExtMemory@1=8", kCallback, kNotSupported},
    {"live", "CalibrateCreate@1=1", kCallback, kNoInstance},
    {"live", "CalibrateSetData@1=-11", kCallback, kMalformed},
    {"live", "ftrScanGetImageSize@1=21", kCallback, kSizeFailed},
    {"live", "ftrScanGetImageByVariableDose@1=87", kCallback, kRawFailed},
    {"live", "Calibrate@1=-20", kCallback, "an 8-bit uncompressed bitmap is required"},
    {"live", "Calibrate@2=-22", kCallback, "The image size does not match the calibration data."},
    {"live", "ftrScanSetOptions@2=21", kCallback, "Could not disable fake finger detetion"},
    {"live", "ftrScanGetImageByVariableDose@3=31", kCallback, kDisconnected},
    {"live", "ftrScanGetImageByVariableDose@3=87", kCallback, kFrameFailed},
    {"live", "ftrScanGetImageByVariableDose@3=4306", 0, ""},
    {"live", "ftrScanGetImageByVariableDose@3=0x20000001", 0, ""},
    {"live", "ftrScanGetImageByVariableDose@3=0x20000002", 0, "", kAny, true},
    {"live", "Calibrate@4=-23", kCallback, "The image buffer is smaller than the bitmap it describes."},
    // With fake-finger detection on.
    {"fake-live", "ftrScanSetOptions@2=21", kCallback, "Could not set option for fake finger detection"},
    {"fake-live", "ftrScanGetFrame@2=31", kCallback, kDisconnected},
    {"fake-live", "ftrScanGetFrame@2=0x20000002", 0, "", kAny, true},
    // With the red LED lit, every frame is followed by its restore, and the
    // frame's error is put back for the plug-in to read.
    {"lit-live", "ftrScanGetImageByVariableDose@3=31", kCallback, kDisconnected},
    {"lit-live", "ftrScanGetImageByVariableDose@3=31; ftrScanSetLastError@1=87", kCallback,
     kFrameFailed},
    {"lit-live", "ftrScanSetDiodesStatus@3=21", 0, ""},  // a failed restore does not matter

    // Plain-finger capture: the same device calls as the live one, whose rows
    // stand for its set-up; the frames go on to the finger detector.
    {"plain", "ftrScanGetImageByVariableDose@3=31", kCallback, kDisconnected},
    {"plain", "ftrScanGetImageByVariableDose@3=4306", 0, ""},
    {"plain", "Calibrate@3=-22", kCallback, "The image size does not match the calibration data."},

    // LEDs (properties 7 and 8): setting one opens the scanner; a failed
    // switch leaves the property as it was. Reading touches no device.
    {"red-set", "ftrScanOpenDevice@1=21", 21, kInitFailed, 0},
    {"red-set", "ftrScanSetDiodesStatus@1=21", 21, kLEDFailed, 0},
    {"red-set", "ftrScanSetDiodesStatus@1=31", 31, kDisconnected, 0},
    {"green-set", "ftrScanSetDiodesStatus@1=21", 21, kLEDFailed, 0},
    {"red-get", "ftrScanOpenDevice@1+=21; ftrScanGetDiodesStatus@1+=21", 0, "", 0},
    {"green-get", "ftrScanOpenDevice@1+=21; ftrScanGetDiodesStatus@1+=21", 0, "", 0},
    // Fake-finger detection (property 6) is applied at the next frame only.
    {"fake-set", "ftrScanOpenDevice@1+=21; ftrScanSetOptions@1+=21", 0, "", 100},
    {"fake-get", "ftrScanOpenDevice@1+=21; ftrScanSetOptions@1+=21", 0, "", 0},

    // AvailableDevices (two scanners): the serial number of the selected one
    // and of the other, read there and selected back; the active scanner is
    // read back after the list.
    {"list", "ftrScanOpenDevice@1=21", 0, "", 0},  // the serial number's read opens it
    {"list", "ftrScanGetInterfaces@1=31", 31, kListFailed, 0},
    {"list", "ftrGetBaseInterfaceNumber@1=50", 50, kListFailed, 0},
    {"list", "ftrScanGetSerialNumber@1=21", 21, kListFailed, 0},
    {"list", "ftrSetBaseInterface@1=259", 259, kListFailed, 0},
    {"list", "ftrScanOpenDevice@2=21", 21, kListFailed, 0},
    {"list", "ftrScanGetSerialNumber@2=21", 21, kListFailed, 0},
    {"list", "ftrSetBaseInterface@2=21", 21, kListFailed},  // cannot select back
    {"list", "ftrScanSetDiodesStatus@1=31", 0, "", 0},
    {"list", "ftrScanCloseDevice@1=31", 0, "", 0},
    // The size query: 17 with the number of scanners, whatever the API's
    // last error.
    {"count", "ftrScanGetInterfaces@1=31", 31, kListFailed},
    {"count", "ftrScanOpenDevice@1=21", 17, kListFailed, 2},
    {"count", "ftrScanSetLastError@1=5", 17, kListFailed, 2},
    {"count", "ftrScanGetLastError@1=5", 17, kListFailed, 2},
    {"count", "ftrScanSetDiodesStatus@1=31", 17, kListFailed, 2},
    {"count", "ftrScanCloseDevice@1=31", 17, kListFailed, 2},

    // SetActiveDevice(1) and GetActiveDevice.
    {"select", "ftrSetBaseInterface@1=259", 27,
     "The device index out of range or is not supported by frame grabber"},
    {"select", "ftrSetBaseInterface@1=21", 21, "SetActiveScanner failed"},
    {"select", "ftrScanOpenDevice@1=21", 0, ""},
    {"select", "ftrScanSetDiodesStatus@1=31", 0, ""},
    {"select", "ftrScanCloseDevice@1=31", 0, ""},
    {"active", "ftrGetBaseInterfaceNumber@1=50", 50, "GetActiveScanner failed.", 99},
    {"active", "ftrScanOpenDevice@1=21", 0, "", 0},
    {"active", "ftrScanSetDiodesStatus@1=31", 0, "", 0},
    {"active", "ftrScanCloseDevice@1=31", 0, "", 0},
};
// clang-format on

// A real disconnection: after a contamination measurement (one frame) the
// scanner is unplugged for one frame, and its handle stays dead after the
// replug. The operation that meets it fails; the next one must open the
// scanner again and work.
constexpr const char* kUnplugWarmUp = "contamination";
constexpr const char* kUnplugScenario = "empty 1f; unplug 1f; empty";

const Row kUnplugs[] = {
    {"contamination", "", 31, kDisconnected},
    {"red-set", "", 31, kDisconnected, 0},
    {"info", "", 31, kDisconnected},
    {"snap", "", 31, kDisconnected},  // met while the channel is set up
    {"live", "", kCallback, kDisconnected},
};

// What the operations give when nothing fails.
struct Usual {
    unsigned int result;
    const char* text;
    long value;
    bool capture;
};

Usual UsualOutcome(const std::string& operation) {
    static const std::map<std::string, Usual> usual = {
        {"initialize", {0, "", kAny, false}},
        {"info", {0, "", kAny, false}},
        {"snap", {0, "", kAny, false}},
        {"fake-snap", {0, "", kAny, false}},
        {"contamination", {0, "", kAny, false}},
        {"live", {0, "", kAny, true}},
        {"fake-live", {0, "", kAny, true}},
        {"lit-live", {0, "", kAny, true}},
        {"plain", {0, "", kAny, true}},
        {"red-set", {0, "", 100, false}},
        {"green-set", {0, "", 100, false}},
        {"red-get", {0, "", 0, false}},
        {"green-get", {0, "", 0, false}},
        {"fake-set", {0, "", 100, false}},
        {"fake-get", {0, "", 0, false}},
        {"list", {0, "", kAny, false}},
        {"count", {vc::FGERR_FLAG | vc::FGERR_MORE_DATA, kListFailed, 2, false}},
        {"select", {0, "", kAny, false}},
        {"active", {0, "", 0, false}},
    };
    const auto found = usual.find(operation);
    EXPECT_NE(usual.end(), found) << operation;
    return found != usual.end() ? found->second : Usual{0, "", kAny, false};
}

// ---- running the host ---------------------------------------------------------

// One run of the host: how it ended and what it printed (both streams).
struct HostRun {
    int status = -1;  // the wait status
    bool hung = false;
    std::string output;

    // The fields of the line starting with `key`: "result=0x0 ... text=..."
    std::map<std::string, std::string> Line(const std::string& key) const {
        std::map<std::string, std::string> fields;
        std::istringstream lines(output);
        for (std::string line; std::getline(lines, line);) {
            if (line.compare(0, key.size() + 1, key + " ") != 0) {
                continue;
            }
            const std::size_t text = line.find(" text=");
            std::istringstream words(line.substr(key.size() + 1, text - key.size() - 1));
            for (std::string word; words >> word;) {
                const std::size_t eq = word.find('=');
                fields[word.substr(0, eq)] = word.substr(eq + 1);
            }
            if (text != std::string::npos) {
                fields["text"] = line.substr(text + 6);
            }
        }
        return fields;
    }
};

// Runs the host with `arguments` and the variables in `settings`, every
// other KR7SIM_* and KR7_LOG_* variable removed; ended after four minutes
// (timeout's status 124, or 137 when the host needed a KILL).
HostRun RunHost(const std::vector<std::string>& arguments,
                std::map<std::string, std::string> settings) {
    const auto quoted = [](const std::string& word) {
        std::string quoted = "'";
        for (const char c : word) {
            quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
        }
        return quoted + "'";
    };
    std::string command = "timeout -k 10 240 env";
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string name(*entry, std::strcspn(*entry, "="));
        if (name.compare(0, 7, "KR7SIM_") == 0 || name.compare(0, 8, "KR7_LOG_") == 0) {
            command += " -u " + name;
        }
    }
    settings["LD_LIBRARY_PATH"] = KR7_SIM_LIB;
    for (const auto& [name, value] : settings) {
        command += " " + quoted(name + "=" + value);
    }
    command += " " + quoted(KR7_FAULT_HOST);
    for (const std::string& argument : arguments) {
        command += " " + quoted(argument);
    }
    HostRun run;
    FILE* output = popen((command + " 2>&1").c_str(), "r");
    if (output == nullptr) {
        run.output = "cannot start the host";
        return run;
    }
    char buffer[4096];
    for (std::size_t got; (got = std::fread(buffer, 1, sizeof buffer, output)) > 0;) {
        run.output.append(buffer, got);
    }
    run.status = pclose(output);
    const int code = WIFEXITED(run.status) ? WEXITSTATUS(run.status) : 128 + WTERMSIG(run.status);
    run.hung = code == 124 || code == 137;
    return run;
}

// Runs `count` jobs two at a time (the machine's cores).
template <class Job>
void RunInParallel(std::size_t count, Job job) {
    std::atomic<std::size_t> next{0};
    auto worker = [&] {
        for (std::size_t i = next++; i < count; i = next++) {
            job(i);
        }
    };
    std::thread other(worker);
    worker();
    other.join();
}

// The variables that put a row's rules in force.
std::map<std::string, std::string> FaultSettings(const std::string& faults) {
    std::string scanner, calibration;
    std::istringstream rules(faults);
    for (std::string rule; std::getline(rules, rule, ';');) {
        rule.erase(0, rule.find_first_not_of(' '));
        std::string& list = rule.compare(0, 3, "ftr") == 0 ? scanner : calibration;
        list += (list.empty() ? "" : ";") + rule;
    }
    return {{"KR7SIM_FAULTS", scanner}, {"KR7SIM_CAL_FAULTS", calibration}};
}

std::string Name(std::size_t index, const std::string& operation, const std::string& faults) {
    char prefix[8];
    std::snprintf(prefix, sizeof prefix, "%03zu_", index);
    std::string name = prefix + operation + "_" + faults;
    for (char& c : name) {
        c = std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    }
    return name;
}

// ---- checks ---------------------------------------------------------------------

long Number(const std::string& text) {
    return std::strtol(text.c_str(), nullptr, 0);
}

// The process survived, unloaded the plug-in and Uninitialize worked.
void ExpectSurvived(const HostRun& run) {
    EXPECT_FALSE(run.hung) << "no answer within the time limit";
    EXPECT_TRUE(WIFEXITED(run.status) && WEXITSTATUS(run.status) == 0)
        << "the host ended with status " << run.status;
    EXPECT_EQ("0x0", run.Line("uninitialize")["result"]);
    EXPECT_NE(std::string::npos, run.output.find("\ndone\n")) << "the plug-in was not unloaded";
}

// The first run: the failure the row names, or the usual outcome.
void ExpectFailure(const HostRun& run, const Row& row) {
    const long number = row.number, value = row.value;
    const std::string text = row.text;
    std::map<std::string, std::string> first = run.Line("first");
    ASSERT_FALSE(first.empty()) << "no first run";
    const Usual usual = UsualOutcome(row.operation);
    if (usual.capture) {
        EXPECT_EQ("0x0", first["result"]) << "StartCapture";
        if (number == 0) {
            EXPECT_EQ("", first["text"]) << "error callback";
            EXPECT_GE(Number(first["images"]), kFrames);
        } else {
            EXPECT_EQ(kCallback, number) << "a capture reports through the error callback";
            EXPECT_NE(std::string::npos, first["text"].find(text))
                << "error callback: " << first["text"];
            EXPECT_NE("", first["text"]) << "no error callback";
        }
    } else if (number == 0) {
        EXPECT_EQ(usual.result, static_cast<unsigned int>(Number(first["result"])));
        EXPECT_EQ(usual.text, first["text"]);
    } else {
        const unsigned int expected = static_cast<unsigned int>(number) | vc::FGERR_FLAG;
        EXPECT_EQ(expected, static_cast<unsigned int>(Number(first["result"])))
            << "result " << first["result"];
        EXPECT_NE(std::string::npos, first["text"].find(text)) << "last error: " << first["text"];
        EXPECT_NE("", first["text"]) << "no last error";
    }
    if (value != kAny) {
        EXPECT_EQ(value, Number(first["value"])) << "read back";
    }
    EXPECT_EQ(row.event, Number(first["events"]) > 0) << "fake-finger events";
}

// The second run: the operation works as usual.
void ExpectRecovered(const HostRun& run, const std::string& operation) {
    std::map<std::string, std::string> second = run.Line("second");
    ASSERT_FALSE(second.empty()) << "no second run";
    const Usual usual = UsualOutcome(operation);
    EXPECT_EQ(usual.result, static_cast<unsigned int>(Number(second["result"])))
        << "result " << second["result"] << " " << second["text"];
    EXPECT_EQ(usual.text, second["text"]);
    if (usual.value != kAny) {
        EXPECT_EQ(usual.value, Number(second["value"])) << "read back";
    }
    if (usual.capture) {
        EXPECT_GE(Number(second["images"]), kFrames);
    } else if (operation == "snap" || operation == "fake-snap") {
        EXPECT_EQ(1, Number(second["images"]));
    }
    EXPECT_EQ(0, Number(second["events"]));
}

// ---- the table ------------------------------------------------------------------

class DeviceFaults : public ::testing::TestWithParam<std::size_t> {
public:
    static void SetUpTestSuite() {
        s_runs.assign(std::size(kRows), HostRun());
        RunInParallel(std::size(kRows), [](std::size_t i) {
            s_runs[i] = RunHost({kRows[i].operation}, FaultSettings(kRows[i].faults));
        });
    }
    static std::vector<HostRun> s_runs;
};

std::vector<HostRun> DeviceFaults::s_runs;

TEST_P(DeviceFaults, HostSeesTheErrorAndTheNextCallWorks) {
    const Row& row = kRows[GetParam()];
    const HostRun& run = s_runs[GetParam()];
    SCOPED_TRACE(std::string(row.operation) + " with " + row.faults + "\n" + run.output);
    ExpectSurvived(run);
    ExpectFailure(run, row);
    ExpectRecovered(run, row.operation);
}

INSTANTIATE_TEST_SUITE_P(Rows, DeviceFaults, ::testing::Range<std::size_t>(0, std::size(kRows)),
                         [](const ::testing::TestParamInfo<std::size_t>& info) {
                             const Row& row = kRows[info.param];
                             return Name(info.param, row.operation, row.faults);
                         });

class Disconnection : public ::testing::TestWithParam<std::size_t> {};

TEST_P(Disconnection, TheNextOperationOpensTheScannerAgain) {
    const Row& unplug = kUnplugs[GetParam()];
    const HostRun run = RunHost({unplug.operation, kUnplugWarmUp},
                                {{"KR7SIM_SCENARIO", kUnplugScenario}, {"KR7SIM_UNITS", "1"}});
    SCOPED_TRACE(run.output);
    ExpectSurvived(run);
    ExpectFailure(run, unplug);
    ExpectRecovered(run, unplug.operation);
}

INSTANTIATE_TEST_SUITE_P(Unplugged, Disconnection,
                         ::testing::Range<std::size_t>(0, std::size(kUnplugs)),
                         [](const ::testing::TestParamInfo<std::size_t>& info) {
                             return Name(info.param, kUnplugs[info.param].operation, "");
                         });

// ---- every entry an operation calls has a row -----------------------------------

// The entries named in a journal's lines, split at line `mark`: "3 t1
// ftrScanGetFrame(h1, buffer) -> 1" (scanner) or "3 Calibrate -> 0".
void JournalEntries(const std::string& path, long mark, std::set<std::string>& before,
                    std::set<std::string>& after) {
    std::ifstream in(path);
    long number = 0;
    for (std::string line; std::getline(in, line); ++number) {
        std::istringstream words(line);
        std::string sequence, word;
        words >> sequence >> word;
        if (word.size() > 1 && word[0] == 't' &&
            std::isdigit(static_cast<unsigned char>(word[1]))) {
            words >> word;
        }
        (number < mark ? before : after).insert(word.substr(0, word.find('(')));
    }
}

// Operations whose calls the rows of another stand for: the variants make
// the calls of the operation they vary, a plain-finger capture those of a
// live one.
const std::map<std::string, std::string> kRowsOf = {{"fake-snap", "snap"},
                                                    {"fake-live", "live"},
                                                    {"lit-live", "live"},
                                                    {"plain", "live"},
                                                    {"green-set", "red-set"}};
// The scanner's set-up past the open, whose rows are info's.
const std::set<std::string> kSetUp = {"ftrScanSetOptions", "ftrScanGetExtMemorySize",
                                      "ftrScanRestoreExtMemory", "CalibrateCreate",
                                      "CalibrateSetData"};

bool RowNames(const std::string& operation, const std::string& entry) {
    const auto variant = kRowsOf.find(operation);
    const std::string stands = variant != kRowsOf.end() ? variant->second : operation;
    for (const Row& row : kRows) {
        const std::string faults = std::string(";") + row.faults, of = row.operation;
        const bool named = faults.find(";" + entry + "@") != std::string::npos ||
                           faults.find("; " + entry + "@") != std::string::npos;
        if (named && (operation.empty() || of == operation || of == stands ||
                      (of == "info" && kSetUp.count(entry) != 0))) {
            return true;
        }
    }
    return false;
}

TEST(DeviceFaultTable, EveryEntryAnOperationCallsHasARow) {
    std::vector<std::string> operations;
    for (const Row& row : kRows) {
        if (std::find(operations.begin(), operations.end(), row.operation) == operations.end()) {
            operations.push_back(row.operation);
        }
    }
    const std::string folder =
        ::testing::TempDir() + "kr7_fault_journals_" + std::to_string(getpid()) + "/";
    ASSERT_EQ(0, std::system(("mkdir -p '" + folder + "'").c_str()));
    std::vector<HostRun> runs(operations.size());
    RunInParallel(operations.size(), [&](std::size_t i) {
        runs[i] =
            RunHost({operations[i]}, {{"KR7SIM_JOURNAL", folder + operations[i] + ".scan"},
                                      {"KR7SIM_CAL_JOURNAL", folder + operations[i] + ".cal"}});
    });
    std::set<std::string> teardown;
    for (std::size_t i = 0; i < operations.size(); ++i) {
        SCOPED_TRACE(operations[i] + "\n" + runs[i].output);
        ExpectSurvived(runs[i]);
        std::map<std::string, std::string> mark = runs[i].Line("journal");
        std::set<std::string> called;
        JournalEntries(folder + operations[i] + ".scan", Number(mark["scanner"]), called, teardown);
        JournalEntries(folder + operations[i] + ".cal", Number(mark["calibration"]), called,
                       teardown);
        for (const std::string& entry : called) {
            EXPECT_TRUE(RowNames(operations[i], entry)) << "no row for " << entry;
        }
    }
    EXPECT_FALSE(teardown.empty());
    for (const std::string& entry : teardown) {
        EXPECT_TRUE(RowNames("", entry)) << "no row for " << entry << " (teardown)";
    }
    std::filesystem::remove_all(folder);
}

}  // namespace
