#include "Agent/AgentCommon/AgentInitializer.h"

#include "datapath/common/infra/ProgramSetup.h"
#include "datapath/common/infra/Tweaks.h"
#include "platform/Shell.h"

#include <array>
#include <iostream>

namespace
{

constexpr std::uint32_t NUMBER_CLIENT_CREATED = 75;

const FileLoggerClient* logClient = nullptr; // made by initAgentLogger, never destroyed

} // namespace

void setAgentTweakDefaults() { setAgentTweakDefaults(Tweaks::instance()); }

void setAgentTweakDefaults(Tweaks& tweaks)
{
    forEachKnownTweak([&](const auto& tweak) {
        if (tweak.registeredVal)
        {
            tweaks.setDefaultValIfNotSet(std::string(tweak.name), std::to_string(*tweak.registeredVal));
        }
    });
}

std::optional<AgentLogPlace> agentLogPlace(const std::string& logFileName)
{
    std::array<char, platform::PATH_BUFFER_SIZE> path{};
    if (platform::commonAppDataFolder(path.data()) != 0)
    {
        return std::nullopt;
    }
    platform::appendToPath(path.data(), "Tavro");
    AgentLogPlace place = {.productFolder = path.data(), .basePath = {}};
    platform::appendToPath(path.data(), "logs");
    platform::appendToPath(path.data(), logFileName.c_str());
    place.basePath = path.data();
    return place;
}

void initAgentLogger(const std::string& logFileName)
{
    using platform::ErrorNumber;
    const std::optional<AgentLogPlace> place = agentLogPlace(logFileName);
    if (!place)
    {
        return;
    }
    const ErrorNumber error = platform::createFolder(place->productFolder.c_str());
    if (error != ErrorNumber::Success && error != ErrorNumber::AlreadyExists)
    {
        std::cout << "failed to create directory lastError=" << static_cast<std::uint32_t>(error) << " " << std::endl;
        return;
    }
    logClient = &ProgramSetup::startLogFile(place->basePath, SourcePlace::numbered(NUMBER_CLIENT_CREATED));
}

std::string agentLogFile() { return logClient == nullptr ? std::string() : logClient->liveFileName(); }
