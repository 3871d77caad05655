// Containers, stored nodes and trees. The core is a model test: the seven editing operations of
// tree nodes against a plain in-memory model of the same forest, on a store whose budget is a
// small fraction of the tree, so nodes leave memory between steps. After every operation no
// reference is left behind, the nodes that left a list show the links they should keep, and
// the touched lists match the model, stored images included; every 50 steps the whole forest
// is checked, and every 500 the tree dump. The other tests cover what a random forest cannot:
// class identifiers, the registry's rules, refusals and the root's own ways.
#include "store_test_util.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <vector>

namespace {

const unsigned int kBudget = 16 * 1024;
const int kNodes = 1500; // of 72 to 88 bytes: over six times the budget
const unsigned long long kRootLink = HXLVirtualPageItem::kInvalidOffset;
typedef std::vector<HXLVirtualTreeNode*> Held;
typedef std::vector<int> Ids;
typedef std::vector<unsigned long long> Words;
typedef std::array<unsigned long long, 3> Links; // previous sibling, next sibling, parent

Links links(HXLVirtualTreeNode* node) {
    return {{node->getPreviousSiblingPageItem().getOffset(),
             node->getNextSiblingPageItem().getOffset(), node->getParentPageItem().getOffset()}};
}
unsigned long long addressOf(const void* address) {
    return reinterpret_cast<unsigned long long>(address);
}

class Book : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Book)
};
class Chapter : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Chapter)
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

// Operations by number; once a forest has grown they are drawn with weights 3:1:2:2:2:1:1.
const char* const kOps[] = {"appendChild", "appendChildren", "insertAfter", "insertBefore",
                            "removeChild", "removeChildren", "replaceChild"};
const int kWeighted[] = {0, 0, 0, 1, 2, 2, 3, 3, 4, 4, 5, 6};

class EditingModel {
public:
    // Nodes of three classes, made through the registry; a Tally holds its own number.
    explicit EditingModel(unsigned int seed)
        : m_tree(kBudget, 0, 0), m_random(seed), m_parent(kNodes + 1, -1), m_kids(kNodes + 1),
          m_offset(kNodes + 1, kRootLink) {
        const unsigned int classes[] = {HXLVirtualTreeNode::getClassId(), Book::getClassId(),
                                        Tally::getClassId()};
        m_tree.registerNodeCreator(classes[0], HXLVirtualTreeNode::create);
        m_tree.registerNodeCreator(classes[1], Book::create);
        m_tree.registerNodeCreator(classes[2], Tally::create);
        for (int id = 1; id <= kNodes; ++id) {
            HXLVirtualPersistNode* node = m_tree.createNode(classes[id % 3]);
            if (id % 3 == 2)
                static_cast<Tally*>(node)->m_value = id;
            m_offset[id] = node->getPageOffset();
            node->dismiss();
        }
    }

    void run() {
        for (int step = 0; step < 4000 && !::testing::Test::HasFatalFailure(); ++step) {
            const int op = step < 1000 ? (step % 4 == 0 ? 1 : 0) : kWeighted[below(12)];
            SCOPED_TRACE(kOps[op]);
            m_touched.clear();
            edit(op);
            ASSERT_EQ(outstandingReferences(m_tree.getMemoryMgr()), 0u);
            for (int id = 0; id <= kNodes; ++id)
                if (step % 50 == 0 || m_touched.count(id) != 0)
                    checkList(id);
            if (step % 500 == 0)
                checkDump();
            ASSERT_EQ(outstandingReferences(m_tree.getMemoryMgr()), 0u) << "after the checks";
        }
        EXPECT_TRUE(pagedOut(m_tree.getMemoryMgr()));
    }

private:
    int below(size_t n) { return static_cast<int>(m_random() % n); }
    // The offset of kids[i], or 0 past either end (i wraps below 0).
    unsigned long long offsetAt(const Ids& kids, size_t i) const {
        return i < kids.size() ? m_offset[kids[i]] : 0;
    }
    unsigned long long parentLink(int id) const { return id > 0 ? m_offset[id] : kRootLink; }
    // Holds the nodes (0: the root, -1: null), runs `edit` on them, and gives them back.
    void with(const Ids& ids, const std::function<void(const Held&)>& edit) {
        Held n;
        for (int id : ids)
            n.push_back(id <= 0 ? (id == 0 ? m_tree.getRootNode() : NULL)
                                : static_cast<HXLVirtualTreeNode*>(m_tree.getNode(m_offset[id])));
        edit(n);
        for (HXLVirtualTreeNode* node : n)
            if (node != NULL)
                node->dismiss();
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
    // A node in no list, or -1. It is about to get new links, so no chain holds it any more.
    int pickFree() {
        const int id = pick({}, [this](int id) { return id > 0 && m_parent[id] == -1; });
        for (size_t c = m_chains.size(); c-- > 0;)
            if (std::count(m_chains[c].begin(), m_chains[c].end(), id) != 0)
                m_chains.erase(m_chains.begin() + c);
        return id;
    }
    void adopt(int parent, size_t at, const Ids& ids) {
        m_kids[parent].insert(m_kids[parent].begin() + at, ids.begin(), ids.end());
        for (int id : ids)
            m_parent[id] = parent;
        m_touched.insert(parent);
    }
    // Takes children first..last out of the model after the operation, and checks the links
    // they kept: a single node loses its sibling links unless `keepsLinks` (it was replaced), a
    // longer run keeps all. A run with no link into its old list is a chain that appendChildren
    // may take.
    void detach(int parent, size_t first, size_t last, bool keepsLinks) {
        Ids& kids = m_kids[parent];
        const bool keep = keepsLinks || first != last;
        for (size_t i = first; i <= last; ++i) {
            const Links kept = {{keep ? offsetAt(kids, i - 1) : 0, keep ? offsetAt(kids, i + 1) : 0,
                                 parentLink(parent)}};
            with({kids[i]},
                 [&](const Held& n) { ASSERT_EQ(links(n[0]), kept) << "left: " << kids[i]; });
            m_parent[kids[i]] = -1;
        }
        if (!keep || last + 1 == kids.size())
            m_chains.push_back(Ids(kids.begin() + first, kids.begin() + last + 1));
        kids.erase(kids.begin() + first, kids.begin() + last + 1);
        m_touched.insert(parent);
    }

    // One operation on the tree and on the model.
    void edit(int op) {
        const std::function<bool(int)> withKids = [this](int p) { return !m_kids[p].empty(); };
        if (op == 0) {
            const int child = pickFree();
            const int parent = pick({child}, nullptr);
            if (child < 0)
                return;
            with({parent, child}, [](const Held& n) { n[0]->appendChild(n[1]); });
            adopt(parent, m_kids[parent].size(), {child});
        } else if (op == 1 && !m_chains.empty()) {
            const size_t c = below(m_chains.size());
            const Ids chain = m_chains[c];
            const int parent = pick(chain, nullptr);
            m_chains.erase(m_chains.begin() + c);
            with({parent, chain[0]}, [](const Held& n) { n[0]->appendChildren(n[1]); });
            adopt(parent, m_kids[parent].size(), chain);
        } else if (op == 2 || op == 3) { // next to a node in a list, outside the new one's tree
            const int sibling = pickFree();
            const int at = pick({sibling}, [this](int id) { return id > 0 && m_parent[id] != -1; });
            if (sibling < 0 || at < 0)
                return;
            with({at, sibling}, [op](const Held& n) {
                op == 2 ? n[0]->insertAfter(n[1]) : n[0]->insertBefore(n[1]);
            });
            const Ids& kids = m_kids[m_parent[at]];
            const size_t k = std::find(kids.begin(), kids.end(), at) - kids.begin();
            adopt(m_parent[at], op == 2 ? k + 1 : k, {sibling});
        } else if (op == 4 || op == 5) { // removeChildren: a null end for the list's end at random
            const int parent = pick({}, withKids);
            if (parent < 0)
                return;
            const Ids& kids = m_kids[parent];
            size_t i = below(kids.size()), j = op == 4 ? i : below(kids.size());
            if (i > j)
                std::swap(i, j);
            const int first = op == 5 && i == 0 && below(2) ? -1 : kids[i];
            const int last = op == 4 || (j + 1 == kids.size() && below(2)) ? -1 : kids[j];
            with({parent, first, last}, [op](const Held& n) {
                op == 4 ? n[0]->removeChild(n[1]) : n[0]->removeChildren(n[1], n[2]);
            });
            detach(parent, i, j, false);
        } else if (op == 6) {
            const int newChild = pickFree();
            const int parent = pick({newChild}, withKids);
            if (newChild < 0 || parent < 0)
                return;
            const size_t k = below(m_kids[parent].size());
            with({parent, m_kids[parent][k], newChild},
                 [](const Held& n) { n[0]->replaceChild(n[1], n[2]); });
            detach(parent, k, k, true);
            adopt(parent, k, {newChild});
        }
    }
    // The stored image of a child of `parent`, words 1-8: its offset, the container, the
    // parent's offset or the root's address, first and last child, previous and next sibling,
    // and the count word with bit 31 set under the root (its padding half masked).
    Words image(int parent, const Ids& kids, size_t i) {
        const Ids& own = m_kids[kids[i]];
        return {m_offset[kids[i]],
                addressOf(&m_tree),
                parent > 0 ? m_offset[parent] : addressOf(m_tree.getRootNode()),
                offsetAt(own, 0),
                offsetAt(own, own.size() - 1),
                offsetAt(kids, i - 1),
                offsetAt(kids, i + 1),
                own.size() | (parent > 0 ? 0 : 0x80000000u)};
    }
    // The list of `id` against the model: count, order and the image of every child, walked
    // forwards (the reference moved along, or the sibling got and then this one let go) and
    // backwards, with each child's parent (the root hidden unless asked for).
    void checkList(int id) {
        SCOPED_TRACE("children of node " + std::to_string(id));
        const Ids& kids = m_kids[id];
        with({id}, [&](const Held& n) {
            ASSERT_EQ(n[0]->getChildCount(), kids.size());
            ASSERT_EQ(n[0]->hasChildren(), kids.empty() ? 0 : 1);
            size_t i = 0;
            for (HXLVirtualTreeNode *c = n[0]->getFirstChild(), *next; c != NULL; c = next, ++i) {
                ASSERT_LT(i, kids.size());
                Words words(9);
                std::memcpy(words.data(), static_cast<const void*>(c), 72);
                words[8] &= 0xFFFFFFFFu;
                ASSERT_EQ(Words(words.begin() + 1, words.end()), image(id, kids, i));
                HXLVirtualTreeNode* parent = c->getParent(i % 2);
                ASSERT_EQ(parent, id == 0 && i % 2 == 0 ? nullptr : n[0]);
                if (id > 0)
                    parent->dismiss();
                next = c->getNextSibling(i % 2);
                if (i % 2 == 0)
                    c->dismiss();
            }
            ASSERT_EQ(i, kids.size());
            for (HXLVirtualTreeNode* c = n[0]->getLastChild(); c != NULL;
                 c = c->getPreviousSibling(1))
                ASSERT_EQ(c->getPageOffset(), m_offset[kids.at(--i)]);
        });
    }
    // The dump from the root, and from a node in a list: that node and its later siblings, each
    // at depth 0 with its subtree, one '-' per level below.
    void dumpOf(int id, size_t depth, std::string& out) const {
        const char* const names[] = {"HXLVirtualTreeNode", "Book", "Tally"};
        out += std::string(depth, '-') + "Node: Class: " + names[id % 3] +
               (id % 3 == 2 ? "[value=" + std::to_string(id) + "]\n" : "\n");
        for (int kid : m_kids[id])
            dumpOf(kid, depth + 1, out);
    }
    void checkDump() {
        const int from = pick({}, [this](int id) { return id > 0 && m_parent[id] != -1; });
        if (from < 0)
            return;
        const Ids& kids = m_kids[m_parent[from]];
        std::string expected[2] = {"**Dump of Virtual Tree**\n\n", "**Dump of Virtual Tree**\n\n"};
        dumpOf(0, 0, expected[0]);
        for (auto k = std::find(kids.begin(), kids.end(), from); k != kids.end(); ++k)
            dumpOf(*k, 0, expected[1]);
        for (int which = 0; which < 2; ++which)
            with({which == 0 ? -1 : from}, [&](const Held& n) {
                std::ostringstream os;
                m_tree.dumpTree(n[0], os);
                EXPECT_EQ(os.str(), expected[which] + "\n");
            });
    }

    HXLVirtualTree m_tree;
    std::mt19937 m_random;
    Ids m_parent; // -1: in no list; 0 is the root
    std::vector<Ids> m_kids;
    std::vector<unsigned long long> m_offset;
    std::vector<Ids> m_chains; // free runs linked by next-sibling, ending in 0
    std::set<int> m_touched;
};

TEST(TreeEditing, RandomEditsAgreeWithAModel) {
    for (unsigned int seed : {1u, 2u, 3u}) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        EditingModel(seed).run();
        if (::testing::Test::HasFatalFailure())
            return;
    }
}


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
        EXPECT_EQ(c.classId, ::crc32(0, reinterpret_cast<const Bytef*>(c.name),
                                     static_cast<uInt>(std::strlen(c.name))));
        EXPECT_EQ(c.node->getClassIdentifier(), c.classId);
        EXPECT_STREQ(c.node->getClassName(), c.name);
        EXPECT_EQ(c.node->getVirtualPageItem().getSize(), c.size);
        c.node->dismiss();
    }
    EXPECT_EQ(outstandingReferences(container.getMemoryMgr()), 0u);
    // onInit ran once, with offset and container set; getNode does not run it again.
    const unsigned long long offset = classes[2].node->getPageOffset();
    Tally* tally = static_cast<Tally*>(container.getNode(offset));
    EXPECT_EQ(tally->m_initSeen, offset);
    tally->destroy(); // ends the object, not its block or its reference
    EXPECT_EQ(outstandingReferences(container.getMemoryMgr()), 1u);
    container.dismiss(offset);

    HXLVirtualTreeNode detached; // no container, as after destroy
    HXLVirtualContainer managerless(static_cast<HXLVirtualMemoryMgr*>(NULL));
    EXPECT_EQ(thrown([&] { detached.dismiss(); }), "assert: HXL_ASSERT(m_container); <- HXL_THROW");
    EXPECT_EQ(thrown([] { HXLVirtualTreeNode::create(NULL); }),
              "assert: HXL_ASSERT(container != NULL); <- HXL_THROW");
    EXPECT_EQ(thrown([&] { Tally::create(&managerless); }), "assert: HXL_ASSERT(memMgr); <- HXL_THROW");
}

TEST(Container, RegistryAndGetNode) {
    HXLVirtualContainer container(kBudget, 0, 0);
    EXPECT_EQ(container.createNode(HXLVirtualTreeNode::getClassId()), nullptr); // none built in
    // The first registration stands; the identifier is not checked against the class made.
    container.registerNodeCreator(Book::getClassId(), Tally::create);
    container.registerNodeCreator(Book::getClassId(), Book::create);
    HXLVirtualPersistNode* node = container.createNode(Book::getClassId());
    EXPECT_STREQ(node->getClassName(), "Tally");
    // A null creator gives null and blocks later registrations; a creator giving null throws.
    container.registerNodeCreator(Chapter::getClassId(), NULL);
    container.registerNodeCreator(Chapter::getClassId(), Chapter::create);
    EXPECT_EQ(container.createNode(Chapter::getClassId()), nullptr);
    container.registerNodeCreator(
        7, [](HXLVirtualContainer*) -> HXLVirtualPersistNode* { return NULL; });
    EXPECT_EQ(thrown([&] { container.createNode(7); }),
              "memory: Out of memory <- HXL_THROW HXLVirtualContainer::createNode");

    // Nothing there: null and no reference.
    HXLVirtualPageItem empty, invalid(kRootLink, 72), item = node->getVirtualPageItem();
    EXPECT_TRUE(!container.getNode(0ULL) && !container.getNode(empty) &&
                !container.getNode(invalid));
    EXPECT_EQ(container.getNode(item), node); // the same address, one more reference
    node->dismiss();
    node->dismiss();
    EXPECT_EQ(outstandingReferences(container.getMemoryMgr()), 0u);
}

TEST(Tree, RootsAndRefusals) {
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
    HXLVirtualTree tree(&memMgr);
    HXLVirtualTreeNode* root = tree.getRootNode();
    EXPECT_EQ(root->getChildCount(), 0u);
    EXPECT_STREQ(tree.getNode(kept)->getClassName(), "Book");
    tree.dismiss(kept);
    // The root: on the heap, with the mark for no block, never referenced.
    EXPECT_EQ(root->getContainer(), &tree);
    EXPECT_EQ(root->getVirtualPageItem().getOffset(), kRootLink);
    EXPECT_EQ(root->getVirtualPageItem().getSize(), 72u);
    EXPECT_TRUE(root->getNextSibling(1) == nullptr && root->getParent(1) == nullptr);
    std::ostringstream fresh;
    tree.dumpTree(NULL, fresh);
    EXPECT_EQ(fresh.str(), "**Dump of Virtual Tree**\n\nNode: Class: HXLVirtualTreeNode\n\n");

    HXLVirtualTreeNode *a = make<HXLVirtualTreeNode>(tree), *b = make<HXLVirtualTreeNode>(tree),
                       *c = make<HXLVirtualTreeNode>(tree);
    const std::pair<std::function<void()>, const char*> refusals[] = {
        {[&] { root->appendChild(NULL); }, "HXL_ASSERT(child != NULL);"},
        {[&] { a->insertBefore(NULL); }, "HXL_ASSERT(sibling != NULL);"},
        {[&] { root->replaceChild(NULL, a); }, "HXL_ASSERT(oldChild != NULL);"},
        {[&] { root->replaceChild(a, NULL); }, "HXL_ASSERT(newChild != NULL);"}};
    for (const auto& refusal : refusals)
        EXPECT_EQ(thrown(refusal.first), std::string("assert: ") + refusal.second + " <- HXL_THROW");
    EXPECT_EQ(links(a), Links{});  // nothing changed
    a->removeChildren(NULL, NULL); // no children: nothing happens, no reference is taken

    // Without a parent only the two nodes are linked, and no parent link appears.
    a->insertAfter(b);
    EXPECT_EQ(links(b), (Links{{a->getPageOffset(), 0, 0}}));
    EXPECT_EQ(links(a)[1], b->getPageOffset());
    // Emptying the list of a child of the root, either way, leaves its own mark of the root.
    root->appendChild(a);
    for (int wholeList = 0; wholeList < 2; ++wholeList) {
        a->appendChild(b);
        if (wholeList)
            a->appendChild(c); // two children: the whole list goes without a visit
        wholeList ? a->removeChildren(NULL, NULL) : a->removeChild(b);
        EXPECT_EQ(a->getChildCount(), 0u);
        EXPECT_TRUE(a->getFirstChildPageItem().empty() && a->getLastChildPageItem().empty());
        EXPECT_EQ(a->getParentPageItem().getOffset(), kRootLink);
    }
    for (HXLVirtualTreeNode* node : {a, b, c})
        node->dismiss();
    EXPECT_EQ(outstandingReferences(&memMgr), 0u);
}

} // namespace
