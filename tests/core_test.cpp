// The core library: exception texts and back-traces, the translation guard, I18NString's
// decoding and encodings, and HXLFmFile on real temporary files. CRC-32 is checked against zlib
// through the class identifiers of stored nodes.
#include "store_test_util.h"

#include <climits>

namespace {

void thrower(int which) {
    HXL_TRY {
        if (which == 0)
            throw std::bad_alloc();
        if (which == 1)
            throw std::out_of_range("index 7");
        HXL_THROW(HXLIllegalStateError(0, "inner"), "Inner::work");
    }
    HXL_TRANSLATE("Outer::step");
}

} // namespace

TEST(HXLCore, ThrownTextsAndBackTraces) {
    int dummy = 0;
    int* m_pool = &dummy;
    const std::pair<std::function<void()>, const char*> cases[] = {
        {[&] { HXL_ASSERT(m_pool == NULL); }, "assert: HXL_ASSERT(m_pool == NULL); <- HXL_THROW"},
        // The guard: a translated exception gets the guard's function, a passing one a frame.
        {[] { thrower(0); }, "memory: Out of memory <- HXL_THROW Outer::step"},
        {[] { thrower(1); }, "std: index 7 <- HXL_THROW Outer::step"},
        {[] { thrower(2); }, "state: inner <- HXL_THROW Inner::work <- HXL_RETHROW"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(thrown(c.first), c.second);
    try {
        HXL_ASSERT(m_pool == NULL);
    } catch (const HXLAssertError& e) {
        EXPECT_STREQ(e.getText(), e.what());
        EXPECT_NE(e.getBackTrace().at(0).file.find("core_test.cpp"), std::string::npos);
        EXPECT_GT(e.getBackTrace()[0].line, 0);
    }
}

TEST(I18NString, DecodingLengthsAndEncodings) {
    // Each maximal invalid subpart becomes one U+FFFD, whatever follows: a lone continuation,
    // overlong 2- and 3-byte forms, an encoded surrogate, a code point above U+10FFFF, bytes
    // that never start a sequence, sequences cut short in the middle and at the end. 4-byte
    // characters become surrogate pairs.
    const std::pair<std::string, std::u16string> samples[] = {
        {"", u""},
        {"plain \xC3\xA9t\xE2\x82\xAC \xE4\xB8\xAD \xF0\x9F\x98\x80\xF0\x90\x8D\x88",
         u"plain \u00E9t\u20AC \u4E2D \U0001F600\U00010348"},
        {"\x80|\xC0\xAF|\xE0\x80\x80|\xED\xA0\x80|\xF4\x90\x80\x80|\xFF\xFE\xF5\xC1|",
         u"\uFFFD|\uFFFD\uFFFD|\uFFFD\uFFFD\uFFFD|\uFFFD\uFFFD\uFFFD|\uFFFD\uFFFD\uFFFD\uFFFD|"
         u"\uFFFD\uFFFD\uFFFD\uFFFD|"},
        {"a\xE2\x82\x62\xF0\x9F\x63|\xE1\x80\xE2\xF0\x91\x92\xF1\xBF\x41|\xF0\x9F\x98",
         u"a\uFFFDb\uFFFDc|\uFFFD\uFFFD\uFFFD\uFFFDA|\uFFFD"}};
    for (const auto& s : samples)
        EXPECT_TRUE(text(s.first) ==
                    I18NString(s.second.data(), 2 * s.second.size(), nullptr, nullptr))
            << s.first;

    const char* utf8 = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"; // 1+2+3+4 bytes, 5 units
    const I18NString value = text(utf8);
    EXPECT_EQ(value.size(), 10);
    I18NString copy(value.getExternalBuffer(), value.size(), nullptr, nullptr);
    EXPECT_TRUE(copy == value && !(copy != value) && copy != text(std::string("b") + (utf8 + 1)));
    // An explicit length stops early, even inside a sequence; an odd byte is dropped; bad
    // arguments give the empty string, an unpaired surrogate a replacement.
    EXPECT_EQ(narrow(I18NString(utf8, nullptr, 2, nullptr, nullptr)), "a\xEF\xBF\xBD");
    EXPECT_EQ(I18NString(value.getExternalBuffer(), 3, nullptr, nullptr).size(), 2);
    EXPECT_TRUE(I18NString(nullptr, nullptr, 5, nullptr, nullptr).empty() &&
                I18NString(nullptr, 8, nullptr, nullptr).empty() &&
                I18NString(utf8, -4, nullptr, nullptr).empty());
    const char16_t lone[] = {0xD800, u'x'};
    EXPECT_EQ(narrow(I18NString(lone, 4, nullptr, nullptr)), "\xEF\xBF\xBDx");
    EXPECT_EQ(narrow(I18NString()), "");
    // Latin-1 both ways, '?' for what it cannot hold; the cache follows the encoding asked.
    EXPECT_EQ(narrow(I18NString("caf\xE9", "ISO-8859-1", -1, nullptr, nullptr)), "caf\xC3\xA9");
    EXPECT_EQ(narrow(value, "latin1") + narrow(value), std::string("a\xE9??") + utf8);

    HXLI18NBuffer buffer;
    EXPECT_EQ(buffer.empty(), 1);
    buffer = value;
    EXPECT_TRUE(buffer.empty() == 0 && buffer.getString() == value);
    buffer.clear();
    EXPECT_EQ(buffer.empty(), 1);
}

TEST(HXLFmFile, ReadsWritesSeeksTruncatesAppends) {
    char name[] = "/tmp/hxlcore-test-XXXXXX";
    ::close(::mkstemp(name));
    const std::string second = std::string(name) + ".b";
    HXLFmFile file, other, out;
    char buffer[32] = {};
    typedef std::vector<long long> Results; // each call's result, in the order of the calls
    // Not open yet, then: write, seek from the end, read to the end and at the end.
    EXPECT_EQ(
        (Results{file.write("x", 1), file.getLastErrorNumber(), file.close(),
                 file.open(name, HXLFmFile::eCreateAlways, 0600), file.write("hello, world", 12),
                 file.getLength(), file.seek(-5, HXLFmFile::eSeekEnd),
                 file.read(buffer, sizeof(buffer)), file.read(buffer + 8, 4)}),
        (Results{-1, EBADF, 0, 1, 12, 12, 7, 5, 0}));
    EXPECT_STREQ(buffer, "world");
    // Relative and failing seeks, truncation, and another file appended.
    EXPECT_EQ((Results{file.seek(2, HXLFmFile::eSeekBegin), file.seek(3, HXLFmFile::eSeekCurrent),
                       file.seek(-10, HXLFmFile::eSeekBegin), file.getLastErrorNumber(),
                       file.seek(0, HXLFmFile::eSeekCurrent), file.truncate(5), file.getLength(),
                       file.truncate(-1), file.flush(),
                       other.open(I18NString(second.c_str(), nullptr, -1, nullptr, nullptr),
                                  HXLFmFile::eCreateNew, 0),
                       other.write("!!", 2), file.append(other),
                       file.seek(0, HXLFmFile::eSeekBegin), file.read(buffer, sizeof(buffer))}),
              (Results{2, 5, -1, EINVAL, 5, 1, 5, 0, 1, 1, 2, 1, 0, 7}));
    EXPECT_FALSE(file.getLastErrorMessage().empty());
    EXPECT_EQ(std::string(buffer, 7), "hello!!");
    // A file appended to itself is doubled, also past one copy buffer; a seek the result cannot
    // express leaves the position alone.
    std::vector<char> big(100000), back(200000);
    for (size_t i = 0; i < big.size(); ++i)
        big[i] = static_cast<char>(i % 251);
    EXPECT_EQ(
        (Results{file.truncate(0), file.seek(0, HXLFmFile::eSeekBegin),
                 file.write(big.data(), 100000), file.append(file),
                 file.seek(INT_MAX, HXLFmFile::eSeekBegin), file.seek(10, HXLFmFile::eSeekCurrent),
                 file.seek(0, HXLFmFile::eSeekCurrent), file.seek(0, HXLFmFile::eSeekBegin),
                 file.read(back.data(), 200000), file.close(), other.close()}),
        (Results{1, 0, 100000, 1, INT_MAX, -1, INT_MAX, 0, 200000, 1, 1}));
    EXPECT_TRUE(std::equal(big.begin(), big.end(), back.begin()) &&
                std::equal(big.begin(), big.end(), back.begin() + 100000));
    // Errors on names: an existing file with eCreateNew, a missing one, a null path; standard
    // streams are not closed underneath.
    EXPECT_EQ(
        (Results{other.open(second.c_str(), HXLFmFile::eCreateNew, 0), other.getLastErrorNumber(),
                 other.open("/no/such/dir/file", HXLFmFile::eOpenExisting, 0),
                 other.getLastErrorNumber(),
                 other.open(static_cast<const char*>(nullptr), HXLFmFile::eOpenReadOnly, 0),
                 other.read(buffer, 1), out.open(HXLFmFile::eStdErr), out.close()}),
        (Results{0, EEXIST, 0, ENOENT, 0, -1, 1, 1}));
    ::unlink(name);
    ::unlink(second.c_str());
}
