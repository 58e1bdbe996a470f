#pragma once

#include "platform/simulated/SwitchPoint.h"

#include <atomic>
#include <concepts>

namespace platform
{

/// Like std::atomic, with a switch point before each operation. Only one thread runs at a time, so every operation is
/// sequentially consistent here whatever its order, and a weak exchange never fails spuriously.
template <class T> class Atomic
{
public:
    static constexpr bool is_always_lock_free = std::atomic<T>::is_always_lock_free;

    constexpr Atomic() noexcept = default;
    constexpr Atomic(T value) noexcept : m_value(value) {}
    Atomic(const Atomic&) = delete;
    Atomic& operator=(const Atomic&) = delete;
    ~Atomic() = default;

    [[nodiscard]] T load(std::memory_order order = std::memory_order_seq_cst) const noexcept
    {
        simulated::switchPoint();
        return m_value.load(order);
    }
    void store(T value, std::memory_order order = std::memory_order_seq_cst) noexcept
    {
        simulated::switchPoint();
        m_value.store(value, order);
    }
    T exchange(T value, std::memory_order order = std::memory_order_seq_cst) noexcept
    {
        simulated::switchPoint();
        return m_value.exchange(value, order);
    }
    template <std::same_as<std::memory_order>... Orders>
    bool compare_exchange_strong(T& expected, T value, Orders... orders) noexcept
    {
        simulated::switchPoint();
        return m_value.compare_exchange_strong(expected, value, orders...);
    }
    template <std::same_as<std::memory_order>... Orders>
    bool compare_exchange_weak(T& expected, T value, Orders... orders) noexcept
    {
        return compare_exchange_strong(expected, value, orders...);
    }
    T fetch_add(T value, std::memory_order order = std::memory_order_seq_cst) noexcept
    {
        simulated::switchPoint();
        return m_value.fetch_add(value, order);
    }
    T fetch_sub(T value, std::memory_order order = std::memory_order_seq_cst) noexcept
    {
        simulated::switchPoint();
        return m_value.fetch_sub(value, order);
    }

    operator T() const noexcept { return load(); }
    T operator=(T value) noexcept // NOLINT: as std::atomic
    {
        store(value);
        return value;
    }
    T operator++() noexcept { return static_cast<T>(fetch_add(1) + 1); }
    T operator--() noexcept { return static_cast<T>(fetch_sub(1) - 1); }
    T operator++(int) noexcept { return fetch_add(1); } // NOLINT: as std::atomic
    T operator--(int) noexcept { return fetch_sub(1); } // NOLINT: as std::atomic
    T operator+=(T value) noexcept { return static_cast<T>(fetch_add(value) + value); }
    T operator-=(T value) noexcept { return static_cast<T>(fetch_sub(value) - value); }

private:
    std::atomic<T> m_value{};
};

} // namespace platform
