#include "kr7host/image.h"

#include <png.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace kr7host {

namespace {

constexpr std::size_t kInfoHeaderSize = 40;
constexpr std::size_t kFileHeaderSize = 14;
constexpr double kMetresPerInch = 0.0254;

std::uint32_t Le32(const unsigned char* p) {
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

void PutLe(std::vector<unsigned char>& out, std::uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) {
        out.push_back(static_cast<unsigned char>(value >> (8 * i)));
    }
}

// The identity grey ramp, the colour table of every image of the plug-in,
// as it lies in a block: blue, green, red, 0.
struct GreyRampTable {
    unsigned char table[4 * 256];
    GreyRampTable() {
        for (unsigned i = 0; i < 256; ++i) {
            table[4 * i] = table[4 * i + 1] = table[4 * i + 2] = static_cast<unsigned char>(i);
            table[4 * i + 3] = 0;
        }
    }
};

bool IsGreyRamp(const unsigned char* palette, std::size_t colours) {
    static const GreyRampTable ramp;
    return colours == 256 && std::memcmp(palette, ramp.table, sizeof ramp.table) == 0;
}

std::size_t Padded(int width) {
    return (static_cast<std::size_t>(width) + 3) / 4 * 4;
}

std::uint32_t PixelsPerMetre(int ppi) {
    return static_cast<std::uint32_t>(std::lround((ppi > 0 ? ppi : kScannerPpi) / kMetresPerInch));
}

std::runtime_error CannotWrite(const std::string& path, const std::string& why) {
    return std::runtime_error("cannot write " + path + ": " + why);
}

std::runtime_error CannotRead(const std::string& path, const std::string& why) {
    return std::runtime_error("cannot read " + path + ": " + why);
}

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

File Open(const std::string& path, const char* mode) {
    return File(std::fopen(path.c_str(), mode), &std::fclose);
}

// Closes a file written to; false when a write or the close failed.
bool Finish(File& file) {
    const bool written = std::ferror(file.get()) == 0;
    return std::fclose(file.release()) == 0 && written;
}

std::vector<unsigned char> Slurp(const std::string& path) {
    // No image file of a scanner comes near this.
    constexpr long kMaxFile = 256L << 20;
    File file = Open(path, "rb");
    if (!file) {
        throw CannotRead(path, std::strerror(errno));
    }
    std::vector<unsigned char> bytes;
    unsigned char chunk[65536];
    for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, file.get())) > 0;) {
        bytes.insert(bytes.end(), chunk, chunk + n);
        if (bytes.size() > static_cast<std::size_t>(kMaxFile)) {
            throw CannotRead(path, "file too large");
        }
    }
    if (std::ferror(file.get()) != 0) {
        throw CannotRead(path, std::strerror(errno));
    }
    return bytes;
}

void CheckWritable(const Image& image, const std::string& path) {
    if (image.Empty() || image.width <= 0 || image.height <= 0 ||
        image.pixels.size() != static_cast<std::size_t>(image.width) * image.height) {
        throw CannotWrite(path, "empty image");
    }
}

// ---- libpng -------------------------------------------------------------------
// libpng reports errors by longjmp to the setjmp of the function that called
// it. Each of the two functions below keeps every object with a destructor
// outside the stretch between setjmp and the return, and says what went
// wrong in `problem`.

struct PngProblem {
    char text[160] = "libpng failed";
};

void OnPngError(png_structp png, png_const_charp message) {
    auto* problem = static_cast<PngProblem*>(png_get_error_ptr(png));
    std::snprintf(problem->text, sizeof problem->text, "%s", message);
    png_longjmp(png, 1);
}

void OnPngWarning(png_structp, png_const_charp) {}

bool PngWrite(std::FILE* file, const Image& image, PngProblem& problem) {
    png_structp png =
        png_create_write_struct(PNG_LIBPNG_VER_STRING, &problem, &OnPngError, &OnPngWarning);
    png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
    if (info == nullptr) {
        png_destroy_write_struct(&png, nullptr);
        return false;
    }
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        return false;
    }
    png_init_io(png, file);
    png_set_IHDR(png, info, static_cast<png_uint_32>(image.width),
                 static_cast<png_uint_32>(image.height), 8, PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    const png_uint_32 ppm = PixelsPerMetre(image.ppi);
    png_set_pHYs(png, info, ppm, ppm, PNG_RESOLUTION_METER);
    png_write_info(png, info);
    for (int y = 0; y < image.height; ++y) {
        png_write_row(png, image.Row(y));
    }
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return true;
}

// Reads into `image`, whose pixels and `rows` belong to the caller.
bool PngRead(std::FILE* file, Image& image, std::vector<png_bytep>& rows, PngProblem& problem) {
    png_structp png =
        png_create_read_struct(PNG_LIBPNG_VER_STRING, &problem, &OnPngError, &OnPngWarning);
    png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
    if (info == nullptr) {
        png_destroy_read_struct(&png, nullptr, nullptr);
        return false;
    }
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_read_struct(&png, &info, nullptr);
        return false;
    }
    png_init_io(png, file);
    png_set_user_limits(png, BitmapView::kMaxSide, BitmapView::kMaxSide);
    png_read_info(png, info);
    // Whatever the file holds becomes 8-bit grey.
    png_set_expand(png);
    png_set_strip_16(png);
    png_set_strip_alpha(png);
    if ((png_get_color_type(png, info) & PNG_COLOR_MASK_COLOR) != 0) {
        png_set_rgb_to_gray_fixed(png, 1, -1, -1);
    }
    png_set_interlace_handling(png);
    png_read_update_info(png, info);
    image.width = static_cast<int>(png_get_image_width(png, info));
    image.height = static_cast<int>(png_get_image_height(png, info));
    if (png_get_rowbytes(png, info) != static_cast<std::size_t>(image.width)) {
        std::snprintf(problem.text, sizeof problem.text, "not an image that turns 8-bit grey");
        png_destroy_read_struct(&png, &info, nullptr);
        return false;
    }
    png_uint_32 x = 0, y = 0;
    int unit = 0;
    if (png_get_pHYs(png, info, &x, &y, &unit) != 0 && unit == PNG_RESOLUTION_METER) {
        image.ppi = static_cast<int>(std::lround(x * kMetresPerInch));
    }
    image.pixels.resize(static_cast<std::size_t>(image.width) * image.height);
    rows.resize(static_cast<std::size_t>(image.height));
    for (int row = 0; row < image.height; ++row) {
        rows[static_cast<std::size_t>(row)] =
            &image.pixels[static_cast<std::size_t>(row) * image.width];
    }
    png_read_image(png, rows.data());
    png_read_end(png, nullptr);
    png_destroy_read_struct(&png, &info, nullptr);
    return true;
}

}  // namespace

// ---- the plug-in's blocks -----------------------------------------------------

BitmapView::BitmapView(const unsigned char* block, std::size_t size) {
    if (block == nullptr || size < kInfoHeaderSize) {
        return;
    }
    const std::uint32_t headerSize = Le32(block);
    const auto width = static_cast<std::int32_t>(Le32(block + 4));
    const auto height = static_cast<std::int32_t>(Le32(block + 8));
    const unsigned bits = block[14] | block[15] << 8;
    const std::uint32_t compression = Le32(block + 16);
    const auto xPpm = static_cast<std::int32_t>(Le32(block + 24));
    const std::uint32_t used = Le32(block + 32);
    if (headerSize != kInfoHeaderSize || bits != 8 || compression != 0 || width <= 0 ||
        width > kMaxSide || height == 0 || height < -kMaxSide || height > kMaxSide || used > 256) {
        return;
    }
    const std::size_t colours = used == 0 ? 256 : used;
    const int rows = height > 0 ? height : -height;
    const std::size_t stride = Padded(width);
    if (size != kUnknownSize && size < kInfoHeaderSize + 4 * colours + stride * rows) {
        return;
    }
    const unsigned char* palette = block + kInfoHeaderSize;
    m_bGreyRamp = IsGreyRamp(palette, colours);
    m_pPalette = palette;
    m_nColours = colours;
    m_nWidth = width;
    m_nHeight = rows;
    m_bBottomUp = height > 0;
    m_nStride = stride;
    m_nPpi = xPpm > 0 ? static_cast<int>(std::lround(xPpm * kMetresPerInch)) : 0;
    m_pPixels = palette + 4 * colours;
}

const unsigned char* BitmapView::Row(int y) const {
    const int stored = m_bBottomUp ? m_nHeight - 1 - y : y;
    return m_pPixels + m_nStride * static_cast<std::size_t>(stored);
}

void BitmapView::CopyTo(std::uint8_t* out, std::size_t outStride) const {
    const auto width = static_cast<std::size_t>(m_nWidth);
    if (m_bGreyRamp) {
        for (int y = 0; y < m_nHeight; ++y, out += outStride) {
            std::memcpy(out, Row(y), width);
        }
        return;
    }
    // Any other table: each entry's luminance; indices past its end are black.
    std::uint8_t grey[256] = {};
    for (std::size_t i = 0; i < m_nColours; ++i) {
        const unsigned char* entry = m_pPalette + 4 * i;
        grey[i] = static_cast<std::uint8_t>(
            (299 * entry[2] + 587 * entry[1] + 114 * entry[0] + 500) / 1000);
    }
    for (int y = 0; y < m_nHeight; ++y, out += outStride) {
        const unsigned char* row = Row(y);
        for (std::size_t x = 0; x < width; ++x) {
            out[x] = grey[row[x]];
        }
    }
}

// ---- owned images -------------------------------------------------------------

Image::Image(int w, int h, std::uint8_t fill, int resolution)
    : width(w > 0 && h > 0 ? w : 0),
      height(w > 0 && h > 0 ? h : 0),
      ppi(resolution),
      pixels(static_cast<std::size_t>(width) * static_cast<std::size_t>(height), fill) {}

Image::Image(const BitmapView& view, int fallbackPpi) {
    Assign(view, fallbackPpi);
}

bool Image::Assign(const BitmapView& view, int fallbackPpi) {
    if (!view.Valid()) {
        *this = Image();
        return false;
    }
    width = view.Width();
    height = view.Height();
    ppi = view.Ppi() > 0 ? view.Ppi() : fallbackPpi;
    pixels.resize(static_cast<std::size_t>(width) * static_cast<std::size_t>(height));
    view.CopyTo(pixels.data(), static_cast<std::size_t>(width));
    return true;
}

// ---- files ----------------------------------------------------------------------

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
    return extension == "pgm" ? Format::Pgm : Format::Unknown;
}

void WriteImage(const Image& image, const std::string& path) {
    switch (FormatOf(path)) {
        case Format::Png:
            return WritePng(image, path);
        case Format::Bmp:
            return WriteBmp(image, path);
        case Format::Pgm:
            return WritePgm(image, path);
        case Format::Unknown:
            break;
    }
    throw CannotWrite(path, "unknown format (use .png, .bmp or .pgm)");
}

void WritePng(const Image& image, const std::string& path) {
    CheckWritable(image, path);
    File file = Open(path, "wb");
    if (!file) {
        throw CannotWrite(path, std::strerror(errno));
    }
    PngProblem problem;
    const bool encoded = PngWrite(file.get(), image, problem);
    const bool closed = Finish(file);
    if (!encoded || !closed) {
        throw CannotWrite(path, encoded ? std::strerror(errno) : problem.text);
    }
}

void WriteBmp(const Image& image, const std::string& path) {
    CheckWritable(image, path);
    const std::size_t stride = Padded(image.width);
    const std::size_t offset = kFileHeaderSize + kInfoHeaderSize + 4 * 256;
    const std::size_t size = offset + stride * static_cast<std::size_t>(image.height);
    if (size > 0xFFFFFFFFu) {
        throw CannotWrite(path, "image too large for BMP");
    }
    std::vector<unsigned char> bytes;
    bytes.reserve(size);
    bytes.push_back('B');
    bytes.push_back('M');
    PutLe(bytes, static_cast<std::uint32_t>(size), 4);
    PutLe(bytes, 0, 4);
    PutLe(bytes, static_cast<std::uint32_t>(offset), 4);
    const std::uint32_t ppm = PixelsPerMetre(image.ppi);
    for (const std::uint32_t field :
         {static_cast<std::uint32_t>(kInfoHeaderSize), static_cast<std::uint32_t>(image.width),
          static_cast<std::uint32_t>(image.height)}) {
        PutLe(bytes, field, 4);
    }
    PutLe(bytes, 1, 2);  // planes
    PutLe(bytes, 8, 2);  // bits per pixel
    for (const std::uint32_t field : {0u, static_cast<std::uint32_t>(size - offset), ppm, ppm, 256u,
                                      0u}) {  // compression ... important colours
        PutLe(bytes, field, 4);
    }
    for (unsigned grey = 0; grey < 256; ++grey) {
        PutLe(bytes, grey | grey << 8 | grey << 16, 4);
    }
    for (int y = image.height - 1; y >= 0; --y) {
        bytes.insert(bytes.end(), image.Row(y), image.Row(y) + image.width);
        bytes.resize(bytes.size() + stride - static_cast<std::size_t>(image.width), 0);
    }
    File file = Open(path, "wb");
    if (!file) {
        throw CannotWrite(path, std::strerror(errno));
    }
    const bool written = std::fwrite(bytes.data(), 1, bytes.size(), file.get()) == bytes.size();
    if (!Finish(file) || !written) {
        throw CannotWrite(path, std::strerror(errno));
    }
}

void WritePgm(const Image& image, const std::string& path) {
    CheckWritable(image, path);
    File file = Open(path, "wb");
    if (!file) {
        throw CannotWrite(path, std::strerror(errno));
    }
    std::fprintf(file.get(), "P5\n%d %d\n255\n", image.width, image.height);
    const bool written =
        std::fwrite(image.pixels.data(), 1, image.pixels.size(), file.get()) == image.pixels.size();
    if (!Finish(file) || !written) {
        throw CannotWrite(path, std::strerror(errno));
    }
}

Image ReadImage(const std::string& path) {
    switch (FormatOf(path)) {
        case Format::Png:
            return ReadPng(path);
        case Format::Bmp:
            return ReadBmp(path);
        case Format::Pgm:
            return ReadPgm(path);
        case Format::Unknown:
            break;
    }
    throw CannotRead(path, "unknown format (use .png, .bmp or .pgm)");
}

Image ReadPng(const std::string& path) {
    File file = Open(path, "rb");
    if (!file) {
        throw CannotRead(path, std::strerror(errno));
    }
    Image image;
    std::vector<png_bytep> rows;
    PngProblem problem;
    if (!PngRead(file.get(), image, rows, problem)) {
        throw CannotRead(path, problem.text);
    }
    return image;
}

Image ParseBmp(const unsigned char* data, std::size_t size) {
    if (data == nullptr || size < kFileHeaderSize + kInfoHeaderSize || data[0] != 'B' ||
        data[1] != 'M') {
        return Image();
    }
    const BitmapView view(data + kFileHeaderSize, size - kFileHeaderSize);
    // The rows must follow the colour table, where the view reads them.
    if (!view.Valid() ||
        Le32(data + 10) !=
            static_cast<std::size_t>(std::min(view.Row(0), view.Row(view.Height() - 1)) - data)) {
        return Image();
    }
    return Image(view);
}

Image ReadBmp(const std::string& path) {
    const std::vector<unsigned char> bytes = Slurp(path);
    Image image = ParseBmp(bytes.data(), bytes.size());
    if (image.Empty()) {
        throw CannotRead(path, "not an 8-bit BMP file with a colour table");
    }
    return image;
}

Image ParsePgm(const unsigned char* data, std::size_t size) {
    // "P5", then width, height and maximum, each after white space and
    // comments, then one white-space byte and the rows.
    if (data == nullptr || size < 2 || data[0] != 'P' || data[1] != '5') {
        return Image();
    }
    std::size_t at = 2;
    long fields[3] = {};
    for (long& field : fields) {
        while (at < size && (std::isspace(data[at]) || data[at] == '#')) {
            if (data[at] == '#') {
                while (at < size && data[at] != '\n') {
                    ++at;
                }
            } else {
                ++at;
            }
        }
        for (int digits = 0; at < size && std::isdigit(data[at]) && digits < 6; ++digits) {
            field = field * 10 + (data[at++] - '0');
        }
    }
    const long width = fields[0], height = fields[1];
    if (width <= 0 || height <= 0 || width > BitmapView::kMaxSide ||
        height > BitmapView::kMaxSide || fields[2] != 255 || at >= size ||
        !std::isspace(data[at]) ||
        size - at - 1 < static_cast<std::size_t>(width) * static_cast<std::size_t>(height)) {
        return Image();
    }
    Image image(static_cast<int>(width), static_cast<int>(height), 0);
    std::memcpy(image.pixels.data(), data + at + 1, image.pixels.size());
    return image;
}

Image ReadPgm(const std::string& path) {
    const std::vector<unsigned char> bytes = Slurp(path);
    Image image = ParsePgm(bytes.data(), bytes.size());
    if (image.Empty()) {
        throw CannotRead(path, "not a binary PGM file with 255 grey levels");
    }
    return image;
}

}  // namespace kr7host
