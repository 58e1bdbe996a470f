#include "platform/Entry.h"
#include "platform/Process.h"
#include "platform/posix/Resources.h"

#include <fcntl.h>
#include <unistd.h>

namespace
{

/// Opens each standard stream with which the program was not started. Otherwise the next file that is opened, for
/// instance the log, would take its number and receive what is printed.
void openStandardStreams()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    {
        // open returns the lowest free descriptor, which is this one.
        if (fcntl(descriptor, F_GETFD) < 0 && open("/dev/null", O_RDWR) != descriptor)
        {
            platform::endProcess();
        }
    }
}

} // namespace

int main()
{
    openStandardStreams();
    wchar_t noCommandLine[] = L"";
    constexpr int SHOW_DEFAULT = 10; // SW_SHOWDEFAULT
    return wWinMain(&platform::posix::programResources, nullptr, noCommandLine, SHOW_DEFAULT);
}
