#pragma once

// What the verbs of the console tool share. Everything here is called on the main thread.

#include "platform/Files.h"

#include <stdexcept>
#include <string>
#include <string_view>

namespace Tool
{

/// The exit codes of all verbs.
enum ExitCode : int
{
    FINE = 0,
    FOUND = 1,  ///< what was looked at has a fault
    MISUSED = 2 ///< the tool was called wrongly, or could not do what it was asked for
};

/// Ends the tool with a message on standard error and the code MISUSED.
struct Misuse : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

/// Makes the folder the working folder, as it is that of the program when it starts. Throws Misuse if it cannot.
void enterFolder(const std::string& folder);

/// Whatever the locale is.
[[nodiscard]] constexpr bool isDigit(char character) { return character >= '0' && character <= '9'; }

/// The text with "\xNN" for each control character, so that no file can change what a terminal shows.
[[nodiscard]] std::string visibleText(std::string_view text);

/// A JSON string with its quotes. Bytes that are not UTF-8 become U+FFFD.
[[nodiscard]] std::string jsonText(std::string_view text);

/// What the error means, in words; its number if there are none for it.
[[nodiscard]] std::string errorText(platform::ErrorNumber error);

/// Whether people watch the stream.
[[nodiscard]] bool isStandardOutputTerminal();
[[nodiscard]] bool isStandardErrorTerminal();

/// Whether standard output is to have colours: on a terminal that shows them, unless the environment's NO_COLOR is set.
[[nodiscard]] bool hasColours();

} // namespace Tool
