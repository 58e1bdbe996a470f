#include "datapath/common/infra/SequentialRequestsManager.h"

#include "datapath/common/infra/GuardedMemory.h"
#include "datapath/common/infra/MemShield.h"
#include "tests/support/Support.h"

#include <gtest/gtest.h>

namespace
{

using Keys = std::vector<std::uint64_t>;
using Request = WaitingRequestsQueue_Internal::Request;
using WaitingRequestsQueue_Internal::FunctorSequentialHandler;
using WaitingRequestsQueue_Internal::PostIterationFlags;

constexpr unsigned STOP = 0b000;
constexpr unsigned CONTINUE = 0b100;
constexpr unsigned COMPLETED = 0b101;
constexpr unsigned COMPLETED_AND_WAITING = 0b111;

struct KeyedRequest : Request
{
    explicit KeyedRequest(std::uint64_t requestKey) : key(requestKey) {}
    ~KeyedRequest() override { destroyed.push_back(key); }
    const std::uint64_t key;
    static inline Keys destroyed;
};

struct SequentialRequests : testing::Test
{
    SequentialRequests()
    {
        MemShield::setEnabled(false);
        std::ranges::for_each(modules, [this](auto& module) { manager.subscribe(&module); });
    }
    static void push(SequentialRequestsManager::ModuleInformation& module, const Keys& keys)
    {
        for (const std::uint64_t key : keys)
        {
            module.queue().push(GuardedMemory::create<KeyedRequest>({"KeyedRequest", SourcePlace::here()}, key), key);
        }
    }

    /// A visitor that records the keys, gives one answer after the other, and then stops.
    auto answering(std::vector<unsigned> answers)
    {
        visited.clear();
        return FunctorSequentialHandler([this, answers](PostIterationFlags& flags, Request* request) {
            flags = visited.size() < answers.size() ? answers[visited.size()] : STOP;
            visited.push_back(static_cast<KeyedRequest*>(request)->key);
        });
    }

    SequentialRequestsManager manager{"test"};
    SequentialRequestsManager::ModuleInformation modules[3];
    Keys visited;
};

TEST_F(SequentialRequests, AreOfferedInTheOrderOfTheirKeys)
{
    push(modules[0], {5, 6});
    push(modules[1], {2, 7});
    push(modules[2], {9});
    std::ranges::for_each(modules, [&](auto& module) { manager.importRequestReferenceInternal(&module); });
    manager.iterateWaiting(answering({COMPLETED_AND_WAITING, CONTINUE, CONTINUE}));
    EXPECT_EQ((Keys{2, 5, 7, 9}), visited); // the modules of 5 and 7 lose their entries; the visitor stops at 9
    EXPECT_EQ(Keys{2}, KeyedRequest::destroyed);
    EXPECT_TRUE(manager.checkInvariants() && !modules[0].getIsRequestInWaitingModules());
    manager.importRequestReferenceInternal(&modules[1]); // again with the key 7
    manager.iterateWaiting(answering({COMPLETED_AND_WAITING, COMPLETED_AND_WAITING}));
    EXPECT_EQ((Keys{7, 9}), visited);
    EXPECT_TRUE(manager.checkInvariants() && !manager.hasWaiting());

    push(modules[2], {10, 11, 12});
    manager.importRequestReferenceInternal(&modules[2]);
    EXPECT_EQ(0U, modules[2].queue().iterateRequests(answering({CONTINUE, COMPLETED, COMPLETED})));
    EXPECT_EQ((Keys{2, 7, 9, 11, 12}), KeyedRequest::destroyed);
    push(modules[2], {13});
    manager.iterateAll(answering({COMPLETED}), &modules[2]);
    EXPECT_EQ((Keys{10, 13}), visited);
    manager.iterateWaiting(answering({})); // the entry has the key of the new first request
    EXPECT_EQ(Keys{13}, visited);
    push(modules[1], {14});
    manager.importRequestReferenceInternal(&modules[1]);
    manager.iterateAll(answering({CONTINUE, CONTINUE, CONTINUE}));
    EXPECT_EQ((Keys{6, 14, 13}), (Keys{visited[1], visited[2], visited[3]}));
}

TEST_F(SequentialRequests, WrongAnswersAndStatesEndTheProcess)
{
    static const IgnoredAsserts ignoredAsserts;
    const CapturingClient client(1); // takes lines of level Assert
    modules[0].queue().popRequest();
    push(modules[0], {1, 2, 3, 4, 5, 6});
    manager.importRequestReferenceInternal(&modules[0]);
    manager.importRequestReferenceInternal(&modules[0]);
    manager.iterateWaiting(answering({0b011}));
    manager.iterateWaiting(answering({0b110}));
    manager.importRequestReferenceInternal(&modules[0]);
    manager.iterateWaiting(answering({COMPLETED}));
    manager.importRequestReferenceInternal(&modules[0]);
    modules[0].queue().popRequest(); // without the manager's knowledge
    manager.iterateWaiting(answering({}));
    modules[0].queue().iterateRequests(answering({0b001}));
    manager.iterateAll(answering({COMPLETED}), &modules[0]);
    modules[0].setIsRequestInWaitingModules(false);
    push(modules[1], {1}); // a key that is in use
    manager.iterateAll(answering({COMPLETED}), &modules[1]);
    SequentialRequestsManager::ModuleInformation unknown;
    manager.importRequestReferenceInternal(&unknown);
    manager.iterateAll(answering({}), &unknown);
    const std::string manages = ", datapath/common/infra/SequentialRequestsManager.cpp ";
    const std::string waits = "iterateWaiting" + manages;
    const std::string queues = ", datapath/common/infra/WaitingRequestsQueue.cpp ";
    const std::vector<std::string> expected = {
        "popRequest" + queues + "35: !empty() failed. trying to remove request from an empty waiting list",
        "importRequestReferenceInternal" + manages +
            "175: mmi->getIsRequestInWaitingModules() == false failed. trying to import request ref for mmi that "
            "already has request ref in waiting modules",
        waits + "133: postIterationFlags.count()==0 failed. wrong postIterationFlags info postIterationFlags=011 ",
        waits + "127: false failed. wrong flags data  postIterationFlags[NextIterationData::COMPLETED_REQUEST]=0  "
                "postIterationFlags[NextIterationData::MMI_STILL_WAITING]=1 ",
        waits + "121: postIterationFlags[NextIterationData::COMPLETED_REQUEST] == false failed. removing completed "
                "request without importing a new request reference is not supported",
        waits + "109: sequentialRequest.getKey() == key failed. out of order- current request in WaitingModules  is "
                "not the same as the request in waitingRequestsQueue front key=1  sequentialRequest.getKey()=2 ",
        "iterateRequests" + queues +
            "97: postIterationFlags.count() == 0 failed. wrong postIterationFlags info postIterationFlags=001 ",
        "iterateAll" + manages +
            "221: isRequestRefInWaitingModules==false failed. ambiguity related to request ref "
            "existence in WaitingModules isRequestRefInWaitingModules=1  firstRequestKey=2 ",
        "removeRequestReference" + manages +
            "156: waitingModulesIter->second == mmi failed. trying to remove request reference of wrong mmi",
        "removeRequestReference" + manages +
            "157: mmi->getIsRequestInWaitingModules() == true failed. wrong IsRequestInWaitingModules flag info "
            "mmi->getIsRequestInWaitingModules()=0 ",
        "importRequestReferenceInternal" + manages +
            "174: itWaitingModule != m_modulesInfo.end() failed. unsubscribed mmi",
        "iterateAll" + manages +
            "201: it != m_modulesInfo.end() failed. mmi doesn't exist in WaitingRequests container"};
    std::vector<std::string> lines = client.messages();
    std::ranges::for_each(lines, [](std::string& line) { line.erase(0, line.find(',', line.find("LM,") + 3) + 1); });
    EXPECT_EQ(expected, lines);
}

} // namespace
