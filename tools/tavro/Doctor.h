#pragma once

// What the checkpoint program would do at its start and at OK, step by step, and what is wrong with it. Starts nothing,
// makes nothing and changes nothing. Main thread only.

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace Tool
{

enum class State : std::uint8_t
{
    Fine,
    Note, ///< worth knowing
    Fault ///< something does not work, is lost, or is a danger
};

/// One line of the result.
struct Diagnosis
{
    std::string step;
    State state;
    std::string text;
    std::string remedy; ///< only of a fault
};

/// The path of the checkpoint program beside this tool.
[[nodiscard]] std::string programBesideTool();

/// The full path of a program as it finds its own: on POSIX, links are resolved.
[[nodiscard]] std::string programNamed(const std::string& path);

/// Examines the program with that path, as it would run in the working folder.
[[nodiscard]] std::vector<Diagnosis> diagnose(const std::string& programPath);

/// One line for each, with the remedy below it, or one JSON array. Returns whether there is a fault.
bool writeDiagnoses(std::ostream& out, const std::vector<Diagnosis>& diagnoses, bool isJson, bool isColoured);

} // namespace Tool
