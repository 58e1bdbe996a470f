// A library that takes the name of another one, and leaves a file with ".loaded" at the end of its own path when a
// program loads it.

#include "platform/windows/System.h"

#include <fstream>
#include <string>

BOOL WINAPI DllMain(HINSTANCE library, DWORD reason, void* /*reserved*/)
{
    if (reason == DLL_PROCESS_ATTACH)
    {
        std::string path(MAX_PATH, '\0');
        path.resize(GetModuleFileNameA(library, path.data(), MAX_PATH));
        std::ofstream(path + ".loaded");
    }
    return TRUE;
}
