#ifndef HXLVIRTUALSTRINGPAYLOAD_H
#define HXLVIRTUALSTRINGPAYLOAD_H

// Internal to the two string handles: the steps on a payload that do not depend on its form.
// Not part of the interface.
#include "HXLVirtualContainer.h"
#include "HXLVirtualMemoryMgr.h"
#include "HXLVirtualPageItem.h"

#include <climits>
#include <cstring>

namespace hxl_string_detail {

// The manager of `container`; null for a null container, as for one without a manager.
inline HXLVirtualMemoryMgr* managerOf(HXLVirtualContainer* container) {
    return container != NULL ? container->getMemoryMgr() : NULL;
}

// Whether getString may read the payload of `item`: a store, a block, and a size that the int
// length of I18NString can count. A longer size (only a holder who set it by hand can make one:
// setString stores at most an int's worth) reads as no payload rather than past the block.
inline bool readablePayload(HXLVirtualMemoryMgr* memMgr, const HXLVirtualPageItem& item) {
    return memMgr != NULL && item.empty() == 0 &&
           item.getSize() <= static_cast<unsigned int>(INT_MAX);
}

// One mapping of a payload, given back when the scope ends, also by an exception. The address
// is null (and nothing is owed) for an empty or invalid item or a block the store cannot map.
class MappedPayload {
public:
    MappedPayload(HXLVirtualMemoryMgr* memMgr, const HXLVirtualPageItem& item)
        : m_memMgr(memMgr), m_offset(item.getOffset()), m_address(memMgr->getAddress(m_offset, 1)) {
    }
    ~MappedPayload() { release(); }
    MappedPayload(const MappedPayload&) = delete;
    MappedPayload& operator=(const MappedPayload&) = delete;

    const void* address() const { return m_address; }
    void release() {
        if (m_address != NULL)
            m_memMgr->dismiss(m_offset);
        m_address = NULL;
    }

private:
    HXLVirtualMemoryMgr* m_memMgr;
    unsigned long long m_offset;
    const void* m_address;
};

// 1 when two payloads of one store have the same size and bytes, else 0. Maps nothing when
// the sizes differ; otherwise maps `mine`, then `theirs`, and gives them back in that order.
// Two empty items have no address and compare as 0; so does anything with a null store.
inline int equalPayloads(HXLVirtualMemoryMgr* memMgr, const HXLVirtualPageItem& mine,
                         const HXLVirtualPageItem& theirs) {
    if (memMgr == NULL || mine.getSize() != theirs.getSize())
        return 0;
    MappedPayload first(memMgr, mine);
    MappedPayload second(memMgr, theirs);
    const int equal = first.address() != NULL && second.address() != NULL &&
                              std::memcmp(first.address(), second.address(), mine.getSize()) == 0
                          ? 1
                          : 0;
    first.release();
    second.release();
    return equal;
}

// 1 when the payload of `item` equals the item's size's worth of `bytes`, else 0: the caller
// has compared the sizes. Maps the payload once and gives it back.
inline int payloadEquals(HXLVirtualMemoryMgr* memMgr, const HXLVirtualPageItem& item,
                         const void* bytes) {
    MappedPayload payload(memMgr, item);
    return payload.address() != NULL && std::memcmp(payload.address(), bytes, item.getSize()) == 0
               ? 1
               : 0;
}

} // namespace hxl_string_detail

#endif
