// ZOJStreams on zlib: the gzip wrapper (RFC 1952) comes from deflate itself, with windowBits
// 15 + 16, so header, CRC-32 and length trailer are zlib's.
#include "ZOJStreams.h"

#include <zlib.h>

#include <cstring>
#include <new>
#include <stdexcept>

namespace {

// Compressed bytes are gathered here before they are passed on. 256 KiB keeps the calls into
// the chained stream few and stays far below the 0x80000000-byte limit of one piece.
const unsigned int kOutputBufferSize = 256 * 1024;

// The most input handed to deflate in one step: avail_in is a 32-bit uInt.
const unsigned long long kMaxInputStep = 1ULL << 30;

// 15: the largest window; +16: wrap the raw deflate data in a gzip header and trailer.
const int kGzipWindowBits = 15 + 16;
// zlib's default memory level (8) trades 256 KiB of state for speed.
const int kMemLevel = 8;

} // namespace

struct ZOJGZIPOutputStream::State {
    z_stream stream;
    ZOJOutputStream* chained;
    // buffer[0, pending) holds compressed bytes not yet passed on. They leave the buffer only
    // when the chained stream has taken them, so a chained write that throws loses nothing.
    unsigned char* buffer;
    unsigned int pending;
    bool finished;
};

ZOJGZIPOutputStream::ZOJGZIPOutputStream() : ZOJGZIPOutputStream(kDefaultLevel) {}

ZOJGZIPOutputStream::ZOJGZIPOutputStream(int level) : m_state(nullptr) {
    if (level < 0 || level > 9)
        throw std::invalid_argument("ZOJGZIPOutputStream: level must be 0 to 9");
    State* state = new State;
    std::memset(&state->stream, 0, sizeof(state->stream));
    state->chained = nullptr;
    state->pending = 0;
    state->finished = false;
    state->buffer = new (std::nothrow) unsigned char[kOutputBufferSize];
    if (state->buffer == nullptr) {
        delete state;
        throw std::bad_alloc();
    }
    const int rc = deflateInit2(&state->stream, level, Z_DEFLATED, kGzipWindowBits, kMemLevel,
                                Z_DEFAULT_STRATEGY);
    if (rc != Z_OK) {
        delete[] state->buffer;
        delete state;
        if (rc == Z_MEM_ERROR)
            throw std::bad_alloc();
        throw std::runtime_error("ZOJGZIPOutputStream: deflateInit2 failed");
    }
    m_state = state;
}

ZOJGZIPOutputStream::~ZOJGZIPOutputStream() {
    // The chained stream belongs to someone else: it is neither flushed, closed nor deleted.
    deflateEnd(&m_state->stream);
    delete[] m_state->buffer;
    delete m_state;
}

namespace {

// Passes the pending bytes on. They count as gone only once the chained write has returned.
void drain(ZOJOutputStream* chained, const unsigned char* buffer, unsigned int& pending) {
    if (pending == 0)
        return;
    chained->write(reinterpret_cast<const char*>(buffer), pending);
    pending = 0;
}

// Runs deflate with `mode` until it has taken all of its input (Z_NO_FLUSH), has flushed
// (Z_SYNC_FLUSH) or has written the trailer (Z_FINISH). The buffer is passed on whenever it is
// full; for the flushing modes also at the end, for Z_NO_FLUSH the rest waits.
void pump(z_stream& stream, ZOJOutputStream* chained, unsigned char* buffer, unsigned int& pending,
          int mode) {
    for (;;) {
        // A flush wants room for its marker in one go, else zlib repeats the marker.
        const unsigned int room = kOutputBufferSize - pending;
        if (room == 0 || (mode != Z_NO_FLUSH && room < 64))
            drain(chained, buffer, pending);
        stream.next_out = buffer + pending;
        stream.avail_out = kOutputBufferSize - pending;
        const int rc = deflate(&stream, mode);
        pending = kOutputBufferSize - stream.avail_out;
        if (rc == Z_STREAM_END)
            break;
        if (rc != Z_OK && rc != Z_BUF_ERROR)
            throw std::runtime_error("ZOJGZIPOutputStream: deflate failed");
        if (stream.avail_out != 0) {
            // Room left over: deflate has taken all input, or has completed the sync flush.
            // Only Z_FINISH must go on, up to Z_STREAM_END.
            if (mode != Z_FINISH)
                break;
            if (rc == Z_BUF_ERROR)
                throw std::runtime_error("ZOJGZIPOutputStream: deflate made no progress");
        }
    }
    if (mode != Z_NO_FLUSH)
        drain(chained, buffer, pending);
}

} // namespace

void ZOJGZIPOutputStream::write(const char* data, unsigned long long count) {
    State& s = *m_state;
    if (s.chained == nullptr)
        throw std::logic_error("ZOJGZIPOutputStream::write: no output stream");
    if (s.finished)
        throw std::logic_error("ZOJGZIPOutputStream::write: the member is finished");
    const unsigned char* next = reinterpret_cast<const unsigned char*>(data);
    try {
        while (count > 0) {
            const unsigned long long step = count < kMaxInputStep ? count : kMaxInputStep;
            // deflate reads through a non-const pointer but never writes to its input.
            s.stream.next_in = const_cast<unsigned char*>(next);
            s.stream.avail_in = static_cast<uInt>(step);
            pump(s.stream, s.chained, s.buffer, s.pending, Z_NO_FLUSH);
            next += step;
            count -= step;
        }
    } catch (...) {
        // The caller's buffer is not ours beyond this call: a later finish() must not read
        // it. Input that deflate has not taken yet is dropped with it.
        s.stream.next_in = nullptr;
        s.stream.avail_in = 0;
        throw;
    }
    s.stream.next_in = nullptr;
    s.stream.avail_in = 0;
}

void ZOJGZIPOutputStream::flush() {
    State& s = *m_state;
    if (s.chained == nullptr)
        throw std::logic_error("ZOJGZIPOutputStream::flush: no output stream");
    if (s.finished)
        return;
    pump(s.stream, s.chained, s.buffer, s.pending, Z_SYNC_FLUSH);
}

void ZOJGZIPOutputStream::close() {
    finish();
}

void ZOJGZIPOutputStream::setOutputStream(ZOJOutputStream* stream) {
    m_state->chained = stream;
}

ZOJOutputStream* ZOJGZIPOutputStream::getOutputStream() const {
    return m_state->chained;
}

void ZOJGZIPOutputStream::finish() {
    State& s = *m_state;
    if (s.finished)
        return;
    if (s.chained == nullptr)
        throw std::logic_error("ZOJGZIPOutputStream::finish: no output stream");
    // Should the chained stream throw, the member stays open and a later finish() resumes.
    pump(s.stream, s.chained, s.buffer, s.pending, Z_FINISH);
    s.finished = true;
}
