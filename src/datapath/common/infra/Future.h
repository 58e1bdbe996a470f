#pragma once

// A result that one thread sets once and that reaches any number of others: threads that wait for it, and observers
// that are called with it.
//
//     FutureInternal::Future<RcStatus> done;
//     worker.start(done);                        // keeps a copy: all copies share one state
//     if (done.get() != RC_OK) ...               // waits for done.set(...) on the worker's thread
//
// Any thread may call. The state is one block of the guarded allocator and is released with the last copy. There is no
// reset and no cancellation: a thread that waits for a future that nobody sets waits forever.

#include "datapath/common/infra/FatalCheck.h"
#include "datapath/common/infra/MemShield.h"
#include "datapath/common/infra/Mutex.h"
#include "datapath/common/infra/UnownedMutex.h"
#include "platform/Atomic.h"
#include "platform/Spin.h"

#include <memory>
#include <vector>

namespace FutureInternal
{

/// Is called once with the result: by the thread that sets it or, if the result is there already, by the thread that
/// adds the observer.
template <class T> class FutureObserver
{
public:
    virtual ~FutureObserver() = default;

    /// Runs under the future's lock, so it must not call set, isSet or addObserver of the same future. It may
    /// release copies of it, and the observer itself.
    virtual void update(const T& value) = 0;
};

/// Ends the process because a future was set a second time.
[[noreturn]] inline void failSetTwice()
{
    // Spelled out, because a function's signature does not tell enumerations from classes.
    static constexpr MethodText METHOD = MethodText::of("FutureInternal::Future<enum RcStatus>::set");
    failAssertion(LoggerId::NON, METHOD, SourcePlace::here(), "!tempSmartPtr->m_bSet");
}

/// What the copies of a future share.
template <class T> class FutureRep
{
public:
    FutureRep() = default;
    FutureRep(const FutureRep&) = delete;
    FutureRep& operator=(const FutureRep&) = delete;
    ~FutureRep() = default;

    void set(const T& value) TAVRO_EXCLUDES(m_mutex)
    {
        const MutexGuard guard(m_mutex);
        if (m_bSet.load(std::memory_order_relaxed))
        {
            failSetTwice();
        }
        m_value = value;
        m_bSet.store(true, std::memory_order_release);
        m_gate.unlock();
        for (FutureObserver<T>* const observer : m_observers)
        {
            observer->update(m_value);
        }
    }

    [[nodiscard]] bool isSet() TAVRO_EXCLUDES(m_mutex)
    {
        const MutexGuard guard(m_mutex);
        return m_bSet.load(std::memory_order_relaxed);
    }

    [[nodiscard]] T get()
    {
        const auto isThere = [this] { return m_bSet.load(std::memory_order_acquire); };
        if (!isThere() && !platform::spinUntil(isThere, SPIN))
        {
            m_gate.lock();
            m_gate.unlock(); // lets the next waiting thread through
        }
        return m_value;
    }

    void addObserver(FutureObserver<T>* observer) TAVRO_EXCLUDES(m_mutex)
    {
        const MutexGuard guard(m_mutex);
        if (m_bSet.load(std::memory_order_relaxed))
        {
            observer->update(m_value);
        }
        else
        {
            m_observers.push_back(observer);
        }
    }

private:
    /// With these looks a round trip between two running threads takes 2 us; it takes 40 us if both fall asleep.
    static constexpr platform::SpinBudget SPIN{.looks = 100};

    UnownedMutex m_gate{UnownedMutex::Initially::Locked}; // locked until the result is there
    Mutex m_mutex;                                        // held while observers are called
    T m_value{};                                          // written once, before m_bSet; read after m_bSet or the gate
    platform::Atomic<bool> m_bSet = false;
    std::vector<FutureObserver<T>*>
        m_observers TAVRO_GUARDED_BY(m_mutex); // in the order in which they were added; not owned
};

/// Allocates the state, together with its count of copies, as one block of the guarded allocator.
template <class T> struct RepAllocator
{
    using value_type = T;

    RepAllocator() = default;
    template <class Other> explicit RepAllocator(const RepAllocator<Other>& /*other*/) {}

    [[nodiscard]] static T* allocate(std::size_t /*one*/)
    {
        static_assert(alignof(T) <= MemShield::BLOCK_ALIGNMENT,
                      "a result with a larger alignment needs a pointer to it");
        return static_cast<T*>(MemShield::allocate(sizeof(T), 0, {"FutureRep<T>", SourcePlace::here()}));
    }
    static void deallocate(T* memory, std::size_t /*one*/) { MemShield::releaseObject(memory, SourcePlace::here()); }

    bool operator==(const RepAllocator& /*other*/) const { return true; }
};

template <class T> class Future
{
public:
    /// A new future that is not set.
    Future() : m_rep(std::allocate_shared<FutureRep<T>>(RepAllocator<FutureRep<T>>())) {}

    /// A future that is set already. It allocates no memory.
    [[nodiscard]] static Future ready(const T& value) { return Future(value); }

    /// Wakes every waiting thread and calls the observers in the order in which they were added. A second call, on any
    /// copy, ends the process.
    void set(const T& value)
    {
        const std::shared_ptr<FutureRep<T>> rep = m_rep; // an observer may release the last copy, this one too
        if (rep == nullptr)
        {
            failSetTwice();
        }
        rep->set(value);
    }

    [[nodiscard]] bool isSet() const { return m_rep == nullptr || m_rep->isSet(); }

    /// Waits until the result is set and returns it. May be called any number of times.
    [[nodiscard]] T get() const { return m_rep == nullptr ? m_value : m_rep->get(); }

    /// The observer, not owned, must live until it has been called. Observers of a future that is never set are never
    /// called.
    void addObserver(FutureObserver<T>* observer)
    {
        const std::shared_ptr<FutureRep<T>> rep = m_rep; // for the same reason as in set
        if (rep == nullptr)
        {
            observer->update(T(m_value));
        }
        else
        {
            rep->addObserver(observer);
        }
    }

private:
    explicit Future(const T& value) : m_value(value) {}

    std::shared_ptr<FutureRep<T>> m_rep; // null if the future was made with its result
    T m_value{};                         // the result if m_rep is null
};

} // namespace FutureInternal
