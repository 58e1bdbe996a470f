#include "platform/Process.h"

#include "platform/windows/System.h"

namespace platform::windows
{

namespace
{

static_assert(sizeof(wchar_t) == sizeof(char16_t));

std::uint32_t moduleFileName(char* buffer, std::uint32_t size)
{
    return GetModuleFileNameA(nullptr, buffer, size);
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

platform::ProcessCalls platform::processCalls = {
    .moduleFileName = windows::moduleFileName,
    .createProcess = windows::createProcess,
    .endProcess = windows::endProcess,
};
