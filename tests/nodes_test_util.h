// Helpers shared by the node and string tests: what the mapper report says about references and
// paging, assertion texts, and making nodes of a class.
#ifndef NODES_TEST_UTIL_H
#define NODES_TEST_UTIL_H

#include "HXLVirtualMemoryMgr.h"
#include "HXLVirtualNodeClass.h"
#include "HXLVirtualTree.h"
#include "HXLVirtualTreeNode.h"

#include <sstream>
#include <string>

// Objects of the store whose reference count is above 0, from the line the mapper report
// writes whenever there are any.
inline unsigned long long outstandingReferences(HXLVirtualMemoryMgr* memMgr) {
    std::ostringstream report;
    memMgr->dumpMapper(report, 0);
    const std::string marker = "Total Objects with reference count > 0 : ", text = report.str();
    const std::string::size_type at = text.find(marker);
    return at == std::string::npos ? 0 : std::stoull(text.substr(at + marker.size()));
}

// Whether any page of the store has been written out.
inline bool pagedOut(HXLVirtualMemoryMgr* memMgr) {
    std::ostringstream report;
    memMgr->dumpMapper(report, HXLVirtualMemoryMgr::eDumpStats);
    return report.str().find("Page Outs: 0\n") == std::string::npos;
}

// The text of the HXLAssertError that `call` raises, or "no assertion".
template <class Call> std::string assertionText(Call call) {
    try {
        call();
    } catch (const HXLAssertError& e) {
        return e.what();
    }
    return "no assertion";
}

// A new node of class T with one reference held.
template <class T> T* make(HXLVirtualContainer& container) {
    return static_cast<T*>(T::create(&container));
}

#endif
