#include "Agent/AgentCommon/AgentInitializer.h"

#include "datapath/common/infra/FileLoggerClient.h"
#include "datapath/common/infra/Tweaks.h"
#include "platform/Shell.h"

#include <array>
#include <iostream>

namespace
{

constexpr std::uint32_t NUMBER_CLIENT_CREATED = 75;

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

const FileLoggerClient* logClient = nullptr; // of initAgentLogger

} // namespace

void setAgentTweakDefaults()
{
    for (const auto& [name, valueText] : TWEAK_DEFAULTS)
    {
        Tweaks::instance().setDefaultValIfNotSet(name, valueText);
    }
}

void initAgentLogger(const std::string& logFileName)
{
    using platform::ErrorNumber;
    std::array<char, platform::PATH_BUFFER_SIZE> path{};
    if (platform::commonAppDataFolder(path.data()) != 0)
    {
        return;
    }
    platform::appendToPath(path.data(), "Tavro");
    const ErrorNumber error = platform::createFolder(path.data());
    if (error != ErrorNumber::Success && error != ErrorNumber::AlreadyExists)
    {
        std::cout << "failed to create directory lastError=" << static_cast<std::uint32_t>(error) << " " << std::endl;
        return;
    }
    platform::appendToPath(path.data(), "logs");
    platform::appendToPath(path.data(), logFileName.c_str());
    const auto maxMemoryMiB = static_cast<std::uint32_t>(Tweaks::instance().intVal("t_qlogMaxFiles"));
    auto* const client = GuardedMemory::create<FileLoggerClient>(
        {"FileLoggerClient", SourcePlace::numbered(NUMBER_CLIENT_CREATED)}, path.data(), maxMemoryMiB, "");
    Logger::instance().registerClient(client, Logger::ALL_LEVELS);
    logClient = client;
}

std::string agentLogFile() { return logClient == nullptr ? std::string() : logClient->liveFileName(); }
