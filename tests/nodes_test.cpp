// Containers, stored nodes, tree navigation and the tree dump: class identifiers, the stored
// image, reference balance and the exact dump text.
#include "nodes_test_util.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>

namespace {

const unsigned int kBudget = 64 * 1024;
const unsigned long long kInvalid = HXLVirtualPageItem::kInvalidOffset;

unsigned int crcOf(const char* name) {
    return static_cast<unsigned int>(
        ::crc32(0, reinterpret_cast<const Bytef*>(name), static_cast<uInt>(std::strlen(name))));
}
unsigned long long refs(HXLVirtualContainer& container) {
    return outstandingReferences(container.getMemoryMgr());
}

class Book : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Book)
};
class Chapter : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Chapter)
};
class Note : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Note)
};
// Fields, a dump text of its own, and an onInit that adds up the offsets it saw.
class Tally : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Tally)
public:
    void dump(std::ostream& os) override { os << "[value=" << m_value << "]"; }
    void onInit() override { m_initSeen += getContainer() != NULL ? getPageOffset() : 1; }
    long long m_value = 0;
    unsigned long long m_initSeen = 0;
};

TEST(PersistNode, ClassesCreationAndDestroy) {
    HXLVirtualContainer container(kBudget, 0, 0);
    const struct {
        HXLVirtualPersistNode* node;
        unsigned int classId, size;
        const char* name;
    } classes[] = {{HXLVirtualPersistNode::create(&container), HXLVirtualPersistNode::getClassId(),
                    24, "HXLVirtualPersistNode"},
                   {HXLVirtualTreeNode::create(&container), HXLVirtualTreeNode::getClassId(), 72,
                    "HXLVirtualTreeNode"},
                   {Tally::create(&container), Tally::getClassId(), sizeof(Tally), "Tally"}};
    for (const auto& c : classes) { // through the base: the stored image's table answers
        EXPECT_EQ(c.classId, crcOf(c.name));
        EXPECT_EQ(c.node->getClassIdentifier(), c.classId);
        EXPECT_STREQ(c.node->getClassName(), c.name);
        EXPECT_EQ(c.node->getVirtualPageItem().getSize(), c.size);
        c.node->dismiss();
    }
    EXPECT_EQ(refs(container), 0u);
    // onInit ran once, with offset and container set; getNode does not run it again.
    const unsigned long long offset = classes[2].node->getPageOffset();
    Tally* tally = static_cast<Tally*>(container.getNode(offset));
    EXPECT_EQ(tally->m_initSeen, offset);
    tally->destroy(); // ends the object, not its block or its reference
    EXPECT_EQ(refs(container), 1u);
    container.dismiss(offset);

    HXLVirtualTreeNode detached; // no container, as after destroy
    EXPECT_EQ(assertionText([&] { detached.dismiss(); }), "HXL_ASSERT(m_container);");
    EXPECT_EQ(assertionText([] { HXLVirtualTreeNode::create(NULL); }),
              "HXL_ASSERT(container != NULL);");
    HXLVirtualContainer managerless(static_cast<HXLVirtualMemoryMgr*>(NULL));
    EXPECT_EQ(assertionText([&] { Tally::create(&managerless); }), "HXL_ASSERT(memMgr);");
}

TEST(Container, RegistryAndGetNode) {
    HXLVirtualContainer container(kBudget, 0, 0);
    EXPECT_EQ(container.createNode(HXLVirtualTreeNode::getClassId()), nullptr); // none built in
    // The first registration stands; the identifier is not checked against the class made.
    container.registerNodeCreator(Book::getClassId(), Note::create);
    container.registerNodeCreator(Book::getClassId(), Book::create);
    HXLVirtualPersistNode* node = container.createNode(Book::getClassId());
    EXPECT_STREQ(node->getClassName(), "Note");
    // A null creator gives null and blocks later registrations; a creator giving null throws.
    container.registerNodeCreator(Chapter::getClassId(), NULL);
    container.registerNodeCreator(Chapter::getClassId(), Chapter::create);
    EXPECT_EQ(container.createNode(Chapter::getClassId()), nullptr);
    container.registerNodeCreator(
        7, [](HXLVirtualContainer*) -> HXLVirtualPersistNode* { return NULL; });
    EXPECT_THROW(container.createNode(7), HXLOutOfMemoryError);

    // Nothing there: null and no reference.
    HXLVirtualPageItem empty, invalid(kInvalid, 72), item = node->getVirtualPageItem();
    EXPECT_TRUE(!container.getNode(0ULL) && !container.getNode(empty) &&
                !container.getNode(invalid));
    EXPECT_EQ(container.getNode(item), node); // the same address, one more reference
    node->dismiss();
    node->dismiss();
    EXPECT_EQ(refs(container), 0u);
}

// root -> top (three children), then a sibling of top: the image of top, and the references
// of every navigation step.
TEST(TreeNode, StoredImageAndNavigation) {
    HXLVirtualTree tree(kBudget, 0, 0);
    HXLVirtualTreeNode* root = tree.getRootNode();
    HXLVirtualTreeNode *top = make<HXLVirtualTreeNode>(tree), *kids[3];
    for (HXLVirtualTreeNode*& kid : kids)
        top->appendChild(kid = make<HXLVirtualTreeNode>(tree));
    HXLVirtualTreeNode* other = make<HXLVirtualTreeNode>(tree);
    root->appendChild(top);
    root->appendChild(other);

    unsigned long long words[9];
    std::memcpy(words, static_cast<const void*>(top), sizeof(words));
    auto at = [](HXLVirtualTreeNode* node) { return node->getPageOffset(); };
    auto ptr = [](const void* address) { return reinterpret_cast<unsigned long long>(address); };
    // Words 1-8: offset, container, parent (the root's address), first and last child, no
    // previous sibling, the next one, and the count word with bit 31 set for the root parent.
    const unsigned long long expected[] = {at(top),     ptr(&tree), ptr(root), at(kids[0]),
                                           at(kids[2]), 0,          at(other), 0x80000003u};
    for (int w = 1; w < 9; ++w)
        EXPECT_EQ(words[w] & (w == 8 ? 0xFFFFFFFFu : ~0ULL), expected[w - 1]) << "word " << w;
    EXPECT_EQ(top->getChildCount(), 3u);
    for (HXLVirtualTreeNode* node : {kids[0], kids[1], kids[2], other})
        node->dismiss();

    HXLVirtualTreeNode* first = top->getFirstChild();
    HXLVirtualTreeNode* last = top->getLastChild();
    EXPECT_EQ(last->getNextSibling(0), nullptr);
    EXPECT_EQ(last->getNextSibling(1), nullptr);           // lets itself go at the end too
    HXLVirtualTreeNode* second = first->getNextSibling(1); // the reference moves along
    EXPECT_EQ(second->getPreviousSibling(0), kids[0]);
    EXPECT_EQ(kids[0]->getPreviousSibling(1), nullptr);
    EXPECT_EQ(second->getParent(0), top); // a stored parent: one reference per call
    EXPECT_EQ(second->getParent(1), top);
    top->dismiss();
    top->dismiss();
    second->dismiss();
    EXPECT_EQ(refs(tree), 1u); // top only
    // The root: hidden unless asked for, never referenced, and never shown as an address.
    EXPECT_EQ(top->getParent(0), nullptr);
    EXPECT_EQ(top->getParent(1), root);
    EXPECT_EQ(top->getParentPageItem().getOffset(), kInvalid);
    HXLVirtualTreeNode* next = top->getNextSibling(1);
    EXPECT_EQ(next->hasChildren(), 0); // though its count word is not 0
    next->dismiss();
    EXPECT_EQ(root->getNextSibling(1), nullptr);
    EXPECT_EQ(root->getParent(1), nullptr);
    EXPECT_EQ(refs(tree), 0u);
}

TEST(Tree, RootLifecycleAndDump) {
    // Over a borrowed manager every tree has a root of its own; nodes stay allocated.
    HXLVirtualMemoryMgr memMgr(kBudget, 0, 0);
    unsigned long long kept;
    {
        HXLVirtualTree borrowing(&memMgr);
        Book* book = make<Book>(borrowing);
        borrowing.getRootNode()->appendChild(book);
        kept = book->getPageOffset();
        book->dismiss();
    }
    HXLVirtualTree borrowing(&memMgr);
    EXPECT_EQ(borrowing.getRootNode()->getChildCount(), 0u);
    EXPECT_STREQ(borrowing.getNode(kept)->getClassName(), "Book");
    borrowing.dismiss(kept);

    // A tree that owns its store; deleting it at the end, with references held, is quiet.
    HXLVirtualTree tree(kBudget, 0, 0);
    HXLVirtualTreeNode* root = tree.getRootNode();
    EXPECT_EQ(root->getContainer(), &tree);
    EXPECT_EQ(root->getVirtualPageItem().getOffset(), kInvalid);
    EXPECT_EQ(root->getVirtualPageItem().getSize(), 72u);
    std::ostringstream fresh;
    tree.dumpTree(NULL, fresh);
    EXPECT_EQ(fresh.str(), "**Dump of Virtual Tree**\n\nNode: Class: HXLVirtualTreeNode\n\n");
    Book* book = make<Book>(tree);
    Chapter* chapter = make<Chapter>(tree);
    root->appendChild(book);
    book->appendChild(chapter);
    root->appendChild(make<Note>(tree));
    const char* const example =
        "**Dump of Virtual Tree**\n\nNode: Class: HXLVirtualTreeNode\n"
        "-Node: Class: Book\n--Node: Class: Chapter\n-Node: Class: Note\n\n";
    // From a stored node: that node at depth 0 with its subtree, then its later siblings. A
    // class's own dump text follows its class name directly.
    const char* const fromBook = "**Dump of Virtual Tree**\n\nNode: Class: Book\n"
                                 "-Node: Class: Chapter\nNode: Class: Note\n\n";
    const char* const withTally = "**Dump of Virtual Tree**\n\nNode: Class: Book\n"
                                  "-Node: Class: Chapter\n--Node: Class: Tally[value=-5]\n"
                                  "Node: Class: Note\n\n";
    const std::pair<HXLVirtualTreeNode*, const char*> dumps[] = {
        {NULL, example}, {root, example}, {book, fromBook}};
    for (const auto& dump : dumps) {
        std::ostringstream os;
        tree.dumpTree(dump.first, os);
        EXPECT_EQ(os.str(), dump.second);
    }
    Tally* tally = make<Tally>(tree);
    tally->m_value = -5;
    chapter->appendChild(tally);
    std::ostringstream os;
    tree.dumpTree(book, os);
    EXPECT_EQ(os.str(), withTally);
    EXPECT_EQ(refs(tree), 4u); // the test's own: book, chapter, note, tally
}

} // namespace
