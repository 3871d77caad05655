// libFuzzer target for the paging engine, and its model: the input picks a budget and object
// sizes, then is a program of operations (allocate, pin, move a reference along, rewrite, read,
// dismiss, deallocate, misuse, read everything back; I/O that fails, fills up, moves a few bytes
// at a time or is interrupted, reads back damaged bytes or ends early) run against a model on a
// store with a small budget. Maps and dismisses go through the plain calls or the published fast
// path. Any wrong byte, moved pinned object, wrong count or broken invariant fails; a failed
// call is allowed only while the I/O fails.
//
//   cmake --build build/fuzz --target virtualmm_fuzz && build/fuzz/fuzz/virtualmm_fuzz
//   -max_total_time=300
#include "VirtualMemoryFastPath.h"
#include "fuzz_util.h"

namespace {

using tcmalloc::PageItem;

struct Object {
    unsigned size, seed, pins;
    void* pinnedAt;
    tcmalloc::FastHold hold; // of a fast mapping while pinned, else a null count: let go by it
};
typedef std::map<unsigned long long, Object>::iterator Entry;

// The I/O seam: every call fails; a disk with room for `g_room` more bytes; reads that bring back
// one byte changed or end early; calls that move a few bytes at a time and are interrupted.
enum Fault { kNone, kFailing, kFull, kChangedRead, kShortRead, kChoppy } g_fault;
long g_room = 0;
unsigned g_calls = 0;
long seamWrite(int fd, const void* data, unsigned long count, long long offset) {
    errno = g_fault == kChoppy ? EINTR : ENOSPC;
    if (g_fault == kFailing || (g_fault == kFull && g_room <= 0) ||
        (g_fault == kChoppy && ++g_calls % 3 == 0))
        return -1;
    count = std::min<unsigned long>(count, g_fault == kChoppy ? 1000
                                           : g_fault == kFull ? g_room
                                                              : count);
    g_room -= static_cast<long>(count);
    return ::pwrite(fd, data, count, offset);
}
long seamRead(int fd, void* data, unsigned long count, long long offset) {
    errno = g_fault == kChoppy ? EINTR : EIO;
    if (g_fault == kFailing || (g_fault == kChoppy && ++g_calls % 3 == 0) ||
        (g_fault == kShortRead && ++g_calls % 2 == 0))
        return g_fault == kShortRead ? 0 : -1; // an error, or the end of the file
    const long n = ::pread(fd, data,
                           g_fault == kChoppy      ? std::min(count, 777ul)
                           : g_fault == kShortRead ? count / 2
                                                   : count,
                           offset);
    if (g_fault == kChangedRead && n > 0)
        static_cast<unsigned char*>(data)[offset % n] ^= 0x10;
    return n;
}
const tcmalloc::VirtualMemoryIo kSeam = {seamWrite, seamRead};

class PoolModel {
public:
    explicit PoolModel(unsigned long long budget)
        : m_budget(budget), m_pool(budget, "/tmp"),
          m_table(tcmalloc_VirtualMemoryPool_FastTable(&m_pool)) {
        check(m_table != nullptr, "no fast path published");
        m_pool.SetIo(&kSeam);
        g_fault = kNone;
    }

    void run(FuzzInput& in, unsigned smallest) {
        while (in.more()) {
            const unsigned op = in.byte() % 16, arg = in.byte() | in.byte() << 8;
            const bool fast = (arg & 0x4000) != 0;
            const unsigned size = arg & 0x8000 ? 9000 + arg % 30000 : 1 + arg % smallest;
            if (op < 4 || m_model.empty())
                add(size, arg);
            else
                edit(op, arg, fast, std::next(m_model.begin(), arg % m_model.size()));
            unsigned long long total = 0, modelTotal = 0, pinned = 0; // references, objects
            for (const auto& entry : m_model) {
                modelTotal += entry.second.pins;
                pinned += entry.second.pins > 0;
            }
            check(m_pool.GetOutstandingReferences(nullptr, 0, &total) == pinned &&
                      total == modelTotal && poolStats(m_pool).objectsCurrent == m_model.size(),
                  "counts");
            m_pool.Verify();
        }
        // Once the I/O works and nothing is pinned, every byte comes back and the resident bytes
        // are within the budget.
        g_fault = kNone;
        readAll();
        for (auto& entry : m_model)
            for (PageItem item{entry.first}; entry.second.pins > 0; --entry.second.pins)
                m_pool.Dismiss(item);
        check(m_pool.GetOutstandingReferences(nullptr, 0, nullptr) == 0, "unpinned");
        check(poolStats(m_pool).residentBytes <= m_budget, "back within the budget");
        m_pool.Verify();
    }

private:
    bool failing() const { return g_fault != kNone && g_fault != kChoppy; }

    void add(unsigned size, unsigned seed) {
        PageItem item{0};
        void* address = m_pool.Allocate(size, item);
        if (address == nullptr) {
            check(failing() && item.offset == 0, "allocation failed without an I/O fault");
            return;
        }
        check(m_model.count(item.offset) == 0 && reinterpret_cast<uintptr_t>(address) % 16 == 0,
              "an offset of a live object handed out again, or a block misaligned");
        fill(address, size, seed);
        const unsigned pins = seed & 0x2000 ? 1 : 0; // kept pinned, or let go at once
        m_model[item.offset] = {size, seed, pins, address, {nullptr, nullptr}};
        if (pins == 0)
            m_pool.Dismiss(item);
    }
    // Maps `it`, through the fast path first if `fast`, and checks its bytes; null only under
    // I/O faults.
    void* map(Entry it, bool fast, bool forWriting) {
        PageItem item{it->first};
        tcmalloc::FastHold hold;
        void* address =
            fast ? tcmalloc::fastMapHeld(*m_table, it->first, forWriting, hold) : nullptr;
        if (address != nullptr)
            it->second.hold = hold; // all holds of one pinned object are the same
        address = address != nullptr ? address : m_pool.GetAddress(item, forWriting);
        check(address != nullptr || (failing() && it->second.pins == 0), "a mapping failed");
        check(address == nullptr || it->second.pins == 0 || address == it->second.pinnedAt,
              "a pinned object moved");
        check(address == nullptr || holds(address, it->second.size, it->second.seed),
              "wrong bytes");
        return address;
    }
    void unmap(unsigned long long offset, bool fast) {
        PageItem item{offset};
        if (!fast || !tcmalloc::fastDismiss(*m_table, offset))
            m_pool.Dismiss(item);
    }
    void pin(Entry it, void* address) {
        ++it->second.pins;
        it->second.pinnedAt = address;
    }
    // Lets go through the hold a fast mapping left, whatever ran since, when there is one.
    void unpin(Entry it, bool fast) {
        if (it->second.hold.count == nullptr || !tcmalloc::fastRelease(*m_table, it->second.hold))
            unmap(it->first, fast);
        if (--it->second.pins == 0)
            it->second.hold.count = nullptr;
    }

    void edit(unsigned op, unsigned arg, bool fast, Entry it) {
        PageItem item{it->first};
        if (op < 6) { // pin once, or past the range of a one-byte count and most of the way back
            const unsigned n = op == 5 && (arg & 0x3000) == 0 ? 300 : 1;
            for (unsigned i = 0; i < n; ++i) {
                void* address = map(it, fast, true);
                if (address == nullptr)
                    return;
                pin(it, address);
            }
            for (unsigned i = n / 5 * 4; i > 0; --i)
                unpin(it, fast);
        } else if (op == 6) { // move a reference from a held object to the next, as a walk does
            auto from = it == m_model.begin() ? std::prev(m_model.end()) : std::prev(it);
            if (from->second.pins == 0)
                return;
            char* const wrong = static_cast<char*>(from->second.pinnedAt) + 8;
            check(tcmalloc::fastMove(*m_table, wrong, from->first, it->first, true) == nullptr,
                  "a move from an address that is not the object's"); // and it changed nothing
            void* address =
                tcmalloc::fastMove(*m_table, from->second.pinnedAt, from->first, it->first, true);
            if (address == nullptr && (address = map(it, false, true)) != nullptr)
                unmap(from->first, false);
            if (address == nullptr)
                return;
            check(holds(address, it->second.size, it->second.seed), "wrong bytes after a move");
            check(it->second.pins == 0 || address == it->second.pinnedAt, "a pinned object moved");
            pin(it, address);
            if (--from->second.pins == 0)
                from->second.hold.count = nullptr;
        } else if (op < 9) { // unpin once or entirely; a dismiss of an unpinned object is misuse
            unsigned n = op == 7 ? 1 : std::max(it->second.pins, 1u);
            for (; n > 0 && it->second.pins > 0; --n)
                unpin(it, fast);
            if (n > 0) {
                check(!fast || !tcmalloc::fastDismiss(*m_table, it->first),
                      "the fast path let go of an object nobody held");
                m_pool.Dismiss(item);
            }
        } else if (op == 9 || op == 10) { // rewrite, or read through a mapping for reading
            // A look that ends before the next call needs no mapping where the fast path has it.
            const void* seen = op == 10 && fast && (arg & 0x1000) != 0
                                   ? tcmalloc::fastPeek(*m_table, it->first)
                                   : nullptr;
            if (seen != nullptr) {
                check(holds(seen, it->second.size, it->second.seed) &&
                          (it->second.pins == 0 || seen == it->second.pinnedAt),
                      "wrong bytes or a moved object through a look");
                return;
            }
            void* address = map(it, fast, op == 9);
            if (address == nullptr)
                return;
            if (op == 9)
                fill(address, it->second.size, it->second.seed = arg);
            ++it->second.pins;
            unpin(it, fast);
        } else if (op < 13) {
            m_pool.Deallocate(item);
            m_model.erase(it);
        } else if (op == 13) { // offsets that name no object, and a size that cannot be had
            for (unsigned long long bad : {0ULL, ~0ULL, it->first + 1 + arg % 15, 1ULL << 40}) {
                PageItem wrong{bad};
                check(m_pool.GetAddress(wrong, true) == nullptr, "an object at a wrong offset");
                m_pool.Dismiss(wrong);
                m_pool.Dirty(wrong);
                m_pool.Deallocate(wrong);
            }
            PageItem huge{77};
            check(m_pool.Allocate(~0ULL, huge) == nullptr && huge.offset == 0, "a huge size");
        } else if (op == 14) {
            g_fault = static_cast<Fault>(arg % 12 < 6 ? 0u : arg % 6); // mostly none
            g_room = arg >> 3;
        } else {
            readAll();
        }
    }
    // Every object, in offset order (the page-ins read ahead): null only under I/O faults.
    void readAll() {
        for (auto it = m_model.begin(); it != m_model.end(); ++it)
            if (map(it, false, true) != nullptr)
                unmap(it->first, false);
    }

    const unsigned long long m_budget;
    tcmalloc::VirtualMemoryPool m_pool;
    tcmalloc::FastTable* m_table;
    std::map<unsigned long long, Object> m_model;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput in(data, size);
    // A small store of mixed sizes, or one of small objects, many to a span.
    const unsigned mode = in.byte();
    PoolModel(mode % 2 != 0 ? 32 * 1024 : 128 * 1024).run(in, mode % 2 != 0 ? 4096 : 48);
    return 0;
}
