#pragma once

// Owns a handle of the platform and closes it once. The type of the handle has a value Invalid, which means no handle.
//
//     using OwnedProcess = UniqueHandle<ProcessHandle, closeProcess>;
//     const OwnedProcess process(openOwnProcess());
//     if (process) ...
//
// Not for several threads at once.

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
