#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace platform
{

class NativeSemaphore
{
public:
    explicit NativeSemaphore(std::uint32_t count) : m_count(count) {}

    void post();
    void wait();

    /// Waits at most durationMs, 0 for not at all. Returns whether it took one.
    [[nodiscard]] bool waitFor(std::uint32_t durationMs);

private:
    std::mutex m_mutex; // guards the count
    std::condition_variable m_posted;
    std::uint32_t m_count;
};

/// Throws std::system_error when the system has no event to give.
class NativeEvent
{
public:
    NativeEvent();
    NativeEvent(const NativeEvent&) = delete;
    NativeEvent& operator=(const NativeEvent&) = delete;
    ~NativeEvent();

    void set() noexcept;
    void wait() noexcept;

    /// Waits at most durationMs. Returns whether the event let it pass.
    [[nodiscard]] bool waitFor(std::uint32_t durationMs) noexcept;

private:
    void* m_handle;
};

} // namespace platform
