// A model of the blocks a caller holds from a heap allocator: each block is filled with its own
// byte; adding a block that overlaps a live one, or finding a byte changed on removal, fails.
#ifndef HEAP_MODEL_H
#define HEAP_MODEL_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <utility>

class HeapModel {
public:
    void add(void* p, std::size_t size) {
        ASSERT_NE(p, nullptr);
        const std::uintptr_t at = reinterpret_cast<std::uintptr_t>(p);
        auto above = m_live.lower_bound(at);
        ASSERT_TRUE(above == m_live.end() || at + size <= above->first) << "overlap above";
        ASSERT_TRUE(above == m_live.begin() ||
                    std::prev(above)->first + std::prev(above)->second.first <= at)
            << "overlap below";
        const unsigned char tag = static_cast<unsigned char>(++m_counter | 1);
        std::memset(p, tag, size);
        m_live[at] = {size, tag};
    }
    // Checks and forgets the n-th live block (in address order); gives back its address.
    void* remove(std::size_t n) {
        auto it = std::next(m_live.begin(), static_cast<std::ptrdiff_t>(n % m_live.size()));
        const unsigned char* bytes = reinterpret_cast<const unsigned char*>(it->first);
        for (std::size_t i = 0; i < it->second.first; ++i)
            if (bytes[i] != it->second.second) {
                ADD_FAILURE() << "byte " << i << " of a live block was overwritten";
                break;
            }
        m_live.erase(it);
        return const_cast<unsigned char*>(bytes);
    }
    std::size_t count() const { return m_live.size(); }

private:
    std::map<std::uintptr_t, std::pair<std::size_t, unsigned char>> m_live;
    unsigned int m_counter = 0;
};

#endif
