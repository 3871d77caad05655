#include "demo_sections.h"

int demoTree(std::ostream& os) {
    os << "[still to come] typed nodes and trees in the store, with the tree dump\n\n";
    return 0;
}
