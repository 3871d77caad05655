// Queries over a file index as an application keeps it: 63,000 records of about 17 text fields,
// parsed from a generated "key=value" index into a tree (root -> record -> one node per field,
// each field node holding its name and value as HXLVirtualUTF8String), against the same index
// parsed into std::vector<Record> with std::string fields, measured in the same run.
//
// Four queries walk the records, find fields by name and compare strings; each checks its
// answer against the baseline's. Only the queries are timed: both indexes are built before.
// The store runs (a) with a 16 MiB budget, a small part of the index, so every query pages the
// index through memory, and (b) with a budget that holds everything, the resident path alone.
// Each benchmark is repeated; the ratios printed at the end compare medians. The heap queries
// are bound by memory bandwidth and move with the machine's load: on a shared machine run with
// --benchmark_enable_random_interleaving=true, so that both sides see the same conditions.
#include "BenchRatio.h"
#include "HXLVirtualNodeClass.h"
#include "HXLVirtualTree.h"
#include "HXLVirtualTreeNode.h"
#include "HXLVirtualUTF8String.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

const int kRecords = 63000;
const int kQueries = 4;
const int kRepetitions = 5;
const unsigned int kPagedBudget = 16u << 20;      // bytes; the index takes over ten times that
const unsigned int kResidentBudget = 1024u << 20; // bytes; holds the whole index

// ---------------------------------------------------------------------------------------------
// The text index: one "key=value" line per field, a blank line after each record. The same
// seed gives the same bytes on every run and machine.

class Random { // splitmix64
public:
    explicit Random(unsigned long long seed) : m_state(seed) {}
    unsigned long long next() {
        unsigned long long z = (m_state += 0x9E3779B97F4A7C15ULL);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31);
    }
    unsigned below(unsigned n) { return static_cast<unsigned>(next() % n); }
    const char* pick(std::initializer_list<const char*> from) {
        return from.begin()[below(static_cast<unsigned>(from.size()))];
    }

private:
    unsigned long long m_state;
};

// "2015-01-01T00:00:00Z" to "2024-12-28T23:59:59Z".
std::string date(Random& rng) {
    const unsigned span[6] = {10, 12, 28, 24, 60, 60}, first[6] = {15, 1, 1, 0, 0, 0};
    unsigned part[6];
    for (int i = 0; i < 6; ++i)
        part[i] = first[i] + rng.below(span[i]);
    char text[32];
    std::snprintf(text, sizeof text, "20%02u-%02u-%02uT%02u:%02u:%02uZ", part[0], part[1], part[2],
                  part[3], part[4], part[5]);
    return text;
}

std::string makeIndex() {
    std::string out;
    auto put = [&out](const char* key, const std::string& value) {
        out.append(key).append("=").append(value).append("\n");
    };
    Random rng(20240611);
    char id[16];
    for (int i = 0; i < kRecords; ++i) { // one draw per statement, so their order is fixed
        const std::string owner = rng.pick({"ana", "bo", "chen", "dara", "eli", "farah", "gus",
                                            "hana", "ivo", "jun", "kai", "lena", "zo\xC3\xAB"});
        const std::string ext =
            rng.pick({"txt", "pdf", "cpp", "h", "png", "jpg", "md", "json", "csv", "tar.gz"});
        std::string file = rng.pick({"report", "draft", "invoice", "summary", "photo", "main",
                                     "config", "backup", "caf\xC3\xA9"});
        file += "-" + std::to_string(rng.below(1000)) + "." + ext;
        std::snprintf(id, sizeof id, "rec-%06d", i);
        put("id", id);
        put("name", file);
        put("path", "/home/" + owner + "/" +
                        rng.pick({"docs", "src", "music", "projects/hxl", "tmp"}) + "/" + file);
        put("kind",
            rng.pick({"file", "file", "file", "file", "file", "dir", "dir", "link", "fifo"}));
        put("owner", owner);
        put("group", rng.pick({"staff", "users", "wheel", "dev", "audio"}));
        put("size", std::to_string(rng.next() % 50000000));
        put("mode", rng.pick({"0644", "0755", "0600", "0640"}));
        put("created", date(rng));
        put("modified", date(rng));
        put("ext", ext);
        put("inode", std::to_string(rng.next() % 100000000));
        put("links", std::to_string(1 + rng.below(4)));
        put("device", rng.pick({"sda1", "sdb2", "nvme0n1p2", "nvme1n1p1"}));
        put("checksum", std::to_string(rng.next()));
        put("tag", rng.pick({"work", "home", "urgent", "old", "shared", "review"}));
        if (rng.below(4) != 0) // three records in four carry a note: 16.75 fields on average
            put("note", std::string(rng.pick({"draft", "final", "shared"})) + " copy for " + owner);
        out += '\n';
    }
    return out;
}

// Hands each field of `text` to sink.field(key, value) and each record's end to sink.end().
template <class Sink> void parseIndex(std::string_view text, Sink& sink) {
    while (!text.empty()) {
        const size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        const size_t equals = line.find('=');
        if (line.empty())
            sink.end();
        else if (equals != std::string_view::npos)
            sink.field(line.substr(0, equals), line.substr(equals + 1));
    }
}

// ---------------------------------------------------------------------------------------------
// The baseline: the same records on the heap.

struct Field {
    std::string name;
    std::string value;
};
struct Record {
    std::vector<Field> fields;
};

struct HeapSink {
    std::vector<Record>& records;
    bool open = false;
    void field(std::string_view key, std::string_view value) {
        if (!open)
            records.emplace_back();
        open = true;
        records.back().fields.push_back(Field{std::string(key), std::string(value)});
    }
    void end() { open = false; }
};

const std::string& indexText() {
    static const std::string text = makeIndex();
    return text;
}

const std::vector<Record>& heapRecords() {
    static const std::vector<Record> records = [] {
        std::vector<Record> built;
        built.reserve(kRecords);
        HeapSink sink{built};
        parseIndex(indexText(), sink);
        return built;
    }();
    return records;
}

// Heap bytes of the baseline: records, field arrays, and string bytes beyond the inline buffer.
size_t heapBytes(const std::vector<Record>& records) {
    size_t bytes = records.capacity() * sizeof(Record);
    for (const Record& record : records) {
        bytes += record.fields.capacity() * sizeof(Field);
        for (const Field& field : record.fields)
            for (const std::string* s : {&field.name, &field.value})
                bytes += s->capacity() > 15 ? s->capacity() + 1 : 0;
    }
    return bytes;
}

const Field* findField(const Record& record, const std::string& name) {
    for (const Field& field : record.fields)
        if (field.name == name)
            return &field;
    return nullptr;
}

// The queries; each answer is given as text so that one check serves all four.
const std::string kPrefix = "/home/ana/projects/";
const std::string kOwner = "zo\xC3\xAB";
const std::string kWantedId = "rec-047251";

std::string heapQuery(const std::vector<Record>& records, int query) {
    unsigned long long answer = 0;
    for (const Record& record : records) {
        if (query == 0) { // records of kind "file"
            const Field* kind = findField(record, "kind");
            answer += kind != nullptr && kind->value == "file";
        } else if (query == 1) { // records under a path prefix
            const Field* path = findField(record, "path");
            answer += path != nullptr && path->value.compare(0, kPrefix.size(), kPrefix) == 0;
        } else if (query == 2) { // bytes owned by one user
            const Field* owner = findField(record, "owner");
            const Field* size =
                owner != nullptr && owner->value == kOwner ? findField(record, "size") : nullptr;
            answer += size != nullptr ? std::strtoull(size->value.c_str(), nullptr, 10) : 0;
        } else { // the name of the record with a given id
            const Field* id = findField(record, "id");
            if (id != nullptr && id->value == kWantedId) {
                const Field* name = findField(record, "name");
                return name != nullptr ? name->value : std::string();
            }
        }
    }
    return query == 3 ? std::string() : std::to_string(answer);
}

// ---------------------------------------------------------------------------------------------
// The store: a record node per record, a field node per field. Every node and payload mapped
// below is dismissed once; navigation with getNextSibling(1) moves one reference along a list.

class RecordNode : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(RecordNode)
};

class FieldNode : public HXLVirtualTreeNode {
    HXL_VIRTUAL_NODE_CLASS(FieldNode)
public:
    HXLVirtualUTF8String m_name;
    HXLVirtualUTF8String m_value;
};

I18NString text(std::string_view utf8) {
    return I18NString(utf8.data(), nullptr, static_cast<int>(utf8.size()), nullptr, nullptr);
}

struct StoreSink {
    HXLVirtualTree& tree;
    HXLVirtualTreeNode* record = nullptr; // held while its fields are appended
    void field(std::string_view key, std::string_view value) {
        if (record == nullptr) {
            record = static_cast<HXLVirtualTreeNode*>(tree.createNode(RecordNode::getClassId()));
            tree.getRootNode()->appendChild(record);
        }
        FieldNode* field = static_cast<FieldNode*>(tree.createNode(FieldNode::getClassId()));
        field->m_name.setString(text(key), &tree);
        field->m_value.setString(text(value), &tree);
        record->appendChild(field);
        field->dismiss();
    }
    void end() {
        if (record != nullptr)
            record->dismiss();
        record = nullptr;
    }
};

std::unique_ptr<HXLVirtualTree> buildStore(unsigned int budget) {
    std::unique_ptr<HXLVirtualTree> tree(new HXLVirtualTree(budget, 0, 0));
    tree->registerNodeCreator(RecordNode::getClassId(), RecordNode::create);
    tree->registerNodeCreator(FieldNode::getClassId(), FieldNode::create);
    StoreSink sink{*tree};
    parseIndex(indexText(), sink);
    sink.end();
    return tree;
}

// The field of `record` named `name`, with one reference held, or null.
FieldNode* findField(HXLVirtualTree& tree, HXLVirtualTreeNode* record, const I18NString& name) {
    for (HXLVirtualTreeNode* node = record->getFirstChild(); node != nullptr;
         node = node->getNextSibling(1)) {
        FieldNode* field = static_cast<FieldNode*>(node);
        if (field->m_name.isEqual(name, &tree) != 0)
            return field;
    }
    return nullptr;
}

bool startsWith(HXLVirtualTree& tree, HXLVirtualUTF8String& value, const std::string& prefix) {
    if (value.getSize() < prefix.size())
        return false;
    const void* bytes = value.getObjectPtr(&tree);
    const bool yes = bytes != nullptr && std::memcmp(bytes, prefix.data(), prefix.size()) == 0;
    if (bytes != nullptr)
        tree.dismiss(value);
    return yes;
}

std::string utf8(const I18NString& value) {
    int length = 0;
    const char* bytes = value.c_str(nullptr, &length, nullptr, nullptr);
    return std::string(bytes, static_cast<size_t>(length - 1));
}

std::string storeQuery(HXLVirtualTree& tree, int query) {
    const I18NString kind = text("kind"), file = text("file"), path = text("path");
    const I18NString owner = text("owner"), wantedOwner = text(kOwner), size = text("size");
    const I18NString id = text("id"), wantedId = text(kWantedId), name = text("name");
    unsigned long long answer = 0;
    for (HXLVirtualTreeNode* record = tree.getRootNode()->getFirstChild(); record != nullptr;
         record = record->getNextSibling(1)) {
        FieldNode* found = nullptr;
        if (query == 0) {
            found = findField(tree, record, kind);
            answer += found != nullptr && found->m_value.isEqual(file, &tree) != 0;
        } else if (query == 1) {
            found = findField(tree, record, path);
            answer += found != nullptr && startsWith(tree, found->m_value, kPrefix);
        } else if (query == 2) {
            found = findField(tree, record, owner);
            if (found != nullptr && found->m_value.isEqual(wantedOwner, &tree) != 0) {
                found->dismiss();
                found = findField(tree, record, size);
                if (found != nullptr) // the number as text, read through the string's own copy
                    answer +=
                        std::strtoull(utf8(found->m_value.getString(&tree)).c_str(), nullptr, 10);
            }
        } else {
            found = findField(tree, record, id);
            if (found != nullptr && found->m_value.isEqual(wantedId, &tree) != 0) {
                found->dismiss();
                found = findField(tree, record, name);
                const std::string result =
                    found != nullptr ? utf8(found->m_value.getString(&tree)) : std::string();
                if (found != nullptr)
                    found->dismiss();
                record->dismiss();
                return result;
            }
        }
        if (found != nullptr)
            found->dismiss();
    }
    return query == 3 ? std::string() : std::to_string(answer);
}

std::string expected[kQueries]; // the baseline's answers, found before any run

void check(const std::string& answer, int query) {
    if (answer != expected[query])
        throw std::runtime_error("query " + std::to_string(query) + " answered \"" + answer +
                                 "\", the baseline \"" + expected[query] + "\": check the bytes");
}

HXLVirtualTree& store(unsigned int budget) {
    static std::unique_ptr<HXLVirtualTree> paged, resident;
    std::unique_ptr<HXLVirtualTree>& tree = budget == kPagedBudget ? paged : resident;
    if (!tree)
        tree = buildStore(budget);
    return *tree;
}

void heapBenchmark(benchmark::State& state) {
    const int query = static_cast<int>(state.range(0));
    for (auto _ : state)
        check(heapQuery(heapRecords(), query), query);
}

void storeBenchmark(benchmark::State& state, unsigned int budget) {
    const int query = static_cast<int>(state.range(0));
    HXLVirtualTree& tree = store(budget);
    check(storeQuery(tree, query), query); // untimed: the first walk after the build
    for (auto _ : state)
        check(storeQuery(tree, query), query);
    tree.getMemoryMgr()->throwExceptionOnReferenceLeak(); // every mapping was dismissed
}

// How many times the baseline's median time `subject` takes, per query and for the four
// together (the sums of the medians).
void printSlowdown(const MedianReporter& reporter, const std::string& subject, double target) {
    double time[kQueries + 1] = {}, base[kQueries + 1] = {};
    for (int q = 0; q < kQueries; ++q) {
        const std::string arg = "/" + std::to_string(q);
        const auto s = reporter.medians.find(subject + arg);
        const auto b = reporter.medians.find("BM_HeapQuery" + arg);
        if (s == reporter.medians.end() || b == reporter.medians.end())
            return; // filtered out
        time[kQueries] += time[q] = s->second;
        base[kQueries] += base[q] = b->second;
    }
    for (int q = 0; q <= kQueries; ++q) {
        const std::string arg = q < kQueries ? "/" + std::to_string(q) : "/all";
        const double ratio = time[q] / base[q];
        std::cout << subject << arg << " vs BM_HeapQuery" << arg << " = " << ratio
                  << " times the baseline's time (target <= " << target << ", "
                  << (ratio <= target ? "met" : "NOT met") << ")\n";
    }
}

} // namespace

int main(int argc, char** argv) {
    HXLVirtualMemoryMgr::setExceptionOnReferenceLeak(1);
    benchmark::internal::Benchmark* const runs[] = {
        benchmark::RegisterBenchmark("BM_HeapQuery", heapBenchmark),
        benchmark::RegisterBenchmark("BM_StoreQuery", storeBenchmark, kPagedBudget),
        benchmark::RegisterBenchmark("BM_StoreQueryResident", storeBenchmark, kResidentBudget)};
    for (benchmark::internal::Benchmark* run : runs)
        run->DenseRange(0, kQueries - 1)
            ->Unit(benchmark::kMillisecond)
            ->Repetitions(kRepetitions)
            ->ReportAggregatesOnly(true);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    const std::vector<Record>& records = heapRecords();
    size_t fields = 0;
    for (const Record& record : records)
        fields += record.fields.size();
    std::cout << records.size() << " records, " << fields << " fields (" << records.size() + fields
              << " tree nodes), index text " << indexText().size() / 1024 << " KiB\n"
              << "store budget " << (kPagedBudget >> 20) << " MiB (paged) and "
              << (kResidentBudget >> 20) << " MiB (resident); baseline about "
              << heapBytes(records) / (1024 * 1024) << " MiB on the heap\nanswers:";
    for (int q = 0; q < kQueries; ++q)
        std::cout << " \"" << (expected[q] = heapQuery(records, q)) << "\"";
    std::cout << "\n";
    MedianReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    printSlowdown(reporter, "BM_StoreQuery", 2.0);
    printSlowdown(reporter, "BM_StoreQueryResident", 2.0);
    return 0;
}
