// Registers a log client of its own and logs, without the window.

#include "datapath/common/infra/LogItem.h"

#include <iostream>

class ConsoleClient : public LoggerClient
{
public:
    void log(const std::string& line) override { std::cout << line; }
    void flush() override { std::cout.flush(); }
};

int main()
{
    ConsoleClient client;
    Logger::instance().registerClient(&client, Logger::ALL_LEVELS);
    LogItem(LoggerId::NON, LogLevel::Info, TAVRO_METHOD) << "copied files=" << 3 << " of " << 4 << std::endl;
    LogItem(LoggerId::NON, LogLevel::Error, TAVRO_METHOD) << "cannot copy notes.txt, lastError=" << 5 << std::endl;
    Logger::instance().unregisterClient(&client); // from here on nobody calls it
}
