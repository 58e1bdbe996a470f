#pragma once

// Finds the records in the bytes of a log. The caller puts bytes in as they come and takes records out:
//
//     LogReader reader;
//     while (const std::size_t bytes = file.read(reader.room()))
//     {
//         reader.add(bytes);
//         while (reader.next(record)) { ... }
//     }
//     reader.endFile();
//     while (reader.next(record)) { ... }
//
// A line of the log is "time,level,thread,logger,class,method,message", split at its first six commas. A line that does
// not begin like that belongs to the message of the record before it. The raw bytes of all records, one after the
// other, are the bytes that were put in.
//
// Memory: one buffer of 512 KiB, which grows to at most 32 MiB if records are that long. Not for several threads at
// once.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace Tool
{

/// The texts of the levels, most severe first.
inline constexpr std::array<std::string_view, 7> LEVEL_NAMES = {"Assert", "Fatal", "Error",  "Warn",
                                                                "Info",   "Debug", "Control"};

/// One record of a log. The texts belong to the reader, and end with the next call of it.
struct LogRecord
{
    enum class Kind
    {
        Line,   ///< a line of the program, with all fields
        Start,  ///< the start line of a run, with the empty lines before it and the header after it; time and message
        Notice, ///< the notice of the log itself that lines are dropped; time and message
        Raw     ///< what is none of these: the message is the text
    };

    static constexpr std::size_t NO_LEVEL = LEVEL_NAMES.size();

    /// The name of the level; empty if there is none.
    [[nodiscard]] std::string_view levelName() const { return level == NO_LEVEL ? "" : LEVEL_NAMES.at(level); }

    Kind kind = Kind::Raw;
    std::uint64_t run = 0;  ///< counted from 1
    std::string_view raw{}; ///< all bytes, the line end included; only the last line of a file may lack one
    std::string_view time{};
    std::size_t level = NO_LEVEL; ///< an index of LEVEL_NAMES
    std::string_view thread{};
    std::string_view logger{};
    std::string_view className{};
    std::string_view method{};
    std::string_view message{}; ///< without the last line end; with CR LF between lines if hasCrLf
    bool hasCrLf = false;       ///< the lines of this record end with CR LF
    bool isCut = false;         ///< the next record continues its last line, because the line is longer than MAX_RECORD
};

/// A record whose end is not known yet. All places are offsets in the buffer.
struct PendingRecord
{
    LogRecord::Kind kind = LogRecord::Kind::Raw;
    std::size_t begin = 0;    // of the raw bytes
    std::size_t headLine = 0; // of the first line but for empty ones before it
    std::array<std::size_t, 6> commas{};
    std::size_t level = LogRecord::NO_LEVEL;
    std::size_t message = 0;
    std::size_t messageEnd = 0; // of a start line with a header; else 0
    std::size_t lastLine = 0;   // the last line that is not empty
    std::size_t blanks = 0;     // the begin of the empty lines at the end
    std::size_t blankCount = 0;
    std::size_t blankLength = 0; // bytes of one of them
};

class LogReader
{
public:
    /// A longer record is cut. What follows are raw records.
    static constexpr std::size_t MAX_RECORD = std::size_t{8} << 20U;

    /// The size of the buffer at first, in bytes; it fits into the cache of a core.
    static constexpr std::size_t FIRST_ROOM = std::size_t{512} << 10U;

    /// Tests have smaller limits.
    explicit LogReader(std::size_t maxRecord = MAX_RECORD, std::size_t firstRoom = FIRST_ROOM);

    /// Where the next bytes go; never empty. Every record must have been taken out before.
    [[nodiscard]] std::span<char> room();

    /// Tells how many bytes were put into the room.
    void add(std::size_t bytes) { m_end += bytes; }

    /// Takes the next whole record. Returns false if more bytes are needed to know where it ends.
    [[nodiscard]] bool next(LogRecord& record);

    /// The bytes that are put in next may be those of another file. If they begin a record, the line before them ends,
    /// even without a line end. Else they continue it: some programs compress a file in pieces.
    void addSeam();

    /// The file ends here, and with it its last line. A record whose line end is missing ends, too.
    void endFile();

    /// What is known of the last record is all that there is, unless it ends within a line. Bytes of it that come later
    /// become raw records.
    void endRecord() { m_isEnding = true; }

    /// The next record begins a new run, whatever it is: it is of another log.
    void beginLog() { m_isNewLog = true; }

private:
    struct Head;

    [[nodiscard]] static Head parse(std::string_view line);
    [[nodiscard]] static bool isTornHead(std::string_view line);

    [[nodiscard]] std::optional<std::size_t> findLineEnd();
    [[nodiscard]] std::size_t endAtSeam(std::size_t end) const;
    [[nodiscard]] bool takeLine(std::size_t end, LogRecord& record);
    [[nodiscard]] bool takeHead(const Head& head, std::size_t end, LogRecord& record);
    [[nodiscard]] bool takeOther(std::string_view line, std::size_t end, LogRecord& record);
    [[nodiscard]] bool endPending(std::size_t end, LogRecord& record);
    [[nodiscard]] bool splitTornLine(LogRecord& record);
    [[nodiscard]] bool cut(LogRecord& record);
    void begin(const Head& head, std::size_t rawBegin);
    void addBlank(std::size_t end);
    void makeRecord(const PendingRecord& pending, std::size_t end, LogRecord& record);
    void countRun(LogRecord& record);
    void compact();
    [[nodiscard]] std::string_view text(std::size_t begin, std::size_t end) const
    {
        return {m_buffer.data() + begin, end - begin};
    }

    const std::size_t m_maxRecord;
    const std::size_t m_leastRoom;
    std::vector<char> m_buffer;
    std::size_t m_line = 0;           // the begin of the line that is looked at next
    std::size_t m_searched = 0;       // there is no line end between m_line and this place
    std::size_t m_end = 0;            // of the bytes
    std::vector<std::size_t> m_seams; // within the line that is looked at next, and perhaps before it
    std::optional<PendingRecord> m_pending;
    bool m_isEnding = false;     // see endRecord
    bool m_isFileEnd = false;    // the last line ends where the bytes end
    bool m_isInsideLine = false; // m_line continues a line of which a part is out already
    bool m_isNewLog = false;
    bool m_hasRecords = false; // of this run
    std::uint64_t m_run = 1;
};

} // namespace Tool
