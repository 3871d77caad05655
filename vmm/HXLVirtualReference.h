#ifndef HXLVIRTUALREFERENCE_H
#define HXLVIRTUALREFERENCE_H

#include "HXLVirtualMemoryMgr.h"
#include "HXLVirtualPageItem.h"

#include <cstddef>
#include <exception>

/// @ingroup store
/// @brief One reference on one object of a store, held by a value that gives it back when it
/// ends.
///
/// It is the answer to "every getAddress, alloc or getNode is answered by exactly one dismiss" on
/// every way out of a scope, a `break`, a `return` or an exception alike.
///
/// A handle either holds nothing (null), or holds the address of an object together with the
/// manager and the offset that the reference is owed to. It is moved, never copied: a moved-from
/// handle holds nothing, and assigning to a handle gives back what it held after it has taken
/// the new reference, so `ref = next` maps the next object before this one may leave memory.
///
///     HXLVirtualReference<char> page(store, item.getOffset(),
///                                    static_cast<char*>(store->getAddress(item, 1)));
///     HXLVirtualReference<Chapter> c(static_cast<Chapter*>(tree.createNode(id)));
///
/// The root of a tree (page offset kInvalidOffset) has no block: a handle on it holds the address
/// and owes nothing.
///
/// References: the handle owns the one it was given; release() hands it back to the caller,
/// reset() and the destructor give it back to the store.
///
/// Paging: while the handle holds its object, the object stays at its address.
///
/// Exceptions: reset() passes on what the manager's dismiss throws. The destructor does so too,
/// unless it runs while another exception leaves the scope: then a failed dismiss is dropped, so
/// that the first exception is the one that goes on. The constructor from a node follows the
/// node's container to its manager and throws nothing of its own.
template <class T> class HXLVirtualReference {
public:
    /// Holds nothing.
    HXLVirtualReference() noexcept : m_memMgr(nullptr), m_offset(0), m_address(nullptr) {}
    /// Takes over the reference that the caller holds on the object at `offset` of `memMgr`,
    /// mapped at `address`. A null address holds nothing (a failed or empty mapping owes none).
    HXLVirtualReference(HXLVirtualMemoryMgr* memMgr, unsigned long long offset, T* address) noexcept
        : m_memMgr(memMgr), m_offset(offset), m_address(address) {}
    /// Takes over the reference that the caller holds on a stored node (from create,
    /// createNode, getNode or navigation): owed to its container's manager at its page offset.
    /// Null holds nothing.
    explicit HXLVirtualReference(T* node)
        : m_memMgr(node != nullptr ? node->getContainer()->getMemoryMgr() : nullptr),
          m_offset(node != nullptr ? node->getPageOffset() : 0), m_address(node) {}
    /// Gives back the reference held, if any; see the class on exceptions.
    ~HXLVirtualReference() noexcept(false) {
        // A resident object is let go inline and cannot fail; only the store's own dismiss
        // may throw, and only then does it matter whether an exception is on its way out.
        if (!owes() || tcmalloc::fastDismiss(*m_memMgr->m_fast, m_offset))
            return;
        try {
            m_memMgr->dismissSlow(m_offset);
        } catch (...) {
            if (std::uncaught_exceptions() > 0)
                return; // the exception that is unwinding this scope goes on
            throw;
        }
    }

    /// Not copyable: one reference has one holder.
    HXLVirtualReference(const HXLVirtualReference&) = delete;
    /// Not assignable from a copy: one reference has one holder.
    HXLVirtualReference& operator=(const HXLVirtualReference&) = delete;
    /// Takes `other`'s reference; `other` holds nothing afterwards.
    HXLVirtualReference(HXLVirtualReference&& other) noexcept
        : m_memMgr(other.m_memMgr), m_offset(other.m_offset), m_address(other.release()) {}
    /// Takes `other`'s reference, then gives back the one this handle held.
    HXLVirtualReference& operator=(HXLVirtualReference&& other) {
        if (this != &other) {
            HXLVirtualReference held(static_cast<HXLVirtualReference&&>(*this));
            m_memMgr = other.m_memMgr;
            m_offset = other.m_offset;
            m_address = other.release();
        }
        return *this;
    }

    /// The mapped object, or null.
    T* get() const noexcept { return m_address; }
    /// The mapped object, for member access; the handle must not be null.
    T* operator->() const noexcept { return m_address; }
    /// The mapped object; the handle must not be null.
    T& operator*() const noexcept { return *m_address; }
    /// True while the handle holds an object.
    explicit operator bool() const noexcept { return m_address != nullptr; }
    /// The store offset of the object held (kInvalidOffset for a root), 0 when null.
    unsigned long long getOffset() const noexcept { return m_address != nullptr ? m_offset : 0; }

    /// Hands the reference to the caller, who answers it with one dismiss; the handle is null.
    T* release() noexcept {
        T* address = m_address;
        m_address = nullptr;
        m_offset = 0;
        return address;
    }
    /// Gives back the reference now; the handle is null afterwards, also when dismiss throws.
    void reset() {
        if (!owes()) {
            m_address = nullptr;
            return;
        }
        const unsigned long long offset = m_offset;
        release();
        m_memMgr->dismiss(offset);
    }

private:
    bool owes() const noexcept {
        return m_address != nullptr && m_offset != HXLVirtualPageItem::kInvalidOffset;
    }

    HXLVirtualMemoryMgr* m_memMgr;
    unsigned long long m_offset;
    T* m_address;
};

#endif
