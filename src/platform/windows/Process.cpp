#include "platform/Process.h"

#include "platform/windows/System.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <sstream>

namespace platform::windows
{

namespace
{

static_assert(sizeof(wchar_t) == sizeof(char16_t));

std::uint32_t moduleFileName(char* buffer, std::uint32_t size)
{
    const DWORD length = GetModuleFileNameA(nullptr, buffer, size);
    if (size > 0)
    {
        buffer[std::min(length, static_cast<DWORD>(size - 1))] = '\0'; // older systems do not end a path that they cut
    }
    return length;
}

ErrorNumber createProcess(std::u16string& commandLine)
{
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process = {};
    if (CreateProcessW(nullptr, reinterpret_cast<wchar_t*>(commandLine.data()), nullptr, nullptr, FALSE,
                       CREATE_NO_WINDOW, nullptr, nullptr, &startup, &process) == FALSE)
    {
        return lastError();
    }
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
    return ErrorNumber::Success;
}

void endProcess()
{
    constexpr UINT ABNORMAL_END = 3;
    TerminateProcess(GetCurrentProcess(), ABNORMAL_END);
}

} // namespace

} // namespace platform::windows

/// Source of the order: the documentation of CreateProcessW, without the folder of 16-bit systems.
std::vector<platform::SearchedFolder> platform::searchedFolders(const std::string& programPath)
{
    std::array<char, MAX_PATH> system{};
    std::array<char, MAX_PATH> windowsFolder{};
    GetSystemDirectoryA(system.data(), MAX_PATH);
    GetWindowsDirectoryA(windowsFolder.data(), MAX_PATH);
    std::vector<SearchedFolder> folders = {
        {programPath.substr(0, programPath.rfind('\\') + 1), SearchRule::ProgramFolder},
        {".\\", SearchRule::WorkingFolder},
        {std::string(system.data()) + '\\', SearchRule::SystemFolder},
        {std::string(windowsFolder.data()) + '\\', SearchRule::SystemFolder}};
    const char* const path = std::getenv("PATH");
    std::istringstream searched(path == nullptr ? "" : path);
    for (std::string folder; std::getline(searched, folder, ';');)
    {
        if (!folder.empty())
        {
            folders.push_back({folder + '\\', SearchRule::PathVariable});
        }
    }
    return folders;
}

constinit platform::ProcessCalls platform::processCalls = {
    .moduleFileName = {"moduleFileName", windows::moduleFileName},
    .createProcess = {"createProcess", windows::createProcess},
    .endProcess = {"endProcess", windows::endProcess},
};
