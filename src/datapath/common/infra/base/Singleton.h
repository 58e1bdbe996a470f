#pragma once

// Process-wide services: made on first use, by whichever thread comes first, and never destroyed.
//
//     class Timer : public Singleton<ITimer, Timer>, public ITimer
//     Timer::instance().getTimestampMs();
//
// A service must not ask for itself while it is being made. docs/design.md has the order in which services make each
// other.

#include "datapath/common/infra/Mutex.h"
#include "platform/Atomic.h"

/// The creation lock of a Tag. Usable before main, and after it, because the lock is never destroyed.
template <class Tag> Mutex& creationLock()
{
    static Mutex& lock = *new Mutex;
    return lock;
}

/// The part of createOnce that takes the lock; out of line, because it seldom runs.
template <class T, class Make>
[[gnu::noinline]] T& createUnderLock(platform::Atomic<T*>& published, Mutex& lock, const Make& make)
{
    const MutexGuard guard(lock);
    T* object = published.load(std::memory_order_relaxed);
    if (object == nullptr)
    {
        object = make();
        published.store(object, std::memory_order_release);
    }
    return *object;
}

/// Returns the published object, which make() makes under the lock that getLock() returns if there is none yet. Every
/// thread that gets the object sees what make() did.
template <class T, class GetLock, class Make>
T& createOnce(platform::Atomic<T*>& published, const GetLock& getLock, const Make& make)
{
    T* const object = published.load(std::memory_order_acquire);
    return object != nullptr ? *object : createUnderLock(published, getLock(), make);
}

/// The only Implementation of the process, as an Interface. Any thread may call.
template <class Interface, class Implementation> class Singleton
{
public:
    [[nodiscard]] static Interface& instance()
    {
        static constinit platform::Atomic<Interface*> published = nullptr;
        return createOnce(published, creationLock<Singleton>, []() -> Interface* { return new Implementation; });
    }
};
