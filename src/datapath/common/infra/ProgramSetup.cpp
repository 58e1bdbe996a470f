#include "datapath/common/infra/ProgramSetup.h"

#include "datapath/common/infra/GuardedMemory.h"
#include "datapath/common/infra/Tweaks.h"

void ProgramSetup::chooseMemoryMode() { MemShield::setEnabled(Tweaks::instance().value(ENABLE_MEMSHIELD)); }

FileLoggerClient& ProgramSetup::startLogFile(const std::string& basePath, const SourcePlace& place)
{
    static_cast<void>(MemShield::instance()); // reads its tweaks before the budget is read
    const auto maxMemoryMiB = static_cast<std::uint32_t>(Tweaks::instance().value(QLOG_MAX_FILES));
    auto* const client =
        GuardedMemory::create<FileLoggerClient>({"FileLoggerClient", place}, basePath, maxMemoryMiB, "");
    Logger::instance().registerClient(client, Logger::ALL_LEVELS);
    return *client;
}

FileLoggerClient& ProgramSetup::start(const std::string& basePath)
{
    Tweaks& tweaks = Tweaks::instance();
    tweaks.setDefaultValIfNotSet(std::string(QLOG_MAX_FILES.name), std::to_string(*QLOG_MAX_FILES.registeredVal));
    tweaks.setDefaultValIfNotSet(std::string(DISABLE_BT_PRINT.name), "0");
    chooseMemoryMode();
    return startLogFile(basePath);
}
