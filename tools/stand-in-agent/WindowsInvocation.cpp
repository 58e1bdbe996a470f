#include "Invocation.h"

#include "platform/Utf.h"
#include "platform/windows/System.h"

#include <shellapi.h>
#include <string_view>

namespace
{

std::string toUtf8(std::wstring_view text)
{
    return platform::utf16ToUtf8({reinterpret_cast<const char16_t*>(text.data()), text.size()});
}

} // namespace

// What the system hands out here lives until the process ends, so nothing is freed.
Invocation currentInvocation()
{
    Invocation invocation{
        .commandLine = toUtf8(GetCommandLineW()), .arguments = {}, .workingFolder = {}, .environment = {}};
    int count = 0;
    const wchar_t* const* const arguments = CommandLineToArgvW(GetCommandLineW(), &count);
    for (int i = 0; i < count; ++i)
    {
        invocation.arguments.push_back(toUtf8(arguments[i]));
    }
    std::wstring folder(GetCurrentDirectoryW(0, nullptr), L'\0');
    folder.resize(GetCurrentDirectoryW(static_cast<DWORD>(folder.size()), folder.data()));
    invocation.workingFolder = toUtf8(folder);
    for (std::wstring_view entry = GetEnvironmentStringsW(); !entry.empty(); entry = entry.data() + entry.size() + 1)
    {
        invocation.environment.push_back(toUtf8(entry));
    }
    return invocation;
}
