#include "tests/support/Support.h"

#include <filesystem>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

int openHandles() { return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {})); }

int runProgram(const char* const* arguments)
{
    // A program for another processor is an argument of the emulator, whose command line CMake states.
    std::vector<const char*> words{EMULATOR_WORDS};
    do
    {
        words.push_back(*arguments);
    } while (*arguments++ != nullptr);
    const pid_t child = fork();
    if (child == 0)
    {
        execvp(words[0], const_cast<char* const*>(words.data()));
        _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}
