// SPDX-License-Identifier: Apache-2.0
// The CRC-32 checksum, computed incrementally.
#ifndef OVEL_CRC32_H
#define OVEL_CRC32_H

#include "ovel_frame.h"

namespace ovel {

// The CRC-32 of IEEE 802.3 (polynomial 0x04C11DB7, bits reversed). It can be copied at
// any time, and the copy continues the computation from there. Not synchronised.
//
//     crc32 checksum;
//     checksum.start();
//     checksum.encode(text, text + 3);  // "abc"
//     checksum.stop();
//     checksum.value();  // 0x352441C2
//
// If the processor has carry-less multiplication, calls with 16 bytes or more run many
// times faster than byte by byte, with the same result.
class OVEL_EXPORT crc32 {
public:
    // Sets the register to 0. Call `start` before computing a checksum.
    crc32();

    // Begins a checksum.
    void start();

    // Ends the checksum: `value` then returns it. A second call undoes the first.
    void stop();

    // The value of the register.
    unsigned int value() const;

    // Adds one byte.
    void encode(char byte);
    void encode(unsigned char byte);

    // Adds the bytes from `begin` up to, but not including, `end`.
    void encode(unsigned char const* begin, unsigned char const* end);
    void encode(char const* begin, char const* end);

    // Adds the bytes of a word, most significant first, whatever their order in memory:
    // four bytes of an integer, `sizeof(void*)` of a pointer.
    void encode(unsigned int word);
    void encode(int word);
    void encode(void* word);

    // Adds the words from `begin` up to, but not including, `end`, each in the same way.
    void encode(unsigned int const* begin, unsigned int const* end);
    void encode(int const* begin, int const* end);
    void encode(void* const* begin, void* const* end);

private:
    friend struct detail::inspector;

    // Entry i is the register after byte i, starting from a register of 0.
    static unsigned int const _table[256];

    unsigned int _register;
};

inline void crc32::start() {
    _register = 0xFFFFFFFF;
}

inline void crc32::stop() {
    _register = ~_register;
}

inline unsigned int crc32::value() const {
    return _register;
}

}  // namespace ovel

#endif
