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
// This class only reads. Loading logs what is wrong with a copy.

#include "datapath/common/infra/Mutex.h"
#include "datapath/common/infra/base/RcStatus.h"

#include <array>
#include <cstdint>
#include <iosfwd>
#include <string>

class ConsistentFile
{
public:
    static constexpr std::int32_t SLOT_COUNT = 2;

    /// What one copy is good for.
    enum class CopyState : std::uint8_t
    {
        Absent,     ///< neither the data nor the signature can be opened
        Incomplete, ///< only one of them can be opened
        Older,      ///< the number is below that of a copy that was found before, so the data were not read
        Unreadable, ///< a read of the data or of the signature failed
        Mismatched, ///< the signature states another CRC than the data have
        Valid
    };

    /// What a look finds about one copy.
    struct Copy
    {
        CopyState state = CopyState::Absent;
        bool hasData = false; ///< the file can be opened
        bool hasSignature = false;
        std::uint64_t sequence = 0;  ///< as the signature states it; 0 if there is none or the copy is incomplete
        std::uint32_t statedCrc = 0; ///< in the same way
        std::uint32_t dataCrc = 0;   ///< of the data as they are read; 0 if they were not read
        bool isCut = false;          ///< a line that is too long ends the data, which may be valid nevertheless
    };

    /// What a look finds about both copies.
    struct Look
    {
        std::array<Copy, SLOT_COUNT> copies;
        RcStatus status = RC_NOT_FOUND; ///< RC_NOT_FOUND: no file can be opened; RC_ERROR: no valid copy has a number
                                        ///< above 0
        std::int32_t latestSlot = -1;   ///< the newest copy that matches its signature, or -1
        std::int32_t nextSlot = 0;      ///< where the next copy goes
        std::uint64_t nextSequence = 1; ///< the number of the next copy; 0 if there are no more numbers
    };

    /// Looks at the copies once. The path is that of the file without a copy's number, as the operating system takes
    /// it.
    explicit ConsistentFile(std::string path);

    /// Writes the lines of the newest valid copy to the stream, each followed by a line feed. RC_OK with nothing
    /// written if there is neither a copy nor a signature. RC_ERROR if no copy that exists is valid, if the copy cannot
    /// be opened any more, or if reading it fails; in the last case the stream has its first lines. Any thread may
    /// call.
    [[nodiscard]] RcStatus load(std::ostream& text) TAVRO_EXCLUDES(m_mutex);

    /// Looks at the copies as a load does, but reads each of them, so that none is Older, and logs nothing. Any thread
    /// may call.
    [[nodiscard]] Look look() const;

    /// The number (0 or 1) and the sequence number that the next copy would have, as of the last look. Any thread may
    /// call.
    [[nodiscard]] std::int32_t nextSlot() const TAVRO_EXCLUDES(m_mutex);
    [[nodiscard]] std::uint64_t nextSequence() const TAVRO_EXCLUDES(m_mutex);

    /// The paths of a copy's two files.
    [[nodiscard]] std::string dataFileName(std::int32_t slot) const;
    [[nodiscard]] std::string signatureFileName(std::int32_t slot) const;

private:
    /// What a search does with a copy whose number is below that of one found before.
    enum class OlderCopies : std::uint8_t
    {
        AreRead,
        AreLeftOut
    };

    /// Looks at the copies and logs what it finds. Sets m_nextSequence if the status is RC_OK.
    [[nodiscard]] Look findLatestValidFileIndex() TAVRO_REQUIRES(m_mutex);

    /// Looks at the copies in their order, and calls the observer for each.
    template <class Observer> [[nodiscard]] Look search(OlderCopies older, const Observer& observe) const;

    /// Looks at one copy. One with a number below the given one is Older.
    [[nodiscard]] Copy examineCopy(std::int32_t slot, std::uint64_t lowestSequence) const;

    const std::string m_path;
    mutable Mutex m_mutex; // held during a load; the locks of log clients are taken inside it
    std::int32_t m_nextSlot TAVRO_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_nextSequence TAVRO_GUARDED_BY(m_mutex) = 1;
};
