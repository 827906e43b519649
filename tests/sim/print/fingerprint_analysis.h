// Independent fingerprint measurements used to judge the engine's output:
// structure-tensor orientation and coherence, ridge period per block, and the
// contact centre of a rolled frame.
#pragma once

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>
#include <numeric>
#include <vector>

namespace fpa {

struct Image {
    int w = 0, h = 0;
    std::vector<float> px;
    explicit Image(int width = 0, int height = 0)
        : w(width), h(height), px(size_t(width) * height) {}
    template <class T>  // from bytes of a frame or floats of a master print
    Image(const T* p, int width, int height) : Image(width, height) {
        std::copy(p, p + px.size(), px.begin());
    }
    float& at(int x, int y) { return px[size_t(y) * w + x]; }
    float at(int x, int y) const { return px[size_t(y) * w + x]; }
};

struct Orientation {
    Image theta;      // ridge direction in [0, pi), image coordinates
    Image coherence;  // 0..1
};

inline constexpr double kPi = 3.14159265358979323846;

template <class F>
void ForEach(int w, int h, F f) {
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            f(x, y);
}

// Summed-area table of f(x, y) with a zero first row and column.
struct Integral {
    int w, h;
    std::vector<double> s;
    template <class F>
    Integral(int width, int height, F f) : w(width), h(height), s(size_t(w + 1) * (h + 1)) {
        ForEach(w, h, [&](int x, int y) {
            s[At(x + 1, y + 1)] = f(x, y) + s[At(x, y + 1)] + s[At(x + 1, y)] - s[At(x, y)];
        });
    }
    size_t At(int x, int y) const { return size_t(y) * (w + 1) + x; }
    // Mean over the box of half-size r around (x, y), clipped to the image.
    double Mean(int x, int y, int r) const {
        const int x0 = std::max(0, x - r), y0 = std::max(0, y - r);
        const int x1 = std::min(w, x + r + 1), y1 = std::min(h, y + r + 1);
        return (s[At(x1, y1)] - s[At(x1, y0)] - s[At(x0, y1)] + s[At(x0, y0)]) /
               ((x1 - x0) * (y1 - y0));
    }
};

inline Image Blur3(const Image& img) {
    const Integral s(img.w, img.h, [&](int x, int y) { return img.at(x, y); });
    Image out(img.w, img.h);
    ForEach(img.w, img.h, [&](int x, int y) { out.at(x, y) = float(s.Mean(x, y, 1)); });
    return out;
}

// Angle between two orientations (period pi), in [0, pi/2].
inline double OrientationDiff(double a, double b) {
    const double d = std::fmod(std::fabs(a - b), kPi);
    return std::min(d, kPi - d);
}

inline double Median(std::vector<double> v) {
    std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
    return v[v.size() / 2];
}

// Correlation of two frames of width w over columns [x0, x1) and rows [y0, y1).
inline double Correlation(const uint8_t* a, const uint8_t* b, int w, int x0, int x1, int y0,
                          int y1) {
    double n = 0, sa = 0, sb = 0, saa = 0, sbb = 0, sab = 0;
    ForEach(x1 - x0, y1 - y0, [&](int x, int y) {
        const double u = a[size_t(y + y0) * w + x + x0], v = b[size_t(y + y0) * w + x + x0];
        n += 1, sa += u, sb += v, saa += u * u, sbb += v * v, sab += u * v;
    });
    return (n * sab - sa * sb) / std::sqrt((n * saa - sa * sa) * (n * sbb - sb * sb));
}

// Structure tensor averaged over a window x window box.
inline Orientation StructureTensor(const Image& src, int window) {
    const Image img = Blur3(src);
    auto inner = [&](int x, int y) { return x > 0 && y > 0 && x + 1 < img.w && y + 1 < img.h; };
    auto gx = [&](int x, int y) { return inner(x, y) ? img.at(x + 1, y) - img.at(x - 1, y) : 0.0; };
    auto gy = [&](int x, int y) { return inner(x, y) ? img.at(x, y + 1) - img.at(x, y - 1) : 0.0; };
    const Integral xx(img.w, img.h, [&](int x, int y) { return gx(x, y) * gx(x, y); });
    const Integral yy(img.w, img.h, [&](int x, int y) { return gy(x, y) * gy(x, y); });
    const Integral xy(img.w, img.h, [&](int x, int y) { return gx(x, y) * gy(x, y); });
    Orientation o{Image(img.w, img.h), Image(img.w, img.h)};
    ForEach(img.w, img.h, [&](int x, int y) {
        const int r = window / 2;
        const double a = xx.Mean(x, y, r), b = yy.Mean(x, y, r), c = xy.Mean(x, y, r);
        // Gradients are normal to the ridges: turn the dominant one a quarter turn.
        o.theta.at(x, y) = float(std::fmod(0.5 * std::atan2(2 * c, a - b) + 1.5 * kPi, kPi));
        o.coherence.at(x, y) = float(a + b > 1e-9 ? std::hypot(a - b, 2 * c) / (a + b) : 0);
    });
    return o;
}

// Foreground: local standard deviation over 15x15 above `min_std`, shrunk by `erode` pixels.
inline std::vector<uint8_t> Foreground(const Image& img, float min_std, int erode) {
    const Integral s1(img.w, img.h, [&](int x, int y) { return img.at(x, y); });
    const Integral s2(img.w, img.h, [&](int x, int y) { return img.at(x, y) * img.at(x, y); });
    std::vector<uint8_t> fg(img.px.size()), out(fg.size());
    ForEach(img.w, img.h, [&](int x, int y) {
        const double m = s1.Mean(x, y, 7);
        fg[size_t(y) * img.w + x] = s2.Mean(x, y, 7) - m * m > double(min_std) * min_std;
    });
    const Integral f(img.w, img.h, [&](int x, int y) { return fg[size_t(y) * img.w + x]; });
    ForEach(img.w, img.h, [&](int x, int y) {
        const bool inside = x >= erode && y >= erode && x + erode < img.w && y + erode < img.h;
        out[size_t(y) * img.w + x] = inside && f.Mean(x, y, erode) == 1.0;
    });
    return out;
}

// Ridge period of the 32x32 block centred at (cx, cy), along the normal of
// orientation `theta` (strongest Fourier component between 5 and 16 px).
inline double BlockPeriod(const Image& img, int cx, int cy, double theta) {
    // Profile across the ridges in half-pixel bins, then a scan of periods.
    const double nx = -std::sin(theta), ny = std::cos(theta);
    std::vector<double> sum(96), count(96);
    double mean = 0;
    for (int y = cy - 16; y < cy + 16; ++y)
        for (int x = cx - 16; x < cx + 16; ++x) {
            const size_t b = size_t(48 + std::lround(2 * ((x - cx) * nx + (y - cy) * ny)));
            sum[b] += img.at(x, y);
            count[b] += 1;
            mean += img.at(x, y) / 1024.0;
        }
    double best = 0, best_power = -1;
    for (double t = 5.0; t <= 16.0; t += 0.05) {
        std::complex<double> acc = 0;
        for (int b = 0; b < 96; ++b)
            acc += (sum[b] - mean * count[b]) * std::polar(1.0, -kPi * (b - 48) / t);
        if (std::norm(acc) > best_power) {
            best_power = std::norm(acc);
            best = t;
        }
    }
    return best;
}

// Darkness-weighted mean column of a frame (pixels darker than `white`).
inline double ContactColumn(const uint8_t* frame, int w, int h, int white) {
    double weight = 0, moment = 0;
    for (size_t i = 0; i < size_t(w) * h; ++i) {
        const double d = std::max(0, white - frame[i]);
        weight += d;
        moment += d * double(i % size_t(w));
    }
    return moment / weight;
}

}  // namespace fpa
