#include "HXLVirtualTreeNode.h"

#include "HXLTranslated.h"
#include "HXLVirtualReference.h"
#include "HXLVirtualTree.h"

#include <cstddef>
#include <cstdint>
#include <vector>

std::atomic<unsigned int> HXLVirtualTreeNode::m_classId(0);
HXLThreadCriticalSection HXLVirtualTreeNode::m_classIdLock(0);

namespace {
const char kClassName[] = "HXLVirtualTreeNode";

unsigned long long addressAsLink(const HXLVirtualTreeNode* node) {
    return static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(node));
}

HXLVirtualTreeNode* linkAsAddress(unsigned long long link) {
    return reinterpret_cast<HXLVirtualTreeNode*>(static_cast<std::uintptr_t>(link));
}

// A node held by this file's operations for as long as they work on it.
typedef HXLVirtualReference<HXLVirtualTreeNode> NodeRef;
} // namespace

HXLVirtualTreeNode::HXLVirtualTreeNode()
    : m_parent(0), m_firstChild(0), m_lastChild(0), m_previousSibling(0), m_nextSibling(0),
      m_childCount(0), m_parentIsPointer(0) {
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
#endif
    static_assert(offsetof(HXLVirtualTreeNode, m_parent) == 24, "stored image layout");
    static_assert(offsetof(HXLVirtualTreeNode, m_firstChild) == 32, "stored image layout");
    static_assert(offsetof(HXLVirtualTreeNode, m_lastChild) == 40, "stored image layout");
    static_assert(offsetof(HXLVirtualTreeNode, m_previousSibling) == 48, "stored image layout");
    static_assert(offsetof(HXLVirtualTreeNode, m_nextSibling) == 56, "stored image layout");
    static_assert(sizeof(HXLVirtualTreeNode) == 72, "stored image layout");
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
}

HXLVirtualTreeNode::~HXLVirtualTreeNode() {}

unsigned int HXLVirtualTreeNode::getClassId() {
    return computeClassId(m_classId, m_classIdLock, kClassName, sizeof(kClassName) - 1);
}

unsigned int HXLVirtualTreeNode::getClassIdentifier() {
    return getClassId();
}

const char* HXLVirtualTreeNode::getClassName() {
    return kClassName;
}

unsigned int HXLVirtualTreeNode::getSize() {
    return static_cast<unsigned int>(sizeof(HXLVirtualTreeNode));
}

HXLVirtualPersistNode* HXLVirtualTreeNode::create(HXLVirtualContainer* container) {
    return createInStore<HXLVirtualTreeNode>(container);
}

void HXLVirtualTreeNode::destroy() {
    this->~HXLVirtualTreeNode();
}

// ---------------------------------------------------------------------------------------------
// Navigation and queries
// ---------------------------------------------------------------------------------------------

HXLVirtualTreeNode* HXLVirtualTreeNode::findParent() {
    if (m_parentIsPointer != 0)
        return linkAsAddress(m_parent);
    return nodeAt(m_parent);
}

HXLVirtualTreeNode* HXLVirtualTreeNode::getParent(int includeRoot) {
    HXLVirtualTreeNode* parent = findParent();
    if (includeRoot != 0 || parent == NULL || m_parentIsPointer == 0)
        return parent; // a stored parent is never the root
    HXLVirtualTree* tree = dynamic_cast<HXLVirtualTree*>(m_container);
    if (tree != NULL && parent == tree->getRootNode()) {
        parent->dismiss(); // no block behind the root: keeps the pattern of one dismiss per get
        return NULL;
    }
    return parent;
}

int HXLVirtualTreeNode::hasChildren() {
    return m_childCount != 0 ? 1 : 0;
}

HXLVirtualPageItem HXLVirtualTreeNode::getFirstChildPageItem() {
    return HXLVirtualPageItem(m_firstChild, 0);
}

HXLVirtualPageItem HXLVirtualTreeNode::getLastChildPageItem() {
    return HXLVirtualPageItem(m_lastChild, 0);
}

HXLVirtualPageItem HXLVirtualTreeNode::getNextSiblingPageItem() {
    return HXLVirtualPageItem(m_nextSibling, 0);
}

HXLVirtualPageItem HXLVirtualTreeNode::getPreviousSiblingPageItem() {
    return HXLVirtualPageItem(m_previousSibling, 0);
}

HXLVirtualPageItem HXLVirtualTreeNode::getParentPageItem() {
    if (m_parentIsPointer != 0)
        return HXLVirtualPageItem(HXLVirtualPageItem::kInvalidOffset, 0);
    return HXLVirtualPageItem(m_parent, 0);
}

// ---------------------------------------------------------------------------------------------
// Editing
// ---------------------------------------------------------------------------------------------

void HXLVirtualTreeNode::linkToParent(HXLVirtualTreeNode* parent) {
    if (parent->m_pageOffset == HXLVirtualPageItem::kInvalidOffset) {
        m_parent = addressAsLink(parent);
        m_parentIsPointer = 1;
    } else {
        m_parent = parent->m_pageOffset;
        m_parentIsPointer = 0;
    }
}

void HXLVirtualTreeNode::copyParentLink(const HXLVirtualTreeNode* from) {
    m_parent = from->m_parent;
    m_parentIsPointer = from->m_parentIsPointer;
}

// Every operation below maps each node that it will change before it changes any link, so a
// node that the store cannot bring back (HXLOutOfMemoryError from getNode) leaves the tree as it
// was. The writes then follow in the order of the operation's description, and each reference
// taken here goes back through its handle on every way out.

void HXLVirtualTreeNode::appendChild(HXLVirtualTreeNode* child) {
    HXL_ASSERT(child != NULL);
    const NodeRef last(nodeAt(m_lastChild));
    if (last) {
        last->m_nextSibling = child->m_pageOffset;
        child->m_previousSibling = last->m_pageOffset;
        child->m_nextSibling = 0;
        child->linkToParent(this);
        m_lastChild = child->m_pageOffset;
    } else {
        m_firstChild = child->m_pageOffset;
        child->linkToParent(this);
        child->m_nextSibling = 0;
        child->m_previousSibling = 0;
        m_lastChild = m_firstChild;
    }
    addChildren(1);
}

void HXLVirtualTreeNode::appendChildren(HXLVirtualTreeNode* child) {
    HXL_ASSERT(child != NULL);
    const NodeRef last(nodeAt(m_lastChild));
    // The chain's nodes are linked to this parent first, holding at most two of them besides
    // the caller's `child`; the list takes them in only when every one has come back. A chain
    // node that cannot be mapped has its predecessors' parent links put back as they were.
    std::vector<ParentLink> previousLinks;
    unsigned int count = 0;
    unsigned long long tail = 0;
    try {
        NodeRef held;
        for (HXLVirtualTreeNode* node = child; node != NULL; node = held.get()) {
            hxl_translated::run("HXLVirtualTreeNode::appendChildren", [&] {
                previousLinks.push_back(ParentLink{node->m_parent, node->m_parentIsPointer});
            });
            node->linkToParent(this);
            ++count;
            tail = node->m_pageOffset;
            held = NodeRef(node->nodeAt(node->m_nextSibling)); // the next, then this one goes
        }
    } catch (...) {
        restoreParentLinks(child, previousLinks);
        throw;
    }
    if (last) {
        last->m_nextSibling = child->m_pageOffset;
        child->m_previousSibling = last->m_pageOffset;
    } else {
        m_firstChild = child->m_pageOffset;
        child->m_previousSibling = 0;
    }
    addChildren(count);
    m_lastChild = tail;
}

void HXLVirtualTreeNode::restoreParentLinks(HXLVirtualTreeNode* child,
                                            const std::vector<ParentLink>& links) {
    // The nodes came back a moment ago; should one fail now, the first failure is the one that
    // goes on, and nothing more can be put back.
    try {
        NodeRef held;
        HXLVirtualTreeNode* node = child;
        for (std::size_t i = 0; i < links.size() && node != NULL; ++i) {
            node->m_parent = links[i].m_parent;
            node->m_parentIsPointer = links[i].m_parentIsPointer;
            if (i + 1 < links.size()) {
                held = NodeRef(node->nodeAt(node->m_nextSibling));
                node = held.get();
            }
        }
    } catch (...) {
    }
}

void HXLVirtualTreeNode::insertAfter(HXLVirtualTreeNode* sibling) {
    HXL_ASSERT(sibling != NULL);
    insertBeside(sibling, &HXLVirtualTreeNode::m_nextSibling,
                 &HXLVirtualTreeNode::m_previousSibling, &HXLVirtualTreeNode::m_lastChild);
}

void HXLVirtualTreeNode::insertBefore(HXLVirtualTreeNode* sibling) {
    HXL_ASSERT(sibling != NULL);
    insertBeside(sibling, &HXLVirtualTreeNode::m_previousSibling,
                 &HXLVirtualTreeNode::m_nextSibling, &HXLVirtualTreeNode::m_firstChild);
}

void HXLVirtualTreeNode::insertBeside(HXLVirtualTreeNode* sibling, Link toward, Link back,
                                      Link parentEnd) {
    // `toward` is the side the sibling goes to, `back` the other; `parentEnd` is the parent's
    // end of the list on that side. insertAfter and insertBefore are mirror images.
    const NodeRef neighbour(nodeAt(this->*toward));
    const NodeRef parent(findParent());
    if (neighbour) {
        sibling->*back = neighbour.get()->*back; // this node
        sibling->*toward = this->*toward;        // the neighbour
        this->*toward = sibling->m_pageOffset;
        neighbour.get()->*back = sibling->m_pageOffset;
        sibling->copyParentLink(this);
    } else {
        this->*toward = sibling->m_pageOffset;
        sibling->*back = m_pageOffset;
        sibling->*toward = 0;
        sibling->copyParentLink(this);
        if (parent)
            parent.get()->*parentEnd = sibling->m_pageOffset;
    }
    if (parent)
        parent->addChildren(1);
}

void HXLVirtualTreeNode::removeChild(HXLVirtualTreeNode* child) {
    HXL_ASSERT(child != NULL);
    if (m_firstChild == child->m_pageOffset) {
        const NodeRef next(nodeAt(child->m_nextSibling));
        if (next) {
            m_firstChild = child->m_nextSibling;
            next->m_previousSibling = 0;
        } else {
            m_firstChild = 0; // the only child
            m_lastChild = 0;
        }
    } else if (m_lastChild == child->m_pageOffset) {
        const NodeRef previous(nodeAt(child->m_previousSibling));
        m_lastChild = child->m_previousSibling;
        if (previous)
            previous->m_nextSibling = 0;
    } else {
        NodeRef previous(nodeAt(child->m_previousSibling));
        NodeRef next(nodeAt(child->m_nextSibling));
        if (previous)
            previous->m_nextSibling = child->m_nextSibling;
        if (next)
            next->m_previousSibling = child->m_previousSibling;
        previous.reset();
        next.reset();
    }
    child->m_nextSibling = 0;
    child->m_previousSibling = 0;
    subtractChildren(1);
}

void HXLVirtualTreeNode::removeChildren(HXLVirtualTreeNode* first, HXLVirtualTreeNode* last) {
    if (m_childCount == 0)
        return;
    // Ends taken here are given back at the very end, first before last.
    NodeRef takenFirst;
    NodeRef takenLast;
    if (first == NULL) {
        takenFirst = NodeRef(nodeAt(m_firstChild));
        first = takenFirst.get();
    }
    if (last == NULL) {
        takenLast = NodeRef(nodeAt(m_lastChild));
        last = takenLast.get();
    }

    if (first != NULL && last != NULL) {
        if (first == last) {
            removeChild(first);
        } else if (first->m_pageOffset == m_firstChild && last->m_pageOffset == m_lastChild) {
            // The whole list goes as it is, unvisited, and stays a chain.
            m_firstChild = 0;
            m_lastChild = 0;
            m_childCount = 0;
        } else {
            // Count the range, holding one node of its inside at a time; the ends are held by
            // the caller or above. A `last` that never comes ends the count at the list's end.
            unsigned int removed = 1;
            unsigned long long offset = first->m_nextSibling;
            while (offset != 0) {
                ++removed;
                if (offset == last->m_pageOffset)
                    break;
                const NodeRef inside(nodeAt(offset));
                if (!inside)
                    break;
                offset = inside->m_nextSibling;
            }

            NodeRef before(nodeAt(first->m_previousSibling));
            NodeRef behind(nodeAt(last->m_nextSibling));
            subtractChildren(removed);
            if (before && behind) {
                before->m_nextSibling = last->m_nextSibling;
                behind->m_previousSibling = first->m_previousSibling;
            } else if (before) {
                before->m_nextSibling = 0;
                m_lastChild = before->m_pageOffset;
            } else if (behind) {
                behind->m_previousSibling = 0;
                m_firstChild = behind->m_pageOffset;
            }
            before.reset();
            behind.reset();
        }
    }
    takenFirst.reset();
    takenLast.reset();
}

void HXLVirtualTreeNode::replaceChild(HXLVirtualTreeNode* oldChild, HXLVirtualTreeNode* newChild) {
    HXL_ASSERT(oldChild != NULL);
    HXL_ASSERT(newChild != NULL);
    const bool wasLast = m_lastChild == oldChild->m_pageOffset;
    const bool wasFirst = m_firstChild == oldChild->m_pageOffset;
    NodeRef next;
    NodeRef previous;
    if (!wasLast)
        next = NodeRef(nodeAt(oldChild->m_nextSibling));
    if (!wasFirst)
        previous = NodeRef(nodeAt(oldChild->m_previousSibling));
    newChild->m_nextSibling = oldChild->m_nextSibling;
    newChild->m_previousSibling = oldChild->m_previousSibling;
    newChild->copyParentLink(oldChild);
    if (wasLast) {
        m_lastChild = newChild->m_pageOffset;
    } else if (next) {
        next->m_previousSibling = newChild->m_pageOffset;
        next.reset();
    }
    if (wasFirst) {
        m_firstChild = newChild->m_pageOffset;
    } else if (previous) {
        previous->m_nextSibling = newChild->m_pageOffset;
        previous.reset();
    }
}
