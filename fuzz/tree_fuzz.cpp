// libFuzzer target for tree editing, and its model: plain nodes and, every fourth, a class with a
// string member, large enough that few share a span, on a store whose budget holds a fraction of
// them, against a model of the links. The input is a program of the seven editing operations,
// and renames, each now and then run with read errors: the page file is overwritten for
// the time of one operation, so that nothing out of memory can come back, and restored behind
// it. Such an operation either succeeds as the model says or throws HXLOutOfMemoryError having
// changed nothing. After every operation no reference is left, the nodes that left a list keep
// the links they should, and the lists it touched (all of them after a throw and now and then,
// names included) match the model, stored images included.
//
//   cmake --build build/fuzz --target tree_fuzz && build/fuzz/fuzz/tree_fuzz -max_total_time=600
#include "HXLVirtualNodeClass.h"
#include "HXLVirtualReference.h"
#include "HXLVirtualTree.h"
#include "HXLVirtualUTF8String.h"
#include "fuzz_util.h"

namespace {

// A name, and large enough that few share a span (the unit of paging, kept in memory whole
// while any of its nodes is held), so that an edit meets nodes that are out of memory.
class Item : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Item)
    HXLVirtualUTF8String m_name;
    char m_padding[2000];
};

typedef HXLVirtualReference<HXLVirtualTreeNode> NodeRef;
typedef std::vector<int> Ids;
typedef std::vector<unsigned long long> Words;
const int kNodes = 40; // id 0 is the root; every id % 4 == 3 is an Item
const unsigned long long kRoot = HXLVirtualPageItem::kInvalidOffset;

// Read errors for the time of one operation: the page file is overwritten with a pattern, and
// afterwards every page that still holds the pattern gets its bytes back (pages the store wrote
// meanwhile stay as written).
class ReadErrors {
public:
    void start(HXLVirtualMemoryMgr& memMgr) {
        m_fd = m_fd < 0 ? pageFileDescriptor(memMgr) : m_fd;
        m_saved = contents();
        put(std::string(m_saved.size(), kPattern), 0);
    }
    void end() {
        const std::string now = contents();
        for (size_t at = 0; at < m_saved.size(); at += kPage) {
            const size_t stop = std::min(at + kPage, m_saved.size());
            if (now.size() >= stop && now.find_first_not_of(kPattern, at) >= stop)
                put(m_saved.substr(at, kPage), at);
        }
    }

private:
    // The whole page file; nothing before the first page-out, when there is none.
    std::string contents() const {
        std::string bytes(m_fd < 0 ? 0 : static_cast<size_t>(::lseek(m_fd, 0, SEEK_END)), '\0');
        check(bytes.empty() ||
                  ::pread(m_fd, &bytes[0], bytes.size(), 0) == static_cast<ssize_t>(bytes.size()),
              "read the page file");
        return bytes;
    }
    void put(const std::string& bytes, size_t at) const {
        check(bytes.empty() || ::pwrite(m_fd, bytes.data(), bytes.size(), static_cast<off_t>(at)) ==
                                   static_cast<ssize_t>(bytes.size()),
              "write the page file");
    }
    static constexpr char kPattern = '\xA5';
    static constexpr size_t kPage = 8192;
    int m_fd = -1;
    std::string m_saved;
};

class Forest {
public:
    Forest()
        : m_tree(16 * 1024, 0, 0), m_parent(kNodes + 1, -1), m_kids(kNodes + 1),
          m_kept(kNodes + 1, Words(3)), m_offset(kNodes + 1, kRoot), m_name(kNodes + 1) {
        for (int id = 1; id <= kNodes; ++id) {
            NodeRef node(static_cast<HXLVirtualTreeNode*>(
                (id % 4 == 3 ? Item::create : HXLVirtualTreeNode::create)(&m_tree)));
            m_offset[id] = node->getPageOffset();
            if (id % 4 == 3)
                rename(static_cast<Item*>(node.get()), id, "node " + std::to_string(id));
        }
    }

    void run(FuzzInput& in) {
        for (int step = 0; in.more(); ++step) {
            const unsigned code = in.byte(), op = code % 8;
            const bool faulty = (code & 0x80) != 0 && op != 7; // a rename may not half-happen
            m_touched.clear();
            if (faulty)
                m_errors.start(*m_tree.getMemoryMgr());
            const bool threw = raises<HXLOutOfMemoryError>([&] { edit(op, in); });
            check(faulty || !threw, "out of memory without read errors");
            if (faulty)
                m_errors.end();
            check(heldReferences(*m_tree.getMemoryMgr()) == 0, "a reference is left");
            for (int id = 0; id <= kNodes; ++id)
                if (threw || step % 64 == 0 || m_touched.count(id) != 0)
                    checkList(id, threw || step % 64 == 0);
        }
    }

private:
    // The node `id`, held for the scope of the handle (the root: held with nothing owed; -1:
    // null).
    NodeRef hold(int id) {
        if (id <= 0)
            return id == 0 ? NodeRef(NULL, kRoot, m_tree.getRootNode()) : NodeRef();
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
    // The offset of kids[i], or 0 past either end (i wraps below 0).
    unsigned long long offsetAt(const Ids& kids, size_t i) const {
        return i < kids.size() ? m_offset[kids[i]] : 0;
    }
    void link(int parent, size_t at, const Ids& ids) {
        m_kids[parent].insert(m_kids[parent].begin() + static_cast<long>(at), ids.begin(),
                              ids.end());
        for (int id : ids)
            m_parent[id] = parent;
        touch(parent);
    }
    // Takes children first..last out of the model; the links they keep: a single node loses
    // its sibling links unless `keepsLinks` (it was replaced), a longer run keeps all.
    void unlink(int parent, size_t first, size_t last, bool keepsLinks) {
        Ids& kids = m_kids[parent];
        const bool keep = keepsLinks || first != last;
        for (size_t i = first; i <= last; ++i) {
            m_kept[kids[i]] = {keep ? offsetAt(kids, i - 1) : 0, keep ? offsetAt(kids, i + 1) : 0,
                               parent > 0 ? m_offset[parent] : kRoot};
            m_parent[kids[i]] = -1;
            m_touched.insert(kids[i]);
        }
        kids.erase(kids.begin() + static_cast<long>(first),
                   kids.begin() + static_cast<long>(last) + 1);
        touch(parent);
    }
    void touch(int id) {
        m_touched.insert(id);
        if (id > 0)
            m_touched.insert(std::max(m_parent[id], 0));
    }
    void rename(Item* item, int id, const std::string& name) {
        item->m_name.setString(text(name), &m_tree);
        m_name[id] = name;
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
                unlink(parent, k, k, true);
            link(parent, op == 2 || op == 5 ? k : k + 1, {fresh});
        } else if ((op == 3 || op == 4) && at >= 0) { // one node, a run, or now and then all
            const bool whole = op == 4 && in.byte() % 4 == 0;
            const size_t first = whole ? 0 : k;
            const size_t last = whole || op == 3
                                    ? (whole ? kids.size() - 1 : k)
                                    : k + in.below(static_cast<unsigned>(kids.size() - k));
            const bool nullFirst = op == 4 && first == 0 && in.byte() % 2 != 0;
            const bool nullLast = op == 4 && last + 1 == kids.size() && in.byte() % 2 != 0;
            const Ids range(kids.begin() + static_cast<long>(first),
                            kids.begin() + static_cast<long>(last) + 1);
            if (op == 3)
                hold(parent)->removeChild(hold(at).get());
            else
                hold(parent)->removeChildren(hold(nullFirst ? -1 : range.front()).get(),
                                             hold(nullLast ? -1 : range.back()).get());
            // One node, or a run that reached the end of its list, is a chain with no link into
            // the list: appendChildren may take it.
            if (range.size() == 1 || last + 1 == kids.size())
                m_chain = range;
            unlink(parent, first, last, false);
        } else if (op == 6 && !m_chain.empty()) {
            const int to = pick(in, 0, [this](int id) {
                return std::none_of(m_chain.begin(), m_chain.end(),
                                    [&](int top) { return inSubtree(id, top); });
            });
            if (to < 0) // the end of every edit keeps the chain in no list
                return;
            hold(to)->appendChildren(hold(m_chain.front()).get());
            link(to, m_kids[to].size(), m_chain);
            m_chain.clear();
        } else if (op == 7 && std::max(fresh, at) > 0 && std::max(fresh, at) % 4 == 3) {
            const int id = std::max(fresh, at);
            std::string name(in.below(1500), 'a' + static_cast<char>(in.byte() % 26));
            rename(static_cast<Item*>(hold(id).get()), id, name + std::to_string(id));
            touch(id);
        }
        if (!m_chain.empty() && std::any_of(m_chain.begin(), m_chain.end(),
                                            [this](int id) { return m_parent[id] != -1; }))
            m_chain.clear(); // a node of it went elsewhere
    }
    // The list of `id` against the model: count, order and the stored image of every child,
    // walked forwards (the reference moved along, or the sibling got and then this one let go)
    // and backwards, with each child's parent (the root hidden unless asked for) and, with
    // `names`, its name. Image words 1-8: offset, container, the parent's offset or the root's
    // address, first and last child, previous and next sibling, and the count word with bit 31
    // set under the root. A node in no list keeps the links it had when it left.
    void checkList(int id, bool names) {
        const Ids& kids = m_kids[id];
        NodeRef owner = hold(id);
        check(id == 0 || m_parent[id] != -1 ||
                  Words({owner->getPreviousSiblingPageItem().getOffset(),
                         owner->getNextSiblingPageItem().getOffset(),
                         owner->getParentPageItem().getOffset()}) == m_kept[id],
              "the links of a node in no list");
        check(owner->getChildCount() == kids.size() && owner->hasChildren() == !kids.empty() &&
                  owner->getFirstChildPageItem().getOffset() == offsetAt(kids, 0) &&
                  owner->getLastChildPageItem().getOffset() == offsetAt(kids, kids.size() - 1),
              "child count and ends");
        size_t i = 0;
        for (HXLVirtualTreeNode *c = owner->getFirstChild(), *next; c != NULL; c = next, ++i) {
            check(i < kids.size(), "too many children");
            const Ids& own = m_kids[kids[i]];
            Words words(9);
            std::memcpy(words.data(), static_cast<const void*>(c), 72);
            words[8] &= 0xFFFFFFFFu; // the other half is padding
            check(Words(words.begin() + 1, words.end()) ==
                      Words({m_offset[kids[i]], reinterpret_cast<uintptr_t>(&m_tree),
                             id > 0 ? m_offset[id]
                                    : reinterpret_cast<uintptr_t>(m_tree.getRootNode()),
                             offsetAt(own, 0), offsetAt(own, own.size() - 1), offsetAt(kids, i - 1),
                             offsetAt(kids, i + 1), own.size() | (id > 0 ? 0 : 0x80000000u)}),
                  "stored image");
            check(!names || kids[i] % 4 != 3 ||
                      narrow(static_cast<Item*>(c)->m_name.getString(&m_tree)) == m_name[kids[i]],
                  "name");
            HXLVirtualTreeNode* parent = c->getParent(i % 2);
            check(parent == (id == 0 && i % 2 == 0 ? nullptr : owner.get()), "getParent");
            if (id > 0)
                parent->dismiss();
            next = c->getNextSibling(i % 2);
            if (i % 2 == 0)
                c->dismiss();
        }
        check(i == kids.size(), "too few children");
        for (HXLVirtualTreeNode* c = owner->getLastChild(); c != NULL; c = c->getPreviousSibling(1))
            check(i > 0 && c->getPageOffset() == m_offset[kids[--i]], "backwards");
    }

    HXLVirtualTree m_tree;
    ReadErrors m_errors;
    Ids m_parent; // -1: in no list; 0 is the root
    std::vector<Ids> m_kids;
    std::vector<Words> m_kept; // of a node in no list: previous, next and parent link
    std::vector<unsigned long long> m_offset;
    std::vector<std::string> m_name;
    std::set<int> m_touched;
    Ids m_chain; // nodes taken out together that appendChildren may take back
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput in(data, size);
    Forest().run(in);
    return 0;
}
