// String handles: round trips in both stored forms through a store that pages, stored sizes, reuse
// or move of the block, empty values, the comparison rules, null stores, and reference balance.
#include "store_test_util.h"

namespace {

typedef std::vector<unsigned long long> Numbers;

TEST(Strings, RoundTripsThroughPagingBlockReuseComparisonsAndNullStores) {
    HXLVirtualContainer container(64 * 1024, 0, 0), managerless(NULL);
    HXLVirtualMemoryMgr* memMgr = container.getMemoryMgr();
    // ASCII, two- and three-byte characters, and a four-byte one (a surrogate pair inside);
    // each value has a tail of its own.
    const char* const samples[] = {"plain ASCII", "Gr\xC3\xBC\xC3\x9F \xE4\xB8\x96",
                                   "\xF0\x9F\x98\x80"};
    auto valueOf = [&](int i) {
        return samples[i % 3] + std::string(i % 50, '*') + std::to_string(i);
    };
    const int kCount = 3000; // several times the budget
    std::vector<HXLVirtualUTF8String> names(kCount);
    std::vector<HXLVirtualI18NString> mottos(kCount);
    for (int i = 0; i < kCount; ++i) {
        names[i].setString(text(valueOf(i)), &container);
        mottos[i].setString(text(valueOf(i)), memMgr);
    }
    EXPECT_TRUE(pagedOut(memMgr));
    for (int i = 0; i < kCount; ++i) {
        const std::string value = valueOf(i);
        ASSERT_EQ(narrow(names[i].getString(&container)), value);
        ASSERT_TRUE(mottos[i].getString(memMgr) == text(value));
        HXLI18NBuffer buffer;
        HXLVirtualUTF8String copy;
        names[i].getI18NBuffer(buffer, memMgr);
        copy.setString(buffer, &container);
        // UTF-8 stores its bytes, the other form its UTF-16 units; equal to the value and copy.
        ASSERT_EQ(Numbers({names[i].getSize(), mottos[i].getSize(),
                           Numbers::value_type(names[i].isEqual(text(value), memMgr) +
                                               mottos[i].isEqual(text(value), &container) +
                                               copy.isEqual(names[i], &container))}),
                  Numbers({value.size(), Numbers::value_type(text(value).size()), 3}));
        const void* raw = names[i].getObjectPtr(&container); // the one call that keeps a reference
        ASSERT_EQ(std::memcmp(raw, value.data(), value.size()), 0);
        ASSERT_EQ(heldReferences(*memMgr), 1u);
        memMgr->dismiss(names[i]);
    }

    HXLVirtualUTF8String u1, u2;
    HXLVirtualI18NString i1, i2;
    // Empty handles never equal each other; against an empty value the classes differ.
    EXPECT_EQ(u1.isEqual(u2, memMgr) + i1.isEqual(i2, memMgr) + i1.isEqual(I18NString(), memMgr),
              0);
    EXPECT_EQ(u1.isEqual(I18NString(), memMgr), 1);
    // Each step: the value, and whether the block stays (only the size is compared).
    const std::pair<const char*, bool> steps[] = {
        {"same!", false}, {"same", true}, {"SAME", false}, {"same", false}};
    for (const auto& step : steps) {
        const Numbers before({u1.getOffset(), i1.getOffset()});
        u1.setString(text(step.first), &container);
        i1.setString(text(step.first), memMgr);
        EXPECT_EQ(Numbers({u1.getOffset(), i1.getOffset()}) == before, step.second) << step.first;
    }
    // Empty values change nothing.
    u1.setString(I18NString(), &container);
    u1.setString(HXLI18NBuffer(), memMgr);
    i1.setString(I18NString(), &container);
    u2.setString(text("same"), memMgr);
    i2.setString(text("same"), &container);
    EXPECT_EQ(u1.isEqual(u2, &container) + u1.isEqual(u1, memMgr), 2); // itself: mapped twice
    EXPECT_EQ(i1.isEqual(i2, &container) + i1.isEqual(i1, memMgr), 2);
    EXPECT_EQ(u1.isEqual(text("SAME"), memMgr) + u1.isEqual(I18NString(), memMgr), 0);
    u2.setString(text("sam"), memMgr);
    i2.setString(text("sam"), memMgr);
    // A prefix of the other is not equal: the sizes are compared before the bytes.
    EXPECT_EQ(u2.isEqual(u1, memMgr) + u2.isEqual(text("same"), memMgr) + i2.isEqual(i1, memMgr) +
                  i2.isEqual(text("same"), memMgr),
              0);
    // Equal sizes one byte apart, wherever that byte is, are not equal; the same bytes are.
    for (size_t size = 1; size <= 20; ++size) {
        u2.setString(text(std::string(size, 'x')), memMgr);
        EXPECT_EQ(u2.isEqual(text(std::string(size, 'x')), memMgr), 1) << size;
        for (size_t at = 0; at < size; ++at) {
            std::string other(size, 'x');
            other[at] = 'y';
            EXPECT_EQ(u2.isEqual(text(other), memMgr), 0) << size << "/" << at;
        }
    }

    // A null store, or a container without a manager: answers of nothing, no change.
    for (HXLVirtualContainer* store : {static_cast<HXLVirtualContainer*>(NULL), &managerless}) {
        EXPECT_EQ(u1.getObjectPtr(store), nullptr);
        u1.setString(text("changed"), store);
        i1.setString(text("changed"), store);
        EXPECT_EQ(u1.isEqual(u1, store) + i1.isEqual(i1, store), 0);
    }
    EXPECT_EQ(narrow(u1.getString(&container)) + narrow(i1.getString(&container)), "samesame");
    EXPECT_EQ(heldReferences(*memMgr), 0u);
}

} // namespace
