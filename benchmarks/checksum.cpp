// SPDX-License-Identifier: Apache-2.0
// The group checksum: CRC-32 of blocks from a few words to more than any cache holds.
#include "ovel_benchmark.h"
#include "ovel_crc32.h"

#if defined(OVEL_PEER_ZLIB)
#include <zlib.h>
#endif
#if defined(OVEL_PEER_LIBDEFLATE)
#include <libdeflate.h>
#endif
#if defined(OVEL_PEER_ISAL)
#include <isa-l.h>
#endif

#include <cstdint>
#include <vector>

namespace {

// Contestants are functions of the bytes. The figure is the rate.
template <class Checksum>
void contestant(std::string const& row, std::string const& name, std::size_t size,
                Checksum const& checksum) {
    ovel_benchmark::contestant(row, name, [=](benchmark::State& state) {
        std::vector<unsigned char> const bytes(size, 0x5A);
        for (auto _ : state)
            benchmark::DoNotOptimize(checksum(bytes.data(), size));
        state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(size));
    });
}

void row(std::string const& name, std::size_t size) {
    using byte = unsigned char const;
    contestant(name, "ovel", size, [](byte* bytes, std::size_t count) {
        ovel::crc32 running;
        running.start();
        running.encode(bytes, bytes + count);
        running.stop();
        return running.value();
    });
#if defined(OVEL_PEER_ZLIB)
    contestant(name, "zlib", size, [](byte* bytes, std::size_t count) {
        return ::crc32(0, bytes, static_cast<unsigned int>(count));
    });
#endif
#if defined(OVEL_PEER_LIBDEFLATE)
    contestant(name, "libdeflate", size,
               [](byte* bytes, std::size_t count) { return libdeflate_crc32(0, bytes, count); });
#endif
#if defined(OVEL_PEER_ISAL)
    contestant(name, "ISA-L", size,
               [](byte* bytes, std::size_t count) { return crc32_gzip_refl(0, bytes, count); });
#endif
    ovel_benchmark::contestant(name, "floor", [size](benchmark::State& state) {
        ovel_benchmark::read_memory(state, size);
    });
}

}  // namespace

void ovel_benchmark::register_rows() {
    row("64_B", 64);
    row("4_KiB", 4096);
    row("1_MiB", std::size_t(1) << 20);
    row("256_MiB", std::size_t(1) << 28);
}
