#pragma once

// A text that grows at its end, for what is formatted often: appending a short text costs about as much as copying it.
//
//     LineText text;
//     text.append("copied files=");
//     text.append(files);
//     send(text.view());
//     text.clear();
//
// A text has no limit. Its memory comes from the system heap; std::bad_alloc leaves the text as it was. Not for several
// threads at once.

#include <algorithm>
#include <charconv>
#include <concepts>
#include <cstddef>
#include <memory>
#include <string_view>
#include <utility>

class LineText
{
public:
    static constexpr std::size_t MAX_KEPT = std::size_t{64} * 1024;

    [[nodiscard]] std::string_view view() const { return {m_begin.get(), size()}; }

    void append(std::string_view text)
    {
        char* const place = reserve(text.size());
        setEnd(place + text.copy(place, text.size()));
    }

    /// In decimal.
    template <std::integral T> void append(T number)
    {
        constexpr std::size_t MAX_DIGITS = 24;
        char* const place = reserve(MAX_DIGITS);
        setEnd(std::to_chars(place, place + MAX_DIGITS, number).ptr);
    }

    /// Returns the end of the text, where that many bytes may be written before setEnd.
    [[nodiscard]] char* reserve(std::size_t length)
    {
        if (length >= static_cast<std::size_t>(m_limit - m_end)) [[unlikely]] // also while there is no memory
        {
            grow(length);
        }
        return m_end;
    }

    /// Takes what was written from the place that reserve returned up to a new end.
    void setEnd(char* end) { m_end = end; }

    /// Keeps the memory for the next text, up to MAX_KEPT bytes.
    void clear()
    {
        if (static_cast<std::size_t>(m_limit - m_begin.get()) > MAX_KEPT) [[unlikely]]
        {
            *this = LineText();
        }
        m_end = m_begin.get();
    }

private:
    static constexpr std::size_t USUAL_SIZE = 512; // bytes

    [[nodiscard]] std::size_t size() const { return static_cast<std::size_t>(m_end - m_begin.get()); }

    [[gnu::noinline]] void grow(std::size_t length)
    {
        const std::size_t kept = size();
        const std::size_t capacity = std::max(USUAL_SIZE, 2 * (kept + length));
        std::unique_ptr<char[]> larger(new char[capacity]);
        std::copy_n(m_begin.get(), kept, larger.get());
        m_begin = std::move(larger);
        m_end = m_begin.get() + kept;
        m_limit = m_begin.get() + capacity;
    }

    std::unique_ptr<char[]> m_begin;
    char* m_end = nullptr;   // of the text
    char* m_limit = nullptr; // the end of the memory
};
