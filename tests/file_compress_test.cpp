// The compressed write path: what reaches the pages is gzip that inflates to what was written.
#include "HXLVirtualFile.h"
#include "HXLVirtualMemoryMgr.h"
#include "file_test_util.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace {

const unsigned int kPage = 1000;

// Records every byte that reaches writeImpl, and can be made to fail there.
class RecordingFile : public HXLVirtualFile {
public:
    std::string stored;
    bool fail = false;

protected:
    unsigned long long writeImpl(const void* data, unsigned int count) override {
        if (fail)
            throw std::runtime_error("disk full");
        stored.append(static_cast<const char*>(data), count);
        return HXLVirtualFile::writeImpl(data, count);
    }
};

std::string sample(size_t size, unsigned seed) {
    std::mt19937 rng(seed);
    std::string s;
    while (s.size() < size)
        s += rng() % 4 == 0 ? std::string(1, static_cast<char>(rng()))
                            : "page " + std::to_string(rng() % 1000) + " of the store; ";
    s.resize(size);
    return s;
}

// All stored bytes, read from the start.
std::string readAll(HXLVirtualFile& file) {
    std::string out(static_cast<size_t>(file.getLength()), '\0');
    file.seek(0, HXLFmFile::eSeekBegin);
    EXPECT_EQ(file.read(&out[0], static_cast<unsigned int>(out.size())),
              static_cast<int>(out.size()));
    return out;
}

class CompressedFile : public testing::Test {
protected:
    LeakCheckOn leakCheck;
    HXLVirtualMemoryMgr store{32 * 1024, 0, 64};
};

} // namespace

TEST_F(CompressedFile, MembersInflateToWhatWasWritten) {
    RecordingFile file;
    file.open(&store, 0, kPage, true);
    EXPECT_EQ(file.close(), 1) << "no write, no compressor";
    EXPECT_EQ(file.getLength(), 0);

    const std::string first = sample(300000, 1);
    for (size_t at = 0; at < first.size(); at += 7001) {
        const unsigned int n = static_cast<unsigned int>(std::min<size_t>(7001, first.size() - at));
        ASSERT_EQ(file.write(first.data() + at, n), static_cast<int>(n));
    }
    EXPECT_LT(file.getLength(), static_cast<int>(first.size()));
    file.close();
    const unsigned int oneMember = static_cast<unsigned int>(file.getLength());
    EXPECT_EQ(file.stored.size(), oneMember);
    // The last bytes of finish stay mapped unless they ended at a page's end.
    EXPECT_EQ(outstandingReferences(store), oneMember % kPage != 0 ? 1 : 0);
    std::string stored = readAll(file);
    EXPECT_EQ(stored, file.stored) << "read gives the compressed bytes";
    EXPECT_EQ(gunzip(stored), first);

    // Behind a close the next write starts a new member where the position stands.
    const std::string second = sample(5000, 2);
    EXPECT_EQ(file.write(second.data(), 5000), 5000);
    file.close();
    EXPECT_EQ(file.write(nullptr, 0), 0) << "an empty write still makes a member";
    file.close();
    stored = readAll(file);
    EXPECT_GT(stored.size(), oneMember + 18 + 18);
    EXPECT_EQ(gunzip(stored), first + second);
    EXPECT_EQ(outstandingReferences(store), stored.size() % kPage != 0 ? 1 : 0)
        << "the read stopped inside the last page, or at its end";

    // And the gzip program reads the same.
    char path[] = "/tmp/hxl_file_compress_XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::write(fd, stored.data(), stored.size()), static_cast<ssize_t>(stored.size()));
    ::close(fd);
    const std::string out = std::string(path) + ".out";
    ASSERT_EQ(std::system(("gzip -dc < " + std::string(path) + " > " + out).c_str()), 0);
    std::ifstream in(out, std::ios::binary);
    std::stringstream inflated;
    inflated << in.rdbuf();
    EXPECT_EQ(inflated.str(), first + second);
    std::remove(path);
    std::remove(out.c_str());
}

TEST_F(CompressedFile, ResetWithACompressorRunningStoresItsLastBytesAndUnmaps) {
    const std::string data = sample(20000, 3);
    for (bool disposePages : {false, true}) {
        RecordingFile file;
        file.open(&store, 0, kPage, true);
        file.write(data.data(), static_cast<unsigned int>(data.size()));
        file.reset(disposePages);
        EXPECT_EQ(file.getLength(), 0);
        EXPECT_EQ(file.seek(0, HXLFmFile::eSeekCurrent), 0);
        EXPECT_EQ(outstandingReferences(store), 0);
        ASSERT_EQ(gunzip(file.stored), data) << "the member was finished before the reset";
        if (!disposePages) { // the kept blocks still hold the member
            file.seek(static_cast<int>(file.stored.size()), HXLFmFile::eSeekBegin);
            EXPECT_EQ(readAll(file), file.stored);
            file.reset(false);
        }
        // The file is usable again: a fresh member from position 0.
        file.stored.clear();
        file.write("again", 5);
        file.close();
        EXPECT_EQ(gunzip(readAll(file)), "again");
    }
    EXPECT_EQ(outstandingReferences(store), 0);
}

TEST_F(CompressedFile, DestructionWithACompressorRunningLeavesNoReference) {
    const std::string data = sample(50000, 4);
    {
        HXLVirtualFile file;
        file.open(&store, 0, kPage, true);
        file.write(data.data(), static_cast<unsigned int>(data.size()));
    }
    EXPECT_EQ(outstandingReferences(store), 0);
    {
        HXLVirtualFile owning; // with a store of its own, which it deletes
        const unsigned int storeSize = 16 * 1024;
        owning.open(storeSize, 0, kPage, true);
        owning.write(data.data(), static_cast<unsigned int>(data.size()));
    }
}

TEST_F(CompressedFile, FailuresOnTheWayToThePages) {
    // A close whose last bytes can't be stored throws and keeps the compressor for a retry.
    RecordingFile file;
    file.open(&store, 0, kPage, true);
    const std::string data = sample(10000, 5);
    file.write(data.data(), static_cast<unsigned int>(data.size()));
    file.fail = true;
    EXPECT_THROW(file.close(), std::runtime_error);
    file.fail = false;
    EXPECT_EQ(file.close(), 1);
    EXPECT_EQ(gunzip(readAll(file)), data);

    // The sink of an unopened file is not bound.
    HXLVirtualFile::HXLVirtualFileOuputStream sink;
    try {
        sink.write("x", 1);
        ADD_FAILURE() << "no exception";
    } catch (const HXLAssertError& e) {
        EXPECT_STREQ(e.what(), "HXL_ASSERT(m_vfileIo);");
        ASSERT_FALSE(e.getBackTrace().empty());
        EXPECT_EQ(e.getBackTrace().front().function, "HXLVirtualFile");
    }
}
