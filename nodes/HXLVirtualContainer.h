#ifndef HXLVIRTUALCONTAINER_H
#define HXLVIRTUALCONTAINER_H

#include "HXLExport.h"
#include "HXLVirtualMemoryMgr.h"
#include "HXLVirtualPageItem.h"

#include <cstddef>
#include <map>
#include <ostream>

/// @file
/// @ingroup nodes
/// @brief The container: a memory manager tied to the registry of node classes.

class HXLVirtualContainer;
class HXLVirtualPersistNode;

/// @ingroup nodes
/// @brief Makes a new node of one class in the container's store and returns it with one
/// reference held.
///
/// The static `create` of every node class has this type.
typedef HXLVirtualPersistNode* (*NodeCreator)(HXLVirtualContainer*);

/// @ingroup nodes
/// @brief Ties one memory manager to a registry of node creators.
///
/// Every stored node knows its container and reaches other stored objects through it. The
/// registry lives in process memory and is the only link from a class identifier to code;
/// existing nodes are reached by offset alone.
///
/// No operation takes a lock: register every creator before other threads use the container,
/// and serialise calls on the store as the manager requires.
///
/// References: createNode and getNode give a node with one reference held, given back once by
/// the node's dismiss() or the container's dismiss; the manager's operations follow its rule.
///
/// Paging: a node that nobody holds may leave memory; it is reached again by its offset.
///
/// Exceptions: the constructors that build a manager throw HXLOutOfMemoryError when it cannot
/// be made; createNode throws HXLOutOfMemoryError when the creator gives null and passes on what
/// the creator throws; alloc throws as the manager's does. The others throw nothing.
class HXL_EXPORT HXLVirtualContainer {
public:
    /// Builds and owns a manager made as HXLVirtualMemoryMgr(a, b, c).
    ///
    /// `a` is the resident budget in bytes (0: the manager's default). Failures to build it
    /// leave by the translation guard's exceptions (HXLOutOfMemoryError when the manager cannot be
    /// made), and no container exists then.
    HXLVirtualContainer(unsigned int a, unsigned int b, int c);
    /// Builds and owns a manager made as HXLVirtualMemoryMgr(type, a, a, b, c), so `a` is the
    /// budget here too. Throws as the constructor of three numbers.
    HXLVirtualContainer(HXLVirtualMemoryMgr::mappertype type, unsigned int a, unsigned int b,
                        int c);
    /// Uses `memMgr` without owning it; it must outlive this container and may serve several.
    explicit HXLVirtualContainer(HXLVirtualMemoryMgr* memMgr);
    /// Deletes the manager if this container built it, which ends every object of its store at
    /// once; no node is visited. A borrowed manager and its store stay as they are.
    virtual ~HXLVirtualContainer();
    /// Not copyable: the container may own its manager.
    HXLVirtualContainer(const HXLVirtualContainer&) = delete;
    /// Not assignable: the container may own its manager.
    HXLVirtualContainer& operator=(const HXLVirtualContainer&) = delete;

    /// Registers the creator of the class `classId`. The first registration of an identifier
    /// stands: later ones, with any creator, are ignored. A null creator is stored as such and
    /// makes createNode give null for that identifier.
    void registerNodeCreator(unsigned int classId, NodeCreator creator);
    /// A new node of the class registered under `classId`, in no tree, with one reference held
    /// for the caller.
    ///
    /// Null when nothing (or a null creator) is registered under the identifier. Throws
    /// HXLOutOfMemoryError when the creator gives null; what the creator throws passes through.
    HXLVirtualPersistNode* createNode(unsigned int classId);
    /// The live node whose block starts at `offset`, with one more reference on it that the
    /// caller gives back with dismiss.
    ///
    /// Null (no reference) for 0 and kInvalidOffset. Throws HXLOutOfMemoryError when the store
    /// cannot bring a live node back (a failed or damaged page-in, no room to page in): a live
    /// link is never read as absent. The offset must name a node's block: nothing here can
    /// tell.
    HXLVirtualPersistNode* getNode(unsigned long long offset) {
        // The block holds the object's image, virtual table pointer included: mapping it is
        // all that makes it live again. Inline: every step of a walk comes through here, and a
        // resident node is mapped without a call.
        if (offset == 0)
            return nullptr;
        if (void* node = tcmalloc::fastMap(*m_fast, offset, true))
            return static_cast<HXLVirtualPersistNode*>(node);
        return getNodeSlow(offset);
    }
    /// The live node at the item's offset, as getNode(unsigned long long); its size plays no
    /// part.
    HXLVirtualPersistNode* getNode(HXLVirtualPageItem& item);

    /// @name The manager's operations
    /// The manager's operations of the same names, with the arguments unchanged.
    /// @{

    /// The manager's alloc: makes or resizes the item's object, with one reference held;
    /// throws as the manager's alloc does.
    void* alloc(unsigned int size, HXLVirtualPageItem& item);
    /// The manager's free: ends the object of a live item.
    void free(HXLVirtualPageItem& item);
    /// The manager's dismiss: gives back one reference on the object at `offset`.
    void dismiss(unsigned long long offset);
    /// The manager's dismiss: gives back one reference on the object of `item`.
    void dismiss(HXLVirtualPageItem& item);
    /// The manager's getAddress: the address of the item's object, with one reference taken.
    void* getAddress(HXLVirtualPageItem& item, int flag);
    /// @}

    /// Has no effect and reaches nothing: node fields are written through mapped addresses.
    void dirty(HXLVirtualPageItem& item);
    /// Has no effect and reaches nothing; a mapping is given back by dismiss.
    void unMap(unsigned long long offset);

    /// The manager of the store, built or borrowed.
    HXLVirtualMemoryMgr* getMemoryMgr() const { return m_memoryMgr; }

    /// Writes the store's report with statistics: the manager's dumpMapper(os, 3).
    void dumpMapper(std::ostream& os);

private:
    // A tree node moves its reference along a list through the store's fast path.
    friend class HXLVirtualTreeNode;
    // getNode(to) and then the manager's dismiss(from), in one step when the store's fast path
    // can (both resident in one span); null with nothing done otherwise. `fromNode` is the
    // node at `from`.
    HXLVirtualPersistNode* moveNode(const void* fromNode, unsigned long long from,
                                    unsigned long long to) {
        return static_cast<HXLVirtualPersistNode*>(
            tcmalloc::fastMove(*m_fast, fromNode, from, to, true));
    }
    // getNode of a nonzero offset that the fast path declined: the manager's getAddress, and
    // HXLOutOfMemoryError for a live node that the store cannot map.
    HXLVirtualPersistNode* getNodeSlow(unsigned long long offset);
    // The manager's getAddress by offset: null for 0, kInvalidOffset or an unmappable block.
    void* getAddress(unsigned long long offset, int flag) {
        return m_memoryMgr->getAddress(offset, flag);
    }

    std::map<unsigned int, NodeCreator> m_nodeCreators;
    int m_ownsMemoryMgr;
    HXLVirtualMemoryMgr* m_memoryMgr;
    tcmalloc::FastTable* m_fast; // the manager's fast path, or an empty one without a manager
};

#endif
