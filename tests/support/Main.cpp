#include "tests/support/Support.h"

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include <gtest/gtest.h>

namespace
{

/// Services of the process are made once and stay, so a test would find what an earlier one has left in them.
struct OneTestAProcess : testing::EmptyTestEventListener
{
    void OnTestProgramStart(const testing::UnitTest& tests) override
    {
        if (tests.test_to_run_count() != 1)
        {
            std::fprintf(stderr,
                         "Each test needs a process of its own, and %d are selected. To run\n"
                         "  one of them:  unit_tests --gtest_filter=Suite.Name   (the names: --gtest_list_tests)\n"
                         "  all of them:  ctest --test-dir <build folder>\n",
                         tests.test_to_run_count());
            std::exit(1);
        }
    }
};

} // namespace

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
    testing::UnitTest::GetInstance()->listeners().Append(new OneTestAProcess);
    return RUN_ALL_TESTS();
}
