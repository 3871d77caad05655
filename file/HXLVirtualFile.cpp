#include "HXLVirtualFile.h"

#include "HXLTranslated.h"
#include "HXLVirtualMemoryMgr.h"
#include "HXLVirtualReference.h"

#include <cerrno>
#include <cstring>
#include <new>

namespace {

const unsigned int kDefaultPageSize = 8192;
// Stands for "the present position" in dismissBuffer; it is never a valid position itself.
const unsigned int kCurrentPosition = 0xFFFFFFFF;
// The furthest a transfer moves the position: one short of the sentinel, so that it can neither
// become the sentinel nor wrap onto the start of the file.
const unsigned int kLastPosition = 0xFFFFFFFE;
// Results are ints, and the running total indexes the caller's buffer.
const unsigned int kMaxTransfer = 0x7FFFFFFF;
// What writeImpl gives back for a refused transfer: -1, widened with its sign as every result.
const unsigned long long kRefused = ~0ULL;
// The function name of the back-trace frames of this class.
const char kLocation[] = "HXLVirtualFile";

} // namespace

// ---------------------------------------------------------------------------------------------
// The compressor's sink
// ---------------------------------------------------------------------------------------------

HXLVirtualFile::HXLVirtualFileOuputStream::HXLVirtualFileOuputStream() : m_vfileIo(NULL) {}

HXLVirtualFile::HXLVirtualFileOuputStream::~HXLVirtualFileOuputStream() {
    m_vfileIo = NULL;
}

void HXLVirtualFile::HXLVirtualFileOuputStream::init(HXLVirtualFile& file) {
    m_vfileIo = &file;
}

void HXLVirtualFile::HXLVirtualFileOuputStream::write(const char* data, unsigned long long count) {
    // Spelled out rather than through HXL_ASSERT so that the frame names the file class.
    if (!m_vfileIo)
        HXL_THROW(HXLAssertError(0, "HXL_ASSERT(m_vfileIo);"), "HXLVirtualFile");
    // Through the virtual table: a derived file sees compressed bytes as it sees plain ones.
    m_vfileIo->writeImpl(data, static_cast<unsigned int>(count));
}

void HXLVirtualFile::HXLVirtualFileOuputStream::flush() {}

void HXLVirtualFile::HXLVirtualFileOuputStream::close() {}

// ---------------------------------------------------------------------------------------------
// The file
// ---------------------------------------------------------------------------------------------

HXLVirtualFile::HXLVirtualFile()
    : HXLFmFile(), m_outputStream(), m_gzipStream(NULL), m_compress(false), m_pages(),
      m_memoryMgr(NULL), m_position(0), m_length(0), m_pageSize(kDefaultPageSize),
      m_currentBuffer(NULL), m_ownsMemoryMgr(false) {}

HXLVirtualFile::~HXLVirtualFile() {
    try {
        if (m_currentBuffer)
            dismissBuffer(kCurrentPosition);
        // reset ends a running compressor and gives back the page its last bytes mapped.
        if (m_ownsMemoryMgr) {
            reset(false);
            HXLVirtualMemoryMgr* store = m_memoryMgr;
            m_memoryMgr = NULL; // before the delete: the clean-up below must not repeat it
            delete store;
        } else {
            reset(true);
        }
        m_memoryMgr = NULL;
    } catch (...) {
    }
    // Only when a step above threw (the compressor's last bytes could not be stored): end what
    // is left, so that neither the compressor, a reference nor an owned store outlives the
    // file.
    try {
        if (m_currentBuffer && m_memoryMgr)
            dismissBuffer(kCurrentPosition);
    } catch (...) {
    }
    m_currentBuffer = NULL;
    delete m_gzipStream;
    m_gzipStream = NULL;
    if (m_ownsMemoryMgr) {
        try {
            delete m_memoryMgr;
        } catch (...) {
        }
    }
    m_memoryMgr = NULL;
}

void HXLVirtualFile::open(HXLVirtualMemoryMgr* store, unsigned int /*unused*/,
                          unsigned int pageSize, bool compress) {
    // Every position computation divides by the page size.
    m_pageSize = pageSize != 0 ? pageSize : kDefaultPageSize;
    m_memoryMgr = store;
    if (compress) {
        m_outputStream.init(*this);
        m_compress = true;
    }
}

void HXLVirtualFile::open(unsigned int storeSize, unsigned int unused, unsigned int pageSize,
                          bool compress) {
    m_ownsMemoryMgr = true;
    HXLVirtualMemoryMgr* store =
        hxl_translated::make<HXLVirtualMemoryMgr>(kLocation, storeSize, 0u, 64);
    // Held before the call, so the destructor deletes the store even if an override throws.
    m_memoryMgr = store;
    open(store, unused, pageSize, compress);
}

HXLVirtualPageItem& HXLVirtualFile::getPage(unsigned int position) {
    const unsigned int index = position < m_pageSize ? 0 : position / m_pageSize;
    if (m_pages.size() == index)
        m_pages.emplace_back(); // writing forward: one blank entry, without a call
    else if (m_pages.size() < index)
        m_pages.resize(static_cast<size_t>(index) + 1); // blank entries: no block yet
    return m_pages[index];
}

HXLVirtualPageItem& HXLVirtualFile::getCurrentPage() {
    return getPage(m_position);
}

char* HXLVirtualFile::getCurrentBuffer() {
    if (m_currentBuffer)
        return m_currentBuffer;
    HXLVirtualPageItem& page = getCurrentPage();
    // The store gives null for a page it cannot bring back (no room to page another out, a
    // failed or damaged read); alloc throws the same for a page it cannot make. No reference
    // is held then, and m_currentBuffer stays null.
    m_currentBuffer = hxl_translated::required(
        static_cast<char*>(page.empty() ? m_memoryMgr->alloc(m_pageSize, page)
                                        : m_memoryMgr->getAddress(page, 1)),
        kLocation);
    return m_currentBuffer;
}

int HXLVirtualFile::refuseTransfer(unsigned int count) {
    if (m_memoryMgr == NULL)
        return fail(EBADF);
    if (count > kMaxTransfer)
        return fail(EINVAL);
    return 0;
}

void HXLVirtualFile::dismissBuffer(unsigned int position) {
    if (!m_currentBuffer)
        return;
    if (position == kCurrentPosition)
        position = m_position;
    // No mapping is left recorded, whatever the store says to the dismiss.
    HXLVirtualReference<char> page(m_memoryMgr, getPage(position).getOffset(), m_currentBuffer);
    m_currentBuffer = NULL;
}

bool HXLVirtualFile::inSamePage(unsigned int a, unsigned int b) const {
    return a / m_pageSize == b / m_pageSize;
}

int HXLVirtualFile::read(void* buffer, unsigned int count) {
    if (count == 0)
        return 0;
    if (refuseTransfer(count) != 0)
        return -1;
    // Only a seek can put the length at the sentinel; reading stops one byte short of it.
    const unsigned int end = m_length < kLastPosition ? m_length : kLastPosition;
    return static_cast<int>(transfer(NULL, static_cast<char*>(buffer), count, end));
}

unsigned int HXLVirtualFile::transfer(const char* in, char* out, unsigned int count,
                                      unsigned int end) {
    const unsigned int left = m_position < end ? end - m_position : 0;
    unsigned int remaining = count < left ? count : left;
    unsigned int total = 0;
    while (remaining > 0) {
        // The page at the position, held by the walk; a piece that stops inside it hands the
        // reference back to m_currentBuffer for the next transfer.
        char* const mapped = getCurrentBuffer(); // first: it may give the page its block
        m_currentBuffer = NULL;
        HXLVirtualReference<char> page(m_memoryMgr, getCurrentPage().getOffset(), mapped);
        const unsigned int offset = m_position % m_pageSize;
        const unsigned int room = m_pageSize - offset;
        const unsigned int chunk = remaining < room ? remaining : room;
        if (in != NULL)
            std::memcpy(page.get() + offset, in + total, chunk);
        else
            std::memcpy(out + total, page.get() + offset, chunk);
        if (chunk < room)
            m_currentBuffer = page.release();
        m_position += chunk;
        total += chunk;
        remaining -= chunk;
        // Behind every piece, so that a page that cannot be had next leaves the length true for
        // what is stored.
        if (m_position > m_length)
            m_length = m_position;
    }
    // Cut short by the end of the position range, not by the end of the data: as a device that
    // is full.
    if (total < count && end == kLastPosition && m_position == kLastPosition &&
        (in != NULL || m_length > kLastPosition))
        fail(EFBIG);
    return total;
}

int HXLVirtualFile::write(const void* data, unsigned int count) {
    // Before the compressor, which would read all of `count`, and before an override of
    // writeImpl.
    if (count > 0 && refuseTransfer(count) != 0)
        return -1;
    if (!m_compress)
        return static_cast<int>(static_cast<unsigned int>(writeImpl(data, count)));
    if (m_gzipStream == NULL) {
        m_gzipStream = hxl_translated::make<ZOJGZIPOutputStream>(kLocation);
        // Laundered so that the compiler, which knows the type that was just constructed,
        // cannot turn this into a direct call: the streams library is only required to export
        // the constructor, and every other operation is reached through the object.
        std::launder(m_gzipStream)->setOutputStream(&m_outputStream);
    }
    // An empty write goes on as well: it starts the member even when nothing follows.
    m_gzipStream->write(static_cast<const char*>(data), count);
    return static_cast<int>(count);
}

unsigned long long HXLVirtualFile::writeImpl(const void* data, unsigned int count) {
    if (count == 0)
        return 0;
    if (refuseTransfer(count) != 0)
        return kRefused;
    if (m_position >= kLastPosition) {
        fail(EFBIG);
        return kRefused;
    }
    const unsigned int total = transfer(static_cast<const char*>(data), NULL, count, kLastPosition);
    // The total is a signed 32-bit count, widened with its sign.
    return static_cast<unsigned long long>(static_cast<long long>(static_cast<int>(total)));
}

int HXLVirtualFile::seek(int offset, HXLFmFile::seekorigin origin) {
    const unsigned int delta = static_cast<unsigned int>(offset); // wraps: a negative offset
    unsigned int position;
    if (origin == HXLFmFile::eSeekCurrent)
        position = m_position + delta;
    else if (origin == HXLFmFile::eSeekEnd)
        position = m_length + delta;
    else
        position = delta;
    // Leaving the mapped page: give it back while m_position still names it. The old position
    // may be 0xFFFFFFFF, which dismissBuffer would take for the new one.
    if (m_currentBuffer != NULL && !inSamePage(m_position, position))
        dismissBuffer(kCurrentPosition);
    m_position = position;
    if (m_position > m_length)
        m_length = m_position;
    return static_cast<int>(m_position);
}

int HXLVirtualFile::getLength() {
    return static_cast<int>(m_length);
}

int HXLVirtualFile::close() {
    dismissBuffer(kCurrentPosition);
    if (m_gzipStream) {
        // If finish throws, the compressor stays: a later close or the destructor ends it.
        m_gzipStream->finish();
        delete m_gzipStream;
        m_gzipStream = NULL;
    }
    // The compressor's last bytes may have left a page mapped; that is fine while the position
    // stays in that page, and reset and the destructor give it back.
    return 1;
}

void HXLVirtualFile::reset(bool disposePages) {
    close();
    // A compressor finished by close may have mapped the page at the position. The position
    // is about to move to 0, where that mapping would be taken for page 0's: give it back now.
    if (m_currentBuffer)
        dismissBuffer(kCurrentPosition);
    if (disposePages)
        dispose();
    m_position = 0;
    m_length = 0;
}

void HXLVirtualFile::dispose() {
    // A page item owns nothing: dropping the entries frees and dismisses nothing.
    while (!m_pages.empty())
        m_pages.pop_back();
}
