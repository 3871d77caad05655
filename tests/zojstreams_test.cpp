#include "ZOJStreams.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

// Keeps every piece it is given; can be told to throw on the next write.
class Sink : public ZOJOutputStream {
public:
    void write(const char* data, unsigned long long count) override {
        if (failNext) {
            failNext = false;
            throw std::runtime_error("sink full");
        }
        EXPECT_GT(count, 0u);
        EXPECT_LT(count, 0x80000000ULL);
        pieces.push_back(count);
        bytes.append(data, count);
    }
    void flush() override { ++flushes; }
    void close() override { ++closes; }

    std::string bytes;
    std::vector<unsigned long long> pieces;
    int flushes = 0;
    int closes = 0;
    bool failNext = false;
};

// Inflates every gzip member in `gz` one behind the other; fails the test on damaged input.
std::string gunzip(const std::string& gz, bool allowTruncated = false) {
    std::string out;
    z_stream zs{};
    EXPECT_EQ(inflateInit2(&zs, 15 + 16), Z_OK);
    zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(gz.data()));
    zs.avail_in = static_cast<uInt>(gz.size());
    char buffer[4096];
    for (;;) {
        zs.next_out = reinterpret_cast<Bytef*>(buffer);
        zs.avail_out = sizeof(buffer);
        const int rc = inflate(&zs, Z_NO_FLUSH);
        out.append(buffer, sizeof(buffer) - zs.avail_out);
        if (rc == Z_STREAM_END) {
            if (zs.avail_in == 0)
                break;
            inflateReset(&zs);
            continue;
        }
        if (rc == Z_BUF_ERROR && zs.avail_in == 0 && allowTruncated)
            break;
        EXPECT_EQ(rc, Z_OK) << "damaged gzip stream";
        if (rc != Z_OK)
            break;
    }
    inflateEnd(&zs);
    return out;
}

// Compressible text with random stretches, so deflate has work of both kinds.
std::string sample(size_t size, unsigned seed) {
    std::mt19937 rng(seed);
    std::string s;
    while (s.size() < size) {
        if (rng() % 3 == 0) {
            for (int i = 0; i < 200; ++i)
                s.push_back(static_cast<char>(rng()));
        } else {
            s += "the quick brown fox jumps over the lazy dog " + std::to_string(rng() % 100);
        }
    }
    s.resize(size);
    return s;
}

} // namespace

TEST(ZOJGZIPOutputStream, RoundTripsAtEveryLevelInIrregularWrites) {
    const std::string input = sample(700000, 1);
    for (int level : {0, 1, 6, 9}) {
        Sink sink;
        {
            ZOJGZIPOutputStream gz(level);
            gz.setOutputStream(&sink);
            EXPECT_EQ(gz.getOutputStream(), &sink);
            std::mt19937 rng(level);
            size_t at = 0;
            while (at < input.size()) {
                size_t n = std::min<size_t>(rng() % 70000, input.size() - at);
                gz.write(input.data() + at, n); // n may be 0
                at += n;
            }
            gz.finish();
        }
        ASSERT_GE(sink.bytes.size(), 18u) << "level " << level;
        EXPECT_EQ(static_cast<unsigned char>(sink.bytes[0]), 0x1f);
        EXPECT_EQ(static_cast<unsigned char>(sink.bytes[1]), 0x8b);
        EXPECT_EQ(sink.bytes[2], 8) << "deflate method";
        EXPECT_EQ(gunzip(sink.bytes), input) << "level " << level;
        // The chained stream is the caller's: nobody flushed or closed it.
        EXPECT_EQ(sink.flushes + sink.closes, 0);
    }
}

TEST(ZOJGZIPOutputStream, EmptyMembersAndSeveralMembersInOneStream) {
    Sink sink;
    {
        ZOJGZIPOutputStream nothingWritten;
        nothingWritten.setOutputStream(&sink);
        nothingWritten.finish();
    }
    const size_t emptyMember = sink.bytes.size();
    EXPECT_GE(emptyMember, 18u) << "header and trailer even for no input";
    EXPECT_EQ(gunzip(sink.bytes), "");
    {
        ZOJGZIPOutputStream zeroWrite;
        zeroWrite.setOutputStream(&sink);
        zeroWrite.write("", 0);
        zeroWrite.close(); // close is finish
        zeroWrite.finish();
    }
    EXPECT_EQ(sink.bytes.size(), 2 * emptyMember) << "a second finish adds nothing";
    std::string expected;
    for (unsigned m = 0; m < 3; ++m) {
        ZOJGZIPOutputStream gz(static_cast<int>(m * 4));
        gz.setOutputStream(&sink);
        const std::string part = sample(5000 + m * 40000, m + 10);
        gz.write(part.data(), part.size());
        gz.finish();
        expected += part;
    }
    EXPECT_EQ(gunzip(sink.bytes), expected);
}

TEST(ZOJGZIPOutputStream, FlushPassesOnAPrefixThatInflates) {
    Sink sink;
    ZOJGZIPOutputStream gz;
    gz.setOutputStream(&sink);
    const std::string first = sample(3000, 2);
    gz.write(first.data(), first.size());
    gz.flush();
    EXPECT_EQ(gunzip(sink.bytes, true), first);
    const std::string second = sample(1000, 3);
    gz.write(second.data(), second.size());
    gz.finish();
    gz.flush(); // after finish: nothing
    EXPECT_EQ(gunzip(sink.bytes), first + second);
}

TEST(ZOJGZIPOutputStream, MisuseAndAFailingSink) {
    EXPECT_THROW(ZOJGZIPOutputStream(-1), std::invalid_argument);
    EXPECT_THROW(ZOJGZIPOutputStream(10), std::invalid_argument);

    ZOJGZIPOutputStream unchained;
    EXPECT_EQ(unchained.getOutputStream(), nullptr);
    EXPECT_THROW(unchained.write("x", 1), std::logic_error);
    EXPECT_THROW(unchained.finish(), std::logic_error);

    // A sink that throws loses nothing: the member is resumed by the next finish.
    Sink sink;
    ZOJGZIPOutputStream gz;
    gz.setOutputStream(&sink);
    const std::string input = sample(20000, 4);
    gz.write(input.data(), input.size());
    sink.failNext = true;
    EXPECT_THROW(gz.finish(), std::runtime_error);
    gz.finish();
    EXPECT_EQ(gunzip(sink.bytes), input);
    EXPECT_THROW(gz.write("x", 1), std::logic_error);

    // A sink that throws in the middle of a write: what deflate had not taken is dropped, and
    // the caller's buffer, reused after the throw, is not read by the finish.
    Sink midWrite;
    ZOJGZIPOutputStream gz2;
    gz2.setOutputStream(&midWrite);
    std::string noise(1 << 20, '\0');
    std::mt19937 rng(5);
    for (char& c : noise)
        c = static_cast<char>(rng());
    const std::string original = noise;
    midWrite.failNext = true;
    EXPECT_THROW(gz2.write(noise.data(), noise.size()), std::runtime_error);
    std::fill(noise.begin(), noise.end(), 'x');
    gz2.finish();
    const std::string out = gunzip(midWrite.bytes);
    EXPECT_LT(out.size(), original.size());
    EXPECT_EQ(out, original.substr(0, out.size()));
}
