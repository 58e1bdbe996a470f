#include "datapath/common/infra/base/HandleMap.h"

#include <gtest/gtest.h>

namespace
{

TEST(HandleMap, ABlockGoesWithItsLastValueAndTheOthersStayWhereTheyAre)
{
    HandleMap<int> map;
    for (unsigned round = 0; round < 3; ++round) // the block that was filled last goes, too
    {
        for (unsigned handle = 1; handle <= 40; ++handle) // 0 to 15, 16 to 31, 32 to 47
        {
            EXPECT_TRUE(map.try_emplace(handle, 7).second);
        }
        EXPECT_EQ(3U, map.numBlocks());
        const auto* const kept = map.find(20);
        for (unsigned handle = 40; handle >= 1; --handle)
        {
            handle == 20 ? 0 : map.extract(*map.find(handle));
        }
        EXPECT_EQ(1U, map.numBlocks());
        EXPECT_EQ(kept, map.find(20));
        EXPECT_FALSE(map.try_emplace(20, 8).second);
        EXPECT_EQ(7, map.extract(*map.find(20)));
        EXPECT_EQ(0U, map.numBlocks());
        EXPECT_EQ(0U, map.size());
        EXPECT_EQ(nullptr, map.find(20));
    }
}

} // namespace
