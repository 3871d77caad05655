// Leaving memory and coming back: the sweep, the batch of writes, read-ahead, the scan queue
// and fingerprints taken on release (Engine.h, design rules 4, 8 to 13).
#include "Engine.h"

#include <algorithm>
#include <climits>

namespace tcmalloc {

// Makes room until `incoming` more bytes fit in the budget with a batch's worth to spare
// (rule 10), or nothing unpinned is left. Spans read in file order and used once go first, oldest
// first (rule 12); then the clock sweeps. False only when a write failed (rule 8).
bool VirtualMemoryPool::Engine::makeRoom(unsigned long long incoming) {
    if (m_residentBytes + incoming <= m_budget)
        return true;
    const unsigned long long goal = m_budget - spare();
    auto needMore = [&] {
        return m_residentBytes - m_batchBytes + incoming > goal &&
               m_unpinnedResident > m_batch.size();
    };
    while (needMore() && !m_scanQueue.empty()) {
        const ScanEntry entry = m_scanQueue.front();
        m_scanQueue.pop_front();
        Span* span = entry.span;
        if (!isCurrent(entry) || (span->flags & kScan) == 0)
            continue; // stale
        span->flags &= static_cast<unsigned char>(~(kScan | kScanUsed));
        if (span->pinCount == 0 && (span->flags & kInBatch) == 0 && !chooseVictim(span))
            return false;
    }
    while (needMore()) {
        Span* span = m_hand;
        m_hand = span->ringNext;
        if (span->pinCount > 0 || (span->flags & kInBatch) != 0)
            continue;
        if ((span->flags & kReferenced) != 0) {
            span->flags &= static_cast<unsigned char>(~kReferenced);
            continue;
        }
        if (!chooseVictim(span))
            return false;
    }
    return flushBatch();
}

// The unpinned span leaves memory: at once when its copy is exact or its bytes unchanged
// (rule 4), else through the batch. False only when flushing the batch failed.
bool VirtualMemoryPool::Engine::chooseVictim(Span* span) {
    if (span->copy != kCopyExact) {
        const bool taken = (span->flags & kPrintTaken) != 0;
        const unsigned long long print =
            taken ? span->fingerprint : fingerprint(span->memory, span->bytes());
        if (span->copy == kCopyNone || print != span->fingerprint) {
            m_batch.push_back({span, print, false}); // cannot throw: flushed at capacity
            span->flags = static_cast<unsigned char>((span->flags & ~kPrintTaken) | kInBatch);
            m_batchBytes += span->bytes();
            if (m_batchBytes >= kIoRunBytes || m_batch.size() == m_batch.capacity())
                return flushBatch();
            return true;
        }
        span->copy = kCopyExact; // mapped for writing, but not a byte changed
    }
    ++m_pageDrops;
    evict(span);
    return true;
}

// Writes the batch in runs of adjacent file slots; each span written leaves memory.
bool VirtualMemoryPool::Engine::flushBatch() {
    if (m_batch.empty())
        return true;
    const bool opened = m_file.open();
    for (BatchEntry& entry : m_batch) {
        Span* span = entry.span;
        if (opened && span->fileSlot == kNoSlot) {
            span->fileSlot = m_file.take(span->pageCount, span);
            entry.newSlot = span->fileSlot != kNoSlot;
        }
    }
    std::sort(m_batch.begin(), m_batch.end(), [](const BatchEntry& a, const BatchEntry& b) {
        return a.span->fileSlot < b.span->fileSlot;
    });
    bool allWritten = true;
    for (std::size_t first = 0, end; first < m_batch.size(); first = end) {
        // A run: slots that follow one another, as many as one gathered call takes.
        end = first + 1;
        while (end < m_batch.size() && end - first < IOV_MAX &&
               m_batch[end].span->fileSlot ==
                   m_batch[end - 1].span->fileSlot + m_batch[end - 1].span->pageCount)
            ++end;
        m_pieces.clear();
        for (std::size_t i = first; i < end; ++i)
            m_pieces.push_back({m_batch[i].span->memory, m_batch[i].span->bytes()});
        const unsigned slot = m_batch[first].span->fileSlot;
        const bool attempted = opened && slot != kNoSlot;
        const bool written =
            attempted && m_file.write(m_pieces.data(), static_cast<unsigned>(end - first), slot);
        allWritten &= written;
        for (std::size_t i = first; i < end; ++i) {
            Span* span = m_batch[i].span;
            span->flags &= static_cast<unsigned char>(~kInBatch);
            if (written) {
                span->fingerprint = m_batch[i].fingerprint;
                span->copy = kCopyExact;
                ++m_pageWrites;
                evict(span);
                continue;
            }
            if (m_batch[i].newSlot)
                giveFileSlot(span);
            else if (attempted)
                span->copy = kCopyNone; // its slot may now hold part of the new bytes (rule 8)
        }
    }
    m_batch.clear();
    m_batchBytes = 0;
    return allWritten;
}

// The span, unpinned and with an exact copy, leaves memory.
void VirtualMemoryPool::Engine::evict(Span* span) {
    ringRemove(span);
    --m_unpinnedResident;
    dropBuffer(span->memory, span->pageCount);
    m_records.give(span->refs, slotCount(span));
    span->memory = nullptr;
    span->refs = nullptr;
    span->flags &= static_cast<unsigned char>(~kReferenced);
    m_residentBytes -= span->bytes();
    m_pageOuts += span->pageCount;
}

// Returns the span's file slot for reuse.
void VirtualMemoryPool::Engine::giveFileSlot(Span* span) {
    m_file.give(span->fileSlot, span->pageCount);
    span->fileSlot = kNoSlot;
}

// Reads the span back, with the spans that follow it in the file when the reads go in file
// order (rule 11). False when the span itself cannot be read or is damaged (rule 9).
bool VirtualMemoryPool::Engine::pageIn(Span* span) {
    m_run.clear();
    m_run.push_back(span);
    unsigned long long runBytes = span->bytes();
    unsigned next = span->fileSlot + span->pageCount;
    const bool sequential = span->fileSlot == m_nextSequential;
    if (sequential) {
        const unsigned long long limit = std::min(kIoRunBytes, m_budget / 4);
        while (m_run.size() < m_run.capacity()) {
            Span* follower = static_cast<Span*>(const_cast<void*>(m_file.ownerAt(next)));
            if (follower == nullptr || follower->memory != nullptr ||
                runBytes + follower->bytes() > limit)
                break;
            m_run.push_back(follower);
            runBytes += follower->bytes();
            next += follower->pageCount;
        }
    }
    if (!makeRoom(runBytes))
        return false;
    // What is pinned may leave no room for reading ahead.
    while (m_run.size() > 1 && m_residentBytes + runBytes > m_budget) {
        runBytes -= m_run.back()->bytes();
        m_run.pop_back();
    }
    m_pieces.clear();
    for (Span* member : m_run) {
        bool recycled;
        char* memory = takeBuffer(member->pageCount, recycled);
        unsigned char* refs =
            memory ? static_cast<unsigned char*>(m_records.take(slotCount(member))) : nullptr;
        if (refs == nullptr) {
            if (memory != nullptr)
                dropBuffer(memory, member->pageCount);
            break;
        }
        for (unsigned slot = 0; slot < slotCount(member); ++slot)
            refs[slot] = member->isLive(slot) ? kCountZero : kFreeSlot;
        member->refs = refs;
        m_pieces.push_back({memory, member->bytes()});
    }
    m_run.resize(m_pieces.size());
    std::size_t readCount = 0;
    if (!m_pieces.empty() &&
        m_file.read(m_pieces.data(), static_cast<unsigned>(m_pieces.size()), span->fileSlot))
        readCount = m_pieces.size();
    else if (m_pieces.size() > 1 && m_file.read(m_pieces.data(), 1, span->fileSlot))
        readCount = 1; // the read-ahead failed; the span asked for may still be whole
    bool ok = false;
    for (std::size_t i = 0; i < m_run.size(); ++i) {
        Span* member = m_run[i];
        char* memory = static_cast<char*>(m_pieces[i].iov_base);
        if (i >= readCount || fingerprint(memory, member->bytes()) != member->fingerprint) {
            dropBuffer(memory, member->pageCount);
            m_records.give(member->refs, slotCount(member));
            member->refs = nullptr;
            continue;
        }
        member->memory = memory;
        member->copy = kCopyExact;
        member->flags = static_cast<unsigned char>((member->flags & kOnNonFullList) | kFresh);
        m_residentBytes += member->bytes();
        ++m_unpinnedResident; // a paged-out span is never pinned
        ringInsert(member);
        ++m_pageReads;
        ok |= member == span;
        if (sequential)
            queueForScan(member);
    }
    if (!m_run.empty())
        m_nextSequential = m_run.back()->fileSlot + m_run.back()->pageCount;
    return ok;
}

// The span, just read in file order, goes on the scan queue; the queue keeps at most about a
// budget's worth of entries, stale ones included.
void VirtualMemoryPool::Engine::queueForScan(Span* span) {
    if (m_scanQueue.size() > (m_budget >> kPageShift) + 64) {
        const ScanEntry old = m_scanQueue.front();
        m_scanQueue.pop_front();
        if (isCurrent(old))
            old.span->flags &= static_cast<unsigned char>(~(kScan | kScanUsed));
    }
    try {
        m_scanQueue.push_back({span, span->firstPage, ++m_scanStamps});
    } catch (const std::bad_alloc&) {
        return; // the span is then left to the clock
    }
    span->scanStamp = m_scanStamps;
    span->flags |= kScan;
}

// Rule 13: the first release of a span that came in, in a full store, takes its fingerprint
// while its bytes are still in cache, so the sweep need not read them again.
void VirtualMemoryPool::Engine::takePrint(Span* span) {
    span->flags &= static_cast<unsigned char>(~kFresh);
    if (span->copy == kCopyExact || m_residentBytes + 2 * spare() < m_budget)
        return;
    const unsigned long long print = fingerprint(span->memory, span->bytes());
    if (span->copy == kCopyMaybe && print == span->fingerprint) {
        span->copy = kCopyExact;
        return;
    }
    span->copy = kCopyNone; // changed: the copy in its slot, if any, is out of date
    span->fingerprint = print;
    span->flags |= kPrintTaken;
}

// A span read in file order earns no second chance from its first use (rule 12); a span that
// came in may have its fingerprint taken (rule 13).
void VirtualMemoryPool::Engine::unpinnedSlow(Span* span) {
    span->flags |= (span->flags & kScan) != 0 ? kScanUsed : kReferenced;
    if ((span->flags & kFresh) != 0)
        takePrint(span);
    // What was pinned may have held the store above its budget; a failed page-out here is
    // retried by the next call that needs room (rule 8).
    if (m_residentBytes > m_budget)
        makeRoom(0);
}

} // namespace tcmalloc
