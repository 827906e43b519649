#include "quality.h"

#include <algorithm>
#include <cmath>

namespace kr7 {

Quality Measure(const kr7host::Image& image) {
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
