#include "HXLCore.h"

#include <cstring>
#include <strings.h>

namespace {

const char16_t kReplacement = 0xFFFD;

enum class Encoding { Utf8, Latin1 };

Encoding encodingOf(const char* name) {
    if (name != nullptr && (strcasecmp(name, "ISO-8859-1") == 0 ||
                            strcasecmp(name, "LATIN1") == 0 || strcasecmp(name, "ISO8859-1") == 0))
        return Encoding::Latin1;
    return Encoding::Utf8;
}

void appendCodePoint(std::u16string& out, char32_t cp) {
    if (cp < 0x10000) {
        out.push_back(static_cast<char16_t>(cp));
    } else {
        cp -= 0x10000;
        out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
        out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
    }
}

// Decodes UTF-8; every maximal subpart of an ill-formed sequence becomes one U+FFFD, the
// replacement practice of the Unicode standard (and of Python's "replace" handler).
std::u16string decodeUtf8(const unsigned char* s, size_t n) {
    std::u16string out;
    out.reserve(n);
    size_t i = 0;
    while (i < n) {
        const unsigned char b = s[i];
        if (b < 0x80) {
            out.push_back(b);
            ++i;
            continue;
        }
        int need;
        unsigned char lower = 0x80, upper = 0xBF;
        char32_t cp;
        if (b >= 0xC2 && b <= 0xDF) {
            need = 1;
            cp = b & 0x1F;
        } else if (b >= 0xE0 && b <= 0xEF) {
            need = 2;
            cp = b & 0x0F;
            if (b == 0xE0)
                lower = 0xA0; // no overlong forms
            else if (b == 0xED)
                upper = 0x9F; // no surrogates
        } else if (b >= 0xF0 && b <= 0xF4) {
            need = 3;
            cp = b & 0x07;
            if (b == 0xF0)
                lower = 0x90; // no overlong forms
            else if (b == 0xF4)
                upper = 0x8F; // nothing above U+10FFFF
        } else {
            out.push_back(kReplacement);
            ++i;
            continue;
        }
        size_t j = i + 1;
        bool ok = true;
        for (int k = 0; k < need; ++k, ++j) {
            if (j >= n || s[j] < lower || s[j] > upper) {
                ok = false;
                break;
            }
            cp = (cp << 6) | (s[j] & 0x3F);
            lower = 0x80;
            upper = 0xBF;
        }
        if (ok)
            appendCodePoint(out, cp);
        else
            out.push_back(kReplacement); // the offending byte starts the next sequence
        i = j;
    }
    return out;
}

void appendUtf8(std::string& out, char32_t cp) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

std::string encodeUtf8(const std::u16string& units) {
    std::string out;
    out.reserve(units.size() + units.size() / 2);
    for (size_t i = 0; i < units.size(); ++i) {
        const char16_t u = units[i];
        if (u >= 0xD800 && u <= 0xDBFF && i + 1 < units.size() && units[i + 1] >= 0xDC00 &&
            units[i + 1] <= 0xDFFF) {
            appendUtf8(out, 0x10000 + ((char32_t(u) - 0xD800) << 10) + (units[i + 1] - 0xDC00));
            ++i;
        } else if (u >= 0xD800 && u <= 0xDFFF) {
            appendUtf8(out, kReplacement);
        } else {
            appendUtf8(out, u);
        }
    }
    return out;
}

std::string encodeLatin1(const std::u16string& units) {
    std::string out;
    out.reserve(units.size());
    for (size_t i = 0; i < units.size(); ++i) {
        const char16_t u = units[i];
        if (u < 0x100) {
            out.push_back(static_cast<char>(u));
        } else {
            out.push_back('?');
            if (u >= 0xD800 && u <= 0xDBFF && i + 1 < units.size() && units[i + 1] >= 0xDC00 &&
                units[i + 1] <= 0xDFFF)
                ++i; // one '?' per character, not per unit
        }
    }
    return out;
}

} // namespace

I18NString::I18NString() : m_narrowEncoding(-1) {}

I18NString::I18NString(const char* text, const char* encoding, int length, conv, void*)
    : m_narrowEncoding(-1) {
    if (text == nullptr)
        return;
    const size_t n = length < 0 ? std::strlen(text) : static_cast<size_t>(length);
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(text);
    if (encodingOf(encoding) == Encoding::Latin1)
        m_units.assign(bytes, bytes + n);
    else
        m_units = decodeUtf8(bytes, n);
}

I18NString::I18NString(const void* buffer, int size, conv, void*) : m_narrowEncoding(-1) {
    if (buffer == nullptr || size <= 0)
        return;
    m_units.resize(static_cast<size_t>(size) / 2);
    std::memcpy(&m_units[0], buffer, m_units.size() * 2);
}

I18NString::I18NString(const I18NString& other) : m_units(other.m_units), m_narrowEncoding(-1) {}

I18NString::I18NString(I18NString&& other) noexcept
    : m_units(std::move(other.m_units)), m_narrowEncoding(-1) {
    other.m_units.clear();
    other.m_narrowEncoding = -1;
}

I18NString& I18NString::operator=(const I18NString& other) {
    if (this != &other) {
        m_units = other.m_units;
        m_narrowEncoding = -1;
    }
    return *this;
}

I18NString& I18NString::operator=(I18NString&& other) noexcept {
    if (this != &other) {
        m_units = std::move(other.m_units);
        m_narrowEncoding = -1;
        other.m_units.clear();
        other.m_narrowEncoding = -1;
    }
    return *this;
}

I18NString::~I18NString() = default;

bool I18NString::empty() const {
    return m_units.empty();
}

// Out of line, so that the cached case, inline in the header, saves no registers.
const char* I18NString::narrowForm(const char* encoding, int* length) const {
    static_assert(static_cast<int>(Encoding::Utf8) == kUtf8Form, "the header's test of the cache");
    const int wanted = static_cast<int>(encodingOf(encoding));
    if (m_narrowEncoding != wanted) {
        m_narrow = wanted == static_cast<int>(Encoding::Latin1) ? encodeLatin1(m_units)
                                                                : encodeUtf8(m_units);
        m_narrowEncoding = wanted;
    }
    if (length != nullptr)
        *length = static_cast<int>(m_narrow.size() + 1);
    return m_narrow.c_str();
}

int I18NString::size() const {
    return static_cast<int>(m_units.size() * 2);
}

const void* I18NString::getExternalBuffer() const {
    return m_units.data();
}

bool I18NString::operator==(const I18NString& other) const {
    return m_units == other.m_units;
}

HXLI18NBuffer::HXLI18NBuffer() = default;

HXLI18NBuffer& HXLI18NBuffer::operator=(const I18NString& value) {
    m_string = value;
    return *this;
}

I18NString HXLI18NBuffer::getString() const {
    return m_string;
}

void HXLI18NBuffer::clear() {
    m_string = I18NString();
}

int HXLI18NBuffer::empty() const {
    return m_string.empty() ? 1 : 0;
}
