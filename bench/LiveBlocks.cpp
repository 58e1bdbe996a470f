// Replaces random ones of 10,000 live blocks and prints the time of one replacement in ns. The first argument is
// "guarded" for the guarded allocator or "plain" for malloc, which an address sanitizer or valgrind may watch; the
// second one is the number of replacements.

#include "datapath/common/infra/MemShield.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string_view>
#include <vector>

int main(int argc, char** argv)
{
    constexpr std::size_t LIVE = 10'000;
    constexpr std::uint64_t SIZE = 100;
    constexpr AllocationSite SITE{"block", SourcePlace::here()};
    const bool isGuarded = argc > 1 && std::string_view(argv[1]) == "guarded";
    const int replacements = argc > 2 ? std::atoi(argv[2]) : 1'000'000;
    const auto allocate = [=] { return isGuarded ? MemShield::allocate(SIZE, 0, SITE) : std::malloc(SIZE); };
    const auto release = [=](void* block) {
        return isGuarded ? MemShield::releaseObject(block, SITE.place) : std::free(block);
    };
    std::vector<void*> blocks(LIVE);
    std::ranges::generate(blocks, allocate);
    std::minstd_rand random;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < replacements; ++i)
    {
        void*& block = blocks[random() % LIVE];
        release(block);
        block = allocate();
        static_cast<char*>(block)[SIZE - 1] = 1;
    }
    const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - start;
    std::cout << time.count() / replacements << std::endl;
    std::ranges::for_each(blocks, release);
}
