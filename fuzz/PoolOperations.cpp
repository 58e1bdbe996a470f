#include "fuzz/PoolOperations.h"

#include "datapath/common/infra/GuardedMemory.h"
#include "datapath/common/infra/MemoryHelperThread.h"
#include "datapath/common/infra/MemoryPool.h"

#include <algorithm>
#include <array>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <system_error>
#include <thread>

namespace
{

constexpr std::uint64_t BLOCK = 2U << 20U;

struct Fault
{
    std::string text;
};

void expect(bool condition, const char* what)
{
    if (!condition)
    {
        throw Fault{what};
    }
}

/// Collects the messages of the pools' reports, and notes failed checks.
struct ReportClient : LoggerClient
{
    ReportClient() { Logger::instance().registerClient(this, Logger::ALL_LEVELS); }
    ~ReportClient() override { Logger::instance().unregisterClient(this); }
    void log(const std::string& line) override
    {
        static constexpr std::string_view METHOD = ",printMemoryUsage,";
        const std::lock_guard guard(m_mutex);
        if (const std::size_t method = line.find(METHOD); method != std::string::npos)
        {
            m_report += line.substr(method + METHOD.size());
        }
        m_hasFailed = m_hasFailed || line.find(",Assert,") != std::string::npos;
    }
    std::mutex m_mutex;
    std::string m_report;
    bool m_hasFailed = false;
};

/// Returns when the helper thread has executed all that was posted before.
void passHelperThread()
{
    struct Barrier : ActiveObject::Action
    {
        explicit Barrier(Semaphore& passed) : m_passed(passed) {}
        void execute() override { m_passed.signal(); }
        Semaphore& m_passed;
    };
    Semaphore passed(0);
    MemoryHelperThread::instance().enqueue(GuardedMemory::create<Barrier>({"Barrier", SourcePlace::here()}, passed));
    passed.wait();
}

enum class Growth : std::uint8_t
{
    AtOnce,
    Late,
    Fails,
    Throws,
    Alternates, ///< fails and succeeds in turn
};

/// A pool that grows as m_growth says, and knows its blocks.
class TestedPool : public MemoryPoolImpl
{
public:
    using MemoryPoolImpl::MemoryPoolImpl;

    /// Ends late growth that is under way, if there is any, with that status, on a thread of its own.
    void settle(RcStatus status)
    {
        std::thread([&] { answer(status); }).join();
        passHelperThread();
    }

    /// As registerModule, while another thread ends late growth with that status.
    ModuleMemoryInformation* registerSettling(const ModuleSettings& settings, RcStatus status)
    {
        std::atomic<bool> isOver = false;
        std::thread settler([&] {
            for (; !isOver; m_asked.wait())
            {
                answer(status);
            }
        });
        ModuleMemoryInformation* const module = registerModule(settings);
        isOver = true;
        m_asked.signal();
        settler.join();
        passHelperThread();
        return module;
    }

    [[nodiscard]] bool isGrowing()
    {
        const std::lock_guard guard(m_mutex);
        return m_pending.has_value();
    }

    Growth m_growth = Growth::AtOnce;
    std::atomic<bool> m_hasGrowthFailed = false; // at the last attempt
    std::set<const char*> m_blocks;

private:
    struct Pending
    {
        FutureInternal::Future<RcStatus> future;
        std::uint32_t size;
        char*& memory;
    };

    FutureInternal::Future<RcStatus> allocateSingleAllocation(std::uint32_t size, char*& memory) override
    {
        m_hasGrowthFailed = m_growth == Growth::Fails || m_growth == Growth::Throws ||
                            (m_growth == Growth::Alternates && !m_hasGrowthFailed);
        if (m_growth == Growth::Throws)
        {
            throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
        }
        if (m_hasGrowthFailed)
        {
            return FutureInternal::Future<RcStatus>::ready(RC_ABORTED);
        }
        const std::lock_guard guard(m_mutex);
        if (m_growth == Growth::Late)
        {
            m_pending.emplace(Pending{.future = {}, .size = size, .memory = memory});
            m_asked.signal();
            return m_pending->future;
        }
        return take(size, memory);
    }

    void releaseSingleAllocation(char* memory, std::uint32_t size) override
    {
        expect(m_blocks.erase(memory) == 1, "a block is released that is none");
        MemoryPoolImpl::releaseSingleAllocation(memory, size);
    }

    FutureInternal::Future<RcStatus> take(std::uint32_t size, char*& memory)
    {
        auto done = MemoryPoolImpl::allocateSingleAllocation(size, memory);
        m_blocks.insert(memory);
        return done;
    }

    void answer(RcStatus status)
    {
        std::optional<Pending> pending;
        {
            const std::lock_guard guard(m_mutex);
            if (!m_pending)
            {
                return;
            }
            pending.emplace(*m_pending);
            m_pending.reset();
            m_hasGrowthFailed = status != RC_OK;
            if (status == RC_OK)
            {
                static_cast<void>(take(pending->size, pending->memory));
            }
        }
        pending->future.set(status);
    }

    std::mutex m_mutex; // guards the blocks and what is pending
    std::optional<Pending> m_pending;
    Semaphore m_asked{0};
};

struct Module
{
    std::string name;
    std::uint64_t reserved;
    std::uint64_t limit;
    Module* parent;
    ModuleMemoryInformation* info = nullptr;
};

struct Holding
{
    Module* module;
    std::uint32_t bytes;
    bool isAppended; // the buffer begins with a segment that is not the pool's
    std::unique_ptr<ScatteredBuf> buffer = std::make_unique<ScatteredBuf>();
    FutureInternal::Future<RcStatus> future = FutureInternal::Future<RcStatus>::ready(RC_OK);
    std::list<MemorySegment> segments{}; // filled when the request is complete
    bool isComplete = false;
};

/// The value that is written into a byte of a segment.
char stampOf(const MemorySegment& segment, std::uint64_t offset)
{
    return static_cast<char>(reinterpret_cast<std::uintptr_t>(segment.buffer) / 512 * 31 + segment.sizeBytes +
                             offset * 7 + 1);
}

/// Visits the bytes that are written: the first ones, some in between and the last one.
template <class Visit> void visitStamps(const MemorySegment& segment, const Visit& visit)
{
    for (std::uint64_t offset = 0; offset < segment.sizeBytes; offset += offset < 32 ? 1 : 8192)
    {
        visit(segment.buffer[offset], stampOf(segment, offset));
    }
    visit(segment.buffer[segment.sizeBytes - 1], stampOf(segment, segment.sizeBytes - 1));
}

void expectStamps(const MemorySegment& segment)
{
    visitStamps(segment, [](char byte, char stamp) { expect(byte == stamp, "a segment does not keep its bytes"); });
}

class PoolModel
{
public:
    PoolModel(std::uint32_t chunk, std::uint64_t maxPoolSize)
        : m_pool({.chunkSize = chunk, .maxPoolSize = maxPoolSize}), m_chunk(chunk),
          m_largest((maxPoolSize + BLOCK - 1) / BLOCK * BLOCK)
    {
    }

    void registerModule(unsigned name, std::uint64_t reserved, std::uint64_t limit, unsigned parentChoice,
                        RcStatus lateAnswer)
    {
        Module module{.name = {static_cast<char>('a' + name)},
                      .reserved = (reserved + m_chunk - 1) / m_chunk * m_chunk,
                      .limit = limit == NO_LIMIT ? limit : limit / m_chunk * m_chunk,
                      .parent = parentChoice < m_modules.size() ? m_modules[parentChoice].get() : nullptr};
        const std::uint64_t freeBefore = m_pool.usage().free;
        const std::uint64_t taken = m_pool.m_blocks.size() * BLOCK - freeBefore;
        const bool isWrong =
            std::ranges::any_of(m_modules, [&](const auto& other) { return other->name == module.name; }) ||
            module.limit == 0 || module.reserved > module.limit ||
            (module.parent != nullptr && (module.parent->reserved != 0 || module.parent->limit != NO_LIMIT)) ||
            (reserved != 0 && module.reserved + taken > m_largest);
        const bool wasGrowing = m_pool.isGrowing();
        module.info = m_pool.registerSettling({.name = module.name,
                                               .reservedBytes = reserved,
                                               .limitBytes = limit,
                                               .parent = module.parent == nullptr ? nullptr : module.parent->info},
                                              lateAnswer);
        const bool isFree = module.reserved <= freeBefore;
        expect(module.info == nullptr || !isWrong, "a wrong module is registered");
        if (!wasGrowing && m_pool.m_growth != Growth::Late && m_pool.m_growth != Growth::Alternates)
        {
            const bool isPossible = !isWrong && (isFree || m_pool.m_growth == Growth::AtOnce);
            expect((module.info != nullptr) == isPossible, "a module is refused, or registered without memory");
        }
        if (module.info != nullptr)
        {
            m_modules.push_back(std::make_unique<Module>(module));
        }
    }

    void unregisterModule(unsigned choice)
    {
        if (m_modules.empty())
        {
            return;
        }
        const auto entry = std::next(m_modules.begin(), static_cast<std::ptrdiff_t>(choice % m_modules.size()));
        Module* const module = entry->get();
        const auto isOut = [&](const Holding& holding) {
            return holding.module == module && !holding.segments.empty();
        };
        const bool isPossible = std::ranges::none_of(m_holdings, isOut) &&
                                std::ranges::none_of(m_modules, [&](auto& other) { return other->parent == module; });
        expect(m_pool.unregisterModule(*module->info) == isPossible, "unregistering");
        if (isPossible)
        {
            std::erase_if(m_holdings, [&](const Holding& holding) {
                if (holding.module != module)
                {
                    return false;
                }
                expect(holding.future.get() == RC_ABORTED, "a request survives its module");
                expect(holding.buffer->getSegments().size() == (holding.isAppended ? 1U : 0U) &&
                           holding.buffer->totalBytes() == (holding.isAppended ? 1U : 0U),
                       "the buffer of an aborted request");
                return true;
            });
            m_modules.erase(entry);
        }
    }

    void request(unsigned choice, std::uint32_t bytes, bool isAppended)
    {
        if (m_modules.empty())
        {
            return;
        }
        Holding& holding = m_holdings.emplace_back(
            Holding{.module = m_modules[choice % m_modules.size()].get(), .bytes = bytes, .isAppended = isAppended});
        if (isAppended)
        {
            holding.buffer->append({.sizeBytes = 1, .buffer = nullptr, .owner = nullptr});
        }
        holding.future = m_pool.requestMemory(*holding.module->info, bytes, *holding.buffer, m_holdings.size());
    }

    /// Gives back one segment of a complete holding, or all its segments from an index on. Returns false if no holding
    /// is complete.
    bool giveBack(unsigned choice, unsigned index, bool isSingle)
    {
        std::vector<Holding*> complete;
        for (Holding& holding : m_holdings)
        {
            holding.isComplete ? complete.push_back(&holding) : void();
        }
        if (complete.empty())
        {
            return false;
        }
        std::list<MemorySegment>& segments = complete[choice % complete.size()]->segments;
        index %= static_cast<unsigned>(segments.size()) + (isSingle ? 0 : 1);
        const auto first = std::next(segments.begin(), index);
        const auto last = isSingle ? std::next(first) : segments.end();
        std::for_each(first, last, expectStamps);
        isSingle ? m_pool.freeSegment(*first) : m_pool.freeSegments(segments, static_cast<std::int32_t>(index));
        expect(std::all_of(first, last, [](const MemorySegment& segment) { return segment.buffer == nullptr; }),
               "a segment that was given back has a buffer");
        segments.erase(first, last);
        std::erase_if(m_holdings,
                      [](const Holding& holding) { return holding.isComplete && holding.segments.empty(); });
        return true;
    }

    void releaseUnused()
    {
        std::set<const char*> inUse;
        forSegments([&](const MemorySegment& segment) { inUse.insert(blockOf(segment)); });
        const std::uint64_t unused = m_pool.m_blocks.size() - inUse.size();
        const std::uint64_t expected = std::min(unused, m_pool.usage().free / BLOCK) * BLOCK;
        expect(m_pool.releaseUnused() == expected, "what releaseUnused gives back");
    }

    [[nodiscard]] std::size_t numHoldings() const { return m_holdings.size(); }
    void settle(RcStatus status) { m_pool.settle(status); }
    void setGrowth(Growth growth) { m_pool.m_growth = growth; }

    [[nodiscard]] MemoryPoolImpl& pool() { return m_pool; }

    /// Writes the lines that the pool's report must have.
    void expectReport(std::ostream& report) const
    {
        const auto [gross, net] = used();
        report << "Memory POOL:  m_usedMemoryGross=" << gross << "  m_usedMemoryNet=" << net << "  free=" << free()
               << "\n";
        std::map<std::string, std::string> lines;
        for (const auto& module : m_modules)
        {
            std::ostringstream line;
            const std::ptrdiff_t pending = std::ranges::count_if(m_holdings, [&](const Holding& holding) {
                return holding.module == module.get() && !holding.isComplete;
            });
            line << module->name << ":";
            module->reserved != 0 ? line << " reserved=" << module->reserved : line;
            module->limit != NO_LIMIT ? line << " limit=" << module->limit : line;
            line << " used=" << usedBy(*module);
            pending != 0 ? line << " pending=" << pending : line;
            lines[module->name] = line.str() + "\n";
        }
        for (const auto& [name, line] : lines)
        {
            report << line;
        }
    }

    [[nodiscard]] MemoryPoolImpl::Usage usage() const
    {
        const auto [gross, net] = used();
        return {gross, net, free()};
    }

    /// Takes over the segments of requests that have become complete, then compares the pool with the model.
    void check()
    {
        std::set<const Module*> waiting;
        bool isAnyWaiting = false; // for memory that any module may get
        for (Holding& holding : m_holdings)
        {
            const bool wasComplete = holding.isComplete;
            checkHolding(holding, waiting);
            const Module& module = *holding.module;
            isAnyWaiting = isAnyWaiting || (!holding.isComplete && ownBytes(module) != module.limit);
            // Growth that alternates fails for the first request and may serve the second one.
            expect(wasComplete || !holding.isComplete || holding.segments.empty() || module.reserved != 0 ||
                       !isAnyWaiting || m_pool.m_growth == Growth::Alternates,
                   "a request overtakes that of another module");
        }
        std::erase_if(m_holdings,
                      [](const Holding& holding) { return holding.isComplete && holding.segments.empty(); });
        std::set<const char*> chunks;
        forSegments([&](const MemorySegment& segment) {
            expect(chunks.insert(segment.buffer).second, "two segments share a chunk");
            expect(static_cast<std::uint64_t>(segment.buffer - blockOf(segment)) % m_chunk == 0,
                   "a segment begins inside a chunk");
        });
        const MemoryPoolImpl::Usage seen = m_pool.usage();
        const MemoryPoolImpl::Usage expected = usage();
        expect(seen.gross == expected.gross, "gross");
        expect(seen.net == expected.net, "net");
        expect(seen.free == expected.free, "free");
        expect(m_pool.checkInvariants(), "invariants");
        for (const auto& module : m_modules)
        {
            const std::uint64_t own = ownBytes(*module);
            expect(own <= module->limit, "a module is above its limit");
            expect(module->info->getCurrentlyUsedBytes() == usedBy(*module), "what a module uses");
            if (waiting.contains(module.get()))
            {
                expect(usedBy(*module) >= module->reserved, "a module waits for its own reservation");
                const bool canGrow = m_pool.m_blocks.size() * BLOCK < m_largest;
                expect(own == module->limit || seen.free == 0, "a module waits beside free memory");
                expect(own == module->limit || !canGrow || m_pool.isGrowing() || m_pool.m_hasGrowthFailed,
                       "a module waits where the pool could grow");
            }
        }
    }

    /// Lets growth succeed, and gives everything back until nothing is left.
    void finish()
    {
        setGrowth(Growth::AtOnce);
        settle(RC_OK);
        request(0, 1, false); // growth that has failed is tried again
        check();
        while (giveBack(0, 0, false))
        {
            check();
        }
        // Only a request above its module's limit still waits, and with it the later ones of that module, unless the
        // demand exceeds what the pool can have.
        std::set<const Module*> stuck;
        std::uint64_t demand = 0;
        for (const auto& module : m_modules)
        {
            demand += module->reserved;
        }
        for (const Holding& holding : m_holdings)
        {
            demand += wholeChunks(holding);
        }
        for (const Holding& holding : m_holdings)
        {
            wholeChunks(holding) > holding.module->limit ? static_cast<void>(stuck.insert(holding.module)) : void();
            expect(demand > m_largest || stuck.contains(holding.module), "a request waits for nothing");
        }
        for (unsigned choice = 0; !m_modules.empty(); ++choice)
        {
            unregisterModule(choice);
            check();
            while (giveBack(0, 0, false))
            {
                check();
            }
        }
        releaseUnused();
        expect(m_pool.m_blocks.empty(), "blocks are left");
    }

private:
    static constexpr std::uint64_t NO_LIMIT = ModuleMemoryInformation::NO_LIMIT;

    template <class Visit> void forSegments(const Visit& visit) const
    {
        for (const Holding& holding : m_holdings)
        {
            for (const MemorySegment& segment : holding.isComplete ? holding.segments : holding.buffer->getSegments())
            {
                segment.owner != nullptr ? visit(segment) : void();
            }
        }
    }

    [[nodiscard]] const char* blockOf(const MemorySegment& segment) const
    {
        const auto after = m_pool.m_blocks.upper_bound(segment.buffer);
        expect(after != m_pool.m_blocks.begin() && segment.buffer < *std::prev(after) + BLOCK, "a foreign segment");
        return *std::prev(after);
    }

    [[nodiscard]] std::uint64_t wholeChunks(const Holding& holding) const
    {
        return (std::uint64_t{holding.bytes} + m_chunk - 1) / m_chunk * m_chunk;
    }

    [[nodiscard]] std::uint64_t ownBytes(const Module& module) const
    {
        std::uint64_t own = 0;
        forSegments([&](const MemorySegment& segment) { own += segment.owner == module.info ? m_chunk : 0; });
        return own;
    }

    /// The bytes that the module and those below it use.
    [[nodiscard]] std::uint64_t usedBy(const Module& module) const
    {
        std::uint64_t bytes = ownBytes(module);
        for (const auto& other : m_modules)
        {
            bytes += other->parent == &module ? usedBy(*other) : 0;
        }
        return bytes;
    }

    [[nodiscard]] std::pair<std::uint64_t, std::uint64_t> used() const
    {
        std::uint64_t gross = 0;
        std::uint64_t net = 0;
        forSegments([&](const MemorySegment& segment) {
            gross += m_chunk;
            net += segment.sizeBytes;
        });
        return {gross, net};
    }

    [[nodiscard]] std::uint64_t free() const
    {
        std::uint64_t taken = used().first;
        for (const auto& module : m_modules)
        {
            taken += module->reserved - std::min(module->reserved, usedBy(*module));
        }
        return m_pool.m_blocks.size() * BLOCK - taken;
    }

    void checkHolding(Holding& holding, std::set<const Module*>& waiting) const
    {
        if (holding.isComplete)
        {
            return;
        }
        std::list<MemorySegment>& segments = holding.buffer->getSegments();
        const auto first = std::next(segments.begin(), holding.isAppended ? 1 : 0);
        std::uint64_t bytes = 0;
        for (auto segment = first; segment != segments.end(); ++segment)
        {
            bytes += segment->sizeBytes;
            expect(segment->owner == holding.module->info, "the owner of a segment");
            expect(segment->sizeBytes == m_chunk || bytes == holding.bytes, "a segment is not a whole chunk");
        }
        expect(holding.future.isSet() == (bytes == holding.bytes), "a request is complete without all of its bytes");
        if (!holding.future.isSet())
        {
            expect(waiting.insert(holding.module).second ? true : bytes == 0, "a later request holds something");
            return;
        }
        expect(holding.future.get() == RC_OK, "the result of a request");
        expect(bytes == 0 || !waiting.contains(holding.module), "a request overtakes another one of its module");
        holding.segments.splice(holding.segments.end(), segments, first, segments.end());
        holding.isComplete = true;
        for (const MemorySegment& segment : holding.segments)
        {
            visitStamps(segment, [](char& byte, char stamp) { byte = stamp; });
        }
    }

    TestedPool m_pool;
    const std::uint64_t m_chunk;
    const std::uint64_t m_largest;
    std::vector<std::unique_ptr<Module>> m_modules;
    std::list<Holding> m_holdings; // in the order of the requests
};

class Driver
{
public:
    explicit Driver(std::string_view bytes) : m_bytes(bytes)
    {
        m_chunk = static_cast<std::uint32_t>(BLOCK >> (1 + next() % 4));
        for (auto& model : m_models)
        {
            model = std::make_unique<PoolModel>(m_chunk, next() % 9 << 20U);
        }
        std::ranges::sort(m_models); // by address, in which order reports list them
    }

    void run()
    {
        while (!m_bytes.empty())
        {
            step();
            checkAll();
        }
        for (auto& model : m_models)
        {
            model->finish();
        }
        checkAll();
        for (const auto& [from, to] : std::set(m_attached))
        {
            expect(m_models[from]->pool().detachSubPool(m_models[to]->pool()), "detaching at the end");
        }
        m_models = {};
        expect(!m_client.m_hasFailed, "a check has failed");
    }

    /// Never destroys the pools, which nobody can trust after a fault.
    void leave()
    {
        std::ranges::for_each(m_models, [](auto& model) { static_cast<void>(model.release()); });
    }

private:
    static constexpr std::size_t POOLS = 3;

    unsigned next()
    {
        const unsigned byte = m_bytes.empty() ? 0 : static_cast<unsigned char>(m_bytes.front());
        m_bytes.remove_prefix(m_bytes.empty() ? 0 : 1);
        return byte;
    }

    void checkAll()
    {
        std::ranges::for_each(m_models, [](auto& model) { model->check(); });
    }

    void step()
    {
        const unsigned operation = next();
        const unsigned index = operation / 16 < 11 ? 0 : operation % POOLS; // mostly the first pool
        PoolModel& model = *m_models[index];
        static constexpr std::array LATE_ANSWERS = {RC_OK, RC_OK, RC_ABORTED, RC_TIME_OUT};
        switch (operation % 16)
        {
        case 0:
        case 1:
        {
            const unsigned name = next();
            const unsigned sizes = next();
            const std::uint64_t limit = sizes % 16 < 6 ? ModuleMemoryInformation::NO_LIMIT : sizes % 16 * m_chunk / 3;
            const std::uint64_t reserved = sizes / 16 < 6 ? 0 : (sizes / 16 - 5) * m_chunk / 2;
            model.registerModule(name % 6, reserved, limit, name / 6 % 12, LATE_ANSWERS[name % 4]);
            break;
        }
        case 2:
            model.unregisterModule(next());
            break;
        case 3:
            model.releaseUnused();
            break;
        case 4:
        {
            const unsigned growth = next();
            model.setGrowth(growth % 8 < 5 ? Growth{static_cast<std::uint8_t>(growth % 8)} : Growth::AtOnce);
            break;
        }
        case 5:
        case 6:
            model.settle(LATE_ANSWERS[next() % 4]);
            break;
        case 7:
            changeSubPools(index, next());
            break;
        case 8:
        case 9:
        case 10:
        case 11:
        {
            const unsigned size = next();
            const unsigned choice = next();
            if (model.numHoldings() < 40) // because each step checks all of them
            {
                model.request(choice / 2, size * m_chunk / 32 + size % 5, choice % 2 != 0);
            }
            break;
        }
        default:
            const unsigned segment = next();
            model.giveBack(segment / 8, segment, operation % 2 == 0);
            break;
        }
    }

    void changeSubPools(std::size_t from, unsigned choice)
    {
        const std::size_t to = choice / 4 % POOLS;
        MemoryPoolImpl& pool = m_models[from]->pool();
        MemoryPoolImpl& other = m_models[to]->pool();
        if (choice % 4 == 0)
        {
            const bool isPossible = !canReach(to, from) && !m_attached.contains({from, to});
            expect(pool.attachSubPool(other) == isPossible, "attaching a sub-pool");
            isPossible ? static_cast<void>(m_attached.emplace(from, to)) : void();
        }
        else if (choice % 4 == 1)
        {
            expect(pool.detachSubPool(other) == (m_attached.erase({from, to}) != 0), "detaching a sub-pool");
        }
        else
        {
            std::ostringstream expected;
            expectReport(expected, from);
            m_client.m_report.clear();
            pool.printMemoryUsage();
            expect(m_client.m_report == expected.str(), "report");
        }
    }

    [[nodiscard]] bool canReach(std::size_t from, std::size_t to) const
    {
        return from == to || std::ranges::any_of(m_attached, [&](const auto& edge) {
                   return edge.first == from && canReach(edge.second, to);
               });
    }

    void expectReport(std::ostream& report, std::size_t index) const
    {
        m_models[index]->expectReport(report);
        std::uint64_t totalFree = 0;
        std::uint64_t totalUsed = 0;
        std::uint64_t totalFrag = 0;
        std::uint64_t maxFree = 0;
        std::uint64_t maxUsed = 0;
        for (std::size_t sub = 0; sub < POOLS; ++sub)
        {
            if (m_attached.contains({index, sub}))
            {
                expectReport(report, sub);
                const auto [gross, net, free] = m_models[sub]->usage();
                totalFree += free;
                totalUsed += gross;
                totalFrag += gross - net;
                maxFree = std::max(maxFree, free);
                maxUsed = std::max(maxUsed, gross);
            }
        }
        report << "subMemPools: totalFree=" << totalFree << "  totalUsed=" << totalUsed << "  totalFrag=" << totalFrag
               << "  maxFree=" << maxFree << "  maxUsed=" << maxUsed << " \n";
    }

    std::string_view m_bytes;
    std::uint32_t m_chunk = 0;
    ReportClient m_client;
    std::array<std::unique_ptr<PoolModel>, POOLS> m_models;
    std::set<std::pair<std::size_t, std::size_t>> m_attached;
};

} // namespace

std::string poolFaultOf(std::string_view bytes)
{
    Driver driver(bytes);
    try
    {
        driver.run();
        return {};
    }
    catch (const Fault& fault)
    {
        driver.leave();
        return fault.text;
    }
}
