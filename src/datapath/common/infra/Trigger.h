#pragma once

// An auto-reset event, for a thread that waits until another one has something for it.
//
//     trigger.set();                       // on any thread
//     trigger.wait();                      // on another
//
// Each set ends one wait: that of a thread that waits now, or else the next one. Setting it again before that wait has
// begun changes nothing. Any thread may call.

#include "platform/Sync.h"

#include <cstdint>

class Trigger
{
public:
    Trigger() = default;
    Trigger(const Trigger&) = delete;
    Trigger& operator=(const Trigger&) = delete;
    virtual ~Trigger() = default;

    void set() { m_event.set(); }
    void wait() { m_event.wait(); }

    /// Waits at most timeoutMs. Returns whether a set has ended the wait.
    [[nodiscard]] bool waitFor(std::uint32_t timeoutMs) { return m_event.waitFor(timeoutMs); }

private:
    platform::NativeEvent m_event;
};
