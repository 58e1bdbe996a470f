#include "tools/tavro/Command.h"
#include "tools/tavro/TweaksPair.h"
#include "tools/tavro/Verbs.h"

#include <iostream>
#include <memory>

namespace
{

constexpr const char* FOLDER_HELP = "The program's working folder, by default this one";

void addVerify(CLI::App& tweaks, int& exitCode)
{
    const auto options = std::make_shared<Tool::Signing>();
    options->folder = ".";
    CLI::App* const verify =
        tweaks.add_subcommand("verify", "Whether the two copies of the consistent file match their signatures");
    verify->add_option("folder", options->folder, FOLDER_HELP);
    verify->add_flag("--json", options->isJson, "An object for programs");
    verify->callback([options, &exitCode] {
        Tool::enterFolder(options->folder);
        exitCode = Tool::writePairState(std::cout, options->isJson) ? Tool::FOUND : Tool::FINE;
    });
}

void addSign(CLI::App& tweaks, int& exitCode)
{
    const auto options = std::make_shared<Tool::Signing>();
    options->folder = ".";
    CLI::App* const sign =
        tweaks.add_subcommand("sign", "Checks a text and makes it the newest copy of the consistent file");
    sign->add_option("file", options->file, "The text")->required();
    sign->add_option("folder", options->folder, FOLDER_HELP);
    sign->add_flag("--force", options->isForced,
                   "Write also where a program that starts meanwhile may find no valid copy");
    sign->add_flag("--json", options->isJson, "An object for programs");
    sign->callback([options, &exitCode] { exitCode = Tool::signPair(std::cout, *options); });
}

} // namespace

void Tool::addTweaksPairVerbs(CLI::App& tweaks, int& exitCode)
{
    addVerify(tweaks, exitCode);
    addSign(tweaks, exitCode);
}
