#include "HXLVirtualContainer.h"

#include "HXLCore.h"
#include "HXLVirtualPersistNode.h"

HXLVirtualContainer::HXLVirtualContainer(unsigned int a, unsigned int b, int c)
    : m_ownsMemoryMgr(0), m_memoryMgr(NULL), m_fast(HXLVirtualMemoryMgr::fastPathOf(NULL)) {
    HXL_TRY {
        m_memoryMgr = new HXLVirtualMemoryMgr(a, b, c);
    }
    HXL_TRANSLATE(NULL);
    if (m_memoryMgr == NULL)
        HXL_THROW(HXLOutOfMemoryError(0, NULL));
    m_ownsMemoryMgr = 1;
    m_fast = HXLVirtualMemoryMgr::fastPathOf(m_memoryMgr);
}

HXLVirtualContainer::HXLVirtualContainer(HXLVirtualMemoryMgr::mappertype type, unsigned int a,
                                         unsigned int b, int c)
    : m_ownsMemoryMgr(0), m_memoryMgr(NULL), m_fast(HXLVirtualMemoryMgr::fastPathOf(NULL)) {
    HXL_TRY {
        m_memoryMgr = new HXLVirtualMemoryMgr(type, a, a, b, c);
    }
    HXL_TRANSLATE(NULL);
    if (m_memoryMgr == NULL)
        HXL_THROW(HXLOutOfMemoryError(0, NULL));
    m_ownsMemoryMgr = 1;
    m_fast = HXLVirtualMemoryMgr::fastPathOf(m_memoryMgr);
}

HXLVirtualContainer::HXLVirtualContainer(HXLVirtualMemoryMgr* memMgr)
    : m_ownsMemoryMgr(0), m_memoryMgr(memMgr), m_fast(HXLVirtualMemoryMgr::fastPathOf(memMgr)) {}

HXLVirtualContainer::~HXLVirtualContainer() {
    if (m_ownsMemoryMgr != 0 && m_memoryMgr != NULL) {
        // A destructor lets nothing out: the store is gone either way.
        try {
            delete m_memoryMgr;
        } catch (...) {
        }
    }
    m_memoryMgr = NULL;
}

void HXLVirtualContainer::registerNodeCreator(unsigned int classId, NodeCreator creator) {
    m_nodeCreators.insert(std::make_pair(classId, creator));
}

HXLVirtualPersistNode* HXLVirtualContainer::createNode(unsigned int classId) {
    std::map<unsigned int, NodeCreator>::const_iterator found = m_nodeCreators.find(classId);
    if (found == m_nodeCreators.end() || found->second == NULL)
        return NULL;
    HXLVirtualPersistNode* node = found->second(this);
    if (node == NULL)
        HXL_THROW(HXLOutOfMemoryError(0, NULL), "HXLVirtualContainer::createNode");
    return node;
}

HXLVirtualPersistNode* HXLVirtualContainer::getNodeSlow(unsigned long long offset) {
    // The fast path has declined already: straight to the manager's own call.
    void* node = m_memoryMgr->getAddressSlow(offset, 1);
    if (node == NULL && offset != HXLVirtualPageItem::kInvalidOffset)
        HXL_THROW(HXLOutOfMemoryError(0, NULL), "HXLVirtualContainer::getNode");
    return static_cast<HXLVirtualPersistNode*>(node);
}

HXLVirtualPersistNode* HXLVirtualContainer::getNode(HXLVirtualPageItem& item) {
    return getNode(item.getOffset());
}

void* HXLVirtualContainer::alloc(unsigned int size, HXLVirtualPageItem& item) {
    return m_memoryMgr->alloc(size, item);
}

void HXLVirtualContainer::free(HXLVirtualPageItem& item) {
    m_memoryMgr->free(item);
}

void HXLVirtualContainer::dismiss(unsigned long long offset) {
    m_memoryMgr->dismiss(offset);
}

void HXLVirtualContainer::dismiss(HXLVirtualPageItem& item) {
    m_memoryMgr->dismiss(item);
}

void* HXLVirtualContainer::getAddress(HXLVirtualPageItem& item, int flag) {
    return m_memoryMgr->getAddress(item, flag);
}

void HXLVirtualContainer::dirty(HXLVirtualPageItem&) {}

void HXLVirtualContainer::unMap(unsigned long long) {}

void HXLVirtualContainer::dumpMapper(std::ostream& os) {
    m_memoryMgr->dumpMapper(os, 3);
}
