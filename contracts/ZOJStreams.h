/// @file
/// @ingroup contracts
/// @brief Output streams: an abstract byte sink and a gzip compressor that feeds another sink.
#ifndef ZOJSTREAMS_H
#define ZOJSTREAMS_H

#include "HXLExport.h"

/// @ingroup contracts
/// @brief A sink of bytes. Derived classes implement write; flush and close do nothing here.
///
/// Everything here is defined inline, so that its table of virtual functions and its type
/// information come with every class derived from it: a user of the compressor needs nothing
/// of the streams library but ZOJGZIPOutputStream's constructor.
///
/// Exceptions: whatever the derived class's operations throw.
class HXL_EXPORT ZOJOutputStream {
public:
    /// Ends the sink; a derived class releases what it holds.
    virtual ~ZOJOutputStream() {}
    /// Takes `count` bytes at `data`.
    virtual void write(const char* data, unsigned long long count) = 0;
    /// Passes on what is held back; does nothing here.
    virtual void flush() {}
    /// Ends the stream; does nothing here.
    virtual void close() {}
};

/// @ingroup contracts
/// @brief Deflates what it is given into one gzip member (RFC 1952) per life, from the first
/// write to finish().
///
/// It passes the compressed bytes to the chained stream in pieces below 0x80000000 bytes. It
/// never owns or deletes the chained stream and never calls its flush or close.
///
/// Exceptions: standard ones only. Construction throws std::bad_alloc or std::runtime_error
/// when zlib cannot start; write, flush and finish throw std::logic_error without a chained
/// stream, std::runtime_error when zlib fails, and pass on what the chained stream throws.
class HXL_EXPORT ZOJGZIPOutputStream : public ZOJOutputStream {
public:
    /// The zlib level used when none is given: 6, zlib's own default.
    static constexpr int kDefaultLevel = 6;

    /// Compresses at kDefaultLevel.
    ZOJGZIPOutputStream();
    /// Compresses at `level`, 0 (store) to 9 (best); other values throw std::invalid_argument.
    explicit ZOJGZIPOutputStream(int level);
    /// Releases the compressor. Bytes not finished are dropped: call finish() first.
    ~ZOJGZIPOutputStream() override;
    /// Not copyable: the stream owns its compressor.
    ZOJGZIPOutputStream(const ZOJGZIPOutputStream&) = delete;
    /// Not assignable: the stream owns its compressor.
    ZOJGZIPOutputStream& operator=(const ZOJGZIPOutputStream&) = delete;

    /// Compresses `count` bytes (0 allowed); may pass compressed bytes on or hold them back.
    /// Throws std::logic_error without a chained stream or after finish(). When the chained
    /// stream throws, the exception passes out and the part of `data` not yet compressed is
    /// dropped: the stream never reads the caller's bytes after write returns.
    void write(const char* data, unsigned long long count) override;
    /// Passes on everything compressed so far (a zlib sync flush); the member goes on.
    void flush() override;
    /// Ends the member, as finish() does.
    void close() override;

    /// Chains the stream that receives the compressed bytes (not owned).
    virtual void setOutputStream(ZOJOutputStream* stream);
    /// The chained stream, or null.
    virtual ZOJOutputStream* getOutputStream() const;
    /// Ends the member: passes on the last compressed bytes and the gzip trailer. Later calls
    /// do nothing. Throws std::logic_error without a chained stream.
    virtual void finish();

private:
    struct State;
    State* m_state;
};

#endif
