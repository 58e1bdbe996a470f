#include "datapath/common/infra/MemoryPool.h"

#include "datapath/common/infra/MemShield.h"
#include "datapath/common/infra/MemoryHeap.h"
#include "tests/support/Support.h"

#include <gtest/gtest.h>

namespace
{

constexpr std::uint32_t CHUNK = 65'536;

using Sizes = std::vector<std::uint64_t>;

struct MemoryPool : testing::Test
{
    MemoryPool() { MemShield::setEnabled(false); }

    static Sizes sizesOf(const ScatteredBuf& buffer)
    {
        Sizes sizes;
        for (const MemorySegment& segment : buffer.getSegments())
        {
            sizes.push_back(segment.getSizeBytes());
        }
        return sizes;
    }

    const ScratchFolder folder;
    const CapturingClient client;
};

TEST_F(MemoryPool, ARequestBeyondItsModulesLimitWaitsWithWhatItHas)
{
    MemoryPoolImpl pool({.chunkSize = CHUNK, .maxPoolSize = 1});
    ModuleMemoryInformation& module = *pool.registerModule({.name = "limited", .limitBytes = 3 * CHUNK + 1});
    ScatteredBuf buffer;
    const auto future = pool.requestMemory(module, 200'000, buffer, 7);
    EXPECT_FALSE(future.isSet());
    EXPECT_EQ((Sizes{CHUNK, CHUNK, CHUNK}), sizesOf(buffer));
    pool.printMemoryUsage();
    const std::vector<std::string> report = client.messages();
    EXPECT_EQ("Info,OLM,MemoryPoolImpl,printMemoryUsage,limited: limit=196608 used=196608 pending=1", report.end()[-2]);
    char* const first = buffer.getSegments().front().buffer;
    EXPECT_EQ('\xFE', first[100]);
    pool.freeSegment(buffer.getSegments().front());
    EXPECT_EQ(RC_OK, future.get());
    EXPECT_EQ(3'392U, buffer.getSegments().back().getSizeBytes());
    EXPECT_EQ(first, buffer.getSegments().back().buffer); // given back last, handed out first
    pool.freeSegments(buffer.getSegments(), 1);
    EXPECT_TRUE(pool.checkInvariants());
    EXPECT_TRUE(pool.unregisterModule(module));
    EXPECT_EQ(2U << 20U, pool.releaseUnused());
}

} // namespace
