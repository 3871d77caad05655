// A program that uses the installed package the way an application would.
#include "HXLCore.h"
#include "HXLVirtualMemMgmtVersion.h"

#include <cstdio>
#include <cstring>

int main() {
    I18NString text("installed", nullptr, -1, nullptr, nullptr);
    int length = 0;
    const char* utf8 = text.c_str(nullptr, &length, nullptr, nullptr);
    if (std::strcmp(utf8, "installed") != 0 || length != 10)
        return 1;
    std::printf("consumer OK, library %s\n", HXLVirtualMemMgmtVersion());
    return 0;
}
