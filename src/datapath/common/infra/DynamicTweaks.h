#pragma once

// Tweaks that hot code reads, as plain members: reading one is a single load without a lock or a lookup.
//
//     if (DynamicTweaks::instance().t_IOVerboseLogs)
//
// A member holds what the table of tweaks holds, or the default in KnownTweaks.h. A change of the table refreshes the
// members before it returns; if several threads change the table at once, each member ends up with the last value.
// Members never move, so pointers to them may be kept. Any thread may read. Each member is consistent in itself, but
// while a refresh runs some members may be newer than others.

#include "datapath/common/infra/Mutex.h"
#include "platform/Atomic.h"

#include <cstdint>

/// A member of DynamicTweaks, which a refresh may write while other threads read it.
template <class T> class DynamicTweak
{
public:
    DynamicTweak() = default;
    DynamicTweak(const DynamicTweak&) = delete;
    DynamicTweak& operator=(const DynamicTweak&) = delete;

    // NOLINTNEXTLINE(google-explicit-constructor): it reads like a plain variable
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

    /// Reads every member from the table again. The table calls this after each change. Any thread but one that is
    /// inside a log client may call; refreshes on several threads take turns.
    void refresh() TAVRO_EXCLUDES(m_refreshMutex);

    DynamicTweak<bool> t_ActiveObjectVerboseLogs;
    DynamicTweak<bool> t_BatchIOVerboseLogs;
    DynamicTweak<bool> t_CloudVerboseLogs;
    DynamicTweak<std::int32_t> t_deadlockCheckerIntervalSec;
    DynamicTweak<std::uint32_t> t_defaultDlcTimeoutSec;
    DynamicTweak<bool> t_disableLogMemoryAllocationTracking;
    DynamicTweak<bool> t_httpCurlVerbose;
    DynamicTweak<bool> t_IOVerboseLogs;
    DynamicTweak<bool> t_KrnBackupVerboseLogs;
    DynamicTweak<bool> t_KrnPorterVerboseLogs;
    DynamicTweak<bool> t_KrnRestoreVerboseLogs;
    DynamicTweak<bool> t_StreamReaderVerboseLogs;

    // Derived switches. Each is on if any tweak that it is derived from is on.
    DynamicTweak<bool> krnBackupOrRestoreVerbose;
    DynamicTweak<bool> curlOrIoVerbose;
    DynamicTweak<bool> streamReaderOrIoVerbose;
    DynamicTweak<bool> krnPorterOrIoVerbose;
    DynamicTweak<bool> batchIoOrCloudOrIoVerbose;

private:
    DynamicTweaks() { readMembers(); }
    void readMembers();

    Mutex m_refreshMutex; // held while members are written, except by the constructor
};
