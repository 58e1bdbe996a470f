#include "platform/Random.h"

#include <cstdlib>

namespace platform::windows
{
namespace
{

void seedRandom(std::uint32_t seed) { std::srand(seed); }

std::uint32_t nextRandom() { return static_cast<std::uint32_t>(std::rand()); }

} // namespace
} // namespace platform::windows

constinit platform::RandomCalls platform::randomCalls = {
    .seedRandom = {"seedRandom", windows::seedRandom},
    .nextRandom = {"nextRandom", windows::nextRandom},
};
