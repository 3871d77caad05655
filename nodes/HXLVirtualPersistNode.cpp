#include "HXLVirtualPersistNode.h"

#include "HXLVirtualMemoryMgr.h"

// Built when the library is loaded, before any class identifier can be asked for.
std::atomic<unsigned int> HXLVirtualPersistNode::m_classId(0);
HXLThreadCriticalSection HXLVirtualPersistNode::m_classIdLock(0);

namespace {
const char kClassName[] = "HXLVirtualPersistNode";
}

HXLVirtualPersistNode::HXLVirtualPersistNode() : m_pageOffset(0), m_container(NULL) {
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
#endif
    // The stored image is the object itself: its layout is the stored format.
    static_assert(offsetof(HXLVirtualPersistNode, m_pageOffset) == 8, "stored image layout");
    static_assert(offsetof(HXLVirtualPersistNode, m_container) == 16, "stored image layout");
    static_assert(sizeof(HXLVirtualPersistNode) == 24, "stored image layout");
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
}

HXLVirtualPersistNode::~HXLVirtualPersistNode() {
    // A volatile store: after destroy() the image must show no container, so that dismiss()
    // fails, although a compiler may take plain stores in a destructor for dead ones.
    *static_cast<HXLVirtualContainer* volatile*>(&m_container) = NULL;
}

unsigned int HXLVirtualPersistNode::computeClassId(std::atomic<unsigned int>& classId,
                                                   HXLThreadCriticalSection& lock, const char* name,
                                                   std::size_t length) {
    unsigned int id = classId.load(std::memory_order_acquire);
    if (id != 0)
        return id;
    HXLThreadGuard guard(lock);
    id = classId.load(std::memory_order_relaxed);
    if (id == 0) {
        id = HXLUtCrc32::crc32(0, reinterpret_cast<const unsigned char*>(name), length);
        classId.store(id, std::memory_order_release);
    }
    return id;
}

unsigned int HXLVirtualPersistNode::getClassId() {
    return computeClassId(m_classId, m_classIdLock, kClassName, sizeof(kClassName) - 1);
}

unsigned int HXLVirtualPersistNode::getClassIdentifier() {
    return getClassId();
}

const char* HXLVirtualPersistNode::getClassName() {
    return kClassName;
}

unsigned int HXLVirtualPersistNode::getSize() {
    return static_cast<unsigned int>(sizeof(HXLVirtualPersistNode));
}

HXLVirtualPersistNode* HXLVirtualPersistNode::create(HXLVirtualContainer* container) {
    return createInStore<HXLVirtualPersistNode>(container);
}

void HXLVirtualPersistNode::destroy() {
    this->~HXLVirtualPersistNode();
}

void HXLVirtualPersistNode::dump(std::ostream&) {}

void HXLVirtualPersistNode::onInit() {}

void* HXLVirtualPersistNode::allocateNodeBlock(HXLVirtualContainer* container, unsigned int size,
                                               HXLVirtualPageItem& item) {
    HXL_ASSERT(container != NULL);
    HXLVirtualMemoryMgr* memMgr = container->getMemoryMgr();
    HXL_ASSERT(memMgr);
    return memMgr->alloc(size, item);
}

HXLVirtualPersistNode* HXLVirtualPersistNode::completeNode(HXLVirtualPersistNode* node,
                                                           const HXLVirtualPageItem& item,
                                                           HXLVirtualContainer* container) {
    node->m_pageOffset = item.getOffset();
    node->m_container = container;
    // Should onInit throw, the exception passes on and the block stays allocated with its
    // reference held: the application's onInit decides what its failure leaves.
    node->onInit();
    return node;
}

HXLVirtualPageItem HXLVirtualPersistNode::getVirtualPageItem() {
    return HXLVirtualPageItem(m_pageOffset, getSize());
}

void HXLVirtualPersistNode::dirty() {}
