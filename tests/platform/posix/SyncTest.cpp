// What waits do where the system refuses to wait. The sanitizers refuse this way of bringing it about.

#include "platform/Sync.h"
#include "platform/Threads.h"

#include <array>
#include <new>

#include <gtest/gtest.h>

namespace
{

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST(NativeSemaphore, NeedsNoProcessorForAWaitThatTheSystemRefuses)
{
    alignas(64) std::array<std::byte, 64> storage; // one cache line: the accesses stay atomic
    auto* const semaphore = new (&storage.at(1)) platform::NativeSemaphore(0); // where no futex can be
    const std::uint64_t before = platform::currentThreadCycles();
    EXPECT_FALSE(semaphore->waitFor(100));
    EXPECT_LT(platform::currentThreadCycles() - before, 30'000'000U); // ns
    semaphore->post();
    semaphore->wait();
}
#endif

} // namespace
