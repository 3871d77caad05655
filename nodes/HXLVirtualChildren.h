#ifndef HXLVIRTUALCHILDREN_H
#define HXLVIRTUALCHILDREN_H

#include "HXLVirtualReference.h"
#include "HXLVirtualTreeNode.h"

#include <utility>

/// @ingroup nodes
/// @brief The children of a tree node as a range for a range-for loop.
///
///
///     for (Chapter* chapter : HXLVirtualChildren<Chapter>(book))
///         total += chapter->m_pages;
///
/// The walk holds one reference, on the child at hand, and moves it along the list as
/// `child = child->getNextSibling(1)` does: the next child is mapped before the one before it is
/// given back. A `break`, a `return` or an exception out of the body gives back the child at
/// hand, and a walk that reaches the end holds nothing. The element is good for one pass of the
/// body; to keep a child longer, take a reference of your own (getNode with its offset).
///
/// `T` is the class that every child is known to have (HXLVirtualTreeNode unless given): the
/// nodes are cast to it unchecked. The parent needs a reference of the caller's (or is a root)
/// for as long as the loop runs; the list must not be edited meanwhile.
///
/// Exceptions: the walk throws HXLOutOfMemoryError, having given back the child at hand, when the
/// store cannot bring the next child back (a live link is never read as the end of the list).
template <class T = HXLVirtualTreeNode> class HXLVirtualChildren {
public:
    /// The end of every walk.
    struct Sentinel {};

    /// The position of a walk: the child at hand, held by the iterator. Move-only, as its
    /// reference.
    class Iterator {
    public:
        /// The position at `child`, whose reference the iterator takes over.
        explicit Iterator(HXLVirtualReference<T> child) : m_child(std::move(child)) {}
        /// The child at hand, good until the iterator moves on; null at the end.
        T* operator*() const noexcept { return m_child.get(); }
        /// Moves to the next child: mapped first, then the one at hand is given back.
        ///
        /// Throws HXLOutOfMemoryError, having given back the child at hand, when the store
        /// cannot bring the next child back.
        Iterator& operator++() {
            // The child at hand moves its reference on to the next, in one step where both are
            // resident in one span. When the next cannot be brought back it keeps it, and `at`
            // gives it back on the way out.
            HXLVirtualReference<T> at(std::move(m_child));
            T* next = static_cast<T*>(at->getNextSibling(1));
            at.release(); // moved on to `next`, or given back at the end of the list
            m_child = HXLVirtualReference<T>(next);
            return *this;
        }
        /// True while a child is at hand: the walk has not reached the end.
        bool operator!=(Sentinel) const noexcept { return static_cast<bool>(m_child); }
        /// True at the end of the walk, where nothing is held.
        bool operator==(Sentinel) const noexcept { return !m_child; }

    private:
        HXLVirtualReference<T> m_child;
    };

    /// The children of `parent` (a stored node or a root); nothing is mapped yet.
    explicit HXLVirtualChildren(HXLVirtualTreeNode* parent) : m_parent(parent) {}

    /// Maps the first child; a childless parent gives a walk that is at its end at once.
    ///
    /// Throws HXLOutOfMemoryError when the store cannot bring the first child back.
    Iterator begin() const {
        return Iterator(HXLVirtualReference<T>(static_cast<T*>(m_parent->getFirstChild())));
    }
    /// The end of the walk.
    Sentinel end() const noexcept { return Sentinel(); }

private:
    HXLVirtualTreeNode* m_parent;
};

#endif
