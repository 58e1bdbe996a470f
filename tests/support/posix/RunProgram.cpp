#include "tests/support/Support.h"

#include <filesystem>
#include <sys/wait.h>
#include <unistd.h>

int openHandles() { return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {})); }

int runProgram(const std::string& path, const std::vector<std::string>& arguments)
{
    std::vector<const char*> pointers{path.c_str()};
    for (const std::string& argument : arguments)
    {
        pointers.push_back(argument.c_str());
    }
    pointers.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0)
    {
        execv(path.c_str(), const_cast<char* const*>(pointers.data()));
        _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}
