// Containers, stored nodes, tree navigation and the tree dump: class identifiers, the stored
// image, paging round trips, reference balance and the exact dump text.
#include "HXLVirtualContainer.h"
#include "HXLVirtualPersistNode.h"
#include "nodes_test_util.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace {

const unsigned int kSmallBudget = 64 * 1024;

unsigned int crcOf(const char* name) {
    return static_cast<unsigned int>(
        ::crc32(0, reinterpret_cast<const Bytef*>(name), static_cast<uInt>(std::strlen(name))));
}

template <class Call> std::string assertionText(Call call) {
    try {
        call();
    } catch (const HXLAssertError& e) {
        return e.what();
    }
    return "no assertion";
}

HXLVirtualPersistNode* failingCreator(HXLVirtualContainer*) {
    return NULL;
}

class Faulty : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Faulty)
public:
    void onInit() override { throw std::runtime_error("onInit failed"); }
};

template <class T> T* make(HXLVirtualContainer& container) {
    return static_cast<T*>(T::create(&container));
}

TEST(NodeClass, IdentifiersAreTheCrcOfTheClassName) {
    EXPECT_EQ(HXLVirtualPersistNode::getClassId(), crcOf("HXLVirtualPersistNode"));
    EXPECT_EQ(HXLVirtualTreeNode::getClassId(), crcOf("HXLVirtualTreeNode"));
    EXPECT_EQ(Tally::getClassId(), crcOf("Tally"));
    EXPECT_NE(HXLVirtualPersistNode::getClassId(), HXLVirtualTreeNode::getClassId());

    HXLVirtualContainer container(kSmallBudget, 0, 0);
    HXLVirtualPersistNode* nodes[] = {HXLVirtualPersistNode::create(&container),
                                      HXLVirtualTreeNode::create(&container),
                                      Tally::create(&container)};
    const char* names[] = {"HXLVirtualPersistNode", "HXLVirtualTreeNode", "Tally"};
    const unsigned int sizes[] = {24, 72, sizeof(Tally)};
    for (int i = 0; i < 3; ++i) {
        // Through the base pointer: the virtual table of the stored image answers.
        EXPECT_STREQ(nodes[i]->getClassName(), names[i]);
        EXPECT_EQ(nodes[i]->getClassIdentifier(), crcOf(names[i]));
        EXPECT_EQ(nodes[i]->getVirtualPageItem().getSize(), sizes[i]);
        EXPECT_EQ(nodes[i]->getVirtualPageItem().getOffset(), nodes[i]->getPageOffset());
        nodes[i]->dismiss();
    }
    EXPECT_EQ(outstandingReferences(container.getMemoryMgr()), 0u);
}

TEST(Container, RegistryOfCreators) {
    HXLVirtualContainer container(kSmallBudget, 0, 0);
    EXPECT_EQ(container.createNode(HXLVirtualPersistNode::getClassId()), nullptr);
    EXPECT_EQ(container.createNode(HXLVirtualTreeNode::getClassId()), nullptr);

    // The first registration of an identifier stands; the identifier is not checked against
    // the class the creator makes.
    container.registerNodeCreator(Book::getClassId(), Note::create);
    container.registerNodeCreator(Book::getClassId(), Book::create);
    HXLVirtualPersistNode* node = container.createNode(Book::getClassId());
    ASSERT_NE(node, nullptr);
    EXPECT_STREQ(node->getClassName(), "Note");
    EXPECT_EQ(outstandingReferences(container.getMemoryMgr()), 1u);
    node->dismiss();

    // A null creator gives null, and it blocks later registrations of its identifier.
    container.registerNodeCreator(Chapter::getClassId(), NULL);
    container.registerNodeCreator(Chapter::getClassId(), Chapter::create);
    EXPECT_EQ(container.createNode(Chapter::getClassId()), nullptr);

    container.registerNodeCreator(7, failingCreator);
    EXPECT_THROW(container.createNode(7), HXLOutOfMemoryError);

    container.registerNodeCreator(Faulty::getClassId(), Faulty::create);
    EXPECT_THROW(container.createNode(Faulty::getClassId()), std::runtime_error);
    // The block of a node whose onInit failed stays allocated with its reference held.
    EXPECT_EQ(outstandingReferences(container.getMemoryMgr()), 1u);
}

TEST(Container, GetNodeTakesOneReferencePerCall) {
    HXLVirtualContainer container(kSmallBudget, 0, 0);
    HXLVirtualMemoryMgr* memMgr = container.getMemoryMgr();
    HXLVirtualPageItem empty;
    HXLVirtualPageItem invalid(HXLVirtualPageItem::kInvalidOffset, 72);
    EXPECT_EQ(container.getNode(0ULL), nullptr);
    EXPECT_EQ(container.getNode(empty), nullptr);
    EXPECT_EQ(container.getNode(invalid), nullptr);
    EXPECT_EQ(outstandingReferences(memMgr), 0u);

    HXLVirtualPersistNode* created = HXLVirtualTreeNode::create(&container);
    HXLVirtualPageItem item = created->getVirtualPageItem();
    created->dismiss();
    HXLVirtualPersistNode* first = container.getNode(item.getOffset());
    HXLVirtualPersistNode* second = container.getNode(item);
    EXPECT_EQ(first, second);
    first->dismiss();
    EXPECT_EQ(outstandingReferences(memMgr), 1u);
    container.dismiss(item);
    EXPECT_EQ(outstandingReferences(memMgr), 0u);
}

TEST(PersistNode, CreateDismissAndDestroy) {
    HXLVirtualContainer container(kSmallBudget, 0, 0);
    Tally* tally = make<Tally>(container);
    const unsigned long long offset = tally->getPageOffset();
    EXPECT_NE(offset, 0u);
    EXPECT_NE(offset, HXLVirtualPageItem::kInvalidOffset);
    EXPECT_EQ(tally->getContainer(), &container);
    EXPECT_EQ(tally->m_initCalls, 1);
    EXPECT_EQ(tally->m_offsetAtInit, offset);
    EXPECT_EQ(tally->m_containerAtInit, &container);
    tally->dismiss();
    EXPECT_EQ(outstandingReferences(container.getMemoryMgr()), 0u);

    // getNode brings the same object back without running onInit again.
    HXLVirtualPersistNode* node = container.getNode(offset);
    EXPECT_EQ(static_cast<Tally*>(node)->m_initCalls, 1);
    // destroy ends the object but neither its block nor the reference. The object is gone, so
    // only its bytes may be looked at: the container link is cleared.
    node->destroy();
    HXLVirtualContainer* link = &container;
    std::memcpy(&link, reinterpret_cast<const char*>(node) + 16, sizeof(link));
    EXPECT_EQ(link, nullptr);
    EXPECT_EQ(outstandingReferences(container.getMemoryMgr()), 1u);
    container.dismiss(offset);
    HXLVirtualTreeNode detached; // no container, as after destroy
    EXPECT_EQ(assertionText([&] { detached.dismiss(); }), "HXL_ASSERT(m_container);");

    EXPECT_EQ(assertionText([] { HXLVirtualTreeNode::create(NULL); }),
              "HXL_ASSERT(container != NULL);");
    HXLVirtualContainer managerless(static_cast<HXLVirtualMemoryMgr*>(NULL));
    EXPECT_EQ(assertionText([&] { Tally::create(&managerless); }), "HXL_ASSERT(memMgr);");
}

TEST(PersistNode, StoredImageLayout) {
    HXLVirtualTree tree(kSmallBudget, 0, 0);
    HXLVirtualMemoryMgr* memMgr = tree.getMemoryMgr();
    HXLVirtualTreeNode* parent = make<HXLVirtualTreeNode>(tree);
    std::vector<HXLVirtualTreeNode*> children;
    for (int i = 0; i < 3; ++i) {
        children.push_back(make<HXLVirtualTreeNode>(tree));
        parent->appendChild(children.back());
    }
    tree.getRootNode()->appendChild(parent);

    unsigned long long words[9];
    std::memcpy(words, static_cast<const void*>(parent), sizeof(words));
    EXPECT_EQ(words[1], parent->getPageOffset());
    EXPECT_EQ(words[2],
              reinterpret_cast<unsigned long long>(static_cast<HXLVirtualContainer*>(&tree)));
    EXPECT_EQ(words[3], reinterpret_cast<unsigned long long>(tree.getRootNode()));
    EXPECT_EQ(words[4], children[0]->getPageOffset());
    EXPECT_EQ(words[5], children[2]->getPageOffset());
    EXPECT_EQ(words[6], 0u);
    EXPECT_EQ(words[7], 0u);
    unsigned int countWord;
    std::memcpy(&countWord, reinterpret_cast<const char*>(parent) + 64, 4);
    // Bit 31: the parent is the root, by address. The count stays clear of it.
    EXPECT_EQ(countWord, 0x80000003u);
    EXPECT_EQ(parent->getChildCount(), 3u);
    EXPECT_EQ(parent->getParentPageItem().getOffset(), HXLVirtualPageItem::kInvalidOffset);

    std::memcpy(words, static_cast<const void*>(children[1]), sizeof(words));
    EXPECT_EQ(words[3], parent->getPageOffset());
    EXPECT_EQ(words[6], children[0]->getPageOffset());
    EXPECT_EQ(words[7], children[2]->getPageOffset());
    std::memcpy(&countWord, reinterpret_cast<const char*>(children[1]) + 64, 4);
    EXPECT_EQ(countWord, 0u);

    for (HXLVirtualTreeNode* child : children)
        child->dismiss();
    parent->dismiss();
    EXPECT_EQ(outstandingReferences(memMgr), 0u);
}

// root -> a (a1, a2, a3), b
struct SmallTree {
    HXLVirtualTree tree;
    unsigned long long a, b, a1, a2, a3;
    SmallTree() : tree(kSmallBudget, 0, 0) {
        HXLVirtualTreeNode* root = tree.getRootNode();
        a = add(root);
        b = add(root);
        HXLVirtualTreeNode* parent = node(a);
        a1 = add(parent);
        a2 = add(parent);
        a3 = add(parent);
        parent->dismiss();
    }
    unsigned long long add(HXLVirtualTreeNode* parent) {
        HXLVirtualTreeNode* child = make<HXLVirtualTreeNode>(tree);
        parent->appendChild(child);
        unsigned long long offset = child->getPageOffset();
        child->dismiss();
        return offset;
    }
    HXLVirtualTreeNode* node(unsigned long long offset) {
        return static_cast<HXLVirtualTreeNode*>(tree.getNode(offset));
    }
    unsigned long long refs() { return outstandingReferences(tree.getMemoryMgr()); }
};

TEST(TreeNode, NavigationReferences) {
    SmallTree t;
    HXLVirtualTreeNode* root = t.tree.getRootNode();
    HXLVirtualTreeNode* a = t.node(t.a);
    ASSERT_EQ(t.refs(), 1u);

    HXLVirtualTreeNode* first = a->getFirstChild();
    HXLVirtualTreeNode* last = a->getLastChild();
    EXPECT_EQ(first->getPageOffset(), t.a1);
    EXPECT_EQ(last->getPageOffset(), t.a3);
    EXPECT_EQ(t.refs(), 3u);
    EXPECT_EQ(last->getNextSibling(0), nullptr);
    EXPECT_EQ(t.refs(), 3u);
    EXPECT_EQ(last->getNextSibling(1), nullptr); // dismisses itself even at the end
    EXPECT_EQ(t.refs(), 2u);
    HXLVirtualTreeNode* second = first->getNextSibling(1); // the reference moves along
    EXPECT_EQ(second->getPageOffset(), t.a2);
    EXPECT_EQ(t.refs(), 2u);
    HXLVirtualTreeNode* back = second->getPreviousSibling(0);
    EXPECT_EQ(back->getPageOffset(), t.a1);
    EXPECT_EQ(back->getPreviousSibling(1), nullptr);
    EXPECT_EQ(t.refs(), 2u);

    // A stored parent: one reference per call, whatever includeRoot says.
    HXLVirtualTreeNode* p0 = second->getParent(0);
    HXLVirtualTreeNode* p1 = second->getParent(1);
    EXPECT_EQ(p0, a);
    EXPECT_EQ(p1, a);
    EXPECT_EQ(second->getParentPageItem().getOffset(), t.a);
    p0->dismiss();
    p1->dismiss();
    second->dismiss();
    EXPECT_EQ(t.refs(), 1u);

    // A top-level node: the root is hidden unless asked for, and never takes a reference.
    EXPECT_EQ(a->getParent(0), nullptr);
    EXPECT_EQ(a->getParent(1), root);
    EXPECT_EQ(a->getParentPageItem().getOffset(), HXLVirtualPageItem::kInvalidOffset);
    EXPECT_EQ(a->getChildCount(), 3u);
    EXPECT_EQ(a->hasChildren(), 1);
    EXPECT_EQ(a->getFirstChildPageItem().getOffset(), t.a1);
    EXPECT_EQ(a->getLastChildPageItem().getOffset(), t.a3);
    EXPECT_EQ(a->getNextSiblingPageItem().getOffset(), t.b);
    EXPECT_EQ(t.refs(), 1u);
    HXLVirtualTreeNode* b = a->getNextSibling(1);
    EXPECT_EQ(b->hasChildren(), 0);
    EXPECT_EQ(b->getPreviousSiblingPageItem().getOffset(), t.a);
    b->dismiss();
    EXPECT_EQ(t.refs(), 0u);

    EXPECT_EQ(root->getNextSibling(1), nullptr);
    EXPECT_EQ(root->getChildCount(), 2u);
    EXPECT_EQ(root->getParent(1), nullptr);
    EXPECT_EQ(t.refs(), 0u);
}

TEST(Tree, RootAndLifecycle) {
    std::unique_ptr<HXLVirtualTree> tree(new HXLVirtualTree(kSmallBudget, 0, 0));
    HXLVirtualTreeNode* root = tree->getRootNode();
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(root->getPageOffset(), HXLVirtualPageItem::kInvalidOffset);
    EXPECT_EQ(root->getContainer(), tree.get());
    EXPECT_EQ(root->getChildCount(), 0u);
    EXPECT_EQ(root->getVirtualPageItem().getOffset(), HXLVirtualPageItem::kInvalidOffset);
    EXPECT_EQ(root->getVirtualPageItem().getSize(), 72u);
    root->dismiss(); // no block: no effect

    // Deleting a tree that owns its store, with nodes attached and references held, is quiet.
    Book* book = make<Book>(*tree);
    root->appendChild(book);
    HXLVirtualTreeNode* again =
        static_cast<HXLVirtualTreeNode*>(tree->getNode(book->getPageOffset()));
    EXPECT_EQ(again, book);
    EXPECT_NO_THROW(tree.reset());

    // Over a borrowed manager every tree starts with a root of its own.
    HXLVirtualMemoryMgr memMgr(kSmallBudget, 0, 0);
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
    HXLVirtualPersistNode* left = second.getNode(offset); // still allocated
    ASSERT_NE(left, nullptr);
    EXPECT_STREQ(left->getClassName(), "Book");
    second.dismiss(offset);
}

TEST(Tree, DumpText) {
    HXLVirtualTree tree(kSmallBudget, 0, 0);
    HXLVirtualMemoryMgr* memMgr = tree.getMemoryMgr();
    std::ostringstream empty;
    tree.dumpTree(NULL, empty);
    EXPECT_EQ(empty.str(), "**Dump of Virtual Tree**\n\nNode: Class: HXLVirtualTreeNode\n\n");

    HXLVirtualTreeNode* root = tree.getRootNode();
    Book* book = make<Book>(tree);
    Chapter* chapter = make<Chapter>(tree);
    Note* note = make<Note>(tree);
    root->appendChild(book);
    book->appendChild(chapter);
    root->appendChild(note);
    chapter->dismiss();
    note->dismiss();

    const std::string example = "**Dump of Virtual Tree**\n"
                                "\n"
                                "Node: Class: HXLVirtualTreeNode\n"
                                "-Node: Class: Book\n"
                                "--Node: Class: Chapter\n"
                                "-Node: Class: Note\n"
                                "\n";
    std::ostringstream whole, fromRoot;
    tree.dumpTree(NULL, whole);
    tree.dumpTree(root, fromRoot);
    EXPECT_EQ(whole.str(), example);
    EXPECT_EQ(fromRoot.str(), example);
    EXPECT_EQ(outstandingReferences(memMgr), 1u); // the book, held by this test

    // From a stored node: that node at depth 0 with its subtree, then its later siblings.
    std::ostringstream fromBook;
    tree.dumpTree(book, fromBook);
    EXPECT_EQ(fromBook.str(), "**Dump of Virtual Tree**\n"
                              "\n"
                              "Node: Class: Book\n"
                              "-Node: Class: Chapter\n"
                              "Node: Class: Note\n"
                              "\n");

    // A class's own dump text follows its class name directly.
    Tally* tally = make<Tally>(tree);
    tally->m_value = -5;
    book->appendChild(tally);
    tally->dismiss();
    book->dismiss();
    EXPECT_EQ(outstandingReferences(memMgr), 0u);
    std::ostringstream withTally;
    tree.dumpTree(NULL, withTally);
    EXPECT_EQ(withTally.str(), "**Dump of Virtual Tree**\n"
                               "\n"
                               "Node: Class: HXLVirtualTreeNode\n"
                               "-Node: Class: Book\n"
                               "--Node: Class: Chapter\n"
                               "--Node: Class: Tally[value=-5]\n"
                               "-Node: Class: Note\n"
                               "\n");
    EXPECT_EQ(outstandingReferences(memMgr), 0u);
}

TEST(Tree, DumpOfAPagedOutTree) {
    HXLVirtualTree tree(kSmallBudget, 0, 0);
    const int kTop = 40, kPerTop = 200; // 8000 nodes, about ten times the budget
    for (int i = 0; i < kTop; ++i) {
        Book* book = make<Book>(tree);
        tree.getRootNode()->appendChild(book);
        for (int j = 0; j < kPerTop; ++j) {
            Tally* tally = make<Tally>(tree);
            tally->m_value = i * kPerTop + j;
            book->appendChild(tally);
            tally->dismiss();
        }
        book->dismiss();
    }
    std::ostringstream dump;
    tree.dumpTree(NULL, dump);
    EXPECT_EQ(outstandingReferences(tree.getMemoryMgr()), 0u);
    std::istringstream lines(dump.str());
    std::string line;
    std::getline(lines, line);
    std::getline(lines, line);
    std::getline(lines, line);
    EXPECT_EQ(line, "Node: Class: HXLVirtualTreeNode");
    for (int i = 0; i < kTop; ++i) {
        std::getline(lines, line);
        ASSERT_EQ(line, "-Node: Class: Book");
        for (int j = 0; j < kPerTop; ++j) {
            std::getline(lines, line);
            ASSERT_EQ(line, "--Node: Class: Tally[value=" + std::to_string(i * kPerTop + j) + "]");
        }
    }
    std::getline(lines, line);
    EXPECT_EQ(line, "");
    EXPECT_FALSE(std::getline(lines, line));
}

} // namespace
