// The page file of one store: its slots, its I/O and the space it gives back.
//
// Glossary
//   file page   8 KiB of the page file; file page n starts at byte n * 8192.
//   slot        a run of file pages that keeps one span's bytes; named by its first file page.
//   owner       the span whose copy a slot holds, recorded at the slot's first file page, so that
//               read-ahead can find the span that follows another in the file.
//
// Rules
//   P1. The file is created on first use, exclusively, mode 0600, and unlinked at once.
//   P2. Every file page is either in exactly one live slot or free in the extent allocator;
//       end() is one past the last file page ever handed out and not given back.
//   P3. Space given back at the end cuts the file; space given back in the middle is punched
//       out (FALLOC_FL_PUNCH_HOLE) where the file system supports it, so the file's allocated
//       blocks follow the live slots.
//   P4. Transfers are carried through short counts and EINTR; any other error, or a read that
//       ends early, is a failed transfer. Nothing here retries beyond that.
#ifndef HXL_VMM_PAGEFILE_H
#define HXL_VMM_PAGEFILE_H

#include "VirtualMemoryPool.h"

#include <map>
#include <string>
#include <sys/uio.h>
#include <vector>

namespace tcmalloc {

const unsigned kPageShift = 13;
const unsigned long long kPageSize = 1ULL << kPageShift;
const unsigned kNoSlot = 0xFFFFFFFFu; // a span with no slot in the page file

// Best-fit allocator of runs of units (page numbers, file pages) with coalescing. take and give
// may throw std::bad_alloc from the maps; the callers catch it.
class ExtentAllocator {
public:
    explicit ExtentAllocator(unsigned long long first) : m_end(first) {}

    // A run of `count` units: the best free run, else a new run at the end.
    unsigned long long take(unsigned long long count);
    // Gives a run back, joined with free neighbours; the end comes down when the run reaches it.
    void give(unsigned long long start, unsigned long long count);
    // One past the last unit in use or free in the middle.
    unsigned long long end() const { return m_end; }
    // Units free below end(); walks the free runs.
    unsigned long long freeUnits() const;

private:
    using Runs = std::map<unsigned long long, unsigned long long>;
    void insert(unsigned long long start, unsigned long long count);
    void eraseRun(Runs::iterator it);

    Runs m_byStart;                                                 // start -> length
    std::multimap<unsigned long long, unsigned long long> m_bySize; // length -> start
    unsigned long long m_end;
};

class PageFile {
public:
    explicit PageFile(const char* directory);
    ~PageFile();
    PageFile(const PageFile&) = delete;
    PageFile& operator=(const PageFile&) = delete;

    // Creates the file when it is not there yet (rule P1); false when it cannot be made.
    bool open();
    bool isOpen() const { return m_fd >= 0; }
    // A slot of `pages` file pages owned by `owner`; kNoSlot when the bookkeeping cannot grow or
    // the slot would lie beyond 32-bit file page numbers.
    unsigned take(unsigned pages, const void* owner);
    // Gives a slot back (rule P3).
    void give(unsigned slot, unsigned pages);
    // The span whose slot starts at file page `page`, or null.
    const void* ownerAt(unsigned long long page) const {
        return page < m_owners.size() ? m_owners[page] : nullptr;
    }
    // Gathered transfers of whole file pages starting at file page `slot`; false on failure
    // (rule P4). The pieces are consumed in order.
    bool write(const iovec* pieces, unsigned count, unsigned slot);
    bool read(const iovec* pieces, unsigned count, unsigned slot);

    void setIo(const VirtualMemoryIo* io);
    unsigned long long sizeInBytes() const { return isOpen() ? m_space.end() << kPageShift : 0; }
    const std::string& name() const { return m_name; }
    // File pages in use by slots; checks rule P2 against the owner table.
    unsigned long long pagesInUse() const { return m_space.end() - m_space.freeUnits(); }
    std::size_t ownerCount() const;

private:
    bool transfer(const iovec* pieces, unsigned count, unsigned slot, bool writing);

    std::string m_directory;
    std::string m_name;
    int m_fd = -1;
    bool m_canPunch = true; // cleared when the file system refuses to punch holes
    ExtentAllocator m_space{0};
    std::vector<const void*> m_owners; // by file page: the owner of the slot starting there
    VirtualMemoryIo m_io;
};

} // namespace tcmalloc

#endif
