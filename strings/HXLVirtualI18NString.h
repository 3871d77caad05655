#ifndef HXLVIRTUALI18NSTRING_H
#define HXLVIRTUALI18NSTRING_H

#include "HXLCore.h"
#include "HXLExport.h"
#include "HXLVirtualPageItem.h"

class HXLVirtualContainer;
class HXLVirtualMemoryMgr;

/// @ingroup strings
/// @brief The twin of HXLVirtualUTF8String over the internal form of I18NString.
///
/// The payload is the I18NString::size() bytes at getExternalBuffer(), copied and compared as
/// opaque bytes, with no conversion either way. The page item's size is that byte count.
///
/// As with the UTF-8 string: the handle keeps no store pointer and takes a manager or a
/// container on every call; a null store makes each operation a quiet no-op; the block belongs
/// to the holder and is never freed here; every operation gives back the references it takes.
/// Usable as a member of a stored node. One thread at a time.
///
/// Paging: the payload is an ordinary block; between calls it may leave memory.
///
/// Exceptions: setString throws HXLOutOfMemoryError (with a back-trace frame) when the store
/// cannot allocate. Every operation that reads a payload throws HXLOutOfMemoryError when the
/// store cannot bring it back (a failed or damaged page-in, no room), having taken no reference:
/// a live payload never reads as empty or unequal.
class HXL_EXPORT HXLVirtualI18NString : public HXLVirtualPageItem {
public:
    /// Empty: no payload.
    HXLVirtualI18NString() {}
    /// Leaves the payload in the store.
    virtual ~HXLVirtualI18NString() {}

    /// The stored text; an empty string when there is no payload or no store.
    ///
    /// Payloads are counted by an int: a handle whose size was set to 2 GiB or more by hand
    /// reads as empty. Throws HXLOutOfMemoryError when the store cannot bring the payload back.
    I18NString getString(HXLVirtualMemoryMgr* memMgr);
    /// The stored text, from the store of `container`'s manager; as the form with a manager.
    I18NString getString(HXLVirtualContainer* container);

    /// Stores the internal form of `value`.
    ///
    /// An empty value changes nothing. A shorter value stays in its block; one of equal or
    /// greater size moves to a new block and the old one is freed. Allocation failures throw as
    /// the manager's alloc does, with a back-trace frame.
    void setString(const I18NString& value, HXLVirtualMemoryMgr* memMgr);
    /// Stores the internal form of `value` in the store of `container`'s manager; as the form
    /// with a manager.
    void setString(const I18NString& value, HXLVirtualContainer* container);

    /// 1 when both payloads have the same size and bytes, else 0.
    ///
    /// Sizes are compared before anything is mapped. Two empty strings compare as 0, and a
    /// null store gives 0.
    int isEqual(HXLVirtualI18NString& other, HXLVirtualMemoryMgr* memMgr);
    /// 1 when both payloads, in the store of `container`'s manager, have the same size and
    /// bytes, else 0; as the form with a manager.
    int isEqual(HXLVirtualI18NString& other, HXLVirtualContainer* container);
    /// 1 when both payloads have the same size and bytes, else 0; as the non-const form.
    int isEqual(const HXLVirtualI18NString& other, HXLVirtualMemoryMgr* memMgr) const;
    /// 1 when the payload equals the internal form of `value`, else 0.
    ///
    /// An empty string against an empty value is 0: the sizes agree, but there is no payload
    /// to compare.
    int isEqual(const I18NString& value, HXLVirtualMemoryMgr* memMgr);
    /// 1 when the payload, in the store of `container`'s manager, equals the internal form of
    /// `value`, else 0; as the form with a manager.
    int isEqual(const I18NString& value, HXLVirtualContainer* container);
};

#endif
