// String handles: round trips in both stored forms as members of stored nodes that leave
// memory, stored sizes, reuse or move of the block, empty values, the comparison rules, null
// stores, and reference balance.
#include "HXLVirtualI18NString.h"
#include "HXLVirtualUTF8String.h"
#include "store_test_util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

const unsigned int kBudget = 64 * 1024;

I18NString text(const std::string& utf8) {
    return I18NString(utf8.c_str(), NULL, -1, NULL, NULL);
}
std::string utf8Of(const I18NString& value) {
    return value.c_str(NULL, NULL, NULL, NULL);
}

// The handles lie in the node's image, the bytes in blocks of their own.
class Person : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Person)
public:
    HXLVirtualUTF8String m_name;
    HXLVirtualI18NString m_motto;
};

TEST(Strings, MembersOfStoredNodesSurvivePaging) {
    HXLVirtualTree tree(kBudget, 0, 0);
    HXLVirtualMemoryMgr* memMgr = tree.getMemoryMgr();
    // ASCII, two- and three-byte characters, and a four-byte one (a surrogate pair inside),
    // with their UTF-16 units; each value has a tail of its own.
    const std::pair<const char*, size_t> samples[] = {
        {"plain ASCII", 11}, {"Gr\xC3\xBC\xC3\x9F \xE4\xB8\x96", 6}, {"\xF0\x9F\x98\x80", 2}};
    auto valueOf = [&](int i) {
        return samples[i % 3].first + std::string(i % 50, '*') + std::to_string(i);
    };
    const int kPeople = 2000; // nodes and strings about ten times the budget
    for (int i = 0; i < kPeople; ++i) {
        Person* person = make<Person>(tree);
        person->m_name.setString(text(valueOf(i)), &tree);
        person->m_motto.setString(text(valueOf(i)), memMgr);
        tree.getRootNode()->appendChild(person);
        person->dismiss();
    }
    EXPECT_TRUE(pagedOut(memMgr));
    int i = 0;
    for (HXLVirtualTreeNode* node = tree.getRootNode()->getFirstChild(); node != NULL;
         node = node->getNextSibling(1), ++i) {
        Person* person = static_cast<Person*>(node);
        const std::string value = valueOf(i);
        ASSERT_EQ(utf8Of(person->m_name.getString(&tree)), value);
        ASSERT_TRUE(person->m_motto.getString(memMgr) == text(value));
        ASSERT_EQ(person->m_name.getSize(), value.size()); // bytes of UTF-8, not characters
        ASSERT_EQ(person->m_motto.getSize(),
                  2 * (samples[i % 3].second + i % 50 + std::to_string(i).size()));
        ASSERT_EQ(person->m_name.isEqual(text(value), memMgr) +
                      person->m_motto.isEqual(text(value), &tree),
                  2);
        HXLI18NBuffer buffer;
        HXLVirtualUTF8String copy;
        person->m_name.getI18NBuffer(buffer, memMgr);
        copy.setString(buffer, &tree);
        ASSERT_EQ(copy.isEqual(person->m_name, &tree), 1);
        const void* raw = person->m_name.getObjectPtr(&tree); // the one call that keeps a reference
        ASSERT_EQ(std::memcmp(raw, value.data(), value.size()), 0);
        ASSERT_EQ(outstandingReferences(memMgr), 2u); // the person's and the name's
        memMgr->dismiss(person->m_name);
    }
    EXPECT_EQ(i, kPeople);
    EXPECT_EQ(outstandingReferences(memMgr), 0u);
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

} // namespace
