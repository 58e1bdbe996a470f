#pragma once

// A text file kept as two copies that are written in turn, each with a signature file that holds a sequence number and
// the CRC-32 of the copy. Reading takes the newest copy that matches its signature, and so never one that was being
// written when the machine stopped.
//
//     ConsistentFile file("settings.txt");
//     std::stringstream text;
//     if (file.load(text) == RC_OK)
//
// Copy n (0 or 1) of settings.txt is settings.txt.n, and its signature is settings.txt.n.sig. A copy consists of lines
// with at most 511 characters. A signature consists of two lines with an unsigned decimal number each: the sequence
// number, which starts at 1, and the CRC-32 (IEEE 802.3) of all lines, each followed by one line feed, including the
// last one. A carriage return before a line feed does not count.
//
// This class only reads. It logs what is wrong with a copy.

#include "datapath/common/infra/Mutex.h"
#include "datapath/common/infra/base/RcStatus.h"

#include <cstdint>
#include <iosfwd>
#include <string>

class ConsistentFile
{
public:
    /// Looks at the copies once. The path is that of the file without a copy's number, as the operating system takes
    /// it.
    explicit ConsistentFile(std::string path);

    /// Writes the lines of the newest valid copy to the stream, each followed by a line feed. RC_OK with nothing
    /// written if there is neither a copy nor a signature. RC_ERROR if no copy that exists is valid, if the copy cannot
    /// be opened any more, or if reading it fails; in the last case the stream has its first lines. Any thread may
    /// call.
    [[nodiscard]] RcStatus load(std::ostream& text) TAVRO_EXCLUDES(m_mutex);

    /// The number (0 or 1) and the sequence number that the next copy would have, as of the last look. Any thread may
    /// call.
    [[nodiscard]] std::int32_t nextSlot() const TAVRO_EXCLUDES(m_mutex);
    [[nodiscard]] std::uint64_t nextSequence() const TAVRO_EXCLUDES(m_mutex);

private:
    enum class CopyState : std::uint8_t
    {
        Absent,   // neither of its files exists
        Unusable, // a file is missing, another copy is newer, or the signature does not match
        Valid
    };
    struct Copy
    {
        CopyState state;
        std::uint64_t sequence; // 0 unless the copy is valid
    };
    struct Latest
    {
        RcStatus status;   // RC_NOT_FOUND: no file exists; RC_ERROR: no valid copy has a sequence number above 0
        std::int32_t slot; // the number of the newest copy that matches its signature, or -1
    };

    [[nodiscard]] std::string dataFileName(std::int32_t slot) const;
    [[nodiscard]] std::string signatureFileName(std::int32_t slot) const;

    /// Looks at the copies, and sets m_nextSequence if the status is RC_OK.
    [[nodiscard]] Latest findLatestValidFileIndex() TAVRO_REQUIRES(m_mutex);

    /// Looks at one copy and logs what it finds. A copy with a sequence number below the given one is not read.
    [[nodiscard]] Copy examineCopy(std::int32_t slot, std::uint64_t bestSequence) const;

    const std::int32_t m_slotCount = 2;
    const std::string m_path;
    mutable Mutex m_mutex; // held during a load; the locks of log clients are taken inside it
    std::int32_t m_nextSlot TAVRO_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_nextSequence TAVRO_GUARDED_BY(m_mutex) = 1;
};
