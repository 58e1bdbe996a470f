#include "datapath/common/infra/LogFileStream.h"

#include "platform/Text.h"

bool LogFileStream::open(const std::string& path)
{
    close();
    m_file.reset(platform::openFile(path.c_str(), platform::OpenMode::Append).handle);
    if (!isOpen())
    {
        return false;
    }
    updateLength(0);
    return true;
}

/// Asks the system for the length of the file, and takes the fallback if the system does not tell it.
void LogFileStream::updateLength(std::uint64_t fallback)
{
    const auto [bytes, error] = platform::lengthOfFile(m_file.get());
    m_length = error == platform::ErrorNumber::Success ? bytes : fallback;
}

bool LogFileStream::isLongerThan(std::uint64_t length)
{
    if (!isOpen() || m_length + m_block.size() <= length)
    {
        return false;
    }
    updateLength(m_length); // another program may have cut it
    return m_length + m_block.size() > length;
}

void LogFileStream::write(std::string_view part, bool isFirst, bool isLast)
{
    if (isFirst)
    {
        if (isFull())
        {
            flush(); // tries again: the system has refused this block before
        }
        m_isDropping = !isOpen() || isFull();
    }
    if (m_isDropping)
    {
        return;
    }
    if (m_block.size() + part.size() > BLOCK_SIZE)
    {
        flush();
    }
    append(part);
    // A text that is longer than a block does not wait for its end.
    if (isLast || m_block.size() - m_wholeLength >= BLOCK_SIZE)
    {
        m_wholeLength = m_block.size();
    }
    if (isFull())
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
    while (written < m_wholeLength)
    {
        const platform::Transfer transfer =
            platform::writeFile(m_file.get(), m_block.data() + written, m_wholeLength - written);
        if (transfer.bytes == 0)
        {
            break;
        }
        written += transfer.bytes;
    }
    if (written != 0)
    {
        updateLength(m_length + written);
    }
    m_block.erase(0, written);
    m_wholeLength -= written;
    if (m_block.capacity() > 2 * BLOCK_SIZE && m_block.size() < BLOCK_SIZE)
    {
        m_block.shrink_to_fit();
    }
    return m_wholeLength == 0;
}

void LogFileStream::close()
{
    if (isOpen())
    {
        flush();
        m_block.clear();
        m_wholeLength = 0;
        m_file.reset();
    }
}
