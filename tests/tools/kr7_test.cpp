// kr7 end to end: the built tool runs as a process against the virtual
// scanner (and without it, for the loading failures); its exit status,
// output, JSON documents and image files are checked. Each case is a CTest
// test of its own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "kr7host/image.h"

namespace fs = std::filesystem;

namespace {

using kr7host::Image;

constexpr const char* kScenario = "empty 0.3s; place; hold 1s; lift 0.5s; repeat";

using Json = nlohmann::json;

Json ParseJson(const std::string& text) {
    Json value = Json::parse(text, nullptr, false);
    EXPECT_FALSE(value.is_discarded()) << "not one JSON document:\n" << text;
    return value;
}

// ---- image files --------------------------------------------------------------

std::string Slurp(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A PNG, BMP or PGM file kr7 wrote; fails the test when it cannot be read.
// PNG and BMP files carry their scale: the scanner's 500 pixels per inch,
// less on a sheet of shrunk images.
Image ReadImage(const fs::path& path, int ppi = 500) {
    Image image;
    try {
        image = kr7host::ReadImage(path.string());
    } catch (const std::exception& e) {
        ADD_FAILURE() << e.what();
    }
    if (kr7host::FormatOf(path.string()) != kr7host::Format::Pgm) {
        EXPECT_EQ(ppi, image.ppi) << path;
    }
    return image;
}

// ---- running kr7 ------------------------------------------------------------------

struct Outcome {
    int status = -1;  // exit status, 128 + signal when killed
    std::string out;
    std::string err;
};

class Kr7 : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/kr7_test_XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(pattern));
        dir = pattern;
    }
    void TearDown() override {
        std::error_code ignored;
        fs::remove_all(dir, ignored);
    }

    // Runs kr7 with `args` in the test's folder and the virtual scanner's
    // settings cleared, then `env` (NAME=value) added. Captures that count
    // results pass a timeout far above kr7's 30 s default: a sanitizer build
    // on a busy machine takes many seconds per result. `during` runs while
    // kr7 does; a kr7 still running after two minutes is killed.
    Outcome Kr7Run(const std::vector<std::string>& args, const std::vector<std::string>& env = {},
                   const std::function<void(pid_t)>& during = nullptr) {
        const fs::path out = dir / "stdout", err = dir / "stderr";
        const pid_t pid = fork();
        if (pid == 0) {
            for (const char* name : {"KR7SIM_SCENARIO", "KR7SIM_UNITS", "KR7SIM_REALTIME",
                                     "KR7SIM_FAULTS", "KR7_SIM_DIR", "KR7_LOG_LEVEL"}) {
                unsetenv(name);
            }
            for (const std::string& setting : env) {
                const std::size_t equals = setting.find('=');
                setenv(setting.substr(0, equals).c_str(), setting.substr(equals + 1).c_str(), 1);
            }
            const int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            const int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            if (o < 0 || e < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0 || chdir(dir.c_str()) != 0) {
                _exit(127);
            }
            std::vector<char*> argv{const_cast<char*>(KR7_TOOL)};
            for (const std::string& arg : args) {
                argv.push_back(const_cast<char*>(arg.c_str()));
            }
            argv.push_back(nullptr);
            execv(KR7_TOOL, argv.data());
            _exit(127);
        }
        Outcome run;
        EXPECT_GT(pid, 0);
        if (pid <= 0) {
            return run;
        }
        if (during) {
            during(pid);
        }
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(2);
        int status = 0;
        while (waitpid(pid, &status, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > deadline) {
                ADD_FAILURE() << "kr7 hangs; killed";
                kill(pid, SIGKILL);
                waitpid(pid, &status, 0);
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        run.out = Slurp(out);
        run.err = Slurp(err);
        return run;
    }

    // A folder holding links to some of the stand-ins.
    fs::path Libraries(const std::string& name, const std::vector<std::string>& files) {
        const fs::path folder = dir / name;
        fs::create_directories(folder);
        for (const std::string& file : files) {
            fs::create_symlink(fs::path(KR7_SIM_LIB) / file, folder / file);
        }
        return folder;
    }

    fs::path dir;
};

#define EXPECT_CONTAINS(haystack, needle) \
    EXPECT_NE(std::string::npos, std::string(haystack).find(needle)) << (haystack)

// ---- the cases --------------------------------------------------------------------

TEST_F(Kr7, ListAndInfoAsTextAndJson) {
    // A quote and a backslash in a serial number must survive the JSON.
    const std::string units = "KR7SIM_UNITS=if=0,serial=KR7\"UN\\0;if=2,serial=KR7UNIT2,hw=4.2.1";
    Outcome run = Kr7Run({"--virtual", "list"}, {units});
    ASSERT_EQ(0, run.status) << run.err;
    EXPECT_CONTAINS(run.out, "* interface 0: serial KR7\"UN\\0\n");
    EXPECT_CONTAINS(run.out, "  interface 2: serial KR7UNIT2\n");

    run = Kr7Run({"--virtual", "--device", "2", "--json", "list"}, {units});
    ASSERT_EQ(0, run.status) << run.err;
    Json list = ParseJson(run.out);
    ASSERT_EQ(2u, list["scanners"].size());
    EXPECT_EQ("KR7\"UN\\0", list["scanners"][0]["serial"].get<std::string>());
    EXPECT_FALSE(list["scanners"][0]["active"].get<bool>());
    EXPECT_EQ(2, list["scanners"][1]["interface"].get<double>());
    EXPECT_TRUE(list["scanners"][1]["active"].get<bool>());

    run = Kr7Run({"--virtual", "--json", "--device", "2", "info"}, {units});
    ASSERT_EQ(0, run.status) << run.err;
    Json info = ParseJson(run.out);
    EXPECT_EQ("1.13.38.0", info["plugin"]["version"].get<std::string>());
    EXPECT_EQ("Norvak QV2 scanner", info["scanner"]["product"].get<std::string>());
    EXPECT_EQ("KR7UNIT2", info["scanner"]["serial"].get<std::string>());
    EXPECT_EQ("4.2.1", info["scanner"]["hardware"].get<std::string>());
    EXPECT_EQ("1.7", info["scanner"]["firmware"].get<std::string>());
    EXPECT_EQ("KR7SIM CAL 1.0.0", info["scanner"]["calibration"].get<std::string>());
    ASSERT_EQ(2u, info["capture_modes"].size());
    EXPECT_EQ("live", info["capture_modes"][0]["name"].get<std::string>());
    EXPECT_EQ("plain", info["capture_modes"][1]["name"].get<std::string>());
    EXPECT_EQ(8, info["cameras"].at(0)["id"].get<double>());
    EXPECT_EQ(4u, info["properties"].size());

    run = Kr7Run({"--virtual", "info"});
    ASSERT_EQ(0, run.status) << run.err;
    EXPECT_CONTAINS(run.out, "scanner            Norvak QV2 scanner\n");
    EXPECT_CONTAINS(run.out, "firmware version   1.7\n");
    EXPECT_CONTAINS(run.out, "capture modes      live (0), plain (1)\n");
}

TEST_F(Kr7, SnapWritesTheSameImageInEveryFormat) {
    std::vector<Image> images;
    for (const char* file : {"snap.png", "snap.bmp", "snap.pgm"}) {
        const Outcome run = Kr7Run({"--virtual", "--json", "snap", "-o", file});
        ASSERT_EQ(0, run.status) << run.err;
        Json json = ParseJson(run.out);
        images.push_back(ReadImage(dir / file));
        EXPECT_EQ(json["width"].get<double>(), images.back().width);
        EXPECT_EQ(json["height"].get<double>(), images.back().height);
    }
    // The virtual scanner gives the same frame in every run: one image,
    // the right way up in all three files.
    EXPECT_GT(images[0].width, 100);
    EXPECT_GT(images[0].height, images[0].width);
    EXPECT_EQ(images[0].pixels, images[1].pixels);
    EXPECT_EQ(images[0].pixels, images[2].pixels);
}

TEST_F(Kr7, PlainCaptureKeepsOneResultPerPlacementAndDrawsASheet) {
    const Outcome run = Kr7Run({"--virtual", "--json", "capture", "--timeout", "100", "--count",
                                "2", "--out", "prints", "--sheet", "sheet.png"},
                               {std::string("KR7SIM_SCENARIO=") + kScenario});
    ASSERT_EQ(0, run.status) << run.err;
    Json summary = ParseJson(run.out);
    EXPECT_EQ("count", summary["stopped"].get<std::string>());
    EXPECT_TRUE(summary["complete"].get<bool>());
    Json& images = summary["images"];
    ASSERT_EQ(2u, images.size());
    for (std::size_t i = 0; i < images.size(); ++i) {
        EXPECT_EQ("prints/result-00" + std::to_string(i + 1) + ".png",
                  images[i]["file"].get<std::string>());
        const Image image = ReadImage(dir / images[i]["file"].get<std::string>());
        EXPECT_EQ(images[i]["width"].get<double>(), image.width);
        EXPECT_GT(images[i]["area"].get<double>(), 0.2);
        EXPECT_GT(images[i]["contrast"].get<double>(), 0.2);
    }
    // The finger is held 1 s (25 frames) and gone for 0.8 s: two placements.
    EXPECT_GT(images[1]["frame"].get<double>() - images[0]["frame"].get<double>(), 20);

    const Image sheet = ReadImage(dir / "sheet.png");
    EXPECT_GT(sheet.width, 2 * static_cast<int>(images[0]["width"].get<double>()));
    EXPECT_GT(sheet.height, static_cast<int>(images[0]["height"].get<double>()));
    EXPECT_LT(sheet.height, 2 * static_cast<int>(images[0]["height"].get<double>()));
}

TEST_F(Kr7, RolledCaptureIsNotedAndRuns) {
    const Outcome run = Kr7Run({"--virtual", "capture", "--timeout", "100", "--mode", "rolled",
                                "--count", "2", "--name", "roll-%02d.bmp", "--sheet", "rolls.pgm"},
                               {"KR7SIM_SCENARIO=empty 0.3s; roll; empty 0.5s; repeat"});
    ASSERT_EQ(0, run.status) << run.err;
    EXPECT_CONTAINS(run.err, "does not list rolled capture");
    EXPECT_CONTAINS(run.out, "result 2: roll-02.bmp");
    EXPECT_CONTAINS(run.out, "2 results in");
    // A rolled print covers much more of the platen than a plain one.
    const Image roll = ReadImage(dir / "roll-01.bmp");
    std::size_t dark = 0;
    for (std::uint8_t p : roll.pixels) {
        dark += p < 128 ? 1 : 0;
    }
    EXPECT_GT(dark, roll.pixels.size() / 5);
    EXPECT_GT(ReadImage(dir / "rolls.pgm").width, 2 * roll.width);
}

TEST_F(Kr7, LiveCaptureWritesFrames) {
    const Outcome run = Kr7Run({"--virtual", "capture", "--timeout", "100", "--mode", "live",
                                "--frames", "4", "--out", "live", "--name", "f%d.pgm"});
    ASSERT_EQ(0, run.status) << run.err;
    EXPECT_CONTAINS(run.out, "4 frames in");
    EXPECT_CONTAINS(run.out, "files: live/f1.pgm to live/f4.pgm\n");
    EXPECT_EQ(std::string::npos, run.out.find("frame 2:"));  // not a line per frame
    for (int i = 1; i <= 4; ++i) {
        EXPECT_GT(ReadImage(dir / "live" / ("f" + std::to_string(i) + ".pgm")).width, 100);
    }
    EXPECT_FALSE(fs::exists(dir / "live" / "f5.pgm"));
}

TEST_F(Kr7, TimeoutWithoutAFingerStopsCleanly) {
    const auto start = std::chrono::steady_clock::now();
    const Outcome run =
        Kr7Run({"--virtual", "--json", "capture", "--timeout", "1", "--sheet", "s.bmp"},
               {"KR7SIM_SCENARIO=empty 600s;"});
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
    ASSERT_EQ(0, run.status) << run.err;
    EXPECT_CONTAINS(run.err, "timed out after 1 s with 0 of 3 results");
    Json summary = ParseJson(run.out);
    EXPECT_EQ("timeout", summary["stopped"].get<std::string>());
    EXPECT_FALSE(summary["complete"].get<bool>());
    // How many frames came in the second depends on the machine's load (a
    // sanitizer build may still be starting the scanner): not checked.
    EXPECT_TRUE(summary["images"].empty());
    EXPECT_GT(ReadImage(dir / "s.bmp").width, 0);  // a sheet saying there is nothing
}

TEST_F(Kr7, InterruptStopsCleanlyAndKeepsTheImages) {
    for (const int signal : {SIGINT, SIGTERM}) {
        fs::remove_all(dir / "out");
        const Outcome run = Kr7Run(
            {"--virtual", "capture", "--count", "1000", "--timeout", "600", "--out", "out",
             "--sheet", "out/sheet.png"},
            {std::string("KR7SIM_SCENARIO=") + kScenario}, [&](pid_t pid) {
                const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
                while (!fs::exists(dir / "out" / "result-002.png") &&
                       std::chrono::steady_clock::now() < deadline) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(10));
                }
                kill(pid, signal);
            });
        EXPECT_EQ(130, run.status) << run.err;
        EXPECT_CONTAINS(run.err, "interrupted");
        EXPECT_GT(ReadImage(dir / "out" / "result-001.png").width, 100);
        EXPECT_GT(ReadImage(dir / "out" / "result-002.png").width, 100);
        // Up to 1,000 results: kept at half size for the sheet.
        EXPECT_GT(ReadImage(dir / "out" / "sheet.png", 250).width, 100);
    }
}

TEST_F(Kr7, UnpluggedScannerEndsTheCaptureWithItsError) {
    const Outcome run =
        Kr7Run({"--virtual", "capture", "--timeout", "100", "--count", "5"},
               {"KR7SIM_SCENARIO=empty 0.3s; place; hold 0.5s; unplug 5s; empty 5s"});
    EXPECT_EQ(1, run.status) << run.err;
    EXPECT_CONTAINS(run.err, "The scanner is disconnected.");
    // The finger placed before the unplug is kept.
    EXPECT_GT(ReadImage(dir / "result-001.png").width, 100);
}

TEST_F(Kr7, PluginErrorsGiveTheNumberAndText) {
    const Outcome run = Kr7Run({"--virtual", "--device", "5", "info"});
    EXPECT_EQ(1, run.status);
    EXPECT_CONTAINS(run.err, "SetActiveDevice failed: error 27 (0x1000001b): The device index");
}

TEST_F(Kr7, MissingPluginIsNamed) {
    const Outcome run = Kr7Run({"--plugin", (dir / "nowhere" / "libx.so.1").string(), "list"});
    EXPECT_EQ(3, run.status);
    EXPECT_CONTAINS(run.err, (dir / "nowhere" / "libx.so.1").string());
    EXPECT_CONTAINS(run.err, "No such file");
}

TEST_F(Kr7, MissingScannerLibrarySuggestsTheVirtualScanner) {
    const fs::path folder = Libraries("noscanner", {"libnorvakcalibratesdk.so", "libnorvaklf.so"});
    for (const char* command : {"list", "capture"}) {
        const Outcome run =
            Kr7Run({"--plugin", KR7_PLUGIN, command}, {"LD_LIBRARY_PATH=" + folder.string()});
        EXPECT_EQ(3, run.status) << command;
        EXPECT_CONTAINS(run.err, "error 23");
        EXPECT_CONTAINS(run.err, "libQV2ScanAPI.so: cannot open shared object file");
        EXPECT_CONTAINS(run.err, "--virtual");
    }
    // The virtual scanner's own folder without it: the missing file is named.
    const Outcome run = Kr7Run({"--virtual", "list"}, {"KR7_SIM_DIR=" + folder.string()});
    EXPECT_EQ(3, run.status);
    EXPECT_CONTAINS(run.err, (folder / "libQV2ScanAPI.so").string());
}

TEST_F(Kr7, BadUsageExitsWithTheUsageLine) {
    const std::vector<std::vector<std::string>> bad = {
        {},
        {"scan"},
        {"--bogus", "list"},
        {"--device", "x", "list"},
        {"list", "extra"},
        {"snap"},
        {"snap", "-o", "picture.jpg"},
        {"capture", "--mode", "sideways"},
        {"capture", "--count", "0"},
        {"capture", "--timeout", "soon"},
        {"capture", "--name", "result.png"},
        {"capture", "--name", "result-%d-%d.png"},
        {"capture", "--name", "result-%s.png"},
        {"capture", "--name", "result-%d.tiff"},
        {"capture", "--sheet", "sheet"},
        {"capture", "--frames"},
        {"led", "blue", "on"},
        {"prop", "get"},
        {"prop", "set", "6"},
        {"prop", "get", "six"},
    };
    for (const std::vector<std::string>& args : bad) {
        const Outcome run = Kr7Run(args);
        std::string line;
        for (const std::string& arg : args) {
            line += " " + arg;
        }
        EXPECT_EQ(2, run.status) << "kr7" << line;
        EXPECT_CONTAINS(run.err, "usage: kr7 [--virtual]");
    }
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"--help"}, {"capture", "--help"}, {"help", "led"}}) {
        const Outcome run = Kr7Run(args);
        EXPECT_EQ(0, run.status);
        EXPECT_CONTAINS(run.out, "examples:");
    }
}

TEST_F(Kr7, PropertiesLedsAndContamination) {
    Outcome run = Kr7Run({"--virtual", "prop", "get", "3"});
    EXPECT_EQ(0, run.status) << run.err;
    EXPECT_EQ("1\n", run.out);
    run = Kr7Run({"--virtual", "--json", "prop", "set", "6", "1"});
    EXPECT_EQ(0, run.status) << run.err;
    EXPECT_EQ(100, ParseJson(run.out)["value"].get<double>());  // read back: on
    run = Kr7Run({"--virtual", "led", "green", "on"});
    EXPECT_EQ(0, run.status) << run.err;
    EXPECT_EQ("green LED on\n", run.out);
    run = Kr7Run({"--virtual", "--quiet", "led", "red", "off"});
    EXPECT_EQ(0, run.status) << run.err;
    EXPECT_EQ("", run.out + run.err);

    run = Kr7Run({"--virtual", "--json", "contamination"});
    EXPECT_EQ(0, run.status) << run.err;
    EXPECT_EQ(0, ParseJson(run.out)["contamination"].get<double>());
    run = Kr7Run({"--virtual", "--json", "contamination"}, {"KR7SIM_UNITS=dirt=20"});
    EXPECT_EQ(0, run.status) << run.err;
    const double dirty = ParseJson(run.out)["contamination"].get<double>();
    EXPECT_GT(dirty, 0.0);
    EXPECT_LT(dirty, 0.5);
}

}  // namespace
