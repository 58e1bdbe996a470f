#pragma once

// Process-wide services: made on first use, by whichever thread comes first, and never destroyed.
//
//     class Timer : public Singleton<ITimer, Timer>, public ITimer
//     Timer::instance().getTimestampMs();
//
// A service must not ask for itself while it is being made. The order in which services make each
// other is drawn in docs/design.md.

#include "datapath/common/infra/Mutex.h"
#include "platform/Atomic.h"

/// A creation lock of its own for each Tag. Usable before main and, as it is never destroyed, after.
template <class Tag> Mutex& creationLock()
{
    static Mutex& lock = *new Mutex;
    return lock;
}

/// Returns the published object, made by make() under the lock if there is none yet. What make did is
/// visible to whoever gets the object.
template <class T, class Make> T& createOnce(platform::Atomic<T*>& published, Mutex& lock, Make make)
{
    T* object = published.load(std::memory_order_acquire);
    if (object == nullptr)
    {
        const MutexGuard guard(lock);
        object = published.load(std::memory_order_relaxed);
        if (object == nullptr)
        {
            object = make();
            published.store(object, std::memory_order_release);
        }
    }
    return *object;
}

/// The one Implementation, reached through Interface. Any thread may call.
template <class Interface, class Implementation> class Singleton
{
public:
    [[nodiscard]] static Interface& instance()
    {
        static constinit platform::Atomic<Interface*> published = nullptr;
        return createOnce(published, creationLock<Singleton>(), []() -> Interface* { return new Implementation; });
    }
};
