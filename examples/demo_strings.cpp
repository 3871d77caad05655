#include "demo_sections.h"

int demoStrings(std::ostream& os) {
    os << "[still to come] string handles with their bytes in the store\n\n";
    return 0;
}
