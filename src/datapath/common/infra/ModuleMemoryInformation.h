#pragma once

// What an allocator of segments, a MemoryPoolImpl or the MemoryHeap, knows of one client module: a part of the program
// whose memory is accounted and limited by itself.
//
// Records are made, owned and locked by the allocator that registered the module. All figures in bytes count whole
// chunks.

#include "datapath/common/infra/SequentialRequestsManager.h"

#include <cstdint>
#include <limits>
#include <string>
#include <utility>

class ModuleMemoryInformation
{
public:
    static constexpr std::uint64_t NO_LIMIT = std::numeric_limits<std::uint64_t>::max();

    ModuleMemoryInformation(std::string name, std::uint64_t reservedBytes, std::uint64_t limitBytes,
                            ModuleMemoryInformation* parent,
                            WaitingRequestsQueue_Internal::RemovedRequests* removed = nullptr)
        : m_waiting(removed), m_name(std::move(name)), m_reservedBytes(reservedBytes), m_limitBytes(limitBytes),
          m_parent(parent)
    {
    }
    ModuleMemoryInformation(const ModuleMemoryInformation&) = delete;
    ModuleMemoryInformation& operator=(const ModuleMemoryInformation&) = delete;
    virtual ~ModuleMemoryInformation() = default;

    /// Whether the module's segments come from the MemoryHeap, and not from a pool.
    [[nodiscard]] virtual bool isHeapMemory() const { return false; }

    [[nodiscard]] const std::string& name() const { return m_name; }
    [[nodiscard]] ModuleMemoryInformation* parent() const { return m_parent; }

    /// Registered modules whose parent this is.
    [[nodiscard]] std::uint32_t numChildren() const { return m_numChildren; }

    /// Bytes that only this module can use.
    [[nodiscard]] std::uint64_t reservedBytes() const { return m_reservedBytes; }

    /// The most bytes that the module may use, or NO_LIMIT.
    [[nodiscard]] std::uint64_t limitBytes() const { return m_limitBytes; }

    /// Bytes that the module and its descendants use.
    [[nodiscard]] std::uint64_t getCurrentlyUsedBytes() const { return m_usedBytes; }

    [[nodiscard]] std::uint64_t unusedReservation() const
    {
        return m_reservedBytes > m_usedBytes ? m_reservedBytes - m_usedBytes : 0;
    }

    /// Chunks that the module may have beyond its limit: 0, because nothing grants any.
    [[nodiscard]] std::uint64_t extraChunks() const { return m_extraChunks; }

    /// How often the module was told that there is no memory: 0, because requests wait instead.
    [[nodiscard]] std::uint32_t numNAs() const { return m_numNAs; }

    [[nodiscard]] SequentialRequestsManager_Internal::ModuleInformation& waiting() { return m_waiting; }
    [[nodiscard]] const SequentialRequestsManager_Internal::ModuleInformation& waiting() const { return m_waiting; }

    // For the allocator, under its lock. Used bytes count for the module and for all its ancestors.
    void addToParent() { m_parent != nullptr ? ++m_parent->m_numChildren : 0; }
    void removeFromParent() { m_parent != nullptr ? --m_parent->m_numChildren : 0; }
    void addUsedBytes(std::uint64_t bytes)
    {
        for (ModuleMemoryInformation* module = this; module != nullptr; module = module->m_parent)
        {
            module->m_usedBytes += bytes;
        }
    }
    void subtractUsedBytes(std::uint64_t bytes)
    {
        for (ModuleMemoryInformation* module = this; module != nullptr; module = module->m_parent)
        {
            module->m_usedBytes -= bytes;
        }
    }

private:
    SequentialRequestsManager_Internal::ModuleInformation m_waiting;
    const std::string m_name;
    const std::uint64_t m_reservedBytes;
    const std::uint64_t m_limitBytes;
    std::uint64_t m_usedBytes = 0;
    std::uint64_t m_extraChunks = 0;
    std::uint32_t m_numNAs = 0;
    std::uint32_t m_numChildren = 0;
    ModuleMemoryInformation* const m_parent;
};

/// A module of the MemoryHeap: without a reservation and without a limit.
class HeapModuleMemoryInformation final : public ModuleMemoryInformation
{
public:
    HeapModuleMemoryInformation(std::string name, HeapModuleMemoryInformation* parent)
        : ModuleMemoryInformation(std::move(name), 0, NO_LIMIT, parent)
    {
    }
    [[nodiscard]] bool isHeapMemory() const override { return true; }
};
