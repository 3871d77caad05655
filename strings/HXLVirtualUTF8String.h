#ifndef HXLVIRTUALUTF8STRING_H
#define HXLVIRTUALUTF8STRING_H

#include "HXLCore.h"
#include "HXLExport.h"
#include "HXLVirtualPageItem.h"

class HXLVirtualContainer;
class HXLVirtualMemoryMgr;

/// @ingroup strings
/// @brief A string whose UTF-8 bytes lie in a store block, while this object is only the
/// handle.
///
/// Its page item names the block, and its size is the payload's length in bytes. The payload has no
/// length word, no terminator and no header; the block may be larger than the payload.
///
/// The handle keeps no pointer to its store: every operation takes the store, as a manager or
/// as a container (whose manager is used), and the caller passes the same store every time. A
/// null store (or a container without a manager) makes each operation a quiet no-op with the
/// answer its comment gives.
///
/// The block belongs to the holder of the handle. Nothing here frees it, the destructor
/// included; HXLVirtualMemoryMgr::free with the string as page item gives it back. Each
/// operation gives back every reference it takes, except getObjectPtr. Usable as a member of a
/// stored node. One thread at a time.
///
/// Paging: the payload is an ordinary block; between calls (and after getObjectPtr's dismiss)
/// it may leave memory.
///
/// Exceptions: setString throws HXLOutOfMemoryError (with a back-trace frame) when the store
/// cannot allocate. Every operation that reads a payload throws HXLOutOfMemoryError when the
/// store cannot bring it back (a failed or damaged page-in, no room), having taken no reference:
/// a live payload never reads as empty or unequal.
class HXL_EXPORT HXLVirtualUTF8String : public HXLVirtualPageItem {
public:
    /// Empty: no payload.
    HXLVirtualUTF8String() {}
    /// Leaves the payload in the store.
    virtual ~HXLVirtualUTF8String() {}

    /// The payload's address, with one reference held: read getSize() bytes (no terminator),
    /// then call the manager's dismiss with this string.
    ///
    /// Null (nothing to dismiss) for an empty string or a null store. Throws
    /// HXLOutOfMemoryError, with no reference taken, when the store cannot bring the payload
    /// back.
    void* getObjectPtr(HXLVirtualMemoryMgr* memMgr);
    /// The payload's address in the store of `container`'s manager; as the form with a
    /// manager.
    void* getObjectPtr(HXLVirtualContainer* container);

    /// The stored text; an empty string when there is no payload or no store.
    ///
    /// Payloads are counted by an int: a handle whose size was set to 2 GiB or more by hand
    /// reads as empty. Throws HXLOutOfMemoryError when the store cannot bring the payload back.
    I18NString getString(HXLVirtualMemoryMgr* memMgr);
    /// The stored text, from the store of `container`'s manager; as the form with a manager.
    I18NString getString(HXLVirtualContainer* container);

    /// Stores the UTF-8 form of `value`.
    ///
    /// An empty value changes nothing (a string never goes back to empty here). A value shorter
    /// than the payload stays in its block; one of equal or greater length moves to a new block
    /// and the old one is freed, so the offset changes. Allocation failures throw as the
    /// manager's alloc does, with a back-trace frame.
    void setString(const I18NString& value, HXLVirtualMemoryMgr* memMgr);
    /// Stores the UTF-8 form of `value` in the store of `container`'s manager; as the form
    /// with a manager.
    void setString(const I18NString& value, HXLVirtualContainer* container);
    /// Stores the buffer's string, as setString(const I18NString&, HXLVirtualMemoryMgr*); an
    /// empty buffer changes nothing.
    void setString(const HXLI18NBuffer& value, HXLVirtualMemoryMgr* memMgr);
    /// Stores the buffer's string in the store of `container`'s manager; an empty buffer
    /// changes nothing.
    void setString(const HXLI18NBuffer& value, HXLVirtualContainer* container);

    /// Fills `buffer` with the stored text; clears it when there is no payload or no store.
    void getI18NBuffer(HXLI18NBuffer& buffer, HXLVirtualMemoryMgr* memMgr);
    /// Fills `buffer` with the stored text from the store of `container`'s manager; as the
    /// form with a manager.
    void getI18NBuffer(HXLI18NBuffer& buffer, HXLVirtualContainer* container);

    /// 1 when both payloads have the same size and bytes, else 0.
    ///
    /// Sizes are compared before anything is mapped. Two empty strings compare as 0; so does
    /// anything with a null store. Both strings must lie in the given store.
    int isEqual(const HXLVirtualUTF8String& other, HXLVirtualMemoryMgr* memMgr) const;
    /// 1 when both payloads, in the store of `container`'s manager, have the same size and
    /// bytes, else 0; as the form with a manager.
    int isEqual(const HXLVirtualUTF8String& other, HXLVirtualContainer* container) const;
    /// 1 when the payload equals the UTF-8 form of `value` byte for byte, else 0.
    ///
    /// An empty string equals an empty value; with a null store the answer is 0.
    int isEqual(const I18NString& value, HXLVirtualMemoryMgr* memMgr) const;
    /// 1 when the payload, in the store of `container`'s manager, equals the UTF-8 form of
    /// `value`, else 0; as the form with a manager.
    int isEqual(const I18NString& value, HXLVirtualContainer* container) const;
};

#endif
