#include "kr7host/placements.h"

#include <utility>

namespace kr7host {

bool IsFingerMode(vc::eCaptureModeIDs mode) {
    return mode == vc::eCapturePlainFinger || mode == vc::eCaptureFastPlainFinger ||
           mode == vc::eCaptureRolledFinger;
}

void Placements::Frame(Shot&& shot) {
    m_bFinger = shot.quality.area >= kFingerArea;
    if (!IsFingerMode(m_eMode)) {
        Hand(std::move(shot));
    } else if (m_eMode != vc::eCaptureRolledFinger && m_Best && !m_bFinger &&
               m_nLastResultFrame < shot.frame - 1) {
        // No result on the previous image and no finger on this one.
        Close();
    }
}

void Placements::Result(Shot&& shot) {
    m_nLastResultFrame = shot.frame;
    m_LastResult = std::chrono::steady_clock::now();
    if (m_eMode == vc::eCaptureRolledFinger) {
        Hand(std::move(shot));
    } else if (Keeps(shot.quality)) {
        if (m_Best) {
            m_Spare = std::move(m_Best->image);
        }
        m_Best = std::move(shot);
    } else if (!shot.image.Empty()) {
        m_Spare = std::move(shot.image);
    }
}

bool Placements::NeedsQuality(std::int64_t frame) const {
    return IsFingerMode(m_eMode) && m_eMode != vc::eCaptureRolledFinger && m_Best &&
           m_nLastResultFrame < frame - 1;
}

bool Placements::Keeps(const Quality& quality) const {
    return m_eMode == vc::eCaptureRolledFinger || !m_Best || quality.mean < m_Best->quality.mean;
}

void Placements::Close() {
    if (m_Best) {
        Hand(std::move(*m_Best));
        m_Best.reset();
    }
}

void Placements::Hand(Shot&& shot) {
    if (m_nHanded < m_nWanted) {
        ++m_nHanded;
        m_vReady.push_back(std::move(shot));
    }
}

}  // namespace kr7host
