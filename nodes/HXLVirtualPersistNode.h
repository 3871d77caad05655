#ifndef HXLVIRTUALPERSISTNODE_H
#define HXLVIRTUALPERSISTNODE_H

#include "HXLCore.h"
#include "HXLExport.h"
#include "HXLVirtualContainer.h"
#include "HXLVirtualPageItem.h"

#include <atomic>
#include <cstddef>
#include <ostream>

/// @ingroup nodes
/// @brief Base of every typed object that lives in a container's store.
///
/// The object is constructed in place in a store block, and that image is its stored form:
/// 24 bytes here, little-endian,
///
///     0  virtual table pointer   (process address of the class's table)
///     8  m_pageOffset            (store offset of this block; kInvalidOffset: no block)
///    16  m_container             (process address of the owning container)
///
/// followed by the fields of derived classes. The store pages the bytes out and in unchanged,
/// so a mapped block is a live object again; nothing is re-established on the way in. Hence a
/// derived class holds no heap memory and no address of a store object (links are store
/// offsets), and its destructor is not run when the store goes away. The image is good only in
/// the process that made it.
///
/// A node serves one thread at a time.
///
/// References: a node address is good from the getNode (or create) that gave it to the one
/// dismiss that answers it.
///
/// Paging: while nobody holds the node its block may leave memory; it comes back, perhaps at
/// another address, through getNode with its offset. Nothing runs on the way out or in.
///
/// Exceptions: create throws HXLAssertError without a container or manager, HXLOutOfMemoryError
/// when the store is full, and passes on what onInit throws; dismiss throws HXLAssertError
/// without a container or manager (so after destroy). The others throw nothing.
///
/// Applications declare their own classes with HXL_VIRTUAL_NODE_CLASS (HXLVirtualNodeClass.h).
class HXL_EXPORT HXLVirtualPersistNode {
public:
    /// m_pageOffset 0 and no container: create sets both.
    HXLVirtualPersistNode();
    /// Not copyable: a node is its block's image, which knows its own offset.
    HXLVirtualPersistNode(const HXLVirtualPersistNode&) = delete;
    /// Not assignable: a node is its block's image, which knows its own offset.
    HXLVirtualPersistNode& operator=(const HXLVirtualPersistNode&) = delete;

    /// A new node in the store of `container` (which must have a manager), constructed in
    /// place, with its page offset and container set and onInit run.
    ///
    /// The caller holds one reference and gives it back with dismiss(). Store exhaustion throws
    /// HXLOutOfMemoryError from the manager before anything is constructed; a missing container or
    /// manager throws HXLAssertError. If onInit throws, the block stays allocated with its
    /// reference held.
    static HXLVirtualPersistNode* create(HXLVirtualContainer* container);
    /// The class identifier: CRC-32 (seed 0) of the class name's bytes, computed once.
    static unsigned int getClassId();

    /// @name Virtual operations
    /// In the order of their table slots; applications override them (HXL_VIRTUAL_NODE_CLASS
    /// does so for the first four).
    /// @{

    /// Bytes of the stored image of the object's class.
    virtual unsigned int getSize();
    /// The name of the object's class.
    virtual const char* getClassName();
    /// The identifier of the object's class: the same value as that class's getClassId().
    virtual unsigned int getClassIdentifier();
    /// Ends the object in place by its destructor; the block stays allocated with its bytes and
    /// no reference is given back. Afterwards the container is null and dismiss() fails.
    virtual void destroy();
    /// Clears the container. Only the root of a tree lives on the heap and is deleted; a stored
    /// node ends through destroy().
    virtual ~HXLVirtualPersistNode();
    /// Writes the node's own details, on the tree dump's line behind the class name. The base
    /// writes nothing.
    virtual void dump(std::ostream& os);
    /// Runs once, at the end of create, with page offset and container set. Not run by
    /// getNode. The base does nothing.
    virtual void onInit();
    /// @}

    /// The store offset of the node's block (kInvalidOffset for a tree's root), as create sets
    /// it.
    unsigned long long getPageOffset() const { return m_pageOffset; }
    /// Sets the store offset of the node's block; create does so.
    void setPageOffset(unsigned long long pageOffset) { m_pageOffset = pageOffset; }
    /// The node's container, as create sets it; null after destroy.
    HXLVirtualContainer* getContainer() const { return m_container; }
    /// Sets the node's container; create does so.
    void setContainer(HXLVirtualContainer* container) { m_container = container; }

    /// The page offset with the size getSize() reports. Takes no reference.
    HXLVirtualPageItem getVirtualPageItem();
    /// Gives back one reference on this node's block; the address may be dead afterwards.
    ///
    /// Has no effect on a node without a block (the root of a tree). Requires a container with
    /// a manager: throws HXLAssertError without one (so after destroy).
    void dismiss() {
        HXL_ASSERT(m_container);
        HXLVirtualMemoryMgr* memMgr = m_container->getMemoryMgr();
        HXL_ASSERT(memMgr);
        memMgr->dismiss(m_pageOffset); // ignores kInvalidOffset: nothing happens on a root
    }
    /// Has no effect: fields written through a mapped address reach the store by themselves.
    void dirty();

protected:
    /// The class identifier algorithm for every node class.
    ///
    /// A read without the lock first; on 0, under `lock`, read again and store
    /// crc32(0, name, length). A class whose CRC is 0 computes it again on every call, with the
    /// same result.
    static unsigned int computeClassId(std::atomic<unsigned int>& classId,
                                       HXLThreadCriticalSection& lock, const char* name,
                                       std::size_t length);

    /// The first step of create: checks the container and its manager and allocates `size`
    /// bytes with one reference held (the item gets offset and size).
    ///
    /// Throws HXLAssertError without a container or manager, HXLOutOfMemoryError when the store
    /// is full.
    static void* allocateNodeBlock(HXLVirtualContainer* container, unsigned int size,
                                   HXLVirtualPageItem& item);
    /// The last step of create, after the constructor of the node's class: sets page offset and
    /// container and runs onInit, passing on what it throws.
    static HXLVirtualPersistNode* completeNode(HXLVirtualPersistNode* node,
                                               const HXLVirtualPageItem& item,
                                               HXLVirtualContainer* container);
    /// create for class T: the block, T's default constructor in it, then completeNode.
    template <class T> static HXLVirtualPersistNode* createInStore(HXLVirtualContainer* container) {
        HXLVirtualPageItem item;
        void* block = allocateNodeBlock(container, static_cast<unsigned int>(sizeof(T)), item);
        if (block == nullptr)
            return nullptr;
        return completeNode(new (block) T(), item, container);
    }

    unsigned long long m_pageOffset;  ///< the image's field at byte 8; see the class
    HXLVirtualContainer* m_container; ///< the image's field at byte 16; see the class

private:
    static std::atomic<unsigned int> m_classId;
    static HXLThreadCriticalSection m_classIdLock;
};

#endif
