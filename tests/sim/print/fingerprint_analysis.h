// Independent fingerprint measurements used to judge the engine's output:
// structure-tensor orientation, ridge period per block, Poincare index and
// minutiae by crossing number.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace fpa {

struct Image {
    int w = 0, h = 0;
    std::vector<float> px;
    Image() = default;
    Image(int width, int height, float fill = 0)
        : w(width), h(height), px(size_t(width) * height, fill) {}
    float& at(int x, int y) { return px[size_t(y) * w + x]; }
    float at(int x, int y) const { return px[size_t(y) * w + x]; }
    static Image FromBytes(const uint8_t* p, int w, int h);
};

struct Orientation {
    Image theta;      // ridge direction in [0, pi), image coordinates
    Image coherence;  // 0..1
};

// Structure tensor averaged over a window x window box.
Orientation StructureTensor(const Image& img, int window = 23);

// Foreground: local standard deviation over 15x15 above `min_std`, then
// shrunk by `erode` pixels.
std::vector<uint8_t> Foreground(const Image& img, float min_std, int erode);

// Ridge period of the 32x32 block centred at (cx, cy), along the normal of
// orientation `theta` (strongest Fourier component between 5 and 16 px).
double BlockPeriod(const Image& img, int cx, int cy, double theta);

// Poincare index of the orientation field on a circle (24 samples).
double PoincareIndex(const Image& theta, double cx, double cy, double radius);

// Minutiae (ridge endings and bifurcations) of dark ridges inside `mask`.
int CountMinutiae(const Image& img, const std::vector<uint8_t>& mask);

// Angle between two orientations (period pi), in [0, pi/2].
double OrientationDiff(double a, double b);

double Median(std::vector<double> v);

}  // namespace fpa
