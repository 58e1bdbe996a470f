// Shows what the program would make of the tweak files in the working folder: every line that is logged
// while they are read, then the tweaks in effect. The program itself reads them before its log exists.

#include "Agent/AgentCommon/AgentInitializer.h"
#include "datapath/common/infra/Log.h"
#include "datapath/common/infra/Tweaks.h"

#include <iostream>

class ConsoleClient : public LoggerClient
{
public:
    void log(const std::string& line) override { std::cout << line; }
    void flush() override { std::cout.flush(); }
};

int main()
{
    std::ios::sync_with_stdio(false);
    static ConsoleClient client;
    Logger::instance().registerClient(&client, Logger::ALL_LEVELS);
    setAgentTweakDefaults();
    static_cast<void>(Tweaks::instance().longVal("t_enableMemshield", 0)); // checked like the program does
    Tweaks::instance().print();
}
