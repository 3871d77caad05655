#include "HXLCore.h"

HXLThrowable::HXLThrowable(const char* text) : m_text(text ? text : "") {}

HXLThrowable::~HXLThrowable() = default;

const char* HXLThrowable::what() const noexcept {
    return m_text.c_str();
}

const char* HXLThrowable::getText() const {
    return m_text.c_str();
}

const std::vector<HXLBackTraceFrame>& HXLThrowable::getBackTrace() const {
    return m_backTrace;
}

void HXLThrowable::addBackTrace(const HXLFileLocation& location, const char* function,
                                const char* macro) {
    m_backTrace.push_back(HXLBackTraceFrame{location.getFile() ? location.getFile() : "",
                                            location.getLine(), function ? function : "",
                                            macro ? macro : ""});
}

void HXLThrowable::hurl(const HXLFileLocation& location, const char* function, const char* macro) {
    addBackTrace(location, function, macro);
    throw *this;
}

// Each class throws itself as its own type, so a handler for the derived class catches it.
#define HXL_DEFINE_HURL(Class)                                                                     \
    void Class::hurl(const HXLFileLocation& location, const char* function, const char* macro) {   \
        addBackTrace(location, function, macro);                                                   \
        throw *this;                                                                               \
    }

HXLAssertError::HXLAssertError(int, const char* text) : HXLThrowable(text) {}
HXL_DEFINE_HURL(HXLAssertError)

void hxl_detail::assertFailed(const char* file, int line, const char* text) {
    hurl(HXLFileLocation(file, line), HXLAssertError(0, text));
}

HXLIllegalStateError::HXLIllegalStateError(int, const char* text) : HXLThrowable(text) {}
HXL_DEFINE_HURL(HXLIllegalStateError)

HXLOutOfMemoryError::HXLOutOfMemoryError(int, const char* text)
    : HXLThrowable(text ? text : "Out of memory") {}
HXL_DEFINE_HURL(HXLOutOfMemoryError)

HXLStdExceptionError::HXLStdExceptionError(const std::exception& e) : HXLThrowable(e.what()) {}
HXL_DEFINE_HURL(HXLStdExceptionError)
