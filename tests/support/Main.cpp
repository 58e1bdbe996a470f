#include "tests/support/Support.h"

#include <cstdio>
#include <string_view>

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    if (argc == 4 && std::string_view(argv[1]) == "--child")
    {
        if (std::freopen(argv[3], "w", stdout) == nullptr)
        {
            return 1;
        }
        childScenarios().at(argv[2])();
        return 0;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
