#include "platform/Files.h"

#include "platform/posix/Errors.h"

#include <cerrno>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform::posix
{

namespace
{

constexpr mode_t FILE_PERMISSIONS = 0666;
constexpr mode_t FOLDER_PERMISSIONS = 0777;

int toDescriptor(FileHandle file) { return static_cast<int>(file); }

DIR* toStream(FolderHandle folder) { return reinterpret_cast<DIR*>(folder); }

int errnoOf(int result) { return result == 0 ? 0 : errno; }

Transfer toTransfer(ssize_t result)
{
    return result < 0 ? Transfer{0, fromErrno(errno)}
                      : Transfer{static_cast<std::size_t>(result), ErrorNumber::Success};
}

int flagsOf(OpenMode mode)
{
    switch (mode)
    {
    case OpenMode::Read:
        return O_RDONLY;
    case OpenMode::Append:
        return O_WRONLY | O_APPEND | O_CREAT;
    case OpenMode::CreateNew:
        return O_WRONLY | O_CREAT | O_EXCL;
    }
    return O_RDONLY;
}

OpenedFile openFile(const char* path, OpenMode mode)
{
    const int descriptor = open(path, flagsOf(mode) | O_CLOEXEC, FILE_PERMISSIONS);
    if (descriptor < 0)
    {
        return {FileHandle::Invalid, fromErrno(errno, path)};
    }
    struct stat status = {};
    if (fstat(descriptor, &status) == 0 && S_ISDIR(status.st_mode))
    {
        close(descriptor);
        return {FileHandle::Invalid, ErrorNumber::AccessDenied}; // Linux would open a folder for reading
    }
    return {FileHandle{descriptor}, ErrorNumber::Success};
}

Transfer readFile(FileHandle file, void* buffer, std::size_t size)
{
    return toTransfer(TEMP_FAILURE_RETRY(read(toDescriptor(file), buffer, size)));
}

Transfer writeFile(FileHandle file, const void* bytes, std::size_t size)
{
    return toTransfer(TEMP_FAILURE_RETRY(write(toDescriptor(file), bytes, size)));
}

FileLength lengthOfFile(FileHandle file)
{
    const off_t end = lseek(toDescriptor(file), 0, SEEK_END);
    return end < 0 ? FileLength{0, fromErrno(errno)}
                   : FileLength{static_cast<std::uint64_t>(end), ErrorNumber::Success};
}

ErrorNumber flushDescriptor(int descriptor)
{
    return fromErrno(errnoOf(static_cast<int>(TEMP_FAILURE_RETRY(fsync(descriptor)))));
}

ErrorNumber flushFile(FileHandle file) { return flushDescriptor(toDescriptor(file)); }

ErrorNumber closeFile(FileHandle file) { return fromErrno(errnoOf(close(toDescriptor(file)))); }

int createFolderErrno(const char* path) { return errnoOf(mkdir(path, FOLDER_PERMISSIONS)); }

ErrorNumber createFolder(const char* path) { return fromErrno(createFolderErrno(path), path); }

bool pathExists(const char* path)
{
    struct stat status = {};
    return stat(path, &status) == 0;
}

int removeFile(const char* path) { return errnoOf(unlink(path)); }

int renameFile(const char* from, const char* to)
{
    const int error = errnoOf(renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE));
    if (error != EINVAL && error != ENOSYS)
    {
        return error;
    }
    // This file system cannot rename without replacing. Making a second link does not replace either.
    if (link(from, to) == 0)
    {
        return errnoOf(unlink(from));
    }
    struct stat status = {};
    const int linkError = errno;
    const bool isFolder = linkError == EPERM && stat(from, &status) == 0 && S_ISDIR(status.st_mode);
    return isFolder ? errnoOf(rename(from, to)) : linkError; // a folder has no links, and replaces no file
}

ErrorNumber replaceFile(const char* from, const char* to) { return fromErrno(errnoOf(rename(from, to)), to); }

ErrorNumber removeFolder(const char* path) { return fromErrno(errnoOf(rmdir(path)), path); }

OpenedFile openFolder(const char* path)
{
    const int descriptor = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return descriptor < 0 ? OpenedFile{FileHandle::Invalid, fromErrno(errno, path)}
                          : OpenedFile{FileHandle{descriptor}, ErrorNumber::Success};
}

ErrorNumber flushFolder(const char* path)
{
    const OpenedFile folder = openFolder(path);
    if (folder.handle == FileHandle::Invalid)
    {
        return folder.error;
    }
    const ErrorNumber error = flushDescriptor(toDescriptor(folder.handle));
    close(toDescriptor(folder.handle));
    return error;
}

OpenedFile lockFolder(const char* path)
{
    const OpenedFile folder = openFolder(path);
    if (folder.handle == FileHandle::Invalid || flock(toDescriptor(folder.handle), LOCK_EX | LOCK_NB) == 0)
    {
        return folder;
    }
    const ErrorNumber error = errno == EWOULDBLOCK ? ErrorNumber::SharingViolation : fromErrno(errno);
    close(toDescriptor(folder.handle));
    return {FileHandle::Invalid, error};
}

ErrorNumber readEntry(DIR* stream, FolderEntry& entry)
{
    errno = 0;
    const dirent* const found = readdir(stream);
    if (found == nullptr)
    {
        return errno == 0 ? ErrorNumber::NoMoreFiles : fromErrno(errno);
    }
    entry.name = found->d_name;
    entry.isFolder = found->d_type == DT_DIR;
    if (found->d_type == DT_LNK || found->d_type == DT_UNKNOWN)
    {
        struct stat status = {};
        entry.isFolder = fstatat(dirfd(stream), found->d_name, &status, 0) == 0 && S_ISDIR(status.st_mode);
    }
    return ErrorNumber::Success;
}

OpenedFolder findFirstEntry(const char* folder, FolderEntry& entry)
{
    DIR* const stream = opendir(folder);
    if (stream == nullptr)
    {
        return {FolderHandle::Invalid, fromErrno(errno, std::string(folder) + "/*")};
    }
    if (const ErrorNumber error = readEntry(stream, entry); error != ErrorNumber::Success)
    {
        closedir(stream);
        return {FolderHandle::Invalid, error};
    }
    return {FolderHandle{reinterpret_cast<std::intptr_t>(stream)}, ErrorNumber::Success};
}

ErrorNumber findNextEntry(FolderHandle folder, FolderEntry& entry) { return readEntry(toStream(folder), entry); }

void closeFolder(FolderHandle folder) { closedir(toStream(folder)); }

} // namespace

} // namespace platform::posix

constinit platform::FileCalls platform::fileCalls = {
    .openFile = {"openFile", posix::openFile},
    .readFile = {"readFile", posix::readFile},
    .writeFile = {"writeFile", posix::writeFile},
    .lengthOfFile = {"lengthOfFile", posix::lengthOfFile},
    .flushFile = {"flushFile", posix::flushFile},
    .closeFile = {"closeFile", posix::closeFile},
    .createFolder = {"createFolder", posix::createFolder},
    .createFolderErrno = {"createFolderErrno", posix::createFolderErrno},
    .pathExists = {"pathExists", posix::pathExists},
    .removeFile = {"removeFile", posix::removeFile},
    .renameFile = {"renameFile", posix::renameFile},
    .replaceFile = {"replaceFile", posix::replaceFile},
    .removeFolder = {"removeFolder", posix::removeFolder},
    .flushFolder = {"flushFolder", posix::flushFolder},
    .lockFolder = {"lockFolder", posix::lockFolder},
    .findFirstEntry = {"findFirstEntry", posix::findFirstEntry},
    .findNextEntry = {"findNextEntry", posix::findNextEntry},
    .closeFolder = {"closeFolder", posix::closeFolder},
};
