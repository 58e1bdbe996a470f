#include "tools/tavro/Command.h"
#include "tools/tavro/TweakCatalogueText.h"
#include "tools/tavro/Verbs.h"

#include <iostream>
#include <memory>

namespace
{

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
    tweaks->require_subcommand(1);
    addList(*tweaks, exitCode);
}
