#include "datapath/common/infra/LogFileStream.h"

#include "platform/Text.h"

bool LogFileStream::open(const std::string& path)
{
    close();
    m_file = platform::openFile(path.c_str(), platform::OpenMode::Append).handle;
    if (!isOpen())
    {
        return false;
    }
    m_length = platform::lengthOfFile(m_file).bytes;
    return true;
}

bool LogFileStream::isLongerThan(std::uint64_t length)
{
    if (!isOpen() || m_length + m_block.size() <= length)
    {
        return false;
    }
    const auto [bytes, error] = platform::lengthOfFile(m_file); // others may have cut it
    m_length = error == platform::ErrorNumber::Success ? bytes : m_length;
    return m_length + m_block.size() > length;
}

void LogFileStream::write(std::string_view part, bool isFirst)
{
    if (m_block.size() >= BLOCK_SIZE)
    {
        flush(); // the system has refused before
    }
    if (isFirst)
    {
        m_isDropping = !isOpen() || m_block.size() >= BLOCK_SIZE;
    }
    if (m_isDropping)
    {
        return;
    }
    append(part);
    if (m_block.size() >= BLOCK_SIZE)
    {
        flush();
    }
}

void LogFileStream::append(std::string_view text)
{
    if constexpr (platform::LINE_END != "\n")
    {
        for (std::size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n'))
        {
            m_block.append(text, 0, end).append(platform::LINE_END);
            text.remove_prefix(end + 1);
        }
    }
    m_block.append(text);
}

bool LogFileStream::flush()
{
    if (!isOpen())
    {
        return false;
    }
    std::size_t written = 0;
    while (written < m_block.size())
    {
        const platform::Transfer transfer =
            platform::writeFile(m_file, m_block.data() + written, m_block.size() - written);
        if (transfer.bytes == 0)
        {
            break;
        }
        written += transfer.bytes;
    }
    m_length += written;
    m_block.erase(0, written);
    if (m_block.capacity() > 2 * BLOCK_SIZE && m_block.size() < BLOCK_SIZE)
    {
        m_block.shrink_to_fit();
    }
    return m_block.empty();
}

void LogFileStream::close()
{
    if (isOpen())
    {
        flush();
        m_block.clear();
        platform::closeFile(m_file);
        m_file = platform::FileHandle::Invalid;
    }
}
