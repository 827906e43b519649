#include "scanner/grey_image.h"

#include <dirent.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kr7sim {
namespace scanner {
namespace {

constexpr size_t kMaxImageFile = 64u << 20;
constexpr int kMaxImageSide = 4096;

bool ReadFile(const std::string& path, std::vector<uint8_t>& out, std::string& error) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) {
        error = "cannot open " + path + ": " + std::strerror(errno);
        return false;
    }
    out.clear();
    uint8_t chunk[65536];
    size_t n = 0;
    while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) {
        out.insert(out.end(), chunk, chunk + n);
        if (out.size() > kMaxImageFile) {
            std::fclose(f);
            error = path + ": file too large";
            return false;
        }
    }
    const bool ok = !std::ferror(f);
    std::fclose(f);
    if (!ok)
        error = "cannot read " + path;
    return ok;
}

uint32_t Le32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
uint16_t Le16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | p[1] << 8);
}

bool DecodePgm(const std::vector<uint8_t>& d, GreyImage& out, std::string& why) {
    size_t pos = 2;
    long fields[3] = {0, 0, 0};
    for (long& field : fields) {
        while (pos < d.size() && (std::isspace(d[pos]) || d[pos] == '#')) {
            if (d[pos] == '#') {
                while (pos < d.size() && d[pos] != '\n')
                    ++pos;
            } else {
                ++pos;
            }
        }
        if (pos >= d.size() || !std::isdigit(d[pos])) {
            why = "malformed PGM header";
            return false;
        }
        while (pos < d.size() && std::isdigit(d[pos]) && field < 100000)
            field = field * 10 + (d[pos++] - '0');
    }
    if (pos >= d.size() || !std::isspace(d[pos])) {
        why = "malformed PGM header";
        return false;
    }
    ++pos;  // the single white-space character before the pixels
    const long w = fields[0], h = fields[1], maxval = fields[2];
    if (w < 1 || h < 1 || w > kMaxImageSide || h > kMaxImageSide || maxval < 1 || maxval > 255) {
        why = "unsupported PGM (8-bit grey up to 4096 x 4096 only)";
        return false;
    }
    const size_t n = static_cast<size_t>(w) * h;
    if (d.size() - pos < n) {
        why = "truncated PGM";
        return false;
    }
    out.width = int(w);
    out.height = int(h);
    out.pixels.assign(d.begin() + long(pos), d.begin() + long(pos + n));
    if (maxval != 255) {
        for (uint8_t& v : out.pixels)
            v = static_cast<uint8_t>(std::min<long>(255, (v * 255 + maxval / 2) / maxval));
    }
    return true;
}

bool DecodeBmp(const std::vector<uint8_t>& d, GreyImage& out, std::string& why) {
    if (d.size() < 54) {
        why = "truncated BMP";
        return false;
    }
    const uint32_t offset = Le32(&d[10]), header = Le32(&d[14]);
    const int32_t w = int32_t(Le32(&d[18])), h_raw = int32_t(Le32(&d[22]));
    const uint16_t bpp = Le16(&d[28]);
    const uint32_t compression = Le32(&d[30]);
    uint32_t colours = Le32(&d[46]);
    const bool top_down = h_raw < 0;
    const int64_t h = top_down ? -int64_t(h_raw) : int64_t(h_raw);
    if (header < 40 || w < 1 || h < 1 || w > kMaxImageSide || h > kMaxImageSide ||
        (bpp != 8 && bpp != 24 && bpp != 32) || compression != 0) {
        why = "unsupported BMP (uncompressed 8, 24 or 32 bits per pixel only)";
        return false;
    }
    if (bpp == 8 && colours == 0)
        colours = 256;
    if (colours > 256) {
        why = "malformed BMP palette";
        return false;
    }
    const uint64_t palette = 14ull + header;
    const uint64_t stride = ((uint64_t(w) * bpp + 31) / 32) * 4;
    if ((bpp == 8 && palette + 4ull * colours > d.size()) || offset > d.size() ||
        d.size() - offset < stride * uint64_t(h)) {
        why = "truncated BMP";
        return false;
    }
    uint8_t grey[256] = {};
    for (uint32_t i = 0; bpp == 8 && i < colours; ++i) {
        const uint8_t* e = &d[palette + 4ull * i];
        grey[i] = static_cast<uint8_t>((e[0] + e[1] + e[2] + 1) / 3);
    }
    out.width = w;
    out.height = int(h);
    out.pixels.resize(size_t(w) * size_t(h));
    for (int64_t y = 0; y < h; ++y) {
        const uint8_t* row = &d[offset + stride * uint64_t(top_down ? y : h - 1 - y)];
        uint8_t* dst = &out.pixels[size_t(y) * size_t(w)];
        for (int32_t x = 0; x < w; ++x) {
            if (bpp == 8) {
                dst[x] = grey[row[x]];
            } else {
                const uint8_t* p = row + size_t(x) * (bpp / 8);
                dst[x] = static_cast<uint8_t>((p[0] + p[1] + p[2] + 1) / 3);
            }
        }
    }
    return true;
}

// True for a name that ends in .pgm or .bmp, in any case.
bool IsFrameFile(const std::string& name) {
    if (name.size() < 4)
        return false;
    std::string extension = name.substr(name.size() - 4);
    for (char& c : extension)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return extension == ".pgm" || extension == ".bmp";
}

}  // namespace

bool LoadGreyImage(const std::string& path, GreyImage& out, std::string& error) {
    std::vector<uint8_t> data;
    if (!ReadFile(path, data, error))
        return false;
    std::string why;
    bool ok = false;
    if (data.size() >= 2 && data[0] == 'P' && data[1] == '5') {
        ok = DecodePgm(data, out, why);
    } else if (data.size() >= 2 && data[0] == 'B' && data[1] == 'M') {
        ok = DecodeBmp(data, out, why);
    } else {
        why = "neither a binary PGM nor a BMP file";
    }
    if (!ok)
        error = path + ": " + why;
    return ok;
}

bool LoadFrameFolder(const std::string& folder, std::vector<GreyImage>& frames,
                     std::string& error) {
    DIR* dir = opendir(folder.c_str());
    if (dir == nullptr) {
        error = "cannot open folder " + folder + ": " + std::strerror(errno);
        return false;
    }
    std::vector<std::string> names;
    while (const dirent* e = readdir(dir)) {
        if (IsFrameFile(e->d_name))
            names.emplace_back(e->d_name);
    }
    closedir(dir);
    if (names.empty()) {
        error = "no .pgm or .bmp frames in " + folder;
        return false;
    }
    std::sort(names.begin(), names.end());
    frames.resize(names.size());
    for (size_t i = 0; i < names.size(); ++i) {
        if (!LoadGreyImage(folder + "/" + names[i], frames[i], error))
            return false;
    }
    return true;
}

}  // namespace scanner
}  // namespace kr7sim
