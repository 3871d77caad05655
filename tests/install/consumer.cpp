// A program that uses the installed package the way an application would: the store, the core
// strings and the version, through headers included by bare name. The library it runs with must
// be the version its headers name.
#include "HXLCore.h"
#include "HXLVirtualMemMgmtVersion.h"
#include "HXLVirtualMemoryMgr.h"

#include <cstdio>
#include <cstring>
#include <string>

int main() {
    HXLVirtualMemoryMgr store(1 << 16, 0, 0);
    HXLVirtualPageItem item;
    std::strcpy(static_cast<char*>(store.alloc(16, item)), "installed");
    store.dismiss(item);
    I18NString text(static_cast<const char*>(store.getAddress(item, 1)), nullptr, -1, nullptr,
                    nullptr);
    store.dismiss(item);
    int length = 0;
    if (std::strcmp(text.c_str(nullptr, &length, nullptr, nullptr), "installed") != 0 ||
        length != 10)
        return 1;
    const std::string numbers = std::to_string(HXL_VIRTUALMEMMGMT_VERSION_MAJOR) + "." +
                                std::to_string(HXL_VIRTUALMEMMGMT_VERSION_MINOR) + "." +
                                std::to_string(HXL_VIRTUALMEMMGMT_VERSION_PATCH);
    if (numbers != HXL_VIRTUALMEMMGMT_VERSION_STRING ||
        std::strcmp(HXLVirtualMemMgmtVersion(), HXL_VIRTUALMEMMGMT_VERSION_STRING) != 0)
        return 2;
    std::printf("consumer OK, library %s\n", HXLVirtualMemMgmtVersion());
    return 0;
}
