#ifndef HXLVIRTUALNODECLASS_H
#define HXLVIRTUALNODECLASS_H

/// @file
/// @ingroup nodes
/// @brief Declaring an application's own stored node class.
///
/// Put HXL_VIRTUAL_NODE_CLASS(ClassName) first in the body of a class derived (directly or not)
/// from HXLVirtualPersistNode, usually from HXLVirtualTreeNode:
///
///     class Chapter : public HXLVirtualTreeNode {
///         HXL_VIRTUAL_NODE_CLASS(Chapter)
///     public:
///         Chapter() : m_pages(0) {}
///         void dump(std::ostream& os) override { os << ", pages: " << m_pages; } // optional
///         void onInit() override { m_pages = 1; }                               // optional
///         int m_pages;
///         HXLVirtualUTF8String m_title; // text lives in the store; pass the container
///     };
///
///     tree.registerNodeCreator(Chapter::getClassId(), Chapter::create);
///     Chapter* c = static_cast<Chapter*>(tree.createNode(Chapter::getClassId()));
///
/// The macro gives the class everything a stored node class needs:
///  - its own class identifier, static m_classId (0 until computed) guarded by its own
///    m_classIdLock; getClassId() and the override getClassIdentifier() both give CRC-32
///    (seed 0) of the bytes of the name as written, computed once;
///  - the overrides getClassName() (the name as written) and getSize() (sizeof the class);
///  - static create(HXLVirtualContainer*), a NodeCreator: allocates sizeof(ClassName) bytes
///    in the container's store, constructs the object there with its default constructor,
///    sets its page offset and container and runs onInit; one reference is held for the caller;
///  - the override destroy(), which runs the destructor in place and frees nothing.
/// dump and onInit stay the class's own choice. The macro leaves the access at "public".
///
/// The rules of the stored image bind the class's own fields: they are moved as raw bytes and
/// the destructor does not run when the store goes away, so no member may own heap memory or
/// hold an address of a store object. Link to other stored objects by store offset (page
/// items); keep text in HXLVirtualUTF8String or HXLVirtualI18NString members. The class needs a
/// default constructor, and its alignment may not exceed 16 bytes.
///
/// The lock and the identifier are inline static members, made when the program (or library)
/// that declares the class is loaded; ask for getClassId() from main or later, not from the
/// initialiser of another static object.
#include "HXLCore.h"
#include "HXLVirtualPersistNode.h"

#include <atomic>

/// @ingroup nodes
/// @brief Makes ClassName a stored node class: class identifier, name, size, create and
/// destroy.
///
/// Put it first in the body of the class; HXLVirtualNodeClass.h describes what it gives and
/// the rules of the stored image that bind the class.
#define HXL_VIRTUAL_NODE_CLASS(ClassName)                                                          \
public:                                                                                            \
    static unsigned int getClassId() {                                                             \
        return computeClassId(m_classId, m_classIdLock, #ClassName, sizeof(#ClassName) - 1);       \
    }                                                                                              \
    unsigned int getClassIdentifier() override {                                                   \
        return getClassId();                                                                       \
    }                                                                                              \
    const char* getClassName() override {                                                          \
        return #ClassName;                                                                         \
    }                                                                                              \
    unsigned int getSize() override {                                                              \
        return static_cast<unsigned int>(sizeof(ClassName));                                       \
    }                                                                                              \
    static HXLVirtualPersistNode* create(HXLVirtualContainer* container) {                         \
        return createInStore<ClassName>(container);                                                \
    }                                                                                              \
    void destroy() override {                                                                      \
        this->~ClassName();                                                                        \
    }                                                                                              \
                                                                                                   \
private:                                                                                           \
    static inline std::atomic<unsigned int> m_classId{0};                                          \
    static inline HXLThreadCriticalSection m_classIdLock{0};                                       \
                                                                                                   \
public:

#endif
