// libFuzzer target for the paged file, on a store whose budget is a fraction of the file. The
// input chooses the page size and whether the file compresses, then is a program of transfers,
// seeks, closes and resets. Plain: every byte read back must be the one written last at that
// place (a gap left by a seek reads as whatever it holds, until written), position and length
// follow the model, and the file holds one reference exactly while a transfer has stopped inside
// a page. Compressed: what the pages hold must inflate with zlib to the bytes written since the
// last reset. No reference may outlive the file. tests/file_test.cpp runs it on seeded inputs.
//
//   cmake --build build/fuzz --target file_fuzz && build/fuzz/fuzz/file_fuzz -max_total_time=600
#include "fuzz_util.h"

namespace {

const unsigned kLimit = 300 * 1024; // bytes a plain file may reach
const size_t kCompressedLimit = 1 << 20;

// Plain: bytes, position, length and mapping against the model. Compressed: transfers write,
// and the members read back at the end must inflate to what was written since the last reset.
void run(FuzzInput& in, HXLVirtualMemoryMgr& store, unsigned openedWith, bool compress) {
    const unsigned pageSize = openedWith != 0 ? openedWith : 8192;
    HXLVirtualFile file;
    file.open(&store, 0, openedWith, compress);
    std::vector<char> bytes(kLimit), buffer;
    std::vector<bool> known(kLimit);
    std::string written;
    unsigned pos = 0, len = 0;
    bool mapped = false;
    while (in.more() && written.size() < kCompressedLimit) {
        const unsigned op = in.byte() % 8, n = in.below(3 * pageSize);
        if (compress && op < 5) {
            const std::string data = sample(in.below(op == 0 ? 70000 : 3000), in.byte());
            check(file.write(data.data(), static_cast<unsigned>(data.size())) ==
                      static_cast<int>(data.size()),
                  "a compressed write returns its count");
            written += data;
        } else if (op < 5) { // write (below 3) or read
            const bool reading = op >= 3;
            const unsigned moved = std::min(n, (reading ? len : kLimit) - pos);
            const std::string data = sample(reading ? n : moved, in.byte());
            buffer.assign(data.begin(), data.end());
            const int got = reading ? file.read(buffer.data(), n) : file.write(data.data(), moved);
            check(got == static_cast<int>(moved), "a transfer moved another count");
            for (unsigned at = pos; at < pos + moved; ++at) {
                check(!(reading && known[at] && buffer[at - pos] != bytes[at]), "a byte changed");
                bytes[at] = buffer[at - pos];
                known[at] = true;
            }
            pos += moved;
            if (moved > 0)
                mapped = pos % pageSize != 0;
        } else if (op == 5 && !compress) { // seek by every origin, past the end too
            const unsigned target = in.below(std::min(len + 2 * pageSize, kLimit) + 1);
            const int origin = static_cast<int>(in.byte() % 3);
            const unsigned from = origin == 1 ? pos : origin == 2 ? len : 0;
            check(file.seek(static_cast<int>(target - from),
                            static_cast<HXLFmFile::seekorigin>(origin)) == static_cast<int>(target),
                  "seek");
            mapped = mapped && pos / pageSize == target / pageSize;
            pos = target;
        } else if (op < 7) {
            check(file.close() == 1, "close");
            mapped = false;
        } else { // a length left would show in the members read back
            const bool disposePages = in.byte() % 2 == 0;
            file.reset(disposePages);
            pos = len = 0;
            mapped = false;
            written.clear();
            if (disposePages)
                known.assign(kLimit, false);
        }
        len = std::max(len, pos);
        check(compress || file.getLength() == static_cast<int>(len), "length");
        check(compress || file.seek(0, HXLFmFile::eSeekCurrent) == static_cast<int>(pos),
              "position");
        const unsigned long long held = heldReferences(store);
        check(compress ? held <= 1 : held == (mapped ? 1u : 0u), "the mapping of the file");
    }
    file.close();
    check(!compress || gunzip(readAll(file)) == written, "the members inflate to other bytes");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput in(data, size);
    const unsigned flags = in.byte();
    const unsigned pageSizes[] = {0, 777, 1000, 4096, 12289}; // 0: the default, 8192
    HXLVirtualMemoryMgr store(64 * 1024, 0, 64);
    run(in, store, pageSizes[flags % 5], (flags & 8) != 0);
    check(heldReferences(store) == 0, "a reference outlives the file");
    return 0;
}
