// The paged file against a model: a byte vector, a position, a length and the one page that
// the mapping rule says is mapped.
#include "HXLVirtualFile.h"
#include "HXLVirtualMemoryMgr.h"
#include "file_test_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

// Bytes that were never written hold whatever a fresh block held: `known` is false for them
// until a read shows their value, which must stay the same from then on.
struct Model {
    std::vector<char> bytes;
    std::vector<bool> known;
    unsigned int position = 0;
    unsigned int length = 0;
    long mappedPage = -1; // -1: nothing mapped

    void reach(size_t end) {
        if (bytes.size() < end) {
            bytes.resize(end);
            known.resize(end, false);
        }
    }
};

unsigned long long pageOuts(HXLVirtualMemoryMgr& store) {
    std::ostringstream report;
    store.dumpMapper(report, HXLVirtualMemoryMgr::eDumpStats);
    const std::string text = report.str();
    const size_t at = text.find("Page Outs: ");
    return at == std::string::npos ? 0 : std::stoull(text.substr(at + 11));
}

void runModel(unsigned int pageSize, unsigned int seed) {
    SCOPED_TRACE(testing::Message() << "page size " << pageSize << ", seed " << seed);
    LeakCheckOn leakCheck;
    HXLVirtualMemoryMgr store(64 * 1024, 0, 64); // far less than the file grows to
    std::mt19937 rng(seed);
    const unsigned int limit = 400 * 1024;
    Model m;
    {
        HXLVirtualFile file;
        file.open(&store, 0, pageSize, false);
        std::vector<char> buffer;
        for (int step = 0; step < 3000; ++step) {
            const unsigned int op = rng() % 100;
            if (op < 35) { // write, mostly near the end so the file grows
                unsigned int n = rng() % (3 * pageSize);
                n = std::min(n, limit - std::min(limit, m.position));
                buffer.resize(n);
                for (char& c : buffer)
                    c = static_cast<char>(rng());
                ASSERT_EQ(file.write(buffer.data(), n), static_cast<int>(n));
                m.reach(m.position + n);
                std::copy(buffer.begin(), buffer.end(), m.bytes.begin() + m.position);
                std::fill(m.known.begin() + m.position, m.known.begin() + m.position + n, true);
                m.position += n;
                m.length = std::max(m.length, m.position);
                if (n > 0)
                    m.mappedPage =
                        m.position % pageSize == 0 ? -1L : static_cast<long>(m.position / pageSize);
            } else if (op < 65) { // read
                const unsigned int n = rng() % (3 * pageSize);
                const unsigned int expected = std::min(n, m.length - m.position);
                buffer.assign(n, 0);
                ASSERT_EQ(file.read(buffer.data(), n), static_cast<int>(expected));
                m.reach(m.position + expected);
                for (unsigned int i = 0; i < expected; ++i) {
                    const unsigned int at = m.position + i;
                    if (m.known[at]) {
                        ASSERT_EQ(buffer[i], m.bytes[at]) << "byte " << at;
                    }
                    m.bytes[at] = buffer[i];
                    m.known[at] = true;
                }
                m.position += expected;
                if (expected > 0)
                    m.mappedPage =
                        m.position % pageSize == 0 ? -1L : static_cast<long>(m.position / pageSize);
            } else if (op < 90) { // seek by every origin, past the end too
                const unsigned int target =
                    std::min<unsigned int>(rng() % (m.length + 2 * pageSize + 1), limit);
                int origin = static_cast<int>(rng() % 4);
                int offset = static_cast<int>(target);
                if (origin == 1)
                    offset = static_cast<int>(target - m.position);
                else if (origin == 2)
                    offset = static_cast<int>(target - m.length);
                else if (origin == 3)
                    origin = 7; // unknown origins count from the start
                ASSERT_EQ(file.seek(offset, static_cast<HXLFmFile::seekorigin>(origin)),
                          static_cast<int>(target));
                if (m.position / pageSize != target / pageSize)
                    m.mappedPage = -1;
                m.position = target;
                m.length = std::max(m.length, target);
            } else if (op < 95) {
                ASSERT_EQ(file.close(), 1);
                m.mappedPage = -1;
            } else {
                const bool disposePages = rng() % 2 == 0;
                file.reset(disposePages);
                m.position = m.length = 0;
                m.mappedPage = -1;
                if (disposePages) // new blocks from here on
                    std::fill(m.known.begin(), m.known.end(), false);
            }
            ASSERT_EQ(file.getLength(), static_cast<int>(m.length)) << "step " << step;
            ASSERT_EQ(file.seek(0, HXLFmFile::eSeekCurrent), static_cast<int>(m.position));
            ASSERT_EQ(outstandingReferences(store), m.mappedPage >= 0 ? 1 : 0) << "step " << step;
        }
        // The whole content once more, from the start.
        file.seek(0, HXLFmFile::eSeekBegin);
        buffer.assign(m.length, 0);
        ASSERT_EQ(file.read(buffer.data(), m.length), static_cast<int>(m.length));
        for (unsigned int i = 0; i < m.length; ++i) {
            if (m.known[i]) {
                ASSERT_EQ(buffer[i], m.bytes[i]) << "byte " << i;
            }
        }
    }
    EXPECT_EQ(outstandingReferences(store), 0) << "the destructor gives the mapping back";
    EXPECT_GT(pageOuts(store), 0u) << "pages should have left memory";
}

} // namespace

TEST(HXLVirtualFileModel, RandomOperationsAgreeWithTheModel) {
    for (unsigned int pageSize : {777u, 1000u, 4097u, 12289u})
        for (unsigned int seed : {1u, 2u})
            runModel(pageSize, seed);
}

TEST(HXLVirtualFile, FarSeeksWrapAt32BitsAndCostNoPages) {
    LeakCheckOn leakCheck;
    HXLVirtualMemoryMgr store(0, 0, 64);
    HXLVirtualFile file;
    file.open(&store, 0, 1000, false);
    file.write("abcdefghij", 10);
    EXPECT_EQ(outstandingReferences(store), 1) << "the write stopped inside page 0";
    EXPECT_EQ(file.seek(-4, HXLFmFile::eSeekEnd), 6);
    EXPECT_EQ(outstandingReferences(store), 1) << "still page 0";
    EXPECT_EQ(file.seek(0x7FFFFFFF, HXLFmFile::eSeekBegin), 0x7FFFFFFF);
    EXPECT_EQ(outstandingReferences(store), 0) << "left the page";
    EXPECT_EQ(file.seek(2, HXLFmFile::eSeekCurrent), static_cast<int>(0x80000001u));
    EXPECT_EQ(file.getLength(), static_cast<int>(0x80000001u));
    // 0x80000001 - 0x80000000 wraps back to 1.
    EXPECT_EQ(file.seek(static_cast<int>(0x80000000u), HXLFmFile::eSeekCurrent), 1);
    char c = 0;
    EXPECT_EQ(file.read(&c, 1), 1);
    EXPECT_EQ(c, 'b');
    file.reset(true);
    EXPECT_EQ(file.getLength(), 0);
    EXPECT_EQ(outstandingReferences(store), 0);
}

TEST(HXLVirtualFile, OwnedStoreAndUnopenedFileEndCleanly) {
    { HXLVirtualFile neverOpened; }
    HXLVirtualFile file;
    const unsigned int defaultStore = 0;
    file.open(defaultStore, 0, 8192, false);
    std::vector<char> data(8192 * 2 + 4096, 'x');
    EXPECT_EQ(file.write(data.data(), static_cast<unsigned int>(data.size())),
              static_cast<int>(data.size()));
    EXPECT_EQ(file.getLength(), static_cast<int>(data.size()));
    // The third page stays mapped; the destructor gives it back and deletes the store.
}

TEST(HXLVirtualFile, AFailedPageLeavesTheFileTrueToWhatWasStored) {
    LeakCheckOn leakCheck;
    // A temporary directory that is gone once the store is made: the first page-out fails, and
    // with it the allocation of the page that needed the room.
    char dir[] = "/tmp/hxl-file-gone-XXXXXX";
    ASSERT_NE(::mkdtemp(dir), nullptr);
    const char* saved = std::getenv("TMPDIR");
    const std::string restore = saved ? saved : "";
    ::setenv("TMPDIR", dir, 1);
    HXLVirtualMemoryMgr store(64 * 1024, 0, 64);
    if (saved)
        ::setenv("TMPDIR", restore.c_str(), 1);
    else
        ::unsetenv("TMPDIR");
    ::rmdir(dir);

    const unsigned int page = 5000;
    std::vector<char> data(page * 40);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<char>(i * 7 + i / page);
    HXLVirtualFile file;
    file.open(&store, 0, page, false);
    EXPECT_THROW(file.write(data.data(), static_cast<unsigned int>(data.size())),
                 HXLOutOfMemoryError);
    const int length = file.getLength();
    EXPECT_GT(length, 0);
    EXPECT_LT(length, static_cast<int>(data.size()));
    EXPECT_EQ(length % page, 0u) << "the length stands behind the last whole piece";
    EXPECT_EQ(file.seek(0, HXLFmFile::eSeekCurrent), length);
    EXPECT_EQ(outstandingReferences(store), 0) << "nothing is left mapped";
    std::vector<char> back(static_cast<size_t>(length));
    file.seek(0, HXLFmFile::eSeekBegin);
    ASSERT_EQ(file.read(back.data(), static_cast<unsigned int>(length)), length);
    EXPECT_TRUE(std::equal(back.begin(), back.end(), data.begin()));
}
