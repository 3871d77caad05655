#include "HXLTranslated.h"

void hxl_translated::outOfMemory(const char* file, int line, const char* location) {
    hxl_detail::hurl(HXLFileLocation(file, line), HXLOutOfMemoryError(0, NULL), location);
}
