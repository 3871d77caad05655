// A depth-first walk over a tree of about one million application nodes (three levels of 100
// under the root) in the store, against the same walk over the same tree made of heap objects
// linked by pointers, measured in the same run:
//   (a) the store's budget holds the whole tree: the cost of mapping by offset and of the
//       references, against plain pointer chasing (target: at most 2 times the heap's time);
//   (b) the budget is a sixteenth of the tree: every walk pages the tree through memory.
// Each benchmark is repeated; the ratios printed at the end compare medians.
#include "BenchRatio.h"
#include "HXLVirtualNodeClass.h"
#include "HXLVirtualTree.h"
#include "HXLVirtualTreeNode.h"

#include <benchmark/benchmark.h>

#include <iostream>
#include <memory>
#include <stdexcept>

namespace {

const int kFanOut = 100; // children per node on each of the three levels
const unsigned long long kNodes = kFanOut + kFanOut * kFanOut + kFanOut * kFanOut * kFanOut;
const int kRepetitions = 5;

class WalkNode : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(WalkNode)
public:
    WalkNode() : m_value(0) {}
    unsigned int m_value;
};

// The baseline: the same links, as pointers, in heap objects of their own.
struct HeapNode {
    HeapNode* parent = nullptr;
    HeapNode* firstChild = nullptr;
    HeapNode* lastChild = nullptr;
    HeapNode* previousSibling = nullptr;
    HeapNode* nextSibling = nullptr;
    unsigned int childCount = 0;
    unsigned int value = 0;

    ~HeapNode() {
        for (HeapNode* child = firstChild; child != nullptr;) {
            HeapNode* next = child->nextSibling;
            delete child;
            child = next;
        }
    }
    void appendChild(HeapNode* child) {
        child->parent = this;
        child->previousSibling = lastChild;
        if (lastChild != nullptr)
            lastChild->nextSibling = child;
        else
            firstChild = child;
        lastChild = child;
        ++childCount;
    }
};

// Values are the nodes' numbers in depth-first order, so every walk has the same known sum.
const unsigned long long kExpectedSum = kNodes * (kNodes - 1) / 2;

// ---------------------------------------------------------------------------------------------

void buildHeapLevel(HeapNode* parent, int level, unsigned int& next) {
    for (int i = 0; i < kFanOut; ++i) {
        HeapNode* node = new HeapNode;
        node->value = next++;
        parent->appendChild(node);
        if (level < 3)
            buildHeapLevel(node, level + 1, next);
    }
}

HeapNode& heapTree() {
    static std::unique_ptr<HeapNode> root;
    if (!root) {
        root.reset(new HeapNode);
        unsigned int next = 0;
        buildHeapLevel(root.get(), 1, next);
    }
    return *root;
}

unsigned long long walkHeap(const HeapNode* node) {
    unsigned long long sum = 0;
    for (const HeapNode* child = node->firstChild; child != nullptr; child = child->nextSibling)
        sum += child->value + walkHeap(child);
    return sum;
}

void buildStoreLevel(HXLVirtualTree& tree, HXLVirtualTreeNode* parent, int level,
                     unsigned int& next) {
    for (int i = 0; i < kFanOut; ++i) {
        WalkNode* node = static_cast<WalkNode*>(WalkNode::create(&tree));
        node->m_value = next++;
        parent->appendChild(node);
        if (level < 3)
            buildStoreLevel(tree, node, level + 1, next);
        node->dismiss();
    }
}

std::unique_ptr<HXLVirtualTree> buildStoreTree(unsigned int budget) {
    std::unique_ptr<HXLVirtualTree> tree(new HXLVirtualTree(budget, 0, 0));
    unsigned int next = 0;
    buildStoreLevel(*tree, tree->getRootNode(), 1, next);
    return tree;
}

// One reference per depth, moved along each list.
unsigned long long walkStore(HXLVirtualTreeNode* node) {
    unsigned long long sum = 0;
    for (HXLVirtualTreeNode* child = node->getFirstChild(); child != nullptr;
         child = child->getNextSibling(1))
        sum += static_cast<WalkNode*>(child)->m_value + walkStore(child);
    return sum;
}

// The stored size of the tree: what the budget of (a) must hold and (b) a sixteenth of.
const unsigned long long kTreeBytes = kNodes * sizeof(WalkNode);

HXLVirtualTree& residentTree() {
    static std::unique_ptr<HXLVirtualTree> tree =
        buildStoreTree(static_cast<unsigned int>(kTreeBytes * 2));
    return *tree;
}

HXLVirtualTree& pagedTree() {
    static std::unique_ptr<HXLVirtualTree> tree =
        buildStoreTree(static_cast<unsigned int>(kTreeBytes / 16));
    return *tree;
}

void check(unsigned long long sum) {
    if (sum != kExpectedSum)
        throw std::runtime_error("the walk did not see the tree it built");
}

void BM_HeapWalk(benchmark::State& state) {
    const HeapNode& root = heapTree();
    for (auto _ : state) {
        unsigned long long sum = walkHeap(&root);
        benchmark::DoNotOptimize(sum);
        check(sum);
    }
    state.SetItemsProcessed(static_cast<long long>(state.iterations() * kNodes));
}

void BM_StoreWalkResident(benchmark::State& state) {
    HXLVirtualTree& tree = residentTree();
    walkStore(tree.getRootNode()); // after the build, before timing: every span in memory
    for (auto _ : state) {
        unsigned long long sum = walkStore(tree.getRootNode());
        benchmark::DoNotOptimize(sum);
        check(sum);
    }
    state.SetItemsProcessed(static_cast<long long>(state.iterations() * kNodes));
}

void BM_StoreWalkPaged(benchmark::State& state) {
    HXLVirtualTree& tree = pagedTree();
    for (auto _ : state) {
        unsigned long long sum = walkStore(tree.getRootNode());
        benchmark::DoNotOptimize(sum);
        check(sum);
    }
    state.SetItemsProcessed(static_cast<long long>(state.iterations() * kNodes));
}

BENCHMARK(BM_HeapWalk)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(kRepetitions)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_StoreWalkResident)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(kRepetitions)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_StoreWalkPaged)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(kRepetitions)
    ->ReportAggregatesOnly(true);

} // namespace

int main(int argc, char** argv) {
    std::cout << "tree of " << kNodes << " nodes, " << kTreeBytes << " bytes in the store\n";
    MedianReporter reporter;
    if (!runBenchmarks(argc, argv, reporter))
        return 1;
    printCost(reporter, "BM_StoreWalkResident", "BM_HeapWalk", 2.0,
              "resident walk, times the heap tree's time");
    printCost(reporter, "BM_StoreWalkPaged", "BM_HeapWalk", 0,
              "walk through a sixteenth of the tree's size, the same figure");
    return 0;
}
