#ifndef HXLVIRTUALTREE_H
#define HXLVIRTUALTREE_H

#include "HXLExport.h"
#include "HXLVirtualContainer.h"
#include "HXLVirtualTreeNode.h"

#include <ostream>

/// @ingroup nodes
/// @brief A container with a root.
///
/// The root is an HXLVirtualTreeNode on the process heap with the page
/// offset kInvalidOffset: it is never paged, needs no reference, and lives exactly as long as
/// the tree. Applications attach stored nodes to it; its children link to it by address.
///
/// References and paging: as for any container and its nodes; the root takes no reference and
/// never pages out.
///
/// Exceptions: the constructors throw as the container's, HXLOutOfMemoryError when the root
/// cannot be made, and pass on what the root's onInit throws; dumpTree passes on what the stream
/// and the nodes' dump throw, and throws HXLOutOfMemoryError when the store cannot bring a node
/// back, leaving no reference of its own held in every case.
class HXL_EXPORT HXLVirtualTree : public HXLVirtualContainer {
public:
    /// @name Constructors
    /// The container's constructors, each followed by the root (whose onInit runs). If the
    /// root cannot be made (HXLOutOfMemoryError), or its onInit throws, nothing is left: a
    /// manager that was built is gone again.
    /// @{

    /// A tree over a manager it builds as HXLVirtualContainer(a, b, c) does: `a` is the
    /// resident budget in bytes.
    HXLVirtualTree(unsigned int a, unsigned int b, int c);
    /// A tree over a manager it builds as HXLVirtualContainer(type, a, b, c) does.
    HXLVirtualTree(HXLVirtualMemoryMgr::mappertype type, unsigned int a, unsigned int b, int c);
    /// A tree over the borrowed `memMgr`, which must outlive it.
    explicit HXLVirtualTree(HXLVirtualMemoryMgr* memMgr);
    /// @}

    /// Deletes the root, then the container part. No stored node is visited: over a borrowed
    /// manager they stay allocated, holding addresses of this dead tree and root.
    ~HXLVirtualTree() override;

    /// The root; no reference is taken or owed.
    HXLVirtualTreeNode* getRootNode() { return m_rootNode; }

    /// Writes a text dump of `node` and its later siblings, with their subtrees, to `os`.
    ///
    /// It writes "**Dump of Virtual Tree**", a blank line, then one line per node: `node` (null:
    /// the root) at depth 0 with its subtree, then each of its later siblings with theirs, each
    /// line "-" times the depth, "Node: Class: ", the class name and the node's own dump text;
    /// and a closing blank line. Changes nothing and leaves no reference behind. `node` needs
    /// no reference of the dump's own: a stored one is mapped again for the walk. Throws
    /// HXLOutOfMemoryError when the store cannot bring a node back, and passes on what the
    /// stream and the nodes' dump throw.
    void dumpTree(HXLVirtualTreeNode* node, std::ostream& os);

private:
    void createRootNode();
    void dumpTreeNode(HXLVirtualTreeNode* node, std::ostream& os, int level);
    void dumpNodeLine(HXLVirtualTreeNode* node, std::ostream& os, int level);

    HXLVirtualTreeNode* m_rootNode;
};

#endif
