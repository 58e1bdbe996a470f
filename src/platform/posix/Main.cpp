#include "platform/Entry.h"
#include "platform/posix/Resources.h"

int main()
{
    wchar_t noCommandLine[] = L"";
    constexpr int SHOW_DEFAULT = 10; // SW_SHOWDEFAULT
    return wWinMain(&platform::posix::programResources, nullptr, noCommandLine, SHOW_DEFAULT);
}
