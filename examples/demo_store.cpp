#include "demo_sections.h"

int demoStore(std::ostream& os) {
    os << "[still to come] the paged store (allocate, page out, page in, statistics)\n\n";
    return 0;
}
