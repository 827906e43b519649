// Waiting in tests for something another thread does.
#pragma once

#include <chrono>
#include <thread>

namespace kr7test {

// Polls `done` every millisecond until it holds or `limit` has passed;
// true when it holds.
template <class Done>
bool Eventually(Done done, std::chrono::seconds limit = std::chrono::seconds(30)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return done();
}

}  // namespace kr7test
