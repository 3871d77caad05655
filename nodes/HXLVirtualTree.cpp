#include "HXLVirtualTree.h"

#include "HXLCore.h"

HXLVirtualTree::HXLVirtualTree(unsigned int a, unsigned int b, int c)
    : HXLVirtualContainer(a, b, c), m_rootNode(NULL) {
    createRootNode();
}

HXLVirtualTree::HXLVirtualTree(HXLVirtualMemoryMgr::mappertype type, unsigned int a, unsigned int b,
                               int c)
    : HXLVirtualContainer(type, a, b, c), m_rootNode(NULL) {
    createRootNode();
}

HXLVirtualTree::HXLVirtualTree(HXLVirtualMemoryMgr* memMgr)
    : HXLVirtualContainer(memMgr), m_rootNode(NULL) {
    createRootNode();
}

HXLVirtualTree::~HXLVirtualTree() {
    if (m_rootNode != NULL) {
        try {
            delete m_rootNode;
        } catch (...) {
        }
        m_rootNode = NULL;
    }
}

void HXLVirtualTree::createRootNode() {
    HXL_TRY {
        m_rootNode = new HXLVirtualTreeNode;
    }
    HXL_TRANSLATE(NULL);
    if (m_rootNode == NULL)
        HXL_THROW(HXLOutOfMemoryError(0, NULL));
    m_rootNode->setPageOffset(HXLVirtualPageItem::kInvalidOffset);
    m_rootNode->setContainer(this);
    try {
        m_rootNode->onInit();
    } catch (...) {
        // The constructor fails: the root must not outlive it.
        delete m_rootNode;
        m_rootNode = NULL;
        throw;
    }
}

void HXLVirtualTree::dumpNodeLine(HXLVirtualTreeNode* node, std::ostream& os, int level) {
    for (int dash = 0; dash < level; ++dash)
        os << '-';
    os << "Node: Class: " << node->getClassName();
    HXLVirtualMemoryMgr* memMgr = getMemoryMgr();
    HXL_ASSERT(memMgr);
    // The manager keeps no per-object mapping record, so nothing stands between the class name
    // and the node's own text.
    node->dump(os);
    os << std::endl;
}

void HXLVirtualTree::dumpTree(HXLVirtualTreeNode* node, std::ostream& os) {
    if (node == NULL)
        node = m_rootNode;
    os << "**Dump of Virtual Tree**" << std::endl << std::endl;
    HXLVirtualTreeNode* current =
        node->getPageOffset() == HXLVirtualPageItem::kInvalidOffset
            ? node
            : static_cast<HXLVirtualTreeNode*>(getNode(node->getPageOffset()));
    while (current != NULL) {
        dumpNodeLine(current, os, 0);
        dumpTreeNode(current, os, 1);
        current = current->getNextSibling(1);
    }
    os << std::endl;
}

void HXLVirtualTree::dumpTreeNode(HXLVirtualTreeNode* node, std::ostream& os, int level) {
    HXL_ASSERT(node);
    // One reference per depth, moved along each list by getNextSibling(1).
    HXLVirtualTreeNode* child = node->getFirstChild();
    while (child != NULL) {
        dumpNodeLine(child, os, level);
        dumpTreeNode(child, os, level + 1);
        child = child->getNextSibling(1);
    }
}
