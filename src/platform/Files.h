#pragma once

// Files and folders, one system call a function. Paths are narrow, zero-terminated and the system's own,
// with PATH_SEPARATOR (Text.h) between their parts: they are passed as they are. So are bytes: text
// translation is the caller's.
// Every function may be called from any thread; a handle belongs to whoever opened it and must be
// closed once. Opened handles are never inherited by started processes, and other programs may
// read, rename and delete a file while it is open here.

#include "platform/Call.h"
#include "platform/ErrorNumber.h"
#include "platform/UniqueHandle.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace platform
{

enum class FileHandle : std::intptr_t
{
    Invalid = -1
};

enum class FolderHandle : std::intptr_t
{
    Invalid = -1
};

enum class OpenMode
{
    Read,  ///< the file must exist
    Append ///< created if missing; every write goes to the end
};

struct OpenedFile
{
    FileHandle handle; ///< Invalid on failure
    ErrorNumber error;
};

/// How long a file is.
struct FileLength
{
    std::uint64_t bytes;
    ErrorNumber error;
};

/// What a read or a write did. A read of 0 bytes without an error is the end of the file.
struct Transfer
{
    std::size_t bytes;
    ErrorNumber error;
};

struct FolderEntry
{
    std::string name; ///< without the folder
    bool isFolder = false;
};

struct OpenedFolder
{
    FolderHandle handle; ///< Invalid on failure
    ErrorNumber error;
};

struct FileCalls
{
    Call<OpenedFile(const char* path, OpenMode mode)> openFile;
    Call<Transfer(FileHandle file, void* buffer, std::size_t size)> readFile;
    Call<Transfer(FileHandle file, const void* bytes, std::size_t size)> writeFile;
    Call<FileLength(FileHandle file)> lengthOfFile;
    Call<ErrorNumber(FileHandle file)> closeFile;
    Call<ErrorNumber(const char* path)> createFolder;
    Call<int(const char* path)> makeFolder;
    Call<bool(const char* path)> pathExists;
    Call<int(const char* path)> removeFile;
    Call<int(const char* from, const char* to)> renameFile;
    Call<OpenedFolder(const char* folder, FolderEntry& entry)> findFirstEntry;
    Call<ErrorNumber(FolderHandle folder, FolderEntry& entry)> findNextEntry;
    Call<void(FolderHandle folder)> closeFolder;
};

/// The implementation in use. Tests replace single entries before other threads call them.
extern FileCalls fileCalls;

/// CreateFileA; open.
[[nodiscard]] inline OpenedFile openFile(const char* path, OpenMode mode) { return fileCalls.openFile(path, mode); }

/// ReadFile; read. May return fewer bytes than asked for.
[[nodiscard]] inline Transfer readFile(FileHandle file, void* buffer, std::size_t size)
{
    return fileCalls.readFile(file, buffer, size);
}

/// WriteFile; write. May write fewer bytes than asked for.
[[nodiscard]] inline Transfer writeFile(FileHandle file, const void* bytes, std::size_t size)
{
    return fileCalls.writeFile(file, bytes, size);
}

/// SetFilePointerEx to the end; lseek. Moves where a file that is open for reading is read next.
[[nodiscard]] inline FileLength lengthOfFile(FileHandle file) { return fileCalls.lengthOfFile(file); }

/// CloseHandle; close. The handle is gone also when this fails.
inline ErrorNumber closeFile(FileHandle file) { return fileCalls.closeFile(file); }

using OwnedFile = UniqueHandle<FileHandle, closeFile>;

/// CreateDirectoryA; mkdir. An existing path, whatever it is, is ErrorNumber::AlreadyExists.
[[nodiscard]] inline ErrorNumber createFolder(const char* path) { return fileCalls.createFolder(path); }

/// The C runtime's _mkdir; mkdir. Returns 0 or the C library's error number (17: it exists).
[[nodiscard]] inline int makeFolder(const char* path) { return fileCalls.makeFolder(path); }

/// stat: whether a file or folder is there.
[[nodiscard]] inline bool pathExists(const char* path) { return fileCalls.pathExists(path); }

/// The C runtime's remove; unlink. Folders are not removed. Returns 0 or the C library's number.
[[nodiscard]] inline int removeFile(const char* path) { return fileCalls.removeFile(path); }

/// The C runtime's rename; renameat2. Never replaces: an existing target is 17 (EEXIST) and leaves
/// both files as they were. Returns 0 or the C library's error number.
[[nodiscard]] inline int renameFile(const char* from, const char* to) { return fileCalls.renameFile(from, to); }

/// FindFirstFileA on everything in the folder; opendir and the first readdir. The entries "." and
/// ".." are reported too, in the system's order.
[[nodiscard]] inline OpenedFolder findFirstEntry(const char* folder, FolderEntry& entry)
{
    return fileCalls.findFirstEntry(folder, entry);
}

/// FindNextFileA; readdir. ErrorNumber::NoMoreFiles ends the walk, any other error breaks it.
[[nodiscard]] inline ErrorNumber findNextEntry(FolderHandle folder, FolderEntry& entry)
{
    return fileCalls.findNextEntry(folder, entry);
}

/// FindClose; closedir.
inline void closeFolder(FolderHandle folder) { fileCalls.closeFolder(folder); }

using OwnedFolder = UniqueHandle<FolderHandle, closeFolder>;

} // namespace platform
