// Helpers shared by the node and string tests: the store's count of objects that hold a
// reference, and small application node classes declared the way applications declare them.
#ifndef NODES_TEST_UTIL_H
#define NODES_TEST_UTIL_H

#include "HXLVirtualMemoryMgr.h"
#include "HXLVirtualNodeClass.h"
#include "HXLVirtualTree.h"
#include "HXLVirtualTreeNode.h"

#include <sstream>
#include <string>

// Objects of the store whose reference count is above 0, read from the line the mapper report
// writes whenever there are any.
inline unsigned long long outstandingReferences(HXLVirtualMemoryMgr* memMgr) {
    std::ostringstream report;
    memMgr->dumpMapper(report, 0);
    const std::string marker = "Total Objects with reference count > 0 : ";
    const std::string text = report.str();
    const std::string::size_type at = text.find(marker);
    if (at == std::string::npos)
        return 0;
    return std::stoull(text.substr(at + marker.size()));
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

// The classes of the dump example.
class Book : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Book)
};

class Chapter : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Chapter)
};

class Note : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Note)
};

// A class with fields, its own dump text and an onInit that records what it saw.
class Tally : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(Tally)
public:
    Tally() : m_value(0), m_initCalls(0), m_offsetAtInit(0), m_containerAtInit(NULL) {}
    void dump(std::ostream& os) override { os << "[value=" << m_value << "]"; }
    void onInit() override {
        ++m_initCalls;
        m_offsetAtInit = getPageOffset();
        m_containerAtInit = getContainer();
    }
    long long m_value;
    int m_initCalls;
    unsigned long long m_offsetAtInit;
    HXLVirtualContainer* m_containerAtInit;
};

#endif
