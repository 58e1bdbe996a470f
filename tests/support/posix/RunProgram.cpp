#include "tests/support/Support.h"

#include <filesystem>
#include <sys/wait.h>
#include <unistd.h>

int openHandles() { return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {})); }

int runProgram(const char* const* arguments)
{
    const pid_t child = fork();
    if (child == 0)
    {
        execv(arguments[0], const_cast<char* const*>(arguments));
        _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}
