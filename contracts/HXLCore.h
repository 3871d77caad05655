/// @file
/// @ingroup contracts
/// @brief HXLCore: exceptions and their macros, the translation guard, a lock and its guard, the
/// internal string form and its buffer, CRC-32, the temporary directory and a POSIX file.
///
/// Everything here is usable from any thread; each object serves one thread at a time unless
/// its comment says otherwise. Nothing here touches a store: no class of this file takes a
/// reference, and nothing of theirs pages out.
#ifndef HXLCORE_H
#define HXLCORE_H

#include "HXLExport.h"

#include <cstddef>
#include <exception>
#include <mutex>
#include <new>
#include <string>
#include <vector>

// ---------------------------------------------------------------------------------------------
// Exceptions
// ---------------------------------------------------------------------------------------------

/// @ingroup contracts
/// @brief A place in the source: a file name (a static string, not copied) and a line.
class HXLFileLocation {
public:
    /// The place: `file` must outlive the object (HXL_HERE gives __FILE__).
    HXLFileLocation(const char* file, int line) : m_file(file), m_line(line) {}
    /// The file name, as given (not copied).
    const char* getFile() const { return m_file; }
    /// The line, as given.
    int getLine() const { return m_line; }

private:
    const char* m_file;
    int m_line;
};

/// @ingroup contracts
/// @brief The HXLFileLocation of the line where it stands.
#define HXL_HERE HXLFileLocation(__FILE__, __LINE__)

/// @ingroup contracts
/// @brief One frame of an exception's way out: where it was thrown or passed on, the function
/// name given there (empty when none) and the macro that added the frame.
struct HXLBackTraceFrame {
    std::string file;     ///< The source file.
    int line;             ///< The line in that file.
    std::string function; ///< The function name given there; may be empty.
    std::string macro;    ///< "HXL_THROW", "HXL_RETHROW" or the guard's macro.
};

/// @ingroup contracts
/// @brief Base of every exception the library throws.
///
/// what() and getText() give the text the object was built with; getBackTrace() lists the
/// frames in the order they were added (the throw site first, then one per HXL_RETHROW or
/// translation guard on the way out).
///
/// Exceptions: only copying (the text and the frames) may throw std::bad_alloc.
class HXL_EXPORT HXLThrowable : public std::exception {
public:
    /// An exception with `text` (copied) and no frame yet.
    explicit HXLThrowable(const char* text);
    /// A copy of the text and frames of `other`; may throw std::bad_alloc.
    HXLThrowable(const HXLThrowable&) = default;
    /// Replaces text and frames by copies of those of `other`; may throw std::bad_alloc.
    HXLThrowable& operator=(const HXLThrowable&) = default;
    /// Ends the text and the frames.
    ~HXLThrowable() override;

    /// The text the object was built with.
    const char* what() const noexcept override;
    /// The text the object was built with, as what() gives it.
    const char* getText() const;
    /// The frames in the order they were added, throw site first.
    const std::vector<HXLBackTraceFrame>& getBackTrace() const;

    /// Appends a frame. A null function or macro is recorded as empty.
    void addBackTrace(const HXLFileLocation& location, const char* function, const char* macro);

    /// Adds a frame, then throws a copy of this object as its own dynamic type. Never returns.
    [[noreturn]] virtual void hurl(const HXLFileLocation& location, const char* function,
                                   const char* macro);

private:
    std::string m_text;
    std::vector<HXLBackTraceFrame> m_backTrace;
};

/// @ingroup contracts
/// @brief A failed HXL_ASSERT or HXL_ASSERT_NAMED; the text is the macro call as written.
class HXL_EXPORT HXLAssertError : public HXLThrowable {
public:
    /// An HXLAssertError with `text` as its text; `code` is accepted and ignored.
    HXLAssertError(int code, const char* text);
    /// Adds a frame, then throws a copy of this object as an HXLAssertError. Never returns.
    [[noreturn]] void hurl(const HXLFileLocation& location, const char* function,
                           const char* macro) override;
};

/// @ingroup contracts
/// @brief An operation called in a state that does not allow it.
class HXL_EXPORT HXLIllegalStateError : public HXLThrowable {
public:
    /// An HXLIllegalStateError with `text` as its text; `code` is accepted and ignored.
    HXLIllegalStateError(int code, const char* text);
    /// Adds a frame, then throws a copy of this object as an HXLIllegalStateError. Never returns.
    [[noreturn]] void hurl(const HXLFileLocation& location, const char* function,
                           const char* macro) override;
};

/// @ingroup contracts
/// @brief Memory or store space ran out. A null text gives "Out of memory".
class HXL_EXPORT HXLOutOfMemoryError : public HXLThrowable {
public:
    /// An HXLOutOfMemoryError with `text` as its text, null for the fixed one; `code` is
    /// accepted and ignored.
    HXLOutOfMemoryError(int code, const char* text);
    /// Adds a frame, then throws a copy of this object as an HXLOutOfMemoryError. Never returns.
    [[noreturn]] void hurl(const HXLFileLocation& location, const char* function,
                           const char* macro) override;
};

/// @ingroup contracts
/// @brief A standard exception caught by the translation guard; the text is e.what().
class HXL_EXPORT HXLStdExceptionError : public HXLThrowable {
public:
    /// Takes the text of `e`.
    explicit HXLStdExceptionError(const std::exception& e);
    /// Adds a frame, then throws a copy of this object as an HXLStdExceptionError. Never returns.
    [[noreturn]] void hurl(const HXLFileLocation& location, const char* function,
                           const char* macro) override;
};

namespace hxl_detail {
template <class E>
[[noreturn]] void hurl(const HXLFileLocation& location, E&& exception,
                       const char* function = nullptr) {
    exception.hurl(location, function, "HXL_THROW");
    __builtin_unreachable(); // hurl always throws; the compiler cannot see it through the vtable
}
/// HXL_THROW of HXLAssertError(0, text) at line `line` of `file`: the failure of HXL_ASSERT
/// and HXL_ASSERT_NAMED. Out of line, so that an assertion in an inline function costs its
/// caller a compare and a call, and nothing in its frame.
[[noreturn, gnu::cold]] HXL_EXPORT void assertFailed(const char* file, int line, const char* text);
} // namespace hxl_detail

/// @ingroup contracts
/// @brief HXL_THROW(exception) or HXL_THROW(exception, "Class::function"): throws the exception
/// with a back-trace frame for this line; the function name is recorded when given.
#define HXL_THROW(...) ::hxl_detail::hurl(HXL_HERE, __VA_ARGS__)

/// @ingroup contracts
/// @brief Inside a catch block for an HXLThrowable `e`: adds a frame for this line and rethrows.
#define HXL_RETHROW(e)                                                                             \
    do {                                                                                           \
        (e).addBackTrace(HXL_HERE, nullptr, "HXL_RETHROW");                                        \
        throw;                                                                                     \
    } while (0)

/// @ingroup contracts
/// @brief Throws HXLAssertError when `cond` is false; always active.
///
/// The text of the HXLAssertError is the call as written, semicolon included:
/// `HXL_ASSERT(m_pool == NULL);` fails with "HXL_ASSERT(m_pool == NULL);".
#define HXL_ASSERT(cond)                                                                           \
    do {                                                                                           \
        if (!(cond))                                                                               \
            ::hxl_detail::assertFailed(__FILE__, __LINE__, "HXL_ASSERT(" #cond ");");              \
    } while (0)

/// @ingroup contracts
/// @brief As HXL_ASSERT; the text holds the quoted words too.
///
/// `HXL_ASSERT_NAMED(n == 1, "Bad chunk");` fails with "HXL_ASSERT_NAMED(n == 1, "Bad chunk");".
#define HXL_ASSERT_NAMED(cond, words)                                                              \
    do {                                                                                           \
        if (!(cond))                                                                               \
            ::hxl_detail::assertFailed(__FILE__, __LINE__,                                         \
                                       "HXL_ASSERT_NAMED(" #cond ", " #words ");");                \
    } while (0)

/// @ingroup contracts
/// @brief Opens the translation guard around one step that can fail in a standard way.
///
///     HXL_TRY {
///         m_pool = new Pool(size);
///     } HXL_TRANSLATE("Owner::function");
///
/// An HXLThrowable gets a back-trace frame and goes on; std::bad_alloc becomes
/// HXLOutOfMemoryError; any other std::exception becomes HXLStdExceptionError.
#define HXL_TRY try
/// @ingroup contracts
/// @brief The handlers that close HXL_TRY and translate what it caught, as HXL_TRY describes.
///
/// The location (may be NULL) is the function name of the frame of a translated exception.
#define HXL_TRANSLATE(location)                                                                    \
    catch (HXLThrowable & hxlCaught) {                                                             \
        HXL_RETHROW(hxlCaught);                                                                    \
    }                                                                                              \
    catch (std::bad_alloc&) {                                                                      \
        HXL_THROW(HXLOutOfMemoryError(0, nullptr), location);                                      \
    }                                                                                              \
    catch (std::exception & hxlCaught) {                                                           \
        HXL_THROW(HXLStdExceptionError(hxlCaught), location);                                      \
    }                                                                                              \
    do {                                                                                           \
    } while (0)

// ---------------------------------------------------------------------------------------------
// Lock
// ---------------------------------------------------------------------------------------------

/// @ingroup contracts
/// @brief Something that can be locked and unlocked by the thread that holds it.
class HXL_EXPORT HXLThreadLockableResource {
public:
    /// Ends the resource; it must not be held.
    virtual ~HXLThreadLockableResource();
    /// Takes the resource, waiting while another thread holds it.
    virtual void lock() = 0;
    /// Gives the resource back; only by the thread that holds it.
    virtual void unlock() = 0;
};

/// @ingroup contracts
/// @brief A recursive critical section: the thread that holds it may take it again.
class HXL_EXPORT HXLThreadCriticalSection : public HXLThreadLockableResource {
public:
    /// Unlocked. The int is reserved (pass 0).
    explicit HXLThreadCriticalSection(int reserved = 0);
    /// Ends the section; it must not be held.
    ~HXLThreadCriticalSection() override;
    /// Not copyable: the section is one lock.
    HXLThreadCriticalSection(const HXLThreadCriticalSection&) = delete;
    /// Not assignable: the section is one lock.
    HXLThreadCriticalSection& operator=(const HXLThreadCriticalSection&) = delete;
    /// Takes the section, waiting while another thread holds it; the holder may take it again.
    void lock() override;
    /// Gives back one take of the section; only by the thread that holds it.
    void unlock() override;

private:
    std::recursive_mutex m_mutex;
};

/// @ingroup contracts
/// @brief Holds a lockable resource from construction to destruction.
class HXL_EXPORT HXLThreadGuard {
public:
    /// Locks `resource`, which must outlive the guard.
    explicit HXLThreadGuard(HXLThreadLockableResource& resource);
    /// Unlocks the resource.
    ~HXLThreadGuard();
    /// Not copyable: one guard holds the resource once.
    HXLThreadGuard(const HXLThreadGuard&) = delete;
    /// Not assignable: one guard holds the resource once.
    HXLThreadGuard& operator=(const HXLThreadGuard&) = delete;

private:
    HXLThreadLockableResource& m_resource;
};

// ---------------------------------------------------------------------------------------------
// Strings
// ---------------------------------------------------------------------------------------------

/// @ingroup contracts
/// @brief An optional converter for encodings the string does not know itself.
///
/// The library passes null everywhere; a non-null one is not called by this implementation.
typedef char* (*conv)(void*, char*, int, int*);

/// @ingroup contracts
/// @brief Text kept as UTF-16 code units in the machine's byte order (the internal form).
///
/// Exceptions: calls that build or copy text may throw std::bad_alloc; nothing else throws.
class HXL_EXPORT I18NString {
public:
    /// The empty string.
    I18NString();
    /// From `length` bytes of `text` in `encoding`.
    ///
    /// Null, "UTF-8" or "UTF8" (any case) read UTF-8, "ISO-8859-1" or "LATIN1" read Latin-1,
    /// any other name is read as UTF-8. A negative length means "up to the NUL"; a null text
    /// gives the empty string. Each invalid UTF-8 sequence (maximal subpart) becomes one U+FFFD.
    I18NString(const char* text, const char* encoding, int length, conv converter, void* context);
    /// From `size` bytes of the internal form, as getExternalBuffer() and size() expose them.
    ///
    /// A null buffer or a negative size gives the empty string; an odd last byte is dropped.
    I18NString(const void* buffer, int size, conv converter, void* context);
    /// A copy of `other`.
    I18NString(const I18NString& other);
    /// A string with the text of `other`, which is empty afterwards.
    I18NString(I18NString&& other) noexcept;
    /// Makes this string a copy of `other`.
    I18NString& operator=(const I18NString& other);
    /// Replaces this text by that of `other`, which is empty afterwards.
    I18NString& operator=(I18NString&& other) noexcept;
    /// Ends the text and its cache.
    ~I18NString();

    /// True for the empty string.
    bool empty() const;

    /// The text as UTF-8 (for a null or UTF-8 encoding) or Latin-1, closed by a NUL.
    ///
    /// In Latin-1, unrepresentable characters become '?'. `length`, when not null, receives the
    /// byte count including the NUL. The text is cached: the pointer stays good until the
    /// string is changed or destroyed, or c_str is asked for the other encoding. An unpaired
    /// surrogate comes out as U+FFFD.
    const char* c_str(const char* encoding, int* length, conv converter, void* context) const {
        // Inline for the most frequent call, a null name (UTF-8) whose form is cached.
        (void)converter; // accepted and ignored
        (void)context;
        if (encoding != nullptr || m_narrowEncoding != kUtf8Form)
            return narrowForm(encoding, length);
        if (length != nullptr)
            *length = static_cast<int>(m_narrow.size() + 1);
        return m_narrow.c_str();
    }

    /// Bytes of the internal form: 2 per UTF-16 unit.
    int size() const;
    /// The internal form: size() bytes, good until the string is changed or destroyed.
    const void* getExternalBuffer() const;

    /// True when the UTF-16 units are equal.
    bool operator==(const I18NString& other) const;
    /// True when the UTF-16 units differ.
    bool operator!=(const I18NString& other) const { return !(*this == other); }

private:
    // m_narrowEncoding of a cached UTF-8 form.
    static constexpr int kUtf8Form = 0;
    // c_str beyond a cached UTF-8 form: names an encoding, or fills the cache.
    const char* narrowForm(const char* encoding, int* length) const;

    std::u16string m_units;
    mutable std::string m_narrow; // cache for c_str
    mutable int m_narrowEncoding; // what m_narrow holds; -1 while it is stale
};

/// @ingroup contracts
/// @brief A holder of an I18NString, empty until a non-empty string is assigned and after
/// clear().
class HXL_EXPORT HXLI18NBuffer {
public:
    /// Empty.
    HXLI18NBuffer();
    /// Holds a copy of `value`.
    HXLI18NBuffer& operator=(const I18NString& value);
    /// A copy of the held string; the empty string when empty.
    I18NString getString() const;
    /// Drops the held string.
    void clear();
    /// 1 while the held string is empty, else 0.
    int empty() const;

private:
    I18NString m_string;
};

// ---------------------------------------------------------------------------------------------
// Utilities
// ---------------------------------------------------------------------------------------------

/// @ingroup contracts
/// @brief Checksums.
class HXL_EXPORT HXLUtCrc32 {
public:
    /// The standard CRC-32 (ISO-HDLC, as zlib and gzip compute it) of `length` bytes, continued
    /// from `seed` (0 to start). A null data pointer gives `seed`.
    static unsigned int crc32(unsigned int seed, const unsigned char* data, size_t length);
};

/// @ingroup contracts
/// @brief Directories of the file system.
class HXL_EXPORT HXLFmDir {
public:
    /// The temporary directory: $TMPDIR when it names a directory, else "/tmp". Returns 1.
    static int getTempPath(I18NString& path);
};

/// @ingroup contracts
/// @brief A file on a POSIX descriptor, unbuffered.
///
/// Operations on a file that is not open fail with EBADF. Every failing operation records errno
/// for getLastErrorNumber/getLastErrorMessage; success leaves the last error as it was. No
/// operation throws.
class HXL_EXPORT HXLFmFile {
public:
    /// Where seek counts from.
    enum seekorigin : int {
        eSeekBegin = 0,   ///< the start
        eSeekCurrent = 1, ///< the position
        eSeekEnd = 2      ///< the end
    };
    /// The standard streams open(stdiotypes) binds to.
    enum stdiotypes : int {
        eStdIn = 0,  ///< standard input
        eStdOut = 1, ///< standard output
        eStdErr = 2  ///< standard error
    };
    /// How open(path) treats an existing or missing file.
    enum createmode : int {
        eOpenExisting = 0, ///< read and write an existing file
        eOpenReadOnly = 1, ///< read an existing file
        eCreateAlways = 2, ///< create, or truncate an existing file; read and write
        eOpenAlways = 3,   ///< open, creating when missing; read and write
        eCreateNew = 4,    ///< create; fails with EEXIST if the name exists
        eOpenAppend = 5    ///< open, creating when missing; every write goes to the end
    };

    /// Not open.
    HXLFmFile();
    /// Not copyable: the file owns its descriptor.
    HXLFmFile(const HXLFmFile&) = delete;
    /// Not assignable: the file owns its descriptor.
    HXLFmFile& operator=(const HXLFmFile&) = delete;

    /// Closes the descriptor if the file owns one.
    virtual ~HXLFmFile();
    /// Reads up to `count` bytes; returns the bytes read (0 at the end) or -1.
    virtual int read(void* buffer, unsigned int count);
    /// Writes all `count` bytes; returns `count` or -1. Counts above 0x7FFFFFFF fail (EINVAL).
    virtual int write(const void* data, unsigned int count);
    /// Moves the position; returns the new position or -1.
    ///
    /// EINVAL for an unknown origin or a position before the start; EOVERFLOW past 0x7FFFFFFF.
    /// A failed seek leaves the position where it was.
    virtual int seek(int offset, seekorigin origin);
    /// Copies the whole content of `other` (from its start) to the end of this file.
    ///
    /// Leaves the position of both at their end. `other` may be this file, whose content is
    /// then doubled. Returns 1, or 0 on failure.
    virtual int append(HXLFmFile& other);
    /// Binds to a standard stream (not closed by this object). Returns 1, or 0.
    virtual int open(stdiotypes stream);
    /// Opens a path; `permissions` is the mode of a created file (0 means 0666, less umask).
    ///
    /// Returns 1, or 0 (a null or empty path fails with ENOENT). Closes a file open before.
    virtual int open(const char* path, createmode mode, int permissions);
    /// Opens the path given as an I18NString; otherwise as the form with a `const char*` path.
    virtual int open(const I18NString& path, createmode mode, int permissions);
    /// Closes the file. Returns 1, or 0 when nothing was open (EBADF) or close failed.
    virtual int close();
    /// The size in bytes, or -1 (EOVERFLOW beyond 0x7FFFFFFF).
    virtual int getLength();
    /// Pushes written bytes to the device (fsync; nothing to do for a standard stream).
    virtual int flush();
    /// Sets the size to `length` bytes; the position is unchanged. Returns 1, or 0.
    virtual int truncate(int length);
    /// The errno of the last failure (0 before any).
    virtual unsigned int getLastErrorNumber();
    /// The text of the last failure's errno.
    virtual I18NString getLastErrorMessage();

protected:
    /// Writes the last error to standard error as "HXLFmFile: <message> (<number>)".
    virtual void logLastError();

    /// Records `error` as the last error and gives -1, the failure of a count.
    int fail(int error);
    /// Records `error` as the last error and gives 0, the failure of a truth.
    int refuse(int error);

private:
    int m_fd;
    bool m_ownsFd;
    unsigned int m_lastError;
};

#endif
