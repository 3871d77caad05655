#ifndef HXLTRANSLATED_H
#define HXLTRANSLATED_H

// Internal to the library: the translation guard around one step, written once. Not part of
// the interface.
#include "HXLCore.h"

#include <cstddef>
#include <utility>

namespace hxl_translated {

// Runs `step` under the translation guard: an HXLThrowable goes on with a back-trace frame,
// std::bad_alloc becomes HXLOutOfMemoryError and any other std::exception HXLStdExceptionError,
// with `location` (may be null) as the frame's function name.
template <class Step> auto run(const char* location, Step step) -> decltype(step()) {
    HXL_TRY {
        return step();
    }
    HXL_TRANSLATE(location);
}

// HXL_THROW of HXLOutOfMemoryError(0, NULL) at line `line` of `file`, with `location` as the
// frame's function name. Out of line, so that the functions that inline `required` keep no
// exception object in their frames.
[[noreturn, gnu::cold]] void outOfMemory(const char* file, int line, const char* location);

// An address that must not be null (from the store, or an allocation function that gives null
// instead of throwing): HXLOutOfMemoryError when it is.
template <class T> T* required(T* address, const char* location) {
    if (address == NULL)
        outOfMemory(__FILE__, __LINE__, location);
    return address;
}

// `new T(args...)` under the translation guard; a null result (from an allocation function
// that gives null instead of throwing) is HXLOutOfMemoryError as well. Never null.
template <class T, class... Args> T* make(const char* location, Args&&... args) {
    return required(run(location, [&] { return new T(std::forward<Args>(args)...); }), location);
}

} // namespace hxl_translated

#endif
