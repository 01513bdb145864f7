// SPDX-License-Identifier: Apache-2.0
// CRC-32 by carry-less multiplication, 16, 32 or 64 bytes at a time.
//
// The bits of a message are the coefficients of a polynomial over GF(2); the first bit
// has the highest power. The checksum's register after it is the message times x^32,
// modulo P, the polynomial of degree 32. All words here are reversed, as the checksum
// is: the lowest bit of the first byte has the highest power, and loaded words need not
// be reversed.
//
// Folding. Sixteen bytes that n more bits follow contribute their value times x^n modulo
// P. With high and low half H and L, that is
//
//     H (x^(n+64) mod P) + L (x^n mod P)
//
// of at most 96 bits, which is added to the 16 bytes that stand n bits later. So each
// block is folded into the next until one is left. The product of two reversed words of
// 64 bits is that of the polynomials, reversed in 128 bits, times x. So the constants
// are of one power less.
//
// The last 128 bits, times x^32, become T = H (x^96 mod P) + L x^32 of 96 bits. T
// modulo P is T + QP, with Q the quotient of T's upper 64 bits A by P. For
// polynomials Q is exactly the upper half of A (x^96 / P), rounded down.
#ifndef OVEL_CRC32_FOLDING_H
#define OVEL_CRC32_FOLDING_H

#include <immintrin.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace ovel::detail {

// P without its highest term, reversed.
inline constexpr std::uint32_t crc32_polynomial = 0xEDB88320;

// x^`power` modulo P, reversed.
constexpr std::uint32_t crc32_remainder(unsigned int power) {
    std::uint32_t value = 0x80000000;
    for (unsigned int done = 0; done != power; ++done)
        value = (value >> 1) ^ ((value & 1) != 0 ? crc32_polynomial : 0);
    return value;
}

// x^96 / P, reversed in 65 bits, without the lowest term, which the quotient does not
// need.
constexpr std::uint64_t crc32_reciprocal() {
    std::uint64_t quotient = 0;
    std::uint32_t value = 0x80000000;
    for (unsigned int done = 1; done != 96; ++done) {
        // The bit shifted out of the 32 is the quotient's next term. The first 31 are 0.
        if ((value & 1) != 0)
            quotient |= std::uint64_t(1) << (done - 32);
        value = (value >> 1) ^ ((value & 1) != 0 ? crc32_polynomial : 0);
    }
    return quotient;
}

// The factors of the two halves, the first half in the lower word, of 16 bytes that
// `bits` more bits follow.
struct alignas(16) crc32_factors {
    constexpr crc32_factors() = default;  // every product is 0
    constexpr explicit crc32_factors(unsigned int bits)
        : first(std::uint64_t(crc32_remainder(bits + 63)) << 32),
          second(std::uint64_t(crc32_remainder(bits - 1)) << 32) {}

    std::uint64_t first = 0;
    std::uint64_t second = 0;
};

inline constexpr crc32_factors crc32_over_128(128);
inline constexpr crc32_factors crc32_over_512(512);
inline constexpr crc32_factors crc32_over_2048(2048);
// Factors that move the first three of four lanes onto the last.
alignas(64) inline constexpr crc32_factors crc32_over_384_to_0[4] = {
    crc32_factors(384), crc32_factors(256), crc32_factors(128), crc32_factors()};
alignas(16) inline constexpr std::uint64_t crc32_over_96[2] = {
    std::uint64_t(crc32_remainder(96)) << 1, 0};
alignas(16) inline constexpr std::uint64_t crc32_division[2] = {
    crc32_reciprocal(), std::uint64_t(crc32_polynomial) << 1 | 1};

// Loaded from 16 + n or 16 - n, a shuffle that moves the bytes of a lane up or down by
// n and fills with 0.
alignas(16) inline constexpr unsigned char crc32_moves[48] = {
    0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80,
    0,    1,    2,    3,    4,    5,    6,    7,    8,    9,    10,   11,   12,   13,   14,   15,
    0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80};

#define OVEL_CRC32_NARROW [[gnu::target("pclmul,ssse3,sse4.1")]]
#define OVEL_CRC32_WIDE [[gnu::target("pclmul,ssse3,sse4.1,avx2,vpclmulqdq")]]
#define OVEL_CRC32_WIDEST [[gnu::target("pclmul,ssse3,sse4.1,avx2,avx512f,vpclmulqdq")]]

OVEL_CRC32_NARROW [[gnu::always_inline]] inline __m128i crc32_load(void const* bytes) {
    return _mm_loadu_si128(static_cast<__m128i const*>(bytes));
}

// Moves `lane` by the number of bits that `over` was made for.
OVEL_CRC32_NARROW [[gnu::always_inline]] inline __m128i crc32_fold(__m128i lane,
                                                                   crc32_factors const& over) {
    __m128i const factors = crc32_load(&over);
    return _mm_xor_si128(_mm_clmulepi64_si128(lane, factors, 0x00),
                         _mm_clmulepi64_si128(lane, factors, 0x11));
}

// The register after `lane` and the `count` bytes that follow it.
OVEL_CRC32_NARROW [[gnu::always_inline]] inline std::uint32_t crc32_finish(
    __m128i lane, unsigned char const* bytes, std::size_t count) {
    for (; count >= 16; bytes += 16, count -= 16)
        lane = _mm_xor_si128(crc32_fold(lane, crc32_over_128), crc32_load(bytes));
    if (count != 0) {
        // With `count` bytes left, the first `count` bytes of the lane are folded onto the
        // last 16 bytes, which are the rest of the lane and the bytes left.
        __m128i const up = crc32_load(crc32_moves + count);
        __m128i const down = crc32_load(crc32_moves + 16 + count);
        __m128i const front = _mm_shuffle_epi8(lane, up);
        // The load also covers earlier bytes of the message, which may be read.
        __m128i const last = crc32_load(bytes + count - 16);
        __m128i const rest = _mm_shuffle_epi8(lane, down);
        __m128i const keep = _mm_cmpgt_epi8(_mm_setzero_si128(), down);
        lane = _mm_xor_si128(crc32_fold(front, crc32_over_128),
                             _mm_or_si128(rest, _mm_and_si128(keep, last)));
    }
    __m128i const dividend = _mm_xor_si128(
        _mm_clmulepi64_si128(lane, crc32_load(crc32_over_96), 0x00), _mm_srli_si128(lane, 8));
    __m128i const division = crc32_load(crc32_division);
    __m128i const quotient = _mm_clmulepi64_si128(dividend, division, 0x00);
    __m128i const remainder =
        _mm_xor_si128(dividend, _mm_clmulepi64_si128(quotient, division, 0x10));
    return static_cast<std::uint32_t>(_mm_extract_epi32(remainder, 2));
}

// The register after `count` bytes, 16 or more, in lanes of 16 bytes.
OVEL_CRC32_NARROW [[gnu::always_inline]] inline std::uint32_t crc32_by_lanes(
    std::uint32_t running, unsigned char const* bytes, std::size_t count) {
    __m128i const before = _mm_cvtsi32_si128(static_cast<int>(running));
    __m128i lane = _mm_xor_si128(crc32_load(bytes), before);
    if (count < 64)
        return crc32_finish(lane, bytes + 16, count - 16);
    __m128i lane_1 = crc32_load(bytes + 16);
    __m128i lane_2 = crc32_load(bytes + 32);
    __m128i lane_3 = crc32_load(bytes + 48);
    for (bytes += 64, count -= 64; count >= 64; bytes += 64, count -= 64) {
        lane = _mm_xor_si128(crc32_fold(lane, crc32_over_512), crc32_load(bytes));
        lane_1 = _mm_xor_si128(crc32_fold(lane_1, crc32_over_512), crc32_load(bytes + 16));
        lane_2 = _mm_xor_si128(crc32_fold(lane_2, crc32_over_512), crc32_load(bytes + 32));
        lane_3 = _mm_xor_si128(crc32_fold(lane_3, crc32_over_512), crc32_load(bytes + 48));
    }
    lane = _mm_xor_si128(crc32_fold(lane, crc32_over_384_to_0[0]),
                         crc32_fold(lane_1, crc32_over_384_to_0[1]));
    lane = _mm_xor_si128(lane, _mm_xor_si128(crc32_fold(lane_2, crc32_over_128), lane_3));
    return crc32_finish(lane, bytes, count);
}

// Adds `count` bytes, 16 or more, to the register.
OVEL_CRC32_NARROW inline void crc32_narrow(std::uint32_t& running, unsigned char const* bytes,
                                           std::size_t count) {
    running = crc32_by_lanes(running, bytes, count);
}

OVEL_CRC32_WIDE [[gnu::always_inline]] inline __m256i crc32_load_two(void const* bytes) {
    return _mm256_loadu_si256(static_cast<__m256i const*>(bytes));
}

// Moves both lanes by the number of bits that `factors` were made for.
OVEL_CRC32_WIDE [[gnu::always_inline]] inline __m256i crc32_fold_two(__m256i lanes,
                                                                     __m256i factors) {
    return _mm256_xor_si256(_mm256_clmulepi64_epi128(lanes, factors, 0x00),
                            _mm256_clmulepi64_epi128(lanes, factors, 0x11));
}

// Like `crc32_narrow`, but in pairs of lanes if there are enough bytes.
OVEL_CRC32_WIDE inline void crc32_wide(std::uint32_t& running, unsigned char const* bytes,
                                       std::size_t count) {
    if (count < 64) {
        running = crc32_by_lanes(running, bytes, count);
        return;
    }
    __m256i const before = _mm256_zextsi128_si256(_mm_cvtsi32_si128(static_cast<int>(running)));
    __m256i lanes = _mm256_xor_si256(crc32_load_two(bytes), before);
    __m256i lanes_1 = crc32_load_two(bytes + 32);
    __m256i const factors = _mm256_broadcastsi128_si256(crc32_load(&crc32_over_512));
    for (bytes += 64, count -= 64; count >= 64; bytes += 64, count -= 64) {
        lanes = _mm256_xor_si256(crc32_fold_two(lanes, factors), crc32_load_two(bytes));
        lanes_1 = _mm256_xor_si256(crc32_fold_two(lanes_1, factors), crc32_load_two(bytes + 32));
    }
    // Move the first three of the four lanes onto the last.
    lanes = crc32_fold_two(lanes, crc32_load_two(crc32_over_384_to_0));
    __m128i lane = _mm_xor_si128(_mm256_castsi256_si128(lanes), _mm256_extracti128_si256(lanes, 1));
    lane = _mm_xor_si128(lane, crc32_fold(_mm256_castsi256_si128(lanes_1), crc32_over_128));
    lane = _mm_xor_si128(lane, _mm256_extracti128_si256(lanes_1, 1));
    running = crc32_finish(lane, bytes, count);
}

OVEL_CRC32_WIDEST [[gnu::always_inline]] inline __m512i crc32_load_four(void const* bytes) {
    return _mm512_loadu_si512(bytes);
}

// Uses a mask of all ones here and below: without one, gcc warns about its own headers.
OVEL_CRC32_WIDEST [[gnu::always_inline]] inline __m512i crc32_factors_for_four(
    crc32_factors const& over) {
    return _mm512_maskz_broadcast_i32x4(0xFFFF, crc32_load(&over));
}

// Moves four lanes by the number of bits that `factors` were made for, onto four others.
OVEL_CRC32_WIDEST [[gnu::always_inline]] inline __m512i crc32_fold_four(__m512i lanes,
                                                                        __m512i factors,
                                                                        __m512i onto) {
    constexpr int exclusive_or = 0x96;  // as a table of all eight cases of three bits
    return _mm512_ternarylogic_epi64(_mm512_clmulepi64_epi128(lanes, factors, 0x00),
                                     _mm512_clmulepi64_epi128(lanes, factors, 0x11), onto,
                                     exclusive_or);
}

// From this number of bytes on, `crc32_widest` is faster than `crc32_wide`.
inline constexpr std::size_t crc32_worth_four = 128;

// The same for 64 bytes or more, in four times four lanes if there are enough bytes: the
// processor overlaps that many multiplications.
OVEL_CRC32_WIDEST inline void crc32_widest(std::uint32_t& running, unsigned char const* bytes,
                                           std::size_t count) {
    __m512i const before = _mm512_zextsi128_si512(_mm_cvtsi32_si128(static_cast<int>(running)));
    __m512i const factors = crc32_factors_for_four(crc32_over_512);
    __m512i lanes = _mm512_xor_si512(crc32_load_four(bytes), before);
    bytes += 64, count -= 64;
    if (count >= 192) {
        __m512i const factors_of_four = crc32_factors_for_four(crc32_over_2048);
        __m512i lanes_1 = crc32_load_four(bytes);
        __m512i lanes_2 = crc32_load_four(bytes + 64);
        __m512i lanes_3 = crc32_load_four(bytes + 128);
        for (bytes += 192, count -= 192; count >= 256; bytes += 256, count -= 256) {
            lanes = crc32_fold_four(lanes, factors_of_four, crc32_load_four(bytes));
            lanes_1 = crc32_fold_four(lanes_1, factors_of_four, crc32_load_four(bytes + 64));
            lanes_2 = crc32_fold_four(lanes_2, factors_of_four, crc32_load_four(bytes + 128));
            lanes_3 = crc32_fold_four(lanes_3, factors_of_four, crc32_load_four(bytes + 192));
        }
        lanes = crc32_fold_four(lanes, factors, lanes_1);
        lanes = crc32_fold_four(lanes, factors, lanes_2);
        lanes = crc32_fold_four(lanes, factors, lanes_3);
    }
    for (; count >= 64; bytes += 64, count -= 64)
        lanes = crc32_fold_four(lanes, factors, crc32_load_four(bytes));
    // Move the first three of the four lanes onto the last.
    __m512i const last = _mm512_maskz_mov_epi64(0xC0, lanes);
    lanes = crc32_fold_four(lanes, crc32_load_four(crc32_over_384_to_0), last);
    __m256i const two = _mm256_xor_si256(_mm512_maskz_extracti64x4_epi64(0xF, lanes, 0),
                                         _mm512_maskz_extracti64x4_epi64(0xF, lanes, 1));
    __m128i const lane =
        _mm_xor_si128(_mm256_castsi256_si128(two), _mm256_extracti128_si256(two, 1));
    running = crc32_finish(lane, bytes, count);
}

#undef OVEL_CRC32_NARROW
#undef OVEL_CRC32_WIDE
#undef OVEL_CRC32_WIDEST

}  // namespace ovel::detail

#endif
