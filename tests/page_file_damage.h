// Read errors from above the manager, for tests and fuzz targets: the store's page file is
// unlinked but open, so it is found among this process's descriptors by the name the report
// gives, and cut to nothing. Every page-in from it then fails its check and the store gives null.
#ifndef PAGE_FILE_DAMAGE_H
#define PAGE_FILE_DAMAGE_H

#include "HXLVirtualMemoryMgr.h"

#include <dirent.h>
#include <unistd.h>

#include <sstream>
#include <string>

// The descriptor of the page file of `memMgr`, or -1 before its first page-out.
inline int pageFileDescriptor(HXLVirtualMemoryMgr& memMgr) {
    std::ostringstream report;
    memMgr.dumpMapper(report, HXLVirtualMemoryMgr::eDumpStats);
    const std::string marker = "Paging File - ", text = report.str();
    const std::string::size_type at = text.find(marker);
    if (at == std::string::npos)
        return -1;
    const std::string::size_type from = at + marker.size();
    const std::string wanted = text.substr(from, text.find('\n', from) - from) + " (deleted)";
    int found = -1;
    if (DIR* fds = ::opendir("/proc/self/fd")) {
        while (const dirent* entry = ::readdir(fds)) {
            char target[4096];
            const std::string link = std::string("/proc/self/fd/") + entry->d_name;
            const ssize_t length = ::readlink(link.c_str(), target, sizeof(target));
            if (length > 0 && std::string(target, static_cast<size_t>(length)) == wanted)
                found = std::stoi(entry->d_name);
        }
        ::closedir(fds);
    }
    return found;
}

// Cuts the page file to nothing; false if there is none yet.
inline bool damagePageFile(HXLVirtualMemoryMgr& memMgr) {
    const int fd = pageFileDescriptor(memMgr);
    return fd >= 0 && ::ftruncate(fd, 0) == 0;
}

#endif
