#pragma once

// A mutex that no thread owns: one thread may lock it and another unlock it. Any thread may call.

#include "datapath/common/infra/Mutex.h"
#include "datapath/common/infra/Semaphore.h"

// Not annotated: the analysis of lock and unlock follows one thread.
class UnownedMutex final : public IMutex
{
public:
    void lock() override { m_semaphore.wait(); }
    void unlock() override { m_semaphore.signal(); }

private:
    Semaphore m_semaphore{1};
};
