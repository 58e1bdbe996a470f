#pragma once

// What the program would make of the tweak files in the working folder: the values in effect, where each comes from,
// and everything that would end the program or be taken in silence. The program's own parser, values and getters answer
// (CaughtEnd.h), so nothing is made or changed.
//
//     const Examination examination = examineTweaks();
//     for (const Finding& finding : examination.findings) ...
//
// Main thread only.

#include "datapath/common/infra/Tweaks.h"

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Tool
{

enum class Severity : std::uint8_t
{
    Error,  ///< ends the program before its window appears, or something that a file says is dropped
    Warning ///< works, but perhaps not as it was meant
};

/// A line of a file; line 0 stands for the file as a whole.
struct FilePlace
{
    std::string file;
    std::uint32_t line = 0;

    [[nodiscard]] std::string text() const { return line == 0 ? file : file + ":" + std::to_string(line); }
};

/// Something that the user should know about.
struct Finding
{
    FilePlace place;
    Severity severity;
    std::string text;
};

/// A tweak that is set.
struct Setting
{
    std::string name;                    ///< as it is spelled in the file
    std::string value;                   ///< as the program's listing shows it
    std::optional<FilePlace> place = {}; ///< nothing: the program registers the value itself
};

struct Examination
{
    std::vector<Finding> findings; ///< in the order of the files and of their lines
    std::map<std::string, Setting, CaseInsensitiveLess> settings;
};

[[nodiscard]] Examination examineTweaks();

/// What is wrong with a text that is to become the consistent file, on whatever target.
[[nodiscard]] std::vector<Finding> examineTextToSign(const std::string& path);

[[nodiscard]] bool hasErrors(const std::vector<Finding>& findings);

/// The name of a known tweak that differs least from this one, if it differs little; otherwise an empty text.
[[nodiscard]] std::string nearestTweak(const std::string& name);

} // namespace Tool
