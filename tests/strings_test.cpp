// String handles: round trips in both stored forms, stored sizes, reuse or move of the block,
// empty values, the comparison rules, null stores, reference balance, and strings as members
// of stored nodes that leave memory.
#include "HXLVirtualI18NString.h"
#include "HXLVirtualUTF8String.h"
#include "nodes_test_util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

const unsigned int kBudget = 64 * 1024;

I18NString text(const std::string& utf8) {
    return I18NString(utf8.c_str(), NULL, -1, NULL, NULL);
}
std::string utf8Of(const I18NString& value) {
    int length = 0;
    const char* bytes = value.c_str(NULL, &length, NULL, NULL);
    return std::string(bytes, length - 1);
}

TEST(Strings, RoundTripsStoredSizesAndReferences) {
    HXLVirtualContainer container(kBudget, 0, 0);
    HXLVirtualMemoryMgr* memMgr = container.getMemoryMgr();
    // ASCII, two- and three-byte characters, and a four-byte one (a surrogate pair inside).
    const std::pair<const char*, unsigned int> values[] = {
        {"plain ASCII", 22}, {"Gr\xC3\xBC\xC3\x9F \xE4\xB8\x96", 12}, {"\xF0\x9F\x98\x80", 4}};
    for (const auto& v : values) { // the value, and the stored size of its UTF-16 form
        SCOPED_TRACE(v.first);
        const I18NString original = text(v.first);
        HXLVirtualUTF8String utf8, copy;
        utf8.setString(original, &container);
        EXPECT_EQ(utf8.getSize(), std::strlen(v.first)); // bytes of UTF-8, not characters
        EXPECT_EQ(utf8Of(utf8.getString(memMgr)), v.first);
        EXPECT_EQ(utf8.isEqual(original, &container), 1);
        HXLI18NBuffer buffer;
        utf8.getI18NBuffer(buffer, memMgr);
        copy.setString(buffer, &container);
        EXPECT_EQ(copy.isEqual(utf8, &container), 1);
        const void* raw = utf8.getObjectPtr(&container); // the one call that keeps a reference
        EXPECT_EQ(std::memcmp(raw, v.first, utf8.getSize()), 0);
        EXPECT_EQ(outstandingReferences(memMgr), 1u);
        memMgr->dismiss(utf8);

        HXLVirtualI18NString internal;
        internal.setString(original, memMgr);
        EXPECT_EQ(internal.getSize(), v.second);
        EXPECT_TRUE(internal.getString(&container) == original);
        EXPECT_EQ(outstandingReferences(memMgr), 0u);
    }
}

TEST(Strings, ShorterValueKeepsTheBlockEqualOrLongerMovesEmptyChangesNothing) {
    HXLVirtualContainer container(kBudget, 0, 0);
    HXLVirtualUTF8String utf8;
    HXLVirtualI18NString internal;
    // Each step: the value, and whether the block stays (only the size is compared).
    const std::pair<const char*, bool> steps[] = {{"abc", false}, {"xy", true}, {"pq", false}};
    for (const auto& step : steps) {
        const unsigned long long before[] = {utf8.getOffset(), internal.getOffset()};
        utf8.setString(text(step.first), &container);
        internal.setString(text(step.first), &container);
        EXPECT_EQ(utf8.getOffset() == before[0], step.second) << step.first;
        EXPECT_EQ(internal.getOffset() == before[1], step.second) << step.first;
    }
    utf8.setString(I18NString(), &container);
    utf8.setString(HXLI18NBuffer(), &container);
    internal.setString(I18NString(), &container);
    EXPECT_EQ(utf8Of(utf8.getString(&container)) + utf8Of(internal.getString(&container)), "pqpq");
}

TEST(Strings, ComparisonRulesAndNullStores) {
    HXLVirtualContainer container(kBudget, 0, 0), managerless(NULL);
    HXLVirtualMemoryMgr* memMgr = container.getMemoryMgr();
    HXLVirtualUTF8String u1, u2;
    HXLVirtualI18NString i1, i2;
    // Empty handles never equal each other; against an empty value the classes differ.
    EXPECT_EQ(u1.isEqual(u2, memMgr) + i1.isEqual(i2, memMgr) + i1.isEqual(I18NString(), memMgr),
              0);
    EXPECT_EQ(u1.isEqual(I18NString(), memMgr), 1);
    for (HXLVirtualUTF8String* u : {&u1, &u2})
        u->setString(text("same"), memMgr);
    for (HXLVirtualI18NString* i : {&i1, &i2})
        i->setString(text("same"), memMgr);
    EXPECT_EQ(u1.isEqual(u2, &container) + u1.isEqual(u1, memMgr), 2); // itself: mapped twice
    EXPECT_EQ(i1.isEqual(i2, &container) + i1.isEqual(i1, memMgr), 2);
    EXPECT_EQ(u1.isEqual(text("SAME"), memMgr) + u1.isEqual(I18NString(), memMgr), 0);
    u2.setString(text("sam"), memMgr);
    i2.setString(text("sam"), memMgr);
    // A prefix of the other is not equal: the sizes are compared before the bytes.
    EXPECT_EQ(u2.isEqual(u1, memMgr) + u2.isEqual(text("same"), memMgr) + i2.isEqual(i1, memMgr) +
                  i2.isEqual(text("same"), memMgr),
              0);

    // A null store, or a container without a manager: answers of nothing, no change.
    for (HXLVirtualContainer* store : {static_cast<HXLVirtualContainer*>(NULL), &managerless}) {
        EXPECT_EQ(u1.getObjectPtr(store), nullptr);
        u1.setString(text("changed"), store);
        i1.setString(text("changed"), store);
        EXPECT_EQ(u1.isEqual(u1, store) + i1.isEqual(i1, store), 0);
    }
    EXPECT_EQ(utf8Of(u1.getString(&container)) + utf8Of(i1.getString(&container)), "samesame");
    EXPECT_EQ(outstandingReferences(memMgr), 0u);
}

// A stored node with text members: the handles lie in the node's image, the bytes in blocks of
// their own, and both leave memory.
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
        return std::string(i % 50, '*') + " \xF0\x9F\x98\x80 " + std::to_string(i);
    };
    for (int i = 0; i < kPeople; ++i) {
        Person* person = make<Person>(tree);
        person->m_name.setString(text(nameOf(i)), &tree);
        person->m_motto.setString(text(mottoOf(i)), &tree);
        tree.getRootNode()->appendChild(person);
        person->dismiss();
    }
    EXPECT_TRUE(pagedOut(tree.getMemoryMgr()));
    int i = 0;
    for (HXLVirtualTreeNode* node = tree.getRootNode()->getFirstChild(); node != NULL;
         node = node->getNextSibling(1), ++i) {
        Person* person = static_cast<Person*>(node);
        ASSERT_EQ(utf8Of(person->m_name.getString(&tree)), nameOf(i));
        ASSERT_EQ(person->m_motto.isEqual(text(mottoOf(i)), &tree), 1);
    }
    EXPECT_EQ(i, kPeople);
    EXPECT_EQ(outstandingReferences(tree.getMemoryMgr()), 0u);
}

} // namespace
