// Bitmap blocks with hostile headers through ClSimpleBitmap. Input: the
// 40-byte header, then the bytes of the rest of the block (colour table and
// rows; missing ones are filled in). The block is allocated at exactly the
// size its header describes, so any read or write beyond the described block
// shows under ASan; a header the bitmap code refuses comes as a bare 40-byte
// block.
#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "base/errors.h"
#include "fuzz_support.h"
#include "image/simple_bitmap.h"

using kr7fuzz::Check;
using Nvk::utilities::ClSimpleBitmap;

namespace {

// Larger blocks only slow the search down; the arithmetic is the same.
constexpr long kMaxBlock = 1 << 20;
constexpr long kMaxSaved = 1 << 16;

std::string g_path;

template <class Call>
int SystemError(Call call) {
    try {
        call();
    } catch (const Nvk::CXSystemException& e) {
        return e.GetErrorNumber();
    }
    return 0;
}

template <class Call>
bool Refused(Call call) {
    try {
        call();
    } catch (const Nvk::CXMemoryAllocException&) {
        return true;
    }
    return false;
}

tagBITMAPINFOHEADER* NewBlock(long size) {
    return reinterpret_cast<tagBITMAPINFOHEADER*>(
        new unsigned char[static_cast<std::size_t>(size)]);
}

// A header the bitmap code refuses: nothing beyond its 40 bytes is touched.
void RefusedHeader(const tagBITMAPINFOHEADER& header) {
    tagBITMAPINFOHEADER* block = NewBlock(40);
    std::memcpy(block, &header, 40);
    ClSimpleBitmap bitmap;
    bitmap.Create(2, 2, 8);
    Check(Refused([&] { bitmap.Copy(block); }) && bitmap.Empty());
    bitmap.Create(2, 2, 8);
    Check(Refused([&] { bitmap.CopyFormat(block); }) && bitmap.Empty());

    bitmap.Attach(block);
    Check(bitmap.PixelSize() == 0 && bitmap.FullSize() == 0);
    bitmap.SetWhite();
    bitmap.Invert();
    bitmap.FlipY();
    Check(SystemError([&] { bitmap.Save(g_path); }) == EINVAL);
    Check(std::memcmp(block, &header, 40) == 0);
    ClSimpleBitmap::FreeBlock(bitmap.Detach());
}

void Pixels(ClSimpleBitmap& bitmap) {
    const long width = bitmap.Width(), height = bitmap.Height();
    if (width == 0 || height == 0) {
        return;
    }
    const long points[][2] = {{0, 0}, {width - 1, height - 1}, {width / 2, height / 2}};
    for (const auto& p : points) {
        const std::uint32_t colour = bitmap.GetPixel(p[0], p[1]);
        bitmap.SetPixel(p[0], p[1], colour);
        bitmap.SetPixel(p[0], p[1], ~colour);
        if (bitmap.BitCount() == 24) {
            Check(bitmap.GetPixel(p[0], p[1]) == (~colour & 0xFFFFFFu));
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    g_path = kr7fuzz::ScratchPath("bitmap_fuzz") + ".bmp";
    std::atexit([] { std::remove(g_path.c_str()); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 40) {
        return 0;
    }
    tagBITMAPINFOHEADER header;
    std::memcpy(&header, data, 40);
    const long full = ClSimpleBitmap::FullSize(&header);
    if (full == 0) {
        RefusedHeader(header);
        return 0;
    }
    if (full > kMaxBlock) {
        return 0;
    }

    // A block of exactly the described size.
    tagBITMAPINFOHEADER* block = NewBlock(full);
    std::vector<unsigned char> original(static_cast<std::size_t>(full), 0x5A);
    std::memcpy(original.data(), data, std::min<std::size_t>(size, original.size()));
    std::memcpy(block, original.data(), original.size());

    ClSimpleBitmap copy;
    copy.Copy(block);
    Check(copy.FullSize() == full && std::memcmp(copy.Data(), block, full) == 0);
    copy.Copy(block);  // same size: the own block is overwritten
    copy.Copy(copy.Header());
    const long formatBytes = full - copy.PixelSize();
    ClSimpleBitmap format;
    format.CopyFormat(block);
    Check(std::memcmp(format.Data(), block, formatBytes) == 0);

    ClSimpleBitmap created;
    created.Create(header.biWidth, header.biHeight, header.biBitCount, header.biCompression);
    Check(created.FullSize() ==
          full - 4 * (copy.PalSize() - ClSimpleBitmap::PalSize(created.Header())));

    // The block itself, owned by `attached` until Detach hands it back:
    // whatever runs on it stays inside it.
    ClSimpleBitmap attached;
    attached.Attach(format.Detach());
    attached.Attach(block);  // frees the block taken from `format`
    attached.Attach(block);
    attached.FlipY();
    attached.FlipY();
    attached.Invert();
    attached.Invert();
    Check(std::memcmp(block, original.data(), original.size()) == 0);
    Pixels(attached);
    if (full <= kMaxSaved) {
        Check(SystemError([&] { copy.Save(g_path); }) == 0);
        std::FILE* file = std::fopen(g_path.c_str(), "rb");
        Check(file != nullptr);
        std::vector<unsigned char> saved(static_cast<std::size_t>(full) + 15);
        const std::size_t read = std::fread(saved.data(), 1, saved.size(), file);
        std::fclose(file);
        Check(read == static_cast<std::size_t>(full) + 14);
        Check(std::memcmp(saved.data() + 14, copy.Data(), full) == 0);
    }
    Check(attached.Detach() == block);
    ClSimpleBitmap::FreeBlock(block);
    return 0;
}
