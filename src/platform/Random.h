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

struct RandomCalls
{
    Call<void(std::uint32_t seed)> seedRandom;
    Call<std::uint32_t()> nextRandom;
};

/// The calls in use. Tests replace single entries, before other threads call them.
extern RandomCalls randomCalls;

/// Seeds the calling thread's generator, which starts as if seeded with 1.
inline void seedRandom(std::uint32_t seed) { randomCalls.seedRandom(seed); }

/// The next number of the calling thread, from 0 to at least 32767.
[[nodiscard]] inline std::uint32_t nextRandom() { return randomCalls.nextRandom(); }

} // namespace platform
