#pragma once

// Files and folders. Each function stands for one system call.
//
//     const OwnedFile file(openFile(path, OpenMode::Read).handle);
//     if (file) { const Transfer transfer = readFile(file.get(), buffer.data(), buffer.size()); ... }
//
// Paths are narrow, zero-terminated and in the system's own form, with PATH_SEPARATOR (Text.h) between their parts.
// They are passed on unchanged, and so are bytes: the caller translates line ends. Every function may be called from
// any thread. Whoever opened a handle closes it, once. Started processes do not inherit open handles, and other
// programs may read, rename and delete a file while it is open here.

#include "platform/Call.h"
#include "platform/ErrorNumber.h"
#include "platform/UniqueHandle.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace platform
{

/// An open file. Whoever opened it closes it.
enum class FileHandle : std::intptr_t
{
    Invalid = -1
};

/// A listing of a folder that has been begun. Whoever began it closes it.
enum class FolderHandle : std::intptr_t
{
    Invalid = -1
};

/// What a file is opened for.
enum class OpenMode
{
    Read,     ///< the file must exist
    Append,   ///< created if missing; every write goes to the end
    CreateNew ///< for writing; nothing may have that path, or the error is AlreadyExists
};

/// The result of opening a file.
struct OpenedFile
{
    FileHandle handle; ///< Invalid on failure
    ErrorNumber error;
};

/// The result of asking for a length.
struct FileLength
{
    std::uint64_t bytes; ///< 0 on failure
    ErrorNumber error;
};

/// The result of a read or a write. A read of 0 bytes without an error means the end of the file.
struct Transfer
{
    std::size_t bytes;
    ErrorNumber error;
};

/// One name in a folder.
struct FolderEntry
{
    std::string name; ///< without the folder
    bool isFolder = false;
};

/// The result of beginning to list a folder.
struct OpenedFolder
{
    FolderHandle handle; ///< Invalid on failure
    ErrorNumber error;
};

/// The table of this header's calls, which tests replace.
struct FileCalls
{
    Call<OpenedFile(const char* path, OpenMode mode)> openFile;
    Call<Transfer(FileHandle file, void* buffer, std::size_t size)> readFile;
    Call<Transfer(FileHandle file, const void* bytes, std::size_t size)> writeFile;
    Call<FileLength(FileHandle file)> lengthOfFile;
    Call<ErrorNumber(FileHandle file)> flushFile;
    Call<ErrorNumber(FileHandle file)> closeFile;
    Call<ErrorNumber(const char* path)> createFolder;
    Call<int(const char* path)> createFolderErrno;
    Call<bool(const char* path)> pathExists;
    Call<int(const char* path)> removeFile;
    Call<int(const char* from, const char* to)> renameFile;
    Call<ErrorNumber(const char* from, const char* to)> replaceFile;
    Call<ErrorNumber(const char* path)> removeFolder;
    Call<ErrorNumber(const char* path)> flushFolder;
    Call<OpenedFile(const char* path)> lockFolder;
    Call<OpenedFolder(const char* folder, FolderEntry& entry)> findFirstEntry;
    Call<ErrorNumber(FolderHandle folder, FolderEntry& entry)> findNextEntry;
    Call<void(FolderHandle folder)> closeFolder;
};

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

/// SetFilePointerEx to the end; lseek. In a file that is open for reading, the next read begins there.
[[nodiscard]] inline FileLength lengthOfFile(FileHandle file) { return fileCalls.lengthOfFile(file); }

/// FlushFileBuffers; fsync. Returns when the file's bytes and length are on the disk and survive a loss of power.
[[nodiscard]] inline ErrorNumber flushFile(FileHandle file) { return fileCalls.flushFile(file); }

/// CloseHandle; close. The handle is closed even when this reports an error.
inline ErrorNumber closeFile(FileHandle file) { return fileCalls.closeFile(file); }

using OwnedFile = UniqueHandle<FileHandle, closeFile>;

/// CreateDirectoryA; mkdir. Creates one folder and reports the system's error: AlreadyExists if anything has that path.
[[nodiscard]] inline ErrorNumber createFolder(const char* path) { return fileCalls.createFolder(path); }

/// The C runtime's _mkdir; mkdir. Does the same as createFolder, but returns 0 or the C library's error number, which
/// is 17 (EEXIST) if anything has that path. It serves the callers whose messages quote that number.
[[nodiscard]] inline int createFolderErrno(const char* path) { return fileCalls.createFolderErrno(path); }

/// stat. Returns whether a file or folder exists.
[[nodiscard]] inline bool pathExists(const char* path) { return fileCalls.pathExists(path); }

/// The C runtime's remove; unlink. Folders are not removed. Returns 0 or the C library's error number.
[[nodiscard]] inline int removeFile(const char* path) { return fileCalls.removeFile(path); }

/// The C runtime's rename; renameat2. Returns 0 or the C library's error number. Never replaces a file: if the target
/// exists, it returns 17 (EEXIST) and leaves both files unchanged.
[[nodiscard]] inline int renameFile(const char* from, const char* to) { return fileCalls.renameFile(from, to); }

/// MoveFileExA; rename. Takes the place of a file that has the target's path, in one step: whoever opens that path
/// meanwhile gets the old file or the new one. Not for folders.
[[nodiscard]] inline ErrorNumber replaceFile(const char* from, const char* to)
{
    return fileCalls.replaceFile(from, to);
}

/// RemoveDirectoryA; rmdir. Removes an empty folder.
[[nodiscard]] inline ErrorNumber removeFolder(const char* path) { return fileCalls.removeFolder(path); }

/// Nothing on Windows, which keeps its folders in a journal; fsync of the folder. Returns when the names in the folder
/// are on the disk and survive a loss of power.
[[nodiscard]] inline ErrorNumber flushFolder(const char* path) { return fileCalls.flushFolder(path); }

/// CreateFileA of the file ".lock" in the folder, which nobody else can open meanwhile and which goes with the handle;
/// flock of the folder. Fails with SharingViolation while another handle locks the folder. The lock ends when the
/// handle is closed, and so also when the process ends in any way. The handle can only be closed.
[[nodiscard]] inline OpenedFile lockFolder(const char* path) { return fileCalls.lockFolder(path); }

/// FindFirstFileA on everything in the folder; opendir and the first readdir. Entries come in the system's order, "."
/// and ".." among them.
[[nodiscard]] inline OpenedFolder findFirstEntry(const char* folder, FolderEntry& entry)
{
    return fileCalls.findFirstEntry(folder, entry);
}

/// FindNextFileA; readdir. Returns ErrorNumber::NoMoreFiles after the last entry; after any other error the rest of the
/// folder is unknown.
[[nodiscard]] inline ErrorNumber findNextEntry(FolderHandle folder, FolderEntry& entry)
{
    return fileCalls.findNextEntry(folder, entry);
}

/// FindClose; closedir.
inline void closeFolder(FolderHandle folder) { fileCalls.closeFolder(folder); }

using OwnedFolder = UniqueHandle<FolderHandle, closeFolder>;

} // namespace platform
