#pragma once

// A mutex that no thread owns: one thread may lock it and another unlock it. Any thread may call.

#include "datapath/common/infra/Mutex.h"
#include "datapath/common/infra/Semaphore.h"

#include <cstdint>

// Not annotated: the thread-safety analysis expects lock and unlock on the same thread.
class UnownedMutex final : public IMutex
{
public:
    enum class Initially : std::uint8_t
    {
        Unlocked,
        Locked ///< any thread may unlock it
    };

    explicit UnownedMutex(Initially state = Initially::Unlocked) : m_semaphore(state == Initially::Locked ? 0 : 1) {}

    void lock() override { m_semaphore.wait(); }
    void unlock() override { m_semaphore.signal(); }

private:
    Semaphore m_semaphore;
};
