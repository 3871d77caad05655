#include "SpanMemory.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <sys/mman.h>
#include <utility>
#include <vector>

namespace tcmalloc {

namespace {
// Largest arena a store reserves (64 GiB): beyond it runs come from the process heap.
const unsigned long long kMostArenaPages = 1ULL << 23;
} // namespace

char* mapReserved(std::size_t bytes, bool huge) {
    // For a huge mapping, one huge page more than asked for, so that a boundary lies inside;
    // the ends are cut off.
    const std::size_t extra = huge ? kHugePageBytes : 0;
    void* mapping = ::mmap(nullptr, bytes + extra, PROT_READ | PROT_WRITE,
                           MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapping == MAP_FAILED)
        return nullptr;
    char* const start = static_cast<char*>(mapping);
    if (!huge)
        return start;
    const std::size_t head =
        (kHugePageBytes - reinterpret_cast<std::uintptr_t>(start) % kHugePageBytes) %
        kHugePageBytes;
    if (head != 0)
        ::munmap(start, head);
    ::munmap(start + head + bytes, kHugePageBytes - head);
#ifdef MADV_HUGEPAGE
    ::madvise(start + head, bytes, MADV_HUGEPAGE); // advice only: where refused, 4 KiB pages
#endif
    return start + head;
}

void unmapReserved(char* memory, std::size_t bytes) {
    ::munmap(memory, bytes);
}

void prefault(char* memory, std::size_t bytes) {
#ifdef MADV_POPULATE_WRITE
    ::madvise(memory, bytes, MADV_POPULATE_WRITE); // kernels before 5.14 refuse: faults then
#else
    (void)memory;
    (void)bytes;
#endif
}

SpanMemory::SpanMemory(unsigned long long budget) : m_budgetPages((budget >> kShift) + 1) {}

SpanMemory::~SpanMemory() {
    if (m_base != nullptr)
        unmapReserved(m_base, static_cast<std::size_t>(m_arenaPages) << kShift);
}

bool SpanMemory::reserve() {
    if (m_reserveFailed)
        return false;
    unsigned long long pages = m_budgetPages + m_budgetPages / 8;
    pages = std::min((pages + kHugePages - 1) / kHugePages * kHugePages, kMostArenaPages);
    m_huge = pages >= 4 * kHugePages;
    m_base = mapReserved(static_cast<std::size_t>(pages) << kShift, m_huge);
    if (m_base == nullptr) {
        m_reserveFailed = true;
        return false;
    }
    m_arenaPages = pages;
    return true;
}

char* SpanMemory::take(unsigned pages) {
    if (m_arenaPages != 0 || reserve()) {
        if (char* memory = carve(pages)) {
            m_taken += pages;
            return memory;
        }
    }
    // Cleared, unlike the arena's pages: heap memory may hold bytes from outside the store, which
    // must not reach the page file.
    return static_cast<char*>(std::calloc(pages, std::size_t{1} << kShift));
}

// Rule M5, in its order.
char* SpanMemory::carve(unsigned long long pages) {
    if (pages < kListedPages && m_lists[pages] != nullptr) {
        FreeRun* run = m_lists[pages];
        m_lists[pages] = run->next;
        m_freeListed -= pages;
        return reinterpret_cast<char*>(run);
    }
    if (char* memory = fromTop(pages, m_budgetPages))
        return memory;
    if (char* memory = split(pages))
        return memory;
    // Joining walks every free run: worth it only when enough has come back since the last.
    if (m_givenSinceJoin * 8 >= m_freeListed && m_freeListed >= pages && join()) {
        if (char* memory = split(pages))
            return memory;
        if (char* memory = fromTop(pages, m_budgetPages))
            return memory;
    }
    return fromTop(pages, m_arenaPages);
}

char* SpanMemory::fromTop(unsigned long long pages, unsigned long long limit) {
    if (m_top + pages > std::min(limit, m_arenaPages))
        return nullptr;
    char* memory = m_base + (m_top << kShift);
    m_top += pages;
    if (m_top > m_committed && !m_huge) {
        const unsigned long long step =
            std::min(std::max<unsigned long long>(kCommitPages, m_top - m_committed),
                     m_arenaPages - m_committed);
        prefault(m_base + (m_committed << kShift), static_cast<std::size_t>(step) << kShift);
        m_committed += step;
    }
    return memory;
}

// The first run at least `pages` long, from the shortest list up; what is left over goes back on
// the list of its length.
char* SpanMemory::split(unsigned long long pages) {
    for (unsigned long long list = std::min<unsigned long long>(pages, kListedPages);
         list <= kListedPages; ++list) {
        for (FreeRun** link = &m_lists[list]; *link != nullptr; link = &(*link)->next) {
            FreeRun* run = *link;
            if (run->pages < pages)
                continue; // only the last list holds runs of several lengths
            *link = run->next;
            m_freeListed -= run->pages;
            char* memory = reinterpret_cast<char*>(run);
            if (run->pages > pages)
                push(memory + (pages << kShift), run->pages - pages);
            return memory;
        }
    }
    return nullptr;
}

// Joins free runs that touch, and gives a run that reaches the top back to it. False when the
// scratch list cannot be had.
bool SpanMemory::join() {
    std::vector<std::pair<char*, unsigned long long>> runs;
    try {
        runs.reserve(static_cast<std::size_t>(std::min(m_freeListed, m_arenaPages)));
    } catch (const std::bad_alloc&) {
        return false;
    }
    for (FreeRun*& list : m_lists) {
        for (FreeRun* run = list; run != nullptr; run = run->next)
            runs.emplace_back(reinterpret_cast<char*>(run), run->pages);
        list = nullptr;
    }
    std::sort(runs.begin(), runs.end());
    m_freeListed = 0;
    m_givenSinceJoin = 0;
    std::size_t kept = 0;
    for (const auto& run : runs) {
        if (kept > 0 && runs[kept - 1].first + (runs[kept - 1].second << kShift) == run.first)
            runs[kept - 1].second += run.second;
        else
            runs[kept++] = run;
    }
    runs.resize(kept);
    if (!runs.empty() &&
        runs.back().first + (runs.back().second << kShift) == m_base + (m_top << kShift)) {
        m_top -= runs.back().second;
        runs.pop_back();
    }
    for (const auto& run : runs)
        push(run.first, run.second);
    return true;
}

void SpanMemory::push(char* memory, unsigned long long pages) {
    FreeRun* run = reinterpret_cast<FreeRun*>(memory);
    run->pages = pages;
    run->next = listOf(pages);
    listOf(pages) = run;
    m_freeListed += pages;
}

void SpanMemory::give(char* memory, unsigned pages) {
    if (!inArena(memory)) {
        std::free(memory);
        return;
    }
    m_taken -= pages;
    m_givenSinceJoin += pages;
    push(memory, pages);
}

bool SpanMemory::consistent(unsigned long long takenPages) const {
    unsigned long long listed = 0;
    for (unsigned list = 0; list <= kListedPages; ++list) {
        for (const FreeRun* run = m_lists[list]; run != nullptr; run = run->next) {
            const char* memory = reinterpret_cast<const char*>(run);
            if (run->pages == 0 || (list < kListedPages && run->pages != list) ||
                (list == kListedPages && run->pages < kListedPages) || memory < m_base ||
                memory + (run->pages << kShift) > m_base + (m_top << kShift) ||
                (memory - m_base) % (1 << kShift) != 0)
                return false;
            listed += run->pages;
        }
    }
    // Rule M6: a small arena has committed every page below its top, a huge one commits none.
    const bool committed =
        m_huge ? m_committed == 0 : m_committed >= m_top && m_committed <= m_arenaPages;
    return listed == m_freeListed && takenPages == m_taken && m_taken + listed == m_top &&
           m_top <= m_arenaPages && committed;
}

} // namespace tcmalloc
