#ifndef HXLVIRTUALTREENODE_H
#define HXLVIRTUALTREENODE_H

#include "HXLExport.h"
#include "HXLVirtualPersistNode.h"

#include <vector>

/// @ingroup nodes
/// @brief A stored node with the links of an ordered tree.
///
/// Stored image, 72 bytes, little-endian:
///
///      0  the 24 bytes of HXLVirtualPersistNode
///     24  m_parent           parent's store offset, or the root's process address (see below)
///     32  m_firstChild       store offset of the first child
///     40  m_lastChild        store offset of the last child
///     48  m_previousSibling  store offset of the previous sibling
///     56  m_nextSibling      store offset of the next sibling
///     64  count word         bits 0-30 m_childCount, bit 31 m_parentIsPointer
///     68  padding            never written or read
///
/// 0 in a link means none. The root of a tree lives on the heap and has no offset, so a child
/// of the root holds the root's address in m_parent and has m_parentIsPointer set; every other
/// link is a store offset. The count and the bit share a word but not a meaning: the count is
/// about this node's children, the bit about this node's parent, and no change to one touches
/// the other.
///
/// A tree in good order keeps, for every node: first child, last child and count all 0 or all
/// not 0; the first child has no previous sibling and the last no next; the next-sibling chain
/// from the first child visits `count` nodes and ends at the last child, the previous-sibling
/// chain visits them in reverse; every child's parent link denotes this node.
///
/// Navigation results are live nodes with one reference held (the root excepted: it has no
/// block), given back with dismiss(). Editing operations require the caller to hold references
/// on `this` and on every node passed, and leave the store's references as they found them.
/// An editing node that comes into a list must be in no list (remove it first; nothing checks
/// this), and a node named as a child of `this` must be one. A moved node keeps its children.
/// Nothing is destroyed or freed by editing.
///
/// One thread works on a tree at a time.
///
/// Paging: a node that nobody holds may leave memory; its links are offsets, so nothing else
/// changes and navigation maps it back.
///
/// Exceptions: the editing operations throw HXLAssertError for a null node, before anything
/// changes; getNextSibling(1), getPreviousSibling(1) and dismiss() throw HXLAssertError on a
/// node without a container or manager. Navigation and editing throw HXLOutOfMemoryError when
/// the store cannot bring back a node that a link names (a failed or damaged page-in, no room):
/// navigation then takes no reference (getNextSibling(1) keeps this node's), and an editing
/// operation has changed nothing, since it maps every node it changes before it writes a link.
/// Null from navigation always means that there is no such relative.
class HXL_EXPORT HXLVirtualTreeNode : public HXLVirtualPersistNode {
public:
    /// All links and the count word 0: a node in no tree.
    HXLVirtualTreeNode();

    /// A new, unlinked tree node in the container's store, with one reference held; see
    /// HXLVirtualPersistNode::create.
    static HXLVirtualPersistNode* create(HXLVirtualContainer* container);
    /// CRC-32 of "HXLVirtualTreeNode".
    static unsigned int getClassId();

    /// sizeof(HXLVirtualTreeNode): the bytes of the stored image, 72.
    unsigned int getSize() override;
    /// "HXLVirtualTreeNode".
    const char* getClassName() override;
    /// getClassId(): CRC-32 of "HXLVirtualTreeNode".
    unsigned int getClassIdentifier() override;
    /// Ends the object in place. Unlinks nothing and does not recurse: neighbours, parent and
    /// children keep their links to this node, so take it out of the tree first.
    void destroy() override;
    /// Ends the links' owner; unlinks nothing, as destroy.
    ~HXLVirtualTreeNode() override;

    /// @name Navigation
    /// Each result holds one more reference, or is null with none taken. Null always means
    /// that there is no such relative; a node a link names that the store cannot bring back
    /// throws HXLOutOfMemoryError, with no reference taken.
    /// @{

    /// The first child, with one more reference; null with none taken when there is none.
    HXLVirtualTreeNode* getFirstChild() { return nodeAt(m_firstChild); }
    /// The last child, with one more reference; null with none taken when there is none.
    HXLVirtualTreeNode* getLastChild() { return nodeAt(m_lastChild); }
    /// The next sibling, with one more reference; null with none taken when there is none.
    ///
    /// With a nonzero `dismissSelf` this node is dismissed after the sibling is mapped, also
    /// when there is none: `n = n->getNextSibling(1)` moves one reference along the list. When
    /// the sibling cannot be brought back, this node's reference is kept. With `dismissSelf`,
    /// throws HXLAssertError on a node without a container or manager.
    HXLVirtualTreeNode* getNextSibling(int dismissSelf) {
        return sibling(m_nextSibling, dismissSelf);
    }
    /// The previous sibling, as getNextSibling does towards the first child.
    HXLVirtualTreeNode* getPreviousSibling(int dismissSelf) {
        return sibling(m_previousSibling, dismissSelf);
    }
    /// The parent: a stored parent with one more reference, or the root object with none
    /// taken.
    ///
    /// With includeRoot 0 the root is hidden and a top-level node answers null. The root is
    /// found through the container, which must then be an HXLVirtualTree; in any other
    /// container the parent is given as it is.
    HXLVirtualTreeNode* getParent(int includeRoot);
    /// @}

    /// @name Queries
    /// Queries of this node's own fields; they take no reference. Page items of the links
    /// have size 0; an empty item stands for a missing link.
    /// @{

    /// 1 when this node has children, else 0.
    int hasChildren();
    /// The number of children.
    unsigned int getChildCount() const { return m_childCount; }
    /// The first child's page item, size 0; empty when there is none.
    HXLVirtualPageItem getFirstChildPageItem();
    /// The last child's page item, size 0; empty when there is none.
    HXLVirtualPageItem getLastChildPageItem();
    /// The next sibling's page item, size 0; empty when there is none.
    HXLVirtualPageItem getNextSiblingPageItem();
    /// The previous sibling's page item, size 0; empty when there is none.
    HXLVirtualPageItem getPreviousSiblingPageItem();
    /// The parent's page item, size 0; empty when there is none.
    ///
    /// It is kInvalidOffset when the parent is the root: a link never yields a process address
    /// here.
    HXLVirtualPageItem getParentPageItem();
    /// @}

    /// @name Editing
    /// Each requires the caller to hold references on `this` and on every node passed, and
    /// leaves the store's references as it found them. Null arguments fail with HXLAssertError
    /// before anything changes (removeChildren excepted, where null means an end of the list).
    /// A node that the store cannot bring back throws HXLOutOfMemoryError, and nothing has
    /// changed. The class comment gives the rules of lists.
    /// @{

    /// `child` becomes the last child.
    void appendChild(HXLVirtualTreeNode* child);
    /// `child` and the nodes behind it on its next-sibling chain (up to a 0 link) become the
    /// last children, in their order. Only a chain whose last node has no next sibling is one:
    /// the whole list of a parent after removeChildren(0, 0), or a range removed up to the end.
    void appendChildren(HXLVirtualTreeNode* child);
    /// `sibling` becomes this node's next sibling, under this node's parent (if any: on a node
    /// without a parent only the two are linked).
    void insertAfter(HXLVirtualTreeNode* sibling);
    /// `sibling` becomes this node's previous sibling; as insertAfter.
    void insertBefore(HXLVirtualTreeNode* sibling);
    /// `child` leaves the list; its sibling links become 0, its parent link stays.
    void removeChild(HXLVirtualTreeNode* child);
    /// The children from `first` to `last` leave the list; null stands for the first (or last)
    /// child. A range of one node leaves as by removeChild. A longer range keeps all its links,
    /// also those into the old list; it forms a chain for appendChildren only if it reached the
    /// end of the list.
    void removeChildren(HXLVirtualTreeNode* first, HXLVirtualTreeNode* last);
    /// `newChild` takes the place of `oldChild`, which keeps all its fields as they were.
    void replaceChild(HXLVirtualTreeNode* oldChild, HXLVirtualTreeNode* newChild);
    /// @}

private:
    // Every node reached through a tree node's link is a tree node. Inline, as the steps of a
    // walk are: one field, one mapping.
    HXLVirtualTreeNode* nodeAt(unsigned long long offset) {
        return static_cast<HXLVirtualTreeNode*>(m_container->getNode(offset));
    }
    // The neighbour at `link`, mapped before this node is let go (with dismissSelf). A step
    // within one resident span moves the reference in one go, as a walk does mostly.
    HXLVirtualTreeNode* sibling(unsigned long long link, int dismissSelf) {
        if (dismissSelf != 0 && link != 0 && m_container != nullptr)
            if (HXLVirtualPersistNode* next = m_container->moveNode(this, m_pageOffset, link))
                return static_cast<HXLVirtualTreeNode*>(next);
        HXLVirtualTreeNode* next = nodeAt(link);
        if (dismissSelf != 0)
            dismiss();
        return next;
    }
    // A link field, and a node's parent link as it stood before an edit.
    typedef unsigned long long HXLVirtualTreeNode::*Link;
    struct ParentLink {
        unsigned long long m_parent;
        unsigned int m_parentIsPointer;
    };
    // insertAfter and insertBefore: `toward` is the link on the side where `sibling` goes,
    // `back` the other one, `parentEnd` the parent's end of the list on that side.
    void insertBeside(HXLVirtualTreeNode* sibling, Link toward, Link back, Link parentEnd);
    // Puts back the parent links of the chain from `child` on, one per entry, after a failed
    // appendChildren.
    static void restoreParentLinks(HXLVirtualTreeNode* child, const std::vector<ParentLink>& links);
    void linkToParent(HXLVirtualTreeNode* parent);
    void copyParentLink(const HXLVirtualTreeNode* from);
    HXLVirtualTreeNode* findParent();
    // The mask is the truncation to the field's 31 bits, spelt out for -Wconversion.
    void addChildren(unsigned int count) { m_childCount = (m_childCount + count) & 0x7FFFFFFFu; }
    void subtractChildren(unsigned int count) {
        m_childCount = (m_childCount - count) & 0x7FFFFFFFu;
    }

    unsigned long long m_parent;
    unsigned long long m_firstChild;
    unsigned long long m_lastChild;
    unsigned long long m_previousSibling;
    unsigned long long m_nextSibling;
    unsigned int m_childCount : 31;
    unsigned int m_parentIsPointer : 1;

    static std::atomic<unsigned int> m_classId;
    static HXLThreadCriticalSection m_classIdLock;
};

#endif
