#pragma once

// The tweaks that this program's own code acts on, with their types, in ascending byte order of the names.
// A constant of the program; nothing reads it at run time. docs/configuration.md says what each one does.

#include <array>
#include <string_view>

struct TweakDescriptor
{
    std::string_view name;
    std::string_view typeName; ///< "int", "uint", "bool", "long" or "string"
    bool isDynamic;            ///< a member of DynamicTweaks holds it
};

inline constexpr std::array TweakCatalogue = {
    TweakDescriptor{"t_ActiveObjectVerboseLogs", "bool", true},
    TweakDescriptor{"t_AsyncFileLoggerFlushEveryLine", "bool", false},
    TweakDescriptor{"t_FileLoggerCompressOnRotate", "bool", false},
    TweakDescriptor{"t_FileLoggerEnabled", "bool", false},
    TweakDescriptor{"t_FileLoggerFlushEveryLine", "bool", false},
    TweakDescriptor{"t_FileLoggerMaxFilesOverride", "int", false},
    TweakDescriptor{"t_GenFileLoggerMaxFiles", "int", false},
    TweakDescriptor{"t_IOVerboseLogs", "bool", true},
    TweakDescriptor{"t_MemShieldMaxAllocationInCodeLine", "int", false},
    TweakDescriptor{"t_MemShieldVerbose", "int", false},
    TweakDescriptor{"t_OlmCompressionHighCpuThreshold", "uint", false},
    TweakDescriptor{"t_OlmFlushFileMaxPeriodMs", "uint", false},
    TweakDescriptor{"t_OlmPriorityQueuePrintIntervalMs", "int", false},
    TweakDescriptor{"t_OlmWaitTimeAfterMemAllocRequestErrorThresholdSec", "uint", false},
    TweakDescriptor{"t_OlmWaitTimeAfterMemAllocRequestInfoThresholdSec", "uint", false},
    TweakDescriptor{"t_allocationHistoryLengthMs", "int", false},
    TweakDescriptor{"t_deadlockCheckerIntervalSec", "int", true},
    TweakDescriptor{"t_defaultDlcTimeoutSec", "uint", true},
    TweakDescriptor{"t_disableBtPrint", "uint", false},
    TweakDescriptor{"t_disableLogMemoryAllocationTracking", "bool", true},
    TweakDescriptor{"t_enableMemshield", "bool", false},
    TweakDescriptor{"t_highCpuUsageProbabilityPercent", "int", false},
    TweakDescriptor{"t_keepPrevCpuUsageProbabilityPercent", "int", false},
    TweakDescriptor{"t_lowCpuUsageProbabilityPercent", "int", false},
    TweakDescriptor{"t_memshield_post_margin_size", "int", false},
    TweakDescriptor{"t_memshield_pre_margin_size", "int", false},
    TweakDescriptor{"t_midCpuUsageProbabilityPercent", "int", false},
    TweakDescriptor{"t_percentOfLoggerMemoryforMinimalThreshold", "uint", false},
    TweakDescriptor{"t_qlogMaxFiles", "int", false},
    TweakDescriptor{"t_randomCpuUsage", "bool", false},
    TweakDescriptor{"t_simulativeCpuUsage", "bool", false},
};
