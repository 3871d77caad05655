#include "HXLVirtualMemoryMgr.h"

#include "HXLCore.h"
#include "HXLVirtualPageItemPool.h"
#include "VirtualMemoryPool.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {
const unsigned int kDefaultStoreSize = 0x400000;

// Stands for the fast path of a store that offers none: it maps no page, so every inline call
// goes on to the store, and nothing ever writes to it.
tcmalloc::FastTable g_noFastPath{};
} // namespace

int HXLVirtualMemoryMgr::m_exceptionOnReferenceLeak = 0;

HXLVirtualMemoryMgr::HXLVirtualMemoryMgr(unsigned int a, unsigned int, int)
    : m_pool(nullptr), m_fast(&g_noFastPath), m_pageItemPool(nullptr) {
    initialize(a);
}

HXLVirtualMemoryMgr::HXLVirtualMemoryMgr(unsigned int, unsigned int b, unsigned int, int)
    : m_pool(nullptr), m_fast(&g_noFastPath), m_pageItemPool(nullptr) {
    initialize(b);
}

HXLVirtualMemoryMgr::HXLVirtualMemoryMgr(mappertype, unsigned int, unsigned int b, unsigned int,
                                         int)
    : m_pool(nullptr), m_fast(&g_noFastPath), m_pageItemPool(nullptr) {
    initialize(b);
}

HXLVirtualMemoryMgr::~HXLVirtualMemoryMgr() {
    // The key copies go first; the store, with every object in it, last.
    if (m_pageItemPool != nullptr) {
        delete m_pageItemPool;
        m_pageItemPool = nullptr;
    }
    if (m_pool != nullptr) {
        delete m_pool;
        m_pool = nullptr;
    }
}

tcmalloc::FastTable* HXLVirtualMemoryMgr::fastPathOf(HXLVirtualMemoryMgr* memMgr) {
    return memMgr != nullptr ? memMgr->m_fast : &g_noFastPath;
}

void HXLVirtualMemoryMgr::initialize(unsigned int storeSize) {
    HXL_ASSERT(m_pool == NULL);
    if (storeSize == 0)
        storeSize = kDefaultStoreSize;
    I18NString path;
    HXLFmDir::getTempPath(path);
    HXL_TRY {
        m_pool = new tcmalloc::VirtualMemoryPool(static_cast<unsigned long long>(storeSize),
                                                 path.c_str(NULL, NULL, NULL, NULL));
    }
    HXL_TRANSLATE(NULL);
    if (m_pool == nullptr)
        HXL_THROW(HXLOutOfMemoryError(0, NULL));
    // Resolved once: a store whose engine offers no fast path (or one of another layout) is
    // reached through its plain calls only.
    if (tcmalloc_VirtualMemoryPool_FastTable != nullptr) {
        tcmalloc::FastTable* table = tcmalloc_VirtualMemoryPool_FastTable(m_pool);
        if (table != nullptr && table->layout == tcmalloc::FastTable::kFastLayout)
            m_fast = table;
    }
    try {
        HXL_TRY {
            m_pageItemPool = new HXLVirtualPageItemPool(this);
        }
        HXL_TRANSLATE(NULL);
        if (m_pageItemPool == nullptr)
            HXL_THROW(HXLOutOfMemoryError(0, NULL));
    } catch (...) {
        // The constructor fails, so no destructor will run for the store made above.
        delete m_pool;
        m_pool = nullptr;
        throw;
    }
}

void* HXLVirtualMemoryMgr::resize(unsigned int size, HXLVirtualPageItem& item) {
    void* result = nullptr;
    if (size < item.getSize()) {
        // Shrink in place: same object, same offset, the first `size` bytes kept.
        item.setSize(size);
        if (isLive(item.getOffset())) {
            tcmalloc::PageItem record;
            record.offset = item.getOffset();
            result = m_pool->GetAddress(record, true);
        }
    } else {
        tcmalloc::PageItem record;
        result = m_pool->Allocate(static_cast<unsigned long long>(size), record);
        if (result != nullptr) {
            // Carry the old bytes over; only `item` is brought up to date.
            void* old_ptr = getAddress(item, 1);
            HXL_ASSERT(old_ptr);
            std::memcpy(result, old_ptr, item.getSize());
            dismiss(item);
            free(item);
        }
        item.setOffset(record.offset);
        item.setSize(size);
    }
    if (result == nullptr)
        allocFailed();
    return result;
}

void HXLVirtualMemoryMgr::allocFailed() {
    HXL_THROW(HXLOutOfMemoryError(0, NULL), "HXLVirtualMemoryMgr::alloc");
}

void HXLVirtualMemoryMgr::dirty(HXLVirtualPageItem& item) {
    if (!isLive(item.getOffset()))
        return;
    tcmalloc::PageItem record;
    record.offset = item.getOffset();
    m_pool->Dirty(record);
}

void HXLVirtualMemoryMgr::dismissSlow(unsigned long long offset) {
    if (!isLive(offset))
        return;
    tcmalloc::PageItem record;
    record.offset = offset;
    const unsigned long long misuses = m_fast->misuses;
    m_pool->Dismiss(record);
    if (m_fast->misuses != misuses)
        misuse("HXLVirtualMemoryMgr::dismiss", "no reference held, or no object", offset);
}

void HXLVirtualMemoryMgr::misuse(const char* operation, const char* what,
                                 unsigned long long offset) {
    char text[160];
    std::snprintf(text, sizeof(text), "%s: %s at store offset 0x%llx", operation, what, offset);
    HXL_THROW(HXLIllegalStateError(0, text), operation);
}

void* HXLVirtualMemoryMgr::getAddressSlow(unsigned long long offset, int flag) {
    if (!isLive(offset))
        return nullptr;
    tcmalloc::PageItem record;
    record.offset = offset;
    return m_pool->GetAddress(record, flag != 0);
}

void HXLVirtualMemoryMgr::allocUsingPool(const void* data, unsigned int size,
                                         HXLVirtualPageItem& item) {
    m_pageItemPool->set(data, size, item);
}

void HXLVirtualMemoryMgr::setVirtualPageItemPoolSize(unsigned int size) {
    m_pageItemPool->setPoolSize(size);
}

void HXLVirtualMemoryMgr::pageOut(unsigned int) {}

void HXLVirtualMemoryMgr::setDiagnosticMode(diagflags) {}

HXLVirtualMapper* HXLVirtualMemoryMgr::getMapper(unsigned long long) const {
    return nullptr;
}

int HXLVirtualMemoryMgr::getExceptionOnReferenceLeak() {
    return m_exceptionOnReferenceLeak;
}

void HXLVirtualMemoryMgr::setExceptionOnReferenceLeak(int on) {
    m_exceptionOnReferenceLeak = on;
}

void HXLVirtualMemoryMgr::throwExceptionOnReferenceLeak() {
    if (m_exceptionOnReferenceLeak == 0)
        return;
    m_pageItemPool->reset();
    const unsigned long long refs = m_pool->GetOutstandingReferences(NULL, 0, NULL);
    if (refs == 0)
        return;
    char text[128];
    std::snprintf(text, sizeof(text),
                  "Reference Leak Error, total objects with reference count > 0 : %d",
                  static_cast<int>(refs));
    HXL_THROW(HXLIllegalStateError(0, text), "HXLVirtualMemoryMgr::throwExceptionOnReferenceLeak");
}

void HXLVirtualMemoryMgr::dumpMapper(std::ostream& os, int flags) {
    const bool stats = (flags & eDumpStats) != 0;
    const bool mapper = (flags & eDumpMapper) != 0;

    unsigned long long size = 0;
    m_pool->ExtractStats(NULL, 0, size);
    tcmalloc::VirtualMemoryStats* record = nullptr;
    HXL_TRY {
        record = static_cast<tcmalloc::VirtualMemoryStats*>(std::malloc(size));
        if (record == nullptr)
            HXL_THROW(HXLOutOfMemoryError(0, NULL));
    }
    HXL_TRANSLATE(NULL);
    // Freed however the dump ends: a stream set to throw on failure may leave by an exception.
    const std::unique_ptr<void, void (*)(void*)> owner(record, std::free);
    m_pool->ExtractStats(record, size, size);

    os << "**Dump of Virtual Mapper**" << std::endl;
    os << std::endl;
    if (stats) {
        if (record->pageFileSize != 0) {
            os << "Paging File - " << record->pageFileName << std::endl;
            os << "Page file size: " << record->pageFileSize << " bytes" << std::endl;
            os << std::endl;
        }
        os << "Mapping Mode - libtcmalloc_virtualmm" << std::endl;
        os << "Page size: " << record->pageSize << " bytes" << std::endl;
        os << "Mapping Statistics - Virtual Objects (Current/Max/Cumulative): "
           << record->objectsCurrent << "/" << record->objectsMax << "/"
           << record->objectsCumulative << std::endl;
        os << "Paging Statistics - Reads: " << record->pageReads
           << ", Writes: " << record->pageWrites << ", Page Outs: " << record->pageOuts
           << std::endl;
        os << std::endl;
        if (record->largePages != 0) {
            os << "Large size block breakdown" << std::endl;
            os << "--------------------------" << std::endl;
            os << "Pages: " << record->largePages << ", Spans: " << record->largeSpans
               << ", Alloc: " << record->largePages * record->pageSize << " bytes" << std::endl;
        }
        os << "Fixed-size pool breakdown" << std::endl;
        os << "-------------------------" << std::endl;
        for (unsigned long long i = 0; i < record->fixedPoolCount; ++i) {
            const tcmalloc::VirtualMemoryFixedPoolStats* pool =
                record->fixedPool(static_cast<unsigned int>(i));
            os << "  Pool [" << i << "] - Size: " << pool->elementSize << std::endl;
            os << "      Pages: " << pool->pages << ", Spans: " << pool->spans
               << ", Alloc: " << pool->allocBytes << " bytes, Free: " << pool->freeBytes << " bytes"
               << std::endl;
        }
        os << std::endl;
    }
    if (mapper) {
        os << "HXLVirtualMemoryMgr::eDumpMapper is not supported - "
           << "consider using Windbg to debug leaks in the virtual memory system!" << std::endl;
        os << std::endl;
    }
    const unsigned long long refs = m_pool->GetOutstandingReferences(NULL, 0, NULL);
    if (refs != 0) {
        os << "Total Objects with reference count > 0 : " << refs << std::endl;
        os << std::endl;
    }
    os << "Diagnostic Options are not supported!" << std::endl;
    os << std::endl;
}
