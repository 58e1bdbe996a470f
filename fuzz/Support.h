#pragma once

// What the fuzz targets share: files in memory and an end of the process that can be lived through.

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

/// The files that exist, by their paths.
extern std::map<std::string, std::string> files;

/// Runs work that may end the process. Returns whether it would have; its last line is then one of those
/// that are meant to.
bool endsProcess(const std::function<void()>& work);

/// The lines of a text as TextLines gives them, found character by character.
std::vector<std::string> linesOf(const std::string& text);

/// IEEE 802.3, bit by bit.
std::uint32_t crc32Of(std::string_view bytes);

/// Ends the fuzzer with what went wrong.
void require(bool condition, const char* what);
