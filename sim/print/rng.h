// Deterministic random numbers for the virtual scanner.
//
// Everything random in the simulator derives from a 64-bit hash of
// (seed, stream, index...) fed into xoshiro256**. The standard library's
// engines and distributions are avoided on purpose: their output differs
// between library implementations, and the simulator must produce the same
// bytes wherever it is built.
#pragma once

#include <cstdint>

namespace kr7sim {

// One step of splitmix64: advances `state` and returns a well-mixed value.
inline uint64_t SplitMix64(uint64_t& state) {
    uint64_t z = (state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

// Stateless mixing of a sequence of words into one 64-bit key.
inline uint64_t HashWords(uint64_t a) {
    uint64_t s = a;
    return SplitMix64(s);
}
inline uint64_t HashWords(uint64_t a, uint64_t b) {
    uint64_t s = HashWords(a) ^ (b * 0xD6E8FEB86659FD93ull);
    return SplitMix64(s);
}
inline uint64_t HashWords(uint64_t a, uint64_t b, uint64_t c) {
    return HashWords(HashWords(a, b), c);
}
inline uint64_t HashWords(uint64_t a, uint64_t b, uint64_t c, uint64_t d) {
    return HashWords(HashWords(a, b, c), d);
}

// xoshiro256** with a few convenience draws. All draws use only integer
// arithmetic and exactly rounded floating-point operations, so they are
// reproducible bit for bit.
class Rng {
public:
    explicit Rng(uint64_t seed) {
        uint64_t s = seed;
        for (auto& w : s_)
            w = SplitMix64(s);
    }

    uint64_t Next() {
        const uint64_t result = Rotl(s_[1] * 5, 7) * 9;
        const uint64_t t = s_[1] << 17;
        s_[2] ^= s_[0];
        s_[3] ^= s_[1];
        s_[1] ^= s_[2];
        s_[0] ^= s_[3];
        s_[2] ^= t;
        s_[3] = Rotl(s_[3], 45);
        return result;
    }

    // Uniform in [0, 1) with 53 random bits.
    double Uniform() { return static_cast<double>(Next() >> 11) * (1.0 / 9007199254740992.0); }
    double Uniform(double lo, double hi) { return lo + (hi - lo) * Uniform(); }

    // Uniform integer in [0, n); n > 0. Multiply-shift mapping, bias < 2^-32.
    uint32_t Below(uint32_t n) {
        return static_cast<uint32_t>(((Next() >> 32) * static_cast<uint64_t>(n)) >> 32);
    }

    bool Chance(double p) { return Uniform() < p; }

    // Approximately standard normal: the Irwin-Hall sum of four uniforms,
    // rescaled to unit variance. Bounded at +-3.46, which suits sensor noise
    // and jitter, and needs no transcendental function.
    double Normal() {
        const double sum = Uniform() + Uniform() + Uniform() + Uniform();
        return (sum - 2.0) * 1.7320508075688772;  // sqrt(12 / 4)
    }

private:
    static uint64_t Rotl(uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }
    uint64_t s_[4];
};

}  // namespace kr7sim
