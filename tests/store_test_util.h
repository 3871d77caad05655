// What the tests of the core, the store and what is built on it share: the headers, what the
// mapper report says about paging, what an operation throws, and the driver of the models.
#ifndef STORE_TEST_UTIL_H
#define STORE_TEST_UTIL_H

#include "HXLVirtualI18NString.h"
#include "HXLVirtualNodeClass.h"
#include "HXLVirtualTree.h"
#include "HXLVirtualTreeNode.h"
#include "HXLVirtualUTF8String.h"
#include "fuzz_util.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>

// Whether any page of the store has been written out.
inline bool pagedOut(HXLVirtualMemoryMgr* memMgr) {
    return mapperReport(*memMgr, HXLVirtualMemoryMgr::eDumpStats).find("Page Outs: 0\n") ==
           std::string::npos;
}

// Writes `count` objects of `size` bytes and lets go of each: with enough of them every unheld
// object leaves memory.
inline void churn(HXLVirtualMemoryMgr& memMgr, unsigned count, unsigned size) {
    for (unsigned i = 0; i < count; ++i) {
        HXLVirtualPageItem item;
        std::memset(memMgr.alloc(size, item), 'a' + i % 26, size);
        memMgr.dismiss(item);
    }
}

// What `call` throws, as "kind: text" and then the back-trace, oldest frame first, each as
// " <- macro" with " function" when one was given; "nothing" if it returns.
template <class Call> std::string thrown(Call call) {
    try {
        call();
    } catch (const HXLThrowable& e) {
        std::string out = dynamic_cast<const HXLAssertError*>(&e)         ? "assert: "
                          : dynamic_cast<const HXLOutOfMemoryError*>(&e)  ? "memory: "
                          : dynamic_cast<const HXLIllegalStateError*>(&e) ? "state: "
                          : dynamic_cast<const HXLStdExceptionError*>(&e) ? "std: "
                                                                          : "other: ";
        out += e.what();
        for (const HXLBackTraceFrame& frame : e.getBackTrace())
            out += " <- " + frame.macro + (frame.function.empty() ? "" : " " + frame.function);
        return out;
    }
    return "nothing";
}

// The subsystem's fuzz target, compiled into its test program, run on `inputs` pseudo-random
// programs of up to `maxSize` bytes, each seeded by its number.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
inline void runModel(unsigned inputs, size_t maxSize) {
    for (unsigned seed = 1; seed <= inputs && !::testing::Test::HasFailure(); ++seed) {
        std::mt19937 random(seed);
        std::vector<uint8_t> input(1 + random() % maxSize);
        for (uint8_t& byte : input)
            byte = static_cast<uint8_t>(random());
        EXPECT_NO_THROW(LLVMFuzzerTestOneInput(input.data(), input.size())) << "input " << seed;
    }
}

#endif
