// Reads a log. The records are the same in whatever pieces its bytes come; they hold every byte, once and in order; and
// what is written as text or as CSV says what the log says. The first byte chooses the pieces.

#include "fuzz/Support.h"
#include "tools/tavro/LogOutput.h"
#include "tools/tavro/LogReader.h"

#include <algorithm>
#include <random>

namespace
{

using Tool::LogRecord;

constexpr std::size_t MUCH_ROOM = 4096; // bytes
constexpr std::size_t LITTLE_ROOM = 16;

/// A record with texts of its own.
struct Kept
{
    explicit Kept(const LogRecord& record)
        : kind(record.kind), isCut(record.isCut),
          raw(record.raw), fields{std::to_string(record.run),      std::string(record.time),
                                  std::string(record.levelName()), std::string(record.thread),
                                  std::string(record.logger),      std::string(record.className),
                                  std::string(record.method),      std::string(record.message)}
    {
        if (record.hasCrLf)
        {
            for (std::size_t end = 0; (end = fields[7].find("\r\n", end)) != std::string::npos;)
            {
                fields[7].erase(end, 1);
            }
        }
    }

    bool operator==(const Kept&) const = default;

    LogRecord::Kind kind;
    bool isCut;
    std::string raw;
    std::array<std::string, 8> fields; // in the order of CSV
};

/// Calls visit with each record of the log, whose bytes come in pieces of the sizes that pieceSize returns. isLive:
/// each record ends when the bytes at hand do, as in a file that is followed, and each piece may begin another file.
template <class PieceSize, class Visit>
void read(std::string_view log, Tool::LogReader& reader, bool isLive, PieceSize pieceSize, Visit visit)
{
    LogRecord record;
    const auto take = [&] {
        while (reader.next(record))
        {
            visit(record);
        }
    };
    while (!log.empty())
    {
        const std::span<char> room = reader.room();
        if (isLive)
        {
            reader.addSeam();
        }
        const std::size_t size = log.copy(room.data(), std::min(room.size(), pieceSize()));
        reader.add(size);
        log.remove_prefix(size);
        take();
        if (isLive)
        {
            reader.endRecord();
            take();
        }
    }
    reader.endFile();
    take();
    reader.endRecord();
    take();
}

/// The rows of a CSV file without its header, read character by character.
std::vector<std::vector<std::string>> rowsOf(std::string_view csv)
{
    std::vector<std::vector<std::string>> rows;
    bool isQuoted = false;
    bool isBegin = true;
    for (std::size_t i = csv.find('\n') + 1; i < csv.size(); ++i)
    {
        if (isBegin)
        {
            rows.emplace_back(1);
        }
        isBegin = csv[i] == '\n' && !isQuoted;
        if (csv[i] == '"')
        {
            const bool isDoubled = isQuoted && csv.substr(i + 1).starts_with('"');
            rows.back().back() += isDoubled ? "\"" : "";
            i += isDoubled ? 1 : 0;
            isQuoted = isDoubled || !isQuoted;
        }
        else if (csv[i] == ',' && !isQuoted)
        {
            rows.back().emplace_back();
        }
        else if (!isBegin)
        {
            rows.back().back() += csv[i];
        }
    }
    return rows;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const char* data, std::size_t size)
{
    if (size == 0)
    {
        return 0;
    }
    const auto longest = std::size_t{1} + static_cast<unsigned char>(*data); // of the pieces
    std::minstd_rand random(static_cast<unsigned>(longest));
    const std::string_view log(data + 1, size - 1);
    const auto whole = [&] { return log.size(); };
    const auto randomSize = [&] { return 1 + random() % longest; };
    Tool::LogOutput text(Tool::LogForm::Text, platform::FileHandle::Invalid);
    Tool::LogOutput csv(Tool::LogForm::Csv, platform::FileHandle::Invalid);
    Tool::LogOutput json(Tool::LogForm::Json, platform::FileHandle::Invalid);
    csv.begin();
    std::vector<Kept> records;
    Tool::LogReader reader(Tool::LogReader::MAX_RECORD, MUCH_ROOM);
    read(log, reader, false, whole, [&](const LogRecord& record) {
        records.emplace_back(record);
        text.write(record);
        csv.write(record);
        json.write(record);
    });

    std::vector<Kept> ofPieces;
    Tool::LogReader pieceReader(Tool::LogReader::MAX_RECORD, LITTLE_ROOM); // which it has to move and to enlarge
    read(log, pieceReader, false, randomSize, [&](const LogRecord& record) { ofPieces.emplace_back(record); });
    require(records == ofPieces, "the records depend on the pieces");
    const bool lacksEnd = !log.empty() && !log.ends_with('\n');
    require(text.waiting() == std::string(log) + (lacksEnd ? "\n" : ""), "the text is not the log");
    const std::vector<std::vector<std::string>> rows = rowsOf(csv.waiting());
    require(std::ranges::equal(rows, records, {}, {},
                               [](const Kept& record) {
                                   return std::vector<std::string>(record.fields.begin(), record.fields.end());
                               }),
            "the rows are not the records");
    require(std::ranges::count(json.waiting(), '\n') == static_cast<std::ptrdiff_t>(records.size()),
            "the objects are not as many as the records");

    for (const bool isLive : {false, true})
    {
        constexpr std::size_t SHORT = 64; // bytes; longer records are cut
        std::string raw;
        Tool::LogReader cutting(SHORT, LITTLE_ROOM);
        read(log, cutting, isLive, randomSize, [&](const LogRecord& record) { raw += record.raw; });
        require(raw == log, "bytes are lost or doubled");
    }
    return 0;
}
