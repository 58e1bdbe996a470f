#pragma once

// A counting semaphore.
//
//     Semaphore done(0);
//     done.signal();                       // on any thread
//     if (!done.waitFor(timeoutMs)) ...    // on any other
//
// Any thread may call. A signal before any wait is not lost, and each signal wakes one waiter. The thread whose wait
// has returned may destroy the semaphore, even before the signal that ended the wait has returned, if no other thread
// waits or is about to signal.

#include "platform/Sync.h"

#include <cstdint>

class Semaphore
{
public:
    explicit Semaphore(std::uint32_t initialCount) : m_semaphore(initialCount) {}
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;
    virtual ~Semaphore() = default;

    virtual void signal() { m_semaphore.post(); }
    virtual void wait() { m_semaphore.wait(); }

    /// Waits at most timeoutMs on the steady clock; 0 does not wait. Returns whether it has decremented the count.
    [[nodiscard]] virtual bool waitFor(std::uint32_t timeoutMs) { return m_semaphore.waitFor(timeoutMs); }

private:
    platform::NativeSemaphore m_semaphore;
};
