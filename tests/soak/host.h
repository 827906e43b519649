// The soak's side of the host contract, on kr7host.
//
// Every StartCapture is a round: a kr7host::Capture of its own, whose handle
// is the round's number. The capture checks each callback (round, channel,
// result type, image, and late: after Stop returned or still running then)
// and counts it; a callback whose context is no live capture is counted by
// kr7host::Capture::Unclaimed(). The ledger is the handler of every round's
// capture: it wakes the soak's waits at each callback, tallies the error
// texts and counts the placements that gave results.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "kr7host/capture.h"

namespace soak {

// The texts the plug-in reports while a scanner is away.
constexpr const char* kDisconnectedText = "The scanner is disconnected.";
constexpr const char* kOpenFailedText = "QV2 scanner. The scanner couldn't be initialized.";

class Ledger {
public:
    static constexpr std::chrono::milliseconds kEpisodeGap{500};

    Ledger() = default;
    Ledger(const Ledger&) = delete;
    Ledger& operator=(const Ledger&) = delete;

    // The handler for every round's capture; the ledger must outlive them.
    kr7host::Capture::Handler Handler() {
        return [this](const kr7host::Delivery& delivery) { Record(delivery); };
    }
    // A round is about to start: forgets the previous round's first error.
    void NewRound();

    // Waits until `ready` holds (checked at each callback) or until
    // `deadline`; returns `ready()` at the end.
    template <class Ready>
    bool WaitUntil(Ready ready, std::chrono::steady_clock::time_point deadline) {
        std::unique_lock<std::mutex> lock(m_WaitMutex);
        return m_Changed.wait_until(lock, deadline, ready);
    }

    // Error texts with their counts, for the report.
    std::map<std::string, long> ErrorTexts() const;
    // The text of the current round's first error, once there is one.
    std::string RoundError() const;
    // Results of every round.
    long Results() const { return m_nResults.load(); }
    // Result episodes: a result more than kEpisodeGap after the previous one
    // begins a new placement (used where frames come at the scanner's pace).
    long Episodes() const { return m_nEpisodes.load(); }
    // Images smaller than any scanner's: headers that pass kr7host's bitmap
    // check but describe no frame.
    long Misfits() const { return m_nMisfits.load(); }

private:
    void Record(const kr7host::Delivery& delivery);

    std::atomic<long> m_nResults{0};
    std::atomic<long> m_nEpisodes{0};
    std::atomic<std::int64_t> m_nLastResultNs{0};
    std::atomic<long> m_nMisfits{0};

    mutable std::mutex m_TextMutex;
    std::map<std::string, long> m_ErrorTexts;  // under m_TextMutex
    std::string m_strRoundError;               // under m_TextMutex

    std::mutex m_WaitMutex;
    std::condition_variable m_Changed;
};

}  // namespace soak
