#include "tools/tavro/SystemFacts.h"

#include <array>
#include <fstream>
#include <memory>
#include <system_error>
#include <utility>

#include <windows.h>

#include <aclapi.h>

namespace
{

struct CloseHandleOf
{
    void operator()(HANDLE handle) const { CloseHandle(handle); }
};

/// Opens a file or a folder for the given rights. The handle is null if that is refused.
std::unique_ptr<void, CloseHandleOf> open(const std::string& path, DWORD rights, DWORD sharing, DWORD& error)
{
    HANDLE const handle =
        CreateFileA(path.c_str(), rights, sharing, nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    error = handle == INVALID_HANDLE_VALUE ? GetLastError() : ERROR_SUCCESS;
    return std::unique_ptr<void, CloseHandleOf>(handle == INVALID_HANDLE_VALUE ? nullptr : handle);
}

constexpr DWORD SHARE_ALL = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

/// The name of a group that has more than administrators in it; empty for any other owner of rights.
std::string wideGroupName(PSID sid)
{
    constexpr std::array<std::pair<WELL_KNOWN_SID_TYPE, const char*>, 5> GROUPS = {
        {{WinWorldSid, "everyone"},
         {WinAuthenticatedUserSid, "all authenticated users"},
         {WinBuiltinUsersSid, "the group Users"},
         {WinInteractiveSid, "interactive users"},
         {WinBuiltinGuestsSid, "guests"}}};
    for (const auto& [type, name] : GROUPS)
    {
        if (IsWellKnownSid(sid, type) != FALSE)
        {
            return name;
        }
    }
    return {};
}

/// The first wide group that has one of the rights to the file or folder itself.
std::string holdersOf(const std::string& path, DWORD rights)
{
    PACL list = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (GetNamedSecurityInfoA(path.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &list, nullptr,
                              &descriptor) != ERROR_SUCCESS)
    {
        return {};
    }
    const std::unique_ptr<void, decltype(&LocalFree)> owned(descriptor, LocalFree);
    if (list == nullptr)
    {
        return "everyone"; // without a list all is allowed
    }
    for (DWORD i = 0; i < list->AceCount; ++i)
    {
        void* entry = nullptr;
        if (GetAce(list, i, &entry) == FALSE)
        {
            continue;
        }
        const auto* const header = static_cast<ACE_HEADER*>(entry);
        auto* const allowed = static_cast<ACCESS_ALLOWED_ACE*>(entry);
        if (header->AceType == ACCESS_ALLOWED_ACE_TYPE && (header->AceFlags & INHERIT_ONLY_ACE) == 0 &&
            (allowed->Mask & rights) != 0)
        {
            if (const std::string name = wideGroupName(&allowed->SidStart); !name.empty())
            {
                return name;
            }
        }
    }
    return {};
}

} // namespace

std::filesystem::path Tool::pathOf(const std::string& narrow)
{
    const int size = static_cast<int>(narrow.size());
    std::wstring wide(narrow.size(), L'\0'); // no code page makes more characters than bytes
    wide.resize(static_cast<std::size_t>(MultiByteToWideChar(CP_ACP, 0, narrow.data(), size, wide.data(), size)));
    return wide;
}

std::string Tool::narrowOf(const std::filesystem::path& path)
{
    const std::wstring wide = path.wstring();
    const int size = static_cast<int>(wide.size());
    const int needed = WideCharToMultiByte(CP_ACP, 0, wide.data(), size, nullptr, 0, nullptr, nullptr);
    std::string narrow(static_cast<std::size_t>(needed), '\0');
    WideCharToMultiByte(CP_ACP, 0, wide.data(), size, narrow.data(), needed, nullptr, nullptr);
    return narrow;
}

bool Tool::isAdministrator()
{
    HANDLE token = nullptr;
    if (OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token) == FALSE)
    {
        return false;
    }
    const std::unique_ptr<void, CloseHandleOf> owner(token);
    TOKEN_ELEVATION elevation = {};
    DWORD size = sizeof(elevation);
    return GetTokenInformation(token, TokenElevation, &elevation, size, &size) != FALSE &&
           elevation.TokenIsElevated != 0;
}

bool Tool::mayWrite(const std::string& path)
{
    DWORD error = 0;
    return open(path, FILE_WRITE_DATA, SHARE_ALL, error) != nullptr; // in a folder: FILE_ADD_FILE, the same bit
}

bool Tool::mayRun(const std::string& path)
{
    DWORD error = 0;
    return open(path, FILE_EXECUTE, SHARE_ALL, error) != nullptr;
}

std::string Tool::otherWriters(const std::string& path)
{
    return holdersOf(path, FILE_WRITE_DATA | GENERIC_WRITE | GENERIC_ALL | WRITE_DAC | WRITE_OWNER);
}

std::string Tool::otherMovers(const std::string& folder)
{
    constexpr std::size_t ROOT_LENGTH = 3; // "C:\"; a root cannot be renamed
    const DWORD renaming = folder.size() > ROOT_LENGTH ? DELETE : 0;
    return holdersOf(folder, renaming | FILE_DELETE_CHILD | GENERIC_ALL | WRITE_DAC | WRITE_OWNER);
}

bool Tool::isProgramFile(const std::string& path)
{
    std::string begin(2, '\0');
    std::ifstream(path, std::ios::binary).read(begin.data(), 2);
    return begin == "MZ";
}

std::vector<std::string> Tool::programsThatUse(const std::string& path)
{
    DWORD error = 0;
    const auto handle = open(path, FILE_READ_DATA, 0, error); // alone, which works only if nobody has it open
    return error == ERROR_SHARING_VIOLATION ? std::vector<std::string>{"another program"} : std::vector<std::string>();
}
