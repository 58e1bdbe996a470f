#pragma once

// A text for the consistent file: its lines, and what a strict read of them would refuse or cut. The program's own
// parser and values answer (CaughtEnd.h). Main thread only.
//
//     const std::vector<std::string> lines = linesOf(bytes);
//     for (const TextProblem& problem : checkStrictText(lines)) ...

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Tool
{

/// Why a text is refused.
struct TextProblem
{
    std::uint32_t line; ///< counts from 1; 0 stands for the text as a whole
    std::string text;
};

/// The lines of a file without their ends. Carriage returns before an end, and at the end of a last line without a line
/// feed, are left out: they have no meaning, and a reader would drop one of them.
[[nodiscard]] std::vector<std::string> linesOf(std::string_view bytes);

/// What would end a program that reads these lines, or would be read otherwise than it is written, on any target.
[[nodiscard]] std::vector<TextProblem> checkStrictText(const std::vector<std::string>& lines);

} // namespace Tool
