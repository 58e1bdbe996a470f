#include "datapath/common/infra/Future.h"

#include "datapath/common/infra/RcStatus.h"
#include "tests/support/Support.h"

#include <thread>

#include <gtest/gtest.h>

namespace
{

using Future = FutureInternal::Future<RcStatus>;

/// Notes each call with its thread, and releases a future in the first.
struct Observer : FutureInternal::FutureObserver<RcStatus>
{
    explicit Observer(std::vector<Observer*>& all) : calls(all) {}
    void update(const RcStatus& value) override
    {
        calls.push_back(this);
        result = value;
        thread = platform::currentThreadId();
        released.reset();
    }
    std::vector<Observer*>& calls;
    RcStatus result = RC_ERROR;
    std::uint32_t thread = 0;
    std::unique_ptr<Future> released;
};

TEST(Future, EveryCopyWaitsForTheOneResult)
{
    const ScratchFolder folder;
    for (int round = 0; round < 300; ++round)
    {
        Future future;
        EXPECT_FALSE(future.isSet());
        runInThreads(5, [&, copy = future](int index) mutable {
            if (index == round % 5)
            {
                platform::sleepMs(round % 20 == 0 ? 5 : 0); // the others have fallen asleep, or have not
                copy.set(RC_TIME_OUT);
            }
            EXPECT_EQ(RC_TIME_OUT, copy.get());
            EXPECT_EQ(RC_TIME_OUT, future.get());
            EXPECT_TRUE(copy.isSet());
        });
    }
}

TEST(Future, ObserversAreCalledOnceInTheirOrder)
{
    const ScratchFolder folder;
    waitForOwnThreads();
    const std::uint64_t before = MemShield::systemHeapBytes();
    std::vector<Observer*> calls;
    Observer first(calls);
    Observer second(calls);
    Observer late(calls);
    first.released = std::make_unique<Future>();
    Future& future = *first.released;
    future.addObserver(&first);
    future.addObserver(&second);
    second.released = std::make_unique<Future>(future);
    late.released = std::make_unique<Future>(future);
    EXPECT_LT(before, MemShield::systemHeapBytes());
    std::thread([&] {
        late.released->addObserver(&late);
        late.released.reset();
        EXPECT_TRUE(calls.empty());
        future.set(RC_ABORTED); // gone when it returns
        EXPECT_EQ(platform::currentThreadId(), second.thread);
    }).join();
    EXPECT_EQ((std::vector<Observer*>{&first, &second, &late}), calls);
    EXPECT_EQ(RC_ABORTED, late.result);
    EXPECT_EQ(before, MemShield::systemHeapBytes());

    late.released = std::make_unique<Future>();
    late.released->set(RC_NOT_FOUND);
    late.released->addObserver(&late); // releases the last copy
    EXPECT_EQ(RC_NOT_FOUND, late.result);
    EXPECT_EQ(platform::currentThreadId(), late.thread);
}

TEST(Future, ASecondResultEndsTheProcess)
{
    const CapturingClient client;
    const ScopedProcessEnd ending;
    waitForOwnThreads();
    Future future;
    future.set(RC_OK);
    EXPECT_THROW(Future(future).set(RC_OK), ProcessEnded);
    EXPECT_PRED2(matches, client.last(),
                 "Error,NON,FutureInternal::Future<enum RcStatus>,set,Assertion (!tempSmartPtr->m_bSet) failed "
                 "datapath/common/infra/Future.h #");
}

} // namespace
