// The program's entry point.

#include "Agent/AgentCommon/AgentInitializer.h"
#include "Agent/CheckpointGui/AgentLauncher.h"
#include "Agent/CheckpointGui/CheckpointDialog.h"
#include "Agent/CheckpointGui/ResourceIds.h"
#include "datapath/common/infra/LogItem.h"
#include "datapath/common/infra/ProgramSetup.h"
#include "datapath/common/infra/Tweaks.h"
#include "platform/Entry.h"

int wWinMain(platform::ModuleHandle instance, platform::ModuleHandle /*previousInstance*/, wchar_t* /*commandLine*/,
             int /*showCommand*/)
{
    const std::string logFileName = CHECKPOINT_LOG;
    setAgentTweakDefaults();
    ProgramSetup::chooseMemoryMode();
    initAgentLogger(logFileName);
    Tweaks::instance().print();
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD) << "Invoked." << std::endl;
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD) << "Showing dialog..." << std::endl;
    platform::runDialog(instance, IDD_CHECKPOINT, Checkpoint);
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD) << "Done." << std::endl;
    Logger::instance().flushClients();
    return 0;
}
