#include "HXLVirtualTreeNode.h"

#include "HXLVirtualTree.h"

#include <cstdint>

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

void HXLVirtualTreeNode::appendChild(HXLVirtualTreeNode* child) {
    HXL_ASSERT(child != NULL);
    HXLVirtualTreeNode* last = nodeAt(m_lastChild);
    if (last != NULL) {
        last->m_nextSibling = child->m_pageOffset;
        child->m_previousSibling = last->m_pageOffset;
        child->m_nextSibling = 0;
        child->linkToParent(this);
        m_lastChild = child->m_pageOffset;
        last->dismiss();
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
    HXLVirtualTreeNode* last = nodeAt(m_lastChild);
    if (last != NULL) {
        last->m_nextSibling = child->m_pageOffset;
        child->m_previousSibling = last->m_pageOffset;
        last->dismiss();
    } else {
        m_firstChild = child->m_pageOffset;
        child->m_previousSibling = 0;
    }
    // The links inside the chain stay; at most two chain nodes are held at a time.
    HXLVirtualTreeNode* node = child;
    while (node != NULL) {
        addChildren(1);
        node->linkToParent(this);
        m_lastChild = node->m_pageOffset;
        HXLVirtualTreeNode* next = nodeAt(node->m_nextSibling);
        if (node != child)
            node->dismiss(); // `child` is the caller's reference
        node = next;
    }
}

void HXLVirtualTreeNode::insertAfter(HXLVirtualTreeNode* sibling) {
    HXL_ASSERT(sibling != NULL);
    HXLVirtualTreeNode* next = nodeAt(m_nextSibling);
    if (next != NULL) {
        sibling->m_previousSibling = next->m_previousSibling;
        sibling->m_nextSibling = m_nextSibling;
        m_nextSibling = sibling->m_pageOffset;
        next->m_previousSibling = sibling->m_pageOffset;
        sibling->copyParentLink(this);
        next->dismiss();
        HXLVirtualTreeNode* parent = findParent();
        if (parent != NULL) {
            parent->addChildren(1);
            parent->dismiss();
        }
    } else {
        m_nextSibling = sibling->m_pageOffset;
        sibling->m_previousSibling = m_pageOffset;
        sibling->m_nextSibling = 0;
        sibling->copyParentLink(this);
        HXLVirtualTreeNode* parent = findParent();
        if (parent != NULL) {
            parent->m_lastChild = sibling->m_pageOffset;
            parent->addChildren(1);
            parent->dismiss();
        }
    }
}

void HXLVirtualTreeNode::insertBefore(HXLVirtualTreeNode* sibling) {
    HXL_ASSERT(sibling != NULL);
    HXLVirtualTreeNode* previous = nodeAt(m_previousSibling);
    if (previous != NULL) {
        sibling->m_previousSibling = previous->m_pageOffset;
        sibling->m_nextSibling = previous->m_nextSibling;
        m_previousSibling = sibling->m_pageOffset;
        previous->m_nextSibling = sibling->m_pageOffset;
        sibling->copyParentLink(this);
        previous->dismiss();
        HXLVirtualTreeNode* parent = findParent();
        if (parent != NULL) {
            parent->addChildren(1);
            parent->dismiss();
        }
    } else {
        m_previousSibling = sibling->m_pageOffset;
        sibling->m_nextSibling = m_pageOffset;
        sibling->m_previousSibling = 0;
        sibling->copyParentLink(this);
        HXLVirtualTreeNode* parent = findParent();
        if (parent != NULL) {
            parent->m_firstChild = sibling->m_pageOffset;
            parent->addChildren(1);
            parent->dismiss();
        }
    }
}

void HXLVirtualTreeNode::removeChild(HXLVirtualTreeNode* child) {
    HXL_ASSERT(child != NULL);
    if (m_firstChild == child->m_pageOffset) {
        HXLVirtualTreeNode* next = nodeAt(child->m_nextSibling);
        if (next != NULL) {
            m_firstChild = child->m_nextSibling;
            next->m_previousSibling = 0;
            next->dismiss();
        } else {
            m_firstChild = 0; // the only child
            m_lastChild = 0;
        }
    } else if (m_lastChild == child->m_pageOffset) {
        HXLVirtualTreeNode* previous = nodeAt(child->m_previousSibling);
        m_lastChild = child->m_previousSibling;
        if (previous != NULL) {
            previous->m_nextSibling = 0;
            previous->dismiss();
        }
    } else {
        HXLVirtualTreeNode* previous = nodeAt(child->m_previousSibling);
        HXLVirtualTreeNode* next = nodeAt(child->m_nextSibling);
        if (previous != NULL)
            previous->m_nextSibling = child->m_nextSibling;
        if (next != NULL)
            next->m_previousSibling = child->m_previousSibling;
        if (previous != NULL)
            previous->dismiss();
        if (next != NULL)
            next->dismiss();
    }
    child->m_nextSibling = 0;
    child->m_previousSibling = 0;
    subtractChildren(1);
}

void HXLVirtualTreeNode::removeChildren(HXLVirtualTreeNode* first, HXLVirtualTreeNode* last) {
    if (m_childCount == 0)
        return;
    // Ends taken here are given back at the very end, first before last.
    HXLVirtualTreeNode* takenFirst = NULL;
    HXLVirtualTreeNode* takenLast = NULL;
    if (first == NULL)
        first = takenFirst = nodeAt(m_firstChild);
    if (last == NULL)
        last = takenLast = nodeAt(m_lastChild);

    if (first != NULL && last != NULL) {
        if (first == last) {
            removeChild(first);
        } else if (first->m_pageOffset == m_firstChild && last->m_pageOffset == m_lastChild) {
            // The whole list goes as it is, unvisited, and stays a chain.
            m_firstChild = 0;
            m_lastChild = 0;
            m_childCount = 0;
        } else {
            // Count the range out, holding one node of its inside at a time; the ends are held
            // by the caller or above. A `last` that never comes ends the count at the list's
            // end.
            subtractChildren(1);
            unsigned long long offset = first->m_nextSibling;
            while (offset != 0) {
                subtractChildren(1);
                if (offset == last->m_pageOffset)
                    break;
                HXLVirtualTreeNode* inside = nodeAt(offset);
                if (inside == NULL)
                    break;
                offset = inside->m_nextSibling;
                inside->dismiss();
            }

            HXLVirtualTreeNode* before = nodeAt(first->m_previousSibling);
            HXLVirtualTreeNode* behind = nodeAt(last->m_nextSibling);
            if (before != NULL && behind != NULL) {
                before->m_nextSibling = last->m_nextSibling;
                behind->m_previousSibling = first->m_previousSibling;
            } else if (before != NULL) {
                before->m_nextSibling = 0;
                m_lastChild = before->m_pageOffset;
            } else if (behind != NULL) {
                behind->m_previousSibling = 0;
                m_firstChild = behind->m_pageOffset;
            }
            if (before != NULL)
                before->dismiss();
            if (behind != NULL)
                behind->dismiss();
        }
    }
    if (takenFirst != NULL)
        takenFirst->dismiss();
    if (takenLast != NULL)
        takenLast->dismiss();
}

void HXLVirtualTreeNode::replaceChild(HXLVirtualTreeNode* oldChild, HXLVirtualTreeNode* newChild) {
    HXL_ASSERT(oldChild != NULL);
    HXL_ASSERT(newChild != NULL);
    newChild->m_nextSibling = oldChild->m_nextSibling;
    newChild->m_previousSibling = oldChild->m_previousSibling;
    newChild->copyParentLink(oldChild);
    if (m_lastChild == oldChild->m_pageOffset) {
        m_lastChild = newChild->m_pageOffset;
    } else {
        HXLVirtualTreeNode* next = nodeAt(oldChild->m_nextSibling);
        if (next != NULL) {
            next->m_previousSibling = newChild->m_pageOffset;
            next->dismiss();
        }
    }
    if (m_firstChild == oldChild->m_pageOffset) {
        m_firstChild = newChild->m_pageOffset;
    } else {
        HXLVirtualTreeNode* previous = nodeAt(oldChild->m_previousSibling);
        if (previous != NULL) {
            previous->m_nextSibling = newChild->m_pageOffset;
            previous->dismiss();
        }
    }
}
