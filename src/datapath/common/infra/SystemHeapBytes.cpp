#include "datapath/common/infra/SystemHeapBytes.h"

#include <limits>

constinit std::array<SystemHeapBytesInternal::Share, 256> SystemHeapBytes::s_shares{};
constinit SystemHeapBytesInternal::Share SystemHeapBytes::s_commonShare{};

void SystemHeapBytes::claimShare() noexcept
{
    for (Share& share : s_shares)
    {
        // The acquire order makes the previous owner's counts visible, from which this thread goes on.
        if (!share.isOwned.load(std::memory_order_relaxed) && !share.isOwned.exchange(true, std::memory_order_acquire))
        {
            s_share = &share;
            return;
        }
    }
    s_share = &s_commonShare;
}

void SystemHeapBytes::leaveShare() noexcept
{
    if (s_share != nullptr && s_share != &s_commonShare)
    {
        s_share->isOwned.store(false, std::memory_order_release);
    }
    s_share = nullptr;
}

std::uint64_t SystemHeapBytes::read() noexcept
{
    const auto sumOf = [](std::atomic<std::uint64_t> Share::*member) {
        std::uint64_t sum = (s_commonShare.*member).load(std::memory_order_acquire);
        for (const Share& share : s_shares)
        {
            sum += (share.*member).load(std::memory_order_acquire);
        }
        return sum;
    };
    // Bytes that other threads give back while the shares are added up still count as held. Of several attempts, the
    // one with the fewest such bytes is used.
    constexpr int ATTEMPTS = 32;
    std::uint64_t held = 0;
    std::uint64_t leastError = std::numeric_limits<std::uint64_t>::max();
    for (int i = 0; i < ATTEMPTS && leastError != 0; ++i)
    {
        const std::uint64_t returned = sumOf(&Share::returned); // read first, so that taken includes all of it
        const std::uint64_t taken = sumOf(&Share::taken);
        if (const std::uint64_t error = sumOf(&Share::returned) - returned; error < leastError)
        {
            leastError = error;
            held = taken - returned;
        }
    }
    return held;
}
