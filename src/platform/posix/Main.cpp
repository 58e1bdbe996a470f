#include "platform/Entry.h"
#include "platform/Process.h"
#include "platform/posix/Resources.h"

#include <fcntl.h>
#include <unistd.h>

namespace
{

/// Whoever started the program may have closed some of these. The next file that is opened, the log for instance,
/// would take the place of one and get what is printed.
void openStandardStreams()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    {
        // The lowest descriptor that is free is given out, so it is this one.
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
