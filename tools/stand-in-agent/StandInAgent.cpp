// Stands in for the agent in demonstrations and tests: it adds no checkpoint and only leaves a record
// of how it was started.

#include "Invocation.h"
#include "platform/Utf.h"

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string_view>
#include <system_error>

namespace
{

constexpr std::string_view RECORD_NAME = "TavroVssAgent.record.json";
constexpr std::string_view RECORD_VARIABLE = "TAVRO_AGENT_RECORD=";

constexpr std::string_view HELP =
    "Stands in for the agent in demonstrations and tests. It adds no checkpoint: it writes its command\n"
    "line, arguments, working folder and environment as JSON to the file that the environment variable\n"
    "TAVRO_AGENT_RECORD names, or else to TavroVssAgent.record.json in the working folder.\n";

std::string toJson(std::string_view text)
{
    std::string out = "\"";
    // JSON needs well-formed UTF-8, which is what a conversion to UTF-16 and back yields.
    for (const char c : platform::utf16ToUtf8(platform::utf8ToUtf16(text)))
    {
        if (static_cast<unsigned char>(c) < 0x20)
        {
            std::array<char, 7> escape{};
            std::snprintf(escape.data(), escape.size(), "\\u%04x", static_cast<unsigned>(c));
            out += escape.data();
            continue;
        }
        if (c == '"' || c == '\\')
        {
            out += '\\';
        }
        out += c;
    }
    return out + '"';
}

std::string toJson(const std::vector<std::string>& texts)
{
    std::string out;
    for (const std::string& text : texts)
    {
        out += (out.empty() ? "" : ", ") + toJson(text);
    }
    return "[" + out + "]";
}

std::filesystem::path recordPath(const Invocation& invocation)
{
    std::string_view path = RECORD_NAME;
    for (const std::string_view entry : invocation.environment)
    {
        if (entry.starts_with(RECORD_VARIABLE))
        {
            path = entry.substr(RECORD_VARIABLE.size());
        }
    }
    return std::u8string(path.begin(), path.end());
}

/// The record gets its name only when it is complete, so that nobody who waits for it reads half of it.
bool writeRecord(const Invocation& invocation)
{
    const std::filesystem::path path = recordPath(invocation);
    std::filesystem::path unfinished = path;
    unfinished += ".part";
    std::ofstream record(unfinished, std::ios::binary);
    record << "{\"commandLine\": " << toJson(invocation.commandLine)
           << ",\n \"arguments\": " << toJson(invocation.arguments)
           << ",\n \"workingFolder\": " << toJson(invocation.workingFolder)
           << ",\n \"environment\": " << toJson(invocation.environment) << "}\n";
    record.close();
    std::error_code error;
    std::filesystem::rename(unfinished, path, error);
    return record.good() && !error;
}

} // namespace

int main()
{
    const Invocation invocation = currentInvocation();
    if (invocation.arguments.size() == 2 && invocation.arguments.back() == "--help")
    {
        std::cout << HELP;
        return 0;
    }
    return writeRecord(invocation) ? 0 : 1;
}
