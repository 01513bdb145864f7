// SPDX-License-Identifier: Apache-2.0
// A pipeline over files: one transition reads, another computes checksums on all
// processors, and the places between them limit the memory in use. Prints the CRC-32, the
// size and the name of each file in a folder; `gzip -lv` of a compressed file shows the
// same CRC-32.
//
//     checksums FOLDER

#include <ovel_crc32.h>
#include <ovel_petri.h>

#include <cstddef>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace {

struct content {
    std::string name;
    std::string bytes;
};

struct result {
    std::string name;
    std::size_t size;
    unsigned int checksum;
};

std::unique_ptr<content> read_file(std::string name) {
    std::ifstream file(name, std::ios::binary);
    if (!file)
        throw std::runtime_error("cannot read " + name);
    return std::make_unique<content>(
        content{std::move(name), {std::istreambuf_iterator<char>(file), {}}});
}

result checksum_of(std::unique_ptr<content> const& file) {
    ovel::crc32 sum;
    sum.start();
    sum.encode(file->bytes.data(), file->bytes.data() + file->bytes.size());
    sum.stop();
    return {file->name, file->bytes.size(), sum.value()};
}

}  // namespace

int main(int count, char** arguments) try {
    std::string const folder = count > 1 ? arguments[1] : ".";

    ovel::net net;
    auto const names = net.insert_place<std::string>("names", 64);
    auto const contents = net.insert_place<std::unique_ptr<content>>("contents", 4);
    auto const results = net.insert_place<result>("results", 16);
    net.insert_transition("read", from(names), to(contents), read_file);
    net.insert_transition("checksum", from(contents), to(results), checksum_of,
                          {.reentrant = true});
    net.start();

    std::map<std::string, result> sorted;
    std::size_t sent = 0;
    auto const take = [&](result taken) {
        sorted.emplace(taken.name, std::move(taken));
    };
    for (auto const& entry : std::filesystem::directory_iterator(folder)) {
        if (!entry.is_regular_file())
            continue;
        // The pipeline is full: take a result out at its end.
        while (!names.try_send(entry.path().string()))
            take(results.receive());
        ++sent;
    }
    while (sorted.size() != sent)
        take(results.receive());
    net.join();

    for (auto const& [name, of] : sorted)
        std::printf("%08x %10zu  %s\n", of.checksum, of.size, name.c_str());
    return 0;
} catch (std::exception const& failure) {
    std::fprintf(stderr, "checksums: %s\n", failure.what());
    return 1;
}
