#ifndef HXLVIRTUALFILE_H
#define HXLVIRTUALFILE_H

#include "HXLCore.h"
#include "HXLExport.h"
#include "HXLVirtualPageItem.h"
#include "ZOJStreams.h"

#include <vector>

class HXLVirtualMemoryMgr;

/// @ingroup file
/// @brief A byte stream kept in pages of the store instead of on a disk.
///
/// Each page is one block of the page size, allocated on first touch; the table of pages, the
/// position and the length live in this object, so the content is reachable only through it and
/// ends with it.
///
/// One position serves reading and writing. At most one page is mapped at a time, with one
/// reference held on it: a transfer that stops inside a page keeps that page mapped for the next
/// one. Positions and the length are unsigned 32-bit byte counts. seek takes every value and wraps
/// at 32 bits; a transfer never moves the position past 0xFFFFFFFE, so it never wraps onto the
/// start of the file.
///
/// Errors of transfers (read, write, writeImpl) follow the base class: a transfer that cannot start
/// returns -1 and records the error number (getLastErrorNumber), having touched no byte, neither
/// the caller's nor the file's, and changed nothing:
///
/// - EBADF: the file has no store (not opened, or opened with a null store);
/// - EINVAL: a count above 0x7FFFFFFF;
/// - EFBIG: a write at position 0xFFFFFFFE or beyond, where no byte fits any more.
///
/// A transfer that the end of the position range cuts short (it moves bytes up to 0xFFFFFFFE and
/// returns their count) records EFBIG as well, on the compressed path too, where write has already
/// returned the full count: check getLastErrorNumber after close. A count of 0 returns 0 before any
/// of these tests. A page the store cannot give, because it cannot be allocated or cannot be
/// brought back into memory, raises HXLOutOfMemoryError; what was transferred before stays
/// transferred, the position and the length stand behind the last whole piece, and no page is left
/// mapped. getLength and seek need no store.
///
/// Opened with compression, write() deflates into successive gzip members (one from the first write
/// after a close() up to the next close()); read() gives the stored, compressed bytes.
///
/// The file never frees a block: an owned manager takes them with it, a borrowed manager keeps them
/// until it ends. One thread at a time.
///
/// References: the caller holds none. The file holds at most one, on the page at the position, from
/// a transfer that stops inside that page until the position leaves it, close or reset.
///
/// Paging: every page but that one may leave memory between calls.
///
/// Exceptions: read, write, close and reset throw HXLOutOfMemoryError when a page cannot be
/// allocated or brought back into memory; write, close and reset also pass on what the compressor
/// throws; open with a budget throws HXLOutOfMemoryError when the store cannot be made. The
/// operations inherited from HXLFmFile report failures by their results; the destructor lets
/// nothing out.
class HXL_EXPORT HXLVirtualFile : public HXLFmFile {
public:
    /// The sink through which the compressor hands its output to the file's writeImpl.
    ///
    /// It lives inside its file and is bound to it by the open() that asks for compression.
    class HXLVirtualFileOuputStream : public ZOJOutputStream {
    public:
        /// Bound to no file.
        HXLVirtualFileOuputStream();
        /// Unbinds; owns nothing.
        ~HXLVirtualFileOuputStream() override;
        /// Not copyable: the sink is bound to one file.
        HXLVirtualFileOuputStream(const HXLVirtualFileOuputStream&) = delete;
        /// Not assignable: the sink is bound to one file.
        HXLVirtualFileOuputStream& operator=(const HXLVirtualFileOuputStream&) = delete;

        /// Binds to the file that receives the bytes (not owned).
        void init(HXLVirtualFile& file);
        /// Stores the bytes through the bound file's writeImpl at its position.
        ///
        /// Only the low 32 bits of `count` are used. Throws HXLAssertError
        /// ("HXL_ASSERT(m_vfileIo);") when not bound, and HXLOutOfMemoryError as writeImpl.
        void write(const char* data, unsigned long long count) override;
        /// Does nothing: the bytes are stored already.
        void flush() override;
        /// Does nothing: the file ends the stream.
        void close() override;

    private:
        HXLVirtualFile* m_vfileIo;
    };

    /// Not open: no store, no pages, page size 8192.
    HXLVirtualFile();
    /// Ends a running compressor and the mapping; deletes the manager if the file made it. Lets no
    /// exception out. Blocks of a borrowed manager stay in its store.
    ~HXLVirtualFile() override;

    /// Copies up to `count` bytes from the position on into `buffer` and moves the position by as
    /// many. Returns the bytes copied: fewer than `count` only at the end of the data (or at
    /// 0xFFFFFFFE), 0 there; -1 when refused (see above). Pages in a gap left by a seek get their
    /// blocks here, with whatever bytes a fresh block holds. Throws HXLOutOfMemoryError when a page
    /// cannot be had.
    int read(void* buffer, unsigned int count) override;
    /// Without compression: stores `count` bytes at the position, moves it and lengthens the file
    /// as needed; returns the low 32 bits of writeImpl's result. With compression: hands the bytes
    /// to the running compressor (made here if there is none) and returns `count`, however much of
    /// it has reached the pages yet. -1 when refused (see above), before the compressor or
    /// writeImpl sees the bytes. Throws HXLOutOfMemoryError when a page cannot be had.
    int write(const void* data, unsigned int count) override;
    /// Moves the position to `offset` from the start (origin 0 or any value other than 1 and 2),
    /// from the position (1) or from the length (2), wrapping at 32 bits. A position past the end
    /// lengthens the file at once without making pages. Returns the position as int.
    int seek(int offset, HXLFmFile::seekorigin origin) override;
    /// Gives back the mapped page, then finishes a running compressor: its last bytes are stored at
    /// the position as a write stores them, and the page they end in may stay mapped. Nothing else
    /// changes and the file stays usable. Returns 1; when finishing throws, the exception leaves
    /// and the compressor is kept for the next close.
    int close() override;
    /// The length in bytes, as int.
    int getLength() override;

    // The base's path and standard-stream forms, which do not apply to a virtual file.
    using HXLFmFile::open;

    /// Opens the file in `store`, borrowed.
    ///
    /// Works in `store` (borrowed; must outlive the file) with pages of `pageSize` bytes (0 means
    /// 8192). `unused` has no effect. Compression is turned on by `compress` and can't be turned
    /// off. Position, length and table are left as they are; call it once.
    virtual void open(HXLVirtualMemoryMgr* store, unsigned int unused, unsigned int pageSize,
                      bool compress);
    /// Opens the file in a store of its own.
    ///
    /// As the form with a borrowed store, in a store that the file makes with a resident budget of
    /// `storeSize` bytes (0 means the manager's default) and deletes with itself. Throws
    /// HXLOutOfMemoryError when the store cannot be made.
    virtual void open(unsigned int storeSize, unsigned int unused, unsigned int pageSize,
                      bool compress);
    /// Closes the file, then empties it: position and length 0.
    ///
    /// With `disposePages` the table of pages is given up too and later writes take new blocks;
    /// without, the old blocks are written over again. No mapping is left behind.
    virtual void reset(bool disposePages);
    /// Forgets the table of pages without freeing or dismissing anything.
    ///
    /// Use reset(true) unless no page is mapped.
    virtual void dispose();

protected:
    /// Stores `count` (at most 0x7FFFFFFF) bytes at the position, page by page.
    ///
    /// It moves the position and lengthens the file behind each page's piece. Every stored byte,
    /// plain or compressed, comes through here. Returns `count`, or fewer when the position reaches
    /// 0xFFFFFFFE; -1 widened to 64 bits when refused (see above). Throws HXLOutOfMemoryError when
    /// a page cannot be had.
    virtual unsigned long long writeImpl(const void* data, unsigned int count);

private:
    // The table entry of the page that holds byte `position`; the table grows to reach it.
    // Good until the table next grows.
    HXLVirtualPageItem& getPage(unsigned int position);
    HXLVirtualPageItem& getCurrentPage();
    // The mapping of the page at the position; maps it, allocating its block on first touch,
    // when nothing is mapped. Throws HXLOutOfMemoryError, leaving nothing mapped, when the
    // store gives no address.
    char* getCurrentBuffer();
    // The page walk of read (`in` null) and writeImpl (`out` null): up to `count` bytes between
    // the position and `end`, page by page, moving the position (and the length behind it).
    // Records EFBIG when the end of the position range cuts it short. Returns the bytes moved.
    unsigned int transfer(const char* in, char* out, unsigned int count, unsigned int end);
    // -1, with the error number recorded, when a transfer of `count` (> 0) bytes cannot
    // start; else 0.
    int refuseTransfer(unsigned int count);
    // Gives back the mapped page, which holds byte `position` (0xFFFFFFFF: the position).
    void dismissBuffer(unsigned int position);
    bool inSamePage(unsigned int a, unsigned int b) const;

    HXLVirtualFileOuputStream m_outputStream;
    ZOJGZIPOutputStream* m_gzipStream;       // owned; runs from a compressed write to close()
    bool m_compress;                         // set by open(..., true), never cleared
    std::vector<HXLVirtualPageItem> m_pages; // entry i is page i; blank: no block yet
    HXLVirtualMemoryMgr* m_memoryMgr;        // owned only if m_ownsMemoryMgr
    unsigned int m_position;                 // bytes; never above m_length
    unsigned int m_length;                   // bytes
    unsigned int m_pageSize;                 // bytes per page, never 0
    char* m_currentBuffer;                   // mapping of the page at m_position, or null
    bool m_ownsMemoryMgr;                    // set by the open() that makes the manager
};

#endif
