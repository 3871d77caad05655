#include "PageMap.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <sys/mman.h>

namespace tcmalloc {

namespace {
const unsigned kMostEntriesLog = 32;      // every page number
const unsigned kLeastMappedLog = 20;      // 8 GiB of offsets
const std::size_t kHeapEntries = 1 << 16; // 512 MiB of offsets, when nothing can be mapped
} // namespace

PageMap::PageMap() : m_table(nullptr), m_capacity(0), m_bytes(0) {
    void* block = nullptr;
    for (unsigned log = kMostEntriesLog; log >= kLeastMappedLog && block == nullptr; log -= 2) {
        const std::size_t bytes = sizeof(FastTable) + (std::size_t{1} << log) * sizeof(FastPage);
        void* mapping = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                               MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (mapping != MAP_FAILED) {
            block = mapping;
            m_bytes = bytes;
            m_capacity = std::size_t{1} << log;
        }
    }
    if (block == nullptr) {
        block = std::aligned_alloc(alignof(FastTable),
                                   sizeof(FastTable) + kHeapEntries * sizeof(FastPage));
        if (block == nullptr)
            throw std::bad_alloc();
        std::memset(block, 0, sizeof(FastTable) + kHeapEntries * sizeof(FastPage));
        m_capacity = kHeapEntries;
    }
    m_table = new (block) FastTable{};
    m_table->pages = reinterpret_cast<FastPage*>(m_table + 1);
}

PageMap::~PageMap() {
    m_table->~FastTable();
    if (m_bytes != 0)
        ::munmap(m_table, m_bytes);
    else
        std::free(m_table);
}

bool PageMap::resize(std::size_t pages) {
    if (pages > m_capacity)
        return false;
    if (pages < size())
        std::memset(static_cast<void*>(m_table->pages + pages), 0,
                    (size() - pages) * sizeof(FastPage));
    m_table->pageCount = pages;
    return true;
}

} // namespace tcmalloc
