#pragma once

#include <cstdint>

namespace platform
{

namespace windows
{

// FlsAlloc, FlsGetValue, FlsSetValue.
std::uint32_t allocateThreadValue(void (*release)(void* value));
[[nodiscard]] void* threadValue(std::uint32_t index) noexcept;
void setThreadValue(std::uint32_t index, void* value) noexcept;

} // namespace windows

/// Keeps the value in the system's slot alone: mingw destroys thread_local objects before the last release runs.
template <class Owner> class ThreadValue
{
public:
    [[nodiscard]] static void* get() noexcept { return windows::threadValue(index()); }
    static void set(void* value) noexcept { windows::setThreadValue(index(), value); }

private:
    static std::uint32_t index()
    {
        static const std::uint32_t INDEX = windows::allocateThreadValue(Owner::release);
        return INDEX;
    }
};

} // namespace platform
