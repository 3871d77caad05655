#include "demo_sections.h"

int demoFile(std::ostream& os) {
    os << "[still to come] the paged file with gzip compression\n\n";
    return 0;
}
