#pragma once

// What the log verbs need of the system beyond src/platform. Everything here is called on the main thread.

#include "platform/Files.h"

#include <cstdint>
#include <optional>

namespace Tool
{

/// Standard input and output, as files that nobody closes.
[[nodiscard]] platform::FileHandle standardInput();
[[nodiscard]] platform::FileHandle standardOutput();

/// Two open files with the same identity are the same file, whatever their names are or become.
struct FileIdentity
{
    std::uint64_t device = 0;
    std::uint64_t number = 0;

    bool operator==(const FileIdentity&) const = default;
};

/// None if the system does not tell it.
[[nodiscard]] std::optional<FileIdentity> identityOf(platform::FileHandle file);

/// The length of a file in bytes without a move of the place that is read next; 0 if it is no plain file.
[[nodiscard]] std::uint64_t lengthOf(platform::FileHandle file);

/// Whether the write that has just failed did so because nobody reads what is written.
[[nodiscard]] bool isPipeClosed(platform::ErrorNumber error);

/// Lets the terminal of standard output show colours and UTF-8. Returns false if it cannot.
[[nodiscard]] bool enableColours();

} // namespace Tool
