#include "Agent/AgentCommon/AgentInitializer.h"
#include "datapath/common/infra/Log.h"
#include "platform/Process.h"
#include "tools/tavro/CaughtEnd.h"
#include "tools/tavro/Command.h"
#include "tools/tavro/TweakCatalogueText.h"
#include "tools/tavro/TweaksReport.h"
#include "tools/tavro/Verbs.h"

#include <cstdlib>
#include <iostream>
#include <memory>

namespace
{

constexpr const char* FOLDER_HELP = "The program's working folder, in which the tweak files lie; by default this one";

void addCheck(CLI::App& tweaks, int& exitCode)
{
    const auto form = std::make_shared<Tool::FindingsForm>();
    CLI::App* const check = tweaks.add_subcommand(
        "check", "Everything in the tweak files that would end the program or be taken in silence");
    check->add_option("folder", form->folder, FOLDER_HELP);
    check->add_flag("--errors-only", form->hasOnlyErrors, "Only what would end the program or is dropped");
    check->add_flag("--json", form->isJson, "An array for programs");
    check->callback([form, &exitCode] {
        Tool::enterFolder(form->folder.empty() ? "." : form->folder);
        exitCode = Tool::writeFindings(std::cout, Tool::examineTweaks().findings, *form) ? Tool::FOUND : Tool::FINE;
    });
}

class ConsoleClient : public LoggerClient
{
public:
    void log(const std::string& line) override { std::cout << line; }
    void flush() override { std::cout.flush(); }
};

/// Starts as the program does and shows the lines that it would log if its log existed by then.
void showLines()
{
    static ConsoleClient client;
    platform::processCalls.endProcess.current = [] {
        std::cout.flush();
        std::_Exit(Tool::FOUND);
    };
    Logger::instance().registerClient(&client, Logger::ALL_LEVELS);
    setAgentTweakDefaults();
    static_cast<void>(Tweaks::instance().value(ENABLE_MEMSHIELD)); // the program reads it next
    Tweaks::instance().print();
    Logger::instance().unregisterClient(&client);
}

int showSettings(const Tool::SettingsForm& form)
{
    const Tool::Examination examination = Tool::examineTweaks();
    const std::vector<std::string> missing = Tool::writeSettings(std::cout, examination, form);
    for (const std::string& name : missing)
    {
        const std::string nearest = Tool::nearestTweak(name);
        std::cerr << "the tweak \"" << name << "\" is neither known nor set"
                  << (nearest.empty() ? "" : "; \"" + nearest + "\" is the nearest known one") << '\n';
    }
    const bool hasErrors = Tool::hasErrors(examination.findings);
    if (hasErrors)
    {
        std::cerr << "the files have errors: tavro tweaks check shows them\n";
    }
    return missing.empty() && !hasErrors ? Tool::FINE : Tool::FOUND;
}

void addShow(CLI::App& tweaks, int& exitCode)
{
    struct Options
    {
        std::string folder = ".";
        Tool::SettingsForm form = {};
        bool hasLines = false;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* const show =
        tweaks.add_subcommand("show", "The values in effect, where each comes from, and its meaning");
    CLI::Option* const names = show->add_option("name", options->form.names, "Tweaks, by default all that are set");
    show->add_option("--folder", options->folder, FOLDER_HELP);
    CLI::Option* const all = show->add_flag("--all", options->form.hasAll, "Also those that are not set");
    CLI::Option* const json = show->add_flag("--json", options->form.isJson, "An array for programs");
    show->add_flag("--lines", options->hasLines, "Instead, each line that the program logs while it reads the files")
        ->excludes(names)
        ->excludes(all)
        ->excludes(json);
    show->callback([options, &exitCode] {
        Tool::enterFolder(options->folder);
        if (options->hasLines)
        {
            const Tool::NoFolders noFolders;
            showLines();
            exitCode = Tool::FINE;
            return;
        }
        exitCode = showSettings(options->form);
    });
}

void addList(CLI::App& tweaks, int& exitCode)
{
    struct Options
    {
        bool isMarkdown = false;
        bool isJson = false;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* const list = tweaks.add_subcommand("list", "The tweaks that this system knows, with their defaults");
    CLI::Option* const markdown = list->add_flag("--markdown", options->isMarkdown, "Rows of a Markdown table");
    list->add_flag("--json", options->isJson, "An array for programs")->excludes(markdown);
    list->callback([options, &exitCode] {
        using Tool::CatalogueForm;
        Tool::writeTweakCatalogue(std::cout, options->isJson       ? CatalogueForm::Json
                                             : options->isMarkdown ? CatalogueForm::Markdown
                                                                   : CatalogueForm::Text);
        exitCode = Tool::FINE;
    });
}

} // namespace

void Tool::addTweaksVerbs(CLI::App& app, int& exitCode)
{
    CLI::App* const tweaks = app.add_subcommand("tweaks", "The configuration: what is set, what is wrong");
    expectVerb(*tweaks);
    addCheck(*tweaks, exitCode);
    addShow(*tweaks, exitCode);
    addList(*tweaks, exitCode);
    addTweaksPairVerbs(*tweaks, exitCode);
}
