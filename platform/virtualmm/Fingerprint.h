// The fingerprint of a span's bytes: a 64-bit hash kept with the span's copy in the page file.
// It decides whether a span mapped for writing changed at all (an unchanged one is dropped
// without a write) and whether what a page-in read back is what was written.
//
// Sixteen lanes of 64 bits; each takes one 8-byte word w per round, with a key k of its own:
//   x = w ^ k;  lane = rotl(lane + swap32(w) + lo32(x) * hi32(x), 17)
// The word enters twice, once as itself (halves swapped) and once through the product, so a
// change of one bit always changes the lane; the rotation after each round makes the result
// depend on the order of the words, so words that trade places are seen too. The lanes are
// folded with a full avalanche at the end. The round needs only 32-bit multiplies, so with AVX2
// one instruction does four lanes, with AVX-512 eight; the plain version computes the same
// value. With AVX2 a round takes a 128-byte block into four registers whose chains of add,
// shift and or run side by side: with two registers (eight lanes) the hash waited on that chain
// and ran at half the speed. AVX-512 rotates in one instruction, so two registers whose chain is
// an add and a rotate do the round at twice the AVX2 speed where the CPU has 512-bit units. It is
// ours rather than a library's because the README's commands must work on a fresh machine without
// libxxhash-dev.
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

const unsigned kFingerprintLanes = 16;
const std::size_t kFingerprintBlock = 8 * kFingerprintLanes; // bytes a round takes
const std::uint64_t kFingerprintKeys[kFingerprintLanes] = {
    0x9E3779B97F4A7C15ULL, 0xC2B2AE3D27D4EB4FULL, 0x165667B19E3779F9ULL, 0x85EBCA77C2B2AE63ULL,
    0x27D4EB2F165667C5ULL, 0xD6E8FEB86659FD93ULL, 0xA0761D6478BD642FULL, 0xE7037ED1A0B428DBULL,
    0xBA8894FA3BE59747ULL, 0x069945DEA82460DBULL, 0xF2B5717DB02809EBULL, 0x4604208F575A097BULL,
    0x9B2AF0A33458F9D3ULL, 0x0036C74E48FED613ULL, 0x250924992B7B8FB9ULL, 0x11C2DD5402147E8BULL};

inline std::uint64_t fingerprintRound(std::uint64_t lane, std::uint64_t word, std::uint64_t key) {
    const std::uint64_t x = word ^ key;
    lane += ((word << 32) | (word >> 32)) + (x & 0xFFFFFFFFULL) * (x >> 32);
    return (lane << 17) | (lane >> 47);
}

// Rounds over `blocks` whole 128-byte blocks, in plain code.
inline void fingerprintBlocks(std::uint64_t* lanes, const unsigned char* p, std::size_t blocks) {
    for (; blocks > 0; --blocks, p += kFingerprintBlock) {
        std::uint64_t words[kFingerprintLanes];
        std::memcpy(words, p, kFingerprintBlock);
        for (unsigned i = 0; i < kFingerprintLanes; ++i)
            lanes[i] = fingerprintRound(lanes[i], words[i], kFingerprintKeys[i]);
    }
}

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
// The same rounds, four lanes to an AVX2 register.
__attribute__((target("avx2"))) inline __m256i fingerprintRoundAvx2(__m256i lanes, __m256i words,
                                                                    __m256i keys) {
    const __m256i x = _mm256_xor_si256(words, keys);
    // lo32(x) * hi32(x), plus the word with its 32-bit halves traded
    lanes =
        _mm256_add_epi64(lanes, _mm256_add_epi64(_mm256_shuffle_epi32(words, 0xB1),
                                                 _mm256_mul_epu32(x, _mm256_srli_epi64(x, 32))));
    return _mm256_or_si256(_mm256_slli_epi64(lanes, 17), _mm256_srli_epi64(lanes, 47));
}

__attribute__((target("avx2"))) inline void
fingerprintBlocksAvx2(std::uint64_t* lanes, const unsigned char* p, std::size_t blocks) {
    const __m256i* keys = reinterpret_cast<const __m256i*>(kFingerprintKeys);
    __m256i* out = reinterpret_cast<__m256i*>(lanes);
    __m256i a = _mm256_loadu_si256(out), b = _mm256_loadu_si256(out + 1);
    __m256i c = _mm256_loadu_si256(out + 2), d = _mm256_loadu_si256(out + 3);
    const __m256i ka = _mm256_loadu_si256(keys), kb = _mm256_loadu_si256(keys + 1);
    const __m256i kc = _mm256_loadu_si256(keys + 2), kd = _mm256_loadu_si256(keys + 3);
    for (; blocks > 0; --blocks, p += kFingerprintBlock) {
        const __m256i* w = reinterpret_cast<const __m256i*>(p);
        a = fingerprintRoundAvx2(a, _mm256_loadu_si256(w), ka);
        b = fingerprintRoundAvx2(b, _mm256_loadu_si256(w + 1), kb);
        c = fingerprintRoundAvx2(c, _mm256_loadu_si256(w + 2), kc);
        d = fingerprintRoundAvx2(d, _mm256_loadu_si256(w + 3), kd);
    }
    _mm256_storeu_si256(out, a);
    _mm256_storeu_si256(out + 1, b);
    _mm256_storeu_si256(out + 2, c);
    _mm256_storeu_si256(out + 3, d);
}

// The same rounds, eight lanes to an AVX-512 register.
__attribute__((target("avx512f"))) inline __m512i
fingerprintRoundAvx512(__m512i lanes, __m512i words, __m512i keys) {
    // The zero-masked forms with every lane kept are the plain instructions; GCC 12's plain
    // forms pass an undefined register and warn of it.
    const __mmask8 all = 0xFF;
    const __m512i x = _mm512_xor_si512(words, keys);
    const __m512i product = _mm512_maskz_mul_epu32(all, x, _mm512_maskz_srli_epi64(all, x, 32));
    const __m512i swapped = _mm512_maskz_shuffle_epi32(0xFFFF, words, _MM_PERM_CDAB);
    return _mm512_maskz_rol_epi64(all, _mm512_add_epi64(lanes, _mm512_add_epi64(swapped, product)),
                                  17);
}

__attribute__((target("avx512f"))) inline void
fingerprintBlocksAvx512(std::uint64_t* lanes, const unsigned char* p, std::size_t blocks) {
    const __m512i ka = _mm512_loadu_si512(kFingerprintKeys);
    const __m512i kb = _mm512_loadu_si512(kFingerprintKeys + 8);
    __m512i a = _mm512_loadu_si512(lanes), b = _mm512_loadu_si512(lanes + 8);
    for (; blocks > 0; --blocks, p += kFingerprintBlock) {
        a = fingerprintRoundAvx512(a, _mm512_loadu_si512(p), ka);
        b = fingerprintRoundAvx512(b, _mm512_loadu_si512(p + 64), kb);
    }
    _mm512_storeu_si512(lanes, a);
    _mm512_storeu_si512(lanes + 8, b);
}

inline bool fingerprintHasAvx2() {
    static const bool has = __builtin_cpu_supports("avx2");
    return has;
}
// The CPU's and the system's support: the system must save the 512-bit registers.
inline bool fingerprintHasAvx512() {
    static const bool has = __builtin_cpu_supports("avx512f");
    return has;
}
#endif

} // namespace detail

inline std::uint64_t fingerprint(const void* data, std::size_t bytes) {
    const unsigned char* p = static_cast<const unsigned char*>(data);
    std::uint64_t lanes[detail::kFingerprintLanes];
    for (unsigned i = 0; i < detail::kFingerprintLanes; ++i)
        lanes[i] = (0x243F6A8885A308D3ULL ^ bytes) * (2 * i + 1); // the length is in the seeds
    const std::size_t blocks = bytes / detail::kFingerprintBlock;
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
    if (detail::fingerprintHasAvx512())
        detail::fingerprintBlocksAvx512(lanes, p, blocks);
    else if (detail::fingerprintHasAvx2())
        detail::fingerprintBlocksAvx2(lanes, p, blocks);
    else
#endif
        detail::fingerprintBlocks(lanes, p, blocks);
    if (bytes % detail::kFingerprintBlock != 0) { // the last words, zero-padded
        unsigned char tail[detail::kFingerprintBlock] = {};
        std::memcpy(tail, p + blocks * detail::kFingerprintBlock,
                    bytes % detail::kFingerprintBlock);
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
