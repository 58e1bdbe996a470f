#pragma once

// The guarded allocator's own active object. MemShield makes it and starts its one worker, which gets no work.

#include "datapath/common/infra/ActiveObject.h"
#include "datapath/common/infra/base/Singleton.h"
#include "platform/Atomic.h"

class MemShieldAO final : public Singleton<MemShieldAO, MemShieldAO>, public ActiveObject
{
private:
    friend Singleton;

    MemShieldAO() : ActiveObject("MemShieldAO", &s_forceVerbose) {}

    static constinit inline platform::Atomic<bool> s_forceVerbose = false;
};
