// The seven editing operations of tree nodes against a plain in-memory model of the same
// forest, on a store whose budget is a small fraction of the tree, so nodes leave memory
// between steps. After every operation the touched lists keep every invariant and match the
// model, the leftover links of nodes that left a list are what they should be, and no
// reference is left behind; every 50 steps the whole forest is checked.
#include "nodes_test_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
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
const int kSteps = 3000;
const int kFullCheckEvery = 50;

// A chain of free nodes that appendChildren may take: consecutive nodes link to each other and
// the last has no next sibling. A fresh chain was built by insertions on never-linked nodes:
// its head has no previous sibling and all parent links are 0, so its nodes may be inserted at.
struct Chain {
    std::vector<int> ids;
    bool fresh;
};

class EditingModel {
public:
    explicit EditingModel(unsigned int seed)
        : m_tree(kBudget, 0, 0), m_random(seed), m_parent(kNodes + 1, -1), m_children(kNodes + 1),
          m_offset(kNodes + 1, HXLVirtualPageItem::kInvalidOffset) {
        m_memMgr = m_tree.getMemoryMgr();
        for (int id = 1; id <= kNodes; ++id) {
            Item* item = static_cast<Item*>(Item::create(&m_tree));
            item->m_id = id;
            m_offset[id] = item->getPageOffset();
            item->dismiss();
            m_chains.push_back(Chain{{id}, true});
        }
    }

    void run() {
        // Grow a tree first, then edit at random.
        for (int step = 0; step < kNodes * 2 / 3; ++step)
            step == 0 || chance(4) ? checkedStep(0) : checkedStep(1);
        for (int step = 0; step < kSteps; ++step) {
            checkedStep(pickOperation());
            if (step % kFullCheckEvery == 0)
                checkAll();
        }
        checkAll();
        std::ostringstream report;
        m_memMgr->dumpMapper(report, HXLVirtualMemoryMgr::eDumpStats);
        EXPECT_EQ(report.str().find("Page Outs: 0\n"), std::string::npos)
            << "the store never paged: the test does not test paging";
    }

private:
    // --- the store side --------------------------------------------------------------------
    HXLVirtualTreeNode* hold(int id) {
        if (id == 0)
            return m_tree.getRootNode();
        HXLVirtualTreeNode* node = static_cast<HXLVirtualTreeNode*>(m_tree.getNode(m_offset[id]));
        EXPECT_NE(node, nullptr) << "node " << id;
        return node;
    }
    static int idOf(HXLVirtualTreeNode* node) { return static_cast<Item*>(node)->m_id; }

    // --- the model side --------------------------------------------------------------------
    bool chance(int oneIn) { return m_random() % oneIn == 0; }
    int below(size_t n) { return static_cast<int>(m_random() % n); }
    bool inSubtree(int node, int top) const {
        for (; node != -1; node = node == 0 ? -1 : m_parent[node])
            if (node == top)
                return true;
        return false;
    }
    std::vector<int> freeNodes() const {
        std::vector<int> ids;
        for (int id = 1; id <= kNodes; ++id)
            if (m_parent[id] == -1)
                ids.push_back(id);
        return ids;
    }
    int chainOf(int id) const {
        for (size_t c = 0; c < m_chains.size(); ++c)
            if (std::find(m_chains[c].ids.begin(), m_chains[c].ids.end(), id) !=
                m_chains[c].ids.end())
                return static_cast<int>(c);
        return -1;
    }
    // `id` is about to get links of its own: the chain it was in keeps only the part behind it
    // (whose head now points back at `id`, so no longer fresh); the part before is no chain.
    void takeOutOfChain(int id) {
        int c = chainOf(id);
        if (c < 0)
            return;
        std::vector<int>& ids = m_chains[c].ids;
        std::vector<int> rest(std::find(ids.begin(), ids.end(), id) + 1, ids.end());
        m_chains.erase(m_chains.begin() + c);
        if (!rest.empty())
            m_chains.push_back(Chain{rest, false});
    }
    int pickParentOutside(const std::vector<int>& moving) {
        for (int attempt = 0; attempt < 50; ++attempt) {
            int p = below(kNodes + 1);
            bool ok = true;
            for (int m : moving)
                ok = ok && !inSubtree(p, m);
            if (ok)
                return p;
        }
        return 0;
    }
    int pickParentWithChildren() {
        for (int attempt = 0; attempt < 200; ++attempt) {
            int p = below(kNodes + 1);
            if (!m_children[p].empty())
                return p;
        }
        return m_children[0].empty() ? -1 : 0;
    }

    int pickOperation() {
        static const int weights[] = {3, 1, 2, 2, 2, 1, 1};
        int total = 12, r = below(total);
        for (int op = 0; op < 7; ++op) {
            if (r < weights[op])
                return op;
            r -= weights[op];
        }
        return 0;
    }

    void checkedStep(int op) {
        m_touchedParents.clear();
        m_touchedNodes.clear();
        const unsigned long long before = outstandingReferences(m_memMgr);
        ASSERT_EQ(before, 0u);
        switch (op) {
        case 0:
            appendChild();
            break;
        case 1:
            appendChildren();
            break;
        case 2:
            insert(true);
            break;
        case 3:
            insert(false);
            break;
        case 4:
            removeChild();
            break;
        case 5:
            removeChildren();
            break;
        default:
            replaceChild();
            break;
        }
        ASSERT_EQ(outstandingReferences(m_memMgr), before) << "operation " << op;
        for (int p : m_touchedParents)
            checkList(p);
        for (const Chain& chain : m_chains)
            for (int id : chain.ids)
                if (m_touchedNodes.count(id) != 0) {
                    checkChain(chain);
                    break;
                }
    }

    // --- the seven operations, each applied to both sides ----------------------------------
    void appendChild() {
        std::vector<int> free = freeNodes();
        if (free.empty())
            return;
        int child = free[below(free.size())];
        int parent = pickParentOutside({child});
        if (parent == child)
            return;
        takeOutOfChain(child);
        HXLVirtualTreeNode* p = hold(parent);
        HXLVirtualTreeNode* c = hold(child);
        p->appendChild(c);
        c->dismiss();
        p->dismiss();
        m_children[parent].push_back(child);
        m_parent[child] = parent;
        m_touchedParents.insert(parent);
    }

    void appendChildren() {
        if (m_chains.empty())
            return;
        size_t c = below(m_chains.size());
        std::vector<int> ids = m_chains[c].ids;
        int parent = pickParentOutside(ids);
        if (std::find(ids.begin(), ids.end(), parent) != ids.end())
            return;
        m_chains.erase(m_chains.begin() + c);
        HXLVirtualTreeNode* p = hold(parent);
        HXLVirtualTreeNode* head = hold(ids.front());
        p->appendChildren(head);
        head->dismiss();
        p->dismiss();
        for (int id : ids) {
            m_children[parent].push_back(id);
            m_parent[id] = parent;
        }
        m_touchedParents.insert(parent);
    }

    void insert(bool after) {
        std::vector<int> free = freeNodes();
        if (free.empty())
            return;
        int sibling = free[below(free.size())];
        takeOutOfChain(sibling);
        // The node inserted at: a child of some node, or a member of a fresh chain.
        std::vector<int> targets;
        for (int id = 1; id <= kNodes; ++id)
            if (id != sibling && !inSubtree(id, sibling) &&
                (m_parent[id] != -1 || (chainOf(id) >= 0 && m_chains[chainOf(id)].fresh)))
                targets.push_back(id);
        if (targets.empty())
            return;
        int at = targets[below(targets.size())];
        HXLVirtualTreeNode* node = hold(at);
        HXLVirtualTreeNode* s = hold(sibling);
        after ? node->insertAfter(s) : node->insertBefore(s);
        s->dismiss();
        node->dismiss();
        std::vector<int>& list =
            m_parent[at] != -1 ? m_children[m_parent[at]] : m_chains[chainOf(at)].ids;
        std::vector<int>::iterator where = std::find(list.begin(), list.end(), at);
        list.insert(after ? where + 1 : where, sibling);
        m_parent[sibling] = m_parent[at];
        if (m_parent[at] != -1)
            m_touchedParents.insert(m_parent[at]);
        m_touchedNodes.insert(sibling);
    }

    void removeChild() {
        int parent = pickParentWithChildren();
        if (parent < 0)
            return;
        int child = m_children[parent][below(m_children[parent].size())];
        HXLVirtualTreeNode* p = hold(parent);
        HXLVirtualTreeNode* c = hold(child);
        const unsigned long long parentLink = c->getParentPageItem().getOffset();
        p->removeChild(c);
        // Out of the list: no sibling links, the parent link as it was.
        EXPECT_TRUE(c->getNextSiblingPageItem().empty());
        EXPECT_TRUE(c->getPreviousSiblingPageItem().empty());
        EXPECT_EQ(c->getParentPageItem().getOffset(), parentLink);
        c->dismiss();
        p->dismiss();
        detach(parent, child, child);
        m_chains.push_back(Chain{{child}, false});
        m_touchedParents.insert(parent);
        m_touchedNodes.insert(child);
    }

    void removeChildren() {
        int parent = below(kNodes + 1);
        std::vector<int> kids = m_children[parent];
        HXLVirtualTreeNode* p = hold(parent);
        if (kids.empty()) {
            p->removeChildren(NULL, NULL); // nothing to do, and nothing is mapped
            p->dismiss();
            return;
        }
        int i = below(kids.size()), j = below(kids.size());
        if (i > j)
            std::swap(i, j);
        const bool wholeList = i == 0 && j + 1 == static_cast<int>(kids.size());
        HXLVirtualTreeNode* first = i == 0 && chance(2) ? NULL : hold(kids[i]);
        HXLVirtualTreeNode* last =
            j + 1 == static_cast<int>(kids.size()) && chance(2) ? NULL : hold(kids[j]);
        unsigned long long firstPrevious = i > 0 ? m_offset[kids[i - 1]] : 0;
        unsigned long long lastNext =
            j + 1 < static_cast<int>(kids.size()) ? m_offset[kids[j + 1]] : 0;
        p->removeChildren(first, last);
        if (first != NULL)
            first->dismiss();
        if (last != NULL)
            last->dismiss();
        p->dismiss();

        // A range of one leaves as removeChild does; a longer one keeps all its links.
        HXLVirtualTreeNode* head = hold(kids[i]);
        HXLVirtualTreeNode* tail = hold(kids[j]);
        EXPECT_EQ(head->getPreviousSiblingPageItem().getOffset(), i == j ? 0 : firstPrevious);
        EXPECT_EQ(tail->getNextSiblingPageItem().getOffset(), i == j ? 0 : lastNext);
        head->dismiss();
        tail->dismiss();

        std::vector<int> range(kids.begin() + i, kids.begin() + j + 1);
        detach(parent, kids[i], kids[j]);
        if (i == j || wholeList || j + 1 == static_cast<int>(kids.size()))
            m_chains.push_back(Chain{range, false});
        m_touchedParents.insert(parent);
        m_touchedNodes.insert(range.begin(), range.end());
    }

    void replaceChild() {
        int parent = pickParentWithChildren();
        std::vector<int> free = freeNodes();
        if (parent < 0 || free.empty())
            return;
        int newChild = free[below(free.size())];
        if (inSubtree(parent, newChild))
            return;
        takeOutOfChain(newChild);
        std::vector<int>& kids = m_children[parent];
        const size_t k = below(kids.size());
        const int oldChild = kids[k];
        HXLVirtualTreeNode* p = hold(parent);
        HXLVirtualTreeNode* o = hold(oldChild);
        HXLVirtualTreeNode* n = hold(newChild);
        const unsigned long long oldLinks[3] = {o->getPreviousSiblingPageItem().getOffset(),
                                                o->getNextSiblingPageItem().getOffset(),
                                                o->getParentPageItem().getOffset()};
        p->replaceChild(o, n);
        // The replaced node keeps every field.
        EXPECT_EQ(o->getPreviousSiblingPageItem().getOffset(), oldLinks[0]);
        EXPECT_EQ(o->getNextSiblingPageItem().getOffset(), oldLinks[1]);
        EXPECT_EQ(o->getParentPageItem().getOffset(), oldLinks[2]);
        n->dismiss();
        o->dismiss();
        p->dismiss();
        kids[k] = newChild;
        m_parent[newChild] = parent;
        m_parent[oldChild] = -1;
        if (k + 1 == kids.size())
            m_chains.push_back(Chain{{oldChild}, false});
        m_touchedParents.insert(parent);
        m_touchedNodes.insert(oldChild);
    }

    void detach(int parent, int first, int last) {
        std::vector<int>& kids = m_children[parent];
        std::vector<int>::iterator from = std::find(kids.begin(), kids.end(), first);
        std::vector<int>::iterator to = std::find(kids.begin(), kids.end(), last) + 1;
        for (std::vector<int>::iterator it = from; it != to; ++it)
            m_parent[*it] = -1;
        kids.erase(from, to);
    }

    // --- checks ----------------------------------------------------------------------------
    // The list of `id` against the model and the invariants of a tree in good order.
    void checkList(int id) {
        SCOPED_TRACE("children of node " + std::to_string(id));
        const std::vector<int>& kids = m_children[id];
        HXLVirtualTreeNode* node = hold(id);
        ASSERT_EQ(node->getChildCount(), kids.size());
        ASSERT_EQ(node->hasChildren(), kids.empty() ? 0 : 1);
        ASSERT_EQ(node->getFirstChildPageItem().getOffset(),
                  kids.empty() ? 0 : m_offset[kids.front()]);
        ASSERT_EQ(node->getLastChildPageItem().getOffset(),
                  kids.empty() ? 0 : m_offset[kids.back()]);
        size_t index = 0;
        unsigned long long previous = 0;
        for (HXLVirtualTreeNode* c = node->getFirstChild(); c != NULL; c = c->getNextSibling(1)) {
            ASSERT_LT(index, kids.size());
            ASSERT_EQ(idOf(c), kids[index]);
            ASSERT_EQ(c->getPreviousSiblingPageItem().getOffset(), previous);
            if (id == 0) {
                ASSERT_EQ(c->getParentPageItem().getOffset(), HXLVirtualPageItem::kInvalidOffset);
                ASSERT_EQ(c->getParent(1), m_tree.getRootNode());
            } else {
                ASSERT_EQ(c->getParentPageItem().getOffset(), m_offset[id]);
            }
            previous = c->getPageOffset();
            ++index;
        }
        ASSERT_EQ(index, kids.size());
        for (HXLVirtualTreeNode* c = node->getLastChild(); c != NULL;
             c = c->getPreviousSibling(1)) {
            ASSERT_GT(index, 0u);
            ASSERT_EQ(idOf(c), kids[--index]);
        }
        ASSERT_EQ(index, 0u);
        node->dismiss();
    }

    void checkChain(const Chain& chain) {
        SCOPED_TRACE("chain headed by node " + std::to_string(chain.ids.front()));
        for (size_t k = 0; k < chain.ids.size(); ++k) {
            HXLVirtualTreeNode* node = hold(chain.ids[k]);
            const unsigned long long previous = node->getPreviousSiblingPageItem().getOffset();
            if (k > 0) {
                EXPECT_EQ(previous, m_offset[chain.ids[k - 1]]);
            } else if (chain.fresh) {
                EXPECT_EQ(previous, 0u);
            }
            EXPECT_EQ(node->getNextSiblingPageItem().getOffset(),
                      k + 1 < chain.ids.size() ? m_offset[chain.ids[k + 1]] : 0);
            if (chain.fresh) {
                EXPECT_TRUE(node->getParentPageItem().empty());
            }
            node->dismiss();
        }
    }

    void checkAll() {
        for (int id = 0; id <= kNodes; ++id)
            checkList(id);
        for (const Chain& chain : m_chains)
            checkChain(chain);
        ASSERT_EQ(outstandingReferences(m_memMgr), 0u);
    }

    HXLVirtualTree m_tree;
    HXLVirtualMemoryMgr* m_memMgr;
    std::mt19937 m_random;
    std::vector<int> m_parent; // -1: in no list; 0 is the root
    std::vector<std::vector<int>> m_children;
    std::vector<unsigned long long> m_offset;
    std::vector<Chain> m_chains;
    std::set<int> m_touchedParents;
    std::set<int> m_touchedNodes;
};

TEST(TreeEditing, RandomEditsAgreeWithAModel) {
    for (unsigned int seed : {1u, 2u, 3u}) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        EditingModel model(seed);
        model.run();
        if (::testing::Test::HasFatalFailure())
            return;
    }
}

TEST(TreeEditing, NullArgumentsAreRefusedBeforeAnyChange) {
    HXLVirtualTree tree(kBudget, 0, 0);
    HXLVirtualTreeNode* root = tree.getRootNode();
    HXLVirtualTreeNode* child = static_cast<HXLVirtualTreeNode*>(Item::create(&tree));
    root->appendChild(child);
    auto text = [](auto call) -> std::string {
        try {
            call();
        } catch (const HXLAssertError& e) {
            return e.what();
        }
        return "no assertion";
    };
    EXPECT_EQ(text([&] { root->appendChild(NULL); }), "HXL_ASSERT(child != NULL);");
    EXPECT_EQ(text([&] { root->appendChildren(NULL); }), "HXL_ASSERT(child != NULL);");
    EXPECT_EQ(text([&] { root->removeChild(NULL); }), "HXL_ASSERT(child != NULL);");
    EXPECT_EQ(text([&] { child->insertAfter(NULL); }), "HXL_ASSERT(sibling != NULL);");
    EXPECT_EQ(text([&] { child->insertBefore(NULL); }), "HXL_ASSERT(sibling != NULL);");
    EXPECT_EQ(text([&] { root->replaceChild(NULL, child); }), "HXL_ASSERT(oldChild != NULL);");
    EXPECT_EQ(text([&] { root->replaceChild(child, NULL); }), "HXL_ASSERT(newChild != NULL);");
    EXPECT_EQ(root->getChildCount(), 1u);
    EXPECT_EQ(root->getFirstChildPageItem().getOffset(), child->getPageOffset());
    EXPECT_TRUE(child->getNextSiblingPageItem().empty());

    // Moving the node from the root to a stored parent turns its parent link into an offset.
    HXLVirtualTreeNode* parent = static_cast<HXLVirtualTreeNode*>(Item::create(&tree));
    root->removeChild(child);
    EXPECT_EQ(root->getChildCount(), 0u);
    EXPECT_TRUE(root->getFirstChildPageItem().empty());
    parent->appendChild(child);
    EXPECT_EQ(child->getParentPageItem().getOffset(), parent->getPageOffset());
    unsigned int countWord;
    std::memcpy(&countWord, reinterpret_cast<const char*>(child) + 64, 4);
    EXPECT_EQ(countWord, 0u);
    child->dismiss();
    parent->dismiss();
    EXPECT_EQ(outstandingReferences(tree.getMemoryMgr()), 0u);
}

} // namespace
