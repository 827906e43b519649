// kr7host: image files and the plug-in's bitmap blocks, loading failures,
// and capture sessions against the built plug-in and the virtual scanner.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "kr7host/capture.h"
#include "kr7host/error.h"
#include "kr7host/image.h"
#include "kr7host/plugin.h"
#include "kr7host/quality.h"

namespace {

namespace fs = std::filesystem;
using namespace kr7host;

class Folder {
public:
    Folder() {
        char pattern[] = "/tmp/kr7host_test_XXXXXX";
        m_Path = mkdtemp(pattern) != nullptr ? pattern : "/tmp";
    }
    ~Folder() {
        std::error_code ignored;
        fs::remove_all(m_Path, ignored);
    }
    std::string operator/(const std::string& name) const { return (m_Path / name).string(); }

private:
    fs::path m_Path;
};

void Put32(std::vector<unsigned char>& bytes, std::size_t at, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        bytes[at + static_cast<std::size_t>(i)] = static_cast<unsigned char>(value >> (8 * i));
    }
}

// A block as the plug-in hands it out: info header, colour table, 8-bit
// rows padded to 4 bytes, bottom-up unless `topDown`.
std::vector<unsigned char> Block(
    int width, int height, const std::function<int(int, int)>& pixel, bool topDown = false,
    int ppm = 19684, const std::function<int(int)>& palette = [](int i) { return i; }) {
    const std::size_t stride = (static_cast<std::size_t>(width) + 3) / 4 * 4;
    std::vector<unsigned char> block(40 + 1024 + stride * static_cast<std::size_t>(height), 0);
    Put32(block, 0, 40);
    Put32(block, 4, static_cast<std::uint32_t>(width));
    Put32(block, 8, static_cast<std::uint32_t>(topDown ? -height : height));
    block[12] = 1;
    block[14] = 8;
    Put32(block, 24, static_cast<std::uint32_t>(ppm));
    Put32(block, 28, static_cast<std::uint32_t>(ppm));
    for (int i = 0; i < 256; ++i) {
        const auto grey = static_cast<unsigned char>(palette(i));
        std::memcpy(&block[40 + 4 * static_cast<std::size_t>(i)],
                    std::vector<unsigned char>{grey, grey, grey, 0}.data(), 4);
    }
    for (int y = 0; y < height; ++y) {
        const int stored = topDown ? y : height - 1 - y;
        for (int x = 0; x < width; ++x) {
            block[1064 + stride * static_cast<std::size_t>(stored) + static_cast<std::size_t>(x)] =
                static_cast<unsigned char>(pixel(x, y));
        }
    }
    return block;
}

int Gradient(int x, int y) {
    return (x * 16 + y * 3) & 0xFF;
}

std::vector<unsigned char> Bytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(in),
                                      std::istreambuf_iterator<char>());
}

void WriteBytes(const std::string& path, const std::vector<unsigned char>& bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<long>(bytes.size()));
}

// ---- images -------------------------------------------------------------------

TEST(Images, BlocksReadTheRightWayUpThroughTheirColourTable) {
    // 13 pixels wide: every row padded by 3 bytes.
    for (const bool topDown : {false, true}) {
        const std::vector<unsigned char> block = Block(13, 7, Gradient, topDown);
        const BitmapView view(block.data(), block.size());
        ASSERT_TRUE(view.Valid());
        EXPECT_TRUE(view.GreyRamp());
        EXPECT_EQ(500, view.Ppi());
        const Image image(view);
        ASSERT_EQ(13, image.width);
        ASSERT_EQ(7, image.height);
        for (int y = 0; y < 7; ++y) {
            for (int x = 0; x < 13; ++x) {
                EXPECT_EQ(Gradient(x, y), image.At(x, y))
                    << x << "," << y << " top-down " << topDown;
            }
        }
    }
    // Another colour table maps every index; no resolution takes the fallback.
    const std::vector<unsigned char> inverted =
        Block(5, 2, Gradient, false, 0, [](int i) { return 255 - i; });
    const BitmapView view(inverted.data());
    EXPECT_FALSE(view.GreyRamp());
    EXPECT_EQ(0, view.Ppi());
    const Image image(view, kScannerPpi);
    EXPECT_EQ(255 - Gradient(4, 1), image.At(4, 1));
    EXPECT_EQ(kScannerPpi, image.ppi);
    // The grey ramp but for its last entry is another table.
    const std::vector<unsigned char> almost = Block(
        5, 2, [](int, int) { return 255; }, false, 0, [](int i) { return i == 255 ? 7 : i; });
    EXPECT_FALSE(BitmapView(almost.data()).GreyRamp());
    EXPECT_EQ(7, Image(BitmapView(almost.data())).At(4, 1));
}

TEST(Images, FilesKeepPixelsOrientationAndScale) {
    Folder folder;
    Image image(13, 7, 0);
    for (int y = 0; y < 7; ++y) {
        for (int x = 0; x < 13; ++x) {
            image.At(x, y) = static_cast<std::uint8_t>(Gradient(x, y));
        }
    }
    for (const char* name : {"a.png", "a.bmp", "a.pgm", "A.PNG"}) {
        // Without a resolution an image is written as the scanner's.
        for (const int ppi : {0, 500, 1000}) {
            SCOPED_TRACE(std::string(name) + " at " + std::to_string(ppi));
            image.ppi = ppi;
            WriteImage(image, folder / name);
            const Image read = ReadImage(folder / name);
            EXPECT_EQ(image.width, read.width);
            EXPECT_EQ(image.height, read.height);
            EXPECT_EQ(image.pixels, read.pixels);
            const bool scaled = FormatOf(name) != Format::Pgm;
            EXPECT_EQ(scaled ? (ppi == 0 ? 500 : ppi) : 0, read.ppi);
        }
    }
    // The BMP file is the plug-in's block behind a file header.
    image.ppi = 500;
    WriteBmp(image, folder / "b.bmp");
    const std::vector<unsigned char> file = Bytes(folder / "b.bmp");
    const std::vector<unsigned char> block = Block(13, 7, Gradient, false, 19685);
    ASSERT_EQ(14 + block.size(), file.size());
    EXPECT_EQ(0x36 + 1024, file[10] | file[11] << 8);
    EXPECT_TRUE(std::equal(block.begin() + 40, block.end(), file.begin() + 54));
}

TEST(Images, MalformedBlocksAndFilesAreRefused) {
    const std::vector<unsigned char> good = Block(9, 4, Gradient);
    const struct {
        const char* what;
        std::size_t at;
        std::uint32_t value;
    } corruptions[] = {
        {"header size", 0, 41},    {"24 bits", 14, 24},       {"compressed", 16, 1},
        {"no width", 4, 0},        {"too wide", 4, 16385},    {"no height", 8, 0},
        {"too high", 8, 0x10000u}, {"colour table", 32, 257},
    };
    for (const auto& corruption : corruptions) {
        std::vector<unsigned char> block = good;
        Put32(block, corruption.at, corruption.value);
        if (corruption.at == 14) {
            block[14] = static_cast<unsigned char>(corruption.value);
        }
        EXPECT_FALSE(BitmapView(block.data(), block.size()).Valid()) << corruption.what;
    }
    EXPECT_FALSE(BitmapView(good.data(), good.size() - 1).Valid()) << "one byte short";
    EXPECT_FALSE(BitmapView(nullptr).Valid());
    EXPECT_TRUE(Image(BitmapView(good.data(), good.size() - 1)).Empty());

    std::vector<unsigned char> bmp = {'B', 'M', 0, 0, 0, 0, 0, 0, 0, 0, 54, 4, 0, 0};
    bmp.insert(bmp.end(), good.begin(), good.end());
    EXPECT_FALSE(ParseBmp(bmp.data(), bmp.size()).Empty());
    EXPECT_TRUE(ParseBmp(bmp.data(), bmp.size() - 1).Empty()) << "truncated";
    bmp[10] = 60;
    EXPECT_TRUE(ParseBmp(bmp.data(), bmp.size()).Empty()) << "rows elsewhere";
    bmp[0] = 'P';
    EXPECT_TRUE(ParseBmp(bmp.data(), bmp.size()).Empty()) << "no BMP";

    for (const std::string& pgm :
         {std::string("P5 2 2 255\n1234"), std::string("P5\n# c\n2 2\n255 1234")}) {
        EXPECT_FALSE(
            ParsePgm(reinterpret_cast<const unsigned char*>(pgm.data()), pgm.size()).Empty())
            << pgm;
    }
    for (const std::string& pgm :
         {std::string("P5 2 2 255\n123"), std::string("P5 2 2 65535\n12345678"),
          std::string("P2 2 2 255\n1 2 3 4"), std::string("P5 0 2 255\n"),
          std::string("P5 2 2 255")}) {
        EXPECT_TRUE(
            ParsePgm(reinterpret_cast<const unsigned char*>(pgm.data()), pgm.size()).Empty())
            << pgm;
    }
}

TEST(Images, FileFailuresNameTheFileAndTheReason) {
    Folder folder;
    const auto failure = [](const std::function<void()>& call) {
        try {
            call();
        } catch (const std::runtime_error& e) {
            return std::string(e.what());
        }
        return std::string("no failure");
    };
    const Image image(4, 4, 128);
    EXPECT_EQ("cannot write " + folder / "none/x.png" + ": No such file or directory",
              failure([&] { WriteImage(image, folder / "none/x.png"); }));
    EXPECT_EQ("cannot write " + folder / "x.png" + ": empty image",
              failure([&] { WriteImage(Image(), folder / "x.png"); }));
    EXPECT_EQ("cannot write " + folder / "x.jpg" + ": unknown format (use .png, .bmp or .pgm)",
              failure([&] { WriteImage(image, folder / "x.jpg"); }));
    EXPECT_EQ("cannot read " + folder / "x.bmp" + ": No such file or directory",
              failure([&] { ReadImage(folder / "x.bmp"); }));
    WriteBytes(folder / "junk.png", {'n', 'o', 't', ' ', 'p', 'n', 'g'});
    EXPECT_EQ(0u, failure([&] {
                      ReadImage(folder / "junk.png");
                  }).find("cannot read " + folder / "junk.png" + ": "));
}

// ---- what a host reads of a finger -----------------------------------------------

// Dark ridges, four pixels wide, on a white platen, in an oval.
int Finger(int x, int y) {
    const double dx = (x - 60) / 40.0, dy = (y - 80) / 60.0;
    if (dx * dx + dy * dy > 1) {
        return 245;
    }
    return (x + y) / 4 % 2 == 0 ? 40 : 230;
}

TEST(Quality, ABlockReadInPlaceMeasuresAsItsCopy) {
    const std::vector<unsigned char> block = Block(122, 161, Finger);
    const BitmapView view(block.data(), block.size());
    const Quality inPlace = Measure(view);
    const Quality copied = Measure(Image(view));
    EXPECT_EQ(copied.area, inPlace.area);
    EXPECT_EQ(copied.contrast, inPlace.contrast);
    EXPECT_EQ(copied.mean, inPlace.mean);
    EXPECT_GT(inPlace.area, 0.3);
    EXPECT_LT(inPlace.area, 0.9);
    EXPECT_GT(inPlace.contrast, 0.5);
    EXPECT_EQ(inPlace.mean, MeanGrey(view));
    // Another colour table: read through it.
    const std::vector<unsigned char> inverted = Block(
        122, 161, [](int x, int y) { return 255 - Finger(x, y); }, false, 19684,
        [](int i) { return 255 - i; });
    const Quality throughTable = Measure(BitmapView(inverted.data(), inverted.size()));
    EXPECT_EQ(copied.area, throughTable.area);
    EXPECT_EQ(copied.mean, throughTable.mean);
    EXPECT_EQ(0, Measure(BitmapView()).area);
}

// The read-out pixel by pixel in doubles, the plain way: what the vector
// code must give to the last bit.
Quality Reference(const Image& image) {
    Quality quality;
    double total = 0;
    for (std::uint8_t p : image.pixels) {
        total += p;
    }
    quality.mean = total / image.pixels.size();
    int tiles = 0, covered = 0;
    double contrast = 0;
    for (int top = 0; top + 16 <= image.height; top += 16) {
        for (int left = 0; left + 16 <= image.width; left += 16) {
            const auto at = [&](int x, int y) { return double(image.At(left + x, top + y)); };
            double sum = 0, squares = 0;
            for (int i = 0; i < 256; ++i) {
                sum += at(i % 16, i / 16);
                squares += at(i % 16, i / 16) * at(i % 16, i / 16);
            }
            const double mean = sum / 256;
            ++tiles;
            if (std::sqrt(std::max(0.0, squares / 256 - mean * mean)) < 12) {
                continue;
            }
            ++covered;
            double ridges = 0, valleys = 0;
            int ridgeCount = 0;
            for (int i = 0; i < 256; ++i) {
                const double p = at(i % 16, i / 16);
                (p < mean ? ridges : valleys) += p;
                ridgeCount += p < mean;
            }
            if (ridgeCount > 0 && ridgeCount < 256) {
                contrast += (valleys / (256 - ridgeCount) - ridges / ridgeCount) / 255.0;
            }
        }
    }
    quality.area = tiles > 0 ? double(covered) / tiles : 0;
    quality.contrast = covered > 0 ? contrast / covered : 0;
    return quality;
}

TEST(Quality, EqualsThePixelByPixelReadOut) {
    // Noise of every spread, tiles whose mean is a whole grey level (a
    // pixel equal to it is a valley), black and white tiles, ragged edges.
    std::srand(7);
    Image image(16 * 9 + 5, 16 * 7 + 11, 0);
    for (int y = 0; y < image.height; ++y) {
        for (int x = 0; x < image.width; ++x) {
            const int tile = x / 16 + y / 16 * 10;
            int p = 0;
            switch (tile % 5) {
                case 0:  // noise of a spread that grows from tile to tile
                    p = 128 + (std::rand() % (2 * tile + 1)) - tile;
                    break;
                case 1:  // a whole-level mean: 100 and 140, with 120 between
                    p = (x + y) % 4 == 0   ? 120
                        : (x + y) % 4 == 1 ? 100
                        : (x + y) % 4 == 2 ? 140
                                           : 120;
                    break;
                case 2:
                    p = (x ^ y) & 1 ? 255 : 0;
                    break;
                case 3:
                    p = std::rand() % 256;
                    break;
                default:
                    p = 255 - tile;
            }
            image.At(x, y) = static_cast<std::uint8_t>(std::clamp(p, 0, 255));
        }
    }
    const std::vector<unsigned char> finger = Block(122, 161, Finger);
    for (const Image& tried : {image, Image(BitmapView(finger.data(), finger.size()))}) {
        const Quality measured = Measure(tried), expected = Reference(tried);
        EXPECT_EQ(expected.area, measured.area);
        EXPECT_EQ(expected.contrast, measured.contrast);
        EXPECT_EQ(expected.mean, measured.mean);
    }
    EXPECT_GT(Measure(image).area, 0.4);
}

Shot Seen(std::int64_t frame, double area, double mean = 200, int fill = -1) {
    Shot shot;
    shot.frame = frame;
    shot.quality.area = area;
    shot.quality.mean = mean;
    if (fill >= 0) {
        shot.image = Image(4, 4, static_cast<std::uint8_t>(fill));
    }
    return shot;
}

TEST(Placements, OnePlainResultPerPlacementTheDarkest) {
    Placements placements(vc::eCapturePlainFinger);
    placements.Frame(Seen(0, 0));
    placements.Frame(Seen(1, 0));
    EXPECT_FALSE(placements.Open());
    // A finger: the frame's image, then a result (numbered as the image
    // before it), frame after frame.
    for (std::int64_t frame = 2; frame < 12; ++frame) {
        placements.Frame(Seen(frame, 0.5));
        const double mean = frame == 6 ? 150 : 190;
        EXPECT_EQ(frame == 2 || frame == 6, placements.Keeps({0.5, 0.6, mean}));
        placements.Result(Seen(frame, 0.5, mean, static_cast<int>(mean)));
        EXPECT_TRUE(placements.Open());
        EXPECT_TRUE(placements.TakeReady().empty());
    }
    // Darker results replaced lighter ones: their buffers come back.
    EXPECT_FALSE(placements.TakeSpare().Empty());
    EXPECT_TRUE(placements.TakeSpare().Empty());
    // Lifted: the frame without a finger, then the detector's copy of it in
    // place of a result; then no result on the image before and no finger.
    EXPECT_FALSE(placements.NeedsQuality(12));
    EXPECT_TRUE(placements.NeedsQuality(13));
    placements.Frame(Seen(12, 0.01));
    EXPECT_TRUE(placements.TakeReady().empty());
    placements.Frame(Seen(13, 0.01));
    const std::vector<Shot> ready = placements.TakeReady();
    ASSERT_EQ(1u, ready.size());
    EXPECT_EQ(6, ready[0].frame);
    EXPECT_EQ(150, ready[0].image.At(0, 0));
    EXPECT_FALSE(placements.Open());
    // A finger still on the platen when the capture ends.
    placements.Result(Seen(20, 0.5, 180, 180));
    placements.Close();
    ASSERT_EQ(1u, placements.TakeReady().size());
}

TEST(Placements, RolledPrintsAndFramesGoOnAtOnce) {
    Placements rolled(vc::eCaptureRolledFinger, 2);
    EXPECT_TRUE(rolled.Keeps({0.5, 0.5, 250}));
    for (int i = 0; i < 3; ++i) {
        rolled.Result(Seen(i, 0.6, 120, 1));
    }
    EXPECT_EQ(2u, rolled.TakeReady().size());  // as many as wanted
    Placements live(vc::eCaptureLive);
    live.Frame(Seen(0, 0, 250, 9));
    live.Frame(Seen(1, 0.5, 200, 9));
    EXPECT_EQ(2u, live.TakeReady().size());
    EXPECT_TRUE(live.Finger());
    EXPECT_FALSE(IsFingerMode(vc::eCaptureLive));
    EXPECT_FALSE(IsFingerMode(vc::eCapturePreview));
    EXPECT_TRUE(IsFingerMode(vc::eCaptureFastPlainFinger));
}

// ---- loading -------------------------------------------------------------------

TEST(Loading, TheBuildsPlugInForCodeInTheBuildTree) {
    const std::string here = FolderOf(reinterpret_cast<const void*>(&Gradient));
    char self[4096] = {};
    ASSERT_GT(readlink("/proc/self/exe", self, sizeof self - 1), 0);
    EXPECT_EQ(fs::path(self).parent_path().string(), here);
    // The test runs in the build tree, like kr7src built there.
    const std::string built = DefaultPlugin(true, here);
    EXPECT_EQ(fs::path(KR7_PLUGIN_PATH).parent_path(), fs::path(built).parent_path());
    EXPECT_EQ(std::string(kPluginName), fs::path(built).filename().string());
    EXPECT_EQ(built, DefaultPlugin(true));
    EXPECT_EQ(kPluginName, DefaultPlugin(false, here));
    EXPECT_EQ(kPluginName, DefaultPlugin(true, "/usr/lib/x86_64-linux-gnu/gstreamer-1.0"));
    EXPECT_EQ("", FolderOf(nullptr));
}

// A missing plug-in and a missing stand-in are kr7's cases; here a file
// that loads but has no entry points.
TEST(Loading, ALibraryWithoutTheEntryPointsIsNoPlugin) {
    Options options;
    options.plugin = std::string(KR7_SIM_LIB) + "/libnorvaklf.so";
    try {
        Library library(options);
        ADD_FAILURE() << "loaded";
    } catch (const LoadError& e) {
        EXPECT_EQ(LoadError::Kind::NotAPlugin, e.What());
        EXPECT_EQ(options.plugin, e.File());
    }
}

// ---- capture sessions ------------------------------------------------------------

class Session : public ::testing::Test {
protected:
    static Options Virtual() {
        Options options;
        options.plugin = KR7_PLUGIN_PATH;
        options.virtualScanner = true;
        options.simFolder = KR7_SIM_LIB;
        return options;
    }
    Plugin plugin{Virtual()};
};

template <class Done>
bool Eventually(Done done) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!done() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return done();
}

TEST_F(Session, SlowReaderLosesOldestLiveFramesNeverResults) {
    Capture capture(plugin, {1, vc::eCapturePlainFinger, 3});
    EXPECT_EQ(0u, capture.Start(5));
    // Nobody reads while the scanner delivers a few placements.
    ASSERT_TRUE(Eventually([&] { return capture.Totals().results >= 3; }));
    capture.Stop();
    std::vector<Event> events;
    while (std::optional<Event> event = capture.Next(std::chrono::milliseconds(0))) {
        events.push_back(std::move(*event));
    }
    const Counts counts = capture.Totals();
    std::vector<std::int64_t> frames;
    long results = 0;
    for (const Event& event : events) {
        EXPECT_EQ(5, event.handle);
        if (event.kind == Kind::Image) {
            frames.push_back(event.frame);
            EXPECT_EQ(kScannerPpi, event.image.ppi);
        }
        results += event.kind == Kind::Result ? 1 : 0;
    }
    ASSERT_EQ(3u, frames.size());
    EXPECT_EQ(counts.images - 3, counts.dropped);
    // The newest frames stay, in order.
    EXPECT_EQ(counts.images - 1, frames.back());
    EXPECT_TRUE(std::is_sorted(frames.begin(), frames.end()));
    EXPECT_EQ(counts.results, results);
    ASSERT_GE(events.size(), 2u);
    EXPECT_EQ(Kind::Start, events.front().kind);
    EXPECT_EQ(Kind::Stop, events.back().kind);
    EXPECT_EQ(0, counts.strays);
    EXPECT_EQ(0, counts.late);
}

TEST_F(Session, HandlerHasTheLentImageOnTheWorkerAndMayStopIt) {
    const std::thread::id host = std::this_thread::get_id();
    std::atomic<int> images{0}, elsewhere{0}, invalid{0};
    Capture* self = nullptr;
    Capture capture(plugin, {1, vc::eCaptureLive, 4}, [&](const Delivery& delivery) {
        elsewhere += std::this_thread::get_id() != host ? 1 : 0;
        if (delivery.kind == Kind::Image) {
            invalid += delivery.image.Valid() && delivery.image.Width() > 100 ? 0 : 1;
            if (++images == 3) {
                self->Stop();  // only asks the capture to end
            }
        }
    });
    self = &capture;
    capture.Start();
    ASSERT_TRUE(Eventually([&] { return capture.Stopped(); }));
    capture.Stop();
    const Counts counts = capture.Totals();
    EXPECT_EQ(3, images.load());
    EXPECT_EQ(0, invalid.load());
    EXPECT_EQ(counts.starts + counts.stops + counts.images, elsewhere.load());
    EXPECT_EQ(1, counts.stops);
    EXPECT_EQ(0, counts.late);
    EXPECT_EQ(0, counts.dropped);
    // And the channel captures again.
    capture.Start();
    ASSERT_TRUE(Eventually([&] { return images.load() > 3; }));
}

// Without a finger the plain detector hands each frame out a second time:
// that image, and only it, is marked as the copy, and it is the frame's.
TEST_F(Session, PlainModeMarksTheDetectorsCopyOfAFrame) {
    std::vector<std::uint8_t> frame;
    std::atomic<int> copies{0}, unlike{0}, framesInARow{0};
    bool frameBefore = false;
    Capture capture(plugin, {1, vc::eCapturePlainFinger, 4}, [&](const Delivery& delivery) {
        if (delivery.kind == Kind::Result) {
            frameBefore = false;
        }
        if (delivery.kind != Kind::Image) {
            return;
        }
        const Image image(delivery.image);
        if (delivery.copy) {
            ++copies;
            unlike += !frameBefore || image.pixels != frame ? 1 : 0;
            frameBefore = false;
        } else {
            // A frame: the one before it got its copy or a result.
            framesInARow += frameBefore ? 1 : 0;
            frame = image.pixels;
            frameBefore = true;
        }
    });
    capture.Start();
    ASSERT_TRUE(Eventually([&] { return capture.Totals().results >= 3 && copies.load() >= 10; }));
    capture.Stop();
    EXPECT_EQ(0, unlike.load());
    EXPECT_EQ(0, framesInARow.load());
}

TEST_F(Session, ErrorTextsGiveTheirNumbers) {
    try {
        plugin.SelectDevice(5);
        ADD_FAILURE() << "interface 5 selected";
    } catch (const Error& e) {
        EXPECT_EQ(vc::FGERR_BAD_DEVICE_INDEX, e.Number());
        EXPECT_EQ(e.Number(), NumberOfText(e.Text()));
    }
    EXPECT_EQ(vc::FGERR_DISCONNECTED, NumberOfText("The scanner is disconnected."));
    EXPECT_EQ(0u, NumberOfText("Capture frame failed."));
}

}  // namespace

int main(int argc, char** argv) {
    // The virtual scanner's platen: a finger placed, held and lifted, again
    // and again, at full speed.
    setenv("KR7SIM_SCENARIO", "empty 0.2s; place; hold 0.6s; lift 0.3s; repeat", 1);
    unsetenv("KR7SIM_REALTIME");
    unsetenv("KR7SIM_UNITS");
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
