#include "platform/posix/CommandLine.h"

#include <algorithm>
#include <cstddef>

namespace platform::posix
{

namespace
{

constexpr bool isBlank(char c) { return c == ' ' || c == '\t'; }

void skipBlanks(std::string_view& rest) { rest.remove_prefix(std::min(rest.find_first_not_of(" \t"), rest.size())); }

std::string takeProgram(std::string_view& rest)
{
    std::string program;
    bool isQuoted = false;
    while (!rest.empty() && (isQuoted || !isBlank(rest.front())))
    {
        if (rest.front() == '"')
        {
            isQuoted = !isQuoted;
        }
        else
        {
            program += rest.front();
        }
        rest.remove_prefix(1);
    }
    return program;
}

std::string takeArgument(std::string_view& rest)
{
    std::string argument;
    bool isQuoted = false;
    while (!rest.empty() && (isQuoted || !isBlank(rest.front())))
    {
        const std::size_t backslashes = std::min(rest.find_first_not_of('\\'), rest.size());
        rest.remove_prefix(backslashes);
        const bool isBeforeQuote = rest.starts_with('"');
        argument.append(isBeforeQuote ? backslashes / 2 : backslashes, '\\');
        if (isBeforeQuote && backslashes % 2 == 0)
        {
            rest.remove_prefix(1);
            if (isQuoted && rest.starts_with('"'))
            {
                argument += '"';
                rest.remove_prefix(1);
            }
            else
            {
                isQuoted = !isQuoted;
            }
        }
        else if (isBeforeQuote)
        {
            argument += '"';
            rest.remove_prefix(1);
        }
        else if (backslashes == 0)
        {
            argument += rest.front();
            rest.remove_prefix(1);
        }
    }
    return argument;
}

} // namespace

std::vector<std::string> splitCommandLine(std::string_view commandLine)
{
    std::string_view rest = commandLine;
    std::vector<std::string> arguments;
    arguments.push_back(takeProgram(rest));
    for (skipBlanks(rest); !rest.empty(); skipBlanks(rest))
    {
        arguments.push_back(takeArgument(rest));
    }
    return arguments;
}

} // namespace platform::posix
