#ifndef DEMO_SECTIONS_H
#define DEMO_SECTIONS_H

#include <ostream>

// One section of the demo per subsystem; each writes what it shows to `os` and returns 0 when
// everything it checked came out right.
int demoCore(std::ostream& os);
int demoStore(std::ostream& os);
int demoTree(std::ostream& os);
int demoStrings(std::ostream& os);
int demoFile(std::ostream& os);
int demoHeap(std::ostream& os);

#endif
