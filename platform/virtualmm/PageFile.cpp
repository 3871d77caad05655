#include "PageFile.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <iterator>
#include <new>
#include <unistd.h>

namespace tcmalloc {

namespace {

long posixPwrite(int fd, const void* data, unsigned long count, long long offset) {
    return ::pwrite(fd, data, count, static_cast<off_t>(offset));
}
long posixPread(int fd, void* data, unsigned long count, long long offset) {
    return ::pread(fd, data, count, static_cast<off_t>(offset));
}
const VirtualMemoryIo kPosixIo = {posixPwrite, posixPread};

} // namespace

unsigned long long ExtentAllocator::take(unsigned long long count) {
    auto fit = m_bySize.lower_bound(count);
    if (fit == m_bySize.end()) {
        const unsigned long long start = m_end;
        m_end += count;
        return start;
    }
    const unsigned long long length = fit->first;
    const unsigned long long start = fit->second;
    if (length > count)
        insert(start + count, length - count); // may throw before anything has changed
    m_bySize.erase(fit);
    m_byStart.erase(start);
    return start;
}

void ExtentAllocator::give(unsigned long long start, unsigned long long count) {
    auto next = m_byStart.lower_bound(start);
    if (next != m_byStart.end() && next->first == start + count) {
        count += next->second;
        eraseRun(next);
        next = m_byStart.lower_bound(start);
    }
    if (next != m_byStart.begin()) {
        auto prev = std::prev(next);
        if (prev->first + prev->second == start) {
            start = prev->first;
            count += prev->second;
            eraseRun(prev);
        }
    }
    if (start + count == m_end)
        m_end = start;
    else
        insert(start, count);
}

unsigned long long ExtentAllocator::freeUnits() const {
    unsigned long long total = 0;
    for (const auto& run : m_byStart)
        total += run.second;
    return total;
}

void ExtentAllocator::insert(unsigned long long start, unsigned long long count) {
    auto byStart = m_byStart.emplace(start, count).first;
    try {
        m_bySize.emplace(count, start);
    } catch (...) {
        m_byStart.erase(byStart);
        throw;
    }
}

void ExtentAllocator::eraseRun(Runs::iterator it) {
    auto range = m_bySize.equal_range(it->second);
    for (auto s = range.first; s != range.second; ++s) {
        if (s->second == it->first) {
            m_bySize.erase(s);
            break;
        }
    }
    m_byStart.erase(it);
}

PageFile::PageFile(const char* directory)
    : m_directory(directory && *directory ? directory : "/tmp"), m_io(kPosixIo) {}

PageFile::~PageFile() {
    if (m_fd >= 0)
        ::close(m_fd);
}

bool PageFile::open() {
    if (m_fd >= 0)
        return true;
    std::string name = m_directory;
    if (name.back() != '/')
        name += '/';
    name += "hxlvmm-" + std::to_string(::getpid()) + "-XXXXXX";
    // mkostemp creates exclusively (O_EXCL: no existing name or link is followed) with mode
    // 0600; the name goes at once, so nothing outlives the process.
    const int fd = ::mkostemp(&name[0], O_CLOEXEC);
    if (fd < 0)
        return false;
    ::unlink(name.c_str());
    m_fd = fd;
    m_name = name;
    return true;
}

unsigned PageFile::take(unsigned pages, const void* owner) {
    try {
        const unsigned long long slot = m_space.take(pages);
        if (slot + pages <= kNoSlot) {
            try {
                while (m_owners.size() < slot + pages) // mostly one entry: no call
                    m_owners.push_back(nullptr);
                m_owners[slot] = owner;
                return static_cast<unsigned>(slot);
            } catch (const std::bad_alloc&) {
            }
        }
        m_space.give(slot, pages);
    } catch (const std::bad_alloc&) {
    }
    return kNoSlot;
}

void PageFile::give(unsigned slot, unsigned pages) {
    m_owners[slot] = nullptr;
    const unsigned long long end = m_space.end();
    try {
        m_space.give(slot, pages);
    } catch (const std::bad_alloc&) {
        return; // the run stays taken: a leak of file space, never a page given twice
    }
    if (m_fd < 0)
        return;
    if (m_space.end() < end) {
        if (::ftruncate(m_fd, static_cast<off_t>(m_space.end() << kPageShift)) == 0 &&
            m_owners.size() > m_space.end())
            m_owners.resize(m_space.end());
        // A file left longer than needed is harmless: its tail is reused or cut later.
        return;
    }
    if (m_canPunch &&
        ::fallocate(m_fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                    static_cast<off_t>(static_cast<unsigned long long>(slot) << kPageShift),
                    static_cast<off_t>(static_cast<unsigned long long>(pages) << kPageShift)) !=
            0 &&
        (errno == EOPNOTSUPP || errno == ENOSYS))
        m_canPunch = false; // the space stays allocated, to be reused by later slots
}

std::size_t PageFile::ownerCount() const {
    std::size_t count = 0;
    for (const void* owner : m_owners)
        count += owner != nullptr;
    return count;
}

void PageFile::setIo(const VirtualMemoryIo* io) {
    m_io = io ? *io : kPosixIo;
}

bool PageFile::write(const iovec* pieces, unsigned count, unsigned slot) {
    return transfer(pieces, count, slot, true);
}

bool PageFile::read(const iovec* pieces, unsigned count, unsigned slot) {
    return transfer(pieces, count, slot, false);
}

// With the POSIX calls a run of pieces goes in one gathered call; a replaced seam is called
// piece by piece, so that tests see (and can fail) every transfer.
bool PageFile::transfer(const iovec* pieces, unsigned count, unsigned slot, bool writing) {
    const bool gathered = m_io.pwrite == kPosixIo.pwrite && m_io.pread == kPosixIo.pread;
    unsigned long long at = static_cast<unsigned long long>(slot) << kPageShift;
    iovec current = count > 0 ? pieces[0] : iovec{nullptr, 0};
    unsigned index = 0;
    while (index < count) {
        long n;
        if (gathered && current.iov_len == pieces[index].iov_len && count - index > 1) {
            const int batch = static_cast<int>(std::min<unsigned>(count - index, IOV_MAX));
            n = writing ? ::pwritev(m_fd, pieces + index, batch, static_cast<off_t>(at))
                        : ::preadv(m_fd, pieces + index, batch, static_cast<off_t>(at));
        } else {
            n = writing ? m_io.pwrite(m_fd, current.iov_base, current.iov_len,
                                      static_cast<long long>(at))
                        : m_io.pread(m_fd, current.iov_base, current.iov_len,
                                     static_cast<long long>(at));
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false; // an error, or the file ends before the run does
        at += static_cast<unsigned long long>(n);
        unsigned long long moved = static_cast<unsigned long long>(n);
        while (moved > 0) {
            const unsigned long long step = std::min<unsigned long long>(moved, current.iov_len);
            current.iov_base = static_cast<char*>(current.iov_base) + step;
            current.iov_len -= step;
            moved -= step;
            if (current.iov_len == 0 && ++index < count)
                current = pieces[index];
        }
    }
    return true;
}

} // namespace tcmalloc
