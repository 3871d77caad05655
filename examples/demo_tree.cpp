// Typed nodes and trees in the store: a library of books, chapters and notes several times
// larger than the store's budget, built, walked while its nodes page in and out, and shown by
// the tree dump and the store's report.
#include "HXLVirtualChildren.h"
#include "HXLVirtualNodeClass.h"
#include "HXLVirtualReference.h"
#include "HXLVirtualTree.h"
#include "HXLVirtualTreeNode.h"
#include "demo_sections.h"

#include <sstream>
#include <string>

namespace {

const unsigned int kBudget = 64 * 1024; // resident bytes of the store
const int kBooks = 80, kChaptersPerBook = 10, kNotesPerChapter = 5;

class Book : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Book)
public:
    Book() : m_number(0) {}
    void dump(std::ostream& os) override { os << " (book " << m_number << ")"; }
    int m_number;
};

class Chapter : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Chapter)
public:
    Chapter() : m_number(0), m_pages(0) {}
    void dump(std::ostream& os) override {
        os << " (chapter " << m_number << ", " << m_pages << " pages)";
    }
    int m_number;
    int m_pages;
};

class Note : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Note)
public:
    Note() : m_line(0) {}
    void dump(std::ostream& os) override { os << " (line " << m_line << ")"; }
    int m_line;
};

// A new node, held until the handle ends: no dismiss to pair by hand.
template <class T> HXLVirtualReference<T> create(HXLVirtualTree& tree) {
    return HXLVirtualReference<T>(static_cast<T*>(tree.createNode(T::getClassId())));
}

struct WalkTotals {
    int books = 0, chapters = 0, notes = 0;
    long long pages = 0;
};

// Depth first, holding one reference per depth; the class of each node comes from its image.
void walk(HXLVirtualTreeNode* parent, WalkTotals& totals) {
    for (HXLVirtualTreeNode* node : HXLVirtualChildren(parent)) {
        const unsigned int id = node->getClassIdentifier();
        if (id == Book::getClassId())
            ++totals.books;
        else if (id == Chapter::getClassId()) {
            ++totals.chapters;
            totals.pages += static_cast<Chapter*>(node)->m_pages;
        } else if (id == Note::getClassId())
            ++totals.notes;
        walk(node, totals);
    }
}

int check(std::ostream& os, bool ok, const char* what) {
    os << (ok ? "  ok: " : "  FAILED: ") << what << "\n";
    return ok ? 0 : 1;
}

} // namespace

int demoTree(std::ostream& os) {
    os << "== Typed nodes and trees in the store ==\n\n";
    int failures = 0;
    HXLVirtualTree tree(kBudget, 0, 0);
    tree.registerNodeCreator(Book::getClassId(), Book::create);
    tree.registerNodeCreator(Chapter::getClassId(), Chapter::create);
    tree.registerNodeCreator(Note::getClassId(), Note::create);

    // Build: each node is given back at the end of its handle's scope, so it may leave memory.
    long long pages = 0;
    unsigned long long lastChapter = 0;
    for (int b = 0; b < kBooks; ++b) {
        HXLVirtualReference<Book> book = create<Book>(tree);
        book->m_number = b + 1;
        tree.getRootNode()->appendChild(book.get());
        for (int c = 0; c < kChaptersPerBook; ++c) {
            HXLVirtualReference<Chapter> chapter = create<Chapter>(tree);
            chapter->m_number = c + 1;
            chapter->m_pages = 10 + (b * 7 + c * 3) % 25;
            pages += chapter->m_pages;
            book->appendChild(chapter.get());
            for (int n = 0; n < kNotesPerChapter; ++n) {
                HXLVirtualReference<Note> note = create<Note>(tree);
                note->m_line = (n + 1) * 12;
                chapter->appendChild(note.get());
            }
            lastChapter = chapter->getPageOffset();
        }
    }
    const int nodes = kBooks * kChaptersPerBook * (1 + kNotesPerChapter) + kBooks;
    os << "built " << nodes << " nodes of about " << sizeof(Chapter)
       << " bytes in a store that keeps " << kBudget << " bytes resident\n";

    WalkTotals totals;
    walk(tree.getRootNode(), totals);
    os << "walked " << totals.books << " books, " << totals.chapters << " chapters, "
       << totals.notes << " notes, " << totals.pages << " pages\n\n";
    failures += check(os, totals.books == kBooks, "every book came back");
    failures += check(os, totals.chapters == kBooks * kChaptersPerBook, "every chapter came back");
    failures += check(os, totals.notes == kBooks * kChaptersPerBook * kNotesPerChapter,
                      "every note came back");
    failures += check(os, totals.pages == pages, "chapter fields survived paging");

    // The last chapter of the last book has no later sibling, so its dump is its subtree.
    os << "\n";
    {
        HXLVirtualReference<HXLVirtualTreeNode> chapter(
            static_cast<HXLVirtualTreeNode*>(tree.getNode(lastChapter)));
        HXLVirtualReference<HXLVirtualTreeNode> book(chapter->getParent(0));
        tree.dumpTree(chapter.get(), os);
        failures += check(os, book && book->getChildCount() == kChaptersPerBook,
                          "the chapter's parent is a book with all its chapters");
    }

    std::ostringstream mapper;
    tree.dumpMapper(mapper);
    os << "\n" << mapper.str();
    failures += check(os, mapper.str().find("Page Outs: 0\n") == std::string::npos,
                      "nodes left memory and came back");
    failures += check(os, mapper.str().find("reference count > 0") == std::string::npos,
                      "no reference is left outstanding");
    os << "\n";
    return failures == 0 ? 0 : 1;
}
