// kr7host's readers of image bytes from outside: BMP and PGM files and the
// plug-in's bitmap blocks. Each input is tried as all three, in a buffer of
// exactly its size; what is accepted must describe itself consistently.
#include <cstddef>
#include <cstdint>

#include "fuzz_support.h"
#include "kr7host/image.h"

using kr7fuzz::Check;

namespace {

void CheckImage(const kr7host::Image& image) {
    if (image.Empty()) {
        return;
    }
    Check(image.width > 0 && image.height > 0);
    Check(image.pixels.size() ==
          static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    CheckImage(kr7host::ParseBmp(data, size));
    CheckImage(kr7host::ParsePgm(data, size));
    const kr7host::BitmapView view(data, size);
    if (view.Valid()) {
        const kr7host::Image image(view);
        CheckImage(image);
        Check(image.width == view.Width() && image.height == view.Height());
        // The last byte of the last row lies inside the block.
        Check(view.Row(view.Height() - 1) + view.Width() <= data + size);
        Check(view.Row(0) + view.Width() <= data + size);
    }
    return 0;
}
