#include "image.h"

#include <png.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <stdexcept>

#include "image/simple_bitmap.h"

namespace kr7 {

namespace {

std::uint32_t Read32(const unsigned char* p) {
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

// Larger frames than any scanner delivers are refused rather than trusted.
constexpr std::int32_t kMaxSide = 1 << 14;

std::runtime_error CannotWrite(const std::string& path, const std::string& why) {
    return std::runtime_error("cannot write " + path + ": " + why);
}

void WritePgm(const Gray& image, const std::string& path) {
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> out(std::fopen(path.c_str(), "wb"),
                                                        &std::fclose);
    if (!out) {
        throw CannotWrite(path, std::strerror(errno));
    }
    std::fprintf(out.get(), "P5\n%d %d\n255\n", image.width, image.height);
    const bool written =
        std::fwrite(image.pixels.data(), 1, image.pixels.size(), out.get()) == image.pixels.size();
    if (!written || std::fclose(out.release()) != 0) {
        throw CannotWrite(path, std::strerror(errno));
    }
}

void WritePng(const Gray& image, const std::string& path) {
    png_image png;
    std::memset(&png, 0, sizeof png);
    png.version = PNG_IMAGE_VERSION;
    png.width = static_cast<png_uint_32>(image.width);
    png.height = static_cast<png_uint_32>(image.height);
    png.format = PNG_FORMAT_GRAY;
    const int ok =
        png_image_write_to_file(&png, path.c_str(), 0, image.pixels.data(), image.width, nullptr);
    const std::string message = png.message;
    png_image_free(&png);
    if (!ok) {
        throw CannotWrite(path, message.empty() ? "libpng failed" : message);
    }
}

// Through the plug-in's own bitmap type: 8 bits with the grey ramp, 500 dpi.
void WriteBmp(const Gray& image, const std::string& path) {
    Nvk::utilities::ClSimpleBitmap bitmap;
    try {
        bitmap.Create(image.width, image.height, 8);
        bitmap.SetResolution(500, 500);
        const long stride = bitmap.BPRow();
        unsigned char* rows = bitmap.Pixel();
        for (int y = 0; y < image.height; ++y) {
            unsigned char* row = rows + stride * (image.height - 1 - y);
            std::memcpy(row, &image.pixels[static_cast<std::size_t>(y) * image.width],
                        static_cast<std::size_t>(image.width));
            std::memset(row + image.width, 0, static_cast<std::size_t>(stride - image.width));
        }
        bitmap.Save(path);
    } catch (const std::exception& e) {
        throw CannotWrite(path, e.what());
    }
}

}  // namespace

bool FromPackedBitmap(const unsigned char* block, Gray& out) {
    if (block == nullptr) {
        return false;
    }
    const std::uint32_t headerSize = Read32(block);
    const std::int32_t width = static_cast<std::int32_t>(Read32(block + 4));
    const std::int32_t height = static_cast<std::int32_t>(Read32(block + 8));
    const unsigned bits = block[14] | block[15] << 8;
    const std::uint32_t compression = Read32(block + 16);
    std::uint32_t colours = Read32(block + 32);
    if (headerSize != 40 || bits != 8 || compression != 0 || width <= 0 || width > kMaxSide ||
        height == 0 || height < -kMaxSide || height > kMaxSide || colours > 256) {
        return false;
    }
    colours = colours == 0 ? 256 : colours;
    std::uint8_t grey[256] = {};
    const unsigned char* palette = block + headerSize;
    for (std::uint32_t i = 0; i < colours; ++i) {
        const unsigned b = palette[4 * i], g = palette[4 * i + 1], r = palette[4 * i + 2];
        grey[i] = static_cast<std::uint8_t>((299 * r + 587 * g + 114 * b + 500) / 1000);
    }
    const bool bottomUp = height > 0;
    const int rows = bottomUp ? height : -height;
    const std::size_t stride = (static_cast<std::size_t>(width) + 3) / 4 * 4;
    const unsigned char* pixels = palette + 4 * colours;
    Gray image(width, rows, 0);
    for (int y = 0; y < rows; ++y) {
        const unsigned char* row =
            pixels + stride * static_cast<std::size_t>(bottomUp ? rows - 1 - y : y);
        for (int x = 0; x < width; ++x) {
            image.At(x, y) = grey[row[x]];
        }
    }
    out = std::move(image);
    return true;
}

Format FormatOf(const std::string& path) {
    const std::size_t dot = path.rfind('.');
    const std::size_t slash = path.rfind('/');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) {
        return Format::Unknown;
    }
    std::string extension = path.substr(dot + 1);
    for (char& c : extension) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    if (extension == "png") {
        return Format::Png;
    }
    if (extension == "bmp") {
        return Format::Bmp;
    }
    if (extension == "pgm") {
        return Format::Pgm;
    }
    return Format::Unknown;
}

void WriteImage(const Gray& image, const std::string& path) {
    if (image.Empty()) {
        throw CannotWrite(path, "empty image");
    }
    switch (FormatOf(path)) {
        case Format::Png:
            WritePng(image, path);
            return;
        case Format::Bmp:
            WriteBmp(image, path);
            return;
        case Format::Pgm:
            WritePgm(image, path);
            return;
        case Format::Unknown:
            break;
    }
    throw CannotWrite(path, "unknown format (use .png, .bmp or .pgm)");
}

Quality Measure(const Gray& image) {
    constexpr int kTile = 16;
    // A tile belongs to the finger when its grey levels spread this far
    // (standard deviation); the bare platen stays within a few levels.
    constexpr double kFingerSpread = 12.0;
    Quality quality;
    if (image.Empty()) {
        return quality;
    }
    unsigned long long total = 0;
    for (std::uint8_t p : image.pixels) {
        total += p;
    }
    quality.mean = static_cast<double>(total) / static_cast<double>(image.pixels.size());

    int tiles = 0, covered = 0;
    double contrast = 0;
    for (int top = 0; top + kTile <= image.height; top += kTile) {
        for (int left = 0; left + kTile <= image.width; left += kTile) {
            double sum = 0, squares = 0;
            for (int y = top; y < top + kTile; ++y) {
                for (int x = left; x < left + kTile; ++x) {
                    const double p = image.At(x, y);
                    sum += p;
                    squares += p * p;
                }
            }
            constexpr double n = kTile * kTile;
            const double mean = sum / n;
            const double spread = std::sqrt(std::max(0.0, squares / n - mean * mean));
            ++tiles;
            if (spread < kFingerSpread) {
                continue;
            }
            ++covered;
            // Ridges are the pixels below the tile's mean, valleys the rest.
            double ridges = 0, valleys = 0;
            int ridgeCount = 0;
            for (int y = top; y < top + kTile; ++y) {
                for (int x = left; x < left + kTile; ++x) {
                    const double p = image.At(x, y);
                    if (p < mean) {
                        ridges += p;
                        ++ridgeCount;
                    } else {
                        valleys += p;
                    }
                }
            }
            const int valleyCount = kTile * kTile - ridgeCount;
            if (ridgeCount > 0 && valleyCount > 0) {
                contrast += (valleys / valleyCount - ridges / ridgeCount) / 255.0;
            }
        }
    }
    if (tiles > 0) {
        quality.area = static_cast<double>(covered) / tiles;
    }
    if (covered > 0) {
        quality.contrast = contrast / covered;
    }
    return quality;
}

}  // namespace kr7
