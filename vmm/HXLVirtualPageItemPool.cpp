#include "HXLVirtualPageItemPool.h"

#include "HXLCore.h"
#include "HXLTranslated.h"
#include "HXLVirtualMemoryMgr.h"
#include "HXLVirtualReference.h"

#include <cstdlib>
#include <cstring>

namespace {
const unsigned int kDefaultPoolSize = 1000;
}

bool HXLVirtualPageItemPool::cmp_void::operator()(const PoolEntry& a, const PoolEntry& b) const {
    if (a.m_size != b.m_size)
        return a.m_size < b.m_size;
    return std::memcmp(a.m_data, b.m_data, a.m_size) < 0;
}

HXLVirtualPageItemPool::HXLVirtualPageItemPool(HXLVirtualMemoryMgr* memoryMgr)
    : m_memoryMgr(memoryMgr), m_poolSize(kDefaultPoolSize) {}

HXLVirtualPageItemPool::HXLVirtualPageItemPool(HXLVirtualMemoryMgr* memoryMgr, unsigned int size)
    : m_memoryMgr(memoryMgr), m_poolSize(size) {}

HXLVirtualPageItemPool::~HXLVirtualPageItemPool() {
    try {
        reset();
    } catch (...) {
        // A destructor lets nothing out; the containers free their nodes below.
    }
}

void HXLVirtualPageItemPool::set(const void* data, unsigned int size, HXLVirtualPageItem& item) {
    if (data == nullptr || size == 0)
        return;
    const PoolEntry key = {data, size};
    const auto hit = m_entries.find(key);
    if (hit != m_entries.end()) {
        item = hit->second->second;
        if (hit->second != m_lru.begin())
            m_lru.splice(m_lru.begin(), m_lru, hit->second);
        return;
    }

    char* const block = static_cast<char*>(hxl_translated::required(
        hxl_translated::run(nullptr, [&] { return m_memoryMgr->alloc(size, item); }), nullptr));
    {
        // The reference alloc took goes back at once: a pooled object is held by nobody.
        const HXLVirtualReference<char> held(m_memoryMgr, item.getOffset(), block);
        std::memcpy(block, data, size);
    }

    void* copy = hxl_translated::required(
        hxl_translated::run(nullptr, [&] { return std::malloc(size); }), nullptr);
    std::memcpy(copy, data, size);

    const PoolEntry stored = {copy, size};
    try {
        m_lru.emplace_front(stored, item);
    } catch (...) {
        std::free(copy);
        throw;
    }
    try {
        m_entries.emplace(stored, m_lru.begin());
    } catch (...) {
        m_lru.pop_front(); // keep both containers holding the same entries
        std::free(copy);
        throw;
    }

    if (m_lru.size() > m_poolSize) {
        auto& oldest = m_lru.back();
        // Erase the key while its bytes are still there to compare.
        m_entries.erase(oldest.first);
        std::free(const_cast<void*>(oldest.first.m_data));
        oldest.first.m_data = nullptr;
        m_lru.pop_back();
    }
}

void HXLVirtualPageItemPool::reset() {
    for (auto& entry : m_lru) {
        if (entry.first.m_data != nullptr) {
            std::free(const_cast<void*>(entry.first.m_data));
            entry.first.m_data = nullptr;
        }
    }
    m_lru.clear();
    m_entries.clear();
}

void HXLVirtualPageItemPool::setPoolSize(unsigned int size) {
    m_poolSize = size;
}
