#ifndef HXLVIRTUALPAGEITEM_H
#define HXLVIRTUALPAGEITEM_H

// The handle of one object in the store: an offset and a size, a plain value that owns
// nothing. Offset 0: the item is empty. kInvalidOffset: the item names no object, yet is not
// empty. Any other offset names a live object, as the store reported it.
class HXLVirtualPageItem {
public:
    static constexpr unsigned long long kInvalidOffset = 0xFFFFFFFFFFFFFFFFULL;

    HXLVirtualPageItem() : m_offset(0), m_size(0) {}
    HXLVirtualPageItem(unsigned long long offset, unsigned int size)
        : m_offset(offset), m_size(size) {}
    ~HXLVirtualPageItem() {}

    // 1 if the offset is 0, else 0; the size is not looked at.
    int empty() const { return m_offset == 0 ? 1 : 0; }
    // Offset and size 0.
    void clear() {
        m_offset = 0;
        m_size = 0;
    }

    unsigned long long getOffset() const { return m_offset; }
    void setOffset(unsigned long long offset) { m_offset = offset; }
    unsigned int getSize() const { return m_size; }
    void setSize(unsigned int size) { m_size = size; }

    static unsigned long long getInvalidOffset() { return kInvalidOffset; }

protected:
    unsigned long long m_offset; // where the object lies in the store; 0 empty
    unsigned int m_size;         // the object's size in bytes, as alloc last set it
};

static_assert(sizeof(HXLVirtualPageItem) == 16, "a page item is an offset and a size");

#endif
