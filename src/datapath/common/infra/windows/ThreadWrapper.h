#pragma once

// The base of every long-lived worker thread. open starts a thread that runs run() once; the thread's
// name is known to the Logger, its start and end are logged, and the MemWatcher knows of it meanwhile.
//
//     class Writer : public ThreadWrapper { void run() override { ... } };
//     writer.open();
//     writer.waitUntilRunning();
//
// A wrapper can have several threads, all running the same run(). Threads are never joined: whoever
// destroys a wrapper has made sure that its threads have left run(). open and the end of the object
// belong to the owner's thread, everything else to any thread.

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

    /// Names the kind of thread: the class of the object, as in "class DeadLockCheckerManager".
    /// Template arguments and unnamed namespaces are spelled as the compiler does.
    [[nodiscard]] virtual std::string getTypeName() const;

    virtual ~ThreadWrapper() = default;

    /// Starts one more thread. Ends the process if the system refuses.
    void open();

    /// Returns when every opened thread has started, at once if they have ended since. For one thread
    /// at a time.
    void waitUntilRunning() EXCLUDES(m_threadIdsMutex);

protected:
    /// The body of each thread.
    virtual void run() = 0;

    /// How many threads were opened.
    [[nodiscard]] std::uint32_t numOpened() const { return m_numOpened; }

private:
    static void threadCallback(void* wrapper);
    void registerThread() EXCLUDES(m_threadIdsMutex);
    [[nodiscard]] bool areAllRegistered() EXCLUDES(m_threadIdsMutex);

    Trigger m_trigger;                                                   // set when all opened threads have registered
    std::vector<std::uint32_t> m_threadIds GUARDED_BY(m_threadIdsMutex); // of all threads that ever started
    Mutex m_threadIdsMutex;                                              // nothing is taken inside it
    platform::Atomic<std::uint32_t> m_numOpened = 0;
};
