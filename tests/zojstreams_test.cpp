#include "ZOJStreams.h"
#include "file_test_util.h"

#include <stdexcept>
#include <utility>

namespace {

// Keeps the bytes it is given; can be told to throw once.
struct Sink : ZOJOutputStream {
    void write(const char* data, unsigned long long count) override {
        if (std::exchange(fail, false))
            throw std::runtime_error("sink full");
        EXPECT_TRUE(count > 0 && count < 0x80000000ULL) << count;
        bytes.append(data, count);
    }
    std::string bytes;
    bool fail = false;
};

} // namespace

// The round trips through a virtual file stand in file_compress_test.
TEST(ZOJGZIPOutputStream, ASinkFailingInsideAWriteLeavesAValidShorterMember) {
    // Random bytes don't deflate: the output buffer fills, and goes to the sink, long before
    // deflate has taken the whole write. What it had not taken yet is dropped, and the
    // caller's buffer, reused after the throw, is not read by the finish.
    const std::string input = sample(1 << 20, 1);
    std::string buffer = input;
    Sink sink;
    ZOJGZIPOutputStream gz;
    gz.setOutputStream(&sink);
    sink.fail = true;
    EXPECT_THROW(gz.write(buffer.data(), buffer.size()), std::runtime_error);
    buffer.assign(buffer.size(), 'x');
    gz.finish();
    const std::string out = gunzip(sink.bytes);
    EXPECT_LT(out.size(), input.size());
    EXPECT_EQ(out, input.substr(0, out.size()));
}
