#include "Agent/AgentCommon/AgentInitializer.h"

#include "datapath/common/infra/Tweaks.h"

#include <array>

namespace
{

struct TweakDefault
{
    const char* name;
    const char* valueText;
};

constexpr std::array TWEAK_DEFAULTS = {
    TweakDefault{"t_qlogMaxFiles", "3"},
    TweakDefault{"t_FileLoggerCompressOnRotate", "1"},
    TweakDefault{"t_FileLoggerEnabled", "1"},
    TweakDefault{"t_runnerEventFreezeCompleteTimeoutMsec", "75000"},
    TweakDefault{"t_runnerEventThawCompleteTimeoutMsec", "15000"},
    TweakDefault{"t_requesterQuiescedEventWaitTimeoutMsec", "72000"},
    TweakDefault{"t_requesterEventWaitForThawStartTimeoutMsec", "9500"},
    TweakDefault{"t_requesterEventWaitForSharedMemoryReadTimeoutMsec", "80000"},
    TweakDefault{"t_WaitAsyncTimeoutMsec", "62000"},
};

} // namespace

void setAgentTweakDefaults()
{
    for (const auto& [name, valueText] : TWEAK_DEFAULTS)
    {
        Tweaks::instance().setDefaultValIfNotSet(name, valueText);
    }
}
