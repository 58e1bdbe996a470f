#pragma once

// Owns a handle of this floor and closes it once.
//
//     const platform::UniqueHandle<platform::ProcessHandle, platform::closeProcess>
//     process(platform::openOwnProcess()); if (process) ...
//
// Each type of handle has the value Invalid for none. Not for several threads at once.

#include <utility>

namespace platform
{

template <class Handle, auto CLOSE> class UniqueHandle
{
public:
    UniqueHandle() = default;
    explicit UniqueHandle(Handle handle) noexcept : m_handle(handle) {}
    UniqueHandle(UniqueHandle&& other) noexcept : m_handle(std::exchange(other.m_handle, Handle::Invalid)) {}
    UniqueHandle& operator=(UniqueHandle&& other) noexcept
    {
        reset(std::exchange(other.m_handle, Handle::Invalid));
        return *this;
    }
    ~UniqueHandle() { reset(); }

    [[nodiscard]] Handle get() const noexcept { return m_handle; }
    explicit operator bool() const noexcept { return m_handle != Handle::Invalid; }

    /// Closes what is owned, then owns the other handle, if it is one.
    void reset(Handle handle = Handle::Invalid) noexcept
    {
        if (const Handle old = std::exchange(m_handle, handle); old != Handle::Invalid)
        {
            CLOSE(old);
        }
    }

private:
    Handle m_handle = Handle::Invalid;
};

} // namespace platform
