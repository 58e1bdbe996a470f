#pragma once

// Splits a command line into arguments as the C runtime does for programs on Windows.

#include <string>
#include <string_view>
#include <vector>

namespace platform::posix
{

/// Returns the program and then its arguments. In the program's token a quote toggles quoting and nothing is escaped.
/// In the arguments after it, 2n backslashes before a quote are n backslashes and the quote is special; 2n+1 are n
/// backslashes and a literal quote; two quotes inside a quoted part are one literal quote. Source: the argument parsing
/// rules of Microsoft's C runtime (2008 and later).
[[nodiscard]] std::vector<std::string> splitCommandLine(std::string_view commandLine);

} // namespace platform::posix
