#include "host.h"

namespace soak {

namespace {
// Every scanner's frame is larger than this on either side.
constexpr int kMinSide = 100;
}  // namespace

void Ledger::NewRound() {
    std::lock_guard<std::mutex> lock(m_TextMutex);
    m_strRoundError.clear();
}

std::map<std::string, long> Ledger::ErrorTexts() const {
    std::lock_guard<std::mutex> lock(m_TextMutex);
    return m_ErrorTexts;
}

std::string Ledger::RoundError() const {
    std::lock_guard<std::mutex> lock(m_TextMutex);
    return m_strRoundError;
}

void Ledger::Record(const kr7host::Delivery& delivery) {
    using kr7host::Kind;
    const kr7host::BitmapView& image = delivery.image;
    if ((delivery.kind == Kind::Image || delivery.kind == Kind::Result) && image.Valid() &&
        (image.Width() <= kMinSide || image.Height() <= kMinSide)) {
        ++m_nMisfits;
    }
    if (delivery.kind == Kind::Result) {
        ++m_nResults;
        const std::int64_t now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count();
        const std::int64_t previous = m_nLastResultNs.exchange(now);
        if (previous == 0 || now - previous > std::chrono::nanoseconds(kEpisodeGap).count()) {
            ++m_nEpisodes;
        }
    }
    if (delivery.kind == Kind::Error) {
        const std::string text = delivery.text != nullptr ? delivery.text : "(null)";
        std::lock_guard<std::mutex> lock(m_TextMutex);
        ++m_ErrorTexts[text];
        if (m_strRoundError.empty()) {
            m_strRoundError = text;
        }
    }
    // The kr7host capture has counted this callback before calling here.
    { std::lock_guard<std::mutex> lock(m_WaitMutex); }
    m_Changed.notify_all();
}

}  // namespace soak
