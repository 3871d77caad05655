#ifndef HXLVIRTUALMEMORYMGR_H
#define HXLVIRTUALMEMORYMGR_H

#include "HXLExport.h"
#include "HXLVirtualPageItem.h"
#include "VirtualMemoryFastPath.h"

#include <ostream>

class HXLVirtualPageItemPool;
namespace hxl_string_detail {
class MappedPayload;
}

/// @ingroup store
/// @brief A per-object mapping record; this manager keeps none (getMapper gives null).
class HXLVirtualMapper;

/// @ingroup store
/// @brief The one door to the paged store.
///
/// It owns the paging engine and the page item pool; objects are named by page items and mapped to
/// addresses between a getAddress (or alloc) and the matching dismiss. The manager takes no lock:
/// callers serialise calls on one store.
///
/// References: each address from alloc or getAddress holds one reference on its object and is
/// good until the one dismiss that answers it. allocUsingPool leaves none held; free ends the
/// object, and its addresses with it.
///
/// Paging: an object that nobody holds may leave memory at any later call and come back, perhaps
/// at another address, with the same bytes; a held object stays where it is. At most the budget
/// of unheld objects stays in memory.
///
/// Exceptions: the constructors throw HXLOutOfMemoryError when the store cannot be made; alloc
/// and allocUsingPool throw it when the store gives no address (alloc throws HXLAssertError when
/// a growing object's old bytes cannot be mapped back); throwExceptionOnReferenceLeak throws
/// HXLIllegalStateError; dumpMapper throws HXLOutOfMemoryError and what the stream throws.
/// Misuse throws HXLIllegalStateError naming the call and the offset, and changes nothing: a
/// dismiss of a live-looking offset whose object holds no reference or that names no object,
/// and a free of such an offset (an object freed already through a copy of its item). The
/// other calls throw nothing: a failure is a null address or no effect.
class HXL_EXPORT HXLVirtualMemoryMgr {
public:
    /// The mapping mode; accepted and ignored: every store has one mapping mode.
    enum mappertype : int {
        eMapperDefault = 0, ///< the one mode
        eMapperVirtual = 1  ///< the same mode
    };
    /// Bits of the flags of dumpMapper.
    enum diagflags : int {
        eDumpStats = 1, ///< the store's statistics
        eDumpMapper = 2 ///< the mapper part of the report
    };

    /// @name Making and ending a store
    /// @{

    /// A store whose resident budget comes from `a` (0 means 0x400000 bytes); b and c are
    /// ignored. Throws HXLOutOfMemoryError when the store cannot be made.
    HXLVirtualMemoryMgr(unsigned int a, unsigned int b, int c);
    /// A store whose budget comes from `b`; a, c and d are ignored. Throws HXLOutOfMemoryError
    /// when the store cannot be made.
    HXLVirtualMemoryMgr(unsigned int a, unsigned int b, unsigned int c, int d);
    /// A store whose budget comes from `b`; m, a, c and d are ignored. Throws
    /// HXLOutOfMemoryError when the store cannot be made.
    HXLVirtualMemoryMgr(mappertype m, unsigned int a, unsigned int b, unsigned int c, int d);
    /// Deletes the page item pool, then the store: every object ends, freed or not.
    virtual ~HXLVirtualMemoryMgr();
    /// Not copyable: the manager owns its store.
    HXLVirtualMemoryMgr(const HXLVirtualMemoryMgr&) = delete;
    /// Not assignable: the manager owns its store.
    HXLVirtualMemoryMgr& operator=(const HXLVirtualMemoryMgr&) = delete;
    /// @}

    /// @name Objects and their references
    /// @{

    /// Makes or resizes the object of `item` and returns its address with one reference held.
    ///
    /// An empty item, or a size equal to or above item.getSize(), makes a new object (the old
    /// one's bytes are copied over and it is freed); a smaller size shrinks in place. Throws
    /// HXLOutOfMemoryError when the store gives no address, and HXLAssertError when a growing
    /// object's old bytes cannot be mapped back.
    void* alloc(unsigned int size, HXLVirtualPageItem& item) {
        // Inline: a new object costs one call, into the store.
        if (!item.empty())
            return resize(size, item);
        tcmalloc::PageItem record;
        void* result = m_pool->Allocate(static_cast<unsigned long long>(size), record);
        item.setOffset(record.offset);
        item.setSize(size);
        if (result == nullptr)
            allocFailed();
        return result;
    }
    /// Ends the object of a live item and sets its offset to 0; the size stays.
    ///
    /// Its addresses end with it. Throws HXLIllegalStateError, with the item unchanged, when the
    /// offset names no live object.
    void free(HXLVirtualPageItem& item) {
        // Inline, as alloc; the store counts misuse where the manager can see it.
        tcmalloc::PageItem record;
        record.offset = item.getOffset();
        if (!isLive(record.offset))
            return;
        const unsigned long long misuses = m_fast->misuses;
        m_pool->Deallocate(record);
        if (m_fast->misuses != misuses)
            misuse("HXLVirtualMemoryMgr::free", "no live object", record.offset);
        item.setOffset(0);
    }
    /// Marks the object of a live item as changed. Writers need not call it.
    void dirty(HXLVirtualPageItem& item);
    /// Gives back one reference on the object of a live item; its address may be dead after.
    ///
    /// Throws HXLIllegalStateError, changing nothing, when the object holds no reference or the
    /// offset names none.
    void dismiss(HXLVirtualPageItem& item) { dismiss(item.getOffset()); }
    /// Gives back one reference on the object at `offset`; as dismiss(HXLVirtualPageItem&).
    void dismiss(unsigned long long offset) {
        // Inline: a resident object is let go here, without a call into the store.
        if (!tcmalloc::fastDismiss(*m_fast, offset))
            dismissSlow(offset);
    }
    /// The address of the object of a live item, with one reference taken.
    ///
    /// Null (no reference) for an empty or invalid item or when the store cannot give it. Pass 1
    /// as `flag`. The address is good until the dismiss that answers it.
    void* getAddress(HXLVirtualPageItem& item, int flag) {
        return getAddress(item.getOffset(), flag);
    }
    /// The address of the object at `offset`, with one reference taken; as
    /// getAddress(HXLVirtualPageItem&, int).
    void* getAddress(unsigned long long offset, int flag) {
        // Inline: a resident object is mapped here, without a call into the store.
        if (void* address = tcmalloc::fastMap(*m_fast, offset, flag != 0))
            return address;
        return getAddressSlow(offset, flag);
    }

    /// @}

    /// @name Shared blocks
    /// @{

    /// Stores `size` bytes at `data` in an object shared with every other caller of equal bytes
    /// that the page item pool still remembers; `item` names it afterwards.
    ///
    /// No reference is left held. Null data or size 0 leave `item` alone. Throws
    /// HXLOutOfMemoryError when the store gives no address.
    void allocUsingPool(const void* data, unsigned int size, HXLVirtualPageItem& item);
    /// Sets the most entries the page item pool remembers (1000 at first).
    void setVirtualPageItemPoolSize(unsigned int size);
    /// @}

    /// @name Kept for existing callers
    /// @{

    /// Does nothing: the store decides itself what leaves memory.
    virtual void pageOut(unsigned int);
    /// Does nothing: dumpMapper takes its flags on each call.
    void setDiagnosticMode(diagflags);
    /// Always null.
    HXLVirtualMapper* getMapper(unsigned long long offset) const;
    /// @}

    /// @name Leaks and the report
    /// @{

    /// The process-wide switch of throwExceptionOnReferenceLeak (0 off, at first).
    static int getExceptionOnReferenceLeak();
    /// Turns the process-wide switch of throwExceptionOnReferenceLeak on (non-zero) or off.
    static void setExceptionOnReferenceLeak(int on);
    /// With the switch on: empties the page item pool, then throws HXLIllegalStateError when any
    /// object of the store holds a reference. With it off: does nothing.
    void throwExceptionOnReferenceLeak();

    /// Writes the store's report to `os`; `flags` holds diagflags bits.
    ///
    /// Throws HXLOutOfMemoryError and what the stream throws.
    void dumpMapper(std::ostream& os, int flags);
    /// @}

private:
    // The container maps its nodes through the same fast path, held beside its manager pointer
    // so that a step of a walk loads one pointer less.
    friend class HXLVirtualContainer;
    // A reference guard gives its reference back through the same fast path, and goes to the
    // store only when that declines.
    template <class T> friend class HXLVirtualReference;
    // A string operation maps its payload through the same fast path and gives it back
    // without a second look-up.
    friend class hxl_string_detail::MappedPayload;
    // The fast path of `memMgr`, or the empty table when it is null.
    static tcmalloc::FastTable* fastPathOf(HXLVirtualMemoryMgr* memMgr);
    // Whether an offset may name an object: neither 0 (empty) nor kInvalidOffset (a root).
    static bool isLive(unsigned long long offset) {
        return offset != 0 && offset != HXLVirtualPageItem::kInvalidOffset;
    }

    void initialize(unsigned int storeSize);
    // alloc on an item that names an object already: a smaller size shrinks it in place, any
    // other gives a new object with the old bytes carried over.
    void* resize(unsigned int size, HXLVirtualPageItem& item);
    // Throws HXLOutOfMemoryError for alloc.
    [[noreturn]] static void allocFailed();
    // What the inline calls leave to the store: objects out of memory, offsets that name no
    // object, and the rare cases the store's fast path declines.
    void* getAddressSlow(unsigned long long offset, int flag);
    void dismissSlow(unsigned long long offset);
    // Throws HXLIllegalStateError naming the operation and the offset.
    [[noreturn]] static void misuse(const char* operation, const char* what,
                                    unsigned long long offset);

    tcmalloc::VirtualMemoryPool* m_pool;
    // The store's published fast path, or an empty table when the store offers none (every
    // inline call then goes on to the store).
    tcmalloc::FastTable* m_fast;
    HXLVirtualPageItemPool* m_pageItemPool;
    static int m_exceptionOnReferenceLeak;
};

#endif
