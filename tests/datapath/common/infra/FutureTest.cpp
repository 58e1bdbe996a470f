#include "datapath/common/infra/Future.h"

#include "datapath/common/infra/base/RcStatus.h"
#include "platform/Threads.h"
#include "tests/support/Support.h"

#include <thread>

#include <gtest/gtest.h>

namespace
{

using Future = FutureInternal::Future<RcStatus>;

TEST(Future, EveryCopyWaitsForTheOneResult)
{
    const ScratchFolder folder;
    for (int round = 0; round < 300; ++round)
    {
        Future future;
        EXPECT_FALSE(future.isSet());
        runInThreads(5, [&, copy = future](int index) mutable {
            if (index == 0)
            {
                round % 20 == 0 ? platform::sleepMs(5) : void(); // so that the others fall asleep
                copy.set(RC_TIME_OUT);
            }
            EXPECT_TRUE(copy.get() == RC_TIME_OUT && future.get() == RC_TIME_OUT && copy.isSet());
        });
    }
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
