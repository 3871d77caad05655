// The seven editing operations of tree nodes against a plain in-memory model of the same
// forest, on a store whose budget is a small fraction of the tree, so nodes leave memory
// between steps. After every operation no reference is left behind, the nodes that left a list
// show the links they should keep, and the touched lists keep every invariant and match the
// model; every 50 steps the whole forest is checked.
#include "nodes_test_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <random>
#include <set>
#include <vector>

namespace {

const unsigned int kBudget = 16 * 1024;
const int kNodes = 1500; // of 72 bytes: over six times the budget
const unsigned long long kRootLink = HXLVirtualPageItem::kInvalidOffset;
typedef std::vector<HXLVirtualTreeNode*> Held;
typedef std::vector<int> Ids;
typedef std::array<unsigned long long, 3> Links; // previous sibling, next sibling, parent

Links links(HXLVirtualTreeNode* node) {
    return {{node->getPreviousSiblingPageItem().getOffset(),
             node->getNextSiblingPageItem().getOffset(), node->getParentPageItem().getOffset()}};
}

// Operations by number; once a forest has grown they are drawn with weights 3:1:2:2:2:1:1.
const char* const kOps[] = {"appendChild", "appendChildren", "insertAfter", "insertBefore",
                            "removeChild", "removeChildren", "replaceChild"};
const int kWeighted[] = {0, 0, 0, 1, 2, 2, 3, 3, 4, 4, 5, 6};

class EditingModel {
public:
    explicit EditingModel(unsigned int seed)
        : m_tree(kBudget, 0, 0), m_random(seed), m_parent(kNodes + 1, -1), m_kids(kNodes + 1),
          m_offset(kNodes + 1, kRootLink) {
        for (int id = 1; id <= kNodes; ++id) {
            HXLVirtualTreeNode* node = make<HXLVirtualTreeNode>(m_tree);
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
    // they kept: a single node
    // loses its sibling links unless `keepsLinks` (it was replaced), a longer run keeps all.
    // A run with no link into its old list is a chain that appendChildren may take.
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
    // The list of `id` against the model: count, ends, order, and the sibling and parent links
    // of every child (the root's children by the root's mark, never an address).
    void checkList(int id) {
        SCOPED_TRACE("children of node " + std::to_string(id));
        const Ids& kids = m_kids[id];
        with({id}, [&](const Held& n) {
            ASSERT_EQ(n[0]->getChildCount(), kids.size());
            ASSERT_EQ(n[0]->hasChildren(), kids.empty() ? 0 : 1);
            size_t i = 0;
            for (HXLVirtualTreeNode* c = n[0]->getFirstChild(); c != NULL;
                 c = c->getNextSibling(1), ++i) {
                ASSERT_LT(i, kids.size());
                ASSERT_EQ(c->getPageOffset(), m_offset[kids[i]]);
                ASSERT_EQ(links(c),
                          (Links{{offsetAt(kids, i - 1), offsetAt(kids, i + 1), parentLink(id)}}));
            }
            ASSERT_EQ(i, kids.size());
            ASSERT_EQ(n[0]->getLastChildPageItem().getOffset(), offsetAt(kids, kids.size() - 1));
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

TEST(TreeEditing, RefusalsAndEndCases) {
    HXLVirtualTree tree(kBudget, 0, 0);
    HXLVirtualTreeNode* root = tree.getRootNode();
    HXLVirtualTreeNode *a = make<HXLVirtualTreeNode>(tree), *b = make<HXLVirtualTreeNode>(tree),
                       *c = make<HXLVirtualTreeNode>(tree);
    EXPECT_EQ(assertionText([&] { root->appendChild(NULL); }), "HXL_ASSERT(child != NULL);");
    EXPECT_EQ(assertionText([&] { a->insertBefore(NULL); }), "HXL_ASSERT(sibling != NULL);");
    EXPECT_EQ(assertionText([&] { root->replaceChild(NULL, a); }), "HXL_ASSERT(oldChild != NULL);");
    EXPECT_EQ(assertionText([&] { root->replaceChild(a, NULL); }), "HXL_ASSERT(newChild != NULL);");
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
    EXPECT_EQ(outstandingReferences(tree.getMemoryMgr()), 0u);
}

} // namespace
