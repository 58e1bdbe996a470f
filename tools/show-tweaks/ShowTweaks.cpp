// Shows what the program would make of the tweak files in the working folder: every line that is logged while they are
// read, then the tweaks in effect. The program itself reads them before its log exists.
//
//     show_tweaks
//     show_tweaks --known    prints the table of docs/configuration.md instead: a row for each known tweak

#include "Agent/AgentCommon/AgentInitializer.h"
#include "datapath/common/infra/Log.h"
#include "datapath/common/infra/Tweaks.h"

#include <iostream>
#include <string_view>

namespace
{

class ConsoleClient : public LoggerClient
{
public:
    void log(const std::string& line) override { std::cout << line; }
    void flush() override { std::cout.flush(); }
};

void showEffective()
{
    static ConsoleClient client;
    Logger::instance().registerClient(&client, Logger::ALL_LEVELS);
    setAgentTweakDefaults();
    static_cast<void>(Tweaks::instance().value(ENABLE_MEMSHIELD)); // the program reads it next, and ends if it is wrong
    Tweaks::instance().print();
}

template <class T> std::string defaultsOf(const KnownTweak<T>& tweak)
{
    const std::string whenRead = tweak.defaultVal ? std::to_string(*tweak.defaultVal) : "none";
    return tweak.registeredVal ? whenRead + "; registered " + std::to_string(*tweak.registeredVal) : whenRead;
}

template <class T> void showRow(const KnownTweak<T>& tweak)
{
    const bool isDynamic = tweak.reader == TweakReader::DynamicTweaks || tweak.reader == TweakReader::DerivedSwitches;
    std::cout << "| `" << tweak.name << "` | " << tweak.typeName() << (isDynamic ? ", dynamic" : "") << " | "
              << defaultsOf(tweak) << " | " << tweak.unit << (tweak.unit.empty() ? "| " : " | ") << tweak.effect
              << " |\n";
}

} // namespace

int main(int argc, char** argv)
{
    std::ios::sync_with_stdio(false);
    if (argc == 1)
    {
        showEffective();
        return 0;
    }
    if (argc == 2 && argv[1] == std::string_view("--known"))
    {
        forEachKnownTweak([](const auto& tweak) { showRow(tweak); });
        return 0;
    }
    std::cerr << "usage: show_tweaks [--known]" << std::endl;
    return 2;
}
