// A model of the blocks a caller holds from a heap allocator: each block is filled with a byte
// of its own; a block that overlaps a live one, or a live block whose bytes changed, fails.
#ifndef HEAP_MODEL_H
#define HEAP_MODEL_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <utility>

class HeapModel {
public:
    void add(void* p, std::size_t size) {
        ASSERT_NE(p, nullptr);
        const std::uintptr_t at = reinterpret_cast<std::uintptr_t>(p);
        // Of the disjoint live blocks, only the last one starting below the new end can overlap.
        const auto below = m_live.lower_bound(at + size);
        ASSERT_TRUE(below == m_live.begin() ||
                    std::prev(below)->first + std::prev(below)->second.first <= at)
            << "overlaps a live block";
        m_live[at] = {size, static_cast<unsigned char>(++m_counter | 1)};
        std::memset(p, m_live[at].second, size);
    }
    // Checks and forgets the live block n (modulo the count, in address order); gives it back.
    void* remove(std::size_t n) {
        const auto it = std::next(m_live.begin(), static_cast<std::ptrdiff_t>(n % m_live.size()));
        unsigned char* bytes = reinterpret_cast<unsigned char*>(it->first);
        EXPECT_TRUE(std::all_of(bytes, bytes + it->second.first, [&](unsigned char c) {
            return c == it->second.second;
        })) << "a live block was overwritten";
        m_live.erase(it);
        return bytes;
    }
    std::size_t count() const { return m_live.size(); }

private:
    std::map<std::uintptr_t, std::pair<std::size_t, unsigned char>> m_live; // size, fill byte
    unsigned int m_counter = 0;
};

#endif
