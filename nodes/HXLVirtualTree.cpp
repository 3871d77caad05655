#include "HXLVirtualTree.h"

#include "HXLCore.h"
#include "HXLTranslated.h"
#include "HXLVirtualChildren.h"
#include "HXLVirtualReference.h"

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
    m_rootNode = hxl_translated::make<HXLVirtualTreeNode>(NULL);
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
    // The walk's own reference on the node at hand; the root is held without one. Whatever the
    // stream or a node's dump throws, the reference goes back on the way out.
    HXLVirtualReference<HXLVirtualTreeNode> current(
        node->getPageOffset() == HXLVirtualPageItem::kInvalidOffset
            ? node
            : static_cast<HXLVirtualTreeNode*>(getNode(node->getPageOffset())));
    while (current) {
        dumpNodeLine(current.get(), os, 0);
        dumpTreeNode(current.get(), os, 1);
        current = HXLVirtualReference<HXLVirtualTreeNode>(current->getNextSibling(0));
    }
    os << std::endl;
}

void HXLVirtualTree::dumpTreeNode(HXLVirtualTreeNode* node, std::ostream& os, int level) {
    HXL_ASSERT(node);
    // One reference per depth, moved along each list.
    for (HXLVirtualTreeNode* child : HXLVirtualChildren(node)) {
        dumpNodeLine(child, os, level);
        dumpTreeNode(child, os, level + 1);
    }
}
