#pragma once

// The two signed copies of the consistent file in the working folder. The program only reads them; these functions
// examine and write them.
//
// Main thread only.

#include <ostream>
#include <string>
#include <vector>

namespace Tool
{

/// The path of the consistent file without a copy's number, from the working folder, and that of the copies' folder.
[[nodiscard]] std::string pairPath();
[[nodiscard]] std::string pairFolder();

/// Writes what is found about each copy, which of them the program reads, and where the next copy goes. Returns whether
/// a copy is broken or the program would not start. A pair that does not exist is in order.
bool writePairState(std::ostream& out, bool isJson);

/// A copy that the program does not read as it stands.
struct BrokenCopy
{
    std::string file; ///< of its data
    std::string text; ///< what is wrong with it
    bool isNewer;     ///< its number is greater than that of the copy that the program reads
};
[[nodiscard]] std::vector<BrokenCopy> brokenCopies();

/// What is to be signed, and where.
struct Signing
{
    std::string file;   ///< the text; the path is taken before the working folder changes
    std::string folder; ///< the program's working folder
    bool isForced = false;
    bool isJson = false;
};

/// Writes a text as the next copy, and its signature. Returns an exit code: FOUND if the text is not such that the
/// program would take it, which is then written to the stream. Throws Misuse if it cannot write, or if a program that
/// starts meanwhile might find no valid copy and that is not forced.
///
/// Whenever this is interrupted, even by a loss of power, a program that starts reads the whole old text or the whole
/// new one; the next signing clears away what is left. That does not hold for what is forced.
int signPair(std::ostream& out, const Signing& signing);

} // namespace Tool
