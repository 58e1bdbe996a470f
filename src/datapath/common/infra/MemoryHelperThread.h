#pragma once

// The active object that finishes the growth of memory pools whose blocks come late. Made and started on first use and
// never destroyed. Any thread may call.

#include "datapath/common/infra/ActiveObject.h"
#include "datapath/common/infra/base/Singleton.h"
#include "platform/Atomic.h"

class MemoryHelperThread final : public Singleton<MemoryHelperThread, MemoryHelperThread>, public ActiveObject
{
public:
    /// Executes another action, which it does not own and which must outlive it.
    class ActionWrapper final : public Action
    {
    public:
        explicit ActionWrapper(Action& action) : m_action(action) {}
        void execute() override { m_action.execute(); }

    private:
        Action& m_action;
    };

private:
    friend Singleton;

    MemoryHelperThread() : ActiveObject("MemoryHelperThread", &s_forceVerbose) { open(); }

    static constinit inline platform::Atomic<bool> s_forceVerbose = false;
};
