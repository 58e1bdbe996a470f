#pragma once

// The C runtime's pseudo-random numbers, with a generator for each thread: srand and rand; rand_r. They are good enough
// to spread load and to draw test values, and for nothing else.
//
//     const std::uint32_t delayMs = nextRandom() % 1'000;
//
// Any thread may call.

#include "platform/Call.h"

#include <cstdint>

namespace platform
{

/// The table of this header's calls, which tests replace.
struct RandomCalls
{
    Call<void(std::uint32_t seed)> seedRandom;
    Call<std::uint32_t()> nextRandom;
};

extern RandomCalls randomCalls;

/// Seeds the calling thread's generator, which starts as if seeded with 1.
inline void seedRandom(std::uint32_t seed) { randomCalls.seedRandom(seed); }

/// The next number of the calling thread's generator, from 0 to RAND_MAX, which is at least 32,767.
[[nodiscard]] inline std::uint32_t nextRandom() { return randomCalls.nextRandom(); }

} // namespace platform
