// References that cannot leak or be lost. A store whose page file is cut after everything has
// left memory cannot bring any unheld object back: every layer must then raise, never read a
// live link or payload as absent (edits that meet such objects are the tree model's, in
// fuzz/tree_fuzz.cpp). Exceptions out of
// the application's own code (a node's dump or onInit, a stream) and early exits from a walk
// must leave no reference held.
#include "HXLVirtualChildren.h"
#include "HXLVirtualReference.h"
#include "store_test_util.h"

#include <climits>

namespace {

typedef HXLVirtualReference<HXLVirtualTreeNode> NodeRef;

// A node of a size class of its own: the nodes held through a fault must not share a span (the
// unit of paging, pinned whole) with those that are to be lost.
class Held : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Held)
    char m_padding[200] = {};
};

template <class T = HXLVirtualTreeNode> NodeRef make(HXLVirtualTree& tree) {
    return NodeRef(static_cast<HXLVirtualTreeNode*>(T::create(&tree)));
}

// `count` new children of `parent`, none held.
void addChildren(HXLVirtualTree& tree, HXLVirtualTreeNode* parent, int count) {
    for (int i = 0; i < count; ++i)
        parent->appendChild(make(tree).get());
}

TEST(Faults, ALiveObjectThatCannotComeBackIsAnError) {
    HXLVirtualTree tree(64 * 1024, 0, 0);
    HXLVirtualMemoryMgr& memMgr = *tree.getMemoryMgr();
    HXLVirtualTreeNode* root = tree.getRootNode();
    addChildren(tree, root, 5);
    // Held through the fault: a parent and its first child, whose siblings are lost, and a node
    // in no list.
    NodeRef parent = make<Held>(tree), first = make<Held>(tree), loose = make<Held>(tree);
    parent->appendChild(first.get());
    addChildren(tree, parent.get(), 4);
    HXLVirtualUTF8String name;
    HXLVirtualI18NString motto;
    name.setString(text("a name in the store"), &tree);
    motto.setString(text("a motto"), &memMgr);
    HXLVirtualFile file;
    file.open(&memMgr, 0, 4096, false);
    file.write(std::string(10000, 'f').data(), 10000);
    file.seek(0, HXLFmFile::eSeekBegin); // the file holds no page now
    churn(memMgr, 512, 4096);
    // The page file cut to nothing: every page-in from it fails its check.
    ASSERT_EQ(::ftruncate(pageFileDescriptor(memMgr), 0), 0);

    // Reads raise instead of ending short or reading as empty or unequal.
    std::ostringstream os;
    char bytes = 0;
    const std::pair<const char*, std::function<void()>> reads[] = {
        {"a walk",
         [&] {
             for (HXLVirtualTreeNode* child : HXLVirtualChildren(root))
                 (void)child;
         }},
        {"a walk past a held child",
         [&] {
             for (HXLVirtualTreeNode* child : HXLVirtualChildren(parent.get()))
                 (void)child;
         }},
        {"a sibling", [&] { first->getNextSibling(0); }},
        {"the dump", [&] { tree.dumpTree(NULL, os); }},
        {"a dump past a held child", [&] { tree.dumpTree(parent.get(), os); }},
        {"getString", [&] { name.getString(&tree); }},
        {"isEqual with a text", [&] { name.isEqual(text("a name in the store"), &tree); }},
        {"isEqual with a handle", [&] { name.isEqual(name, &memMgr); }},
        {"getObjectPtr", [&] { name.getObjectPtr(&memMgr); }},
        {"an I18N getString", [&] { motto.getString(&memMgr); }},
        {"a file page", [&] { file.read(&bytes, 1); }},
    };
    for (const auto& read : reads) {
        SCOPED_TRACE(read.first);
        EXPECT_EQ(thrown(read.second).substr(0, 22), "memory: Out of memory ");
        EXPECT_EQ(heldReferences(memMgr), 3u);
    }
    EXPECT_EQ(os.str(), "**Dump of Virtual Tree**\n\nNode: Class: HXLVirtualTreeNode\n**Dump of "
                        "Virtual Tree**\n\nNode: Class: Held\n-Node: Class: Held\n");
    // What is really absent stays null.
    EXPECT_TRUE(loose->getFirstChild() == NULL && loose->getNextSibling(0) == NULL &&
                HXLVirtualUTF8String().getString(&tree).empty());
    // No failed read kept a reference of its own.
    parent.reset();
    first.reset();
    loose.reset();
    EXPECT_EQ(heldReferences(memMgr), 0u);
}

// A node class whose dump and onInit throw when asked to.
class Fragile : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Fragile)
    void dump(std::ostream& os) override {
        if (m_throwInDump)
            throw std::runtime_error("dump failed");
        os << " #" << m_number;
    }
    void onInit() override {
        s_lastInit = getPageOffset();
        if (s_throwInInit)
            throw std::runtime_error("onInit failed");
    }
    bool m_throwInDump = false;
    int m_number = 0;
    static inline bool s_throwInInit = false;
    static inline unsigned long long s_lastInit = 0;
};

// A stream that takes `room` characters, then fails (and throws, with exceptions on badbit).
struct ShortBuffer : std::streambuf {
    explicit ShortBuffer(size_t room) : m_bytes(room) {
        setp(m_bytes.data(), m_bytes.data() + room);
    }
    int_type overflow(int_type) override { return traits_type::eof(); }
    std::vector<char> m_bytes;
};

TEST(References, ApplicationExceptionsAndEarlyExitsLeaveNoneHeld) {
    HXLVirtualTree tree(64 * 1024, 0, 0);
    HXLVirtualMemoryMgr* memMgr = tree.getMemoryMgr();
    HXLVirtualTreeNode* root = tree.getRootNode();
    // Three levels of Fragile nodes, numbered in dump order.
    int number = 0;
    std::function<void(HXLVirtualTreeNode*, int)> grow = [&](HXLVirtualTreeNode* parent,
                                                             int depth) {
        for (int i = 0; i < 3; ++i) {
            HXLVirtualReference<Fragile> node(static_cast<Fragile*>(Fragile::create(&tree)));
            node->m_number = ++number;
            node->m_throwInDump = number == 20;
            parent->appendChild(node.get());
            if (depth < 2)
                grow(node.get(), depth + 1);
        }
    };
    grow(root, 0);
    churn(*memMgr, 512, 4096);

    // The walk moves one reference along; break, return and a throw give it back.
    std::vector<int> seen;
    for (Fragile* node : HXLVirtualChildren<Fragile>(root)) {
        EXPECT_EQ(heldReferences(*memMgr), 1u);
        seen.push_back(node->m_number);
    }
    EXPECT_EQ(seen, std::vector<int>({1, 14, 27}));
    for (Fragile* node : HXLVirtualChildren<Fragile>(root))
        if (node->m_number == 14)
            break;
    auto findTwo = [&]() -> int {
        for (Fragile* node : HXLVirtualChildren<Fragile>(root))
            for (Fragile* child : HXLVirtualChildren<Fragile>(node))
                if (child->m_number == 2)
                    return child->m_number;
        return 0;
    };
    EXPECT_EQ(findTwo(), 2);
    EXPECT_THROW(for (HXLVirtualTreeNode* node : HXLVirtualChildren(root)) if (node) throw 1, int);
    EXPECT_EQ(heldReferences(*memMgr), 0u);

    // A dump that throws deep down, and a stream that fails half way.
    std::ostringstream os;
    EXPECT_THROW(tree.dumpTree(NULL, os), std::runtime_error);
    EXPECT_NE(os.str().find("#19\n"), std::string::npos);
    EXPECT_EQ(os.str().find("#21"), std::string::npos);
    EXPECT_EQ(heldReferences(*memMgr), 0u);
    ShortBuffer shortBuffer(200);
    std::ostream failing(&shortBuffer);
    failing.exceptions(std::ios::badbit);
    EXPECT_THROW(tree.dumpTree(NULL, failing), std::ios::failure);
    EXPECT_EQ(heldReferences(*memMgr), 0u);

    // onInit that throws: the exception passes on, and the new block stays allocated with its
    // reference held, for the application's onInit to have decided about.
    Fragile::s_throwInInit = true;
    EXPECT_THROW(Fragile::create(&tree), std::runtime_error);
    Fragile::s_throwInInit = false;
    EXPECT_EQ(heldReferences(*memMgr), 1u);
    memMgr->dismiss(Fragile::s_lastInit);

    // The handle itself: moved, released, reset, and a root held without a reference owed.
    NodeRef a(root->getFirstChild()), b;
    b = std::move(a);
    EXPECT_TRUE(!a && b && heldReferences(*memMgr) == 1u);
    b = NodeRef(b->getNextSibling(0)); // the next first, then this one goes
    EXPECT_EQ(heldReferences(*memMgr), 1u);
    HXLVirtualTreeNode* kept = b.release();
    const unsigned long long keptOffset = kept->getPageOffset();
    EXPECT_TRUE(!b && heldReferences(*memMgr) == 1u);
    b = NodeRef(kept);
    b.reset();
    NodeRef held(root);
    EXPECT_EQ(held.getOffset(), HXLVirtualPageItem::kInvalidOffset);
    EXPECT_EQ(heldReferences(*memMgr), 0u);
    // A handle owing what nobody holds: its dismiss is misuse, which the handle raises unless
    // another exception is leaving the scope.
    auto owesNothing = [&](bool unwinding) {
        NodeRef stale(memMgr, keptOffset, kept);
        if (unwinding)
            throw 1;
    };
    EXPECT_EQ(thrown([&] { owesNothing(false); }).substr(0, 36),
              "state: HXLVirtualMemoryMgr::dismiss:");
    EXPECT_THROW(owesNothing(true), int);
}

// At the end of the position range a write that is cut short says why, compressed or not.
TEST(References, ATransferCutShortAtTheEndOfTheRangeRecordsEFBIG) {
    HXLVirtualMemoryMgr store(64 * 1024, 0, 64);
    std::string data(5000, '\0');
    std::mt19937 random(7);
    for (char& c : data)
        c = static_cast<char>(random()); // does not deflate: more than 100 bytes reach the pages
    for (bool compress : {false, true}) {
        HXLVirtualFile file;
        file.open(&store, 0, 65536, compress);
        file.seek(static_cast<int>(0xFFFFFFFEu - 100), HXLFmFile::eSeekBegin);
        EXPECT_EQ(file.write(data.data(), 5000), compress ? 5000 : 100);
        EXPECT_EQ(file.close(), 1);
        EXPECT_EQ(file.getLastErrorNumber(), static_cast<unsigned int>(EFBIG));
        EXPECT_EQ(file.seek(0, HXLFmFile::eSeekCurrent), static_cast<int>(0xFFFFFFFEu));
        // Refused there, as is a count of 2 GiB; far seeks wrap at 32 bits.
        EXPECT_EQ(file.write("x", 1), compress ? 1 : -1);
        EXPECT_EQ(file.read(&data[0], 0x80000000u), -1);
        EXPECT_EQ(file.getLastErrorNumber(), static_cast<unsigned int>(EINVAL));
        EXPECT_EQ(file.seek(INT_MIN, HXLFmFile::eSeekCurrent), 0x7FFFFFFE);
        EXPECT_EQ(file.seek(INT_MIN, HXLFmFile::eSeekCurrent), -2);
    }
    EXPECT_EQ(heldReferences(store), 0u);
}

} // namespace
