#include "HXLCore.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
const int kNoFile = -1;
const unsigned int kMaxTransfer = 0x7FFFFFFF; // results are ints
} // namespace

HXLFmFile::HXLFmFile() : m_fd(kNoFile), m_ownsFd(false), m_lastError(0) {}

HXLFmFile::~HXLFmFile() {
    if (m_fd != kNoFile && m_ownsFd)
        ::close(m_fd);
}

int HXLFmFile::fail(int error) {
    m_lastError = static_cast<unsigned int>(error);
    return -1;
}

int HXLFmFile::refuse(int error) {
    m_lastError = static_cast<unsigned int>(error);
    return 0;
}

int HXLFmFile::read(void* buffer, unsigned int count) {
    if (m_fd == kNoFile)
        return fail(EBADF);
    if (count > kMaxTransfer)
        return fail(EINVAL);
    if (buffer == nullptr && count > 0)
        return fail(EFAULT);
    char* out = static_cast<char*>(buffer);
    unsigned int done = 0;
    while (done < count) {
        const ssize_t n = ::read(m_fd, out + done, count - done);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return fail(errno);
        }
        if (n == 0)
            break; // end of file
        done += static_cast<unsigned int>(n);
    }
    return static_cast<int>(done);
}

int HXLFmFile::write(const void* data, unsigned int count) {
    if (m_fd == kNoFile)
        return fail(EBADF);
    if (count > kMaxTransfer)
        return fail(EINVAL);
    if (data == nullptr && count > 0)
        return fail(EFAULT);
    const char* in = static_cast<const char*>(data);
    unsigned int done = 0;
    while (done < count) {
        const ssize_t n = ::write(m_fd, in + done, count - done);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return fail(errno);
        }
        done += static_cast<unsigned int>(n);
    }
    return static_cast<int>(done);
}

int HXLFmFile::seek(int offset, seekorigin origin) {
    if (m_fd == kNoFile)
        return fail(EBADF);
    int whence;
    switch (origin) {
    case eSeekBegin:
        whence = SEEK_SET;
        break;
    case eSeekCurrent:
        whence = SEEK_CUR;
        break;
    case eSeekEnd:
        whence = SEEK_END;
        break;
    default:
        return fail(EINVAL);
    }
    const off_t before = ::lseek(m_fd, 0, SEEK_CUR);
    const off_t pos = ::lseek(m_fd, static_cast<off_t>(offset), whence);
    if (pos < 0)
        return fail(errno);
    if (pos > INT_MAX) {
        // A position the result cannot express is refused: the file stays where it was, so
        // the next transfer does not land beyond 2 GiB.
        ::lseek(m_fd, before, SEEK_SET);
        return fail(EOVERFLOW);
    }
    return static_cast<int>(pos);
}

int HXLFmFile::append(HXLFmFile& other) {
    if (m_fd == kNoFile)
        return refuse(EBADF);
    if (seek(0, eSeekEnd) < 0)
        return 0;
    std::vector<char> buffer(64 * 1024);
    if (&other == this) {
        // One descriptor, one position: read the original bytes by place, so that what is
        // appended is never read back and the file is doubled exactly.
        const int length = getLength();
        if (length < 0)
            return 0;
        for (off_t at = 0; at < length;) {
            const size_t want = std::min(buffer.size(), static_cast<size_t>(length - at));
            const ssize_t n = ::pread(m_fd, buffer.data(), want, at);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                return refuse(n < 0 ? errno : EIO);
            if (write(buffer.data(), static_cast<unsigned int>(n)) != n)
                return 0;
            at += n;
        }
        return 1;
    }
    if (other.seek(0, eSeekBegin) < 0) {
        m_lastError = other.getLastErrorNumber();
        return 0;
    }
    for (;;) {
        const int n = other.read(buffer.data(), static_cast<unsigned int>(buffer.size()));
        if (n < 0) {
            m_lastError = other.getLastErrorNumber();
            return 0;
        }
        if (n == 0)
            return 1;
        if (write(buffer.data(), static_cast<unsigned int>(n)) != n)
            return 0;
    }
}

int HXLFmFile::open(stdiotypes stream) {
    int fd;
    switch (stream) {
    case eStdIn:
        fd = STDIN_FILENO;
        break;
    case eStdOut:
        fd = STDOUT_FILENO;
        break;
    case eStdErr:
        fd = STDERR_FILENO;
        break;
    default:
        return refuse(EINVAL);
    }
    if (m_fd != kNoFile)
        close();
    m_fd = fd;
    m_ownsFd = false;
    return 1;
}

int HXLFmFile::open(const char* path, createmode mode, int permissions) {
    if (path == nullptr || *path == '\0')
        return refuse(ENOENT);
    int flags = O_CLOEXEC;
    switch (mode) {
    case eOpenExisting:
        flags |= O_RDWR;
        break;
    case eOpenReadOnly:
        flags |= O_RDONLY;
        break;
    case eCreateAlways:
        flags |= O_RDWR | O_CREAT | O_TRUNC;
        break;
    case eOpenAlways:
        flags |= O_RDWR | O_CREAT;
        break;
    case eCreateNew:
        flags |= O_RDWR | O_CREAT | O_EXCL;
        break;
    case eOpenAppend:
        flags |= O_RDWR | O_CREAT | O_APPEND;
        break;
    default:
        return refuse(EINVAL);
    }
    const mode_t perm = permissions == 0 ? 0666 : static_cast<mode_t>(permissions) & 07777;
    int fd;
    do {
        fd = ::open(path, flags, perm);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0)
        return refuse(errno);
    if (m_fd != kNoFile)
        close();
    m_fd = fd;
    m_ownsFd = true;
    return 1;
}

int HXLFmFile::open(const I18NString& path, createmode mode, int permissions) {
    return open(path.c_str(nullptr, nullptr, nullptr, nullptr), mode, permissions);
}

int HXLFmFile::close() {
    if (m_fd == kNoFile)
        return refuse(EBADF);
    const int fd = m_fd;
    const bool owned = m_ownsFd;
    m_fd = kNoFile;
    m_ownsFd = false;
    // close() is not retried on EINTR: on Linux the descriptor is gone either way.
    if (owned && ::close(fd) != 0)
        return refuse(errno);
    return 1;
}

int HXLFmFile::getLength() {
    if (m_fd == kNoFile)
        return fail(EBADF);
    struct stat st;
    if (::fstat(m_fd, &st) != 0)
        return fail(errno);
    if (st.st_size > INT_MAX)
        return fail(EOVERFLOW);
    return static_cast<int>(st.st_size);
}

int HXLFmFile::flush() {
    if (m_fd == kNoFile)
        return refuse(EBADF);
    if (!m_ownsFd)
        return 1;
    if (::fsync(m_fd) != 0)
        return refuse(errno);
    return 1;
}

int HXLFmFile::truncate(int length) {
    if (m_fd == kNoFile)
        return refuse(EBADF);
    if (length < 0)
        return refuse(EINVAL);
    int rc;
    do {
        rc = ::ftruncate(m_fd, static_cast<off_t>(length));
    } while (rc != 0 && errno == EINTR);
    if (rc != 0)
        return refuse(errno);
    return 1;
}

unsigned int HXLFmFile::getLastErrorNumber() {
    return m_lastError;
}

I18NString HXLFmFile::getLastErrorMessage() {
    if (m_lastError == 0)
        return I18NString();
    return I18NString(std::strerror(static_cast<int>(m_lastError)), nullptr, -1, nullptr, nullptr);
}

void HXLFmFile::logLastError() {
    std::fprintf(stderr, "HXLFmFile: %s (%u)\n",
                 getLastErrorMessage().c_str(nullptr, nullptr, nullptr, nullptr), m_lastError);
}
