#include "demo_sections.h"

int demoHeap(std::ostream& os) {
    os << "[still to come] the heap allocators (memory pool, fixed pool, arena)\n\n";
    return 0;
}
