#pragma once

// The base class of every long-lived worker thread. open starts a thread that calls run() once. Its start and end are
// logged, and until it ends the Logger knows its name and the MemWatcher watches it.
//
//     class Writer : public ThreadWrapper { void run() override { ... } };
//     writer.open();
//     writer.waitUntilRunning();
//
// A wrapper can have several threads, which all call the same run(). Threads are never joined: before the owner
// destroys the wrapper, it must make sure that all threads have left run(). Only the owner's thread opens threads and
// destroys the wrapper; any thread may call everything else.

#include "datapath/common/infra/Mutex.h"
#include "datapath/common/infra/Trigger.h"
#include "platform/Atomic.h"

#include <cstdint>
#include <string>
#include <vector>

class ThreadWrapper
{
public:
    ThreadWrapper() = default;
    ThreadWrapper(const ThreadWrapper&) = delete;
    ThreadWrapper& operator=(const ThreadWrapper&) = delete;

    /// The name of the object's class: "class DeadLockCheckerManager". Template arguments and unnamed namespaces are
    /// spelled as the compiler spells them.
    [[nodiscard]] virtual std::string getTypeName() const;

    virtual ~ThreadWrapper() = default;

    /// Starts one more thread. Ends the process if the system refuses.
    void open();

    /// Returns when every opened thread has started, even if some have ended since. Only one thread at a time may call
    /// this.
    void waitUntilRunning() TAVRO_EXCLUDES(m_threadIdsMutex);

protected:
    /// The body of each thread. Nothing of the object is used after it has returned.
    virtual void run() = 0;

    /// The number of threads that were opened.
    [[nodiscard]] std::uint32_t numOpened() const { return m_numOpened; }

private:
    static void threadCallback(void* wrapper);
    void registerThread() TAVRO_EXCLUDES(m_threadIdsMutex);
    [[nodiscard]] bool areAllRegistered() TAVRO_EXCLUDES(m_threadIdsMutex);

    Trigger m_trigger; // set when all opened threads have registered
    std::vector<std::uint32_t>
        m_threadIds TAVRO_GUARDED_BY(m_threadIdsMutex); // ids of all threads that have ever started
    Mutex m_threadIdsMutex;                             // nothing is taken inside it
    platform::Atomic<std::uint32_t> m_numOpened = 0;
};
