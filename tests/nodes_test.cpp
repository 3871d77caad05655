// Containers, stored nodes and trees. The editing operations run against a model of the links
// (fuzz/tree_fuzz.cpp) on seeded programs; the other test covers what a random forest cannot:
// class identifiers, the registry's rules, refusals and the root's own ways.
#include "store_test_util.h"

#include <tuple>

namespace {

typedef std::vector<unsigned long long> Words;

// Previous sibling, next sibling and parent, as the page items of the links give them.
Words links(HXLVirtualTreeNode* node) {
    return {node->getPreviousSiblingPageItem().getOffset(),
            node->getNextSiblingPageItem().getOffset(), node->getParentPageItem().getOffset()};
}

class Book : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Book)
};
// An onInit that adds up the offsets it saw.
class Tally : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Tally) // leaves the access public
    void onInit() override { m_initSeen += getContainer() != NULL ? getPageOffset() : 1; }
    unsigned long long m_initSeen = 0;
};

TEST(TreeEditingModel, RandomProgramsAgree) {
    runModel(120, 1500);
}

// What a random forest does not show: classes, the registry's rules, trees sharing a manager,
// the root's own ways, refusals, and a dump that starts at a stored node.
TEST(Tree, ClassesRegistryRootsAndRefusals) {
    HXLVirtualMemoryMgr memMgr(16 * 1024, 0, 0);
    unsigned long long kept;
    { // over a borrowed manager every tree has a root of its own; nodes stay allocated
        HXLVirtualTree borrowing(&memMgr);
        HXLVirtualPersistNode* book = Book::create(&borrowing);
        borrowing.getRootNode()->appendChild(static_cast<HXLVirtualTreeNode*>(book));
        kept = book->getPageOffset();
        book->dismiss();
    }
    HXLVirtualTree tree(&memMgr);
    HXLVirtualTreeNode* root = tree.getRootNode();
    EXPECT_EQ(root->getChildCount(), 0u);
    EXPECT_STREQ(tree.getNode(kept)->getClassName(), "Book");
    tree.dismiss(kept);

    // None built in; a null creator gives null and blocks later registrations; the first
    // registration stands, unchecked against the class it makes; a creator giving null raises.
    const unsigned int treeNodeId = HXLVirtualTreeNode::getClassId(), bookId = Book::getClassId();
    tree.registerNodeCreator(treeNodeId, NULL);
    tree.registerNodeCreator(treeNodeId, HXLVirtualTreeNode::create);
    tree.registerNodeCreator(bookId, Tally::create);
    tree.registerNodeCreator(bookId, Book::create);
    tree.registerNodeCreator(7,
                             [](HXLVirtualContainer*) -> HXLVirtualPersistNode* { return NULL; });
    EXPECT_TRUE(!tree.createNode(HXLVirtualPersistNode::getClassId()) &&
                !tree.createNode(treeNodeId));
    EXPECT_EQ(thrown([&] { tree.createNode(7); }),
              "memory: Out of memory <- HXL_THROW HXLVirtualContainer::createNode");
    // Through the base the stored image's table answers: identifier (CRC-32 of the name),
    // name and size.
    const std::tuple<HXLVirtualPersistNode*, unsigned int, unsigned int, const char*> classes[] = {
        {HXLVirtualPersistNode::create(&tree), HXLVirtualPersistNode::getClassId(), 24,
         "HXLVirtualPersistNode"},
        {HXLVirtualTreeNode::create(&tree), treeNodeId, 72, "HXLVirtualTreeNode"},
        {tree.createNode(bookId), Tally::getClassId(), sizeof(Tally), "Tally"}};
    for (const auto& [node, classId, size, name] : classes) {
        // The identifier is zlib's CRC-32 of the name, also when it is computed in two pieces.
        const unsigned char* bytes = reinterpret_cast<const unsigned char*>(name);
        EXPECT_EQ(classId, ::crc32(0, bytes, std::strlen(name)));
        EXPECT_EQ(
            HXLUtCrc32::crc32(HXLUtCrc32::crc32(0, bytes, 3), bytes + 3, std::strlen(name) - 3),
            classId);
        EXPECT_EQ(node->getClassIdentifier(), classId);
        EXPECT_STREQ(node->getClassName(), name);
        EXPECT_EQ(node->getVirtualPageItem().getSize(), size);
        node->dismiss();
    }
    // onInit ran once, with offset and container set; getNode (of an item too) gives the same
    // address with one more reference and runs nothing; destroy ends the object, not its block
    // or its reference.
    HXLVirtualPageItem item = std::get<0>(classes[2])->getVirtualPageItem();
    Tally* tally = static_cast<Tally*>(tree.getNode(item.getOffset()));
    EXPECT_EQ(tally->m_initSeen, item.getOffset());
    EXPECT_EQ(tree.getNode(item), tally);
    tally->dismiss();
    tally->destroy();
    EXPECT_EQ(heldReferences(memMgr), 1u);
    tree.dismiss(item);
    // The root: on the heap, with the mark for no block, never referenced.
    EXPECT_TRUE(root->getContainer() == &tree &&
                root->getVirtualPageItem().getOffset() == HXLVirtualPageItem::kInvalidOffset &&
                root->getVirtualPageItem().getSize() == 72u && root->getNextSibling(1) == nullptr &&
                root->getParent(1) == nullptr);

    // Refusals change nothing. Without a parent only the two nodes are linked, and no parent
    // link appears; removing from an empty list takes no reference. A dump from a stored node
    // shows it and its later siblings at depth 0.
    auto* a = static_cast<HXLVirtualTreeNode*>(HXLVirtualTreeNode::create(&tree));
    auto* b = static_cast<HXLVirtualTreeNode*>(HXLVirtualTreeNode::create(&tree));
    HXLVirtualTreeNode detached; // no container, as after destroy
    HXLVirtualContainer managerless(static_cast<HXLVirtualMemoryMgr*>(NULL));
    const std::pair<std::function<void()>, const char*> refusals[] = {
        {[&] { detached.dismiss(); }, "m_container"},
        {[] { Book::create(NULL); }, "container != NULL"},
        {[&] { Tally::create(&managerless); }, "memMgr"},
        {[&] { root->appendChild(NULL); }, "child != NULL"},
        {[&] { a->insertBefore(NULL); }, "sibling != NULL"},
        {[&] { root->replaceChild(NULL, a); }, "oldChild != NULL"},
        {[&] { root->replaceChild(a, NULL); }, "newChild != NULL"}};
    for (const auto& refusal : refusals)
        EXPECT_EQ(thrown(refusal.first),
                  std::string("assert: HXL_ASSERT(") + refusal.second + "); <- HXL_THROW");
    EXPECT_EQ(links(a), Words(3));
    a->insertAfter(b);
    a->removeChildren(NULL, NULL);
    EXPECT_EQ(links(b), Words({a->getPageOffset(), 0, 0}));
    b->appendChild(static_cast<Book*>(Book::create(&tree)));
    std::ostringstream os;
    tree.dumpTree(a, os);
    EXPECT_EQ(os.str(), "**Dump of Virtual Tree**\n\nNode: Class: HXLVirtualTreeNode\n"
                        "Node: Class: HXLVirtualTreeNode\n-Node: Class: Book\n\n");
    a->dismiss();
    b->dismiss();
    EXPECT_EQ(heldReferences(memMgr), 1u); // the Book's own
}

} // namespace
