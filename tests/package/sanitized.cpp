// SPDX-License-Identifier: Apache-2.0
// Makes the mistake that its argument names, which a sanitizer must report: `race`, `freed` or
// `header`. Correct programs, of which it must report nothing, are in examples/.
#include <ovel.h>
#include <ovel_std.h>

#include <cstdio>
#include <map>
#include <string_view>
#include <thread>

namespace {

// Both threads take the mutex too late.
void race() {
    int value = 0;
    ovel::lockable<ovel::mutex> lock;
    auto const add = [&] {
        ++value;
        std::lock_guard const hold(lock);
    };
    std::jthread const one(add);
    std::jthread const other(add);
}

// Reads a small block that was freed.
[[gnu::noinline]] void freed() {
    auto const memory = static_cast<char*>(ovel::allocator_support::allocate(100));
    ovel::allocator_support::deallocate(memory);
    std::printf("%d\n", static_cast<char volatile*>(memory)[50]);
}

// Writes to the header before a block.
[[gnu::noinline]] void header() {
    auto const memory = static_cast<char*>(ovel::allocator_support::allocate(100));
    static_cast<char volatile*>(memory)[-1] = 1;
}

}  // namespace

int main(int, char** arguments) {
    std::map<std::string_view, void (*)()> const mistakes{
        {"race", race}, {"freed", freed}, {"header", header}};
    mistakes.at(arguments[1])();
}
