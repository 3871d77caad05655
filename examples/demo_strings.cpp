// String handles with their bytes in the store: a glossary whose entries are stored nodes with
// a UTF-8 word and its translation in the internal form, more text than the store keeps in
// memory, read back after paging.
#include "HXLVirtualChildren.h"
#include "HXLVirtualI18NString.h"
#include "HXLVirtualNodeClass.h"
#include "HXLVirtualReference.h"
#include "HXLVirtualTree.h"
#include "HXLVirtualTreeNode.h"
#include "HXLVirtualUTF8String.h"
#include "demo_sections.h"

#include <sstream>
#include <string>

namespace {

const unsigned int kBudget = 64 * 1024; // resident bytes of the store
const int kGenerated = 2000;

// A stored node with two text members: the handles lie in the node, the bytes in blocks of
// their own, and each call is handed the store.
class Entry : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Entry)
public:
    HXLVirtualUTF8String m_word;
    HXLVirtualI18NString m_translation;
};

struct Pair {
    const char* word;
    const char* translation;
};
const Pair kGlossary[] = {
    {"store", "Speicher"},
    {"Gr\xC3\xBC\xC3\x9F"
     "e",
     "greetings"},
    {"\xE4\xB8\x96\xE7\x95\x8C", "world"},
    {"smile", "\xF0\x9F\x98\x80"},
};

I18NString text(const std::string& utf8) {
    return I18NString(utf8.c_str(), NULL, static_cast<int>(utf8.size()), NULL, NULL);
}
std::string utf8Of(const I18NString& value) {
    int length = 0;
    const char* bytes = value.c_str(NULL, &length, NULL, NULL);
    return std::string(bytes, static_cast<size_t>(length - 1));
}

std::string generatedWord(int i) {
    return "word-" + std::to_string(i) + "-\xCE\xB1\xCE\xB2";
}
std::string generatedTranslation(int i) {
    return std::string(static_cast<size_t>(20 + i % 40), '~') + " " + std::to_string(i);
}

int check(std::ostream& os, bool ok, const char* what) {
    os << (ok ? "  ok: " : "  FAILED: ") << what << "\n";
    return ok ? 0 : 1;
}

} // namespace

int demoStrings(std::ostream& os) {
    os << "== String handles with their bytes in the store ==\n\n";
    int failures = 0;
    HXLVirtualTree tree(kBudget, 0, 0);
    HXLVirtualTreeNode* root = tree.getRootNode();

    auto add = [&](const std::string& word, const std::string& translation) {
        HXLVirtualReference<Entry> entry(static_cast<Entry*>(Entry::create(&tree)));
        entry->m_word.setString(text(word), &tree);
        entry->m_translation.setString(text(translation), &tree);
        root->appendChild(entry.get());
    };
    for (const Pair& pair : kGlossary)
        add(pair.word, pair.translation);
    for (int i = 0; i < kGenerated; ++i)
        add(generatedWord(i), generatedTranslation(i));
    os << "stored " << root->getChildCount() << " entries in a store that keeps " << kBudget
       << " bytes resident\n";

    // One walk over the entries: the glossary first, then the generated ones.
    const int glossary = static_cast<int>(sizeof(kGlossary) / sizeof(kGlossary[0]));
    int equal = 0, index = 0;
    for (Entry* entry : HXLVirtualChildren<Entry>(root)) {
        const int i = index++ - glossary;
        if (i >= 0) {
            equal += entry->m_word.isEqual(text(generatedWord(i)), &tree) == 1 &&
                     utf8Of(entry->m_translation.getString(&tree)) == generatedTranslation(i);
            continue;
        }
        const Pair& pair = kGlossary[i + glossary];
        os << "  " << utf8Of(entry->m_word.getString(&tree)) << " = "
           << utf8Of(entry->m_translation.getString(&tree)) << "  (" << entry->m_word.getSize()
           << " UTF-8 bytes, " << entry->m_translation.getSize() << " bytes of internal form)\n";
        failures += check(os,
                          entry->m_word.isEqual(text(pair.word), &tree) == 1 &&
                              entry->m_translation.isEqual(text(pair.translation), &tree) == 1,
                          "the entry reads back as stored");
    }
    os << equal << " of " << kGenerated << " generated entries read back equal\n";
    failures += check(os, equal == kGenerated, "every generated entry survived paging");

    // A shorter value stays in its block; an equal or longer one moves to a new block.
    HXLVirtualReference<Entry> first(static_cast<Entry*>(root->getFirstChild()));
    const unsigned long long before = first->m_word.getOffset();
    first->m_word.setString(text("shop"), &tree);
    const bool kept = first->m_word.getOffset() == before;
    first->m_word.setString(text("warehouse"), &tree);
    const bool moved = first->m_word.getOffset() != before;
    os << "rewrote \"store\" as \"shop\" (same block: " << (kept ? "yes" : "no")
       << ") and as \"warehouse\" (new block: " << (moved ? "yes" : "no") << ")\n";
    failures += check(os, kept && moved && utf8Of(first->m_word.getString(&tree)) == "warehouse",
                      "shorter values reuse the block, longer ones move");
    first.reset();

    std::ostringstream mapper;
    tree.dumpMapper(mapper);
    failures += check(os, mapper.str().find("Page Outs: 0\n") == std::string::npos,
                      "text left memory and came back");
    failures += check(os, mapper.str().find("reference count > 0") == std::string::npos,
                      "no reference is left outstanding");
    os << "\n";
    return failures == 0 ? 0 : 1;
}
