// SPDX-License-Identifier: Apache-2.0
#include "kernel.h"
#include "ovel_crc32_folding.h"

#include "ovel_test.h"

using ovel::crc32;

namespace {

template <class... Data>
unsigned int checksum(Data... data) {
    crc32 running;
    running.start();
    running.encode(data...);
    running.stop();
    return running.value();
}

// The register starts at 0, so the first byte yields its entry of the table, which is the
// polynomial applied to it.
TEST(crc32_test, each_byte_is_divided_by_the_polynomial) {
    for (unsigned int byte = 0; byte < 256; ++byte) {
        unsigned int expected = byte;
        for (int bit = 0; bit < 8; ++bit)
            expected = (expected >> 1) ^ ((expected & 1) != 0 ? 0xEDB88320 : 0);
        crc32 running;
        running.encode(static_cast<char>(byte));
        EXPECT_EQ(running.value(), expected) << byte;
        running.stop();
        EXPECT_EQ(running.value(), ~expected) << byte;
    }
    char const known[] = "123456789";
    EXPECT_EQ(checksum(known, known), 0u);
    EXPECT_EQ(checksum(known, known + 9), 0xCBF43926);
}

// Single bytes use the table. Blocks of every alignment, and of every length that leaves
// another rest for the lanes, are summed in each way that this processor has, and in two
// parts.
TEST(crc32_test, many_bytes_at_once_give_the_same_checksum_as_one_by_one) {
    struct {
        ovel::carryless needs;
        std::size_t least;
        void (*feed)(std::uint32_t&, unsigned char const*, std::size_t);
    } const ways[] = {{ovel::carryless::single, 16, ovel::detail::crc32_narrow},
                      {ovel::carryless::pairs, 16, ovel::detail::crc32_wide},
                      {ovel::carryless::fours, 64, ovel::detail::crc32_widest}};
    constexpr std::size_t most = 850;
    std::vector<unsigned char> bytes(most + 32);
    std::generate(bytes.begin(), bytes.end(), std::mt19937());
    for (std::size_t from = 0; from < 32; ++from) {
        unsigned char const* const begin = bytes.data() + from;
        crc32 slow;
        slow.start();
        for (std::size_t count = 0; count <= most; ++count) {
            SCOPED_TRACE(testing::Message() << count << " bytes from " << from);
            crc32 fast, resumed;
            fast.start();
            fast.encode(begin, begin + count);
            ASSERT_EQ(fast.value(), slow.value());
            resumed.start();
            resumed.encode(begin, begin + count * 5 / 13);
            resumed.encode(begin + count * 5 / 13, begin + count);
            ASSERT_EQ(resumed.value(), slow.value());
            for (auto const& way : ways)
                if (ovel::carryless_multiplication() >= way.needs && count >= way.least) {
                    std::uint32_t running = 0xFFFFFFFF;
                    way.feed(running, begin, count);
                    ASSERT_EQ(running, slow.value()) << "way " << &way - ways;
                }
            slow.encode(begin[count]);
        }
    }
}

TEST(crc32_test, words_are_fed_most_significant_byte_first) {
    int const numbers[] = {0x61626364, -2};
    unsigned int const words[] = {0x61626364, 0xFFFFFFFE};
    unsigned char const bytes[] = {'a', 'b', 'c', 'd', 0xFF, 0xFF, 0xFF, 0xFE};
    unsigned int const both = checksum(bytes, bytes + 8);
    EXPECT_EQ(checksum(numbers, numbers + 2), both);
    EXPECT_EQ(checksum(words, words + 2), both);
    EXPECT_EQ(checksum(-2), checksum(bytes + 4, bytes + 8));
    EXPECT_EQ(checksum(0xFFFFFFFE), checksum(-2));

    // These processors store the least significant byte first.
    std::array<unsigned char, sizeof(void*)> digits;
    void* const pointer = &digits;
    std::memcpy(&digits, &pointer, sizeof pointer);
    std::ranges::reverse(digits);
    unsigned int const once = checksum(digits.data(), digits.data() + digits.size());
    EXPECT_EQ(checksum(pointer), once);
    EXPECT_EQ(checksum(&pointer, &pointer + 1), once);
}

}  // namespace
