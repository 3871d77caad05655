#ifndef HXLVIRTUALCONTAINER_H
#define HXLVIRTUALCONTAINER_H

#include "HXLExport.h"
#include "HXLVirtualMemoryMgr.h"
#include "HXLVirtualPageItem.h"

#include <cstddef>
#include <map>
#include <ostream>

class HXLVirtualContainer;
class HXLVirtualPersistNode;

// Makes a new node of one class in the container's store and returns it with one reference
// held. The static `create` of every node class has this type.
typedef HXLVirtualPersistNode* (*NodeCreator)(HXLVirtualContainer*);

// Ties one memory manager to a registry of node creators. Every stored node knows its container
// and reaches other stored objects through it. The registry lives in process memory and is the
// only link from a class identifier to code; existing nodes are reached by offset alone.
//
// No operation takes a lock: register every creator before other threads use the container,
// and serialise calls on the store as the manager requires.
//
// References: createNode and getNode give a node with one reference held, given back once by
// the node's dismiss() or the container's dismiss; the manager's operations follow its rule.
//
// Paging: a node that nobody holds may leave memory; it is reached again by its offset.
//
// Exceptions: the constructors that build a manager throw HXLOutOfMemoryError when it cannot
// be made; createNode throws HXLOutOfMemoryError when the creator gives null and passes on what
// the creator throws; alloc throws as the manager's does. The others throw nothing.
class HXL_EXPORT HXLVirtualContainer {
public:
    // Builds and owns a manager made as HXLVirtualMemoryMgr(a, b, c): `a` is the resident
    // budget in bytes (0: the manager's default). Failures to build it leave by the translation
    // guard's exceptions, and no container exists then.
    HXLVirtualContainer(unsigned int a, unsigned int b, int c);
    // Builds and owns a manager made as HXLVirtualMemoryMgr(type, a, a, b, c), so `a` is the
    // budget here too.
    HXLVirtualContainer(HXLVirtualMemoryMgr::mappertype type, unsigned int a, unsigned int b,
                        int c);
    // Uses `memMgr` without owning it; it must outlive this container and may serve several.
    explicit HXLVirtualContainer(HXLVirtualMemoryMgr* memMgr);
    // Deletes the manager if this container built it, which ends every object of its store at
    // once; no node is visited. A borrowed manager and its store stay as they are.
    virtual ~HXLVirtualContainer();
    HXLVirtualContainer(const HXLVirtualContainer&) = delete;
    HXLVirtualContainer& operator=(const HXLVirtualContainer&) = delete;

    // Registers the creator of the class `classId`. The first registration of an identifier
    // stands: later ones, with any creator, are ignored. A null creator is stored as such and
    // makes createNode give null for that identifier.
    void registerNodeCreator(unsigned int classId, NodeCreator creator);
    // A new node of the class registered under `classId`, in no tree, with one reference held
    // for the caller. Null when nothing (or a null creator) is registered under the
    // identifier. Throws HXLOutOfMemoryError when the creator gives null; what the creator
    // throws passes through.
    HXLVirtualPersistNode* createNode(unsigned int classId);
    // The live node whose block starts at `offset`, with one more reference on it that the
    // caller gives back with dismiss. Null (no reference) for 0 and kInvalidOffset. Throws
    // HXLOutOfMemoryError when the store cannot bring a live node back (a failed or damaged
    // page-in, no room to page in): a live link is never read as absent. The offset must name
    // a node's block: nothing here can tell.
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
    // The same for the item's offset; its size plays no part.
    HXLVirtualPersistNode* getNode(HXLVirtualPageItem& item);

    // The manager's operations of the same names, with the arguments unchanged.
    void* alloc(unsigned int size, HXLVirtualPageItem& item);
    void free(HXLVirtualPageItem& item);
    void dismiss(unsigned long long offset);
    void dismiss(HXLVirtualPageItem& item);
    void* getAddress(HXLVirtualPageItem& item, int flag);
    // Have no effect, and reach nothing: node fields are written through mapped addresses.
    void dirty(HXLVirtualPageItem& item);
    void unMap(unsigned long long offset);

    // The manager of the store, built or borrowed.
    HXLVirtualMemoryMgr* getMemoryMgr() const { return m_memoryMgr; }

    // The store's report with statistics: the manager's dumpMapper(os, 3).
    void dumpMapper(std::ostream& os);

private:
    // A tree node moves its reference along a list through the store's fast path.
    friend class HXLVirtualTreeNode;
    // getNode(to) and then the manager's dismiss(from), in one step when the store's fast path
    // can (both resident in one span); null with nothing done otherwise.
    HXLVirtualPersistNode* moveNode(unsigned long long from, unsigned long long to) {
        return static_cast<HXLVirtualPersistNode*>(tcmalloc::fastMove(*m_fast, from, to, true));
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
