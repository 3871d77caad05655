// The compressed write path: what reaches the pages is gzip that inflates to what was written.
#include "HXLVirtualFile.h"
#include "file_test_util.h"

#include <cstdio>
#include <fstream>
#include <stdexcept>

namespace {

const unsigned int kPage = 1000;

// Records every byte that reaches writeImpl, and can be made to fail there.
struct RecordingFile : HXLVirtualFile {
    std::string stored;
    bool fail = false;
    unsigned long long writeImpl(const void* data, unsigned int count) override {
        if (fail)
            throw std::runtime_error("disk full");
        stored.append(static_cast<const char*>(data), count);
        return HXLVirtualFile::writeImpl(data, count);
    }
};

std::string readAll(HXLVirtualFile& file) {
    std::string out(static_cast<size_t>(file.getLength()), '\0');
    file.seek(0, HXLFmFile::eSeekBegin);
    EXPECT_EQ(file.read(&out[0], static_cast<unsigned int>(out.size())), file.getLength());
    return out;
}

} // namespace

TEST(CompressedFile, MembersInflateToWhatWasWrittenAndResetOrDestructionEndsThem) {
    HXLVirtualMemoryMgr store(32 * 1024, 0, 64);
    const std::string first = sample(300000, 1), second = sample(5000, 2);
    {
        HXLVirtualFile borrowing, owning, neverOpened; // the owning one deletes its store
        borrowing.open(&store, 0, kPage, true);
        owning.open(16 * 1024u, 0, kPage, true);
        borrowing.write(first.data(), 20000);
        owning.write(first.data(), 20000);
    }
    EXPECT_EQ(outstandingReferences(store), 0) << "destruction with a compressor running";
    RecordingFile file;
    file.open(&store, 0, kPage, true);
    EXPECT_EQ(file.close(), 1) << "no write, no compressor";
    EXPECT_EQ(file.getLength(), 0);
    EXPECT_EQ(file.write(first.data(), 100000), 100000);
    EXPECT_EQ(file.write(first.data() + 100000, 200000), 200000);
    file.close();
    // Behind a close the next write starts a new member where the position stands; an empty
    // write makes one too, and a finish that fails keeps its compressor for the next close.
    EXPECT_EQ(file.write(second.data(), 5000), 5000);
    file.close();
    const size_t twoMembers = file.stored.size();
    EXPECT_EQ(file.write(nullptr, 0), 0);
    file.fail = true;
    EXPECT_THROW(file.close(), std::runtime_error);
    file.fail = false;
    EXPECT_EQ(file.close(), 1);
    const std::string stored = readAll(file);
    EXPECT_GE(stored.size(), twoMembers + 18) << "an empty member has header and trailer";
    EXPECT_EQ(gunzip(stored), first + second);

    // And the gzip program reads the same.
    const std::string path = testing::TempDir() + "hxl_file_compress";
    std::ofstream(path + ".gz", std::ios::binary) << stored;
    std::ofstream(path, std::ios::binary) << first + second;
    EXPECT_EQ(std::system(("gzip -dc < " + path + ".gz | cmp -s - " + path).c_str()), 0);
    std::remove((path + ".gz").c_str());
    std::remove(path.c_str());

    // A reset with a compressor running finishes its member before the length goes to 0.
    for (bool disposePages : {false, true}) {
        file.stored.clear();
        file.write(first.data(), 20000);
        file.reset(disposePages);
        EXPECT_EQ(file.getLength(), 0);
        EXPECT_EQ(outstandingReferences(store), 0);
        ASSERT_EQ(gunzip(file.stored), first.substr(0, 20000));
        file.write("again", 5); // a fresh member from position 0
        file.close();
        EXPECT_EQ(gunzip(readAll(file)), "again");
    }
}
