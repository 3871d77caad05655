/// @file
/// @ingroup contracts
/// @brief The paging engine's optional fast path: a table that the engine publishes and inline
/// routines that map and dismiss a resident object through it, with no call into the engine.
///
/// An engine offers the table through tcmalloc_VirtualMemoryPool_FastTable, declared weak in
/// VirtualMemoryPool.h: an engine without it leaves the symbol null, and callers use the plain
/// calls of VirtualMemoryPool. Either way the behaviour is the same; the routines below only
/// decline (return null or false, with nothing changed) for whatever they do not handle, and the
/// caller then makes the plain call, which handles everything.
///
/// What a hit reads: the table (one line, shared by all hits), the page's entry (16 bytes), the
/// span's hot block (one 64-byte line for the first 32 slots) and the object. The entries lie
/// right behind the table and never move, so a hit finds them from the table's address without
/// loading a pointer.
///
/// The engine takes no lock; neither do these routines: the caller serialises every call on one
/// store, fast or plain.
#ifndef VIRTUALMEMORYFASTPATH_H
#define VIRTUALMEMORYFASTPATH_H

#include "VirtualMemoryPool.h"

#include <cstddef>
#include <cstdint>

namespace tcmalloc {

/// @name Count bytes
/// One byte per slot of a resident span: its object's reference count.
/// @{
const unsigned char kFastFreeSlot = 0;     ///< no object in the slot
const unsigned char kFastCountZero = 1;    ///< an object with count 0; count n is 1 + n
const unsigned char kFastCountTable = 255; ///< the count (254 or more) is kept elsewhere
/// @}

/// A count byte as the routines below read and write it: a type of its own and not a character
/// type, so that the compiler knows a count store changes no table field, page entry or hot
/// block head, and need not load them again after one (a character store may change anything).
/// The values are those of the count bytes above. An engine may read and write the same bytes
/// as unsigned char: a character access is ordered against every other, this type's included.
enum class FastCount : unsigned char {};

/// Bits of FastSpan::flags.
enum FastSpanFlag : unsigned char {
    kFastReferenced = 1, ///< a count went to 0 since the engine's clock hand last passed the span
    kFastScan = 2,     ///< read in file order, not used twice since: releases to 0 are the engine's
    kFastScanUsed = 4, ///< a scan span pinned and released once: its next pin is the engine's
    kFastFresh = 8,    ///< new and not unpinned since: its releases to 0 are the engine's
    kFastWriteSlow = 16, ///< mapping for writing changes the span's copy state: the engine's
};

/// @ingroup contracts
/// @brief The hot block of a resident span, 64-byte aligned.
///
/// The slot counts follow the 32-byte head in the same block: counts()[slot], for every slot
/// index that an offset inside the span can give (indices past the last slot read
/// kFastFreeSlot). The span is pinned while any of its counts is above 0; no count of pins is
/// kept, so that a hit writes its own count byte and nothing that every hit shares. Byte offsets
/// in the comments.
struct FastSpan {
    unsigned long long base;    ///< 0: the offset of the span's first byte
    unsigned long long divisor; ///< 8: ceil(2^64 / slot size); 1 for a span of one large object
    unsigned pageCount;         ///< 16: pages of the span
    unsigned char flags;        ///< 20: FastSpanFlag bits
    unsigned char reserved[3];  ///< 21
    void* owner;                ///< 24: the engine's own record of the span

    /// The slot counts, one byte per slot, behind the head.
    unsigned char* counts() { return reinterpret_cast<unsigned char*>(this) + kCountsOffset; }
    /// The same bytes as the inline routines type them.
    FastCount* fastCounts() { return reinterpret_cast<FastCount*>(counts()); }
    /// Byte offset of the slot counts in the hot block: the head's size.
    static constexpr std::size_t kCountsOffset = 32;
};
static_assert(offsetof(FastSpan, divisor) == 8, "hot block layout");
static_assert(offsetof(FastSpan, pageCount) == 16, "hot block layout");
static_assert(offsetof(FastSpan, flags) == 20, "hot block layout");
static_assert(offsetof(FastSpan, owner) == 24, "hot block layout");
static_assert(sizeof(FastSpan) == FastSpan::kCountsOffset, "hot block layout");

/// The slot of byte `delta` of a span whose FastSpan::divisor is `divisor`, and whether the
/// byte starts that slot.
///
/// With d the slot size and M = ceil(2^64 / d), for delta below 2^32 the
/// high half of M * delta is delta / d and the low half is below M exactly when d divides delta
/// (one multiplication gives both). M = 1 gives slot 0, and a start only at delta 0: a span of
/// one large object.
inline bool fastSlot(unsigned long long delta, unsigned long long divisor, unsigned& slot) {
    __extension__ typedef unsigned __int128 Wide;
    const Wide product = static_cast<Wide>(delta) * divisor;
    slot = static_cast<unsigned>(product >> 64);
    return static_cast<unsigned long long>(product) < divisor;
}

/// @ingroup contracts
/// @brief One entry per page number of the store.
///
/// For a page of a resident span, `span` is its hot block and bias + offset is the address of
/// the byte at `offset`; otherwise `span` is null.
struct FastPage {
    char* bias;     ///< 0: added to an offset of the page, gives its address
    FastSpan* span; ///< 8: the hot block of the page's resident span, or null
};
static_assert(sizeof(FastPage) == 16, "page entry layout");

/// @ingroup contracts
/// @brief The table an engine publishes: good for the life of its VirtualMemoryPool.
///
/// The page entries follow it in memory (`pages` is `this + 1`) and never move; the entries
/// from `pageCount` up to any page number the engine can hand out read as null.
///
/// A hit reads the first line and writes nothing in it but `released`, with a plain store: no
/// counter that every hit would move up and down. Byte offsets in the comments.
struct alignas(64) FastTable {
    FastPage* pages;                  ///< 0: entries by page number (page = offset >> 13): this + 1
    unsigned long long pageCount;     ///< 8: entries in `pages`
    unsigned long long residentBytes; ///< 16: bytes of resident spans
    unsigned long long budget;        ///< 24: the resident budget in bytes
    /// 32: set to 1 whenever a count goes to 0 (and by the engine when it reads spans ahead);
    /// the engine clears it when it sweeps, so that a sweep that found every span pinned is not
    /// repeated until something may have been let go.
    unsigned long long released;
    unsigned long long padding[3]; ///< 40: the misuse fields start the next line
    /// 64: misuse seen since the store was made.
    ///
    /// Misuse is what the plain calls met and answered by doing nothing: a Dismiss of an object
    /// that holds no reference or of an offset that names no object, a Deallocate of an offset
    /// that names no live object (freed already, or never one). A caller compares the count
    /// before and after its call to turn misuse into an error of its own.
    unsigned long long misuses;
    unsigned long long misuseOffset; ///< 72: the offset of the last one
    unsigned layout;                 ///< 80: kFastLayout of the engine that made it
    unsigned reserved;               ///< 84

    /// A page number is an offset shifted right by this: pages of 8 KiB.
    static constexpr unsigned kPageShift = 13;
    /// The version of this layout, which `layout` holds.
    static constexpr unsigned kFastLayout = 3;
};
static_assert(offsetof(FastTable, residentBytes) == 16, "fast table layout");
static_assert(offsetof(FastTable, released) == 32, "fast table layout: what a hit reads, one line");
static_assert(offsetof(FastTable, misuses) == 64, "fast table layout");
static_assert(offsetof(FastTable, layout) == 80, "fast table layout");

/// The count byte of the object at `offset` in a resident span, or null when the offset is in
/// no resident span or is not the start of a slot. Counts of free slots read kFastFreeSlot.
inline FastCount* fastCount(const FastTable& table, unsigned long long offset, FastSpan*& span,
                            const FastPage*& entry) {
    const unsigned long long page = offset >> FastTable::kPageShift;
    if (page >= table.pageCount)
        return nullptr;
    entry = reinterpret_cast<const FastPage*>(&table + 1) + page; // no load: they follow it
    span = entry->span;
    if (span == nullptr)
        return nullptr;
    // Inside a small-object span delta is below 64 KiB, well inside the exact range.
    unsigned slot;
    if (!fastSlot(offset - span->base, span->divisor, slot))
        return nullptr;
    return span->fastCounts() + slot;
}

/// Whether a count that goes to 0 in a span with these `flags` is the engine's to take: the
/// span is new or on the scan queue, or the store is over its budget. The engine then asks
/// whether the span is unpinned.
inline bool fastUnpinIsEngines(const FastTable& table, unsigned char flags) {
    return (flags & (kFastScan | kFastFresh)) != 0 || table.residentBytes > table.budget;
}

/// What a mapping found of its object: the count byte and the span's hot block.
///
/// It stays good from the fastMapHeld that filled it to the fastRelease that answers it, as long
/// as the object is not freed in between: while the object holds the reference that the mapping
/// took, its span stays resident and keeps its hot block, whatever else is called.
struct FastHold {
    FastSpan* span;   ///< the hot block of the object's span
    FastCount* count; ///< the object's count byte; null when the mapping was not fast
};

/// The address of the live resident object at `offset`, with its count raised by 1, when that
/// needs nothing of the engine, and what it found in `hold`; otherwise null with nothing
/// changed and a null `hold.count`, and the caller makes the plain GetAddress call (which also
/// answers every offset that names no object).
inline void* fastMapHeld(FastTable& table, unsigned long long offset, bool forWriting,
                         FastHold& hold) {
    const FastPage* entry;
    FastCount* count = fastCount(table, offset, hold.span, entry);
    hold.count = nullptr;
    if (count == nullptr)
        return nullptr;
    FastSpan* span = hold.span;
    const unsigned char c = static_cast<unsigned char>(*count);
    // Free slots (0) and counts the byte cannot hold (254, 255) go to the engine.
    if (static_cast<unsigned char>(c - kFastCountZero) >= kFastCountTable - 2)
        return nullptr;
    const unsigned char slow = forWriting ? (kFastWriteSlow | kFastScanUsed) : kFastScanUsed;
    if ((span->flags & slow) != 0)
        return nullptr;
    *count = static_cast<FastCount>(c + 1);
    hold.count = count;
    char* const address = entry->bias + offset;
    if (address == nullptr) // a resident object's address: said, so that callers need not test it
        __builtin_unreachable();
    return address;
}

/// fastMapHeld without the hold.
inline void* fastMap(FastTable& table, unsigned long long offset, bool forWriting) {
    FastHold hold;
    return fastMapHeld(table, offset, forWriting, hold);
}

/// Lowers the count of the object that `hold` names by 1 when that needs nothing of the engine
/// and gives true; otherwise false with nothing changed, and the caller makes the plain Dismiss
/// call. `hold` is what fastMapHeld found; see FastHold for how long it is good.
inline bool fastRelease(FastTable& table, const FastHold& hold) {
    FastSpan* span = hold.span;
    const unsigned char c = static_cast<unsigned char>(*hold.count);
    // Counts 1 to 253 only: no reference held, no object, or a count kept elsewhere go on.
    if (static_cast<unsigned char>(c - (kFastCountZero + 1)) >= kFastCountTable - 2)
        return false;
    if (c == kFastCountZero + 1) {
        // The count goes to 0 and may unpin the span.
        const unsigned char flags = span->flags;
        if (fastUnpinIsEngines(table, flags))
            return false;
        span->flags = flags | kFastReferenced;
        table.released = 1;
    }
    *hold.count = static_cast<FastCount>(c - 1);
    return true;
}

/// Lowers the count of the resident object at `offset` by 1 when that needs nothing of the
/// engine and gives true; otherwise false with nothing changed, and the caller makes the plain
/// Dismiss call (which also answers misuse: no reference held, no object).
inline bool fastDismiss(FastTable& table, unsigned long long offset) {
    FastHold hold;
    const FastPage* entry;
    hold.count = fastCount(table, offset, hold.span, entry);
    return hold.count != nullptr && fastRelease(table, hold);
}

/// The address of the live resident object at `offset`, for a look that ends before anything
/// else is called on the store: the store is left as fastMapHeld (for writing) and then
/// fastRelease would leave it, without the counts going up and down, so that only
/// kFastReferenced and `released` may change. Null with nothing changed wherever that pair would
/// decline, and the caller then maps and dismisses as usual. The address is good until the next
/// call on the store other than fastPeek.
inline const void* fastPeek(FastTable& table, unsigned long long offset) {
    FastSpan* span;
    const FastPage* entry;
    const FastCount* count = fastCount(table, offset, span, entry);
    if (count == nullptr)
        return nullptr;
    const unsigned char c = static_cast<unsigned char>(*count);
    if (static_cast<unsigned char>(c - kFastCountZero) >= kFastCountTable - 2 ||
        (span->flags & (kFastWriteSlow | kFastScanUsed)) != 0)
        return nullptr;
    if (c == kFastCountZero) {
        // The pair would take the count back to 0, as fastRelease decides.
        if (fastUnpinIsEngines(table, span->flags))
            return nullptr;
        span->flags |= kFastReferenced;
        table.released = 1;
    }
    return entry->bias + offset;
}

/// Maps the object at `to` and gives back one reference on the object at `from`, as fastMap and
/// then fastDismiss would, when both lie in one resident span and neither needs the engine;
/// otherwise null with nothing changed, and the caller maps and dismisses as usual. While
/// `from` is held the span stays pinned throughout, so a count of `from` that goes to 0 unpins
/// nothing: it needs no decision of the engine, and kFastReferenced and `released` are left
/// for the release that unpins the span to set.
///
/// `fromAddress` must be the address that the mapping of `from` gave (for any other the answer
/// is null). The result is worked out from it, so that a walk along a list waits on one load
/// per step, the link in the node, and not also on the page entry of the next node.
inline void* fastMove(FastTable& table, const void* fromAddress, unsigned long long from,
                      unsigned long long to, bool forWriting) {
    FastSpan* span;
    const FastPage* entry;
    FastCount* toCount = fastCount(table, to, span, entry);
    if (toCount == nullptr)
        return nullptr;
    const unsigned long long delta = from - span->base;
    unsigned slot;
    if (delta >= (static_cast<unsigned long long>(span->pageCount) << FastTable::kPageShift) ||
        !fastSlot(delta, span->divisor, slot))
        return nullptr;
    FastCount* fromCount = span->fastCounts() + slot;
    const unsigned char t = static_cast<unsigned char>(*toCount);
    const unsigned char f = static_cast<unsigned char>(*fromCount);
    // `to` must be live with a count the byte holds, `from` held; a held `from` keeps the span
    // pinned, so kFastScanUsed cannot be set.
    if (static_cast<unsigned char>(t - kFastCountZero) >= kFastCountTable - 2 ||
        static_cast<unsigned char>(f - (kFastCountZero + 1)) >= kFastCountTable - 2 ||
        (forWriting && (span->flags & kFastWriteSlow) != 0))
        return nullptr;
    // One span, one bias: `to` lies as far from `from` in memory as in offsets.
    const std::uintptr_t address = reinterpret_cast<std::uintptr_t>(fromAddress) + (to - from);
    if (address != reinterpret_cast<std::uintptr_t>(entry->bias) + to)
        return nullptr;
    if (address == 0) // a resident object's address: said, so that callers need not test it
        __builtin_unreachable();
    if (toCount != fromCount) {
        *toCount = static_cast<FastCount>(t + 1);
        *fromCount = static_cast<FastCount>(f - 1);
    }
    return reinterpret_cast<void*>(address);
}

} // namespace tcmalloc

#endif
