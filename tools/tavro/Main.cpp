// The console tool for administrators, operators and support. `tavro --help` shows what it does.

#include "tools/tavro/Command.h"
#include "tools/tavro/Verbs.h"

#include <cstdio>
#include <exception>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

void Tool::expectVerb(CLI::App& app)
{
    app.require_subcommand(0, 1); // with 1, the parser would miss a verb before it looks at the word that is there
    app.callback([&app] {
        if (app.get_subcommands().empty())
        {
            throw CLI::RequiredError("A verb");
        }
    });
}

namespace
{

/// The arguments, the last one first, as the parser takes them. "--name=" becomes two arguments, the second one empty;
/// the parser would take the word after it for the value.
std::vector<std::string> reversedArguments(int argc, char** argv)
{
    std::vector<std::string> arguments;
    for (int i = argc - 1; i > 0; --i)
    {
        std::string argument = argv[i];
        if (argument.starts_with("--") && argument.find('=') == argument.size() - 1)
        {
            argument.pop_back();
            arguments.emplace_back();
        }
        arguments.push_back(std::move(argument));
    }
    return arguments;
}

/// Runs what the command line asks for. Returns the exit code.
int run(int argc, char** argv)
{
    CLI::App app("Answers what is wrong with a checkpoint program, its configuration and its log.", "tavro");
    app.set_version_flag("--version", "tavro " TAVRO_VERSION);
    app.footer("Exit codes: 0 fine, 1 found something, 2 called wrongly.");
    Tool::expectVerb(app);
    int exitCode = Tool::MISUSED;
    Tool::addDoctorVerb(app, exitCode);
    Tool::addLogVerbs(app, exitCode);
    Tool::addTweaksVerbs(app, exitCode);
    try
    {
        app.parse(reversedArguments(argc, argv));
    }
    catch (const CLI::ParseError& error)
    {
        return app.exit(error) == 0 ? Tool::FINE : Tool::MISUSED;
    }
    if (!std::cout.flush())
    {
        throw Tool::Misuse("the output could not be written");
    }
    return exitCode;
}

} // namespace

int main(int argc, char** argv)
{
    try
    {
        std::ios::sync_with_stdio(false);
        return run(argc, argv);
    }
    catch (const std::exception& error)
    {
        static_cast<void>(std::fprintf(stderr, "tavro: %s\n", error.what()));
        return Tool::MISUSED;
    }
}
