// String handles: round trips in both stored forms, stored sizes, reuse or move of the block,
// empty values, the comparison rules, null stores, reference balance, paging, and strings as
// members of a stored node.
#include "HXLVirtualI18NString.h"
#include "HXLVirtualUTF8String.h"
#include "nodes_test_util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

const unsigned int kBudget = 64 * 1024;

I18NString text(const char* utf8) {
    return I18NString(utf8, NULL, -1, NULL, NULL);
}
std::string utf8Of(const I18NString& value) {
    int length = 0;
    const char* bytes = value.c_str(NULL, &length, NULL, NULL);
    return std::string(bytes, length - 1);
}

// ASCII, two- and three-byte characters, and a four-byte one (outside the BMP: two UTF-16
// units in the internal form).
const char* const kValues[] = {"plain ASCII",
                               ("Gr\xC3\xBC\xC3\x9F"
                                "e, \xE4\xB8\x96\xE7\x95\x8C"),
                               "\xF0\x9F\x98\x80", "a\xF0\x9F\x98\x80z"};

TEST(Strings, RoundTripsAndStoredSizes) {
    HXLVirtualContainer container(kBudget, 0, 0);
    HXLVirtualMemoryMgr* memMgr = container.getMemoryMgr();
    for (const char* value : kValues) {
        SCOPED_TRACE(value);
        const I18NString original = text(value);

        HXLVirtualUTF8String utf8;
        utf8.setString(original, &container);
        EXPECT_EQ(utf8.getSize(), std::strlen(value)); // bytes of UTF-8, not characters
        EXPECT_TRUE(utf8.getString(memMgr) == original);
        EXPECT_EQ(utf8Of(utf8.getString(&container)), value);
        EXPECT_EQ(utf8.isEqual(original, &container), 1);
        HXLI18NBuffer buffer;
        utf8.getI18NBuffer(buffer, memMgr);
        EXPECT_TRUE(buffer.getString() == original);
        const void* raw = utf8.getObjectPtr(&container); // the one call that leaves a reference
        ASSERT_NE(raw, nullptr);
        EXPECT_EQ(std::memcmp(raw, value, std::strlen(value)), 0);
        EXPECT_EQ(outstandingReferences(memMgr), 1u);
        memMgr->dismiss(utf8);

        HXLVirtualI18NString internal;
        internal.setString(original, memMgr);
        EXPECT_EQ(internal.getSize(), static_cast<unsigned int>(original.size()));
        EXPECT_TRUE(internal.getString(&container) == original);
        EXPECT_EQ(internal.isEqual(original, &container), 1);
        EXPECT_EQ(internal.isEqual(text("other"), memMgr), 0);

        // Through a buffer, and as a copy in another block.
        HXLVirtualUTF8String copy;
        copy.setString(buffer, &container);
        EXPECT_NE(copy.getOffset(), utf8.getOffset());
        EXPECT_EQ(copy.isEqual(utf8, &container), 1);
        EXPECT_EQ(outstandingReferences(memMgr), 0u);
    }
    HXLVirtualUTF8String utf8;
    HXLVirtualI18NString internal;
    utf8.setString(text("\xF0\x9F\x98\x80"), memMgr);
    internal.setString(text("\xF0\x9F\x98\x80"), memMgr);
    EXPECT_EQ(utf8.getSize(), 4u);
    EXPECT_EQ(internal.getSize(), 4u); // a surrogate pair
}

TEST(Strings, ShorterValueKeepsTheBlockEqualOrLongerMoves) {
    HXLVirtualContainer container(kBudget, 0, 0);
    HXLVirtualUTF8String utf8;
    utf8.setString(text("abc"), &container);
    const unsigned long long first = utf8.getOffset();
    utf8.setString(text("xy"), &container);
    EXPECT_EQ(utf8.getOffset(), first);
    EXPECT_EQ(utf8.getSize(), 2u);
    EXPECT_EQ(utf8Of(utf8.getString(&container)), "xy");
    utf8.setString(text("pq"), &container); // only the size is compared, and 2 is not below 2
    EXPECT_NE(utf8.getOffset(), first);
    EXPECT_EQ(utf8Of(utf8.getString(&container)), "pq");

    HXLVirtualI18NString internal;
    internal.setString(text("abcd"), &container);
    const unsigned long long start = internal.getOffset();
    internal.setString(text("abc"), &container);
    EXPECT_EQ(internal.getOffset(), start);
    EXPECT_EQ(internal.getSize(), 6u);
    internal.setString(text("xyz"), &container);
    EXPECT_NE(internal.getOffset(), start);
    EXPECT_TRUE(internal.getString(&container) == text("xyz"));

    // Empty values change nothing, in every form.
    const unsigned long long kept = utf8.getOffset();
    utf8.setString(I18NString(), &container);
    utf8.setString(HXLI18NBuffer(), &container);
    internal.setString(I18NString(), &container);
    EXPECT_EQ(utf8.getOffset(), kept);
    EXPECT_EQ(utf8Of(utf8.getString(&container)), "pq");
    EXPECT_TRUE(internal.getString(&container) == text("xyz"));
    EXPECT_EQ(outstandingReferences(container.getMemoryMgr()), 0u);

    // A size beyond an int's count, set by hand, is not read past the payload.
    utf8.setSize(0x80000000u);
    internal.setSize(0x80000000u);
    EXPECT_TRUE(utf8.getString(&container).empty());
    EXPECT_TRUE(internal.getString(&container).empty());
    EXPECT_EQ(outstandingReferences(container.getMemoryMgr()), 0u);
}

TEST(Strings, ComparisonRules) {
    HXLVirtualContainer container(kBudget, 0, 0);
    HXLVirtualMemoryMgr* memMgr = container.getMemoryMgr();
    HXLVirtualUTF8String u1, u2;
    HXLVirtualI18NString i1, i2;
    // Empty handles: never equal to each other; against an empty value the classes differ.
    EXPECT_EQ(u1.isEqual(u2, memMgr), 0);
    EXPECT_EQ(u1.isEqual(I18NString(), memMgr), 1);
    EXPECT_EQ(i1.isEqual(i2, memMgr), 0);
    EXPECT_EQ(i1.isEqual(I18NString(), memMgr), 0);

    u1.setString(text("same"), memMgr);
    u2.setString(text("same"), memMgr);
    i1.setString(text("same"), memMgr);
    i2.setString(text("same"), memMgr);
    EXPECT_EQ(u1.isEqual(u2, &container), 1);
    EXPECT_EQ(u1.isEqual(u1, memMgr), 1); // one block, mapped and dismissed twice
    EXPECT_EQ(i1.isEqual(i2, &container), 1);
    EXPECT_EQ(i1.isEqual(i1, memMgr), 1);
    const HXLVirtualI18NString& constant = i1;
    EXPECT_EQ(constant.isEqual(i2, memMgr), 1);
    EXPECT_EQ(u1.isEqual(I18NString(), memMgr), 0);
    u2.setString(text("sam"), memMgr);
    i2.setString(text("sam"), memMgr);
    EXPECT_EQ(u1.isEqual(u2, memMgr), 0);
    EXPECT_EQ(i1.isEqual(i2, memMgr), 0);
    EXPECT_EQ(u1.isEqual(text("SAME"), memMgr), 0); // bytes, no case folding
    EXPECT_EQ(outstandingReferences(memMgr), 0u);
}

TEST(Strings, NullStoreIsAQuietNoOp) {
    HXLVirtualContainer container(kBudget, 0, 0);
    HXLVirtualContainer managerless(static_cast<HXLVirtualMemoryMgr*>(NULL));
    HXLVirtualUTF8String utf8;
    HXLVirtualI18NString internal;
    utf8.setString(text("kept"), &container);
    internal.setString(text("kept"), &container);
    const unsigned long long offset = utf8.getOffset();

    HXLVirtualMemoryMgr* noManager = NULL;
    HXLVirtualContainer* noContainer = NULL;
    HXLI18NBuffer buffer;
    buffer = text("filled");
    utf8.getI18NBuffer(buffer, noContainer);
    EXPECT_EQ(buffer.empty(), 1);
    buffer = text("filled");
    utf8.getI18NBuffer(buffer, &managerless);
    EXPECT_EQ(buffer.empty(), 1);
    EXPECT_EQ(utf8.getObjectPtr(noManager), nullptr);
    EXPECT_EQ(utf8.getObjectPtr(&managerless), nullptr);
    EXPECT_TRUE(utf8.getString(noManager).empty());
    EXPECT_TRUE(internal.getString(noContainer).empty());
    utf8.setString(text("changed"), noManager);
    utf8.setString(buffer, &managerless);
    internal.setString(text("changed"), noContainer);
    EXPECT_EQ(utf8.getOffset(), offset);
    EXPECT_EQ(utf8.isEqual(utf8, noManager), 0);
    EXPECT_EQ(HXLVirtualUTF8String().isEqual(I18NString(), noManager), 0);
    EXPECT_EQ(internal.isEqual(internal, noContainer), 0);
    EXPECT_EQ(internal.isEqual(text("kept"), noManager), 0);
    EXPECT_EQ(utf8Of(utf8.getString(&container)), "kept");
    EXPECT_EQ(outstandingReferences(container.getMemoryMgr()), 0u);
}

// A stored node with text members: the handles lie in the node's image, the bytes in blocks of
// their own, and both may leave memory.
class Person : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Person)
public:
    HXLVirtualUTF8String m_name;
    HXLVirtualI18NString m_motto;
};

TEST(Strings, MembersOfStoredNodesSurvivePaging) {
    HXLVirtualTree tree(kBudget, 0, 0);
    const int kPeople = 2000; // nodes and strings about ten times the budget
    auto nameOf = [](int i) { return "person \xE2\x84\x96" + std::to_string(i); };
    auto mottoOf = [](int i) {
        return std::string(static_cast<size_t>(i % 50), '*') + " \xF0\x9F\x98\x80 " +
               std::to_string(i);
    };
    for (int i = 0; i < kPeople; ++i) {
        Person* person = static_cast<Person*>(Person::create(&tree));
        person->m_name.setString(text(nameOf(i).c_str()), person->getContainer());
        person->m_motto.setString(text(mottoOf(i).c_str()), person->getContainer());
        tree.getRootNode()->appendChild(person);
        person->dismiss();
    }
    std::ostringstream report;
    tree.getMemoryMgr()->dumpMapper(report, HXLVirtualMemoryMgr::eDumpStats);
    EXPECT_EQ(report.str().find("Page Outs: 0\n"), std::string::npos);

    int i = 0;
    for (HXLVirtualTreeNode* node = tree.getRootNode()->getFirstChild(); node != NULL;
         node = node->getNextSibling(1), ++i) {
        Person* person = static_cast<Person*>(node);
        ASSERT_EQ(utf8Of(person->m_name.getString(&tree)), nameOf(i));
        ASSERT_EQ(person->m_motto.isEqual(text(mottoOf(i).c_str()), &tree), 1);
        ASSERT_EQ(utf8Of(person->m_motto.getString(&tree)), mottoOf(i));
    }
    EXPECT_EQ(i, kPeople);
    EXPECT_EQ(outstandingReferences(tree.getMemoryMgr()), 0u);
}

} // namespace
