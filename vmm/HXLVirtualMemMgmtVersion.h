#ifndef HXLVIRTUALMEMMGMTVERSION_H
#define HXLVIRTUALMEMMGMTVERSION_H

// The library's version as "major.minor.patch"; a static string owned by the library.
const char* HXLVirtualMemMgmtVersion();

#endif
