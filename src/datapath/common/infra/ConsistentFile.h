#pragma once

// A text file kept as two copies that are written in turn, each with a signature file that holds a
// sequence number and the CRC-32 of the copy. Reading takes the newest copy whose signature matches,
// so one that was being written when the machine stopped is never taken.
//
//     ConsistentFile file("settings.txt");
//     std::stringstream text;
//     if (file.load(text) == RC_OK)
//
// Copy n (0 or 1) of settings.txt is settings.txt.n, its signature settings.txt.n.sig. A copy is text
// of lines with at most 511 characters. A signature is two lines of unsigned decimal numbers: the
// sequence number, from 1 on, and the CRC-32 (IEEE 802.3) over every line of the copy followed by one
// line feed, the last line too. A carriage return before a line feed does not count.
//
// Copies are only read here. What is wrong with a copy is logged.

#include "datapath/common/infra/Mutex.h"
#include "datapath/common/infra/RcStatus.h"

#include <cstdint>
#include <iosfwd>
#include <string>

class ConsistentFile
{
public:
    /// Looks at the copies once. The path, narrow and the system's own, is that of the file without the copy's number.
    explicit ConsistentFile(std::string path);

    /// Writes the lines of the newest valid copy to the stream, each followed by a line feed. RC_OK also
    /// when there is neither a copy nor a signature, with nothing written; RC_ERROR when there is no valid
    /// copy among those that exist, when it cannot be opened any more, or when reading it fails, in which case
    /// the stream has only its first lines. Any thread may call.
    [[nodiscard]] RcStatus load(std::ostream& text) EXCLUDES(m_mutex);

    /// Sets latestSlot to the number of the newest copy that matches its signature, or -1. RC_NOT_FOUND when
    /// no file exists, RC_ERROR when no copy matches, or only one with the sequence number 0. Neither this nor
    /// what follows may be called while a load runs.
    [[nodiscard]] RcStatus findLatestValidFileIndex(std::int32_t& latestSlot);

    [[nodiscard]] std::string dataFileName(std::int32_t slot) const;
    [[nodiscard]] std::string signatureFileName(std::int32_t slot) const;

    /// Where a further copy would go, and its sequence number, as of the last look.
    [[nodiscard]] std::int32_t nextSlot() const { return m_nextSlot; }
    [[nodiscard]] std::uint64_t nextSequence() const { return m_nextSequence; }

private:
    const std::int32_t m_slotCount = 2;
    const std::string m_path;
    std::int32_t m_nextSlot = 0;
    std::uint64_t m_nextSequence = 1;
    Mutex m_mutex; // lets one load run at a time; what log clients take is taken inside it
};
