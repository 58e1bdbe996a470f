#include "platform/Files.h"

#include "platform/windows/System.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <direct.h>
#include <sys/stat.h>

namespace platform::windows
{

namespace
{

HANDLE toHandle(FileHandle file) { return reinterpret_cast<HANDLE>(file); }

HANDLE toHandle(FolderHandle folder) { return reinterpret_cast<HANDLE>(folder); }

int errnoOf(int result) { return result == 0 ? 0 : errno; }

/// The part of the size that one call can transfer.
DWORD toDword(std::size_t size) { return static_cast<DWORD>(std::min<std::size_t>(size, MAXLONG)); }

OpenedFile openedFile(HANDLE handle)
{
    const ErrorNumber error = handle == INVALID_HANDLE_VALUE ? lastError() : ErrorNumber::Success;
    const bool isThere = error == static_cast<ErrorNumber>(ERROR_FILE_EXISTS); // CREATE_NEW reports it that way
    return {FileHandle{reinterpret_cast<std::intptr_t>(handle)}, isThere ? ErrorNumber::AlreadyExists : error};
}

OpenedFile openFile(const char* path, OpenMode mode)
{
    struct Way
    {
        DWORD access;
        DWORD disposition;
    };
    const Way way = mode == OpenMode::Read     ? Way{GENERIC_READ, OPEN_EXISTING}
                    : mode == OpenMode::Append ? Way{FILE_APPEND_DATA | SYNCHRONIZE, OPEN_ALWAYS}
                                               : Way{GENERIC_WRITE, CREATE_NEW};
    constexpr DWORD SHARING = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    return openedFile(CreateFileA(path, way.access, SHARING, nullptr, way.disposition, FILE_ATTRIBUTE_NORMAL, nullptr));
}

Transfer readFile(FileHandle file, void* buffer, std::size_t size)
{
    DWORD bytes = 0;
    const ErrorNumber error = errorOf(ReadFile(toHandle(file), buffer, toDword(size), &bytes, nullptr));
    const bool isEndOfPipe = error == static_cast<ErrorNumber>(ERROR_BROKEN_PIPE);
    return {bytes, isEndOfPipe ? ErrorNumber::Success : error};
}

Transfer writeFile(FileHandle file, const void* bytes, std::size_t size)
{
    DWORD written = 0;
    const ErrorNumber error = errorOf(WriteFile(toHandle(file), bytes, toDword(size), &written, nullptr));
    return {written, error};
}

FileLength lengthOfFile(FileHandle file)
{
    LARGE_INTEGER end = {};
    const ErrorNumber error = errorOf(SetFilePointerEx(toHandle(file), {}, &end, FILE_END));
    return {static_cast<std::uint64_t>(end.QuadPart), error};
}

ErrorNumber flushFile(FileHandle file) { return errorOf(FlushFileBuffers(toHandle(file))); }

ErrorNumber closeFile(FileHandle file) { return errorOf(CloseHandle(toHandle(file))); }

ErrorNumber createFolder(const char* path) { return errorOf(CreateDirectoryA(path, nullptr)); }

int createFolderErrno(const char* path) { return errnoOf(_mkdir(path)); }

bool pathExists(const char* path)
{
    struct _stat64 status = {};
    return _stat64(path, &status) == 0;
}

int removeFile(const char* path) { return errnoOf(std::remove(path)); }

int renameFile(const char* from, const char* to) { return errnoOf(std::rename(from, to)); }

ErrorNumber replaceFile(const char* from, const char* to)
{
    return errorOf(MoveFileExA(from, to, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH));
}

ErrorNumber removeFolder(const char* path) { return errorOf(RemoveDirectoryA(path)); }

ErrorNumber flushFolder(const char* /*path*/) { return ErrorNumber::Success; }

OpenedFile lockFolder(const char* path)
{
    const std::string file = std::string(path) + "\\.lock";
    constexpr DWORD NO_SHARING = 0;
    return openedFile(CreateFileA(file.c_str(), DELETE, NO_SHARING, nullptr, OPEN_ALWAYS,
                                  FILE_ATTRIBUTE_HIDDEN | FILE_FLAG_DELETE_ON_CLOSE, nullptr));
}

void store(const WIN32_FIND_DATAA& found, FolderEntry& entry)
{
    entry.name = found.cFileName;
    entry.isFolder = (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

OpenedFolder findFirstEntry(const char* folder, FolderEntry& entry)
{
    WIN32_FIND_DATAA found = {};
    const std::string pattern = std::string(folder) + "\\*";
    const HANDLE handle = FindFirstFileA(pattern.c_str(), &found);
    if (handle == INVALID_HANDLE_VALUE)
    {
        return {FolderHandle::Invalid, lastError()};
    }
    store(found, entry);
    return {FolderHandle{reinterpret_cast<std::intptr_t>(handle)}, ErrorNumber::Success};
}

ErrorNumber findNextEntry(FolderHandle folder, FolderEntry& entry)
{
    WIN32_FIND_DATAA found = {};
    if (FindNextFileA(toHandle(folder), &found) == FALSE)
    {
        return lastError();
    }
    store(found, entry);
    return ErrorNumber::Success;
}

void closeFolder(FolderHandle folder) { FindClose(toHandle(folder)); }

} // namespace

} // namespace platform::windows

constinit platform::FileCalls platform::fileCalls = {
    .openFile = {"openFile", windows::openFile},
    .readFile = {"readFile", windows::readFile},
    .writeFile = {"writeFile", windows::writeFile},
    .lengthOfFile = {"lengthOfFile", windows::lengthOfFile},
    .flushFile = {"flushFile", windows::flushFile},
    .closeFile = {"closeFile", windows::closeFile},
    .createFolder = {"createFolder", windows::createFolder},
    .createFolderErrno = {"createFolderErrno", windows::createFolderErrno},
    .pathExists = {"pathExists", windows::pathExists},
    .removeFile = {"removeFile", windows::removeFile},
    .renameFile = {"renameFile", windows::renameFile},
    .replaceFile = {"replaceFile", windows::replaceFile},
    .removeFolder = {"removeFolder", windows::removeFolder},
    .flushFolder = {"flushFolder", windows::flushFolder},
    .lockFolder = {"lockFolder", windows::lockFolder},
    .findFirstEntry = {"findFirstEntry", windows::findFirstEntry},
    .findNextEntry = {"findNextEntry", windows::findNextEntry},
    .closeFolder = {"closeFolder", windows::closeFolder},
};
