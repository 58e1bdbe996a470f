#include "datapath/common/infra/InputTextFile.h"

#include "platform/Text.h"

#include <algorithm>

namespace InputTextFileInternal
{

Buffer::Buffer(const std::string& path) : m_file(platform::openFile(path.c_str(), platform::OpenMode::Read).handle) {}

Buffer::int_type Buffer::underflow()
{
    std::size_t length = 0;
    while (isOpen() && length == 0)
    {
        const std::size_t held = m_holdsCarriageReturn ? 1 : 0;
        m_characters[0] = '\r'; // the one that is held back; otherwise reading overwrites it
        const std::size_t bytes = readText(m_characters.data() + held);
        if (bytes == 0)
        {
            m_holdsCarriageReturn = false;
            length = held;
            break;
        }
        length = dropCarriageReturns(held + bytes);
    }
    setg(m_characters.data(), m_characters.data(), m_characters.data() + length);
    return length == 0 ? traits_type::eof() : traits_type::to_int_type(m_characters[0]);
}

std::size_t Buffer::readText(char* characters)
{
    if (m_isEnded)
    {
        return 0;
    }
    const auto [bytes, error] = platform::readFile(m_file.get(), characters, CHUNK);
    if (error != platform::ErrorNumber::Success)
    {
        throw std::ios_base::failure("read error"); // the stream catches it and becomes bad
    }
    const auto length = std::find_if(characters, characters + bytes, platform::endsText) - characters;
    m_isEnded = length < static_cast<std::ptrdiff_t>(bytes);
    return static_cast<std::size_t>(length);
}

std::size_t Buffer::dropCarriageReturns(std::size_t length)
{
    std::size_t kept = 0;
    for (std::size_t i = 0; i + 1 < length; ++i)
    {
        if (m_characters[i] != '\r' || m_characters[i + 1] != '\n')
        {
            m_characters[kept++] = m_characters[i];
        }
    }
    const char last = m_characters[length - 1];
    m_holdsCarriageReturn = last == '\r';
    if (!m_holdsCarriageReturn)
    {
        m_characters[kept++] = last;
    }
    return kept;
}

} // namespace InputTextFileInternal

InputTextFile::InputTextFile(const std::string& path) : BufferBase(path), std::istream(&buffer)
{
    if (!isOpen())
    {
        setstate(failbit);
    }
}
