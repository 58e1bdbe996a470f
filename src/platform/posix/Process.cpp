#include "platform/Process.h"

#include "platform/Utf.h"
#include "platform/posix/CommandLine.h"
#include "platform/posix/Errors.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <string_view>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace platform::posix
{

namespace
{

std::string programPath()
{
    std::array<char, PATH_MAX> buffer{};
    const ssize_t length = readlink("/proc/self/exe", buffer.data(), buffer.size());
    std::string path(buffer.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    // The system marks a program file so if it was replaced or removed since the start.
    if (constexpr std::string_view MARK = " (deleted)"; path.ends_with(MARK) && access(path.c_str(), F_OK) != 0)
    {
        path.resize(path.size() - MARK.size());
    }
    return path;
}

std::uint32_t moduleFileName(char* buffer, std::uint32_t size)
{
    if (size == 0)
    {
        return 0;
    }
    const std::string path = programPath();
    const std::size_t copied = std::min<std::size_t>(path.size(), size - 1);
    std::memcpy(buffer, path.data(), copied);
    buffer[copied] = '\0';
    return copied < path.size() ? size : static_cast<std::uint32_t>(copied);
}

bool isFile(const std::string& path)
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && !S_ISDIR(status.st_mode);
}

/// The path of the program with this name or path; empty if a bare name is found nowhere.
std::string findProgram(const std::string& name)
{
    if (name.find('/') != std::string::npos)
    {
        return name;
    }
    const std::vector<SearchedFolder> folders = searchedFolders(programPath());
    const auto found =
        std::ranges::find_if(folders, [&name](const auto& folder) { return isFile(folder.path + name); });
    return found == folders.end() ? std::string() : found->path + name;
}

/// Closes this descriptor and all above it, which the started program must not get.
void closeDescriptorsFrom(int first)
{
    if (syscall(SYS_close_range, first, ~0U, 0) == 0)
    {
        return;
    }
    const long limit = sysconf(_SC_OPEN_MAX);
    for (int descriptor = first; descriptor < limit; ++descriptor)
    {
        close(descriptor);
    }
}

/// Runs in the forked child, where only async-signal-safe calls are allowed. Writes errno into errorPipe if the program
/// cannot be executed; a successful execve closes the pipe unwritten.
[[noreturn]] void becomeProgram(const char* path, char* const* arguments, int errorPipe)
{
    constexpr int ERROR_DESCRIPTOR = STDERR_FILENO + 1;
    setsid();
    sigset_t noSignals;
    sigemptyset(&noSignals);
    sigprocmask(SIG_SETMASK, &noSignals, nullptr);
    // A second fork makes the program an orphan, which the system reaps.
    const pid_t program = fork();
    if (program > 0)
    {
        _exit(0);
    }
    if (program == 0)
    {
        const int pipeEnd = errorPipe == ERROR_DESCRIPTOR ? errorPipe : dup2(errorPipe, ERROR_DESCRIPTOR);
        fcntl(pipeEnd, F_SETFD, FD_CLOEXEC);
        const int nothing = open("/dev/null", O_RDWR);
        dup2(nothing, STDIN_FILENO);
        dup2(nothing, STDOUT_FILENO);
        dup2(nothing, STDERR_FILENO);
        closeDescriptorsFrom(ERROR_DESCRIPTOR + 1);
        errorPipe = ERROR_DESCRIPTOR;
        execve(path, arguments, environ);
    }
    const int error = errno;
    const bool isReported = write(errorPipe, &error, sizeof(error)) == static_cast<ssize_t>(sizeof(error));
    _exit(isReported ? 1 : 2);
}

ErrorNumber createProcess(std::u16string& commandLine)
{
    std::vector<std::string> arguments =
        splitCommandLine(utf16ToUtf8(commandLine.c_str())); // up to the first zero, as on Windows
    const std::string path = findProgram(arguments.front());
    if (path.empty())
    {
        return ErrorNumber::FileNotFound;
    }
    std::vector<char*> argumentPointers;
    argumentPointers.reserve(arguments.size() + 1);
    for (std::string& argument : arguments)
    {
        argumentPointers.push_back(argument.data());
    }
    argumentPointers.push_back(nullptr);

    std::array<int, 2> errorPipe{};
    if (pipe2(errorPipe.data(), O_CLOEXEC) != 0)
    {
        return fromErrno(errno);
    }
    const auto [readEnd, writeEnd] = errorPipe;
    const pid_t intermediate = fork();
    if (intermediate == 0)
    {
        becomeProgram(path.c_str(), argumentPointers.data(), writeEnd);
    }
    int error = intermediate < 0 ? errno : 0;
    close(writeEnd);
    if (intermediate > 0)
    {
        static_cast<void>(TEMP_FAILURE_RETRY(waitpid(intermediate, nullptr, 0)));
        if (TEMP_FAILURE_RETRY(read(readEnd, &error, sizeof(error))) != static_cast<ssize_t>(sizeof(error)))
        {
            error = 0;
        }
    }
    close(readEnd);
    return fromErrno(error, path);
}

void endProcess()
{
    static_cast<void>(signal(SIGABRT, SIG_DFL));
    std::abort();
}

} // namespace

} // namespace platform::posix

std::vector<platform::SearchedFolder> platform::searchedFolders(const std::string& programPath)
{
    std::vector<SearchedFolder> folders = {
        {programPath.substr(0, programPath.rfind('/') + 1), SearchRule::ProgramFolder},
        {"./", SearchRule::WorkingFolder}};
    const char* const path = std::getenv("PATH");
    std::istringstream searched(path == nullptr ? "" : path);
    for (std::string folder; std::getline(searched, folder, ':');)
    {
        folders.push_back({folder.empty() ? "./" : folder + "/", SearchRule::PathVariable});
    }
    return folders;
}

constinit platform::ProcessCalls platform::processCalls = {
    .moduleFileName = {"moduleFileName", posix::moduleFileName},
    .createProcess = {"createProcess", posix::createProcess},
    .endProcess = {"endProcess", posix::endProcess},
};
