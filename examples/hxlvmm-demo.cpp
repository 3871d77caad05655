// hxlvmm-demo: a tour of the library. Each section shows one subsystem at work and checks what
// it shows; the program exits non-zero if any check fails.
#include "HXLVirtualMemMgmtVersion.h"
#include "demo_sections.h"

#include <iostream>

int main() {
    std::cout << "HXLVirtualMemMgmt " << HXLVirtualMemMgmtVersion() << " demo\n\n";
    int failures = 0;
    failures += demoCore(std::cout);
    failures += demoStore(std::cout);
    failures += demoTree(std::cout);
    failures += demoStrings(std::cout);
    failures += demoFile(std::cout);
    failures += demoHeap(std::cout);
    std::cout << (failures == 0 ? "demo: all checks passed" : "demo: CHECKS FAILED") << std::endl;
    return failures == 0 ? 0 : 1;
}
