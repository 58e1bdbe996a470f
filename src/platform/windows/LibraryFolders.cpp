// For programs that run elevated: from its first moment, what the process loads by a bare name comes from the system's
// folder alone, never from the program's folder, the working folder or the PATH, where others may be able to write.
// The libraries that the program file names are loaded before that, so it may only name those that Windows always takes
// from its own folder (the session manager's KnownDLLs).

#include "platform/windows/System.h"

namespace
{

constexpr int BEFORE_ALL_OTHERS = 101;

/// A constructor, because some of the compiler's own come before the entry point and load libraries: the one of the
/// stack protector asks the system for a random number. Windows 7 needs its update KB2533623 for this.
[[gnu::constructor(BEFORE_ALL_OTHERS)]] void loadLibrariesFromSystemOnly() noexcept
{
    using platform::windows::functionOf;
    if (auto* const setFolders = functionOf<decltype(SetDefaultDllDirectories)>(GetModuleHandleW(L"kernel32.dll"),
                                                                                "SetDefaultDllDirectories"))
    {
        setFolders(LOAD_LIBRARY_SEARCH_SYSTEM32);
    }
}

} // namespace
