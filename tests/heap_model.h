// A model of the blocks a caller holds from one of the heap allocators: it fills each block
// with its own byte, and on release checks that no other block has written over it. Adding a
// block that overlaps a live one fails the test.
#ifndef HEAP_MODEL_H
#define HEAP_MODEL_H

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <map>

class HeapModel {
public:
    struct Block {
        std::size_t size;
        unsigned char tag;
    };

    void add(void* p, std::size_t size) {
        ASSERT_NE(p, nullptr);
        const std::uintptr_t at = reinterpret_cast<std::uintptr_t>(p);
        auto above = m_live.lower_bound(at);
        if (above != m_live.end()) {
            ASSERT_LE(at + size, above->first) << "block overlaps the one above";
        }
        if (above != m_live.begin()) {
            auto below = std::prev(above);
            ASSERT_LE(below->first + below->second.size, at) << "block overlaps the one below";
        }
        const unsigned char tag = static_cast<unsigned char>(++m_counter | 1);
        std::memset(p, tag, size);
        m_live[at] = Block{size, tag};
    }

    // Checks the block's bytes and forgets it; gives back its size.
    std::size_t remove(void* p) {
        auto it = m_live.find(reinterpret_cast<std::uintptr_t>(p));
        EXPECT_NE(it, m_live.end());
        if (it == m_live.end())
            return 0;
        const unsigned char* bytes = static_cast<const unsigned char*>(p);
        for (std::size_t i = 0; i < it->second.size; ++i)
            if (bytes[i] != it->second.tag) {
                ADD_FAILURE() << "byte " << i << " of a live block was overwritten";
                break;
            }
        const std::size_t size = it->second.size;
        m_live.erase(it);
        return size;
    }

    std::size_t count() const { return m_live.size(); }
    // The address of the n-th live block in address order.
    void* at(std::size_t n) const {
        auto it = m_live.begin();
        std::advance(it, static_cast<std::ptrdiff_t>(n));
        return reinterpret_cast<void*>(it->first);
    }

private:
    std::map<std::uintptr_t, Block> m_live;
    unsigned int m_counter = 0;
};

#endif
