#include "HXLVirtualMemMgmtVersion.h"

const char* HXLVirtualMemMgmtVersion() {
    return HXL_VIRTUALMEMMGMT_VERSION_STRING;
}
