#include "tools/tavro/LogFile.h"

#include "tools/tavro/Command.h"

#include <algorithm>
#include <array>
#include <limits>
#include <utility>
#include <vector>

#ifdef TAVRO_HAS_ZLIB
#include <zlib.h>
#endif

namespace Tool
{

namespace
{

constexpr std::string_view GZIP_MAGIC = "\x1F\x8B";

} // namespace

#ifdef TAVRO_HAS_ZLIB

/// Decompresses; a file may have several members, one after the other.
class LogFile::Gzip
{
public:
    Gzip()
    {
        constexpr int LARGEST_WINDOW = 15;
        constexpr int GZIP_ONLY = 16;
        m_isSound = inflateInit2(&m_stream, LARGEST_WINDOW + GZIP_ONLY) == Z_OK;
    }
    Gzip(const Gzip&) = delete;
    Gzip& operator=(const Gzip&) = delete;
    ~Gzip() { inflateEnd(&m_stream); }

    /// Decompresses into the room; more is called for compressed bytes and returns 0 at their end.
    template <class More> std::size_t read(std::span<char> room, const More& more)
    {
        const auto size = static_cast<uInt>(std::min<std::size_t>(room.size(), std::numeric_limits<uInt>::max()));
        m_stream.next_out = reinterpret_cast<Bytef*>(room.data());
        m_stream.avail_out = size;
        m_beginsMember = m_isBetweenMembers;
        while (m_isSound && m_stream.avail_out == size)
        {
            if (m_stream.avail_in == 0)
            {
                m_stream.next_in = reinterpret_cast<Bytef*>(m_input.data());
                m_stream.avail_in = static_cast<uInt>(more(std::span(m_input)));
            }
            if (m_stream.avail_in == 0)
            {
                m_isSound = m_isBetweenMembers;
                break;
            }
            if (m_isBetweenMembers && *m_stream.next_in == 0) // padding, as tapes have it
            {
                ++m_stream.next_in;
                --m_stream.avail_in;
                continue;
            }
            const int result = inflate(&m_stream, Z_NO_FLUSH);
            m_isBetweenMembers = result == Z_STREAM_END;
            m_beginsMember = m_beginsMember || (m_isBetweenMembers && m_stream.avail_out == size);
            m_isSound = (m_isBetweenMembers && inflateReset(&m_stream) == Z_OK) || result == Z_OK;
        }
        return size - m_stream.avail_out;
    }

    [[nodiscard]] bool isSound() const { return m_isSound; }
    [[nodiscard]] bool beginsMember() const { return m_beginsMember; }

private:
    static constexpr std::size_t INPUT_SIZE = std::size_t{128} << 10U; // bytes

    std::vector<char> m_input = std::vector<char>(INPUT_SIZE);
    z_stream m_stream{};
    bool m_isSound = false;
    bool m_isBetweenMembers = false;
    bool m_beginsMember = false; // the bytes that were read last are the first ones of a member, and not of the file
};

#else

class LogFile::Gzip
{
public:
    template <class More> std::size_t read(std::span<char> /*room*/, const More& /*more*/) { return 0; }
    [[nodiscard]] bool isSound() const { return false; }
    [[nodiscard]] bool beginsMember() const { return false; }
};

#endif

LogFile::LogFile() = default;
LogFile::LogFile(LogFile&&) noexcept = default;
LogFile& LogFile::operator=(LogFile&&) noexcept = default;
LogFile::~LogFile() = default;

bool LogFile::open(const std::string& path)
{
    *this = LogFile();
    const auto [handle, error] = platform::openFile(path.c_str(), platform::OpenMode::Read);
    m_file.reset(handle);
    m_handle = handle;
    m_error = error;
    return isOpen();
}

void LogFile::openStandardInput()
{
    *this = LogFile();
    m_handle = standardInput();
}

std::size_t LogFile::read(std::span<char> room)
{
    if (!m_isRecognised && !recognise())
    {
        return 0;
    }
    const auto plain = [this](std::span<char> into) { return readPlain(into); };
    return m_gzip ? m_gzip->read(room, plain) : readPlain(room);
}

bool LogFile::beginsMember() const { return m_gzip && m_gzip->beginsMember(); }

/// Returns false if the file has no bytes yet.
bool LogFile::recognise()
{
    while (m_ahead.size() < GZIP_MAGIC.size())
    {
        std::array<char, GZIP_MAGIC.size()> bytes{};
        const auto [count, error] = platform::readFile(m_handle, bytes.data(), bytes.size() - m_ahead.size());
        m_error = error;
        if (count == 0)
        {
            break;
        }
        m_ahead.append(bytes.data(), count);
    }
    m_isRecognised = !m_ahead.empty();
    m_gzip = m_ahead == GZIP_MAGIC ? std::make_unique<Gzip>() : nullptr;
    return m_isRecognised;
}

std::size_t LogFile::readPlain(std::span<char> room)
{
    if (!m_ahead.empty())
    {
        const std::size_t count = m_ahead.copy(room.data(), room.size());
        m_ahead.erase(0, count);
        m_position += count;
        return count;
    }
    const auto [count, error] = platform::readFile(m_handle, room.data(), room.size());
    m_error = error;
    m_position += count;
    return count;
}

std::string LogFile::fault() const
{
    if (m_error != platform::ErrorNumber::Success)
    {
        return errorText(m_error);
    }
#ifndef TAVRO_HAS_ZLIB
    return m_gzip ? "this tool was built without zlib" : "";
#else
    return m_gzip && !m_gzip->isSound() ? "the compressed data are damaged or end early" : "";
#endif
}

} // namespace Tool
