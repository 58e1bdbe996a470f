#pragma once

// Tweaks that hot code reads, as plain members: one load, no lock, no lookup.
//
//     if (DynamicTweaks::instance().t_IOVerboseLogs)
//
// The members hold what the table of tweaks holds, or their default: a change of the table refreshes them
// before it returns, and of several changes at once the last one wins in each member. They never move, so
// pointers to them may be kept. Any thread may read; each member is consistent in itself, not with the
// others while a refresh runs.

#include "datapath/common/infra/Mutex.h"
#include "platform/Atomic.h"

#include <cstdint>

/// A member that a refresh writes while others read it.
template <class T> class DynamicTweak
{
public:
    DynamicTweak() = default;
    DynamicTweak(const DynamicTweak&) = delete;
    DynamicTweak& operator=(const DynamicTweak&) = delete;

    // NOLINTNEXTLINE(google-explicit-constructor): reads like the value that it is
    operator T() const noexcept { return m_value.load(std::memory_order_relaxed); }

private:
    friend class DynamicTweaks;

    void operator=(T value) noexcept { m_value.store(value, std::memory_order_relaxed); }

    platform::Atomic<T> m_value{};
};

class DynamicTweaks
{
public:
    /// Made on first use and never destroyed.
    [[nodiscard]] static DynamicTweaks& instance();

    /// Reads every member from the table again, when refreshes on other threads are over. The table calls this
    /// after each change. Any thread may call, but log clients must not.
    void refresh() EXCLUDES(m_refreshMutex);

    DynamicTweak<bool> t_ActiveObjectVerboseLogs;
    DynamicTweak<bool> t_BatchIOVerboseLogs;
    DynamicTweak<bool> t_CloudVerboseLogs;
    DynamicTweak<std::int32_t> t_deadlockCheckerIntervalSec; // 60
    DynamicTweak<std::uint32_t> t_defaultDlcTimeoutSec;      // 900
    DynamicTweak<bool> t_disableLogMemoryAllocationTracking;
    DynamicTweak<bool> t_httpCurlVerbose;
    DynamicTweak<bool> t_IOVerboseLogs;
    DynamicTweak<bool> t_KrnBackupVerboseLogs;
    DynamicTweak<bool> t_KrnPorterVerboseLogs;
    DynamicTweak<bool> t_KrnRestoreVerboseLogs;
    DynamicTweak<bool> t_StreamReaderVerboseLogs;

    // Derived from those above.
    DynamicTweak<bool> krnBackupOrRestoreVerbose;
    DynamicTweak<bool> curlOrIoVerbose;
    DynamicTweak<bool> streamReaderOrIoVerbose;
    DynamicTweak<bool> krnPorterOrIoVerbose;
    DynamicTweak<bool> batchIoOrCloudOrIoVerbose;

private:
    DynamicTweaks() { readMembers(); }
    void readMembers();

    Mutex m_refreshMutex; // held while members are written, once others know the object
};
