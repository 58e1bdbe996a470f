#pragma once

// Splits a command line the way programs on Windows see it.

#include <string>
#include <string_view>
#include <vector>

namespace platform::posix
{

/// The arguments of a command line, the program first. In the program's token a quote toggles
/// quoting and nothing is escaped. In the arguments after it, 2n backslashes before a quote are n
/// backslashes and the quote is special; 2n+1 are n backslashes and a literal quote; two quotes
/// inside a quoted part are one literal quote. Source: the argument parsing rules of Microsoft's C
/// runtime (2008 and later).
[[nodiscard]] std::vector<std::string> splitCommandLine(std::string_view commandLine);

} // namespace platform::posix
