#include "datapath/common/infra/SequentialRequestsManager.h"

#include "datapath/common/infra/FatalCheck.h"

#include <algorithm>

using WaitingRequestsQueue_Internal::CONTINUE_ITERATION;
using WaitingRequestsQueue_Internal::NextIterationData;
using WaitingRequestsQueue_Internal::PostIterationFlags;

namespace
{

constexpr std::uint32_t NUMBER_OUT_OF_ORDER = 109;
constexpr std::uint32_t NUMBER_COMPLETED_WITHOUT_NEXT = 121;
constexpr std::uint32_t NUMBER_WAITING_WITHOUT_COMPLETED = 127;
constexpr std::uint32_t NUMBER_WRONG_FLAGS = 133;
constexpr std::uint32_t NUMBER_WRONG_MODULE = 156;
constexpr std::uint32_t NUMBER_NOT_WAITING = 157;
constexpr std::uint32_t NUMBER_UNSUBSCRIBED = 174;
constexpr std::uint32_t NUMBER_WAITING_ALREADY = 175;
constexpr std::uint32_t NUMBER_UNKNOWN_MODULE = 201;
constexpr std::uint32_t NUMBER_AMBIGUOUS = 221;

} // namespace

SequentialRequestsManager::SequentialRequestsManager(const std::string& name)
    : m_waitingModules(name + "WaitingModulesQueue")
{
}

void SequentialRequestsManager::subscribe(ModuleInformation* module)
{
    m_modulesInfo.change([=](auto& modules) { modules.insert(module); });
    module->setManager(this);
}

void SequentialRequestsManager::unsubscribe(ModuleInformation* module)
{
    if (module->getIsRequestInWaitingModules())
    {
        removeRequestReference(m_waitingModules->find(module->queue().front().key), module);
    }
    m_modulesInfo.change([=](auto& modules) { modules.erase(module); });
    module->setManager(nullptr);
}

void SequentialRequestsManager::iterateWaiting(const Handler& visitor)
{
    while (!m_waitingModules->empty())
    {
        const auto entry = m_waitingModules->begin();
        const auto [key, module] = *entry;
        const WaitingRequestsQueue::Item sequentialRequest = module->queue().front();
        if (sequentialRequest.key != key)
        {
            CheckFailure(LoggerId::OLM, TAVRO_METHOD, SourcePlace::numbered(NUMBER_OUT_OF_ORDER),
                         "sequentialRequest.getKey() == key")
                << "out of order- current request in WaitingModules  is not the same as the request in "
                   "waitingRequestsQueue front"
                << " key=" << key << " "
                << " sequentialRequest.getKey()=" << sequentialRequest.key << " " << std::endl;
        }
        PostIterationFlags flags;
        visitor.visit(flags, sequentialRequest.request);
        const bool isCompleted = flags.test(NextIterationData::COMPLETED_REQUEST);
        const bool isStillWaiting = flags.test(NextIterationData::MMI_STILL_WAITING);
        if (!flags.test(CONTINUE_ITERATION))
        {
            if (flags.any())
            {
                CheckFailure(LoggerId::OLM, TAVRO_METHOD, SourcePlace::numbered(NUMBER_WRONG_FLAGS),
                             "postIterationFlags.count()==0")
                    << "wrong postIterationFlags info"
                    << " postIterationFlags=" << flags << " " << std::endl;
            }
            return;
        }
        if (isCompleted && isStillWaiting)
        {
            module->queue().popRequest();
            removeRequestReference(entry, module);
            importRequestReferenceInternal(module);
            continue;
        }
        if (isStillWaiting)
        {
            CheckFailure(LoggerId::OLM, TAVRO_METHOD, SourcePlace::numbered(NUMBER_WAITING_WITHOUT_COMPLETED), "false")
                << "wrong flags data "
                << " postIterationFlags[NextIterationData::COMPLETED_REQUEST]=" << isCompleted << " "
                << " postIterationFlags[NextIterationData::MMI_STILL_WAITING]=" << isStillWaiting << " " << std::endl;
        }
        if (isCompleted)
        {
            CheckFailure(LoggerId::OLM, TAVRO_METHOD, SourcePlace::numbered(NUMBER_COMPLETED_WITHOUT_NEXT),
                         "postIterationFlags[NextIterationData::COMPLETED_REQUEST] == false")
                << "removing completed request without importing a new request reference is not supported" << std::endl;
        }
        removeRequestReference(entry, module);
    }
}

void SequentialRequestsManager::removeRequestReference(WaitingModules::const_iterator entry, ModuleInformation* module)
{
    if (entry->second != module)
    {
        CheckFailure(LoggerId::OLM, TAVRO_METHOD, SourcePlace::numbered(NUMBER_WRONG_MODULE),
                     "waitingModulesIter->second == mmi")
            << "trying to remove request reference of wrong mmi" << std::endl;
    }
    if (!module->getIsRequestInWaitingModules())
    {
        CheckFailure(LoggerId::OLM, TAVRO_METHOD, SourcePlace::numbered(NUMBER_NOT_WAITING),
                     "mmi->getIsRequestInWaitingModules() == true")
            << "wrong IsRequestInWaitingModules flag info"
            << " mmi->getIsRequestInWaitingModules()=" << module->getIsRequestInWaitingModules() << " " << std::endl;
    }
    module->setIsRequestInWaitingModules(false);
    m_waitingModules.change([=](auto& modules) { modules.erase(entry); });
}

void SequentialRequestsManager::importRequestReferenceInternal(ModuleInformation* module)
{
    if (!module->isSubscribedTo(*this))
    {
        CheckFailure(LoggerId::OLM, TAVRO_METHOD, SourcePlace::numbered(NUMBER_UNSUBSCRIBED),
                     "itWaitingModule != m_modulesInfo.end()")
            << "unsubscribed mmi" << std::endl;
    }
    if (module->getIsRequestInWaitingModules())
    {
        CheckFailure(LoggerId::OLM, TAVRO_METHOD, SourcePlace::numbered(NUMBER_WAITING_ALREADY),
                     "mmi->getIsRequestInWaitingModules() == false")
            << "trying to import request ref for mmi that already has request ref in waiting modules" << std::endl;
    }
    if (!module->queue().empty())
    {
        m_waitingModules.change([=](auto& modules) { modules.emplace(module->queue().front().key, module); });
        module->setIsRequestInWaitingModules(true);
    }
}

void SequentialRequestsManager::iterateAll(const Handler& visitor)
{
    for (ModuleInformation* const module : *m_modulesInfo)
    {
        iterateModule(visitor, module);
    }
}

void SequentialRequestsManager::iterateAll(const Handler& visitor, ModuleInformation* module)
{
    if (!module->isSubscribedTo(*this))
    {
        CheckFailure(LoggerId::OLM, TAVRO_METHOD, SourcePlace::numbered(NUMBER_UNKNOWN_MODULE),
                     "it != m_modulesInfo.end()")
            << "mmi doesn't exist in WaitingRequests container" << std::endl;
    }
    iterateModule(visitor, module);
}

void SequentialRequestsManager::iterateModule(const Handler& visitor, ModuleInformation* module)
{
    static constexpr MethodText METHOD = MethodText::of("SequentialRequestsManager::iterateAll");
    const std::uint64_t firstKey = module->queue().iterateRequests(visitor);
    if (firstKey == 0)
    {
        return;
    }
    if (const auto entry = m_waitingModules->find(firstKey); entry != m_waitingModules->end())
    {
        removeRequestReference(entry, module);
        importRequestReferenceInternal(module);
    }
    else if (module->getIsRequestInWaitingModules())
    {
        CheckFailure(LoggerId::OLM, METHOD, SourcePlace::numbered(NUMBER_AMBIGUOUS),
                     "isRequestRefInWaitingModules==false")
            << "ambiguity related to request ref existence in WaitingModules"
            << " isRequestRefInWaitingModules=" << module->getIsRequestInWaitingModules() << " "
            << " firstRequestKey=" << firstKey << " " << std::endl;
    }
}

bool SequentialRequestsManager::checkInvariants() const
{
    const auto isSound = [this](const ModuleInformation* module) {
        if (!module->getIsRequestInWaitingModules())
        {
            return true;
        }
        const auto entry =
            module->queue().empty() ? m_waitingModules->end() : m_waitingModules->find(module->queue().front().key);
        return entry != m_waitingModules->end() && entry->second == module;
    };
    const auto waiting = std::ranges::count_if(*m_modulesInfo, &ModuleInformation::getIsRequestInWaitingModules);
    return std::ranges::all_of(*m_modulesInfo, isSound) &&
           static_cast<std::size_t>(waiting) == m_waitingModules->size();
}
