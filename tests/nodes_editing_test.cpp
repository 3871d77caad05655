// The seven editing operations of tree nodes against a plain in-memory model of the same
// forest, on a store whose budget is a small fraction of the tree, so nodes leave memory
// between steps. After every operation no reference is left behind, the touched lists keep
// every invariant and match the model, and nodes that left a list show the leftover links they
// should; every 50 steps the whole forest is checked.
#include "nodes_test_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <vector>

namespace {

// 128 bytes per node: 1500 nodes are about twelve times the 16 KiB budget.
class Item : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Item)
public:
    Item() : m_id(0) { std::memset(m_ballast, 0, sizeof(m_ballast)); }
    int m_id;
    char m_ballast[52];
};
static_assert(sizeof(Item) == 128, "test node size");

const unsigned int kBudget = 16 * 1024;
const int kNodes = 1500;
const unsigned long long kRootLink = HXLVirtualPageItem::kInvalidOffset;
typedef std::vector<HXLVirtualTreeNode*> Held;
typedef std::array<unsigned long long, 3> Links;

// Previous sibling, next sibling and parent, as the page-item getters give them.
Links links(HXLVirtualTreeNode* node) {
    return {{node->getPreviousSiblingPageItem().getOffset(),
             node->getNextSiblingPageItem().getOffset(), node->getParentPageItem().getOffset()}};
}

class EditingModel {
public:
    explicit EditingModel(unsigned int seed)
        : m_tree(kBudget, 0, 0), m_random(seed), m_parent(kNodes + 1, -1), m_kids(kNodes + 1),
          m_offset(kNodes + 1, kRootLink) {
        for (int id = 1; id <= kNodes; ++id) {
            Item* item = static_cast<Item*>(Item::create(&m_tree));
            item->m_id = id;
            m_offset[id] = item->getPageOffset();
            item->dismiss();
        }
    }

    void run() {
        for (int step = 0; step < 4000; ++step) {
            // Grow a forest first, then edit with weights 3:1:2:2:2:1:1.
            static const int kOps[] = {0, 0, 0, 1, 2, 2, 3, 3, 4, 4, 5, 6};
            const int op = step < 1000 ? (step % 4 == 0 ? 1 : 0) : kOps[below(12)];
            m_touched.clear();
            edit(op);
            ASSERT_EQ(outstandingReferences(m_tree.getMemoryMgr()), 0u) << "operation " << op;
            for (int id = 0; id <= kNodes; ++id)
                if (step % 50 == 0 || m_touched.count(id) != 0)
                    checkList(id);
            if (::testing::Test::HasFatalFailure())
                return;
        }
        std::ostringstream report;
        m_tree.getMemoryMgr()->dumpMapper(report, HXLVirtualMemoryMgr::eDumpStats);
        EXPECT_EQ(report.str().find("Page Outs: 0\n"), std::string::npos) << "nothing paged";
    }

private:
    int below(size_t n) { return static_cast<int>(m_random() % n); }
    // Holds the nodes (0: the root, -1: null), runs `edit` on them, and gives them back.
    void with(std::vector<int> ids, const std::function<void(const Held&)>& edit) {
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
    // A node in no list, or -1. It is about to get new links, so no chain holds it any more.
    int pickFree() {
        std::vector<int> free;
        for (int id = 1; id <= kNodes; ++id)
            if (m_parent[id] == -1)
                free.push_back(id);
        const int id = free.empty() ? -1 : free[below(free.size())];
        for (size_t c = m_chains.size(); c-- > 0;)
            if (std::count(m_chains[c].begin(), m_chains[c].end(), id) != 0)
                m_chains.erase(m_chains.begin() + c);
        return id;
    }
    // A node outside the subtrees of `moving` (else the root), or one with children (else -1).
    int pickParent(const std::vector<int>& moving, bool withChildren) {
        for (int attempt = 0; attempt < 200; ++attempt) {
            const int p = below(kNodes + 1);
            bool ok = !withChildren || !m_kids[p].empty();
            for (int m : moving)
                ok = ok && !inSubtree(p, m);
            if (ok)
                return p;
        }
        return withChildren && m_kids[0].empty() ? -1 : 0;
    }
    void adopt(int parent, size_t at, const std::vector<int>& ids) {
        m_kids[parent].insert(m_kids[parent].begin() + at, ids.begin(), ids.end());
        for (int id : ids)
            m_parent[id] = parent;
        m_touched.insert(parent);
    }
    // Takes children first..last out of the model. A single node (its sibling links cleared)
    // or a range that reaches the end of its list is a chain that appendChildren may take.
    void detach(int parent, size_t first, size_t last) {
        std::vector<int>& kids = m_kids[parent];
        std::vector<int> range(kids.begin() + first, kids.begin() + last + 1);
        for (int id : range)
            m_parent[id] = -1;
        if (first == last || last + 1 == kids.size())
            m_chains.push_back(range);
        kids.erase(kids.begin() + first, kids.begin() + last + 1);
        m_touched.insert(parent);
    }

    // One operation on both sides, with the leftover links of nodes that left a list.
    void edit(int op) {
        if (op == 0) { // appendChild
            const int child = pickFree(), parent = pickParent({child}, false);
            if (child > 0 && parent != child) {
                with({parent, child}, [](const Held& n) { n[0]->appendChild(n[1]); });
                adopt(parent, m_kids[parent].size(), {child});
            }
        } else if (op == 1 && !m_chains.empty()) { // appendChildren
            const size_t c = below(m_chains.size());
            const std::vector<int> chain = m_chains[c];
            const int parent = pickParent(chain, false);
            if (std::count(chain.begin(), chain.end(), parent) == 0) {
                m_chains.erase(m_chains.begin() + c);
                with({parent, chain[0]}, [](const Held& n) { n[0]->appendChildren(n[1]); });
                adopt(parent, m_kids[parent].size(), chain);
            }
        } else if (op == 2 || op == 3) { // insertAfter, insertBefore
            const int sibling = pickFree();
            std::vector<int> targets;
            for (int id = 1; sibling > 0 && id <= kNodes; ++id)
                if (m_parent[id] != -1 && !inSubtree(id, sibling))
                    targets.push_back(id);
            if (targets.empty())
                return;
            const int at = targets[below(targets.size())];
            with({at, sibling}, [op](const Held& n) {
                op == 2 ? n[0]->insertAfter(n[1]) : n[0]->insertBefore(n[1]);
            });
            const std::vector<int>& kids = m_kids[m_parent[at]];
            const size_t k = std::find(kids.begin(), kids.end(), at) - kids.begin();
            adopt(m_parent[at], op == 2 ? k + 1 : k, {sibling});
        } else if (op == 4) { // removeChild
            const int parent = pickParent({}, true);
            const size_t k = parent < 0 ? 0 : below(m_kids[parent].size());
            if (parent < 0)
                return;
            with({parent, m_kids[parent][k]}, [](const Held& n) {
                const Links before = links(n[1]);
                n[0]->removeChild(n[1]); // no sibling links left, the parent link as it was
                EXPECT_EQ(links(n[1]), (Links{{0, 0, before[2]}}));
            });
            detach(parent, k, k);
        } else if (op == 5) { // removeChildren, on a childless node too: nothing happens then
            const int parent = below(kNodes + 1);
            const std::vector<int> kids = m_kids[parent];
            size_t i = kids.empty() ? 0 : below(kids.size()),
                   j = kids.empty() ? 0 : below(kids.size());
            if (i > j)
                std::swap(i, j);
            const bool toEnd = j + 1 >= kids.size();
            with({parent, kids.empty() || (i == 0 && below(2)) ? -1 : kids[i],
                  kids.empty() || (toEnd && below(2)) ? -1 : kids[j]},
                 [](const Held& n) { n[0]->removeChildren(n[1], n[2]); });
            if (kids.empty())
                return;
            // A range of one leaves as removeChild does; a longer one keeps all its links.
            const unsigned long long before = i > 0 && i != j ? m_offset[kids[i - 1]] : 0;
            const unsigned long long behind = !toEnd && i != j ? m_offset[kids[j + 1]] : 0;
            with({kids[i], kids[j]}, [&](const Held& n) {
                EXPECT_EQ(links(n[0])[0], before);
                EXPECT_EQ(links(n[1])[1], behind);
            });
            detach(parent, i, j);
        } else if (op == 6) { // replaceChild
            const int parent = pickParent({}, true), newChild = parent < 0 ? -1 : pickFree();
            if (newChild < 0 || inSubtree(parent, newChild))
                return;
            const size_t k = below(m_kids[parent].size());
            const int oldChild = m_kids[parent][k];
            with({parent, oldChild, newChild}, [](const Held& n) {
                const Links before = links(n[1]);
                n[0]->replaceChild(n[1], n[2]); // the replaced node keeps every field
                EXPECT_EQ(links(n[1]), before);
            });
            const bool wasLast = k + 1 == m_kids[parent].size();
            adopt(parent, k + 1, {newChild});
            detach(parent, k, k);
            if (!wasLast)
                m_chains.pop_back(); // it keeps its next link into the list: no chain
        }
    }
    // The list of `id` against the model, walked both ways: count, ends, order, sibling and
    // parent links (the root's children by the root's mark, never an address).
    void checkList(int id) {
        SCOPED_TRACE("children of node " + std::to_string(id));
        const std::vector<int>& kids = m_kids[id];
        with({id}, [&](const Held& n) {
            ASSERT_EQ(n[0]->getChildCount(), kids.size());
            ASSERT_EQ(n[0]->hasChildren(), kids.empty() ? 0 : 1);
            size_t i = 0;
            for (HXLVirtualTreeNode* c = n[0]->getFirstChild(); c != NULL;
                 c = c->getNextSibling(1), ++i) {
                ASSERT_LT(i, kids.size());
                ASSERT_EQ(static_cast<Item*>(c)->m_id, kids[i]);
                ASSERT_EQ(c->getPreviousSiblingPageItem().getOffset(),
                          i > 0 ? m_offset[kids[i - 1]] : 0);
                ASSERT_EQ(c->getParentPageItem().getOffset(), id > 0 ? m_offset[id] : kRootLink);
            }
            ASSERT_EQ(i, kids.size());
            for (HXLVirtualTreeNode* c = n[0]->getLastChild(); c != NULL;
                 c = c->getPreviousSibling(1))
                ASSERT_EQ(static_cast<Item*>(c)->m_id, kids[--i]);
            ASSERT_EQ(i, 0u);
        });
    }

    HXLVirtualTree m_tree;
    std::mt19937 m_random;
    std::vector<int> m_parent; // -1: in no list; 0 is the root
    std::vector<std::vector<int>> m_kids;
    std::vector<unsigned long long> m_offset;
    std::vector<std::vector<int>> m_chains; // free runs linked by next-sibling, ending in 0
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

TEST(TreeEditing, NullArgumentsAndEndCases) {
    HXLVirtualTree tree(kBudget, 0, 0);
    HXLVirtualTreeNode* root = tree.getRootNode();
    HXLVirtualTreeNode* a = static_cast<HXLVirtualTreeNode*>(Item::create(&tree));
    HXLVirtualTreeNode* b = static_cast<HXLVirtualTreeNode*>(Item::create(&tree));
    const std::pair<std::function<void()>, const char*> refusals[] = {
        {[&] { root->appendChild(NULL); }, "HXL_ASSERT(child != NULL);"},
        {[&] { root->appendChildren(NULL); }, "HXL_ASSERT(child != NULL);"},
        {[&] { root->removeChild(NULL); }, "HXL_ASSERT(child != NULL);"},
        {[&] { a->insertAfter(NULL); }, "HXL_ASSERT(sibling != NULL);"},
        {[&] { a->insertBefore(NULL); }, "HXL_ASSERT(sibling != NULL);"},
        {[&] { root->replaceChild(NULL, a); }, "HXL_ASSERT(oldChild != NULL);"},
        {[&] { root->replaceChild(a, NULL); }, "HXL_ASSERT(newChild != NULL);"}};
    for (const auto& refusal : refusals)
        EXPECT_EQ(assertionText(refusal.first), refusal.second);
    EXPECT_EQ(root->getChildCount(), 0u);
    EXPECT_TRUE(a->getNextSiblingPageItem().empty());

    // Without a parent only the two nodes are linked, and no parent link appears.
    a->insertAfter(b);
    EXPECT_EQ(a->getNextSiblingPageItem().getOffset(), b->getPageOffset());
    EXPECT_EQ(b->getPreviousSiblingPageItem().getOffset(), a->getPageOffset());
    EXPECT_TRUE(b->getParentPageItem().empty());
    EXPECT_EQ(a->getChildCount() + b->getChildCount(), 0u);
    // Emptying the list of a child of the root, either way, leaves its own mark of the root.
    HXLVirtualTreeNode* c = static_cast<HXLVirtualTreeNode*>(Item::create(&tree));
    root->appendChild(a);
    for (int wholeList = 0; wholeList < 2; ++wholeList) {
        a->appendChild(b);
        wholeList ? a->appendChild(c), a->removeChildren(NULL, NULL) : a->removeChild(b);
        EXPECT_EQ(a->getChildCount(), 0u);
        EXPECT_TRUE(a->getFirstChildPageItem().empty() && a->getLastChildPageItem().empty());
        EXPECT_EQ(a->getParentPageItem().getOffset(), kRootLink);
    }
    c->dismiss();
    a->dismiss();
    b->dismiss();
    EXPECT_EQ(outstandingReferences(tree.getMemoryMgr()), 0u);
}

} // namespace
