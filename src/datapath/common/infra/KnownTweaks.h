#pragma once

// Describes every tweak that code of this system reads or registers: its name, its type, its default, and what it is
// for. Code reads a tweak through its description and so never repeats its name or its default:
//
//     const std::int32_t maxFiles = Tweaks::instance().value(GEN_FILE_LOGGER_MAX_FILES);
//
// The catalogue (TweakCatalogue.h) and the defaults that the program registers when it starts are made from these
// descriptions, and so is the table in docs/configuration.md: `scripts/check-tweak-table --write` updates it after a
// change here. A new description also goes into forEachKnownTweak. All are constants, so any thread may read them.

#include <cstdint>
#include <optional>
#include <string_view>
#include <type_traits>

/// The code that reads a tweak.
enum class TweakReader : std::uint8_t
{
    Start,           ///< code that asks the table of tweaks before the program's window appears
    SimulatedStart,  ///< the same, if `t_simulativeCpuUsage` is on
    Table,           ///< code that asks the table of tweaks later, each time
    DynamicTweaks,   ///< code that reads a member of DynamicTweaks
    DerivedSwitches, ///< only the derived switches of DynamicTweaks; the catalogue does not list it
    OtherPrograms    ///< no code of this system; the catalogue does not list it
};

/// A description of a tweak. The type is std::int32_t, std::uint32_t or bool and decides which values are in range.
template <class T> struct KnownTweak
{
    std::string_view name;
    std::optional<T> defaultVal; ///< what a reader gets while the tweak is not set; without one it must be set
    std::string_view unit;       ///< empty for a switch, and if the effect explains the number
    std::string_view effect;     ///< the text of docs/configuration.md
    TweakReader reader = TweakReader::Table;
    std::optional<T> registeredVal = {}; ///< what setAgentTweakDefaults sets if no file does

    [[nodiscard]] static constexpr std::string_view typeName() noexcept
    {
        return std::is_same_v<T, bool> ? "bool" : std::is_signed_v<T> ? "int" : "uint";
    }
};

using IntTweak = KnownTweak<std::int32_t>;
using UintTweak = KnownTweak<std::uint32_t>;
using BoolTweak = KnownTweak<bool>;

inline constexpr std::nullopt_t NO_DEFAULT = std::nullopt;

// The members of KnownTweak in their order: name, default, unit, effect, reader, registered value.

// Guarded memory

inline constexpr BoolTweak ENABLE_MEMSHIELD{
    "t_enableMemshield", false, "",
    "on guards every allocation of the infrastructure, off only counts bytes; fixed for the life of the process",
    TweakReader::Start};
inline constexpr IntTweak MEMSHIELD_PRE_MARGIN_SIZE{"t_memshield_pre_margin_size", 16, "bytes",
                                                    "guard bytes before each guarded block", TweakReader::Start};
inline constexpr IntTweak MEMSHIELD_POST_MARGIN_SIZE{"t_memshield_post_margin_size", 64, "bytes",
                                                     "guard bytes after each guarded block", TweakReader::Start};
inline constexpr IntTweak ALLOCATION_HISTORY_LENGTH_MS{
    "t_allocationHistoryLengthMs", 0, "",
    "not 0: released guarded blocks are kept and reported, and never given back to the system", TweakReader::Start};
inline constexpr IntTweak MEM_SHIELD_VERBOSE{"t_MemShieldVerbose", 1, "",
                                             "not 0: the memory report lists places of allocation"};
inline constexpr IntTweak MEM_SHIELD_MAX_ALLOCATION_IN_CODE_LINE{
    "t_MemShieldMaxAllocationInCodeLine", 700'000, "blocks",
    "a memory report in which one place of allocation holds this many or more ends the process"};

// The log

inline constexpr IntTweak QLOG_MAX_FILES{
    "t_qlogMaxFiles", NO_DEFAULT, "MiB", "memory for log lines that are not in the file yet", TweakReader::Start, 3};
inline constexpr BoolTweak FILE_LOGGER_COMPRESS_ON_ROTATE{
    "t_FileLoggerCompressOnRotate", false, "", "rotated log files are named as compressed", TweakReader::Start, true};
inline constexpr BoolTweak FILE_LOGGER_ENABLED{
    "t_FileLoggerEnabled", true, "", "off: nothing is written to the log file", TweakReader::Start, true};
inline constexpr BoolTweak FILE_LOGGER_FLUSH_EVERY_LINE{"t_FileLoggerFlushEveryLine", false, "",
                                                        "each line is in the file when the logging call returns",
                                                        TweakReader::Start};
inline constexpr BoolTweak ASYNC_FILE_LOGGER_FLUSH_EVERY_LINE{
    "t_AsyncFileLoggerFlushEveryLine", false, "", "the writer thread flushes after every line", TweakReader::Start};
inline constexpr IntTweak GEN_FILE_LOGGER_MAX_FILES{"t_GenFileLoggerMaxFiles", 1000, "files",
                                                    "rotated log files that are kept", TweakReader::Start};
inline constexpr IntTweak FILE_LOGGER_MAX_FILES_OVERRIDE{
    "t_FileLoggerMaxFilesOverride", 0, "files", "not 0: replaces `t_GenFileLoggerMaxFiles`", TweakReader::Start};
inline constexpr UintTweak OLM_FLUSH_FILE_MAX_PERIOD_MS{"t_OlmFlushFileMaxPeriodMs", 60'000, "ms",
                                                        "how long a flush of the log waits at most; 0: without limit",
                                                        TweakReader::Start};
inline constexpr UintTweak PERCENT_OF_LOGGER_MEMORY_FOR_MINIMAL_THRESHOLD{
    "t_percentOfLoggerMemoryforMinimalThreshold", 80, "percent",
    "once the log's memory was full, lines are taken again when less than this share of it is used",
    TweakReader::Start};
inline constexpr BoolTweak DISABLE_LOG_MEMORY_ALLOCATION_TRACKING{
    "t_disableLogMemoryAllocationTracking", false, "", "no line is ever dropped because the log's memory is full",
    TweakReader::DynamicTweaks};

// Threads and queues

inline constexpr UintTweak DEFAULT_DLC_TIMEOUT_SEC{
    "t_defaultDlcTimeoutSec", 900, "s", "how long a watched thread may make no progress before the process is stopped",
    TweakReader::DynamicTweaks};
inline constexpr IntTweak DEADLOCK_CHECKER_INTERVAL_SEC{
    "t_deadlockCheckerIntervalSec", 60, "s", "time between two checks of the watched threads; less than 1 counts as 1",
    TweakReader::DynamicTweaks};
inline constexpr UintTweak DISABLE_BT_PRINT{
    "t_disableBtPrint", NO_DEFAULT, "",
    "not 0: a process that is stopped for a stuck thread prints no back traces; must be set where threads are watched"};
inline constexpr BoolTweak ACTIVE_OBJECT_VERBOSE_LOGS{
    "t_ActiveObjectVerboseLogs", false, "",
    "a worker that has waited for 5 s although its queue is not empty logs it; no effect in this program, whose only "
    "active object has no work",
    TweakReader::DynamicTweaks};
inline constexpr IntTweak OLM_PRIORITY_QUEUE_PRINT_INTERVAL_MS{
    "t_OlmPriorityQueuePrintIntervalMs", 10'000, "ms",
    "time between two reports of a queue; no effect in this program, where no queue reports", TweakReader::Start};

// The CPU usage of the machine

inline constexpr BoolTweak SIMULATIVE_CPU_USAGE{
    "t_simulativeCpuUsage", false, "", "the machine's CPU usage is simulated instead of measured", TweakReader::Start};
inline constexpr BoolTweak RANDOM_CPU_USAGE{
    "t_randomCpuUsage", false, "",
    "simulated usage is random instead of 0; the four probabilities must then add up to 100",
    TweakReader::SimulatedStart};
inline constexpr IntTweak HIGH_CPU_USAGE_PROBABILITY_PERCENT{"t_highCpuUsageProbabilityPercent", 0, "percent",
                                                             "how often random usage is 100"};
inline constexpr IntTweak MID_CPU_USAGE_PROBABILITY_PERCENT{
    "t_midCpuUsageProbabilityPercent", 0, "percent",
    "how often random usage is one below `t_OlmCompressionHighCpuThreshold`"};
inline constexpr IntTweak LOW_CPU_USAGE_PROBABILITY_PERCENT{"t_lowCpuUsageProbabilityPercent", 0, "percent",
                                                            "how often random usage is 0"};
inline constexpr IntTweak KEEP_PREV_CPU_USAGE_PROBABILITY_PERCENT{"t_keepPrevCpuUsageProbabilityPercent", 0, "percent",
                                                                  "how often random usage stays as it is"};
inline constexpr UintTweak OLM_COMPRESSION_HIGH_CPU_THRESHOLD{
    "t_OlmCompressionHighCpuThreshold", 90, "percent",
    "CPU usage that counts as high; only random usage reads it here"};

// The memory pool

inline constexpr UintTweak OLM_WAIT_TIME_AFTER_MEM_ALLOC_REQUEST_INFO_THRESHOLD_SEC{
    "t_OlmWaitTimeAfterMemAllocRequestInfoThresholdSec", 60, "s",
    "a memory report logs requests that have waited longer for pool memory; read at most once a second"};
inline constexpr UintTweak OLM_WAIT_TIME_AFTER_MEM_ALLOC_REQUEST_ERROR_THRESHOLD_SEC{
    "t_OlmWaitTimeAfterMemAllocRequestErrorThresholdSec", 1800, "s",
    "a memory report logs requests that have waited longer for pool memory as errors"};

// Derived switches of DynamicTweaks

inline constexpr BoolTweak IO_VERBOSE_LOGS{
    "t_IOVerboseLogs", false, "",
    "turns on all derived switches but `krnBackupOrRestoreVerbose`, and queues that report do so every 500 ms; no "
    "effect in this program, where no queue reports",
    TweakReader::DynamicTweaks};

namespace KnownTweaksInternal
{

constexpr BoolTweak inputOfSwitch(std::string_view name, std::string_view effect)
{
    return {name, false, "", effect, TweakReader::DerivedSwitches};
}

} // namespace KnownTweaksInternal

inline constexpr auto KRN_BACKUP_VERBOSE_LOGS =
    KnownTweaksInternal::inputOfSwitch("t_KrnBackupVerboseLogs", "turns on `krnBackupOrRestoreVerbose`");
inline constexpr auto KRN_RESTORE_VERBOSE_LOGS =
    KnownTweaksInternal::inputOfSwitch("t_KrnRestoreVerboseLogs", "turns on `krnBackupOrRestoreVerbose`");
inline constexpr auto HTTP_CURL_VERBOSE =
    KnownTweaksInternal::inputOfSwitch("t_httpCurlVerbose", "turns on `curlOrIoVerbose`");
inline constexpr auto STREAM_READER_VERBOSE_LOGS =
    KnownTweaksInternal::inputOfSwitch("t_StreamReaderVerboseLogs", "turns on `streamReaderOrIoVerbose`");
inline constexpr auto KRN_PORTER_VERBOSE_LOGS =
    KnownTweaksInternal::inputOfSwitch("t_KrnPorterVerboseLogs", "turns on `krnPorterOrIoVerbose`");
inline constexpr auto BATCH_IO_VERBOSE_LOGS =
    KnownTweaksInternal::inputOfSwitch("t_BatchIOVerboseLogs", "turns on `batchIoOrCloudOrIoVerbose`");
inline constexpr auto CLOUD_VERBOSE_LOGS =
    KnownTweaksInternal::inputOfSwitch("t_CloudVerboseLogs", "turns on `batchIoOrCloudOrIoVerbose`");

// Time limits of the agent

namespace KnownTweaksInternal
{

constexpr UintTweak timeLimitOfAgent(std::string_view name, std::uint32_t registeredMs)
{
    return {name,        NO_DEFAULT, "ms", "read by the agent; this program only lists it", TweakReader::OtherPrograms,
            registeredMs};
}

} // namespace KnownTweaksInternal

inline constexpr auto RUNNER_EVENT_FREEZE_COMPLETE_TIMEOUT_MSEC =
    KnownTweaksInternal::timeLimitOfAgent("t_runnerEventFreezeCompleteTimeoutMsec", 75'000);
inline constexpr auto RUNNER_EVENT_THAW_COMPLETE_TIMEOUT_MSEC =
    KnownTweaksInternal::timeLimitOfAgent("t_runnerEventThawCompleteTimeoutMsec", 15'000);
inline constexpr auto REQUESTER_QUIESCED_EVENT_WAIT_TIMEOUT_MSEC =
    KnownTweaksInternal::timeLimitOfAgent("t_requesterQuiescedEventWaitTimeoutMsec", 72'000);
inline constexpr auto REQUESTER_EVENT_WAIT_FOR_THAW_START_TIMEOUT_MSEC =
    KnownTweaksInternal::timeLimitOfAgent("t_requesterEventWaitForThawStartTimeoutMsec", 9'500);
inline constexpr auto REQUESTER_EVENT_WAIT_FOR_SHARED_MEMORY_READ_TIMEOUT_MSEC =
    KnownTweaksInternal::timeLimitOfAgent("t_requesterEventWaitForSharedMemoryReadTimeoutMsec", 80'000);
inline constexpr auto WAIT_ASYNC_TIMEOUT_MSEC = KnownTweaksInternal::timeLimitOfAgent("t_WaitAsyncTimeoutMsec", 62'000);

/// Calls the visitor with each description, in the order of docs/configuration.md. That is also the order in which
/// defaults are registered.
template <class Visitor> constexpr void forEachKnownTweak(const Visitor& visit)
{
    const auto visitAll = [&](const auto&... tweaks) { (visit(tweaks), ...); };
    visitAll(ENABLE_MEMSHIELD, MEMSHIELD_PRE_MARGIN_SIZE, MEMSHIELD_POST_MARGIN_SIZE, ALLOCATION_HISTORY_LENGTH_MS,
             MEM_SHIELD_VERBOSE, MEM_SHIELD_MAX_ALLOCATION_IN_CODE_LINE);
    visitAll(QLOG_MAX_FILES, FILE_LOGGER_COMPRESS_ON_ROTATE, FILE_LOGGER_ENABLED, FILE_LOGGER_FLUSH_EVERY_LINE,
             ASYNC_FILE_LOGGER_FLUSH_EVERY_LINE, GEN_FILE_LOGGER_MAX_FILES, FILE_LOGGER_MAX_FILES_OVERRIDE,
             OLM_FLUSH_FILE_MAX_PERIOD_MS, PERCENT_OF_LOGGER_MEMORY_FOR_MINIMAL_THRESHOLD,
             DISABLE_LOG_MEMORY_ALLOCATION_TRACKING);
    visitAll(DEFAULT_DLC_TIMEOUT_SEC, DEADLOCK_CHECKER_INTERVAL_SEC, DISABLE_BT_PRINT, ACTIVE_OBJECT_VERBOSE_LOGS,
             OLM_PRIORITY_QUEUE_PRINT_INTERVAL_MS);
    visitAll(SIMULATIVE_CPU_USAGE, RANDOM_CPU_USAGE, HIGH_CPU_USAGE_PROBABILITY_PERCENT,
             MID_CPU_USAGE_PROBABILITY_PERCENT, LOW_CPU_USAGE_PROBABILITY_PERCENT,
             KEEP_PREV_CPU_USAGE_PROBABILITY_PERCENT, OLM_COMPRESSION_HIGH_CPU_THRESHOLD);
    visitAll(OLM_WAIT_TIME_AFTER_MEM_ALLOC_REQUEST_INFO_THRESHOLD_SEC,
             OLM_WAIT_TIME_AFTER_MEM_ALLOC_REQUEST_ERROR_THRESHOLD_SEC);
    visitAll(IO_VERBOSE_LOGS, KRN_BACKUP_VERBOSE_LOGS, KRN_RESTORE_VERBOSE_LOGS, HTTP_CURL_VERBOSE,
             STREAM_READER_VERBOSE_LOGS, KRN_PORTER_VERBOSE_LOGS, BATCH_IO_VERBOSE_LOGS, CLOUD_VERBOSE_LOGS);
    visitAll(RUNNER_EVENT_FREEZE_COMPLETE_TIMEOUT_MSEC, RUNNER_EVENT_THAW_COMPLETE_TIMEOUT_MSEC,
             REQUESTER_QUIESCED_EVENT_WAIT_TIMEOUT_MSEC, REQUESTER_EVENT_WAIT_FOR_THAW_START_TIMEOUT_MSEC,
             REQUESTER_EVENT_WAIT_FOR_SHARED_MEMORY_READ_TIMEOUT_MSEC, WAIT_ASYNC_TIMEOUT_MSEC);
}
