#include "kr7host/quality.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace kr7host {

Quality Measure(const Image& image) {
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

bool IsFingerMode(vc::eCaptureModeIDs mode) {
    return mode == vc::eCapturePlainFinger || mode == vc::eCaptureFastPlainFinger ||
           mode == vc::eCaptureRolledFinger;
}

Shot Measured(Image&& image, std::int64_t frame) {
    Shot shot;
    shot.quality = Measure(image);
    shot.image = std::move(image);
    shot.frame = frame < 0 ? 0 : frame;
    return shot;
}

void Placements::Frame(Shot&& shot) {
    m_bFinger = shot.quality.area >= kFingerArea;
    if (!IsFingerMode(m_eMode)) {
        Hand(std::move(shot));
    } else if (m_eMode != vc::eCaptureRolledFinger && m_Best && !m_bFinger &&
               m_nLastResultFrame < shot.frame - 1) {
        // No result on the previous frame and no finger on this one.
        Close();
    }
}

void Placements::Result(Shot&& shot) {
    m_nLastResultFrame = shot.frame;
    m_LastResult = Clock::now();
    if (m_eMode == vc::eCaptureRolledFinger) {
        Hand(std::move(shot));
    } else if (!m_Best || shot.quality.mean < m_Best->quality.mean) {
        m_Best = std::move(shot);
    }
}

void Placements::Close() {
    if (m_Best) {
        Hand(std::move(*m_Best));
        m_Best.reset();
    }
}

std::vector<Shot> Placements::TakeReady() {
    return std::exchange(m_vReady, {});
}

bool Placements::Taken() const {
    if (m_eMode == vc::eCaptureRolledFinger) {
        return m_LastResult != Clock::time_point() &&
               Clock::now() - m_LastResult < std::chrono::milliseconds(1500);
    }
    return m_bFinger && m_Best;
}

const char* Placements::Prompt() const {
    switch (m_eMode) {
        case vc::eCaptureRolledFinger:
            return Taken() ? "Lift the finger" : "Roll the finger from one nail edge to the other";
        case vc::eCapturePlainFinger:
        case vc::eCaptureFastPlainFinger:
            if (!m_bFinger) {
                return "Place a finger on the platen";
            }
            return m_Best ? "Lift the finger" : "Hold the finger still";
        default:
            return "Taking frames";
    }
}

void Placements::Hand(Shot&& shot) {
    if (m_nHanded < m_nWanted) {
        ++m_nHanded;
        m_vReady.push_back(std::move(shot));
    }
}

}  // namespace kr7host
