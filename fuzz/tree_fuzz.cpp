// libFuzzer target for tree editing with string members, on a store whose budget holds a few of
// the nodes, against a model of the links. The input is a program of the seven editing
// operations, renames and walks, each now and then run with read errors: the page file is
// overwritten for the time of one operation, so that nothing out of memory can come back, and
// restored behind it. Such an operation either succeeds as the model says or throws
// HXLOutOfMemoryError having changed nothing; after every operation no reference is left, and
// the lists it touched (all of them now and then, names included) match the model.
//
//   cmake --build build/fuzz --target tree_fuzz && build/fuzz/fuzz/tree_fuzz -max_total_time=600
#include "HXLVirtualChildren.h"
#include "HXLVirtualNodeClass.h"
#include "HXLVirtualReference.h"
#include "HXLVirtualTree.h"
#include "HXLVirtualUTF8String.h"
#include "fuzz_util.h"
#include "page_file_damage.h"

#include <unistd.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

namespace {

// Large enough that few share a span (the unit of paging, kept in memory whole while any of
// its nodes is held), so that an edit meets nodes that are out of memory.
class Item : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Item)
    HXLVirtualUTF8String m_name;
    char m_padding[2000];
};

typedef HXLVirtualReference<HXLVirtualTreeNode> NodeRef;
typedef HXLVirtualReference<Item> ItemRef;
typedef std::vector<int> Ids;
const int kNodes = 24; // id 0 is the root
const unsigned long long kRoot = HXLVirtualPageItem::kInvalidOffset;

std::string utf8(const I18NString& text) {
    int length = 0;
    const char* bytes = text.c_str(NULL, &length, NULL, NULL);
    return std::string(bytes, static_cast<size_t>(length > 0 ? length - 1 : 0));
}

// Read errors for the time of one operation: the page file is overwritten with a pattern, and
// afterwards every page that still holds the pattern gets its bytes back (pages the store wrote
// meanwhile stay as written).
class ReadErrors {
public:
    void start(HXLVirtualMemoryMgr& memMgr) {
        if (m_fd < 0)
            m_fd = pageFileDescriptor(memMgr);
        if (m_fd < 0)
            return;
        m_saved.assign(static_cast<size_t>(::lseek(m_fd, 0, SEEK_END)), '\0');
        check(::pread(m_fd, &m_saved[0], m_saved.size(), 0) == static_cast<ssize_t>(m_saved.size()),
              "read the page file");
        const std::string pattern(m_saved.size(), kPattern);
        check(::pwrite(m_fd, pattern.data(), pattern.size(), 0) ==
                  static_cast<ssize_t>(pattern.size()),
              "overwrite the page file");
    }
    void end() {
        if (m_fd < 0)
            return;
        std::string page(kPage, '\0');
        for (size_t at = 0; at < m_saved.size(); at += kPage) {
            const size_t n = std::min(kPage, m_saved.size() - at);
            const ssize_t got = ::pread(m_fd, &page[0], n, static_cast<off_t>(at));
            if (got == static_cast<ssize_t>(n) &&
                page.find_first_not_of(kPattern) >= static_cast<size_t>(got))
                check(::pwrite(m_fd, m_saved.data() + at, n, static_cast<off_t>(at)) ==
                          static_cast<ssize_t>(n),
                      "restore the page file");
        }
    }

private:
    static constexpr char kPattern = '\xA5';
    static constexpr size_t kPage = 8192;
    int m_fd = -1;
    std::string m_saved;
};

class Forest {
public:
    Forest()
        : m_tree(32 * 1024, 0, 0), m_parent(kNodes + 1, -1), m_kids(kNodes + 1),
          m_link(kNodes + 1, 0), m_offset(kNodes + 1, kRoot), m_name(kNodes + 1) {
        for (int id = 1; id <= kNodes; ++id) {
            ItemRef item(static_cast<Item*>(Item::create(&m_tree)));
            m_offset[id] = item->getPageOffset();
            m_name[id] = "node " + std::to_string(id);
            item->m_name.setString(I18NString(m_name[id].c_str(), NULL, -1, NULL, NULL), &m_tree);
        }
    }

    void run(FuzzInput& in) {
        for (int step = 0; in.more(); ++step) {
            const unsigned code = in.byte();
            const unsigned op = code % 9;
            const bool faulty = (code & 0x80) != 0 && op != 7; // a rename may not half-happen
            m_touched.clear();
            if (faulty)
                m_errors.start(*m_tree.getMemoryMgr());
            try {
                edit(op, in);
            } catch (const HXLOutOfMemoryError&) {
                check(faulty, "out of memory without read errors");
            }
            if (faulty)
                m_errors.end();
            check(heldReferences(*m_tree.getMemoryMgr()) == 0, "a reference is left");
            for (int id = 0; id <= kNodes; ++id)
                if (step % 64 == 0 || m_touched.count(id) != 0)
                    checkList(id, step % 64 == 0);
        }
    }

private:
    // The node `id`, held for the scope of the handle (the root: held with nothing owed).
    NodeRef hold(int id) {
        if (id == 0)
            return NodeRef(NULL, kRoot, m_tree.getRootNode());
        return NodeRef(static_cast<HXLVirtualTreeNode*>(m_tree.getNode(m_offset[id])));
    }
    bool inSubtree(int id, int top) const {
        while (id > 0 && id != top)
            id = m_parent[id];
        return id == top;
    }
    // A node for which `fits` holds, outside the subtree of `avoid` (if > 0); -1 if none.
    template <class Fits> int pick(FuzzInput& in, int avoid, Fits fits) {
        Ids found;
        for (int id = 0; id <= kNodes; ++id)
            if (fits(id) && (avoid <= 0 || !inSubtree(id, avoid)))
                found.push_back(id);
        return found.empty() ? -1 : found[in.below(static_cast<unsigned>(found.size()))];
    }
    void link(int parent, size_t at, const Ids& ids) {
        m_kids[parent].insert(m_kids[parent].begin() + static_cast<long>(at), ids.begin(),
                              ids.end());
        for (int id : ids) {
            m_parent[id] = parent;
            m_link[id] = parent > 0 ? m_offset[parent] : kRoot;
        }
        touch(parent);
    }
    void unlink(int parent, size_t first, size_t last) {
        Ids& kids = m_kids[parent];
        for (size_t i = first; i <= last; ++i)
            m_parent[kids[i]] = -1;
        kids.erase(kids.begin() + static_cast<long>(first),
                   kids.begin() + static_cast<long>(last) + 1);
        touch(parent);
    }
    void touch(int id) {
        m_touched.insert(id);
        if (id > 0)
            m_touched.insert(std::max(m_parent[id], 0));
    }

    void edit(unsigned op, FuzzInput& in) {
        const int fresh = pick(in, 0, [this](int id) { return id > 0 && m_parent[id] == -1; });
        const int at = pick(in, fresh, [this](int id) { return m_parent[id] >= 0; });
        const int parent = at >= 0 ? m_parent[at] : -1;
        const Ids& kids = m_kids[std::max(parent, 0)];
        const size_t k =
            static_cast<size_t>(std::find(kids.begin(), kids.end(), at) - kids.begin());
        if (op == 0) { // under any node, the root included
            const int to = pick(in, fresh, [](int) { return true; });
            if (fresh < 0 || to < 0)
                return;
            hold(to)->appendChild(hold(fresh).get());
            link(to, m_kids[to].size(), {fresh});
        } else if ((op == 1 || op == 2 || op == 5) && at >= 0 && fresh >= 0) {
            if (op == 5)
                hold(parent)->replaceChild(hold(at).get(), hold(fresh).get());
            else
                op == 1 ? hold(at)->insertAfter(hold(fresh).get())
                        : hold(at)->insertBefore(hold(fresh).get());
            if (op == 5)
                unlink(parent, k, k);
            link(parent, op == 2 || op == 5 ? k : k + 1, {fresh});
        } else if ((op == 3 || op == 4) && at >= 0) {
            const size_t last = op == 3 ? k : k + in.below(static_cast<unsigned>(kids.size() - k));
            const bool nullFirst = op == 4 && k == 0 && in.byte() % 2 != 0;
            const bool nullLast = op == 4 && last + 1 == kids.size() && in.byte() % 2 != 0;
            const Ids range(kids.begin() + static_cast<long>(k),
                            kids.begin() + static_cast<long>(last) + 1);
            const bool reachesEnd = last + 1 == kids.size();
            if (op == 3) {
                hold(parent)->removeChild(hold(at).get());
            } else {
                NodeRef first = nullFirst ? NodeRef() : hold(range.front());
                NodeRef end = nullLast ? NodeRef() : hold(range.back());
                hold(parent)->removeChildren(first.get(), end.get());
            }
            unlink(parent, k, last);
            if (range.size() == 1 || reachesEnd)
                m_chain = range; // no link into the list: appendChildren may take it
        } else if (op == 6 && !m_chain.empty()) {
            const int head = m_chain.front();
            const int to = pick(in, 0, [this](int id) {
                return std::none_of(m_chain.begin(), m_chain.end(),
                                    [&](int top) { return inSubtree(id, top); });
            });
            const bool free = std::all_of(m_chain.begin(), m_chain.end(),
                                          [this](int id) { return m_parent[id] == -1; });
            if (to < 0 || !free)
                return;
            hold(to)->appendChildren(hold(head).get());
            link(to, m_kids[to].size(), m_chain);
            m_chain.clear();
        } else if (op == 7 && fresh + at > -2) {
            const int id = std::max(fresh, at);
            if (id <= 0)
                return;
            std::string name(in.below(1500), 'a' + static_cast<char>(in.byte() % 26));
            name += std::to_string(id);
            static_cast<Item*>(hold(id).get())
                ->m_name.setString(I18NString(name.c_str(), NULL, -1, NULL, NULL), &m_tree);
            m_name[id] = name;
            touch(id);
        } else if (op == 8 && at >= 0) { // a walk with names; under read errors it may fail
            checkList(parent, true);
        }
        if (!m_chain.empty() && std::any_of(m_chain.begin(), m_chain.end(),
                                            [this](int id) { return m_parent[id] != -1; }))
            m_chain.clear(); // a node of it went elsewhere
    }

    // The list of `id` against the model: count, order, each child's parent and sibling links,
    // and (with `names`) each child's name; forwards through HXLVirtualChildren, backwards with
    // getPreviousSibling(1). Detached nodes keep the parent link they had.
    void checkList(int id, bool names) {
        const Ids& kids = m_kids[id];
        NodeRef owner = hold(id);
        check(owner->getChildCount() == kids.size(), "child count");
        size_t i = 0;
        for (Item* child : HXLVirtualChildren<Item>(owner.get())) {
            check(i < kids.size() && child->getPageOffset() == m_offset[kids[i]], "order");
            check(child->getParentPageItem().getOffset() == (id > 0 ? m_offset[id] : kRoot) &&
                      child->getPreviousSiblingPageItem().getOffset() ==
                          (i > 0 ? m_offset[kids[i - 1]] : 0),
                  "links");
            check(!names || utf8(child->m_name.getString(&m_tree)) == m_name[kids[i]], "name");
            ++i;
        }
        check(i == kids.size(), "too few children");
        for (HXLVirtualTreeNode* c = owner->getLastChild(); c != NULL; c = c->getPreviousSibling(1))
            check(i > 0 && c->getPageOffset() == m_offset[kids[--i]], "backwards");
        if (names)
            for (int lone = 1; lone <= kNodes; ++lone)
                if (m_parent[lone] == -1)
                    check(hold(lone)->getParentPageItem().getOffset() == m_link[lone],
                          "a detached node's parent link");
    }

    HXLVirtualTree m_tree;
    ReadErrors m_errors;
    Ids m_parent; // -1: in no list; 0 is the root
    std::vector<Ids> m_kids;
    std::vector<unsigned long long> m_link; // the parent link each node holds
    std::vector<unsigned long long> m_offset;
    std::vector<std::string> m_name;
    std::set<int> m_touched;
    Ids m_chain; // nodes taken out together that appendChildren may take back
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput in(data, size);
    Forest forest;
    forest.run(in);
    return 0;
}
