// SPDX-License-Identifier: Apache-2.0
// The CRC-32 checksum, computed piece by piece.
#ifndef OVEL_CRC32_H
#define OVEL_CRC32_H

#include "ovel_frame.h"

namespace ovel {

// The CRC-32 of IEEE 802.3 (polynomial 0x04C11DB7, bits reversed). Can be copied at any
// time: each copy continues the computation from there. Not synchronised.
//
//     crc32 checksum;
//     checksum.start();
//     checksum.encode(text, text + 3);  // "abc"
//     checksum.stop();
//     checksum.value();  // 0x352441C2
//
// Where the processor has carry-less multiplication, calls with 16 bytes or more are many
// times as fast as byte by byte. The checksum is the same.
class OVEL_EXPORT crc32 {
public:
    // The register is 0. A checksum does not start from that: call `start`.
    crc32();

    // Begins a checksum.
    void start();

    // Ends it: from here on `value` is the checksum. A second call undoes the first.
    void stop();

    // The register.
    unsigned int value() const;

    // One byte.
    void encode(char byte);
    void encode(unsigned char byte);

    // The bytes from `begin` up to, not including, `end`.
    void encode(unsigned char const* begin, unsigned char const* end);
    void encode(char const* begin, char const* end);

    // The bytes of a word, the most significant first, whatever their order in memory:
    // four of an integer, `sizeof(void*)` of a pointer.
    void encode(unsigned int word);
    void encode(int word);
    void encode(void* word);

    // The words from `begin` up to, not including, `end`, each in the same way.
    void encode(unsigned int const* begin, unsigned int const* end);
    void encode(int const* begin, int const* end);
    void encode(void* const* begin, void* const* end);

private:
    friend struct detail::inspector;

    // The register after each byte, from a register of 0.
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
