#include "platform/Random.h"

#include <cstdlib>

namespace platform::posix
{
namespace
{

thread_local unsigned generator = 1;

void seedRandom(std::uint32_t seed) { generator = seed; }

std::uint32_t nextRandom() { return static_cast<std::uint32_t>(rand_r(&generator)); }

} // namespace
} // namespace platform::posix

constinit platform::RandomCalls platform::randomCalls = {
    .seedRandom = {"seedRandom", posix::seedRandom},
    .nextRandom = {"nextRandom", posix::nextRandom},
};
