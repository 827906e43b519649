#include "image/bitmap_info.h"

namespace Nvk {
namespace bitmap {

bool GetLayout(const tagBITMAPINFOHEADER& header, Layout& layout) {
    if (header.biWidth < 0 || header.biHeight < 0 || header.biBitCount == 0) {
        return false;
    }
    const std::int64_t entries = PaletteEntries(header);
    if (entries > kMaxPaletteEntries) {
        return false;
    }
    const std::int64_t rowBytes = RowBytes(header.biWidth, header.biBitCount);
    const std::int64_t fixedBytes = kHeaderSize + 4 * entries;
    // rowBytes ≤ 2^31 × 2^16 / 8 and height < 2^31: test by division so the
    // product is formed only when it fits.
    if (rowBytes > 0 && header.biHeight > (kMaxBlockSize - fixedBytes) / rowBytes) {
        return false;
    }
    layout.rowBytes = rowBytes;
    layout.paletteEntries = entries;
    layout.pixelBytes = rowBytes * header.biHeight;
    layout.fullSize = fixedBytes + layout.pixelBytes;
    return true;
}

}  // namespace bitmap

namespace vc {

long BitmapPal(const tagBITMAPINFOHEADER* header) {
    return header ? static_cast<long>(bitmap::PaletteEntries(*header)) : 0;
}

long BitmapBPR(const tagBITMAPINFOHEADER* header) {
    return header ? static_cast<long>(bitmap::RowBytes(header->biWidth, header->biBitCount)) : 0;
}

long BitmapSize(const tagBITMAPINFOHEADER* header) {
    bitmap::Layout layout;
    if (header == nullptr || !bitmap::GetLayout(*header, layout)) {
        return 0;
    }
    return static_cast<long>(header->biSize + layout.pixelBytes + 4 * layout.paletteEntries);
}

}  // namespace vc
}  // namespace Nvk
