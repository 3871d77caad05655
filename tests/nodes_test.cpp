// Containers, stored nodes and trees. The core is a model test: the seven editing operations of
// tree nodes against a plain in-memory model of the same forest, on a store whose budget is a
// small fraction of the tree, so nodes leave memory between steps. After every operation no
// reference is left behind, the nodes that left a list show the links they should keep, and
// the touched lists match the model, stored images included; every 100 steps the whole forest
// is checked, and every 500 the tree dump. The other test covers what a random forest cannot:
// class identifiers, the registry's rules, refusals and the root's own ways.
#include "store_test_util.h"

#include <tuple>
#include <zlib.h>

namespace {

const unsigned int kBudget = 16 * 1024;
const int kNodes = 1500; // of 72 to 88 bytes: over six times the budget
const unsigned long long kRootLink = HXLVirtualPageItem::kInvalidOffset;
typedef std::vector<int> Ids;
typedef std::vector<unsigned long long> Words;

// Previous sibling, next sibling and parent, as the page items of the links give them.
Words links(HXLVirtualTreeNode* node) {
    return {node->getPreviousSiblingPageItem().getOffset(),
            node->getNextSiblingPageItem().getOffset(), node->getParentPageItem().getOffset()};
}
unsigned long long addressOf(const void* address) {
    return reinterpret_cast<unsigned long long>(address);
}

class Book : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Book)
};
// Fields, a dump text of its own, and an onInit that adds up the offsets it saw.
class Tally : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Tally) // leaves the access public
    void dump(std::ostream& os) override { os << "[value=" << m_value << "]"; }
    void onInit() override { m_initSeen += getContainer() != NULL ? getPageOffset() : 1; }
    long long m_value = 0;
    unsigned long long m_initSeen = 0;
};

// Operations by number: appendChild, insertAfter, insertBefore, removeChild, removeChildren
// and replaceChild; once a forest has grown they are drawn with weights 3:2:2:2:2:1.
const int kWeighted[] = {0, 0, 0, 1, 1, 2, 2, 3, 3, 4, 4, 5};

struct EditingModel {
    // Nodes of three classes; a Tally holds its own number.
    explicit EditingModel(unsigned int seed)
        : m_tree(kBudget, 0, 0), m_random(seed), m_parent(kNodes + 1, -1), m_kids(kNodes + 1),
          m_offset(kNodes + 1, kRootLink) {
        const NodeCreator creators[] = {HXLVirtualTreeNode::create, Book::create, Tally::create};
        for (int id = 1; id <= kNodes; ++id) {
            HXLVirtualPersistNode* node = creators[id % 3](&m_tree);
            if (id % 3 == 2)
                static_cast<Tally*>(node)->m_value = id;
            m_offset[id] = node->getPageOffset();
            node->dismiss();
        }
    }

    void run() {
        for (int step = 0; step < 6000 && !::testing::Test::HasFatalFailure(); ++step) {
            const int op = step < 1000 ? 0 : kWeighted[below(12)];
            SCOPED_TRACE("step " + std::to_string(step) + ", operation " + std::to_string(op));
            if (step % 500 == 0) { // the first time on a tree of the root alone
                std::string expected = "**Dump of Virtual Tree**\n\n";
                std::ostringstream os;
                dumpOf(0, 0, expected);
                m_tree.dumpTree(NULL, os);
                EXPECT_EQ(os.str(), expected + "\n");
            }
            m_touched.clear();
            edit(op);
            for (int id = 0; id <= kNodes; ++id)
                if (step % 100 == 0 || m_touched.count(id) != 0)
                    checkList(id);
            ASSERT_EQ(outstandingReferences(m_tree.getMemoryMgr()), 0u);
        }
        EXPECT_TRUE(pagedOut(m_tree.getMemoryMgr()));
    }

    int below(size_t n) { return static_cast<int>(m_random() % n); }
    // The offset of kids[i], or 0 past either end (i wraps below 0).
    unsigned long long offsetAt(const Ids& kids, size_t i) const {
        return i < kids.size() ? m_offset[kids[i]] : 0;
    }
    unsigned long long parentLink(int id) const { return id > 0 ? m_offset[id] : kRootLink; }
    // The node `id` mapped (0: the root, -1: null), held until release().
    HXLVirtualTreeNode* hold(int id) {
        if (id <= 0)
            return id == 0 ? m_tree.getRootNode() : NULL;
        m_held.push_back(static_cast<HXLVirtualTreeNode*>(m_tree.getNode(m_offset[id])));
        return m_held.back();
    }
    void release() {
        for (HXLVirtualTreeNode* node : m_held)
            node->dismiss();
        m_held.clear();
    }
    bool inSubtree(int id, int top) const {
        while (id > 0 && id != top)
            id = m_parent[id];
        return id == top;
    }
    // A random node (0: the root) for which `fits` holds if given, outside the subtrees of `avoid`;
    // or -1.
    int pick(const Ids& avoid, const std::function<bool(int)>& fits) {
        Ids found;
        for (int id = 0; id <= kNodes; ++id)
            if ((!fits || fits(id)) && std::none_of(avoid.begin(), avoid.end(),
                                                    [&](int top) { return inSubtree(id, top); }))
                found.push_back(id);
        return found.empty() ? -1 : found[below(found.size())];
    }
    void adopt(int parent, size_t at, const Ids& ids) {
        m_kids[parent].insert(m_kids[parent].begin() + at, ids.begin(), ids.end());
        for (int id : ids)
            m_parent[id] = parent;
        m_touched.insert({parent, parent > 0 ? m_parent[parent] : 0}); // its list, and its own
    }
    // Takes children first..last out of the model after the operation, and checks the links
    // they kept: a single node loses its sibling links unless `keepsLinks` (it was replaced), a
    // longer run keeps all.
    void detach(int parent, size_t first, size_t last, bool keepsLinks) {
        Ids& kids = m_kids[parent];
        const bool keep = keepsLinks || first != last;
        for (size_t i = first; i <= last; ++i) {
            const Words kept({keep ? offsetAt(kids, i - 1) : 0, keep ? offsetAt(kids, i + 1) : 0,
                              parentLink(parent)});
            EXPECT_EQ(links(hold(kids[i])), kept) << "left: " << kids[i];
            m_parent[kids[i]] = -1;
        }
        release();
        kids.erase(kids.begin() + first, kids.begin() + last + 1);
        m_touched.insert({parent, parent > 0 ? m_parent[parent] : 0}); // its list, and its own
    }

    // One operation on the tree and on the model: on a node `at` in a list (for appendChild
    // the root now and then) and a node `fresh` in no list, outside its subtree.
    void edit(int op) {
        const int fresh = pick({}, [this](int id) { return id > 0 && m_parent[id] == -1; });
        int at = pick(fresh > 0 ? Ids{fresh} : Ids{}, [this](int id) { return m_parent[id] >= 0; });
        if (op == 0 && (at < 0 || below(8) == 0))
            at = 0;
        if (at < 0 || (fresh < 0 && op != 3 && op != 4))
            return;
        const int parent = m_parent[at];
        const Ids& kids = m_kids[std::max(parent, 0)];
        const size_t k = std::find(kids.begin(), kids.end(), at) - kids.begin();
        if (op == 0) {
            hold(at)->appendChild(hold(fresh));
            adopt(at, m_kids[at].size(), {fresh});
        } else if (op == 1 || op == 2) {
            op == 1 ? hold(at)->insertAfter(hold(fresh)) : hold(at)->insertBefore(hold(fresh));
            adopt(parent, op == 1 ? k + 1 : k, {fresh});
        } else if (op == 5) {
            hold(parent)->replaceChild(hold(at), hold(fresh));
            detach(parent, k, k, true);
            adopt(parent, k, {fresh});
        } else { // removeChildren: now and then the whole list; a null end for an end at random
            const bool whole = op == 4 && below(4) == 0;
            const size_t i = whole ? 0 : k;
            const size_t j = whole ? kids.size() - 1 : op == 3 ? k : k + below(kids.size() - k);
            const int first = op == 4 && i == 0 && below(2) ? -1 : kids[i];
            const int last = op == 3 || (j + 1 == kids.size() && below(2)) ? -1 : kids[j];
            op == 3 ? hold(parent)->removeChild(hold(at))
                    : hold(parent)->removeChildren(hold(first), hold(last));
            const Ids chain(kids.begin() + i, kids.begin() + j + 1);
            detach(parent, i, j, false);
            // One node, or a run that reached the end of its list, is a chain with no link into
            // the list: appendChildren may take it at once.
            const int to = pick(chain, [this](int id) { return id == 0 || m_parent[id] >= 0; });
            if ((i == j || m_kids[parent].size() == i) && below(2) == 0 && to >= 0) {
                hold(to)->appendChildren(hold(chain[0]));
                adopt(to, m_kids[to].size(), chain);
            }
        }
        release();
    }
    // The list of `id` against the model: count, order and the image of every child, walked
    // forwards (the reference moved along, or the sibling got and then this one let go) and
    // backwards, with each child's parent (the root hidden unless asked for). Image words 1-8:
    // offset, container, the parent's offset or the root's address, first and last child,
    // previous and next sibling, and the count word with bit 31 set under the root.
    void checkList(int id) {
        SCOPED_TRACE("children of node " + std::to_string(id));
        const Ids& kids = m_kids[id];
        HXLVirtualTreeNode* owner = hold(id);
        ASSERT_TRUE(owner->getChildCount() == kids.size() && owner->hasChildren() == !kids.empty());
        size_t i = 0;
        for (HXLVirtualTreeNode *c = owner->getFirstChild(), *next; c != NULL; c = next, ++i) {
            ASSERT_LT(i, kids.size());
            const Ids& own = m_kids[kids[i]];
            Words words(9);
            std::memcpy(words.data(), static_cast<const void*>(c), 72);
            words[8] &= 0xFFFFFFFFu; // the other half is padding
            ASSERT_EQ(Words(words.begin() + 1, words.end()),
                      Words({m_offset[kids[i]], addressOf(&m_tree),
                             id > 0 ? m_offset[id] : addressOf(m_tree.getRootNode()),
                             offsetAt(own, 0), offsetAt(own, own.size() - 1), offsetAt(kids, i - 1),
                             offsetAt(kids, i + 1), own.size() | (id > 0 ? 0 : 0x80000000u)}));
            HXLVirtualTreeNode* parent = c->getParent(i % 2);
            ASSERT_EQ(parent, id == 0 && i % 2 == 0 ? nullptr : owner);
            if (id > 0)
                parent->dismiss();
            next = c->getNextSibling(i % 2);
            if (i % 2 == 0)
                c->dismiss();
        }
        ASSERT_EQ(i, kids.size());
        for (HXLVirtualTreeNode* c = owner->getLastChild(); c != NULL; c = c->getPreviousSibling(1))
            ASSERT_EQ(c->getPageOffset(), m_offset[kids.at(--i)]);
        release();
    }
    // The dump from the root: one line per node, one '-' per level below the root.
    void dumpOf(int id, size_t depth, std::string& out) const {
        const char* const names[] = {"HXLVirtualTreeNode", "Book", "Tally"};
        out += std::string(depth, '-') + "Node: Class: " + names[id % 3] +
               (id % 3 == 2 ? "[value=" + std::to_string(id) + "]\n" : "\n");
        for (int kid : m_kids[id])
            dumpOf(kid, depth + 1, out);
    }
    HXLVirtualTree m_tree;
    std::mt19937 m_random;
    Ids m_parent; // -1: in no list; 0 is the root
    std::vector<Ids> m_kids;
    std::vector<unsigned long long> m_offset;
    std::set<int> m_touched;
    std::vector<HXLVirtualTreeNode*> m_held;
};

TEST(TreeEditing, RandomEditsAgreeWithAModel) {
    EditingModel(1).run();
}

// What a random forest does not show: classes, the registry's rules, trees sharing a manager,
// the root's own ways, refusals, and a dump that starts at a stored node.
TEST(Tree, ClassesRegistryRootsAndRefusals) {
    HXLVirtualMemoryMgr memMgr(kBudget, 0, 0);
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
    EXPECT_EQ(outstandingReferences(&memMgr), 1u);
    tree.dismiss(item);
    // The root: on the heap, with the mark for no block, never referenced.
    EXPECT_TRUE(root->getContainer() == &tree &&
                root->getVirtualPageItem().getOffset() == kRootLink &&
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
    EXPECT_EQ(outstandingReferences(&memMgr), 1u); // the Book's own
}

} // namespace
