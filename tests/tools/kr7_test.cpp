// kr7 end to end: the built tool runs as a process against the virtual
// scanner (and without it, for the loading failures); its exit status,
// output, JSON documents and image files are checked. Each case is a CTest
// test of its own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <png.h>
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
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr const char* kScenario = "empty 0.3s; place; hold 1s; lift 0.5s; repeat";

// ---- a small JSON reader ------------------------------------------------------

struct Json {
    enum Kind { Null, Bool, Number, String, Array, Object } kind = Null;
    bool boolean = false;
    double number = 0;
    std::string text;
    std::vector<Json> items;
    std::map<std::string, Json> members;

    const Json& operator[](const std::string& key) const {
        static const Json missing;
        const auto it = members.find(key);
        return it == members.end() ? missing : it->second;
    }
};

class JsonReader {
public:
    explicit JsonReader(const std::string& text) : m_text(text) {}

    // False unless the whole text is one JSON value (surrounding space allowed).
    bool Read(Json& value) {
        if (!Value(value)) {
            return false;
        }
        Space();
        return m_at == m_text.size();
    }

private:
    void Space() {
        while (m_at < m_text.size() && std::strchr(" \t\r\n", m_text[m_at]) != nullptr) {
            ++m_at;
        }
    }
    bool Literal(const char* word) {
        const std::size_t n = std::strlen(word);
        if (m_text.compare(m_at, n, word) != 0) {
            return false;
        }
        m_at += n;
        return true;
    }
    bool StringValue(std::string& out) {
        if (m_text[m_at++] != '"') {
            return false;
        }
        while (m_at < m_text.size() && m_text[m_at] != '"') {
            char c = m_text[m_at++];
            if (static_cast<unsigned char>(c) < 0x20) {
                return false;  // control characters must be escaped
            }
            if (c == '\\') {
                if (m_at >= m_text.size()) {
                    return false;
                }
                const char e = m_text[m_at++];
                const char* from = "\"\\/bfnrt";
                const char* to = "\"\\/\b\f\n\r\t";
                if (e == 'u' && m_at + 4 <= m_text.size()) {
                    c = static_cast<char>(std::stoi(m_text.substr(m_at, 4), nullptr, 16));
                    m_at += 4;
                } else if (const char* p = std::strchr(from, e); p != nullptr && e != '\0') {
                    c = to[p - from];
                } else {
                    return false;
                }
            }
            out += c;
        }
        return m_at++ < m_text.size();
    }
    bool Value(Json& value) {
        Space();
        if (m_at >= m_text.size()) {
            return false;
        }
        const char c = m_text[m_at];
        if (c == '{' || c == '[') {
            value.kind = c == '{' ? Json::Object : Json::Array;
            ++m_at;
            Space();
            if (m_at < m_text.size() && m_text[m_at] == (c == '{' ? '}' : ']')) {
                ++m_at;
                return true;
            }
            for (;;) {
                Json item;
                std::string key;
                if (c == '{') {
                    Space();
                    if (m_at >= m_text.size() || !StringValue(key)) {
                        return false;
                    }
                    Space();
                    if (m_at >= m_text.size() || m_text[m_at++] != ':') {
                        return false;
                    }
                }
                if (!Value(item)) {
                    return false;
                }
                if (c == '{') {
                    value.members[key] = std::move(item);
                } else {
                    value.items.push_back(std::move(item));
                }
                Space();
                if (m_at >= m_text.size()) {
                    return false;
                }
                const char next = m_text[m_at++];
                if (next == (c == '{' ? '}' : ']')) {
                    return true;
                }
                if (next != ',') {
                    return false;
                }
            }
        }
        if (c == '"') {
            value.kind = Json::String;
            return StringValue(value.text);
        }
        if (Literal("true") || Literal("false")) {
            value.kind = Json::Bool;
            value.boolean = m_text[m_at - 1] == 'e' && m_text[m_at - 2] == 'u';
            return true;
        }
        if (Literal("null")) {
            return true;
        }
        char* end = nullptr;
        value.kind = Json::Number;
        value.number = std::strtod(m_text.c_str() + m_at, &end);
        const std::size_t length = static_cast<std::size_t>(end - (m_text.c_str() + m_at));
        m_at += length;
        return length > 0;
    }

    const std::string& m_text;
    std::size_t m_at = 0;
};

Json ParseJson(const std::string& text) {
    Json value;
    EXPECT_TRUE(JsonReader(text).Read(value)) << "not one JSON document:\n" << text;
    return value;
}

// ---- image files --------------------------------------------------------------

struct Image {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> pixels;  // grey, top-down
};

std::string Slurp(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::uint32_t Le32(const std::string& bytes, std::size_t at) {
    std::uint32_t value = 0;
    for (int i = 3; i >= 0; --i) {
        value = value << 8 | static_cast<unsigned char>(bytes[at + static_cast<std::size_t>(i)]);
    }
    return value;
}

// Reads a PNG, BMP (8-bit, grey ramp) or binary PGM file; fails the test
// when the file is not a well-formed one.
Image ReadImage(const fs::path& path) {
    Image image;
    const std::string extension = path.extension().string();
    if (extension == ".png") {
        png_image png;
        std::memset(&png, 0, sizeof png);
        png.version = PNG_IMAGE_VERSION;
        EXPECT_TRUE(png_image_begin_read_from_file(&png, path.c_str())) << path;
        png.format = PNG_FORMAT_GRAY;
        image.width = static_cast<int>(png.width);
        image.height = static_cast<int>(png.height);
        image.pixels.resize(PNG_IMAGE_SIZE(png));
        EXPECT_TRUE(png_image_finish_read(&png, nullptr, image.pixels.data(), 0, nullptr)) << path;
        png_image_free(&png);
    } else if (extension == ".bmp") {
        const std::string bytes = Slurp(path);
        EXPECT_GE(bytes.size(), 54u + 1024u) << path;
        if (bytes.size() < 54 + 1024) {
            return image;
        }
        EXPECT_EQ("BM", bytes.substr(0, 2));
        EXPECT_EQ(bytes.size(), Le32(bytes, 2));
        EXPECT_EQ(8u, Le32(bytes, 28) & 0xFFFF);
        image.width = static_cast<int>(Le32(bytes, 18));
        image.height = static_cast<int>(Le32(bytes, 22));
        const std::size_t stride = (static_cast<std::size_t>(image.width) + 3) / 4 * 4;
        const std::size_t offset = Le32(bytes, 10);
        EXPECT_EQ(offset + stride * static_cast<std::size_t>(image.height), bytes.size());
        for (int y = image.height - 1; y >= 0 && offset + stride * image.height <= bytes.size();
             --y) {
            const char* row = bytes.data() + offset + stride * static_cast<std::size_t>(y);
            image.pixels.insert(image.pixels.end(), row, row + image.width);
        }
    } else {
        const std::string bytes = Slurp(path);
        int maximum = 0, consumed = 0;
        EXPECT_EQ(3, std::sscanf(bytes.c_str(), "P5 %d %d %d%n", &image.width, &image.height,
                                 &maximum, &consumed))
            << path;
        EXPECT_EQ(255, maximum);
        const std::size_t start = static_cast<std::size_t>(consumed) + 1;
        EXPECT_EQ(start + static_cast<std::size_t>(image.width) * image.height, bytes.size());
        image.pixels.assign(bytes.begin() + static_cast<long>(std::min(start, bytes.size())),
                            bytes.end());
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
    const Json list = ParseJson(run.out);
    ASSERT_EQ(2u, list["scanners"].items.size());
    EXPECT_EQ("KR7\"UN\\0", list["scanners"].items[0]["serial"].text);
    EXPECT_FALSE(list["scanners"].items[0]["active"].boolean);
    EXPECT_EQ(2, list["scanners"].items[1]["interface"].number);
    EXPECT_TRUE(list["scanners"].items[1]["active"].boolean);

    run = Kr7Run({"--virtual", "--json", "--device", "2", "info"}, {units});
    ASSERT_EQ(0, run.status) << run.err;
    const Json info = ParseJson(run.out);
    EXPECT_EQ("1.13.38.0", info["plugin"]["version"].text);
    EXPECT_EQ("Norvak QV2 scanner", info["scanner"]["product"].text);
    EXPECT_EQ("KR7UNIT2", info["scanner"]["serial"].text);
    EXPECT_EQ("4.2.1", info["scanner"]["hardware"].text);
    EXPECT_EQ("1.7", info["scanner"]["firmware"].text);
    EXPECT_EQ("KR7SIM CAL 1.0.0", info["scanner"]["calibration"].text);
    ASSERT_EQ(2u, info["capture_modes"].items.size());
    EXPECT_EQ("live", info["capture_modes"].items[0]["name"].text);
    EXPECT_EQ("plain", info["capture_modes"].items[1]["name"].text);
    EXPECT_EQ(8, info["cameras"].items.at(0)["id"].number);
    EXPECT_EQ(4u, info["properties"].items.size());

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
        const Json json = ParseJson(run.out);
        images.push_back(ReadImage(dir / file));
        EXPECT_EQ(json["width"].number, images.back().width);
        EXPECT_EQ(json["height"].number, images.back().height);
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
    const Json summary = ParseJson(run.out);
    EXPECT_EQ("count", summary["stopped"].text);
    EXPECT_TRUE(summary["complete"].boolean);
    const std::vector<Json>& images = summary["images"].items;
    ASSERT_EQ(2u, images.size());
    for (std::size_t i = 0; i < images.size(); ++i) {
        EXPECT_EQ("prints/result-00" + std::to_string(i + 1) + ".png", images[i]["file"].text);
        const Image image = ReadImage(dir / images[i]["file"].text);
        EXPECT_EQ(images[i]["width"].number, image.width);
        EXPECT_GT(images[i]["area"].number, 0.2);
        EXPECT_GT(images[i]["contrast"].number, 0.2);
    }
    // The finger is held 1 s (25 frames) and gone for 0.8 s: two placements.
    EXPECT_GT(images[1]["frame"].number - images[0]["frame"].number, 20);

    const Image sheet = ReadImage(dir / "sheet.png");
    EXPECT_GT(sheet.width, 2 * static_cast<int>(images[0]["width"].number));
    EXPECT_GT(sheet.height, static_cast<int>(images[0]["height"].number));
    EXPECT_LT(sheet.height, 2 * static_cast<int>(images[0]["height"].number));
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
    const Json summary = ParseJson(run.out);
    EXPECT_EQ("timeout", summary["stopped"].text);
    EXPECT_FALSE(summary["complete"].boolean);
    // How many frames came in the second depends on the machine's load (a
    // sanitizer build may still be starting the scanner): not checked.
    EXPECT_TRUE(summary["images"].items.empty());
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
        EXPECT_GT(ReadImage(dir / "out" / "sheet.png").width, 100);
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
    EXPECT_EQ(100, ParseJson(run.out)["value"].number);  // read back: on
    run = Kr7Run({"--virtual", "led", "green", "on"});
    EXPECT_EQ(0, run.status) << run.err;
    EXPECT_EQ("green LED on\n", run.out);
    run = Kr7Run({"--virtual", "--quiet", "led", "red", "off"});
    EXPECT_EQ(0, run.status) << run.err;
    EXPECT_EQ("", run.out + run.err);

    run = Kr7Run({"--virtual", "--json", "contamination"});
    EXPECT_EQ(0, run.status) << run.err;
    EXPECT_EQ(0, ParseJson(run.out)["contamination"].number);
    run = Kr7Run({"--virtual", "--json", "contamination"}, {"KR7SIM_UNITS=dirt=20"});
    EXPECT_EQ(0, run.status) << run.err;
    const double dirty = ParseJson(run.out)["contamination"].number;
    EXPECT_GT(dirty, 0.0);
    EXPECT_LT(dirty, 0.5);
}

}  // namespace
