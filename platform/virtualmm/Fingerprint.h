// The fingerprint of a span's bytes: a 64-bit hash kept with the span's copy in the page file.
// It decides whether a span mapped for writing changed at all (an unchanged one is dropped
// without a write) and whether what a page-in read back is what was written.
//
// Eight lanes of 64 bits; each takes one 8-byte word w per round, with a key k of its own:
//   x = w ^ k;  lane = rotl(lane + swap32(w) + lo32(x) * hi32(x), 17)
// The word enters twice, once as itself (halves swapped) and once through the product, so a
// change of one bit always changes the lane; the rotation after each round makes the result
// depend on the order of the words, so words that trade places are seen too. The lanes are
// folded with a full avalanche at the end. The round needs only 32-bit multiplies, so with AVX2
// one instruction does four lanes; the plain version computes the same value. Measured on 64 KiB
// blocks in cache on the project's 2-core EPYC machines (bench/virtualmm_bench, BM_Fingerprint
// against BM_ZlibCrc32): about 33 GB/s with AVX2, ten times zlib's crc32 there (3.2 GB/s), and
// about 14 GB/s in plain code. It is ours rather than a library's because the README's commands
// must work on a fresh machine without libxxhash-dev.
//
// It is no cryptographic hash: a page file is private to its process (mode 0600, unlinked), so
// the damage it must catch is a disk's or a stray writer's, not an adversary's. The value is
// the same on every machine, AVX2 or not.
#ifndef HXL_VMM_FINGERPRINT_H
#define HXL_VMM_FINGERPRINT_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace tcmalloc {

namespace detail {

const std::uint64_t kFingerprintKeys[8] = {
    0x9E3779B97F4A7C15ULL, 0xC2B2AE3D27D4EB4FULL, 0x165667B19E3779F9ULL, 0x85EBCA77C2B2AE63ULL,
    0x27D4EB2F165667C5ULL, 0xD6E8FEB86659FD93ULL, 0xA0761D6478BD642FULL, 0xE7037ED1A0B428DBULL};

inline std::uint64_t fingerprintRound(std::uint64_t lane, std::uint64_t word, std::uint64_t key) {
    const std::uint64_t x = word ^ key;
    lane += ((word << 32) | (word >> 32)) + (x & 0xFFFFFFFFULL) * (x >> 32);
    return (lane << 17) | (lane >> 47);
}

// Rounds over `blocks` whole 64-byte blocks, in plain code.
inline void fingerprintBlocks(std::uint64_t* lanes, const unsigned char* p, std::size_t blocks) {
    for (; blocks > 0; --blocks, p += 64) {
        std::uint64_t words[8];
        std::memcpy(words, p, 64);
        for (unsigned i = 0; i < 8; ++i)
            lanes[i] = fingerprintRound(lanes[i], words[i], kFingerprintKeys[i]);
    }
}

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
// The same rounds, four lanes to an AVX2 register.
__attribute__((target("avx2"))) inline void
fingerprintBlocksAvx2(std::uint64_t* lanes, const unsigned char* p, std::size_t blocks) {
    __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(lanes));
    __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(lanes + 4));
    const __m256i ka = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(kFingerprintKeys));
    const __m256i kb = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(kFingerprintKeys + 4));
    for (; blocks > 0; --blocks, p += 64) {
        const __m256i wa = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
        const __m256i wb = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + 32));
        const __m256i xa = _mm256_xor_si256(wa, ka), xb = _mm256_xor_si256(wb, kb);
        // lo32(x) * hi32(x), plus the word with its 32-bit halves traded
        a = _mm256_add_epi64(a, _mm256_add_epi64(_mm256_shuffle_epi32(wa, 0xB1),
                                                 _mm256_mul_epu32(xa, _mm256_srli_epi64(xa, 32))));
        b = _mm256_add_epi64(b, _mm256_add_epi64(_mm256_shuffle_epi32(wb, 0xB1),
                                                 _mm256_mul_epu32(xb, _mm256_srli_epi64(xb, 32))));
        a = _mm256_or_si256(_mm256_slli_epi64(a, 17), _mm256_srli_epi64(a, 47));
        b = _mm256_or_si256(_mm256_slli_epi64(b, 17), _mm256_srli_epi64(b, 47));
    }
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(lanes), a);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(lanes + 4), b);
}

inline bool fingerprintHasAvx2() {
    static const bool has = __builtin_cpu_supports("avx2");
    return has;
}
#endif

} // namespace detail

inline std::uint64_t fingerprint(const void* data, std::size_t bytes) {
    const unsigned char* p = static_cast<const unsigned char*>(data);
    std::uint64_t lanes[8];
    for (unsigned i = 0; i < 8; ++i)
        lanes[i] = (0x243F6A8885A308D3ULL ^ bytes) * (2 * i + 1); // the length is in the seeds
    const std::size_t blocks = bytes / 64;
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
    if (detail::fingerprintHasAvx2())
        detail::fingerprintBlocksAvx2(lanes, p, blocks);
    else
#endif
        detail::fingerprintBlocks(lanes, p, blocks);
    if (bytes % 64 != 0) { // the last words, zero-padded
        unsigned char tail[64] = {};
        std::memcpy(tail, p + blocks * 64, bytes % 64);
        detail::fingerprintBlocks(lanes, tail, 1);
    }
    std::uint64_t out = bytes;
    for (std::uint64_t lane : lanes) {
        out = (out ^ lane) * 0xBF58476D1CE4E5B9ULL;
        out ^= out >> 31;
    }
    out ^= out >> 33;
    out *= 0xFF51AFD7ED558CCDULL;
    return out ^ (out >> 33);
}

} // namespace tcmalloc

#endif
