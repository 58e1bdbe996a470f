#include "tools/tavro/Command.h"
#include "tools/tavro/Doctor.h"
#include "tools/tavro/Verbs.h"

#include <iostream>
#include <memory>

void Tool::addDoctorVerb(CLI::App& app, int& exitCode)
{
    struct Options
    {
        std::string folder = ".";
        std::string program = {};
        bool isJson = false;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* const doctor = app.add_subcommand("doctor", "What the program would do at OK, and what is wrong with it");
    doctor->add_option("folder", options->folder, "The program's working folder; by default this one");
    doctor->add_option("--program", options->program, "The program; by default the one beside this tool");
    doctor->add_flag("--json", options->isJson, "An array for programs");
    doctor->callback([options, &exitCode] {
        const std::string program = options->program.empty() ? programBesideTool() : programNamed(options->program);
        enterFolder(options->folder);
        exitCode = writeDiagnoses(std::cout, diagnose(program), options->isJson, hasColours()) ? FOUND : FINE;
    });
}
