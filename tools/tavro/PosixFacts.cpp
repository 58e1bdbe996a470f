#include "tools/tavro/SystemFacts.h"

#include <cstdlib>
#include <fstream>
#include <system_error>

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

std::filesystem::path Tool::pathOf(const std::string& narrow) { return narrow; }

std::string Tool::narrowOf(const std::filesystem::path& path) { return path.string(); }

bool Tool::isAdministrator() { return geteuid() == 0; }

bool Tool::mayWrite(const std::string& path) { return access(path.c_str(), W_OK) == 0; }

bool Tool::mayRun(const std::string& path) { return access(path.c_str(), X_OK) == 0; }

std::string Tool::otherWriters(const std::string& path)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0)
    {
        return {};
    }
    if ((status.st_mode & S_IWOTH) != 0)
    {
        return "everyone";
    }
    const passwd* const owner = getpwuid(status.st_uid);
    const std::string ownerName = owner == nullptr ? std::to_string(status.st_uid) : owner->pw_name;
    const group* const members = getgrgid(status.st_gid);
    const std::string groupName = members == nullptr ? std::to_string(status.st_gid) : members->gr_name;
    const bool isOwnGroup = groupName == ownerName; // the group that many systems make for each user
    if ((status.st_mode & S_IWGRP) != 0 && status.st_gid != 0 && !isOwnGroup)
    {
        return "the group " + groupName;
    }
    return status.st_uid == 0 || status.st_uid == geteuid() ? std::string() : "the user " + ownerName;
}

std::string Tool::otherMovers(const std::string& folder)
{
    struct stat status = {};
    const bool isSticky = stat(folder.c_str(), &status) == 0 && (status.st_mode & S_ISVTX) != 0;
    return isSticky ? std::string() : otherWriters(folder);
}

bool Tool::isProgramFile(const std::string& path)
{
    std::string begin(4, '\0');
    std::ifstream(path, std::ios::binary).read(begin.data(), 4);
    return begin == "\x7F"
                    "ELF" ||
           begin.starts_with("#!") || begin.starts_with("MZ");
}

namespace
{

/// Whether the descriptor of a process was opened for writing.
bool isWriting(const std::filesystem::path& process, const std::filesystem::path& descriptor)
{
    std::ifstream info(process / "fdinfo" / descriptor);
    for (std::string word; info >> word;)
    {
        if (word == "flags:" && info >> word)
        {
            return (std::strtoul(word.c_str(), nullptr, 8) & O_ACCMODE) != O_RDONLY;
        }
    }
    return false;
}

} // namespace

std::vector<std::string> Tool::programsThatUse(const std::string& path)
{
    namespace fs = std::filesystem;
    std::vector<std::string> programs;
    std::error_code error;
    const fs::path wanted = fs::canonical(path, error);
    if (error)
    {
        return programs;
    }
    for (const fs::directory_entry& process : fs::directory_iterator("/proc", error))
    {
        const std::string id = process.path().filename();
        if (id.find_first_not_of("0123456789") != std::string::npos || id == std::to_string(getpid()))
        {
            continue;
        }
        std::error_code hidden; // the process has ended, or belongs to somebody else
        for (fs::directory_iterator file(process.path() / "fd", hidden), end; !hidden && file != end;
             file.increment(hidden))
        {
            std::error_code closed;
            if (fs::read_symlink(file->path(), closed) == wanted && !closed &&
                isWriting(process.path(), file->path().filename()))
            {
                std::string name;
                std::getline(std::ifstream(process.path() / "comm"), name);
                programs.push_back(name.append(" (process ").append(id).append(")"));
                break;
            }
        }
    }
    return programs;
}
