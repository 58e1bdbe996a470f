#include "Agent/CheckpointGui/AgentLauncher.h"

#include "Agent/AgentCommon/AgentInitializer.h"
#include "datapath/common/infra/InputTextFile.h"
#include "datapath/common/infra/LogItem.h"
#include "platform/Dialog.h"
#include "platform/Process.h"
#include "platform/Shell.h"
#include "platform/Utf.h"

#include <array>
#include <string_view>

namespace
{

/// Each byte becomes one UTF-16 unit, whatever its encoding.
std::u16string widened(std::string_view text)
{
    std::u16string wide;
    for (const char character : text)
    {
        wide += static_cast<unsigned char>(character);
    }
    return wide;
}

} // namespace

std::string settingsPathOf(const std::string& programPath) { return programPath + ".conf"; }

ConnectionSettings readSettings(const std::string& path)
{
    ConnectionSettings settings;
    InputTextFile file(path);
    for (std::string* const word : {&settings.localURL, &settings.localPort, &settings.peerURL, &settings.peerPort})
    {
        if (!(file >> *word))
        {
            word->clear(); // a read error may have left the beginning of the word
        }
    }
    return settings;
}

std::u16string composeCommandLine(const ConnectionSettings& settings, const std::u16string& checkpointName)
{
    return widened(AGENT_FILE_NAME) + u" -GUI " + widened(settings.localURL) + u" " + widened(settings.localPort) +
           u" " + widened(settings.peerURL) + u" " + widened(settings.peerPort) + u" \"" + checkpointName + u"\"";
}

void runAgent(const std::u16string& checkpointName)
{
    std::array<char, platform::PATH_BUFFER_SIZE> programPath{};
    platform::moduleFileName(programPath.data(), programPath.size());
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD)
        << "GetModuleFileNameA retrieved the following file name: " << programPath.data() << std::endl;

    const std::string settingsPath = settingsPathOf(programPath.data());
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD) << "Configuration file name: " << settingsPath << std::endl;
    const ConnectionSettings settings = readSettings(settingsPath);
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD) << "localURL: " << settings.localURL << std::endl;
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD) << "localPort: " << settings.localPort << std::endl;
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD) << "peerURL: " << settings.peerURL << std::endl;
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD) << "peerPort: " << settings.peerPort << std::endl;

    std::u16string commandLine = composeCommandLine(settings, checkpointName);
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD)
        << "cmdline: " << platform::utf16ToUtf8(commandLine) << std::endl;
    if (const auto error = platform::createProcess(commandLine); error != platform::ErrorNumber::Success)
    {
        LogItem(LoggerId::NON, LogLevel::Error, TAVRO_METHOD)
            << "Error " << platform::toNumber(error) << " in CreateProcessW." << std::endl;
        const std::string logFile = agentLogFile();
        platform::reportFailure(std::string(AGENT_FILE_NAME) + " could not be started", error,
                                logFile.empty() ? "" : "The log is " + logFile);
    }
}
