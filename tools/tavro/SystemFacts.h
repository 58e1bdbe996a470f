#pragma once

// Questions about files and folders that only the operating system can answer. Nothing is changed. Main thread only.

#include <filesystem>
#include <string>
#include <vector>

namespace Tool
{

/// A narrow path, in the code page of this process, for std::filesystem, and back. On Windows the conversions of
/// std::filesystem::path itself are of another encoding.
[[nodiscard]] std::filesystem::path pathOf(const std::string& narrow);
[[nodiscard]] std::string narrowOf(const std::filesystem::path& path);

/// Whether this process has the rights of an administrator, as the checkpoint program has on Windows; on POSIX, of
/// root.
[[nodiscard]] bool isAdministrator();

/// Whether the user that runs this may write the file, or make files in the folder.
[[nodiscard]] bool mayWrite(const std::string& path);

/// Whether that user may run the file as a program.
[[nodiscard]] bool mayRun(const std::string& path);

/// Who, besides administrators and the user that runs this, may write the file or make files in the folder, such as
/// "everyone"; empty if nobody, or if the system does not tell.
[[nodiscard]] std::string otherWriters(const std::string& path);

/// The same, of who may exchange the files and folders in this folder, or the folder itself.
[[nodiscard]] std::string otherMovers(const std::string& folder);

/// Whether the file begins as a program that the system can start.
[[nodiscard]] bool isProgramFile(const std::string& path);

/// The other programs that may write into the open file, as far as this user may see them. On Windows, all that have
/// it open, without names.
[[nodiscard]] std::vector<std::string> programsThatUse(const std::string& path);

} // namespace Tool
