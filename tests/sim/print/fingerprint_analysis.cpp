#include "fingerprint_analysis.h"

#include <algorithm>
#include <cmath>
#include <complex>

namespace fpa {
namespace {

constexpr double kPi = 3.14159265358979323846;

// Summed-area table with a zero first row and column.
struct Integral {
    int w, h;
    std::vector<double> s;
    template <typename F>
    Integral(int width, int height, F value)
        : w(width), h(height), s(size_t(w + 1) * (h + 1), 0.0) {
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                s[size_t(y + 1) * (w + 1) + x + 1] = value(x, y) + s[size_t(y) * (w + 1) + x + 1] +
                                                     s[size_t(y + 1) * (w + 1) + x] -
                                                     s[size_t(y) * (w + 1) + x];
    }
    // Sum over the box of half-size r around (x, y), clipped to the image.
    double Box(int x, int y, int r, int* count = nullptr) const {
        const int x0 = std::max(0, x - r), y0 = std::max(0, y - r);
        const int x1 = std::min(w, x + r + 1), y1 = std::min(h, y + r + 1);
        if (count)
            *count = (x1 - x0) * (y1 - y0);
        return s[size_t(y1) * (w + 1) + x1] - s[size_t(y0) * (w + 1) + x1] -
               s[size_t(y1) * (w + 1) + x0] + s[size_t(y0) * (w + 1) + x0];
    }
};

Image Smooth(const Image& img) {
    Image out(img.w, img.h);
    for (int y = 0; y < img.h; ++y)
        for (int x = 0; x < img.w; ++x) {
            float acc = 0, wsum = 0;
            for (int dy = -1; dy <= 1; ++dy)
                for (int dx = -1; dx <= 1; ++dx) {
                    const int xx = x + dx, yy = y + dy;
                    if (xx < 0 || yy < 0 || xx >= img.w || yy >= img.h)
                        continue;
                    const float k = (dx ? 1.f : 2.f) * (dy ? 1.f : 2.f);
                    acc += k * img.at(xx, yy);
                    wsum += k;
                }
            out.at(x, y) = acc / wsum;
        }
    return out;
}

}  // namespace

Image Image::FromBytes(const uint8_t* p, int w, int h) {
    Image img(w, h);
    for (size_t i = 0; i < img.px.size(); ++i)
        img.px[i] = p[i];
    return img;
}

double OrientationDiff(double a, double b) {
    double d = std::fmod(std::fabs(a - b), kPi);
    return std::min(d, kPi - d);
}

double Median(std::vector<double> v) {
    if (v.empty())
        return NAN;
    std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
    return v[v.size() / 2];
}

Orientation StructureTensor(const Image& src, int window) {
    const Image img = Smooth(src);
    Image gx(img.w, img.h), gy(img.w, img.h);
    for (int y = 1; y + 1 < img.h; ++y)
        for (int x = 1; x + 1 < img.w; ++x) {
            gx.at(x, y) = 0.5f * (img.at(x + 1, y) - img.at(x - 1, y));
            gy.at(x, y) = 0.5f * (img.at(x, y + 1) - img.at(x, y - 1));
        }
    const Integral xx(img.w, img.h,
                      [&](int x, int y) { return double(gx.at(x, y)) * gx.at(x, y); });
    const Integral yy(img.w, img.h,
                      [&](int x, int y) { return double(gy.at(x, y)) * gy.at(x, y); });
    const Integral xy(img.w, img.h,
                      [&](int x, int y) { return double(gx.at(x, y)) * gy.at(x, y); });
    Orientation o{Image(img.w, img.h), Image(img.w, img.h)};
    const int r = window / 2;
    for (int y = 0; y < img.h; ++y)
        for (int x = 0; x < img.w; ++x) {
            const double a = xx.Box(x, y, r), b = yy.Box(x, y, r), c = xy.Box(x, y, r);
            // Gradients are normal to the ridges: turn the dominant gradient
            // direction by a quarter turn.
            double t = 0.5 * std::atan2(2 * c, a - b) + kPi / 2;
            if (t >= kPi)
                t -= kPi;
            o.theta.at(x, y) = float(t);
            o.coherence.at(x, y) =
                float(a + b > 1e-9 ? std::sqrt((a - b) * (a - b) + 4 * c * c) / (a + b) : 0);
        }
    return o;
}

std::vector<uint8_t> Foreground(const Image& img, float min_std, int erode) {
    const Integral s1(img.w, img.h, [&](int x, int y) { return double(img.at(x, y)); });
    const Integral s2(img.w, img.h,
                      [&](int x, int y) { return double(img.at(x, y)) * img.at(x, y); });
    std::vector<uint8_t> fg(img.px.size());
    for (int y = 0; y < img.h; ++y)
        for (int x = 0; x < img.w; ++x) {
            int n = 0;
            const double m = s1.Box(x, y, 7, &n) / n;
            const double var = s2.Box(x, y, 7) / n - m * m;
            fg[size_t(y) * img.w + x] = var > double(min_std) * min_std;
        }
    const Integral f(img.w, img.h, [&](int x, int y) { return double(fg[size_t(y) * img.w + x]); });
    std::vector<uint8_t> out(fg.size());
    for (int y = 0; y < img.h; ++y)
        for (int x = 0; x < img.w; ++x) {
            const bool inside = x >= erode && y >= erode && x + erode < img.w && y + erode < img.h;
            out[size_t(y) * img.w + x] =
                inside && f.Box(x, y, erode) == double(2 * erode + 1) * (2 * erode + 1);
        }
    return out;
}

double BlockPeriod(const Image& img, int cx, int cy, double theta) {
    const double nx = -std::sin(theta), ny = std::cos(theta);
    double mean = 0;
    for (int y = cy - 16; y < cy + 16; ++y)
        for (int x = cx - 16; x < cx + 16; ++x)
            mean += img.at(x, y);
    mean /= 1024;
    double best = 0, best_power = -1;
    for (double t = 5.0; t <= 16.0; t += 0.05) {
        std::complex<double> acc = 0;
        for (int y = cy - 16; y < cy + 16; ++y)
            for (int x = cx - 16; x < cx + 16; ++x) {
                const double phase = 2 * kPi * ((x - cx) * nx + (y - cy) * ny) / t;
                acc +=
                    (img.at(x, y) - mean) * std::complex<double>(std::cos(phase), -std::sin(phase));
            }
        if (std::norm(acc) > best_power) {
            best_power = std::norm(acc);
            best = t;
        }
    }
    return best;
}

double PoincareIndex(const Image& theta, double cx, double cy, double radius) {
    constexpr int kSamples = 24;
    auto sample = [&](int k) {
        const double a = 2 * kPi * k / kSamples;
        const int x = std::clamp(int(std::lround(cx + radius * std::cos(a))), 0, theta.w - 1);
        const int y = std::clamp(int(std::lround(cy + radius * std::sin(a))), 0, theta.h - 1);
        return double(theta.at(x, y));
    };
    double total = 0;
    for (int k = 0; k < kSamples; ++k) {
        double d = sample(k + 1) - sample(k);
        while (d > kPi / 2)
            d -= kPi;
        while (d <= -kPi / 2)
            d += kPi;
        total += d;
    }
    return total / (2 * kPi);
}

int CountMinutiae(const Image& src, const std::vector<uint8_t>& mask) {
    const int w = src.w, h = src.h;
    const Image img = Smooth(Smooth(src));
    const Integral s(w, h, [&](int x, int y) { return double(img.at(x, y)); });
    std::vector<uint8_t> bin(size_t(w) * h, 0);
    for (int y = 1; y + 1 < h; ++y)
        for (int x = 1; x + 1 < w; ++x) {
            int n = 0;
            const double local = s.Box(x, y, 7, &n) / n;
            bin[size_t(y) * w + x] = mask[size_t(y) * w + x] && img.at(x, y) < local;
        }
    // Zhang-Suen thinning.
    auto p = [&](int x, int y) { return int(bin[size_t(y) * w + x]); };
    for (bool changed = true; changed;) {
        changed = false;
        for (int step = 0; step < 2; ++step) {
            std::vector<size_t> remove;
            for (int y = 1; y + 1 < h; ++y)
                for (int x = 1; x + 1 < w; ++x) {
                    if (!p(x, y))
                        continue;
                    const int n[8] = {p(x, y - 1), p(x + 1, y - 1), p(x + 1, y), p(x + 1, y + 1),
                                      p(x, y + 1), p(x - 1, y + 1), p(x - 1, y), p(x - 1, y - 1)};
                    int b = 0, a = 0;
                    for (int i = 0; i < 8; ++i) {
                        b += n[i];
                        a += !n[i] && n[(i + 1) % 8];
                    }
                    if (b < 2 || b > 6 || a != 1)
                        continue;
                    if (step == 0 && ((n[0] && n[2] && n[4]) || (n[2] && n[4] && n[6])))
                        continue;
                    if (step == 1 && ((n[0] && n[2] && n[6]) || (n[0] && n[4] && n[6])))
                        continue;
                    remove.push_back(size_t(y) * w + x);
                }
            for (size_t i : remove)
                bin[i] = 0;
            changed = changed || !remove.empty();
        }
    }
    // Crossing number, away from the mask border.
    const Integral m(w, h, [&](int x, int y) { return double(mask[size_t(y) * w + x]); });
    struct Pt {
        int x, y;
    };
    std::vector<Pt> found;
    for (int y = 1; y + 1 < h; ++y)
        for (int x = 1; x + 1 < w; ++x) {
            if (!p(x, y) || m.Box(x, y, 10) < 21.0 * 21.0)
                continue;
            const int n[8] = {p(x, y - 1), p(x + 1, y - 1), p(x + 1, y), p(x + 1, y + 1),
                              p(x, y + 1), p(x - 1, y + 1), p(x - 1, y), p(x - 1, y - 1)};
            int cn = 0;
            for (int i = 0; i < 8; ++i)
                cn += std::abs(n[i] - n[(i + 1) % 8]);
            cn /= 2;
            if (cn == 1 || cn == 3)
                found.push_back({x, y});
        }
    // Minutiae closer than 8 px to another are spurs, bridges or holes.
    int count = 0;
    for (size_t i = 0; i < found.size(); ++i) {
        bool isolated = true;
        for (size_t j = 0; j < found.size() && isolated; ++j) {
            const int dx = found[i].x - found[j].x, dy = found[i].y - found[j].y;
            isolated = i == j || dx * dx + dy * dy >= 64;
        }
        count += isolated;
    }
    return count;
}

}  // namespace fpa
