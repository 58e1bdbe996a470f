#pragma once

// What the fuzz targets share: files in memory, and an end of the process that only ends the work.

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

/// The content of the files that exist, by path.
extern std::map<std::string, std::string> files;

/// Runs work that may end the process. Returns whether it would have ended it; the last line of the log is then
/// required to be one of the failures that bad files may cause.
bool endsProcess(const std::function<void()>& work);

/// The lines of a text as TextLines returns them, but found character by character.
std::vector<std::string> linesOf(const std::string& text);

/// The CRC-32 of IEEE 802.3, computed bit by bit.
std::uint32_t crc32Of(std::string_view bytes);

/// Prints what is wrong and aborts the fuzzer if the condition is false.
void require(bool condition, const char* what);
