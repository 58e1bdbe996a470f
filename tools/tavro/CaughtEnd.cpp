#include "tools/tavro/CaughtEnd.h"

#include "platform/Files.h"
#include "platform/Process.h"

#include <iostream>
#include <ostream>
#include <sstream>
#include <utility>

namespace
{

struct ProcessEnd
{
};

void throwEnd() { throw ProcessEnd(); }

/// Puts a buffer in the place of a standard stream's.
class CaughtStream
{
public:
    explicit CaughtStream(std::ostream& stream) : m_stream(stream), m_original(stream.rdbuf(m_text.rdbuf())) {}
    CaughtStream(const CaughtStream&) = delete;
    CaughtStream& operator=(const CaughtStream&) = delete;
    ~CaughtStream() { m_stream.rdbuf(m_original); }

    /// The lines without the last line end.
    [[nodiscard]] std::string text() const
    {
        std::string text = m_text.str();
        while (text.ends_with('\n'))
        {
            text.pop_back();
        }
        return text;
    }

private:
    std::ostringstream m_text;
    std::ostream& m_stream;
    std::streambuf* const m_original;
};

std::string lastLineOf(const std::string& text) { return text.substr(text.rfind('\n') + 1); }

} // namespace

std::optional<Tool::End> Tool::endOf(const std::function<void()>& code)
{
    const CaughtStream out(std::cout);
    const CaughtStream error(std::cerr);
    const auto outer = std::exchange(platform::processCalls.endProcess.current, throwEnd);
    bool isEnd = false;
    try
    {
        code();
    }
    catch (const ProcessEnd&)
    {
        isEnd = true;
    }
    catch (...)
    {
        platform::processCalls.endProcess.current = outer;
        throw;
    }
    platform::processCalls.endProcess.current = outer;
    if (!isEnd)
    {
        return std::nullopt;
    }
    return End{.explanation = error.text(), .check = lastLineOf(out.text())};
}

Tool::NoFolders::NoFolders()
{
    platform::fileCalls.createFolder.current = [](const char*) { return platform::ErrorNumber::Success; };
    platform::fileCalls.createFolderErrno.current = [](const char*) { return 0; };
}

Tool::NoFolders::~NoFolders()
{
    platform::fileCalls.createFolder.current = platform::fileCalls.createFolder.original;
    platform::fileCalls.createFolderErrno.current = platform::fileCalls.createFolderErrno.original;
}
