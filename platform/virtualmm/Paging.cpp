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
    if (m_table.residentBytes + incoming <= m_table.budget)
        return true;
    if (m_table.released != 0) { // something may have been let go since the last sweep
        m_table.released = 0;
        m_allPinned = false;
    }
    const unsigned long long goal = m_table.budget - spare();
    auto needMore = [&] {
        return m_table.residentBytes - m_batch.leavingBytes() + incoming > goal;
    };
    // A span in the batch to be written behind leaves memory with it instead (rule 18).
    auto choose = [&](Span* span) {
        if ((span->flags & kBehind) != 0)
            m_batch.removeBehind(span);
        return chooseVictim(span);
    };
    auto chosen = [](const Span* span) { return (span->flags & (kInBatch | kBehind)) == kInBatch; };
    while (needMore() && !m_scanQueue.empty()) {
        const ScanEntry entry = m_scanQueue.pop();
        Span* span = entry.span;
        if (!isCurrent(entry) || !span->resident() || (span->hotFlags() & kFastScan) == 0)
            continue; // stale
        span->hotFlags() &= static_cast<unsigned char>(~(kFastScan | kFastScanUsed));
        if (!pinned(span) && !chosen(span) && !choose(span))
            return false;
    }
    // Two laps pass every span twice, so that one with its referenced bit is taken on the
    // second; a sweep that runs out of them has found every other span pinned (rule 2).
    bool lapsRun = false;
    for (unsigned long long visits = m_allPinned ? 0 : 2 * m_ring.size(); needMore(); --visits) {
        if (visits == 0 || m_ring.size() == 0) {
            lapsRun = true;
            break;
        }
        Span* span = m_ring.advance();
        if (pinned(span) || chosen(span))
            continue;
        if ((span->hotFlags() & kFastReferenced) != 0) {
            span->hotFlags() &= static_cast<unsigned char>(~kFastReferenced);
            continue;
        }
        if (!choose(span))
            return false;
    }
    if (!flushBatch())
        return false;
    m_allPinned = m_allPinned || lapsRun;
    return true;
}

// The unpinned span leaves memory: at once when its copy is exact or its bytes unchanged
// (rule 4), else through the batch; a class's kept empty span is released instead, since its
// bytes mean nothing. False only when flushing the batch failed.
bool VirtualMemoryPool::Engine::chooseVictim(Span* span) {
    if (span->liveCount == 0 && span->classIndex != kLargeClass) {
        --m_classes[span->classIndex].emptySpans;
        releaseSpan(span);
        return true;
    }
    if (span->state != kExact) {
        const unsigned long long print =
            span->state == kPrinted ? span->fingerprint : fingerprint(span->memory, span->bytes());
        if (span->state != kMaybe || print != span->fingerprint) {
            return !m_batch.addLeaving(span, print) || flushBatch();
        }
        setState(span, kExact); // mapped for writing, but not a byte changed
    }
    ++m_counts.pageDrops;
    evict(span);
    return true;
}

// The span, just printed at its first release in a full store, is written with the next batch
// and stays resident (rule 18).
void VirtualMemoryPool::Engine::writeBehind(Span* span) {
    if (m_batch.addBehind(span))
        flushBatch(); // a failed write leaves the spans with no copy (rule 8)
}

// Writes the batch in runs of adjacent file slots; each span chosen by a sweep leaves memory
// when written, each span written behind stays with an exact copy.
bool VirtualMemoryPool::Engine::flushBatch() {
    // A span to be written behind that was mapped for writing since is left to the sweep.
    std::vector<BatchEntry>& batch = m_batch.entries();
    for (std::size_t i = batch.size(); i-- > 0;)
        if ((batch[i].span->flags & kBehind) != 0 && batch[i].span->state != kPrinted)
            m_batch.removeBehind(batch[i].span);
    if (batch.empty())
        return true;
    const bool opened = m_file.open();
    for (BatchEntry& entry : batch) {
        Span* span = entry.span;
        if (opened && span->fileSlot == kNoSlot) {
            span->fileSlot = m_file.take(span->pageCount, span);
            entry.newSlot = span->fileSlot != kNoSlot;
        }
    }
    std::sort(batch.begin(), batch.end(), [](const BatchEntry& a, const BatchEntry& b) {
        return a.span->fileSlot < b.span->fileSlot;
    });
    bool allWritten = true;
    for (std::size_t first = 0, end; first < batch.size(); first = end) {
        // A run: slots that follow one another, as many as one gathered call takes.
        end = first + 1;
        while (end < batch.size() && end - first < IOV_MAX &&
               batch[end].span->fileSlot ==
                   batch[end - 1].span->fileSlot + batch[end - 1].span->pageCount)
            ++end;
        m_pieces.clear();
        for (std::size_t i = first; i < end; ++i)
            m_pieces.push_back({batch[i].span->memory, batch[i].span->bytes()});
        const unsigned slot = batch[first].span->fileSlot;
        const bool attempted = opened && slot != kNoSlot;
        const bool written =
            attempted && m_file.write(m_pieces.data(), static_cast<unsigned>(end - first), slot);
        allWritten &= written;
        for (std::size_t i = first; i < end; ++i) {
            Span* span = batch[i].span;
            const bool stays = (span->flags & kBehind) != 0;
            span->flags &= static_cast<unsigned char>(~(kInBatch | kBehind));
            if (written) {
                span->fingerprint = batch[i].fingerprint;
                setState(span, kExact);
                ++m_counts.pageWrites;
                if (!stays)
                    evict(span);
                continue;
            }
            if (batch[i].newSlot)
                giveFileSlot(span);
            if (attempted || span->state == kPrinted)
                setState(span, kNoCopy); // its slot may now hold part of the new bytes (rule 8)
        }
    }
    m_batch.clear();
    return allWritten;
}

// The span, unpinned and with an exact copy, leaves memory.
void VirtualMemoryPool::Engine::evict(Span* span) {
    leaveMemory(span);
    m_counts.pageOuts += span->pageCount;
}

// Returns the span's file slot for reuse.
void VirtualMemoryPool::Engine::giveFileSlot(Span* span) {
    m_file.give(span->fileSlot, span->pageCount);
    span->fileSlot = kNoSlot;
}

// Reads the span back, with the spans that follow it in the file when the reads go in file
// order (rule 11). False when the span itself cannot be read or is damaged (rule 9).
bool VirtualMemoryPool::Engine::pageIn(Span* span) {
    const bool sequential = span->fileSlot == m_nextSequential;
    const unsigned long long runBytes = gatherRun(span, sequential);
    if (!makeRoom(runBytes))
        return false;
    const std::size_t readCount = readRun(span);
    bool ok = false;
    for (std::size_t i = 0; i < m_run.size(); ++i) {
        Span* member = m_run[i];
        char* memory = static_cast<char*>(m_pieces[i].iov_base);
        if (i >= readCount || fingerprint(memory, member->bytes()) != member->fingerprint) {
            m_memory.give(memory, member->pageCount);
            m_hotBlocks.give(m_hots[i], hotBytes(member->classIndex));
            continue;
        }
        becomeResident(member, memory, m_hots[i], kExact);
        ++m_counts.pageReads;
        ok |= member == span;
        if (member != span) // read ahead: resident and unpinned, a span the sweep may take
            m_table.released = 1;
        if (sequential)
            queueForScan(member);
    }
    if (!m_run.empty())
        m_nextSequential = m_run.back()->fileSlot + m_run.back()->pageCount;
    return ok;
}

// Puts the span in m_run, with the paged-out spans that follow it in the file when reading
// ahead, up to 256 KiB and a quarter of the budget; gives the run's bytes.
unsigned long long VirtualMemoryPool::Engine::gatherRun(Span* span, bool sequential) {
    m_run.clear();
    m_run.push_back(span);
    unsigned long long runBytes = span->bytes();
    if (!sequential)
        return runBytes;
    const unsigned long long limit = std::min(kIoRunBytes, m_table.budget / 4);
    unsigned next = span->fileSlot + span->pageCount;
    while (m_run.size() < m_run.capacity()) {
        Span* follower = static_cast<Span*>(const_cast<void*>(m_file.ownerAt(next)));
        if (follower == nullptr || follower->resident() || runBytes + follower->bytes() > limit)
            break;
        m_run.push_back(follower);
        runBytes += follower->bytes();
        next += follower->pageCount;
    }
    return runBytes;
}

// Gives the run memory and hot blocks (in m_pieces and m_hots, the run cut to what memory
// there is, and to what pinned spans leave room for) and reads it in one gathered call; gives
// how many spans of the run were read, from the first (whose slot starts the run).
std::size_t VirtualMemoryPool::Engine::readRun(const Span* span) {
    unsigned long long runBytes = 0;
    for (const Span* member : m_run)
        runBytes += member->bytes();
    while (m_run.size() > 1 && m_table.residentBytes + runBytes > m_table.budget) {
        runBytes -= m_run.back()->bytes();
        m_run.pop_back();
    }
    m_pieces.clear();
    m_hots.clear();
    for (Span* member : m_run) {
        char* memory = m_memory.take(member->pageCount);
        FastSpan* hot = memory ? takeHot(member->classIndex) : nullptr;
        if (hot == nullptr) {
            if (memory != nullptr)
                m_memory.give(memory, member->pageCount);
            break;
        }
        m_hots.push_back(hot); // cannot throw: reserved as m_run
        m_pieces.push_back({memory, member->bytes()});
    }
    m_run.resize(m_pieces.size());
    if (!m_pieces.empty() &&
        m_file.read(m_pieces.data(), static_cast<unsigned>(m_pieces.size()), span->fileSlot))
        return m_pieces.size();
    if (m_pieces.size() > 1 && m_file.read(m_pieces.data(), 1, span->fileSlot))
        return 1; // the read-ahead failed; the span asked for may still be whole
    return 0;
}

// The span, just read in file order, goes on the scan queue; the queue keeps at most about a
// budget's worth of entries, stale ones included.
void VirtualMemoryPool::Engine::queueForScan(Span* span) {
    if (m_scanQueue.size() > (m_table.budget >> kPageShift) + 64) {
        const ScanEntry old = m_scanQueue.pop();
        if (isCurrent(old) && old.span->resident())
            old.span->hotFlags() &= static_cast<unsigned char>(~(kFastScan | kFastScanUsed));
    }
    if (m_scanQueue.push(span)) // else the span is left to the clock
        span->hotFlags() |= kFastScan;
}

// Rule 13: the first release of a new span in a full store takes its fingerprint while its
// bytes are still in cache, and rule 18 writes it with the next batch, so the sweep need not
// read them again.
void VirtualMemoryPool::Engine::takePrint(Span* span) {
    span->hotFlags() &= static_cast<unsigned char>(~kFastFresh);
    if (span->state == kExact || !nearlyFull())
        return;
    const unsigned long long print = fingerprint(span->memory, span->bytes());
    if (span->state == kMaybe && print == span->fingerprint) {
        setState(span, kExact);
        return;
    }
    span->fingerprint = print; // changed: the copy in its slot, if any, is out of date
    setState(span, kPrinted);
    writeBehind(span);
}

} // namespace tcmalloc
