#include "HXLVirtualMemMgmtVersion.h"

const char* HXLVirtualMemMgmtVersion() {
    return HXL_VERSION_STRING;
}
