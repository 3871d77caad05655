#ifndef HXLVIRTUALSTRINGPAYLOAD_H
#define HXLVIRTUALSTRINGPAYLOAD_H

// Internal to the two string handles: the steps on a payload that do not depend on its form.
// Not part of the interface.
#include "HXLCore.h"
#include "HXLTranslated.h"
#include "HXLVirtualContainer.h"
#include "HXLVirtualMemoryMgr.h"
#include "HXLVirtualPageItem.h"
#include "HXLVirtualReference.h"

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

// Whether an item's offset may name a payload: neither 0 (empty) nor kInvalidOffset.
inline bool namesPayload(unsigned long long offset) {
    return offset != 0 && offset != HXLVirtualPageItem::kInvalidOffset;
}

// The address of a payload with one reference taken, null (none taken) for an item that names
// nothing: empty or kInvalidOffset. A live payload that the store cannot map throws
// HXLOutOfMemoryError with `location` as the frame's function: it never reads as no payload.
inline void* mapPayload(HXLVirtualMemoryMgr* memMgr, const HXLVirtualPageItem& item,
                        const char* location) {
    const unsigned long long offset = item.getOffset();
    if (!namesPayload(offset))
        return NULL;
    return hxl_translated::required(memMgr->getAddress(offset, 1), location);
}

// One mapping of a payload for one step of a string operation (a compare or a copy), given
// back when the scope ends, also by an exception; see mapPayload for what it maps. Nothing
// that could free or move the payload runs while it is held, so the dismiss reuses what the
// mapping found instead of looking the object up again.
class MappedPayload {
public:
    MappedPayload(HXLVirtualMemoryMgr* memMgr, const HXLVirtualPageItem& item, const char* location)
        : m_memMgr(memMgr), m_offset(item.getOffset()), m_address(NULL) {
        m_hold.count = NULL;
        if (!namesPayload(m_offset))
            return;
        m_address = static_cast<const char*>(
            tcmalloc::fastMapHeld(*memMgr->m_fast, m_offset, true, m_hold));
        if (m_address == NULL) // the fast path declined: the store's own call, once
            m_address = mapSlow(memMgr, m_offset, location);
    }
    MappedPayload(const MappedPayload&) = delete;
    MappedPayload& operator=(const MappedPayload&) = delete;
    // As HXLVirtualReference's: a failed dismiss goes on, unless an exception is unwinding.
    ~MappedPayload() noexcept(false) {
        if (m_address != NULL && !releasedFast())
            releaseSlow(m_memMgr, m_offset, m_address);
    }

    // The payload of `item` where it lies, when it is resident and a look at it needs nothing of
    // the store (tcmalloc::fastPeek): good until the next call on the store. Null otherwise,
    // with nothing changed: map it then.
    static const char* peek(HXLVirtualMemoryMgr* memMgr, const HXLVirtualPageItem& item) {
        // 0 and kInvalidOffset name no resident object: the fast path declines them itself.
        return static_cast<const char*>(tcmalloc::fastPeek(*memMgr->m_fast, item.getOffset()));
    }

    const char* get() const { return m_address; }
    explicit operator bool() const { return m_address != NULL; }
    // Gives the mapping back now; null afterwards, also when the dismiss throws.
    void reset() {
        const char* address = m_address;
        m_address = NULL;
        if (address != NULL && !releasedFast())
            m_memMgr->dismissSlow(m_offset);
    }

private:
    // The store's own calls, out of line: a compare or copy that the fast path serves keeps no
    // guard or exception object in its frame.
    __attribute__((noinline, cold)) static const char*
    mapSlow(HXLVirtualMemoryMgr* memMgr, unsigned long long offset, const char* location) {
        return static_cast<const char*>(
            hxl_translated::required(memMgr->getAddressSlow(offset, 1), location));
    }
    // The store's own dismiss, under the guard's rules for exceptions.
    __attribute__((noinline, cold)) static void
    releaseSlow(HXLVirtualMemoryMgr* memMgr, unsigned long long offset, const char* address) {
        HXLVirtualReference<const char> rest(memMgr, offset, address);
    }

    bool releasedFast() {
        return m_hold.count != NULL && tcmalloc::fastRelease(*m_memMgr->m_fast, m_hold);
    }

    HXLVirtualMemoryMgr* m_memMgr;
    unsigned long long m_offset;
    const char* m_address;
    tcmalloc::FastHold m_hold;
};

// The store step of setString: `size` bytes at `bytes` into the payload of `item`, by the
// manager's alloc under the translation guard (`location` names the frame).
inline void storePayload(HXLVirtualMemoryMgr* memMgr, HXLVirtualPageItem& item, const void* bytes,
                         unsigned int size, const char* location) {
    void* block = hxl_translated::run(location, [&] { return memMgr->alloc(size, item); });
    HXLVirtualReference<char> payload(
        memMgr, item.getOffset(), static_cast<char*>(hxl_translated::required(block, location)));
    std::memcpy(payload.get(), bytes, item.getSize());
}

// Whether the first and the last word of `size` bytes (at least one word) are equal at `x` and
// `y`: for size up to two words, whether all the bytes are.
template <class Word> bool sameEnds(const char* x, const char* y, unsigned int size) {
    Word x0, x1, y0, y1;
    std::memcpy(&x0, x, sizeof(Word));
    std::memcpy(&y0, y, sizeof(Word));
    std::memcpy(&x1, x + size - sizeof(Word), sizeof(Word));
    std::memcpy(&y1, y + size - sizeof(Word), sizeof(Word));
    return ((x0 ^ y0) | (x1 ^ y1)) == 0;
}

// Whether `size` bytes at `a` and `b` are equal. Names, keys and short values are a few bytes
// long: up to 16 are compared without a call, by two overlapping loads from each side (one byte
// for a size of 1), never reading outside either range.
inline bool sameBytes(const void* a, const void* b, unsigned int size) {
    const char* x = static_cast<const char*>(a);
    const char* y = static_cast<const char*>(b);
    if (size >= 8 && size <= 16)
        return sameEnds<unsigned long long>(x, y, size);
    if (size >= 4 && size < 8)
        return sameEnds<unsigned>(x, y, size);
    if (size >= 2 && size < 4)
        return sameEnds<unsigned short>(x, y, size);
    if (size < 2)
        return size == 0 || x[0] == y[0];
    return std::memcmp(x, y, size) == 0;
}

// 1 when two payloads of one store have the same size and bytes, else 0. Maps nothing when
// the sizes differ; otherwise maps `mine`, then `theirs`, and gives them back in that order.
// Two empty items have no address and compare as 0; so does anything with a null store.
inline int equalPayloads(HXLVirtualMemoryMgr* memMgr, const HXLVirtualPageItem& mine,
                         const HXLVirtualPageItem& theirs, const char* location) {
    if (memMgr == NULL || mine.getSize() != theirs.getSize())
        return 0;
    MappedPayload first(memMgr, mine, location);
    MappedPayload second(memMgr, theirs, location);
    const int equal =
        first && second && sameBytes(first.get(), second.get(), mine.getSize()) ? 1 : 0;
    first.reset();
    second.reset();
    return equal;
}

// 1 when the payload of `item` equals the item's size's worth of `bytes`, else 0: the caller
// has compared the sizes. Looks at a resident payload in place; maps any other once and gives
// it back.
inline int payloadEquals(HXLVirtualMemoryMgr* memMgr, const HXLVirtualPageItem& item,
                         const void* bytes, const char* location) {
    // Nothing calls the store during the compare, so a resident payload is read where it lies.
    if (const char* resident = MappedPayload::peek(memMgr, item))
        return sameBytes(resident, bytes, item.getSize()) ? 1 : 0;
    const MappedPayload payload(memMgr, item, location);
    return payload && sameBytes(payload.get(), bytes, item.getSize()) ? 1 : 0;
}

} // namespace hxl_string_detail

#endif
