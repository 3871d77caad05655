// The memory of resident spans: runs of whole 8 KiB pages carved from one range of address
// space a store reserves at its first span and gives back to the system when it ends.
//
// Why: a fresh page costs a fault on first touch (about 14 us a 4 KiB page on some hosts, more
// than copying it from the page cache), and a span buffer taken from and given back to the
// process heap at every page-in and page-out keeps touching fresh pages, because the heap hands
// large buffers back to the system. The arena touches each of its pages once in the store's
// life.
//
// Rules
//   M1. The arena is reserved, not committed: a page is committed when the first span that
//       uses it is handed out (rule M6) and stays the store's until the store ends. It holds the
//       budget, rounded up to whole huge pages, and an eighth more for read-ahead, pinned spans and
//       fragmentation.
//   M2. Every arena page below the top is in exactly one taken run or one free run; a free run
//       is on the list of its length (runs longer than kListedPages share the last list). Pages
//       from the top up have never been handed out since the last join.
//   M3. An arena run is handed out as it is: never-touched pages hold zeros, others bytes an
//       earlier span of this store left. A buffer from the process heap (rule M5) is cleared,
//       so no span ever holds bytes from outside the store.
//   M4. give never allocates and never fails: it is called half-way through moving a span out
//       of memory. A free run keeps its list link and length in its own first bytes.
//   M5. take prefers a run of the exact length, then the top up to the budget, then a split of
//       a longer run, then free runs joined with their neighbours, then the top beyond the
//       budget: the touched part of the arena stays near the budget. When the arena cannot
//       hold the run it comes from the process heap, and goes back there when given.
//   M6. An arena of at least four huge pages is advised for transparent huge pages: where the
//       kernel gives them, a fault brings in 2 MiB. A smaller arena commits its pages 64 KiB at
//       a time as the top first passes them (prefault), so it holds at most 64 KiB above the
//       top that no span has used yet.
#ifndef HXL_VMM_SPANMEMORY_H
#define HXL_VMM_SPANMEMORY_H

#include <cstddef>

namespace tcmalloc {

// Bytes of a transparent huge page on x86-64 and most other 64-bit hosts.
const std::size_t kHugePageBytes = std::size_t{2} << 20;

// A mapping of `bytes` of reserved, not committed, memory whose pages read as zeros until
// written, or null when the system refuses. With `huge` it starts on a huge page boundary and
// is advised for transparent huge pages (`bytes` must then be a multiple of kHugePageBytes).
// Give it back with unmapReserved and the same length.
char* mapReserved(std::size_t bytes, bool huge);
void unmapReserved(char* memory, std::size_t bytes);
// Commits the pages of a range of a mapping in one call where the system can (a fresh page
// faulted in one at a time costs several times as much); nothing happens where it cannot.
void prefault(char* memory, std::size_t bytes);

class SpanMemory {
public:
    // The arena is sized for a store whose resident budget is `budget` bytes.
    explicit SpanMemory(unsigned long long budget);
    ~SpanMemory();
    SpanMemory(const SpanMemory&) = delete;
    SpanMemory& operator=(const SpanMemory&) = delete;

    // A buffer of `pages` pages (8 KiB each, 16-byte aligned), or null when neither the arena
    // nor the process heap has one. Its bytes are zeros or bytes of this store (rule M3).
    char* take(unsigned pages);
    // Takes back a buffer from take, of the same length; never allocates (rule M4).
    void give(char* memory, unsigned pages);

    // Checks rules M2 and M6; for the engine's checker. `takenPages` is the sum of the lengths of
    // the arena buffers held by spans.
    bool consistent(unsigned long long takenPages) const;
    // Arena pages held by spans (and so counted in the engine's resident bytes).
    unsigned long long arenaPagesTaken() const { return m_taken; }
    bool inArena(const char* memory) const {
        return memory >= m_base && memory < m_base + (m_arenaPages << kShift);
    }

private:
    static const unsigned kShift = 13;          // 8 KiB pages
    static const unsigned kListedPages = 32;    // runs up to this long have a list of their own
    static constexpr unsigned kCommitPages = 8; // committed at a time in a small arena (rule M6)
    static const unsigned kHugePages = kHugePageBytes >> kShift; // 8 KiB pages in a huge page
    struct FreeRun {
        FreeRun* next;
        unsigned long long pages;
    };

    bool reserve();
    char* carve(unsigned long long pages);
    char* fromTop(unsigned long long pages, unsigned long long limit);
    char* split(unsigned long long pages);
    bool join();
    void push(char* memory, unsigned long long pages);
    FreeRun*& listOf(unsigned long long pages) {
        return m_lists[pages < kListedPages ? pages : kListedPages];
    }

    unsigned long long m_budgetPages;
    unsigned long long m_arenaPages = 0; // 0 until reserved; stays 0 when the reserve fails
    char* m_base = nullptr;              // the arena's mapping, m_arenaPages long
    bool m_reserveFailed = false;
    bool m_huge = false;                     // advised for huge pages (rule M6)
    unsigned long long m_committed = 0;      // arena pages committed by prefault (rule M6)
    unsigned long long m_top = 0;            // arena pages below are taken or on a list
    unsigned long long m_taken = 0;          // arena pages in taken runs
    unsigned long long m_freeListed = 0;     // arena pages on the lists
    unsigned long long m_givenSinceJoin = 0; // pages given back since the last join
    FreeRun* m_lists[kListedPages + 1] = {};
};

} // namespace tcmalloc

#endif
