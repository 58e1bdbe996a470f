#include "tools/tavro/Command.h"
#include "tools/tavro/LogFilter.h"
#include "tools/tavro/LogOutput.h"
#include "tools/tavro/LogPump.h"
#include "tools/tavro/LogSummary.h"
#include "tools/tavro/LogSystem.h"
#include "tools/tavro/Verbs.h"

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace
{

using Tool::LogForm;

/// What the command line asks for.
struct Options
{
    std::vector<std::string> names;
    std::string since;
    std::string until;
    std::vector<std::string> levels;
    std::vector<std::string> classes;
    std::vector<std::string> methods;
    std::vector<std::string> threads;
    std::string contained;
    std::optional<std::int64_t> run; // all if there is none
    bool isFollowed = false;
};

std::uint64_t countRuns(const std::vector<Tool::LogPath>& files)
{
    if (std::ranges::any_of(files, [](const Tool::LogPath& file) { return file.path == "-"; }))
    {
        throw Tool::Misuse("--run: standard input is read once, so its runs cannot be counted from the end");
    }
    Tool::LogPump pump(files, [](const Tool::LogRecord&) {});
    pump.run(Tool::isStandardErrorTerminal() && !Tool::isStandardOutputTerminal());
    return pump.runs();
}

/// Thrown if the log does not have the run that is asked for.
struct MissingRun : std::runtime_error
{
    MissingRun(std::int64_t run, std::uint64_t runs)
        : std::runtime_error("--run " + std::to_string(run) +
                             ": there is no such run; runs in the log: " + std::to_string(runs))
    {
    }
};

/// The number of a run that may be counted from the end.
std::uint64_t runOf(std::int64_t run, const std::vector<Tool::LogPath>& files)
{
    if (run == 0)
    {
        throw Tool::Misuse("--run 0: runs are counted from 1, or from the end: -1 is the last one");
    }
    if (run > 0)
    {
        return static_cast<std::uint64_t>(run);
    }
    const auto back = static_cast<std::uint64_t>(-(run + 1));
    const std::uint64_t runs = countRuns(files);
    if (back >= runs)
    {
        throw MissingRun(run, runs);
    }
    return runs - back;
}

Tool::LogFilter filterOf(const Options& options, const std::vector<Tool::LogPath>& files)
{
    Tool::LogFilter filter;
    if (!options.since.empty())
    {
        filter.setSince(options.since);
    }
    if (!options.until.empty())
    {
        filter.setUntil(options.until);
    }
    for (const std::string& levels : options.levels)
    {
        filter.addLevels(levels);
    }
    filter.setClasses(options.classes);
    filter.setMethods(options.methods);
    filter.setThreads(options.threads);
    filter.setContained(options.contained);
    if (options.run)
    {
        filter.setRun(runOf(*options.run, files));
    }
    return filter;
}

void requireRun(const Options& options, std::uint64_t runs)
{
    const std::int64_t run = options.run.value_or(0);
    if (run > 0 && static_cast<std::uint64_t>(run) > runs)
    {
        throw MissingRun(run, runs);
    }
}

/// The exit code of a verb, or that of a run that is missing.
template <class Verb> int exitCodeOf(const Verb& verb)
{
    try
    {
        return verb();
    }
    catch (const MissingRun& missing)
    {
        std::cerr << "tavro: " << missing.what() << std::endl;
        return Tool::FOUND;
    }
}

void checkFollowed(const std::vector<Tool::LogPath>& files)
{
    const Tool::LogPath& last = files.back();
    if (last.path == "-" || last.number != Tool::LogPath::LIVE)
    {
        throw Tool::Misuse(last.path + ": only a live file can be followed");
    }
    const auto other = std::ranges::find_if(files, [&](const Tool::LogPath& file) {
        return file.number == Tool::LogPath::LIVE && file.base != file.path && file.base != last.base;
    });
    if (other != files.end())
    {
        throw Tool::Misuse("only one log can be followed, not both " + other->path + " and " + last.path);
    }
}

int print(LogForm form, const Options& options)
{
    const std::vector<Tool::LogPath> files = Tool::logPathsOf(options.names);
    const Tool::LogFilter filter = filterOf(options, files);
    const bool isTerminal = Tool::isStandardOutputTerminal();
    Tool::LogOutput output(form, Tool::standardOutput(), Tool::hasColours());
    Tool::LogPump pump(files, [&](const Tool::LogRecord& record) {
        if (filter.accepts(record))
        {
            output.write(record);
        }
    });
    try
    {
        output.begin();
        if (options.isFollowed)
        {
            checkFollowed(files);
            pump.follow([&] { output.flush(); });
        }
        pump.run(Tool::isStandardErrorTerminal() && !isTerminal);
        output.flush();
        requireRun(options, pump.runs());
    }
    catch (const Tool::LogOutput::PipeClosed&)
    {
        return Tool::FINE;
    }
    return pump.hasFound() ? Tool::FOUND : Tool::FINE;
}

void addFiles(CLI::App& verb, std::vector<std::string>& names)
{
    verb.add_option("FILE", names, "Files, folders with logs, or - for standard input; none: the program's log")
        ->type_name("");
}

void addFilters(CLI::App& verb, Options& options)
{
    verb.add_option("--since", options.since, "From this time on, UTC; its begin is enough: \"2024-03-05 07\"");
    verb.add_option("--until", options.until, "Up to this time; \"2024-03-05\" is the end of that day");
    const auto addList = [&](const std::string& name, std::vector<std::string>& values, const std::string& help) {
        verb.add_option(name, values, help)->allow_extra_args(false);
    };
    addList("--level", options.levels, "Lines of these levels, such as Error,Warn");
    addList("--class", options.classes, "Lines of this class; may be given several times");
    addList("--method", options.methods, "Lines of this method; may be given several times");
    addList("--thread", options.threads, "Lines of this thread, by id or name; may be given several times");
    verb.add_option("--contains", options.contained, "Records whose message has this text");
    verb.add_option("--run", options.run, "Records of this run, counted from 1; -1 is the last one");
}

void addForm(CLI::App& log, LogForm form, const std::string& name, const std::string& help, int& exitCode)
{
    const auto options = std::make_shared<Options>();
    CLI::App* const verb = log.add_subcommand(name, help);
    addFiles(*verb, options->names);
    addFilters(*verb, *options);
    verb->add_flag("--follow,-f", options->isFollowed, "Go on with what the live file gets, until Ctrl-C");
    verb->callback([form, options, &exitCode] { exitCode = exitCodeOf([&] { return print(form, *options); }); });
}

int summarise(const Options& options, bool isJson)
{
    const std::vector<Tool::LogPath> files = Tool::logPathsOf(options.names);
    const Tool::LogFilter filter = filterOf(options, files);
    Tool::LogSummary summary;
    Tool::LogPump pump(files, [&](const Tool::LogRecord& record) {
        if (filter.accepts(record))
        {
            summary.add(record);
        }
    });
    pump.run(Tool::isStandardErrorTerminal());
    requireRun(options, pump.runs());
    isJson ? summary.writeJson(std::cout) : summary.writeText(std::cout);
    return pump.hasFound() ? Tool::FOUND : Tool::FINE;
}

void addSummary(CLI::App& log, int& exitCode)
{
    const auto options = std::make_shared<Options>();
    const auto isJson = std::make_shared<bool>(false);
    CLI::App* const verb = log.add_subcommand("summary", "What is in the log: runs, levels, pauses, failures");
    addFiles(*verb, options->names);
    addFilters(*verb, *options);
    verb->add_flag("--json", *isJson, "One object for programs");
    verb->callback(
        [options, isJson, &exitCode] { exitCode = exitCodeOf([&] { return summarise(*options, *isJson); }); });
}

} // namespace

void Tool::addLogVerbs(CLI::App& app, int& exitCode)
{
    CLI::App* const log = app.add_subcommand("log", "The log: its records, for people and for programs");
    expectVerb(*log);
    addForm(*log, LogForm::Csv, "csv", "The records as CSV, one row each", exitCode);
    addForm(*log, LogForm::Json, "json", "The records as JSON Lines, one object each", exitCode);
    addForm(*log, LogForm::Text, "text", "The records as they stand in the log", exitCode);
    addSummary(*log, exitCode);
}
