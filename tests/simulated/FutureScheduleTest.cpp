// The future under many schedules.

#include "datapath/common/infra/Future.h"
#include "tests/simulated/Scenarios.h"
#include "tests/support/Support.h"

#include <optional>

namespace
{

using Result = FutureInternal::Future<int>;

/// May hold a copy of the future, which it releases when it is called.
struct Observer : FutureInternal::FutureObserver<int>
{
    void update(const int& value) override
    {
        sum += value;
        rank = ++numCalls;
        copy.reset();
    }

    static inline int numCalls = 0; // calls of any observer
    int rank = 0;                   // the number of its last call among these
    int sum = 0;                    // the sum of the values that it was given
    std::optional<Result> copy{};
};

struct FutureSchedules : testing::Test
{
    FutureSchedules() { waitForOwnThreads(); }
};

TEST_F(FutureSchedules, ReachesEveryWaiterAndEachObserverOnce)
{
    exploreBothWays([] {
        Result result;
        Observer early;
        Observer second;
        Observer late;
        result.addObserver(&early);
        result.addObserver(&second);
        const auto get = [&] { check(result.get() == 7, "the result is got"); };
        runTogether({{"setter", [&] { result.set(7); }},
                     {"adder", [&] { result.addObserver(&late); }},
                     {"getter", get},
                     {"other getter", get}});
        check(early.sum == 7 && second.sum == 7 && late.sum == 7, "each observer is called once");
        check(early.rank < second.rank, "in their order");
    });
}

TEST_F(FutureSchedules, CopiesOnSeveralThreadsAreOneAndWhoeverHasTheLastReleasesIt)
{
    exploreBothWays([] {
        const std::uint64_t before = MemShield::systemHeapBytes();
        Observer observer;
        observer.copy.emplace();
        std::optional<Result> adders = observer.copy;
        std::optional<Result> getters = observer.copy;
        runTogether({{"setter", [&] { observer.copy->set(7); }},
                     {"adder", [&] { adders->addObserver(&observer), adders.reset(); }},
                     {"getter", [&] { check(getters->get() == 7, "the result is got"), getters.reset(); }}});
        check(observer.sum == 7, "the observer is called once");
        check(MemShield::systemHeapBytes() == before, "the state went with the last copy");
    });
}

} // namespace
