// SPDX-License-Identifier: Apache-2.0
// A pipeline that ends: files are read into lines, a filter runs on all processors, and the
// lines leave in batches. Closing the first place is all that the program does to end it. The
// end passes from place to place behind the last token, and the last batch, which is not full,
// is flushed.
//
//     batches FILE...

#include <ovel_petri.h>

#include <cstddef>
#include <cstdio>
#include <exception>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using lines = std::vector<std::string>;

constexpr std::size_t batch_size = 100;

lines read_file(std::string const& name) {
    std::ifstream file(name);
    if (!file)
        throw std::runtime_error("cannot read " + name);
    lines read;
    for (std::string line; std::getline(file, line);)
        read.push_back(line);
    return read;
}

lines without_comments(lines const& all) {
    lines kept;
    for (std::string const& line : all)
        if (line.find_first_not_of(' ') != std::string::npos && !line.starts_with("//"))
            kept.push_back(line);
    return kept;
}

}  // namespace

int main(int count, char** arguments) try {
    // A program without files reads its own source.
    lines files(arguments + 1, arguments + count);
    if (files.empty())
        files.push_back(__FILE__);

    ovel::net net;
    auto const names = net.insert_place<std::string>("names", 8);
    auto const read = net.insert_place<lines>("read", 8, ovel::closes);
    auto const code = net.insert_place<lines>("code", 8, ovel::closes);
    auto const batches = net.insert_place<lines>("batches", 4, ovel::closes);

    net.insert_transition("read", from(names), to(read), read_file);
    net.insert_transition("filter", from(read), to(code), without_comments, {.reentrant = true});
    // An empty value tells it that no more comes. A file may fill several batches, so the
    // rest of them waits for the next one.
    net.insert_transition(
        "gather", from(code), to(batches), [waiting = lines()](std::optional<lines> more) mutable {
            if (more)
                waiting.insert(waiting.end(), more->begin(), more->end());
            bool const enough = !more || waiting.size() >= batch_size;
            return enough && !waiting.empty() ? std::optional(std::exchange(waiting, {}))
                                              : std::nullopt;
        });

    // The consumer's thread needs no signal: `next` is empty at the end, or throws what the
    // net has failed with.
    net.start();
    std::size_t sent = 0;
    for (std::string const& name : files)
        sent += names.send(name);
    names.close();
    std::size_t total = 0;
    std::size_t made = 0;
    while (std::optional<lines> const batch = batches.next()) {
        ++made;
        total += batch->size();
    }
    net.join();
    std::printf("%zu lines of code in %zu files, in %zu batches\n", total, sent, made);
    return batches.ended() && total != 0 ? 0 : 1;
} catch (std::exception const& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
}
