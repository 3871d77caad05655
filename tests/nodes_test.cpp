// Containers, stored nodes, tree navigation and the tree dump: class identifiers, the stored
// image, paging round trips, reference balance and the exact dump text.
#include "nodes_test_util.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <memory>
#include <stdexcept>

namespace {

const unsigned int kBudget = 64 * 1024;
const unsigned long long kInvalid = HXLVirtualPageItem::kInvalidOffset;

unsigned int crcOf(const char* name) {
    return static_cast<unsigned int>(
        ::crc32(0, reinterpret_cast<const Bytef*>(name), static_cast<uInt>(std::strlen(name))));
}
template <class T> T* make(HXLVirtualContainer& container) {
    return static_cast<T*>(T::create(&container));
}
unsigned long long refs(HXLVirtualContainer& container) {
    return outstandingReferences(container.getMemoryMgr());
}
HXLVirtualPersistNode* failingCreator(HXLVirtualContainer*) {
    return NULL;
}
class Faulty : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Faulty)
public:
    void onInit() override { throw std::runtime_error("onInit failed"); }
};

TEST(PersistNode, ClassesCreationAndDestroy) {
    HXLVirtualContainer container(kBudget, 0, 0);
    EXPECT_NE(HXLVirtualPersistNode::getClassId(), HXLVirtualTreeNode::getClassId());
    const struct {
        HXLVirtualPersistNode* node;
        unsigned int classId;
        const char* name;
        unsigned int size;
    } classes[] = {{HXLVirtualPersistNode::create(&container), HXLVirtualPersistNode::getClassId(),
                    "HXLVirtualPersistNode", 24},
                   {HXLVirtualTreeNode::create(&container), HXLVirtualTreeNode::getClassId(),
                    "HXLVirtualTreeNode", 72},
                   {Tally::create(&container), Tally::getClassId(), "Tally", sizeof(Tally)}};
    for (const auto& c : classes) { // through the base: the stored image's table answers
        EXPECT_EQ(c.classId, crcOf(c.name));
        EXPECT_EQ(c.node->getClassIdentifier(), c.classId);
        EXPECT_STREQ(c.node->getClassName(), c.name);
        EXPECT_EQ(c.node->getVirtualPageItem().getSize(), c.size);
        EXPECT_EQ(c.node->getVirtualPageItem().getOffset(), c.node->getPageOffset());
        EXPECT_NE(c.node->getPageOffset(), 0u);
        EXPECT_NE(c.node->getPageOffset(), kInvalid);
        EXPECT_EQ(c.node->getContainer(), &container);
        c.node->dismiss();
    }
    EXPECT_EQ(refs(container), 0u);

    // onInit ran once, with offset and container set; getNode does not run it again.
    const unsigned long long offset = classes[2].node->getPageOffset();
    Tally* tally = static_cast<Tally*>(container.getNode(offset));
    EXPECT_EQ(tally->m_initCalls, 1);
    EXPECT_EQ(tally->m_offsetAtInit, tally->getPageOffset());
    EXPECT_EQ(tally->m_containerAtInit, &container);
    // destroy ends the object, not its block or reference: only its bytes may be looked at.
    tally->destroy();
    HXLVirtualContainer* link = &container;
    std::memcpy(&link, reinterpret_cast<const char*>(tally) + 16, sizeof(link));
    EXPECT_EQ(link, nullptr);
    EXPECT_EQ(refs(container), 1u);
    container.dismiss(offset);

    HXLVirtualTreeNode detached; // no container, as after destroy
    EXPECT_EQ(assertionText([&] { detached.dismiss(); }), "HXL_ASSERT(m_container);");
    EXPECT_EQ(assertionText([] { HXLVirtualTreeNode::create(NULL); }),
              "HXL_ASSERT(container != NULL);");
    HXLVirtualContainer managerless(static_cast<HXLVirtualMemoryMgr*>(NULL));
    EXPECT_EQ(assertionText([&] { Tally::create(&managerless); }), "HXL_ASSERT(memMgr);");
}

TEST(Container, RegistryAndReferencesOfGetNode) {
    HXLVirtualContainer container(kBudget, 0, 0);
    EXPECT_EQ(container.createNode(HXLVirtualTreeNode::getClassId()), nullptr); // none built in
    // The first registration stands; the identifier is not checked against the class made.
    container.registerNodeCreator(Book::getClassId(), Note::create);
    container.registerNodeCreator(Book::getClassId(), Book::create);
    HXLVirtualPersistNode* node = container.createNode(Book::getClassId());
    EXPECT_STREQ(node->getClassName(), "Note");
    // A null creator gives null and blocks later registrations of its identifier.
    container.registerNodeCreator(Chapter::getClassId(), NULL);
    container.registerNodeCreator(Chapter::getClassId(), Chapter::create);
    EXPECT_EQ(container.createNode(Chapter::getClassId()), nullptr);
    container.registerNodeCreator(7, failingCreator);
    EXPECT_THROW(container.createNode(7), HXLOutOfMemoryError);
    EXPECT_EQ(refs(container), 1u);

    // Nothing there: null and no reference. One reference per getNode, at one address.
    HXLVirtualPageItem empty, invalid(kInvalid, 72), item = node->getVirtualPageItem();
    EXPECT_EQ(container.getNode(0ULL), nullptr);
    EXPECT_EQ(container.getNode(empty), nullptr);
    EXPECT_EQ(container.getNode(invalid), nullptr);
    EXPECT_EQ(container.getNode(item), node);
    EXPECT_EQ(container.getNode(item.getOffset()), node);
    EXPECT_EQ(refs(container), 1u);
    for (int i = 0; i < 3; ++i)
        node->dismiss();
    EXPECT_EQ(refs(container), 0u);

    // An onInit that throws leaves the block allocated with its reference held.
    container.registerNodeCreator(Faulty::getClassId(), Faulty::create);
    EXPECT_THROW(container.createNode(Faulty::getClassId()), std::runtime_error);
    EXPECT_EQ(refs(container), 1u);
}

// root -> top (three children), then a sibling of top; checks the image bytes of both levels
// and the references of every navigation step.
TEST(TreeNode, StoredImageAndNavigation) {
    HXLVirtualTree tree(kBudget, 0, 0);
    HXLVirtualTreeNode* root = tree.getRootNode();
    HXLVirtualTreeNode* top = make<HXLVirtualTreeNode>(tree);
    HXLVirtualTreeNode* kids[3];
    for (HXLVirtualTreeNode*& kid : kids)
        top->appendChild(kid = make<HXLVirtualTreeNode>(tree));
    root->appendChild(top);
    HXLVirtualTreeNode* other = make<HXLVirtualTreeNode>(tree);
    root->appendChild(other);

    unsigned long long words[9];
    std::memcpy(words, static_cast<const void*>(top), sizeof(words));
    const unsigned long long expectTop[] = {top->getPageOffset(),
                                            reinterpret_cast<unsigned long long>(&tree),
                                            reinterpret_cast<unsigned long long>(root),
                                            kids[0]->getPageOffset(),
                                            kids[2]->getPageOffset(),
                                            0,
                                            other->getPageOffset(),
                                            0x80000003u}; // bit 31: root parent
    for (int w = 1; w < 9; ++w)
        EXPECT_EQ(words[w] & (w == 8 ? 0xFFFFFFFFu : ~0ULL), expectTop[w - 1]) << "word " << w;
    std::memcpy(words, static_cast<const void*>(kids[1]), sizeof(words));
    EXPECT_EQ(words[3], top->getPageOffset());
    EXPECT_EQ(words[6], kids[0]->getPageOffset());
    EXPECT_EQ(words[7], kids[2]->getPageOffset());
    EXPECT_EQ(words[8] & 0xFFFFFFFFu, 0u);
    EXPECT_EQ(top->getChildCount(), 3u); // bit 31 not shown
    for (HXLVirtualTreeNode* kid : kids)
        kid->dismiss();
    other->dismiss();
    ASSERT_EQ(refs(tree), 1u); // top

    HXLVirtualTreeNode* first = top->getFirstChild();
    HXLVirtualTreeNode* last = top->getLastChild();
    EXPECT_EQ(last->getNextSibling(0), nullptr);
    EXPECT_EQ(refs(tree), 3u);
    EXPECT_EQ(last->getNextSibling(1), nullptr);           // dismisses itself at the end too
    HXLVirtualTreeNode* second = first->getNextSibling(1); // the reference moves along
    EXPECT_EQ(second, kids[1]);
    EXPECT_EQ(second->getPreviousSibling(0), kids[0]);
    EXPECT_EQ(kids[0]->getPreviousSibling(1), nullptr);
    EXPECT_EQ(refs(tree), 2u);
    // A stored parent: one reference per call, whatever includeRoot says.
    EXPECT_EQ(second->getParent(0), top);
    EXPECT_EQ(second->getParent(1), top);
    EXPECT_EQ(second->getParentPageItem().getOffset(), top->getPageOffset());
    EXPECT_EQ(refs(tree), 2u);
    top->dismiss();
    top->dismiss();
    second->dismiss();
    // The root: hidden unless asked for, never referenced, and never shown as an address.
    EXPECT_EQ(top->getParent(0), nullptr);
    EXPECT_EQ(top->getParent(1), root);
    EXPECT_EQ(top->getParentPageItem().getOffset(), kInvalid);
    EXPECT_EQ(top->getNextSiblingPageItem().getOffset(), other->getPageOffset());
    HXLVirtualTreeNode* next = top->getNextSibling(1);
    EXPECT_EQ(next->hasChildren(), 0); // though its count word is not 0
    EXPECT_EQ(next->getPreviousSiblingPageItem().getOffset(), top->getPageOffset());
    next->dismiss();
    EXPECT_EQ(root->getNextSibling(1), nullptr);
    EXPECT_EQ(root->getParent(1), nullptr);
    EXPECT_EQ(refs(tree), 0u);
}

TEST(Tree, RootAndLifecycle) {
    std::unique_ptr<HXLVirtualTree> tree(new HXLVirtualTree(kBudget, 0, 0));
    HXLVirtualTreeNode* root = tree->getRootNode();
    EXPECT_EQ(root->getContainer(), tree.get());
    EXPECT_EQ(root->getChildCount(), 0u);
    EXPECT_EQ(root->getVirtualPageItem().getOffset(), kInvalid);
    EXPECT_EQ(root->getVirtualPageItem().getSize(), 72u);
    // Deleting a tree that owns its store, with nodes attached and references held, is quiet.
    root->appendChild(make<Book>(*tree));
    EXPECT_NO_THROW(tree.reset());

    // Over a borrowed manager every tree starts with a root of its own; nodes stay allocated.
    HXLVirtualMemoryMgr memMgr(kBudget, 0, 0);
    unsigned long long offset;
    {
        HXLVirtualTree first(&memMgr);
        Book* kept = make<Book>(first);
        first.getRootNode()->appendChild(kept);
        offset = kept->getPageOffset();
        kept->dismiss();
    }
    HXLVirtualTree second(&memMgr);
    EXPECT_EQ(second.getMemoryMgr(), &memMgr);
    EXPECT_EQ(second.getRootNode()->getChildCount(), 0u);
    EXPECT_STREQ(second.getNode(offset)->getClassName(), "Book");
    second.dismiss(offset);
}

TEST(Tree, DumpText) {
    HXLVirtualTree tree(kBudget, 0, 0);
    std::ostringstream fresh;
    tree.dumpTree(NULL, fresh);
    EXPECT_EQ(fresh.str(), "**Dump of Virtual Tree**\n\nNode: Class: HXLVirtualTreeNode\n\n");

    HXLVirtualTreeNode* root = tree.getRootNode();
    Book* book = make<Book>(tree);
    Chapter* chapter = make<Chapter>(tree);
    root->appendChild(book);
    book->appendChild(chapter);
    root->appendChild(make<Note>(tree));
    const char* const example =
        "**Dump of Virtual Tree**\n\nNode: Class: HXLVirtualTreeNode\n"
        "-Node: Class: Book\n--Node: Class: Chapter\n-Node: Class: Note\n\n";
    // From a stored node: that node at depth 0 with its subtree, then its later siblings.
    const char* const fromBook = "**Dump of Virtual Tree**\n\nNode: Class: Book\n"
                                 "-Node: Class: Chapter\nNode: Class: Note\n\n";
    // A class's own dump text follows its class name directly.
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
