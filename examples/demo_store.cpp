#include "HXLVirtualMemoryMgr.h"
#include "demo_sections.h"

#include <cstring>
#include <vector>

// The paged store: four megabytes of records written into a store whose resident budget is
// half a megabyte, read back and checked, then the store's own report.
int demoStore(std::ostream& os) {
    const unsigned int budget = 512 * 1024;
    const unsigned int recordSize = 1000;
    const unsigned int records = 4096;
    os << "== Paged store ==\n";
    os << "writing " << records << " records of " << recordSize << " bytes ("
       << records * recordSize / 1024 << " KiB) into a store with a " << budget / 1024
       << " KiB budget\n";

    HXLVirtualMemoryMgr store(budget, 0, 0);
    std::vector<HXLVirtualPageItem> items(records);
    for (unsigned int i = 0; i < records; ++i) {
        unsigned char* p = static_cast<unsigned char*>(store.alloc(recordSize, items[i]));
        for (unsigned int b = 0; b < recordSize; ++b)
            p[b] = static_cast<unsigned char>(i * 31 + b);
        store.dismiss(items[i]); // from here on the record may leave memory
    }

    unsigned int wrong = 0;
    for (unsigned int i = 0; i < records; ++i) {
        const unsigned char* p = static_cast<unsigned char*>(store.getAddress(items[i], 1));
        for (unsigned int b = 0; b < recordSize; ++b)
            wrong += p[b] != static_cast<unsigned char>(i * 31 + b);
        store.dismiss(items[i]);
    }
    os << "read back: " << (wrong == 0 ? "every byte as written" : "WRONG BYTES") << "\n\n";

    // Equal contents share one object through the page item pool.
    HXLVirtualPageItem a, b;
    const char text[] = "shared through the page item pool";
    store.allocUsingPool(text, sizeof(text), a);
    store.allocUsingPool(text, sizeof(text), b);
    os << "two equal blocks, one object: " << (a.getOffset() == b.getOffset() ? "yes" : "NO")
       << "\n\n";

    store.dumpMapper(os, HXLVirtualMemoryMgr::eDumpStats | HXLVirtualMemoryMgr::eDumpMapper);
    for (HXLVirtualPageItem& item : items)
        store.free(item);
    return (wrong != 0) + (a.getOffset() != b.getOffset());
}
