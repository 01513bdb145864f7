// The CRC-32 checksum, computed piece by piece.
#ifndef OVEL_CRC32_H
#define OVEL_CRC32_H

#include "ovel_frame.h"

namespace ovel {

// The CRC-32 of IEEE 802.3 (polynomial 0x04C11DB7, bits reversed). Copyable at
// any time: both copies go on from where the computation is. Not synchronised.
//
//     crc32 checksum;
//     checksum.start();
//     checksum.encode(text, text + 3);  // "abc"
//     checksum.stop();
//     checksum.value();  // 0x352441C2
//
// Sixteen bytes and more at a time go many times as fast as byte by byte where the
// processor multiplies without carries; the checksum is the same.
class OVEL_EXPORT crc32 {
public:
    // The register is 0, which is not what a checksum starts from: see `start`.
    crc32();

    // Begins a checksum.
    void start();

    // Ends it: from here on `value` is the checksum. A second time undoes this.
    void stop();

    // The register.
    unsigned int value() const;

    // One byte.
    void encode(char byte);
    void encode(unsigned char byte);

    // The bytes from `begin` up to, not including, `end`.
    void encode(unsigned char const* begin, unsigned char const* end);
    void encode(char const* begin, char const* end);

    // The bytes of a word, the most significant first whatever their order in
    // memory: four of an integer, `sizeof(void*)` of a pointer.
    void encode(unsigned int word);
    void encode(int word);
    void encode(void* word);

    // The words from `begin` up to, not including, `end`, each in the same way.
    void encode(unsigned int const* begin, unsigned int const* end);
    void encode(int const* begin, int const* end);
    void encode(void* const* begin, void* const* end);

private:
    friend struct detail::inspector;

    // What feeding each byte to a register of 0 makes of it.
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
