#ifndef HXLVIRTUALPAGEITEM_H
#define HXLVIRTUALPAGEITEM_H

#include "HXLExport.h"

/// @ingroup store
/// @brief The handle of one object in the store: an offset and a size, a plain value that owns
/// nothing.
///
/// Offset 0: the item is empty. kInvalidOffset: the item names no object, yet is not
/// empty. Any other offset names a live object, as the store reported it.
///
/// References: none. An item takes no reference and copying or dropping one changes nothing in
/// the store; the object it names may page out and in while the item stays valid.
///
/// Exceptions: none.
class HXL_EXPORT HXLVirtualPageItem {
public:
    /// The offset of an item that names no object.
    static constexpr unsigned long long kInvalidOffset = 0xFFFFFFFFFFFFFFFFULL;

    /// An empty item: offset and size 0.
    HXLVirtualPageItem() : m_offset(0), m_size(0) {}
    /// An item with the given offset and size in bytes.
    HXLVirtualPageItem(unsigned long long offset, unsigned int size)
        : m_offset(offset), m_size(size) {}
    /// Changes nothing in the store.
    ~HXLVirtualPageItem() {}

    /// 1 if the offset is 0, else 0; the size is not looked at.
    int empty() const { return m_offset == 0 ? 1 : 0; }
    /// Sets offset and size to 0; the object named before is not touched.
    void clear() {
        m_offset = 0;
        m_size = 0;
    }

    /// The offset: 0 empty, kInvalidOffset no object, else a live object's.
    unsigned long long getOffset() const { return m_offset; }
    /// Sets the offset; the store is not asked.
    void setOffset(unsigned long long offset) { m_offset = offset; }
    /// The object's size in bytes, as alloc last set it.
    unsigned int getSize() const { return m_size; }
    /// Sets the size in bytes; the store is not asked.
    void setSize(unsigned int size) { m_size = size; }

    /// kInvalidOffset.
    static unsigned long long getInvalidOffset() { return kInvalidOffset; }

protected:
    unsigned long long m_offset; ///< where the object lies in the store; 0 empty
    unsigned int m_size;         ///< the object's size in bytes, as alloc last set it
};

static_assert(sizeof(HXLVirtualPageItem) == 16, "a page item is an offset and a size");

#endif
