#pragma once

// Writes the records of a log in one of three forms, through one large buffer.
//
//     LogOutput output(LogForm::Json, standardOutput());
//     output.begin();
//     output.write(record);
//     output.flush();
//
// Not for several threads at once.

#include "platform/Files.h"
#include "tools/tavro/LogReader.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace Tool
{

enum class LogForm
{
    Text, ///< the raw bytes of the records
    Csv,  ///< as RFC 4180 says, but for lines that end with a line feed alone; bytes of texts are not changed
    Json  ///< one object for each record, in a line of its own; bytes that are not UTF-8 become U+FFFD
};

class LogOutput
{
public:
    /// Thrown when nobody reads what is written.
    struct PipeClosed
    {
    };

    /// The file stays the caller's.
    LogOutput(LogForm form, platform::FileHandle file, bool hasColours = false);

    /// Writes what stands before all records.
    void begin();

    /// Throws as flush() does.
    void write(const LogRecord& record);

    /// Hands everything to the system. Throws PipeClosed, or Misuse if it cannot be written.
    void flush();

    /// What waits in the buffer.
    [[nodiscard]] std::string_view waiting() const { return m_buffer; }

private:
    void writeText(const LogRecord& record);
    void writeCsv(const LogRecord& record);
    void writeJson(const LogRecord& record);
    void appendCsv(std::string_view text);
    void appendJson(std::string_view text);
    void appendNumber(std::uint64_t number);
    [[nodiscard]] std::string_view messageOf(const LogRecord& record);

    const LogForm m_form;
    const platform::FileHandle m_file;
    const bool m_hasColours;
    std::string m_buffer;
    std::string m_message; // of a record with CR LF between its lines
};

} // namespace Tool
